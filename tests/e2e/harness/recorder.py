"""A run of the daemon with rtls-record at its tap."""
import pathlib
import signal
import subprocess

from . import tap_publisher as taps
from .daemon import BUILD, Daemon, environment, free_port
from .peers import DEADLINE, wait_until


def messages_of(file: pathlib.Path) -> list:
    """Those of a file that is being written, as far as it is."""
    return taps.recorded(file.read_bytes(), is_growing=True) if file.exists() else []


def count(messages: list, event: bytes) -> int:
    return sum(topic == b"event" and event in payload[0] for topic, _, *payload in messages)


def bridges_have_gone(messages: list) -> bool:
    return count(messages, b'"bridge_closed"') == count(messages, b'"bridge_connected"') > 0


def record(folder: pathlib.Path, file: pathlib.Path, talk, prepare=lambda gateway: None, is_complete=bridges_have_gone,
           **options) -> pathlib.Path:
    """What `talk` has a gateway do, from its first event until the messages are complete. `prepare`: what it is to know
    before. A file that is there is replaced."""
    endpoint = f"tcp://127.0.0.1:{free_port()}"
    change = options.pop("change", lambda tree: tree)
    gateway = Daemon(folder, change=lambda tree: {**change(tree), "tap": {"address": endpoint}}, **options)
    file.unlink(missing_ok=True)
    recorder = None
    try:
        prepare(gateway)
        recorder = subprocess.Popen([BUILD / "rtls-record", "--tap", endpoint, file], env=environment())
        wait_until(lambda: count(messages_of(file), b'"started"'), "the event that the gateway has started")
        talk(gateway)
        wait_until(lambda: is_complete(messages_of(file)), "all to be recorded")
        recorder.send_signal(signal.SIGINT)
        assert recorder.wait(DEADLINE) == 0
    finally:
        if recorder and recorder.poll() is None:
            recorder.kill()
            recorder.wait()
        gateway.close()
    return file

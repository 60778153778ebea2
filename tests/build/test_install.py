"""cmake --install puts each file where the system's users look for it."""
import subprocess

from conftest import ROOT


def test_programs_and_configuration_have_their_places(prefix):
    libraries = (prefix / "lib", prefix / "include", prefix / "share")
    files = {str(path.relative_to(prefix)) for path in prefix.rglob("*")
             if path.is_file() and not any(path.is_relative_to(folder) for folder in libraries)}
    assert files == {"sbin/rtls-gateway", "bin/rtls-sim", "bin/rtls-gateway-check", "bin/rtls-ctl",
                     "bin/rtls-mqtt", "bin/rtls-record", "bin/rtls-replay", "bin/rtls-tail",
                     "etc/rtls-gateway/rtls-gateway.conf"}


def test_the_logging_library_is_installed_for_other_programs(prefix):
    installed = sorted(path.name for path in (prefix / "lib").rglob("*") if path.is_file())
    assert "librtls-core.a" in installed and "rtls-core-config.cmake" in installed
    assert not [name for name in installed if name.startswith("librtls_")], "the layers are nobody else's"


def test_headers_are_those_of_its_c_interface(prefix):
    """What the daemon shares with the library beside them is internal. That they suffice: core_package in ctest."""
    installed = {str(path.relative_to(prefix / "include")) for path in (prefix / "include").rglob("*") if path.is_file()}
    assert installed == {"core/clogger.h", "core/ctimestamp.h"}


def test_shells_find_the_completion(prefix):
    for name in ("ctl", "mqtt", "record", "replay", "tail"):
        for place in (f"bash-completion/completions/rtls-{name}", f"zsh/site-functions/_rtls-{name}"):
            assert f"_rtls_{name}() {{" in (prefix / "share" / place).read_text()


def test_the_configuration_is_the_one_that_explains_itself(prefix):
    installed = prefix / "etc/rtls-gateway/rtls-gateway.conf"
    assert installed.read_bytes() == (ROOT / "config/rtls-gateway.conf").read_bytes()
    assert installed.stat().st_mode & 0o777 == 0o644


def test_installed_programs_run(programs):
    for program in programs:
        arguments, says = (["-x"], "invalid option") if program.name == "rtls-gateway" else (["--help"], "Usage")
        done = subprocess.run([program, *arguments], env={"PATH": "/usr/bin:/bin"}, text=True, stdout=subprocess.PIPE,
                              stderr=subprocess.STDOUT, timeout=60, check=False)
        assert says in done.stdout, program
        assert done.returncode == 0 or arguments == ["-x"], program

"""Libraries and tools see what they are said to see: no tool another one's files, and no library the daemon's code."""
import json
import shlex

import pytest
from conftest import ROOT, run
from test_layers import LAYERS, function_of, link

TOOLS = {"common": "rtls_tools_common", "tap": "rtls_tap_lib", "doors": "rtls_doors_lib", "rtls-record": "rtls_record_lib",
         "rtls-replay": "rtls_replay_lib", "rtls-tail": "rtls_tail_lib", "rtls-ctl": "rtls_ctl_lib", "rtls-sim": "rtls_sim_lib",
         "rtls-mqtt": "rtls_mqtt_lib", "rtls-gateway-check": "rtls_check_lib"}
STAND_ON = {"rtls-record": {"tap"}, "rtls-replay": {"tap"}, "rtls-tail": {"tap"}, "rtls-ctl": {"doors"},
            "rtls-mqtt": {"tap", "doors"}}


def headers_of(*layers) -> set:
    return {f"{layer}/{path.name}" for layer in layers for path in (ROOT / "src" / layer).glob("*.h")}


DESCRIPTOR = {"base/unique_fd.h"}
RECORDING = {"base/bytes.h", "base/hex.h", "tap/tap_format.h"}
DECODED = headers_of("base", "registry", "wire")
OF_THE_DAEMON = {"core": set(), "rtls_recording": RECORDING, "rtls_decode": DECODED, "rtls_tools_common": DESCRIPTOR,
                 "rtls_doors_lib": DESCRIPTOR, "rtls_ctl_lib": DESCRIPTOR, "rtls_sim_lib": DESCRIPTOR, "rtls_check_lib": headers_of(*LAYERS),
                 "rtls_tap_lib": RECORDING | DESCRIPTOR, "rtls_record_lib": RECORDING | DESCRIPTOR,
                 "rtls_replay_lib": RECORDING | DECODED, "rtls_tail_lib": RECORDING | DECODED,
                 "rtls_mqtt_lib": RECORDING | DECODED}


def compiler_command(build, library) -> list:
    """How the library's sources are compiled, without source and output."""
    for entry in json.loads((build.folder / "compile_commands.json").read_text()):
        command = shlex.split(entry["command"])
        output = command[command.index("-o") + 1]
        if f"CMakeFiles/{library}.dir/" in output and "cmake_pch" not in output:
            return command[:command.index("-o")]
    raise AssertionError(f"no source of {library} is compiled")


def require_seen(build, library, tmp_path, headers: dict):
    """That the library finds those headers of which it is said so, and no others."""
    lines = []
    for header, seen in headers.items():
        lines += [f'#if {"!" if seen else ""}__has_include("{header}")',
                  f'#error {header} is {"not " if seen else ""}found from {library}', "#endif"]
    assert len(lines) > 20
    source = tmp_path / "includes.cpp"
    source.write_text("\n".join(lines) + "\n")
    run(*compiler_command(build, library), "-fsyntax-only", source, cwd=build.folder)


@pytest.mark.parametrize("folder", TOOLS)
def test_a_tool_finds_no_file_of_another(build, folder, tmp_path):
    seen = {folder, "common"} | STAND_ON.get(folder, set())
    require_seen(build, TOOLS[folder], tmp_path, {f"{path.parent.name}/{path.name}": path.parent.name in seen
                                                  for path in (ROOT / "tools").glob("*/*.h")})


@pytest.mark.parametrize("library", OF_THE_DAEMON)
def test_of_the_daemon_a_library_finds_what_it_is_given(build, library, tmp_path):
    require_seen(build, library, tmp_path, {header: header in OF_THE_DAEMON[library] for header in headers_of(*LAYERS)})


@pytest.mark.parametrize("library", ["core", "rtls_recording", "rtls_tools_common"])
def test_a_call_of_the_daemons_code_does_not_link(build, library, tmp_path):
    source, climber = tmp_path / "climber.cpp", tmp_path / "climber.o"
    source.write_text(f'int above() __asm__("{function_of(build, "base")}");\nint climb();\nint climb() {{ return above(); }}\n')
    run(*compiler_command(build, library), "-c", source, "-o", climber, cwd=build.folder)
    assert link(build, library, tmp_path / "program").returncode == 0
    failed = link(build, library, tmp_path / "program", climber)
    assert failed.returncode != 0 and "undefined reference" in failed.stdout


def test_the_decoder_links_with_the_layers_that_it_is_said_to_see(build, tmp_path):
    assert link(build, "rtls_decode", tmp_path / "program").returncode == 0


def test_every_folder_of_tools_is_looked_at():
    assert {path.parent.name for path in (ROOT / "tools").glob("*/CMakeLists.txt")} == set(TOOLS) | {"wireshark"}
    assert set(TOOLS.values()) < set(OF_THE_DAEMON)

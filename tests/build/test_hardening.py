"""What reads the network is built so that a fault in it is hard to use: read from the files themselves."""
import json
import re

import pytest
from conftest import run

@pytest.fixture(autouse=True)
def not_sanitized(build):
    if build.sanitized:
        pytest.skip("a sanitizer does more, and hides some of it")


def readelf(option, file) -> str:
    return run("readelf", "--wide", option, file)


def test_each_program_lies_at_another_address_each_time(programs):
    for program in programs:
        assert "DYN (Position-Independent Executable file)" in readelf("--file-header", program), program


def test_what_the_linker_fills_in_is_complete_and_read_only_before_main(build, programs):
    for program in programs:
        assert "GNU_RELRO" in readelf("--program-headers", program), program
        assert "BIND_NOW" in readelf("--dynamic", program), program
        for file in (program, build.folder / program.name):
            dynamic = readelf("--dynamic", file)
            assert "RPATH" not in dynamic and "RUNPATH" not in dynamic, f"{file}: libraries come from the system's folders alone"


def test_nothing_is_writable_and_executable(programs):
    for program in programs:
        segments = [line.split() for line in readelf("--program-headers", program).splitlines()]
        stack = [fields for fields in segments if fields[:1] == ["GNU_STACK"]]
        assert [fields[6:-1] for fields in stack] == [["RW"]], f"{program}: the stack is not executable"
        loaded = ["".join(fields[6:-1]) for fields in segments if fields[:1] == ["LOAD"]]
        assert loaded and not [flags for flags in loaded if "W" in flags and "E" in flags], program


def test_an_overwritten_stack_is_noticed(programs):
    for program in programs:
        assert "__stack_chk_fail" in readelf("--dyn-syms", program), program


def compiled(build) -> list:
    """What our sources but the tests are compiled to, each with its command: the daemon, libraries and programs."""
    entries = [(entry["command"], entry["command"].split(" -o ")[1].split()[0])
               for entry in json.loads((build.folder / "compile_commands.json").read_text())]
    return [(command, output) for command, output in entries
            if output.startswith(("src/", "libs/", "tools/")) and output.endswith(".o")
            and "/tests/" not in output and "test_headers.dir/" not in output]


def test_calls_of_libc_know_how_much_room_there_is(build):
    """One is looked for in the daemon alone: which there are elsewhere is the compiler's and its headers' to say."""
    if build.cache["CMAKE_BUILD_TYPE"] == "Debug":
        pytest.skip("without optimisation there is nothing to know it from")
    assert "__vsnprintf_chk" in readelf("--dyn-syms", build.folder / "rtls-gateway")
    without = [output for command, output in compiled(build)
               if (re.findall(r"-[DU]_FORTIFY_SOURCE\S*", command) or [""])[-1] not in ("-D_FORTIFY_SOURCE=2", "-D_FORTIFY_SOURCE=3")]
    assert not without


def test_the_processor_may_check_each_jump_and_return(build):
    """In our objects: the program's own note names what all its parts have, and Debian's C runtime has none."""
    if build.cache.get("RTLS_HAS_fcf_protection_full") != "1":
        pytest.skip("not with this compiler and processor")
    objects = [file for _, output in compiled(build) if (file := build.folder / output).exists()]
    assert len(objects) > 40 and {file.relative_to(build.folder).parts[0] for file in objects} >= {"src", "libs"}
    unmarked = [file.name for file in objects if "x86 feature: IBT, SHSTK" not in readelf("--notes", file)]
    assert not unmarked

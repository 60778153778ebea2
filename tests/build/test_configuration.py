"""What the build does with its options, seen in trees of its own that are configured for it."""
import json
import pathlib
import re

import pytest
from conftest import ROOT, cache_of, run

ALONE = ["RTLS_TESTS", "RTLS_SIMULATOR", "RTLS_TOOLS", "RTLS_DECODER", "RTLS_BENCHMARKS", "RTLS_FUZZERS"]
NOT_THE_DAEMONS = ["GTest", "benchmark", "CLI11", "fmt"]
# An attempt to find one of these ends the configuration.
HIDDEN = [f"-DCMAKE_DISABLE_FIND_PACKAGE_{package}=ON" for package in NOT_THE_DAEMONS]


def configure(folder: pathlib.Path, *options, source: pathlib.Path = ROOT) -> dict:
    """Configures a build tree and returns its cache."""
    run("cmake", "-G", "Ninja", "-S", source, "-B", folder, *options)
    return cache_of(folder)


def make_whole(folder: pathlib.Path):
    """Another project, of which this one is a part."""
    (folder / "CMakeLists.txt").write_text(
        f"cmake_minimum_required(VERSION 3.25)\nproject(whole LANGUAGES CXX C)\nadd_subdirectory({ROOT} part)\n")


def assert_has_the_daemon_alone(folder: pathlib.Path, cache: dict):
    libraries = {key for key in cache if key.upper().startswith(tuple(name.upper() for name in NOT_THE_DAEMONS))}
    assert not libraries, "it looked for what others need"
    targets = run("ninja", "-C", folder, "-t", "targets", "all")
    programs = {line.split(":")[0].split("/")[-1] for line in targets.splitlines() if "EXECUTABLE" in line}
    assert programs == {"rtls-gateway"}


def test_configuring_again_changes_no_command(tmp_path):
    """Not one: everything would be built twice."""
    def commands():
        run("cmake", "--preset", "release", "-B", tmp_path, cwd=ROOT)
        return run("ninja", "-C", tmp_path, "-t", "commands", "all").splitlines()

    first = commands()
    assert len([line for line in first if "main.cpp" in line]) > 1
    for _ in range(2):
        assert set(commands()) ^ set(first) == set()


def test_the_daemon_alone_looks_for_its_own_libraries_only(tmp_path):
    cache = configure(tmp_path, *HIDDEN, *(f"-D{option}=OFF" for option in ALONE))
    assert_has_the_daemon_alone(tmp_path, cache)
    assert cache["CMAKE_BUILD_TYPE"] == "RelWithDebInfo"


def test_as_part_of_another_project_it_is_the_daemon_alone(tmp_path):
    make_whole(tmp_path)
    cache = configure(tmp_path / "build", *HIDDEN, source=tmp_path)
    assert {option: cache[option] for option in ALONE} == dict.fromkeys(ALONE, "OFF")
    assert_has_the_daemon_alone(tmp_path / "build", cache)
    assert not cache["CMAKE_BUILD_TYPE"], "that is for the other project to say"


@pytest.mark.parametrize("build_type,is_fortified", [
    ("", False), ("Debug", False), ("Release", True), ("RelWithDebInfo", True), ("MinSizeRel", True)])
def test_is_fortified_where_it_is_optimized(tmp_path, build_type, is_fortified):
    """Elsewhere glibc warns in every file that it cannot."""
    make_whole(tmp_path)
    configure(tmp_path / "build", f"-DCMAKE_BUILD_TYPE={build_type}", source=tmp_path)
    commands = run("ninja", "-C", tmp_path / "build", "-t", "commands", "rtls-gateway").splitlines()
    compiled = [line for line in commands if " -c " in line]
    assert len(compiled) > 50
    for line in compiled:
        assert ("-D_FORTIFY_SOURCE=2" in line) == is_fortified == (" -O" in line), line


def test_every_source_is_built(build):
    compiled = {entry["file"] for entry in json.loads((build.folder / "compile_commands.json").read_text())}
    for united in [path for path in compiled if "/Unity/" in path]:
        compiled |= set(re.findall('^#include "(.*)"', pathlib.Path(united).read_text(), re.M))
    folders = ["src", "libs/core/src", "libs/decode", "libs/recording", "tests/unit", "tests/support", "tools"]
    sources = {str(path) for folder in folders for path in (ROOT / folder).rglob("*.cpp")}
    assert len(sources) > 100
    absent = {path for path in sources - compiled if path.endswith("_absent.cpp")}  # in the place of a library
    assert sources - compiled - absent == set()


@pytest.mark.slow
def test_the_daemon_alone_builds_and_installs(tmp_path):
    """With nothing that it can do without. A library compiles as one source: the include lines are proven elsewhere."""
    tree, prefix = tmp_path / "build", tmp_path / "prefix"
    cache = configure(tree, *HIDDEN, *(f"-D{option}=OFF" for option in ALONE + ["RTLS_HTTP", "RTLS_SYSTEMD"]),
                      "-DCMAKE_DISABLE_FIND_PACKAGE_nlohmann_json=ON", "-DCMAKE_BUILD_TYPE=Debug", "-DRTLS_UNITY=ON")
    assert not {key for key in cache if key.startswith(("HTTPLIB", "SYSTEMD"))}
    run("cmake", "--build", tree)
    run("cmake", "--install", tree, "--prefix", prefix)
    assert (prefix / "sbin/rtls-gateway").exists()
    assert not (prefix / "bin").exists()

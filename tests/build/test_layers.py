"""A folder of src/ sees those before it, and nothing else compiles or links."""
import json
import re
import shlex
import subprocess

import pytest
from conftest import ROOT, run

LAYERS = ["base", "registry", "wire", "firmware", "net", "tap", "link", "downlink", "uplink", "server", "terminal",  # from the ground up
          "metrics", "watch", "http"]


def compiler_command(build, layer) -> list:
    """How the layer's sources are compiled, without source and output."""
    for entry in json.loads((build.folder / "compile_commands.json").read_text()):
        if entry["file"].startswith(f"{ROOT}/src/{layer}/"):
            command = shlex.split(entry["command"])
            return command[:command.index("-o")]
    raise AssertionError(f"no source of {layer} is compiled")


def link_command(build, library) -> list:
    """How the program that has nothing but the library and what it depends on is linked."""
    line = run("ninja", "-C", build.folder, "-t", "commands", f"{library}_links_alone").splitlines()[-1]
    return shlex.split(line.removeprefix(": && ").removesuffix(" && :"))


def link(build, library, output, *more) -> subprocess.CompletedProcess:
    command = link_command(build, library)
    command[command.index("-o") + 1] = str(output)
    return subprocess.run(command + [str(part) for part in more], cwd=build.folder, text=True, check=False,
                          stdout=subprocess.PIPE, stderr=subprocess.STDOUT)


def function_of(build, layer) -> str:
    """The linker's name of one function of the layer."""
    symbols = run("nm", "--defined-only", build.folder / f"src/{layer}/librtls_{layer}.a")
    return re.search(r" T (_ZN4rtls\w+)$", symbols, re.M)[1]


@pytest.mark.parametrize("layer", LAYERS)
def test_headers_of_this_layer_and_those_before_are_found_and_no_others(build, layer, tmp_path):
    place = LAYERS.index(layer)
    headers = {f"{folder}/{path.name}": LAYERS.index(folder) <= place
               for folder in LAYERS for path in (ROOT / "src" / folder).glob("*.h")}
    headers |= {"services.h": place >= LAYERS.index("link"), "rtls-gateway.h": False}
    lines = []
    for header, seen in headers.items():
        lines += [f'#if {"!" if seen else ""}__has_include("{header}")',
                  f'#error {header} is {"not " if seen else ""}found from {layer}', "#endif"]
    assert len(lines) > 100
    source = tmp_path / "includes.cpp"
    source.write_text("\n".join(lines) + "\n")
    run(*compiler_command(build, layer), "-fsyntax-only", source, cwd=build.folder)


def test_every_folder_is_a_layer():
    assert {path.name for path in (ROOT / "src").iterdir() if path.is_dir()} == set(LAYERS)


@pytest.mark.parametrize("layer,above", zip(LAYERS, LAYERS[1:]))
def test_a_call_that_climbs_does_not_link(build, layer, above, tmp_path):
    name = function_of(build, above)
    source, climber = tmp_path / "climber.cpp", tmp_path / "climber.o"
    source.write_text(f'int above() __asm__("{name}");\nint climb();\nint climb() {{ return above(); }}\n')
    run(*compiler_command(build, layer), "-c", source, "-o", climber, cwd=build.folder)
    assert link(build, f"rtls_{layer}", tmp_path / "program").returncode == 0
    failed = link(build, f"rtls_{layer}", tmp_path / "program", climber)
    assert failed.returncode != 0 and "undefined reference" in failed.stdout


def test_the_whole_layer_is_linked(build, tmp_path):
    """Otherwise its program would leave out the very objects that call what is above them."""
    assert link(build, "rtls_registry", tmp_path / "program").returncode == 0
    assert function_of(build, "registry") in run("nm", tmp_path / "program")


def test_no_include_goes_around_the_layers():
    around = [f"{path.relative_to(ROOT)}: {line}" for path in (ROOT / "src").rglob("*.[ch]*")
              for line in path.read_text().splitlines() if re.match(r'\s*#\s*include\s*"(\.\.|/)', line)]
    assert not around


def told_by_the_page(title: str) -> dict:
    """What stands in each folder, by the table below that title of the page on the house."""
    section = (ROOT / "docs" / "architecture.md").read_text().split(f"## {title}\n")[1].split("\n## ")[0]
    return {folder: sorted(re.findall(r"`([\w-]+)`", rest)) for folder, rest in re.findall(r"^\| `([\w/-]+)` \|(.*)$", section, re.M)}


def test_the_page_on_the_house_names_what_stands_in_each_folder():
    assert told_by_the_page("What stands in which folder") == {
        folder: sorted({path.stem for path in (ROOT / "src" / folder).glob("*.[ch]*")}) for folder in LAYERS}


def sources_of(folder) -> list:
    """By their names, without main and tests: C++ and Lua, and programs that have no suffix."""
    files = [path for path in [*folder.glob("*"), *folder.glob("src/**/*")] if path.is_file() and not path.name.endswith((".txt", ".in"))]
    return sorted({path.stem for path in files} - {"main"})


def test_the_page_on_the_house_names_what_stands_in_each_library_and_program():
    folders = [path.parent for top in ("libs", "tools") for path in (ROOT / top).glob("*/CMakeLists.txt")]
    assert told_by_the_page("What stands in which library and program") == {
        str(folder.relative_to(ROOT)): sources_of(folder) for folder in folders}

"""The Debian packages, made of the build tree that is there (scripts/package --built). What they do on a machine:
scripts/package-test."""
import fcntl
import json
import os
import pathlib
import re
import subprocess

import pytest
from conftest import ROOT, run

PACKAGES = ["rtls-gateway", "rtls-gateway-tools", "librtls-core-dev"]
PAGES = ["rtls-ctl.1", "rtls-gateway-check.1", "rtls-gateway.8", "rtls-gateway.conf.5", "rtls-mqtt.1",
         "rtls-record.1", "rtls-replay.1", "rtls-sim.1", "rtls-tail.1"]
COMPLETED = ["rtls-ctl", "rtls-mqtt", "rtls-record", "rtls-replay", "rtls-tail"]
UNITS = ["rtls-gateway.service", "rtls-gateway@north.service"]
MOST_EXPOSED = 1.5


@pytest.fixture(scope="module")
def made(build, tmp_path_factory) -> pathlib.Path:
    """The folder with the packages; one for all of pytest's workers, because it takes half a minute."""
    if build.sanitized or build.cache["CMAKE_BUILD_TYPE"] == "Debug":
        pytest.skip("what is packaged is a release build")
    base = tmp_path_factory.getbasetemp()
    folder = (base.parent if os.environ.get("PYTEST_XDIST_WORKER") else base) / "packages"
    with open(folder.with_suffix(".lock"), "w") as lock:
        fcntl.flock(lock, fcntl.LOCK_EX)
        if not folder.exists():
            run(ROOT / "scripts/package", "--built", build.folder.resolve(), "--no-lintian", "--to", folder.with_suffix(".new"))
            folder.with_suffix(".new").rename(folder)
    return folder


@pytest.fixture(scope="module")
def installed(made, tmp_path_factory) -> pathlib.Path:
    """The files of all packages, below a folder."""
    root = tmp_path_factory.mktemp("root")
    for package in made.glob("*.deb"):
        run("dpkg-deb", "-x", package, root)
    return root


def package(made, name: str) -> pathlib.Path:
    (found,) = made.glob(f"{name}_*.deb")
    return found


def files_of(made, name: str) -> set:
    """Without the folders, and without what each package has in /usr/share/doc/<name> and for lintian."""
    lines = run("dpkg-deb", "-c", package(made, name)).splitlines()
    files = {line.split()[5][1:] for line in lines if not line.endswith("/")}
    return {file for file in files if not file.startswith((f"/usr/share/doc/{name}/", "/usr/share/lintian/"))}


def test_lintian_has_nothing_to_say(made):
    (changes,) = made.glob("*.changes")
    assert run("lintian", "--allow-root", "--fail-on", "error,warning,info", "--display-info", changes) == ""


def test_every_override_has_its_reason():
    for file in (ROOT / "debian").glob("*.lintian-overrides"):
        assert file.read_text().startswith("#"), f"{file.name}: a reason, and what it is for"


def test_each_file_has_its_package_and_its_place(made):
    assert files_of(made, "rtls-gateway") == {
        "/usr/sbin/rtls-gateway", "/usr/bin/rtls-gateway-check", "/etc/rtls-gateway/rtls-gateway.conf",
        "/etc/sysctl.d/60-rtls-gateway.conf", "/usr/lib/sysusers.d/rtls-gateway.conf",
        "/lib/systemd/system/rtls-gateway.service", "/lib/systemd/system/rtls-gateway@.service",
        "/usr/share/man/man1/rtls-gateway-check.1.gz", "/usr/share/man/man5/rtls-gateway.conf.5.gz",
        "/usr/share/man/man8/rtls-gateway.8.gz"}
    scripts = [path.name for path in (ROOT / "tools/wireshark").iterdir() if path.suffix in (".lua", ".module")]
    assert {re.sub("/lib/[^/]+-linux-gnu/", "/lib/", file) for file in files_of(made, "rtls-gateway-tools")} == {
        *(f"/usr/lib/wireshark/plugins/rtls/{name}" for name in scripts),
        "/usr/bin/rtls-sim", "/usr/share/man/man1/rtls-sim.1.gz",
        *(place.format(name) for name in COMPLETED for place in (
            "/usr/bin/{}", "/usr/share/bash-completion/completions/{}", "/usr/share/zsh/vendor-completions/_{}",
            "/usr/share/man/man1/{}.1.gz"))}
    assert {re.sub("/lib/[^/]+-linux-gnu/", "/lib/", file) for file in files_of(made, "librtls-core-dev")} == {
        "/usr/include/core/clogger.h", "/usr/include/core/ctimestamp.h", "/usr/lib/librtls-core.a",
        *(f"/usr/lib/cmake/rtls-core/rtls-core-{part}.cmake"
          for part in ("config", "config-version", "targets", "targets-relwithdebinfo"))}


def test_the_examples_and_the_pages_that_show_them_are_there(installed):
    folder = installed / "usr/share/doc/rtls-gateway"
    servers = {path.name for path in (ROOT / "docs/examples").iterdir() if path.is_file()}
    assert len(servers) > 4
    assert {path.name for path in (folder / "examples").iterdir()} == servers | {"alerts.yml", "dashboard.json"}
    for name in servers:
        assert (folder / "examples" / name).read_bytes() == (ROOT / "docs/examples" / name).read_bytes()
        assert os.access(folder / "examples" / name, os.X_OK) == name.endswith(".py"), f"{name}: run as the guide shows"
    linked = set(re.findall(r"\]\((examples/[\w.]+)\)", "".join(page.read_text() for page in folder.glob("*.md"))))
    assert len(linked) > 3 and not [link for link in linked if not (folder / link).exists()]


def test_the_first_install_is_one_of_these_packages(made, build):
    page = (ROOT / "docs/first-install.md").read_text()
    shown = {line.split()[3] for line in page.splitlines() if re.match(r"-[rwx-]{9} root root /", line)}
    shown = {file for file in shown if not file.startswith(("/usr/share/doc/", "/usr/share/lintian/"))}
    assert shown == files_of(made, "rtls-gateway"), "scripts/first-install makes it anew"
    assert f"rtls-gateway_{build.cache['CMAKE_PROJECT_VERSION']}_" in page
    for told in ("READY=1", "WATCHDOG=1", "STOPPING=1", "ended with status 0"):
        assert told in page


def test_nobody_elses_address_is_given_as_the_maintainers(made):
    for name in PACKAGES:
        address = re.search(r"<.*@(.*)>", run("dpkg-deb", "-f", package(made, name), "Maintainer"))[1]
        assert address.endswith(".invalid"), "no domain that somebody may own"
        assert f"@{address}>" in (ROOT / "debian/changelog").read_text().splitlines()[-1]


def test_what_a_site_changes_is_kept_by_an_upgrade(made):
    conffiles = run("dpkg-deb", "-I", package(made, "rtls-gateway"), "conffiles").split()
    assert sorted(conffiles) == ["/etc/rtls-gateway/rtls-gateway.conf", "/etc/sysctl.d/60-rtls-gateway.conf"]


def test_there_is_one_version(made, build):
    version = build.cache["CMAKE_PROJECT_VERSION"]
    assert run("dpkg-parsechangelog", "-l", ROOT / "debian/changelog", "-S", "Version").strip() == version
    assert {run("dpkg-deb", "-f", package(made, name), "Version").strip() for name in PACKAGES} == {version}
    assert re.findall(r"^## (.*)$", (ROOT / "CHANGELOG.md").read_text(), re.M)[0] == version


def test_building_the_packages_needs_what_building_by_hand_does():
    script = (ROOT / "scripts/install-deps").read_text()
    lists = dict(re.findall(r"^(daemon|build)=\(([^)]*)\)", script, re.M))
    by_hand = {word for text in lists.values() for word in text.split() if not word.startswith('"')}
    control = re.search(r"^Build-Depends:\n((?: .*\n)+)", (ROOT / "debian/control").read_text(), re.M)[1]
    declared = {re.split("[ :,]", line.strip())[0] for line in control.splitlines()}
    always_there, for_packages_alone = {"g++", "git"}, {"debhelper-compat", "dh-sequence-installsysusers", "python3"}
    assert declared - for_packages_alone == by_hand - always_there


@pytest.mark.parametrize("flags,root", [
    ("-g -O2", "/somewhere/source"), ("-g -ffile-prefix-map=/somewhere/source=. -O2", "."),
    ("-fmacro-prefix-map=/somewhere=/usr/src", "/usr/src/source"), ("-ffile-prefix-map=/elsewhere=.", "/somewhere/source")])
def test_the_place_of_the_build_is_not_in_what_it_makes(tmp_path, flags, root):
    """Its length was, in the library that cuts it from the paths in records."""
    made = tmp_path / "version.h"
    (call,) = re.findall(r"^rtls_mapped_path\(.*$", (ROOT / "libs/core/CMakeLists.txt").read_text(), re.M)
    (tmp_path / "make.cmake").write_text("\n".join([
        f"include({ROOT}/cmake/mapped_path.cmake)", "set(PROJECT_SOURCE_DIR /somewhere/source)",
        f'set(CMAKE_CXX_FLAGS "{flags}")', call, f"configure_file({ROOT}/libs/core/src/impl/version.h.in {made} @ONLY)"]))
    run("cmake", "-P", tmp_path / "make.cmake")
    assert f'source_directory = "{root}"' in made.read_text()


# ---- units

@pytest.fixture(scope="module")
def system(installed) -> pathlib.Path:
    """As much of a system around the units as systemd-analyze wants to see."""
    units = installed / "lib/systemd/system"
    for target in ("sysinit", "basic", "shutdown", "network-online", "multi-user"):
        (units / f"{target}.target").write_text(f"[Unit]\nDescription={target}\n")
    return installed


@pytest.mark.parametrize("unit", UNITS)
def test_systemd_understands_the_unit_and_finds_its_programs(system, unit):
    assert run("systemd-analyze", "verify", "--man=no", f"--root={system}", unit) == ""


@pytest.mark.parametrize("unit", UNITS)
def test_little_of_the_system_is_open_to_the_daemon(system, unit):
    told = run("systemd-analyze", "security", "--no-pager", "--offline=yes", f"--root={system}",
               f"--threshold={MOST_EXPOSED * 10:.0f}", unit)
    assert float(re.search(r"Overall exposure level for \S+: ([\d.]+)", told)[1]) <= MOST_EXPOSED


def lines_that_differ(one: str, other: str) -> list:
    pairs = list(zip(one.splitlines(), other.splitlines(), strict=True))
    return [(before, after) for before, after in pairs if before != after]


def test_an_instance_has_files_of_its_own_and_is_the_same_otherwise(installed):
    units = installed / "lib/systemd/system"
    single = (units / "rtls-gateway.service").read_text()
    differ = lines_that_differ(single, (units / "rtls-gateway@.service").read_text())
    assert [after.split("=")[0] for _, after in differ[1:]] == ["Description", "ExecStartPre", "ExecStart", "RuntimeDirectory"]
    assert all("%i" in after for _, after in differ[1:])
    assert single == (ROOT / "config/rtls-gateway.service").read_text()


def test_the_user_of_the_unit_is_made(installed):
    users = (installed / "usr/lib/sysusers.d/rtls-gateway.conf").read_text()
    assert re.findall(r"^u (\S+) ", users, re.M) == ["rtls-gateway"]
    assert "\nUser=rtls-gateway\nGroup=rtls-gateway\n" in (installed / "lib/systemd/system/rtls-gateway.service").read_text()


def test_the_bound_of_memory_is_what_its_page_adds_up():
    unit = (ROOT / "config/rtls-gateway.service").read_text()
    page = (ROOT / "docs/sizing.md").read_text().split("### The unit's bound", 1)[1].split("\n## ")[0]
    *parts, total = (int(figure.replace(",", "")) for figure in re.findall(r"^\| [^|]+ \| ([\d,]+) \|", page, re.M))
    assert len(parts) > 5 and sum(parts) == total
    (bound,) = re.findall(r"^MemoryMax=(\d+)G$", unit, re.M)
    assert total <= int(bound) * 1024 <= total * 1.2, "room for the worst, and no more"
    why = " ".join(re.findall(r"^# (.*)$", unit.split("MemoryMax=")[0].split("\n\n")[-1], re.M))
    assert not [part for part in (*parts, total) if not re.search(rf"\b{part:,}\b", why)], "the unit says the same figures"
    for told in (page, (ROOT / "docs/packages.md").read_text()):
        assert f"`MemoryMax={bound}G`" in told


# ---- configuration

def test_the_configuration_is_the_sample_for_a_service(installed):
    differ = lines_that_differ((ROOT / "config/rtls-gateway.conf").read_text(),
                               (installed / "etc/rtls-gateway/rtls-gateway.conf").read_text())
    keys = [after for before, after in differ if not before.lstrip().startswith("#")]
    assert keys == ["pidfile = /run/rtls-gateway/rtls-gateway.pid"]


def test_the_check_finds_bridges_door_open_and_nothing_else(installed):
    told = run(installed / "usr/bin/rtls-gateway-check", "--offline", "--json", "--print",
               installed / "etc/rtls-gateway/rtls-gateway.conf")
    (file,) = json.loads(told)["files"]
    assert [(one["level"], one["kind"], one["key"]) for one in file["findings"]] == [("warning", "open", "ports/win")]
    effective = {one["key"]: one["value"] for one in file["effective"]}
    assert effective["ports/terminal_address"] == "127.0.0.1"


def test_settings_of_the_system_are_off(installed):
    lines = (installed / "etc/sysctl.d/60-rtls-gateway.conf").read_text().splitlines()
    assert [line for line in lines if line and not line.startswith("#")] == []
    settings = [line for line in lines if re.match("#[a-z]", line)]
    assert settings and all(re.fullmatch(r"#[a-z_.0-9]+ = \d+", line) for line in settings)


def test_files_that_are_named_are_there(installed):
    named = set()
    for file in ["etc/rtls-gateway/rtls-gateway.conf", "lib/systemd/system/rtls-gateway.service"]:
        named |= set(re.findall(r"/usr/[\w./-]+\w", (installed / file).read_text()))
    assert len(named) > 3 and not [path for path in named if not (installed / path[1:]).exists()]


# ---- man pages

def rendered(installed, page: str) -> str:
    path = installed / f"usr/share/man/man{page[-1]}" / f"{page}.gz"
    # As lintian looks at it: what troff does not understand comes with it.
    environment = {"PATH": "/usr/bin:/bin", "LC_ALL": "C.UTF-8", "MANROFFSEQ": "", "MANWIDTH": "200"}
    done = subprocess.run(["man", "--warnings", "-E", "UTF-8", "-l", path], env=environment, text=True,
                          stdout=subprocess.PIPE, stderr=subprocess.PIPE, check=True)
    assert done.stderr == ""
    return re.sub(".\b", "", done.stdout)


@pytest.mark.parametrize("page", PAGES)
def test_the_page_is_clean_and_has_what_each_has(installed, page):
    text = rendered(installed, page)
    sections = re.findall(r"^(\S.*)$", text, re.M)[1:-1]
    assert sections[0] == "NAME" and sections[1] == "SYNOPSIS" and sections[-1] == "SEE ALSO"
    assert "{{" not in text and "](" not in text


@pytest.mark.parametrize("page,commands", [
    ("rtls-gateway-check.1", [[]]), ("rtls-ctl.1", [[]]), ("rtls-mqtt.1", [[]]), ("rtls-record.1", [[]]), ("rtls-replay.1", [[]]), ("rtls-tail.1", [[]]),
    ("rtls-sim.1", [["all"], ["bridges"], ["upstream"], ["send"], ["image", "make"], ["discover"], ["config"]])])
def test_the_page_has_each_option_of_its_program(installed, page, commands):
    text = rendered(installed, page)
    for command in commands:
        told = run(installed / "usr/bin" / page[:-2], *command, "--help")
        options = re.findall(r"^  (?:-\w,)?(--[a-z-]+)", told, re.M)
        assert "--help" in options and not [option for option in set(options) - {"--help", "--version"} if option not in text]


def test_the_page_on_the_configuration_has_each_key(installed):
    text = rendered(installed, "rtls-gateway.conf.5")
    keys = json.loads(run(installed / "usr/bin/rtls-gateway-check", "--list-keys", "--json"))["keys"]
    items = re.findall(r"^       ([a-z_]+) = ", text, re.M)
    assert items == [key["name"] for key in keys]

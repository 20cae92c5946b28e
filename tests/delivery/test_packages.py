"""The Debian packages: what they say about themselves, what they hold, and that it works together.

They are packed from the built programs, under a umask that leaves others no rights, and only unpacked
here; ./dev package installs them.
"""

import gzip
import hashlib
import io
import os
import re
import subprocess
import tarfile
from dataclasses import dataclass
from email.message import Message
from email.parser import Parser
from pathlib import Path

import pytest

TREE = Path(__file__).resolve().parents[2]
EPOCH = 1_700_000_000
SCHEMAS = [f"{name}.{form}" for name in ("corvik-connections", "registry-export")
           for form in ("rnc", "rng", "xsd")]
PAPERS = ["changelog.Debian.gz", "changelog.gz", "copyright"]
DOCUMENTS = ["administrators.md", "file-format.md", "registry.md", "roads.svg"]
UNITS = ["corvik-export@.service", "corvik-export@.timer"]
SESSIONS = ["accounting.kss", "night_shift.kss", "night_shift.ws", "warehouse.kss", "warehouse.ws"]
KIT = "usr/lib/corvik-dev-kit/bin"
SHARED_KIT = "usr/share/corvik-dev-kit"
FILES = {
    "corvik": {
        "usr/bin/corvik",
        "usr/share/bash-completion/completions/corvik",
        "usr/share/zsh/vendor-completions/_corvik",
        "usr/share/fish/vendor_completions.d/corvik.fish",
        "usr/share/lintian/overrides/corvik",
        "usr/share/man/man1/corvik.1.gz",
        "usr/share/man/man5/corvik-connections.5.gz",
        *(f"usr/share/corvik/schema/{name}" for name in SCHEMAS),
        *(f"usr/share/doc/corvik/{name}" for name in [*PAPERS, "README.md", "SECURITY.md"]),
        *(f"usr/share/doc/corvik/examples/{name}" for name in UNITS),
        *(f"usr/share/doc/corvik/docs/{name}" for name in DOCUMENTS),
    },
    "corvik-dev-kit": {
        *(f"{KIT}/{name}" for name in ("corvik", "device", "regsh")),
        *(f"{SHARED_KIT}/samples/{name}" for name in ("standard.xml", "zero.xml")),
        *(f"{SHARED_KIT}/samples/tavrin/{name}" for name in SESSIONS),
        *(f"{SHARED_KIT}/man/man1/{name}.1.gz" for name in ("device", "regsh")),
        "usr/share/lintian/overrides/corvik-dev-kit",
        *(f"usr/share/doc/corvik-dev-kit/{name}" for name in [*PAPERS, "README.md", "samples.md"]),
    },
}
PROGRAMS = {"usr/bin/corvik", f"{KIT}/device", f"{KIT}/regsh"}
# Where a shell or a reader of manual pages looks without being told.
FOLDERS_OF_ALL = re.compile(r"(usr/)?(local/)?(s?bin|games)/|usr/(local/)?(share/)?man/|etc/profile")


@dataclass
class Package:
    """A package file, unpacked into memory."""

    path: Path
    control: Message
    control_files: dict[str, bytes]
    members: dict[str, tarfile.TarInfo]
    contents: dict[str, bytes]

    @property
    def files(self) -> set[str]:
        return {name for name, member in self.members.items() if not member.isdir()}


def read_tar(path: Path, part: str) -> tarfile.TarFile:
    packed = subprocess.run(["dpkg-deb", part, path], capture_output=True, check=True)
    return tarfile.open(fileobj=io.BytesIO(packed.stdout))


def contents_of(tar: tarfile.TarFile) -> dict[str, bytes]:
    return {plain(member): tar.extractfile(member).read() for member in tar if member.isfile()}


def plain(member: tarfile.TarInfo) -> str:
    return member.name.removeprefix("./")


def read_package(path: Path) -> Package:
    control_files = contents_of(read_tar(path, "--ctrl-tarfile"))
    data = read_tar(path, "--fsys-tarfile")
    return Package(path, Parser().parsestr(control_files["control"].decode()), control_files,
                   {plain(member): member for member in data}, contents_of(data))


@pytest.fixture(scope="session")
def packages(programs, tmp_path_factory) -> dict[str, Package]:
    folder = tmp_path_factory.mktemp("packages")
    packed = subprocess.run(
        ["cpack", "--config", programs.parent / "CPackConfig.cmake", "-B", folder],
        cwd=folder, env=os.environ | {"SOURCE_DATE_EPOCH": str(EPOCH)}, umask=0o077,
        stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
    assert packed.returncode == 0, packed.stdout
    found = [read_package(path) for path in folder.glob("*.deb")]
    return {package.control["Package"]: package for package in found}


@pytest.fixture(params=sorted(FILES))
def package(packages, request) -> Package:
    return packages[request.param]


@pytest.fixture(scope="session")
def unpacked(packages, tmp_path_factory) -> Path:
    """A folder with what both packages hold."""
    folder = tmp_path_factory.mktemp("unpacked")
    for each in packages.values():
        subprocess.run(["dpkg-deb", "-x", each.path, folder], check=True)
    return folder


def without_links(text: str) -> str:
    return re.sub(r"\[([^]]*)\]\([^)]*\)", r"\1", text)


@pytest.mark.parametrize("name, least_links", [
    ("README.md", 4), ("SECURITY.md", 2), ("docs/administrators.md", 2), ("docs/file-format.md", 0),
    ("docs/registry.md", 1)])
def test_links_of_installed_documents_lead_somewhere(unpacked, name, least_links):
    document = unpacked / "usr/share/doc/corvik" / name
    text = document.read_text()
    links = re.findall(r"\]\(([^)#]+)[^)]*\)", text)
    assert [link for link in links if not (document.parent / link).exists()] == []
    assert len(links) >= least_links
    assert without_links(text) == without_links((TREE / name).read_text())


def test_the_unit_starts_the_installed_program(unpacked):
    unit = (unpacked / "usr/share/doc/corvik/examples" / UNITS[0]).read_text()
    assert "\nExecStart=/usr/bin/corvik -get %i -f new.xml\n" in unit
    assert "@CMAKE" not in unit


@pytest.fixture
def on_device(unpacked, tmp_path):
    """Runs a command on a device of the unpacked kit, and returns what it prints."""

    def run(*command: str, options: tuple = ()) -> str:
        way = os.environ.get("CORVIK_DEVICE_WAY")
        call = [unpacked / KIT / "device", "--keep", tmp_path / "device", *options,
                *(["--way", way] if way else []), "--", *command]
        done = subprocess.run(call, cwd=tmp_path, capture_output=True, text=True)
        assert done.returncode == 0, done.stderr
        return done.stdout

    return run


def depends(package: Package) -> dict[str, str]:
    rows = [row.strip().partition(" ") for row in package.control["Depends"].split(",")]
    return {name: condition.strip("()") for name, _, condition in rows}


# What they say

def test_there_are_two_packages(packages):
    assert set(packages) == set(FILES)


def test_they_are_of_the_version_of_the_project(package, project_version, source):
    first = (source / "packaging/deb/changelog").read_text().splitlines()[0]
    version = package.control["Version"]
    assert version.rpartition("-")[0] == project_version
    assert first.startswith(f"corvik ({version}) ")
    assert package.path.name == "{Package}_{Version}_{Architecture}.deb".format(**package.control)


def test_who_made_them_and_from_what(package):
    assert package.control["Maintainer"] == "corvik developers <maintainers@corvik.invalid>"
    assert package.control["Source"] == "corvik"
    assert package.control["Priority"] == "optional"


def test_each_has_a_description_of_its_own(packages):
    texts = [each.control["Description"].splitlines() for each in packages.values()]
    assert len({summary for summary, *_ in texts}) == len(packages)
    for summary, *rest in texts:
        assert len(summary) < 80
        assert summary[0].islower() and not summary.endswith(".")
        assert len(rest) > 3


def test_the_tool_needs_no_kit(packages):
    needed = depends(packages["corvik"])
    assert "libc6" in needed
    assert not {"corvik-dev-kit", "libsqlite3-0", "libpugixml1v5"} & set(needed)


def test_the_kit_needs_the_very_tool_and_what_its_client_is_linked_with(packages):
    needed = depends(packages["corvik-dev-kit"])
    assert needed["corvik"] == f"= {packages['corvik'].control['Version']}"
    assert {"libc6", "libsqlite3-0", "libpugixml1v5"} <= set(needed)


def test_no_licence_is_claimed(package):
    text = package.contents[f"usr/share/doc/{package.control['Package']}/copyright"].decode()
    assert "No licence has been chosen for corvik" in " ".join(text.split())
    assert "License" not in package.control


def test_the_sources_claim_no_licence_either(source):
    names = {path.name.split(".")[0].upper() for path in source.iterdir()}
    assert not names & {"LICENSE", "LICENCE", "COPYING"}


# What they hold

def test_files(package):
    assert package.files == FILES[package.control["Package"]]


def test_nothing_runs_when_they_are_installed(package):
    assert set(package.control_files) == {"control", "md5sums"}


def test_sums(package):
    sums = {f"{hashlib.md5(content).hexdigest()}  {name}"
            for name, content in package.contents.items()}
    assert set(package.control_files["md5sums"].decode().splitlines()) == sums


def test_owner_rights_and_time_do_not_come_from_the_builder(package):
    for name, member in package.members.items():
        assert (member.uid, member.gid, member.uname, member.gname) == (0, 0, "root", "root"), name
        assert member.mtime == EPOCH, name
        if not member.issym():
            executable = member.isdir() or name in PROGRAMS
            assert oct(member.mode) == oct(0o755 if executable else 0o644), name


def test_compressed_papers_hold_no_name_and_no_time(package):
    packed = {name: content for name, content in package.contents.items() if name.endswith(".gz")}
    assert len(packed) == 4
    for name, content in packed.items():
        assert content[3:9] == b"\0\0\0\0\0\x02", name  # flags, time, best compression
        assert gzip.decompress(content), name


def test_papers_are_those_of_the_sources(package, source):
    folder = f"usr/share/doc/{package.control['Package']}"
    for name, original in {"changelog.gz": "CHANGELOG.md",
                           "changelog.Debian.gz": "packaging/deb/changelog"}.items():
        assert gzip.decompress(package.contents[f"{folder}/{name}"]) == (source / original).read_bytes()


def test_no_path_of_the_builder_is_left(package, source, programs):
    settings = (programs.parent / "CMakeCache.txt").read_text()
    watched = re.search("^CORVIK_(COVERAGE|SANITIZE):BOOL=ON$", settings, re.MULTILINE)
    for name, content in package.contents.items():
        if watched and name in PROGRAMS:
            continue  # never shipped; has to name counters and sources
        for folder in (source, programs.parent):
            assert os.fsencode(folder) not in content, name


def test_what_lintian_leaves_out_has_a_reason(package):
    name = package.control["Package"]
    lines = package.contents[f"usr/share/lintian/overrides/{name}"].decode().splitlines()
    above = [lines[number - 1] if number else "" for number, line in enumerate(lines)
             if not line.startswith("#")]
    assert above
    assert all(line.startswith("# ") for line in above)


# That it works together

def test_nothing_of_the_kit_stands_where_it_would_be_found_by_name(packages):
    assert not {name for name in packages["corvik-dev-kit"].files if FOLDERS_OF_ALL.match(name)}


def test_only_the_kit_has_a_client(packages):
    assert not {name for name in packages["corvik"].files if "regsh" in Path(name).name}


def test_the_readme_of_the_kit_says_that_it_is_not_on_path(packages):
    text = packages["corvik-dev-kit"].contents["usr/share/doc/corvik-dev-kit/README.md"].decode()
    assert "## Not on PATH, on purpose\n" in text
    places = re.findall(r"/(usr/(?:lib|share)/corvik-dev-kit[\w/.-]*)", text)
    assert places
    for place in places:
        assert place in packages["corvik-dev-kit"].members, place


def test_the_device_of_the_kit_takes_client_and_tool_from_the_packages(on_device, unpacked):
    found = on_device("sh", "-c", "readlink -f $(command -v regsh) $(command -v corvik)")
    assert found.splitlines() == [str(unpacked / KIT / "regsh"), str(unpacked / "usr/bin/corvik")]


@pytest.mark.parametrize("sample", ["standard.xml", "zero.xml"])
def test_the_samples_of_the_kit_can_be_exported(on_device, unpacked, sample):
    samples = unpacked / SHARED_KIT / "samples"
    options = ("--registry", samples / sample, "--sessions", samples / "tavrin")
    exported = on_device("sh", "-c", "cd; corvik -get Tavrin -f x.xml 2>/dev/null || exit; cat x.xml",
                         options=options)
    assert exported.startswith("<Tavrin>\n")
    assert "<KSS>" in exported


def test_the_kit_brings_no_tool_of_its_own(packages):
    link = packages["corvik-dev-kit"].members[f"{KIT}/corvik"]
    assert link.issym()
    assert os.path.normpath(f"/{KIT}/{link.linkname}") == "/usr/bin/corvik"

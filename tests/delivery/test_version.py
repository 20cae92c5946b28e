"""The version is written once; whatever else names one agrees with it."""

import datetime
import re
import subprocess
from pathlib import Path

import pytest

KINDS = ["Added", "Changed", "Deprecated", "Removed", "Fixed", "Security"]
MAY_NAME_IT = {"CMakeLists.txt", "CHANGELOG.md", "packaging/deb/changelog",
               "docs/administrators.md"}  # the last shows what "corvik -v" prints
FOLDERS = ["cmake", "common", "connections", "docs", "main", "packaging", "platform", "samples", "tools"]
DEBIAN_ENTRY = re.compile(
    r"corvik \((?P<version>[0-9.]+)-(?P<revision>[1-9][0-9]*)\) unstable; urgency=\w+\n\n"
    r"(?:  \* .+\n(?:    .+\n)*)+\n"
    r" -- (?P<who>.+ <.+>)  (?P<when>.+)\n")


def debian_entries(source: Path) -> list[re.Match]:
    """The entries of the packages' changelog, which consists of nothing else."""
    text = (source / "packaging/deb/changelog").read_text()
    entries = list(DEBIAN_ENTRY.finditer(text))
    assert "\n".join(entry[0] for entry in entries) == text
    return entries


def headings(source: Path, level: int) -> list[str]:
    text = (source / "CHANGELOG.md").read_text()
    return re.findall(rf"^{'#' * level} (.*)$", text, re.MULTILINE)


def own_files(source: Path) -> list[Path]:
    files = [path for path in source.iterdir() if path.is_file() and path.name != ".git"]
    for folder in FOLDERS:
        files += [path for path in (source / folder).rglob("*") if path.is_file()]
    return [path for path in files if "__pycache__" not in path.parts]


def as_numbers(version: str) -> list[int]:
    return [int(part) for part in re.split("[.-]", version)]


def test_the_program_tells_the_version_of_the_project(programs, project_version, tmp_path):
    told = subprocess.run([programs / "corvik", "-v"], cwd=tmp_path, capture_output=True, text=True,
                          check=True)
    assert told.stdout == f"Quorvel: {project_version}\n"


def test_nothing_else_of_the_sources_spells_the_version(source, project_version):
    files = own_files(source)
    naming = {str(path.relative_to(source)) for path in files
              if project_version.encode() in path.read_bytes()}
    assert len(files) > 100
    assert naming - MAY_NAME_IT == set()
    assert {"CMakeLists.txt", "packaging/deb/changelog"} <= naming


def test_the_newest_package_is_of_the_version(source, project_version):
    assert debian_entries(source)[0]["version"] == project_version


def test_packages_grow_newer(source):
    entries = debian_entries(source)
    versions = [as_numbers(f"{entry['version']}-{entry['revision']}") for entry in entries]
    times = [datetime.datetime.strptime(entry["when"], "%a, %d %b %Y %H:%M:%S %z")
             for entry in entries]
    assert versions == sorted(versions, reverse=True)
    assert times == sorted(times, reverse=True)
    # The day of the week is part of the form and not read.
    assert [f"{time:%a}" for time in times] == [entry["when"][:3] for entry in entries]


def test_packages_have_one_maintainer(source):
    contact = re.search(r'CPACK_PACKAGE_CONTACT "(.*)"', (source / "packaging/deb.cmake").read_text())
    assert {entry["who"] for entry in debian_entries(source)} == {contact[1]}


def test_the_changelog_is_sorted_by_kind_of_change(source):
    assert headings(source, 1) == ["Changelog"]
    assert set(headings(source, 3)) <= set(KINDS)
    for section in (source / "CHANGELOG.md").read_text().split("\n## ")[1:]:
        kinds = re.findall(r"^### (.*)$", section, re.MULTILINE)
        assert kinds
        assert kinds == sorted(set(kinds), key=KINDS.index)


def test_the_newest_version_of_the_changelog_is_that_of_the_project(source, project_version):
    sections = headings(source, 2)
    released = [section for section in sections if section != "Unreleased"]
    assert sections[:1] == ["Unreleased"] or released
    assert "Unreleased" not in sections[1:]
    for section in released:
        assert re.fullmatch(r"[0-9.]+ \([0-9]{4}-[0-9]{2}-[0-9]{2}\)", section)
    if released:
        assert released[0].split()[0] == project_version


@pytest.mark.parametrize("preset", ["release", "static"])
def test_there_is_a_preset_for_what_is_shipped(source, preset):
    listed = subprocess.run(["cmake", "--list-presets"], cwd=source, capture_output=True, text=True,
                            check=True)
    assert f'"{preset}"' in listed.stdout

"""Fixtures of the tests of what is delivered beside the programs: papers, completions, packages.

CORVIK_BIN_DIR names the folder of the built programs, CORVIK_DEVICE_WAY, when set, the only way in
which devices are made. CORVIK_DOCUMENTS names a folder of documents that the black-box tests had written
(tests/support/keep_documents.py); without it a part of those tests is run here for the purpose. No test
here needs root or a network.
"""

import os
import re
from pathlib import Path

import pytest

import kept_documents

SOURCE = Path(__file__).resolve().parent.parent.parent


@pytest.fixture(scope="session")
def source() -> Path:
    """The source tree."""
    return SOURCE


@pytest.fixture(scope="session")
def programs() -> Path:
    """Folder of the built programs."""
    folder = os.environ.get("CORVIK_BIN_DIR")
    if not folder:
        pytest.exit("CORVIK_BIN_DIR must name the folder of the built programs", returncode=4)
    return Path(folder).resolve()


@pytest.fixture(scope="session")
def project_version() -> str:
    """The version as CMakeLists.txt has it."""
    text = (SOURCE / "CMakeLists.txt").read_text()
    found = re.search(r"^project\(corvik VERSION ([0-9.]+)\s", text, re.MULTILINE)
    assert found, "CMakeLists.txt names no version"
    return found[1]


@pytest.fixture(scope="session")
def kept(tmp_path_factory) -> dict[str, list[kept_documents.Document]]:
    """The kept documents by role, each content once."""
    folder = os.environ.get("CORVIK_DOCUMENTS")
    if not folder:
        folder = kept_documents.write_a_part(tmp_path_factory.mktemp("kept"))
    return kept_documents.read(Path(folder).resolve())

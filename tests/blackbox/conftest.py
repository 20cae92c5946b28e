"""Fixtures of the black-box tests: the built programs and simulated devices to run them on.

CORVIK_BIN_DIR names the folder of the built programs. CORVIK_DEVICE_WAY, when set, names the only
way in which devices are made.
"""

import os
import subprocess
import sys
from pathlib import Path

import pytest

sys.path.insert(0, str(Path(__file__).resolve().parent.parent / "support"))

from recorder_client import Recorder  # noqa: E402

TIME_LIMIT_SECONDS = 300


def without_ways(names, *paths):
    """The names of what lies in /tmp without the ways to these paths.

    Where a checkout lies below /tmp, the way to it is shown on the device, too.
    """
    shown = {path.parts[2] for path in paths if path.parts[1] == "tmp" and len(path.parts) > 2}
    return [name for name in names if name not in shown]


def program_folder():
    folder = os.environ.get("CORVIK_BIN_DIR")
    if not folder:
        pytest.exit("CORVIK_BIN_DIR must name the folder of the built programs", returncode=4)
    return Path(folder).resolve()


def pytest_configure():
    # The devices of a test belong beside the build, not into the host's /tmp.
    folder = program_folder().parent / "pytest"
    folder.mkdir(exist_ok=True)
    os.environ.setdefault("PYTEST_DEBUG_TEMPROOT", str(folder))


class Result:
    """How a command ended. `status` is negative for a signal, as in subprocess."""

    def __init__(self, completed, log):
        self.status = completed.returncode
        self.stdout_bytes = completed.stdout
        self.stderr_bytes = completed.stderr
        self.log = log

    @property
    def stdout(self):
        return self.stdout_bytes.decode("utf-8", "surrogateescape")

    @property
    def stderr(self):
        return self.stderr_bytes.decode("utf-8", "surrogateescape")

    def __repr__(self):
        return f"Result(status={self.status}, stdout={self.stdout!r}, stderr={self.stderr!r})"


class Device:
    """One simulated device that stays for the length of a test.

    `etc`, `tmp` and `home` are its folders as the host sees them; `home` has the same path inside
    and is the current folder of every command.
    """

    def __init__(self, folder, programs, way=None):
        self.folder = Path(folder)
        self.programs = Path(programs)
        self.way = way
        self._recorder = None
        made = self.run("true")
        if made.status != 0:
            pytest.fail(f"no device: {made.stderr}", pytrace=False)

    @property
    def etc(self):
        return self.folder / "etc"

    @property
    def tmp(self):
        return self.folder / "tmp"

    @property
    def home(self):
        return self.folder / "home"

    @property
    def sessions(self):
        return self.etc / "tavrin/connections"

    @property
    def log(self):
        """Content of the run log in the home folder; None when there is none."""
        path = self.home / "corvik.log"
        return path.read_bytes() if path.exists() else None

    def run(self, *argv, image_type=9, zero=False, identity=None, systeminfo=None, imageid=None,
            client=None, env=None, stdin=None, options=()):
        """Runs a command on the device, in its home folder, and returns a Result.

        image_type: 1 to 10, "none", or None to leave the identity as it is; zero and identity
        ("systeminfo" or "imageid") go with it. systeminfo and imageid (text or bytes) are used as
        the files' whole content instead. client: a Recorder or the path of a program that takes the
        place of regsh; by default the recorder, once recorder() has been called, else the reference
        client. env: set for the command alone. stdin: text or bytes.
        """
        call = [self.programs / "device", "--keep", self.folder]
        call += self._identity(image_type, zero, identity, systeminfo, imageid)
        way = self.way or os.environ.get("CORVIK_DEVICE_WAY")
        call += ["--way", way] if way else []
        settings = {}
        client = client or self._recorder
        if isinstance(client, Recorder):
            settings.update(client.env)
            call += ["--client", client.program]
        elif client is not None:
            call += ["--client", client]
        settings.update(env or {})
        for name, value in settings.items():
            call += ["--env", os.fsencode(name) + b"=" + os.fsencode(value)]
        stdin = stdin.encode() if isinstance(stdin, str) else stdin
        source = {"stdin": subprocess.DEVNULL} if stdin is None else {"input": stdin}
        completed = subprocess.run(
            [*call, *options, "--", *argv], capture_output=True, timeout=TIME_LIMIT_SECONDS,
            cwd=self.home if self.home.exists() else None, **source)
        return Result(completed, self.log)

    def _identity(self, image_type, zero, identity, systeminfo, imageid):
        if systeminfo is not None or imageid is not None:
            self.etc.mkdir(parents=True, exist_ok=True)
            for name, content in (("systeminfo", systeminfo), ("imageid", imageid)):
                (self.etc / name).unlink(missing_ok=True)
                if content is not None:
                    data = content if isinstance(content, bytes) else content.encode()
                    (self.etc / name).write_bytes(data)
            return []
        call = [] if image_type is None else ["--image-type", str(image_type)]
        call += ["--zero"] if zero else []
        return call + (["--identity", identity] if identity else [])

    def corvik(self, *arguments, **options):
        return self.run("corvik", *arguments, **options)

    def regsh(self, *arguments, **options):
        """Runs the reference client on the device's registry, whatever client corvik gets."""
        return self.run(self.programs / "regsh", *arguments, **options)

    def load_registry(self, sample):
        """Loads a sample into the registry: the path of a file, or the sample's text itself."""
        if not isinstance(sample, Path):
            path = self.folder / "sample"
            path.write_bytes(sample if isinstance(sample, bytes) else sample.encode())
            sample = path
        loaded = self.run("true", image_type=None, options=["--registry", sample])
        assert loaded.status == 0, loaded.stderr
        return self

    def recorder(self):
        """Puts a recorder in the registry client's place for all later runs and returns it."""
        self._recorder = Recorder(self.programs / "regsh-recorder",
                                  self.folder / "client/recorder")
        return self._recorder

    def tmp_leftovers(self):
        """Names of what lies in the device's /tmp, sorted."""
        return without_ways(sorted(os.listdir(self.tmp)), self.folder, self.programs)


@pytest.fixture(scope="session")
def programs():
    """Folder of the built programs."""
    folder = program_folder()
    for name in ("corvik", "regsh", "device", "regsh-recorder"):
        if not os.access(folder / name, os.X_OK):
            pytest.fail(f"{folder / name} has not been built", pytrace=False)
    return folder


@pytest.fixture
def make_device(tmp_path, programs):
    """Makes devices: make_device("name") is a new one, or the one of that name again."""

    def make(name="device", way=None):
        return Device(tmp_path / name, programs, way=way)

    return make


@pytest.fixture
def device(make_device):
    """A device of image type 9 with an empty registry."""
    return make_device()

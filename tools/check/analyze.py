"""Runs an analyzer over the sources of a build folder, as many at once as there are processors.

    analyze.py g++|clang-tidy FOLDER

FOLDER is configured; nothing need be built in it. g++ looks at what is not a test, clang-tidy at all
sources, each with the .clang-tidy that is nearest to it. Prints what they complain of; the status is 1
when there was anything.
"""

import concurrent.futures
import json
import os
import shlex
import subprocess
import sys
from pathlib import Path

ROOT = Path(__file__).resolve().parents[2]
TESTS = ROOT / "tests"

# The analyzer of g++ 12 is made for C. Where a function returns an object, and in std::string and
# std::unique_ptr, it sees values that nobody set and memory that nobody frees, and it does not know
# that "new" throws. What is left finds double frees, uses after a free, lost files, bad jumps.
GCC_ANALYZER = ["-O1", "-fanalyzer", "-Wno-analyzer-use-of-uninitialized-value",
                "-Wno-analyzer-possible-null-dereference", "-Wno-analyzer-malloc-leak"]

# clang 14's analyzer itself ends with a signal in std::bit_cast from an array to a pointer.
NOT_FOR_CLANG_ANALYZER = {ROOT / "common/tinyxml.cpp"}


def read_entries(folder: Path) -> list[dict]:
    """One entry for each source, the longest sources first."""
    entries = {}
    for entry in json.loads((folder / "compile_commands.json").read_text()):
        entry["file"] = os.path.realpath(entry["file"])
        entries.setdefault(entry["file"], entry)
    return sorted(entries.values(), key=lambda entry: -os.path.getsize(entry["file"]))


def gcc_command(entry: dict) -> list[str]:
    command = shlex.split(entry["command"])
    command[command.index("-o") + 1] = os.devnull
    return command + GCC_ANALYZER


def tidy_command(entry: dict, folder: Path) -> list[str]:
    command = ["clang-tidy", "--quiet", f"-p={folder}", entry["file"]]
    if Path(entry["file"]) in NOT_FOR_CLANG_ANALYZER:
        command.append("--checks=-clang-analyzer-*")
    return command


def run(command: list[str], folder: str) -> tuple[int, str]:
    ended = subprocess.run(command, cwd=folder, stdin=subprocess.DEVNULL, capture_output=True, text=True,
                           errors="replace", check=False)
    return ended.returncode, ended.stdout + ended.stderr


def main(tool: str, folder: Path) -> int:
    entries = read_entries(folder)
    if tool == "g++":
        entries = [entry for entry in entries if TESTS not in Path(entry["file"]).parents]
        commands = [gcc_command(entry) for entry in entries]
    else:
        once = folder / "once"  # clang-tidy would take a source as often as it is listed
        once.mkdir(exist_ok=True)
        (once / "compile_commands.json").write_text(json.dumps(entries))
        commands = [tidy_command(entry, once) for entry in entries]
    if not entries:
        sys.exit(f"no source in {folder}")
    failed = 0
    with concurrent.futures.ThreadPoolExecutor(len(os.sched_getaffinity(0))) as pool:
        folders = [entry["directory"] for entry in entries]
        for entry, (status, output) in zip(entries, pool.map(run, commands, folders)):
            if status != 0:
                failed += 1
                print(f"---- {entry['file']}: {tool} ended with status {status}\n{output}", flush=True)
    print(f"{len(entries)} sources, {failed} with complaints")
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1], Path(sys.argv[2]).resolve()))

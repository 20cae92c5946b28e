"""Measures whole processes. Runs on the simulated device, started by bench_processes.py.

    measure_on_device.py PLAN RESULT

PLAN and RESULT are JSON files. A plan is {"prepare": [action], "rounds": N, "steps": [step]}. Each
round runs every step once, in rotating order; its outcome is [seconds, peak memory in bytes].
"""

import json
import os
import re
import signal
import subprocess
import sys
import time
import xml.etree.ElementTree as ElementTree
from pathlib import Path

NOWHERE = [(os.POSIX_SPAWN_OPEN, number, "/dev/null", os.O_RDWR, 0) for number in range(3)]
LONGEST_SECONDS = 600
BLANKS = re.compile(r"\s+")


def run_timed(argv: list[str], environment: dict[str, str]) -> tuple[float, int]:
    """Seconds from start to exit, and the most memory that the process or a child of it held.

    The kernel counts the starter's own memory in until the program has replaced it: a figure that is
    no larger than that is given as 0.
    """
    start = time.perf_counter()
    process = os.posix_spawnp(argv[0], argv, environment, file_actions=NOWHERE)
    _, status, usage = os.wait4(process, 0)
    seconds = time.perf_counter() - start
    if os.waitstatus_to_exitcode(status) != 0:
        sys.exit(f"{' '.join(argv)} ended with {os.waitstatus_to_exitcode(status)}")
    own = int(re.search(r"VmHWM:\s+(\d+)", Path("/proc/self/status").read_text())[1])
    return seconds, usage.ru_maxrss * 1024 if usage.ru_maxrss > own else 0


def run_untimed(command: list[str], environment: dict[str, str]) -> None:
    done = subprocess.run(command, env=environment, stdin=subprocess.DEVNULL,
                          stdout=subprocess.DEVNULL, stderr=subprocess.PIPE)
    if done.returncode != 0:
        sys.exit(f"{' '.join(command)} ended with {done.returncode}: {done.stderr.decode()}")


def settings(more: dict[str, str]) -> dict[str, str]:
    return {**os.environ, **more}


# What can be done before the rounds. Each function takes the action's own fields.


def do_shell(command: str, env: dict[str, str]) -> None:
    run_untimed(["sh", "-c", command], settings(env))


def do_record(argv: list[str], env: dict[str, str], library: str, log: str) -> None:
    """Runs a program and notes the command lines that it gives to the shell."""
    Path(log).unlink(missing_ok=True)
    run_untimed(argv, settings({**env, "LD_PRELOAD": library, "COMMAND_LOG": log}))


def recorded(log: str) -> list[tuple[str, str]]:
    """Pairs of the call ("system" or "popen") and its command line."""
    texts = Path(log).read_text().split("\0")[:-1]
    return list(zip(texts[::2], texts[1::2]))


def do_script(log: str, script: str) -> None:
    """Writes the recorded commands as a shell script would have them."""
    lines = ["#!/bin/sh"]
    for call, command in recorded(log):
        lines.append(f"value=$({command})" if call == "popen" else command)
    lines.append("exit 0")  # the tool, too, goes on after a command that failed
    Path(script).write_text("\n".join(lines) + "\n")


def do_same_commands(logs: list[str]) -> None:
    # Commands of one line for a shell may also be started one by one.
    first, *others = [[command.strip() for _, line in recorded(log) for command in line.split(";")]
                      for log in logs]
    if any(other != first for other in others):
        sys.exit(f"different commands: {' '.join(logs)}")


def content(element: ElementTree.Element) -> tuple:
    """Names, attributes and text; a text that is a document itself counts by its own content."""
    text = element.text or ""
    if element.tag == "General" and text:
        inner: object = content(ElementTree.fromstring(text))
    else:
        inner = BLANKS.sub(" ", text).strip()
    return element.tag, sorted(element.attrib.items()), inner, [content(each) for each in element]


def do_same_documents(files: list[str]) -> None:
    first, *others = [content(ElementTree.parse(file).getroot()) for file in files]
    if any(other != first for other in others):
        sys.exit(f"different documents: {' '.join(files)}")


ACTIONS = {
    "shell": do_shell,
    "record": do_record,
    "script": do_script,
    "same_commands": do_same_commands,
    "same_documents": do_same_documents,
}


def measure(step: dict) -> tuple[float, int]:
    environment = settings(step["env"])
    if step["before"]:
        run_untimed(["sh", "-c", step["before"]], environment)
    runs = [run_timed(step["argv"], environment) for _ in range(step["times"])]
    return sum(seconds for seconds, _ in runs) / len(runs), max(memory for _, memory in runs)


def rotated(steps: list[dict], by: int) -> list[dict]:
    by %= len(steps)
    return steps[by:] + steps[:by]


def main() -> None:
    plan_file, result_file = sys.argv[1:]
    signal.alarm(LONGEST_SECONDS)
    plan = json.loads(Path(plan_file).read_text())
    for action in plan["prepare"]:
        ACTIONS[action.pop("do")](**action)
    outcomes: dict[str, list] = {step["name"]: [] for step in plan["steps"]}
    for number in range(plan["rounds"]):
        for step in rotated(plan["steps"], number):
            outcomes[step["name"]].append(measure(step))
    Path(result_file).write_text(json.dumps(outcomes))


if __name__ == "__main__":
    main()

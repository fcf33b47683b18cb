"""Runs the programs of a build.

The environment variable VOCASTRA has the daemon's command, split as a shell does, so that it can
begin with an emulator. Without it, the daemon is build/release/vocastra. The other programs are
beside it.
"""

import contextlib
import os
import re
import shlex
import subprocess
from pathlib import Path

from harness.wait import LIMIT, wait_until

HERE = Path(__file__).resolve().parent
ROOT = HERE.parents[1]

# The sanitizers write these texts when they find something.
SANITIZER_REPORT = re.compile(r"==\d+==\s*ERROR: |: runtime error: |SUMMARY: \w+Sanitizer")


def program():
    """The daemon's command as a list; its last word is the program itself."""
    words = shlex.split(os.environ.get("VOCASTRA", ""))
    if not words:
        words = [str(ROOT / "build/release/vocastra")]
    # Programs run in scratch trees, so relative paths are made absolute.
    return [os.path.abspath(w) if "/" in w and os.path.exists(w) else w for w in words]


def tool(name):
    """The path of another program."""
    return Path(program()[-1]).with_name(name)


def environment(**changes):
    """This process's environment, sanitizer options included, in the C locale."""
    env = {name: value for name, value in os.environ.items() if name != "POSIXLY_CORRECT"}
    env.update(LC_ALL="C", **changes)
    return env


def start_command(*command, **options):
    """Starts any command without input, in the C locale, with pipes for both outputs.

    Options are those of subprocess.Popen.
    """
    settings = {"stdin": subprocess.DEVNULL, "env": environment(), "text": True}
    settings.update(stdout=subprocess.PIPE, stderr=subprocess.PIPE)
    settings.update(options)
    return subprocess.Popen([str(word) for word in command], **settings)


def start(name, *arguments, prefix=(), **options):
    """Starts a program, with a prefix command before it."""
    command = program() if name == "vocastra" else [tool(name)]
    return start_command(*prefix, *command, *arguments, **options)


def finish(process, data=None):
    """Waits for the end of a program; returns its exit status, standard output and error."""
    try:
        out, err = process.communicate(data, timeout=LIMIT)
    except subprocess.TimeoutExpired:
        process.kill()
        raise
    text = err if isinstance(err, str) else err.decode(errors="replace")
    assert not SANITIZER_REPORT.search(text), text
    return process.returncode, out, err


def run(name, *arguments, **options):
    """Runs a program to its end."""
    return finish(start(name, *arguments, **options))


def run_command(*command, **options):
    """Runs any command to its end. Standard output and error are one text in stdout."""
    return subprocess.run(
        [str(word) for word in command],
        stdin=subprocess.DEVNULL,
        stdout=subprocess.PIPE,
        stderr=subprocess.STDOUT,
        text=True,
        timeout=LIMIT,
        check=False,
        **options,
    )


def is_alive(pid):
    """Whether a process runs; one that ended and waits for its parent does not."""
    try:
        stat = Path(f"/proc/{pid}/stat").read_text()
    except (FileNotFoundError, ProcessLookupError):
        return False
    return stat.rpartition(")")[2].split()[0] not in "ZX"


def ended(pid):
    """Waits until a process is gone."""
    wait_until(lambda: not is_alive(pid), f"the end of process {pid}")
    return True


def children(pid):
    """The process ids of a process's children."""
    return [int(child) for child in Path(f"/proc/{pid}/task/{pid}/children").read_text().split()]


def descendants(pid):
    """A process and all below it, the oldest first."""
    pids = [pid]
    for parent in pids:
        with contextlib.suppress(FileNotFoundError, ProcessLookupError):
            pids += children(parent)
    return pids


def descriptors(path):
    """The target of each descriptor number, from a recorded `ls -l` of /proc/PID/fd."""
    found = re.findall(r" (\d+) -> (.*)$", Path(path).read_text(), re.MULTILINE)
    return {int(number): target for number, target in found}

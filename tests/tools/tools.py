"""Runs the operator's tools.

They are looked for in the directory that the environment variable VOCASTRA_TOOLS names; without
it, in build/release.
"""

import os
import subprocess
import threading
from pathlib import Path

from daemon import LIMIT, SANITIZER_REPORT, element, environment

ROOT = Path(__file__).resolve().parents[2]


def tool(name):
    """The path of a tool."""
    return Path(os.environ.get("VOCASTRA_TOOLS") or ROOT / "build/release").absolute() / name


def start(name, *arguments, prefix=(), **options):
    """Starts a tool, in the C locale, behind a prefix command."""
    settings = {"stdin": subprocess.DEVNULL, "env": environment(), "text": True}
    settings.update(stdout=subprocess.PIPE, stderr=subprocess.PIPE)
    settings.update(options)
    command = [*prefix, tool(name), *arguments]
    return subprocess.Popen([str(word) for word in command], **settings)


def finish(process, data=None):
    """Waits for the end of a tool; returns its exit status, standard output and error."""
    try:
        out, err = process.communicate(data, timeout=LIMIT)
    except subprocess.TimeoutExpired:
        process.kill()
        raise
    text = err if isinstance(err, str) else err.decode(errors="replace")
    assert not SANITIZER_REPORT.search(text), text
    return process.returncode, out, err


def run(name, *arguments, **options):
    """Runs a tool to its end."""
    return finish(start(name, *arguments, **options))


def status_text(timestamp=0, playing=0, state="run", bound=0, directories=()):
    """A status as the daemon writes it; directories are texts of directory_status()."""
    head = (
        f'<tts-status now-playing="{playing}" output-bound="{bound}" state="{state}"'
        f' timestamp="{timestamp}"'
    )
    return head + (">\n" + "".join(directories) + "</tts-status>\n" if directories else "/>\n")


def directory_status(identity="a", status=1, path="/in", total=0, updated=0, message=None):
    """A directory's record; message is (id, file name, plays)."""
    head = (
        f'    <directory id="{identity}" path="{path}" status="{status}"'
        f' total-file-count="{total}" updated-file-count="{updated}"'
    )
    if message is None:
        return head + "/>\n"
    number, name, plays = message
    return (
        head
        + f'>\n        <message filename="{name}" id="{number}" plays="{plays}"/>\n    </directory>\n'
    )


class StatusWriter(threading.Thread):
    """Stands in for a daemon: rewrites a status file in place, with a counter that grows.

    record(timestamp) returns the text of each status.
    """

    def __init__(self, path, record):
        super().__init__(daemon=True)
        self.path = Path(path)
        self.record = record
        self.ended = threading.Event()
        self.path.write_text(record(0))

    def __enter__(self):
        self.start()
        return self

    def __exit__(self, *_):
        self.ended.set()
        self.join()

    def run(self):
        timestamp = 0
        while not self.ended.wait(0.02):
            timestamp += 1
            self.path.write_text(self.record(timestamp))


__all__ = [
    "StatusWriter",
    "directory_status",
    "element",
    "finish",
    "run",
    "start",
    "status_text",
    "tool",
]

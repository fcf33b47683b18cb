"""Helpers that watch the inbox of a server, alone or started by a daemon."""

import contextlib
import os
import re
import signal
import subprocess
from pathlib import Path

from harness.companions import COMPANIONS
from harness.daemon import PAUSE, Daemon
from harness.programs import ended, program
from harness.wait import wait_until

HELPERS = COMPANIONS / "helpers"

# The words of a snippet: more than a message of these tests has.
WORDS = 1000


def read_beat(directory):
    with contextlib.suppress(FileNotFoundError):
        return (directory / ".helper.timestamp").read_text()
    return None


def wait_beats(directory, count, wait):
    for _ in range(count):
        last = read_beat(directory)
        wait(lambda last=last: read_beat(directory) not in (None, last), "a beat")


class Helper:
    """A helper without a daemon. close() ends it in any case."""

    def __init__(self, root, server, **changes):
        self.root = root
        self.watch = root / "watch"
        self.local = self.watch / changes.get("subdir", "")
        self.command = [*program()[:-1], str(HELPERS / server.kind)]
        self.command += server.arguments(self.watch, **changes)
        self.scratch = root / "scratch"
        self.process = None
        self.scratch.mkdir(parents=True)

    def environment(self):
        """Temporary files go to scratch. The helper must not use the (dead) proxies."""
        return dict(os.environ, TMPDIR=str(self.scratch), ALL_PROXY="http://127.0.0.1:9")

    def start(self):
        with open(self.root / "log", "ab") as log:
            self.process = subprocess.Popen(
                self.command, stdin=subprocess.DEVNULL, stderr=log, env=self.environment()
            )
        return self

    def read(self, name):
        """The text of that file in root; "" if there is none."""
        path = self.root / name
        return path.read_text(errors="replace") if path.exists() else ""

    def messages(self):
        """Its complete lines on standard error, without their common prefix."""
        lines = self.read("log").split("\n")[:-1]
        return [line.split(": ", 2)[2] for line in lines]

    def files(self):
        """Names and contents of the files that a daemon would see."""
        paths = self.local.glob("[!.]*")
        return {path.name: path.read_bytes() for path in paths if path.is_file()}

    def beat(self):
        """The text of the newest heartbeat, or None before the first."""
        return read_beat(self.local)

    def wait(self, condition, what):
        """Waits until condition() is true; fails at once when the helper is gone."""

        def look():
            ended = self.process.poll() is not None
            value = bool(condition())
            assert value or not ended, "the helper has ended before " + what + self.describe()
            return value

        wait_until(look, lambda: what + self.describe())

    def wait_files(self, **expected):
        """Waits until a daemon would see exactly these files (NAME="text", NAME without .txt)."""
        files = {f"{name}.txt": text.encode() for name, text in expected.items()}
        self.wait(lambda: self.files() == files, f"the files {files}")

    def wait_messages(self, *expected):
        """Waits for as many messages and asserts that each begins with its text."""
        self.wait(lambda: len(self.messages()) >= len(expected), f"the messages {expected}")
        messages = self.messages()
        begins = [message.startswith(text) for message, text in zip(messages, expected)]
        assert len(messages) == len(expected) and all(begins), messages

    def wait_first_beat(self):
        self.wait(self.beat, "the first beat")

    def wait_trouble(self):
        self.wait(self.messages, "a message of the helper")

    def wait_beats(self, count):
        """Waits for count new heartbeats, which mean so many looks at the server."""
        wait_beats(self.local, count, self.wait)

    def wait_quiet(self):
        """Waits until the looks at the server have stopped."""
        beats = []

        def look():
            beats.append(self.beat())
            return len(beats) > 100 and len(set(beats[-100:])) == 1

        self.wait(look, "an end of the beats")

    def parts(self):
        """The hidden files that are being fetched."""
        return list(self.local.glob(".helper.part*"))

    def stop(self):
        """Sends SIGTERM, then asserts that it ends and leaves only the files."""
        assert self.process.poll() is None, self.describe()
        self.process.send_signal(signal.SIGTERM)
        self.wait_end()

    def wait_end(self):
        wait_until(lambda: self.process.poll() is not None, lambda: "its end" + self.describe())
        assert self.process.returncode == 0, self.describe()
        assert list(self.scratch.iterdir()) == []
        assert all(path.name.startswith(".helper.") for path in self.local.glob(".*"))

    def close(self):
        if self.process and self.process.poll() is None:
            self.process.send_signal(signal.SIGCONT)
            self.process.terminate()
            self.process.wait()

    def describe(self):
        return f"\nfiles: {list(self.files())}\nbeat: {self.beat()}\nmessages:\n" + self.read("log")


class RemoteDaemon(Daemon):
    """A daemon whose one input directory is the inbox of a server, watched by the real helper."""

    def __init__(self, root, server, helpers=HELPERS, **attributes):
        super().__init__(root, words=WORDS)
        self.server = server
        for link, name in ((self.cifs_helper, "cifs"), (self.ftp_helper, "ftp")):
            link.unlink()
            link.symlink_to(Path(helpers).resolve() / name)
        self.scratch = self.root / "scratch"
        self.scratch.mkdir()
        self.subdir = attributes.get("subdir", "")
        self.watch = None
        self.local = None
        self.set(**attributes)

    def set(self, **attributes):
        """Writes the configuration, with attributes of the directory that differ."""
        self.configure(self.directory("remote", **self.server.attributes(**attributes)))

    def start(self, **options):  # pylint: disable=arguments-differ
        """Starts the daemon and finds out where its helper puts the files."""
        super().start(env={"TMPDIR": str(self.scratch)}, **options)
        self.find_watch()
        return self

    def find_watch(self):
        record = self.wait_status(lambda root: root.find("directory") is not None)
        self.watch = Path(record.find("directory").get("path"))
        self.local = self.watch / self.subdir
        return self.watch

    def temporaries(self):
        return super().temporaries() + ([self.watch] if self.watch else [])

    def wait_receiving(self, count=1):
        self.wait_log(f"Directory {self.local}/ is receiving updates", count)

    def wait_gone(self, count=1):
        self.wait_log(f"Directory {self.local}/ is no longer receiving updates", count)

    def wait_said(self, *messages):
        """Waits until these messages, (name, text), are spoken; asserts that no others are."""
        self.wait_spoken(*[(name, f"{PAUSE}{text} ") for name, text in messages])

    def wait_looks(self, count=2):
        """Waits for so many more looks at the server, and that the daemon has seen the last.

        The first look may have begun earlier, the second has not.
        """
        wait_beats(self.local, count, self.wait)
        self.wait_passes(2)

    def names(self):
        """The files that the daemon sees."""
        return sorted(path.name for path in self.local.glob("[!.]*"))

    def messages(self):
        """The helper's lines, without their common prefix."""
        lines = [line for line in self.log() if line.startswith(f"{self.server.kind} helper: ")]
        return [line.split(": ", 2)[2] for line in lines]

    def helper_pids(self):
        """The process ids of the helpers to which the daemon has sent SIGTERM."""
        return [
            int(n) for n in re.findall(r"^Sending SIGTERM to PID (\d+)$", self.log_text(), re.M)
        ]

    def stop(self):
        """Calls Daemon.stop(), then asserts that the helper and its files are gone."""
        super().stop()
        pids = self.helper_pids()
        assert len(pids) >= 1 and all(ended(pid) for pid in pids)
        assert list(self.scratch.iterdir()) == []
        assert not self.watch.exists()

"""Runs the daemon in its own scratch tree and watches it from outside.

A test makes a Daemon below its temporary directory, writes a configuration, starts it, drops
messages and compares what comes out: output files, status file, log, translator calls. Nothing
here waits for a fixed time; every wait polls for a condition, so that the same tests hold under an
emulator and under sanitizers.

The scratch tree:

    config.xml  glossary.xml  status.xml   what the command line names
    in/ID/                                 local input directories
    output/                                the output directory
    translator, translator.d/              the fake translator and its records
    cifs-helper, ftp-helper, helpers.d/    the fake helpers and their records
    bin/                                   first on the daemon's PATH
    log, stdout                            standard error and output of the daemon
"""

import contextlib
import ctypes
import os
import re
import shutil
import signal
import subprocess
import xml.etree.ElementTree
from pathlib import Path

from harness.files import crc16, element, lock_waiters, locked, publish
from harness.programs import HERE, SANITIZER_REPORT, descriptors, environment, program
from harness.status import StatusStream, timestamp
from harness.wait import LIMIT, wait_until

LIBC = ctypes.CDLL(None)
PR_SET_PDEATHSIG = 1

# The translator's pause tag that leads every message.
PAUSE = "\\pau=300\\ "


class TranslatorRun:
    """One call of the fake translator: its arguments (strings) and its text file's bytes."""

    def __init__(self, records, number):
        arguments = (records / f"{number}.arguments").read_bytes().split(b"\0")[:-1]
        self.arguments = [os.fsdecode(argument) for argument in arguments]
        self.text = (records / f"{number}.text").read_bytes()
        self.audio = b"audio %d\n" % int(number) + self.text

    @property
    def text_path(self):
        return self.arguments[0]

    @property
    def audio_path(self):
        return self.arguments[1]

    @property
    def options(self):
        """The words between the two files and the message's name."""
        return self.arguments[2:-1]

    @property
    def message(self):
        return self.arguments[-1]


class HelperRun:
    """One start of a fake helper; arguments holds what followed the helper's own path."""

    def __init__(self, records, pid):
        self.pid = int(pid)
        self.kind = (records / f"{pid}.kind").read_text().strip()
        arguments = (records / f"{pid}.arguments").read_bytes().split(b"\0")[:-1]
        self.arguments = [os.fsdecode(argument) for argument in arguments]
        self.environment = (records / f"{pid}.environment").read_text().splitlines()
        self.descriptors = descriptors(records / f"{pid}.descriptors")
        self.watch = Path(self.arguments[4])


class Daemon:
    """A daemon in its scratch tree. The constructor does not start it; close() ends it in any case.

    words, files and debug become -w, -f and -d. status is True for status.xml, "stream" for a
    FIFO whose every document is kept (see statuses()), "apart" for a file in a directory of its
    own, or False for no -s. output, glossary and helpers say whether -o, -g, and -i with -p are
    given. arguments follow all of these.
    """

    def __init__(
        self,
        root,
        words=None,
        files=None,
        debug=None,
        status=True,
        output=True,
        glossary=False,
        helpers=True,
        arguments=(),
    ):
        self.root = Path(root)
        self.config = self.root / "config.xml"
        self.glossary = self.root / "glossary.xml"
        self.status_path = self.root / "status.xml"
        self.output = self.root / "output"
        self.translator = self.root / "translator"
        self.records = self.root / "translator.d"
        self.cifs_helper = self.root / "cifs-helper"
        self.ftp_helper = self.root / "ftp-helper"
        self.helper_records = self.root / "helpers.d"
        self.bin = self.root / "bin"
        self.log_path = self.root / "log"
        self.stdout_path = self.root / "stdout"
        self.process = None
        self.stream = None

        for directory in (self.root, self.output, self.records, self.helper_records, self.bin):
            directory.mkdir(exist_ok=True)
        (self.records / "count").write_text("0\n")
        self.translator.symlink_to(HERE / "fake_translator")
        self.cifs_helper.symlink_to(HERE / "fake_helper")
        self.ftp_helper.symlink_to(HERE / "fake_helper")

        self.arguments = ["-c", self.config, "-t", self.translator]
        if status == "apart":
            self.status_path = self.root / "run/status.xml"
            self.status_path.parent.mkdir(exist_ok=True)
        if status:
            self.arguments += ["-s", self.status_path]
        if status == "stream":
            self.stream = StatusStream(self.status_path)
        if output:
            self.arguments += ["-o", self.output]
        if glossary:
            self.arguments += ["-g", self.glossary]
        if helpers:
            self.arguments += ["-i", self.cifs_helper, "-p", self.ftp_helper]
        for option, value in (("-w", words), ("-f", files), ("-d", debug)):
            if value is not None:
                self.arguments += [option, value]
        self.arguments += arguments

    # Input of the daemon.

    def input(self, identity):
        """The local input directory of that id, made on first use."""
        path = self.root / "in" / identity
        path.mkdir(parents=True, exist_ok=True)
        return path

    def directory(self, identity, children=(), **attributes):
        """A directory element: local at input(identity) unless the attributes say otherwise.

        None as a value leaves an attribute out.
        """
        values = {"id": identity, "type": "local"}
        if attributes.get("type", "local") == "local" and "path" not in attributes:
            values["path"] = self.input(identity)
        values.update(attributes)
        return element("directory", children, **values)

    def configure(self, *elements, state="run"):
        """Writes the configuration; the daemon reads it in its next pass."""
        text = element("tts-config", elements or ("\n",), state=state)
        # The daemon compares only 16-bit checksums, and equal ones must not fail a test.
        if self.config.exists() and self.config.read_text() != text:
            while crc16(self.config.read_bytes()) == crc16(text.encode()):
                text += "\n"
        publish(self.config, text)

    def reconfigure(self, *elements, state="run"):
        """configure(), then waits until it is applied and every directory was scanned."""
        line = f"Processing configuration {self.config}"
        count = self.log().count(line)
        self.configure(*elements, state=state)
        self.wait(lambda: self.log().count(line) > count, "the configuration to be read")
        self.wait_passes(1)

    def write_glossary(self, *entries):
        """Writes a glossary of (text, speech) pairs."""
        words = [element("word", text=text, speech=speech) for text, speech in entries]
        publish(self.glossary, element("glossary", words or ("\n",)))

    def drop(self, identity, name, data):
        """Hands a message over to the local input directory of that id."""
        publish(self.input(identity) / name, data)

    # Start and end.

    def command(self):
        return program() + self.arguments

    def start(self, wait=True, env=None, preexec_fn=None, **options):
        """Starts the daemon. With wait, returns after its first complete status.

        By then the local directories are scanned, so what is dropped from now on is spoken.
        env adds to the environment; preexec_fn and options are those of subprocess.Popen.
        """

        def prepare():
            # A test run that is killed takes its daemons with it.
            LIBC.prctl(PR_SET_PDEATHSIG, signal.SIGINT)
            if preexec_fn:
                preexec_fn()

        env = environment(**(env or {}))
        env["PATH"] = f"{self.bin}:{env['PATH']}"
        with open(self.log_path, "ab") as log, open(self.stdout_path, "ab") as stdout:
            settings = {"stdout": stdout, "stderr": log, "stdin": subprocess.DEVNULL}
            settings.update(options)
            self.process = subprocess.Popen(
                [str(word) for word in self.command()],
                env=env,
                cwd=self.root,
                preexec_fn=prepare,
                **settings,
            )
        if wait:
            self.wait(lambda: self.timestamp() is not None, "the first status")

    def stop(self):
        """SIGINT, then asserts the exit status, a clean log and that no temporary file is left."""
        assert self.process.poll() is None, self.describe()
        self.process.send_signal(signal.SIGINT)
        self.wait_exit(1)

    def wait_exit(self, status):
        """Waits for the end of the daemon and asserts how it left."""
        try:
            assert self.process.wait(LIMIT) == status, self.describe()
        except subprocess.TimeoutExpired:
            raise AssertionError("the daemon does not end" + self.describe()) from None
        if self.stream:
            self.stream.finish()
        assert not SANITIZER_REPORT.search(self.log_text()), self.describe()
        assert [str(path) for path in self.temporaries() if path.exists()] == []

    def close(self):
        """Ends all running processes and removes the files of a failed test."""
        self.release()
        if self.process and self.process.poll() is None:
            self.process.send_signal(signal.SIGINT)
            try:
                self.process.wait(LIMIT)
            except subprocess.TimeoutExpired:
                self.process.kill()
                self.process.wait()
        if self.stream:
            self.stream.finish()
        for run in self.helper_runs():
            # The command line shows that the number still belongs to the helper.
            with contextlib.suppress(OSError):
                if os.fsencode(self.root) in Path(f"/proc/{run.pid}/cmdline").read_bytes():
                    os.kill(run.pid, signal.SIGKILL)
        for path in self.temporaries():
            if path.is_dir():
                shutil.rmtree(path, ignore_errors=True)
            else:
                path.unlink(missing_ok=True)

    # Output of the daemon.

    def log_text(self):
        if not self.log_path.exists():
            return ""
        return self.log_path.read_bytes().decode(errors="surrogateescape")

    def log(self):
        """The complete lines of the log so far, parser addresses replaced by "PARSER"."""
        text = re.sub(r" using parser 0x[0-9a-f]+ ", " using parser PARSER ", self.log_text())
        return text.split("\n")[:-1]

    def stdout(self):
        return self.stdout_path.read_bytes()

    def status(self):
        """The newest complete status as text, or None before the first."""
        if self.stream:
            return (self.stream.documents() or [None])[-1]
        try:
            text = self.status_path.read_text()
        except FileNotFoundError:
            return None
        # The file is rewritten in place, so an incomplete document is no status yet.
        complete = re.fullmatch(r"<tts-status [^\n]*(/>\n|>\n.*</tts-status>\n)", text, re.S)
        return text if complete else None

    def wait_status(self, condition=lambda root: True):
        """Waits for a status whose parsed root satisfies the condition; returns that root."""

        def look():
            text = self.status()
            root = xml.etree.ElementTree.fromstring(text) if text else None
            return [root] if root is not None and condition(root) else []

        return self.wait(look, "a status")[0]

    def statuses(self):
        """Every status so far, in order; needs status="stream"."""
        return self.stream.documents()

    def timestamp(self):
        """The change counter of the newest status, or None before the first."""
        text = self.status()
        return timestamp(text) if text else None

    def wait_passes(self, count):
        """Waits until the status was written count more times: once for each pass or snippet."""

        goal = timestamp(self.wait(self.status, "a status")) + count
        self.wait(lambda: (self.timestamp() or 0) >= goal, f"{count} more statuses")

    def translator_runs(self):
        """The calls of the translator so far, each complete in its record."""
        numbers = sorted(int(path.stem) for path in self.records.glob("*.complete"))
        return [TranslatorRun(self.records, number) for number in numbers]

    def spoken(self):
        """(message name, text) of every call of the translator so far."""
        return [(run.message, run.text.decode()) for run in self.translator_runs()]

    def wait_spoken(self, *expected):
        """Waits for that many calls of the translator and asserts spoken()."""
        self.wait_translator_runs(len(expected))
        assert self.spoken() == list(expected), self.describe()

    def wait_translator_runs(self, count):
        """Waits for at least count calls of the translator and returns all."""
        self.wait(
            lambda: len(list(self.records.glob("*.complete"))) >= count,
            f"{count} calls of the translator",
        )
        return self.translator_runs()

    def helper_runs(self):
        """The helpers started so far, in the order of their starts."""
        records = list(self.helper_records.glob("*.complete"))
        records.sort(key=lambda path: path.stat().st_mtime_ns)
        return [HelperRun(self.helper_records, path.stem) for path in records]

    def wait_helper_runs(self, count):
        self.wait(lambda: len(self.helper_runs()) >= count, f"{count} helpers")
        return self.helper_runs()

    def waits_for_lock(self):
        """Whether the daemon waits for a directory's lock."""
        return self.process.pid in lock_waiters()

    def wait_lock(self):
        self.wait(self.waits_for_lock, "the daemon to wait for a lock")

    def zombies(self):
        """Process ids of children that have ended and were not collected."""
        pid = self.process.pid
        zombies = set()
        for child in Path(f"/proc/{pid}/task/{pid}/children").read_text().split():
            with contextlib.suppress(FileNotFoundError, ProcessLookupError):
                stat = Path(f"/proc/{child}/stat").read_text()
                if stat.rpartition(")")[2].split()[0] == "Z":
                    zombies.add(int(child))
        return zombies

    def temporaries(self):
        """The daemon's paths below /tmp that the translator and the helpers have received."""
        paths = set()
        for path in self.records.glob("*.complete"):
            paths.update(TranslatorRun(self.records, path.stem).arguments[:2])
        for run in self.helper_runs():
            paths.add(str(run.watch))
        return [Path(path) for path in sorted(paths) if re.match(r"/tmp/(text|speech|watch)", path)]

    def outputs(self):
        """Names of the visible entries of the output directory, by their number."""
        names = [path.name for path in self.output.iterdir() if not path.name.startswith(".")]
        return sorted(names, key=lambda name: int(name.partition("_")[0]))

    def wait_outputs(self, count):
        """Waits for at least count whole files in the output directory; returns the names."""
        self.wait(lambda: len(self.outputs()) >= count, f"{count} output files")
        # A file is copied under the lock. After the lock was free once, all listed files are
        # complete.
        with locked(self.output):
            return self.outputs()

    def take(self, count=None):
        """Takes output files as a player does: under the lock, lowest number first.

        Returns (name, bytes) of each; without a count, takes all files.
        """
        with locked(self.output):
            taken = [(name, (self.output / name).read_bytes()) for name in self.outputs()[:count]]
            for name, _ in taken:
                (self.output / name).unlink()
        return taken

    # Control of the fake programs.

    def behave(self, *words):
        """Tells the translator how to behave from its next call on; see fake_translator."""
        publish(self.records / "behaviour", " ".join(words) + "\n")

    def hold(self):
        """From now on, each call of the translator lasts until release()."""
        (self.records / "hold").touch()

    def release(self):
        (self.records / "hold").unlink(missing_ok=True)

    def tell_helpers(self, *words):
        """Sets the behaviours of the helpers from now on; see fake_helper."""
        publish(self.helper_records / "behaviour", " ".join(words) + "\n")

    # Waiting.

    def wait(self, condition, what):
        """wait_until() that also fails at once when the daemon is gone; what is a text."""

        def look():
            ended = self.process.poll() is not None
            value = condition()
            if ended and not value:
                raise AssertionError("the daemon has ended before " + what + self.describe())
            return value

        return wait_until(look, lambda: what + self.describe())

    def wait_log(self, line, count=1):
        """Waits until the log holds that whole line at least count times."""
        self.wait(lambda: self.log().count(line) >= count, f'{count} times "{line}" in the log')

    def describe(self):
        """Exit status and the end of the log, for a failure's text."""
        state = self.process.poll() if self.process else "never started"
        tail = "\n".join(self.log_text().splitlines()[-40:])
        return f"\nexit status: {state}\nend of the log:\n{tail}"

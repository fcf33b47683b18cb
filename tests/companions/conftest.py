"""What the tests of the companion programs share."""

import array
import os
import shutil
import signal
import subprocess
import time
from pathlib import Path

import pytest

COMPANIONS = Path(__file__).resolve().parents[2] / "companions"
RATE = 22050


def eventually(condition, what):
    """Waits until condition() is true."""
    deadline = time.monotonic() + 30
    while not condition():
        assert time.monotonic() < deadline, f"never happened: {what}"
        time.sleep(0.02)


def samples(pcm):
    """The samples of raw audio as the player expects it."""
    result = array.array("h")
    result.frombytes(pcm)
    return result


def pcm(value, count):
    """Raw audio of count samples, all of this value."""
    return array.array("h", [value] * count).tobytes()


class Sandbox:
    """A private directory for one test and the environment that its programs run in."""

    def __init__(self, path):
        self.path = path
        self.scratch = path / "scratch"
        self.scratch.mkdir()
        self.bin = path / "bin"
        self.bin.mkdir()
        self.environment = dict(os.environ, TMPDIR=str(self.scratch), LC_ALL="C")
        self.environment["PATH"] = f"{self.bin}:/usr/bin:/bin"
        self.started = []

    def provide(self, name, script):
        """Puts a shell script in front of the real program of that name."""
        program = self.bin / name
        program.write_text("#!/bin/sh\n" + script)
        program.chmod(0o755)

    def leave_only(self, *names):
        """From now on only these programs, and those provided, can be found."""
        for name in names:
            (self.bin / name).symlink_to(shutil.which(name, path="/usr/bin:/bin"))
        self.environment["PATH"] = str(self.bin)

    def run(self, *command):
        return subprocess.run(
            [str(word) for word in command],
            cwd=self.path,
            env=self.environment,
            stdin=subprocess.DEVNULL,
            capture_output=True,
            text=True,
            timeout=60,
        )

    def start(self, *command, **options):
        process = subprocess.Popen(
            [str(word) for word in command],
            cwd=self.path,
            env=self.environment,
            stdin=subprocess.DEVNULL,
            stdout=subprocess.PIPE,
            stderr=subprocess.PIPE,
            text=True,
            start_new_session=True,
            **options,
        )
        self.started.append(process)
        return process

    def close(self):
        for process in self.started:
            if process.returncode is None:
                os.killpg(process.pid, signal.SIGKILL)
            process.communicate()


@pytest.fixture
def sandbox(tmp_path):
    result = Sandbox(tmp_path)
    yield result
    result.close()

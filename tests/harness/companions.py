"""Runs the companion programs, each test in a private directory."""

import os
import shutil
import signal
import subprocess

from harness.programs import environment, start_command, tool
from harness.wait import LIMIT

# As installed: "player", "helpers/ftp", "translators/tone" and so on.
COMPANIONS = tool("libexec")


class Sandbox:
    """A private directory for one test and the environment that its programs run in."""

    def __init__(self, path):
        self.path = path
        self.scratch = path / "scratch"
        self.bin = path / "bin"
        for directory in (path, self.scratch, self.bin):
            directory.mkdir(exist_ok=True)
        self.environment = environment(TMPDIR=str(self.scratch))
        self.environment["PATH"] = f"{self.bin}:/usr/bin:/bin"
        self.started = []

    def provide(self, name, script):
        """Makes a shell script that replaces the program of that name."""
        program = self.bin / name
        program.write_text("#!/bin/sh\n" + script)
        program.chmod(0o755)

    def leave_only(self, *names):
        """From now on, only these programs, and the provided ones, can be found."""
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
            timeout=LIMIT,
            check=False,
        )

    def start(self, *command, **options):
        process = start_command(
            *command, cwd=self.path, env=self.environment, start_new_session=True, **options
        )
        self.started.append(process)
        return process

    def close(self):
        for process in self.started:
            if process.returncode is None:
                os.killpg(process.pid, signal.SIGKILL)
            process.communicate()

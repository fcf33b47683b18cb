#!/usr/bin/python3
"""Measures the mirror helpers and programs that only list with the same libraries.

bench/companions/mirror.py [HELPERS [FLOORS]]

HELPERS: the directory of the programs ftp and cifs; the daemon that the tests use, or that of the
same build, starts them too. FLOORS: that of list_ftp and list_smb, which
are built with VOCASTRA_BENCH. Needs the test servers (tools/setup servers).
"""

import contextlib
import os
import shutil
import statistics
import subprocess
import sys
import tempfile
import time
from pathlib import Path

ROOT = Path(__file__).resolve().parents[2]
sys.path.insert(0, str(ROOT / "tests"))

# pylint: disable=import-error,wrong-import-position
from harness.programs import descendants
from harness.remote import RemoteDaemon, read_beat
from harness.servers import PASSWORD, PyFtpdLib, Smbd, Sshd

KINDS = {"ftp": PyFtpdLib, "sftp": Sshd, "smb": Smbd}
COUNTS = (100, 10_000)
LOOK_GOALS = {  # Milliseconds with so many files.
    "ftp": {100: 1, 10_000: 60},
    "sftp": {100: 1, 10_000: 60},
    "smb": {100: 2, 10_000: 60},
}
MEMORY_GOALS = {"ftp": 16, "sftp": 16, "smb": 32}  # MiB
SECONDS = 20  # A measurement of processor time takes that long.
SMOKE_SECONDS = 2
RENAMES = 7
# Seconds: one poll period (the settling time is 0 here), and half a second for all the rest.
AUDIO_GOAL = 1 + 0.5
TICK = 1000 / os.sysconf("SC_CLK_TCK")  # Milliseconds.


class Unmeasured(Exception):
    """Thrown if a helper does not do the measured work."""


class Program:
    """A running program and its children."""

    def __init__(self, command, **options):
        options = {"stdin": subprocess.DEVNULL, "stderr": subprocess.DEVNULL, **options}
        self.process = subprocess.Popen([str(word) for word in command], **options)

    def close(self):
        self.process.terminate()
        self.process.wait()

    def milliseconds(self):
        """Processor time so far: its own, its children's, and that of children that ended."""
        total = 0
        for pid in descendants(self.process.pid):
            with contextlib.suppress(FileNotFoundError, ProcessLookupError):
                for thread in Path(f"/proc/{pid}/task").iterdir():
                    total += int((thread / "schedstat").read_text().split()[0]) / 1e6
                fields = Path(f"/proc/{pid}/stat").read_text().rpartition(")")[2].split()
                total += (int(fields[13]) + int(fields[14])) * TICK
        return total

    def memory(self, name):
        """A field of smaps_rollup in MiB, the sum of all processes."""
        total = 0
        for pid in descendants(self.process.pid):
            with contextlib.suppress(FileNotFoundError, ProcessLookupError):
                for line in Path(f"/proc/{pid}/smaps_rollup").read_text().splitlines():
                    if line.startswith(f"{name}:"):
                        total += int(line.split()[1])
        return total / 1024


def wait(condition, seconds, program):
    deadline = time.monotonic() + seconds
    while not condition():
        if time.monotonic() > deadline or program.process.poll() is not None:
            raise Unmeasured
        time.sleep(0.002)


def count_beats(local, seconds):
    """Beats in so many seconds: looks at the server."""
    beats = 0
    last = read_beat(local)
    end = time.monotonic() + seconds
    while time.monotonic() < end:
        time.sleep(0.02)
        beat = read_beat(local)
        beats += beat != last
        last = beat
    return beats


def per_look(program, looks):
    """Milliseconds of processor time for a look; looks() runs for a while and counts them."""
    before = program.milliseconds()
    count = looks()
    if count == 0:
        raise Unmeasured
    return (program.milliseconds() - before) / count


def floor_command(floors, kind, server):
    address = f"127.0.0.1:{server.port}/inbox/"
    if kind == "ftp":
        # The name has a backslash and a comma, but no colon.
        return [
            floors / "list_ftp",
            f"ftp://{address}",
            f"{server.user}:{PASSWORD}",
            "",
            "",
            1,
            "MLSD",
        ]
    if kind == "sftp":
        path = f"sftp://127.0.0.1:{server.port}/~/inbox/"
        keys = [server.root / "known_hosts", server.root / "user_key"]
        return [floors / "list_ftp", path, f"{server.user}:", *keys, 1]
    login = [server.user, PASSWORD, server.port, 1]
    return [floors / "list_smb", "smb://127.0.0.1/share/inbox", *login]


def measure_floor(floors, kind, server, seconds):
    """Measures a floor, which writes a dot for each look. The first looks log in."""
    command = floor_command(floors, kind, server)
    with contextlib.closing(Program(command, stdout=subprocess.PIPE)) as program:
        time.sleep(3)
        dots = program.process.stdout.fileno()

        def looks():
            os.read(dots, 1000)
            time.sleep(seconds)
            return len(os.read(dots, 1000))

        if program.process.poll() is not None:
            raise Unmeasured
        return per_look(program, looks)


def measure_renames(server, local, program, renames):
    """Seconds from a rename on the server to the delivery."""
    took = []
    for number in range(renames):
        time.sleep(0.37)  # Each rename is in another phase of the helper's looks.
        name = f"new{number}.txt"
        begin = time.monotonic()
        server.put(name, "A new one.")
        wait((local / name).exists, 60, program)
        took.append(time.monotonic() - begin)
    return statistics.median(took)


def measure_audio(helpers, server, root, renames):
    """Seconds from a rename on the server to the daemon's first audio, the longest."""
    took = []
    daemon = RemoteDaemon(root / "daemon", server, helpers=helpers)
    with contextlib.closing(daemon.start()):
        daemon.wait_receiving()
        for number in range(renames):
            time.sleep(0.37)
            begin = time.monotonic()
            server.put(f"spoken{number}.txt", "A new one.")
            while not daemon.outputs() and time.monotonic() < begin + 60:
                time.sleep(0.002)
            took.append(time.monotonic() - begin)
            daemon.take()
    return max(took)


def measure_helper(helpers, floors, kind, root, count, seconds):
    """The rows of one kind of server with so many files."""
    look_goal = LOOK_GOALS[kind].get(count)
    renames = min(RENAMES, seconds)
    name = f"{kind}, {count:,} known files"
    with contextlib.closing(KINDS[kind](root).start()) as server:
        for number in range(count):
            server.put(f"message-{number:05d}.txt", f"Message {number}.")
        local = root / "watch"
        arguments = server.arguments(local)
        if (helpers / "mirror.sh").exists():  # The former script has fewer options.
            if kind == "sftp":
                raise Unmeasured
            arguments = [word.replace(",settle=0", "") for word in arguments]
        helper = Program([helpers / server.kind, *arguments])
        with contextlib.closing(helper):
            wait(lambda: read_beat(local), 600, helper)
            # Waits until the helper no longer asks for exact times of delivered files.
            time.sleep(4 * seconds if kind == "sftp" else 5)
            milliseconds = per_look(helper, lambda: count_beats(local, seconds))
            rows = [[f"{name}: processor time of a look", milliseconds, "ms", None, look_goal]]
            if floors:
                rows[0][3] = measure_floor(floors, kind, server, seconds)
            rows.append(
                [f"{name}: resident memory, shared pages in parts", helper.memory("Pss"), "MiB"]
            )
            rows[-1] += [None, MEMORY_GOALS[kind]]
            if count < COUNTS[-1]:
                delay = measure_renames(server, local, helper, renames)
                rows.append([f"{name}: from a rename to the delivery", delay, "s", None, None])
        if count < COUNTS[-1]:
            rows.append([f"{name}: from a rename to the first audio, worst of {renames}"])
            rows[-1] += [measure_audio(helpers, server, root, renames), "s", None, AUDIO_GOAL]
    return rows


def measure(helpers, floors=None, counts=COUNTS, seconds=SECONDS):
    """Rows (name, value, unit, floor, goal) for the helpers of a directory.

    floors: the directory of the floors, or None. A value, floor or goal is None if there is none.
    """
    rows = []
    for kind in KINDS:
        for count in counts:
            root = Path(tempfile.mkdtemp(prefix="mirror-bench-"))
            try:
                rows += measure_helper(
                    Path(helpers), floors and Path(floors), kind, root, count, seconds
                )
            except Unmeasured:
                name = f"{kind}, {count:,} known files: processor time of a look"
                rows.append([name, None, "ms", None, LOOK_GOALS[kind].get(count)])
            finally:
                shutil.rmtree(root)
    return [tuple(row) for row in rows]


def main():
    helpers = sys.argv[1] if len(sys.argv) > 1 else ROOT / "build/release/libexec/helpers"
    floors = sys.argv[2] if len(sys.argv) > 2 else None
    os.environ.setdefault("VOCASTRA", str(Path(helpers).resolve().parents[1] / "vocastra"))
    print("| figure | value | unit | floor | goal |\n|---|---|---|---|---|")
    for row in measure(helpers, floors):
        print(
            "| "
            + " | ".join(
                "" if v is None else f"{v:.2f}" if isinstance(v, float) else str(v) for v in row
            )
            + " |"
        )


if __name__ == "__main__":
    main()

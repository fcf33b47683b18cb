#!/usr/bin/python3
"""Measures a player beside the daemon: what it costs at rest, and how soon an alarm is heard.

    bench/companions/player.py [--player PROGRAM] [--runs COUNT] [--seconds SECONDS]

PROGRAM is build/release/libexec/player by default; the daemon is the one that the tests use. The
shell script that the player once was can be measured too.

- At rest: processor time and voluntary context switches (wake-ups) of the player and of all that it
  starts, each second. The directory is empty, and a daemon rewrites its status file. Each figure is
  the difference of a long and a short run, so that the start does not count.
- Alarm: the daemon runs with -w 5 -f 2, and an announcement of pieces of 10 seconds plays through
  "--null". Then the file of an alarm is renamed into its input directory at a random time. The
  time ends with the line "playing NAME" of its first file. The floor is the daemon's own share: it
  sees the message after up to one pause of 100 ms, finds the output directory full, and looks again
  after another pause.
"""

import argparse
import os
import random
import re
import signal
import statistics
import subprocess
import sys
import tempfile
import threading
import time
from pathlib import Path

ROOT = Path(__file__).resolve().parents[2]
sys.path.insert(0, str(ROOT / "tests"))
# pylint: disable=wrong-import-position
from harness.daemon import Daemon  # noqa: E402
from harness.programs import environment, tool  # noqa: E402
from harness.wait import wait_until  # noqa: E402

RATE = 22050  # Samples of 2 bytes a second.
SHORT = 2  # Seconds.


def is_script(player):
    return Path(player).read_bytes()[:2] == b"#!"


def command(player, daemon):
    """The player's command, with the daemon's output directory, configuration and status."""
    options = ["--null", "--verbose"]
    if not is_script(player):
        options += ["--config", daemon.config, "--status", daemon.status_path]
        options += ["--state", daemon.root / "state"]
    return [str(word) for word in [player, *options, daemon.output]]


def start_daemon(root, announcement=False):
    """A daemon with two directories. Sound of an announcement lasts long, that of an alarm not."""
    daemon = Daemon(root, words=5, files=2)
    # In shared memory if possible, so that no disk is measured.
    daemon.configure(
        daemon.directory("lobby", priority=5, loops=1000, conv_opts=f"fake:big={20 * RATE}"),
        daemon.directory("alarm", priority=1, conv_opts=f"fake:big={RATE}"),
    )
    daemon.start()
    if announcement:
        daemon.drop("lobby", "long.txt", "word " * 500)
    return daemon


def scratch():
    return tempfile.TemporaryDirectory(dir="/dev/shm" if os.path.isdir("/dev/shm") else None)


def usage(player, daemon, seconds):
    """Processor seconds and wake-ups of a player and its children that runs so long."""
    process = subprocess.Popen(
        command(player, daemon), stdout=subprocess.DEVNULL, env=environment()
    )
    time.sleep(seconds)
    process.terminate()
    _, _, used = os.wait4(process.pid, 0)
    process.returncode = 0
    return used.ru_utime + used.ru_stime, used.ru_nvcsw


def idle(player, seconds=20):
    """Milliseconds of processor time and wake-ups, each second, of a player with nothing to do."""
    with scratch() as root:
        daemon = start_daemon(Path(root) / "d")
        try:
            short = usage(player, daemon, SHORT)
            long = usage(player, daemon, SHORT + seconds)
        finally:
            daemon.close()
    return [(b - a) * scale / seconds for a, b, scale in zip(short, long, (1000, 1))]


class Listener:
    """Notes when a player begins each file."""

    def __init__(self, arguments):
        self.played = []  # (display id, time)
        self.process = subprocess.Popen(
            arguments, stdout=subprocess.PIPE, text=True, env=environment()
        )
        self.thread = threading.Thread(target=self.listen)
        self.thread.start()

    def listen(self):
        for line in self.process.stdout:
            if found := re.match(r"playing \d+_(\w+)\.", line):
                self.played.append((found[1], time.monotonic()))

    def wait(self, identity, after):
        """The time at which a file of that id began, the first after so many files."""
        wait_until(
            lambda: any(name == identity for name, _ in self.played[after:]), f"the {identity}"
        )
        return next(when for name, when in self.played[after:] if name == identity)

    def close(self):
        self.process.send_signal(signal.SIGTERM)
        self.process.wait()
        self.thread.join()


def alarm_latencies(player, runs=50):
    """Seconds from the rename of each alarm's file to its first sample."""
    result = []
    with scratch() as root:
        daemon = start_daemon(Path(root) / "d", announcement=True)
        listener = Listener(command(player, daemon))
        try:
            for number in range(runs):
                listener.wait("lobby", len(listener.played) and -1)
                daemon.wait(lambda: len(daemon.outputs()) >= 2, "a full output directory")
                time.sleep(random.uniform(0.2, 1.2))
                count = len(listener.played)
                hidden = daemon.input("alarm") / f".{number}"
                hidden.write_text("Leave the building by the stairs.")
                start = time.monotonic()
                hidden.rename(hidden.with_name(f"{number}.txt"))
                result.append(listener.wait("alarm", count) - start)
                listener.wait("lobby", count + 1)
        finally:
            listener.close()
            daemon.close()
    return result


def measure(player, runs=50, seconds=20):
    """Rows of a table: name, value, unit, floor, goal."""
    processor, wakeups = idle(player, seconds)
    latencies = alarm_latencies(player, runs)
    return [
        ("player at rest, processor time", processor, "ms/s", 0, 0.5),
        ("player at rest, wake-ups", wakeups, "1/s", 0, 10),
        ("alarm to its first sample, median", statistics.median(latencies), "s", 0.15, 0.5),
        (f"alarm to its first sample, worst of {runs}", max(latencies), "s", 0.2, 1.0),
    ]


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--player", default=tool("libexec") / "player")
    parser.add_argument("--runs", type=int, default=50)
    parser.add_argument("--seconds", type=int, default=20)
    arguments = parser.parse_args()
    print(f"{'':<44}{'value':>10}{'floor':>8}{'goal':>8}")
    for name, value, unit, floor, goal in measure(
        os.path.abspath(arguments.player), arguments.runs, arguments.seconds
    ):
        print(f"{name:<44}{value:>10.3f}{floor:>8}{goal:>8}  {unit}")


if __name__ == "__main__":
    main()

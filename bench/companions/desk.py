#!/usr/bin/python3
"""Measures the desk with a station, daemon, translator and player.

    bench/companions/desk.py

- At rest: voluntary context switches (wake-ups) of the desk, after somebody was there and left.
- Watched: processor time while clients follow what happens and one message after another is spoken.
- From POST /say to the first sample, beside the same by vocastra-say, in turn.
- The page: all that a browser loads, first with an empty history and then with a full one.
- Hostile clients: the largest peak memory in the tests with malformed requests and the like.
"""

import contextlib
import json
import random
import selectors
import statistics
import sys
import threading
import time
from pathlib import Path

import player

ROOT = Path(__file__).resolve().parents[2]
# pylint: disable=wrong-import-position
from harness.desk import Browser, Desk  # noqa: E402
from harness.programs import run  # noqa: E402
from harness.scene import Scene  # noqa: E402
from harness.wait import wait_until  # noqa: E402

HOSTILE = ROOT / "tests/behaviour/desk/test_hostile.py"
IDLE = 10  # Seconds.
HISTORY = 200  # Messages.
TEXT = "The train to the north leaves from platform nine today."
FILES = ("/", "/style.css", "/desk.js", "/icon.svg")


class HeardScene(Scene):
    """A scene whose player tells when it begins each file."""

    def start_player(self, command):
        self.player = player.Listener([str(word) for word in [*command, "--null", "--verbose"]])

    def close(self):
        if self.player:
            self.player.close()
            self.player = None
        super().close()

    def log_in(self, user):
        browser = Browser(self.desk)
        assert browser.log_in(user).status == 303
        return browser

    def say_by_desk(self, browser):
        response = browser.post("/say", {"directory": "announcements", "text": TEXT})
        assert response.status == 303, response.text

    def say_by_program(self):
        where = ("-c", self.station.config, "-d", "announcements", "--run", self.run)
        done = run("vocastra-say", *where, TEXT)
        assert done[0] == 0, done

    def latency(self, say):
        """Seconds from the beginning of say() to the message's first sample."""
        known, count = len(self.messages()), len(self.player.played)
        start = time.monotonic()
        say()
        seconds = self.player.wait("announcements", count) - start
        # The station may record a message after it was played.
        wait_until(lambda: len(self.messages()) > known, "the message's record")
        self.wait_until_quiet()
        return seconds

    def processor_time(self):
        """Processor time of the desk in seconds."""
        return int(Path(f"/proc/{self.desk.process.pid}/schedstat").read_text().split()[0]) / 1e9

    def fill_history(self):
        """Restarts the desk with a full history."""
        path = self.desk.root / "state/history"
        assert self.desk.stop() == 0
        entries = [json.loads(line) for line in path.read_text().splitlines()]
        last = max(entry["id"] for entry in entries)
        entries += [{**entries[-1], "id": last + n} for n in range(1, HISTORY + 1 - len(entries))]
        path.write_text("".join(json.dumps(entry) + "\n" for entry in entries))
        self.desk.start()


class Watchers:
    """Clients that read all events."""

    def __init__(self, browser, count):
        self.selector = selectors.DefaultSelector()
        self.events = {}
        for _ in range(count):
            connection = browser.watch()
            self.events[connection] = 0
            self.selector.register(connection, selectors.EVENT_READ)
        self.is_ended = False
        self.thread = threading.Thread(target=self.read)
        self.thread.start()

    def read(self):
        while not self.is_ended:
            for key, _ in self.selector.select(0.2):
                self.events[key.fileobj] += key.fileobj.recv(1 << 20).count(b"\ndata: ")

    def close(self):
        self.is_ended = True
        self.thread.join()
        for connection in self.events:
            connection.close()


def page_size(browser):
    """KB of 1,000 bytes of all that a browser loads."""
    return sum(len(browser.get(path).text.encode()) for path in FILES) / 1000


def wakeups(desk, seconds):
    before = desk.figure("voluntary_ctxt_switches")
    time.sleep(seconds)
    return desk.figure("voluntary_ctxt_switches") - before


def watched(scene, clients, seconds):
    """Per cent of a core, and the events that each client received."""
    browser = scene.log_in("anna")
    with contextlib.closing(Watchers(browser, clients)) as watchers:
        time.sleep(1)
        events = dict(watchers.events)
        used, start = scene.processor_time(), time.monotonic()
        while time.monotonic() - start < seconds:
            scene.latency(lambda: scene.say_by_desk(browser))
        share = (scene.processor_time() - used) / (time.monotonic() - start) * 100
        time.sleep(1)
        counts = [watchers.events[connection] - count for connection, count in events.items()]
    assert min(counts) > 0
    return share, min(counts)


def hostile_peak(*options):
    """MiB, the most of all desks of the tests."""
    import pytest  # pylint: disable=import-outside-toplevel

    peaks = []
    figure, close = Desk.figure, Desk.close

    def noted(desk, name):
        value = figure(desk, name)
        if name == "VmHWM":
            peaks.append(value)
        return value

    def closed(desk):
        if desk.process and desk.process.poll() is None:
            desk.figure("VmHWM")
        close(desk)

    Desk.figure, Desk.close = noted, closed
    try:
        assert pytest.main([str(HOSTILE), "-q", "-p", "no:cacheprovider", *options]) == 0
    finally:
        Desk.figure, Desk.close = figure, close
    return max(peaks) / 1024


def measure(runs=10, clients=100, seconds=60, hostile=()):
    """Rows of a table: name, value, unit, floor, goal."""
    with player.scratch() as root, contextlib.closing(HeardScene(Path(root) / "d")) as scene:
        scene.start()
        at_start = scene.desk.figure("VmRSS") / 1024
        size = page_size(scene.log_in("operate"))
        anna = scene.log_in("anna")
        scene.latency(scene.say_by_program)  # The first run warms up the caches.
        latencies = ([], [])
        for _ in range(runs):  # In turn, so that both see the same machine.
            for values, say in zip(
                latencies, (lambda: scene.say_by_desk(anna), scene.say_by_program)
            ):
                time.sleep(random.uniform(0.2, 0.7))
                values.append(scene.latency(say))
        posted, said = map(statistics.median, latencies)
        scene.fill_history()
        full_size = page_size(scene.log_in("operate"))
        share, events = watched(scene, clients, seconds)
        print(f"desk: {events} events for each of {clients} clients", flush=True)
        with_clients = scene.desk.figure("VmHWM") / 1024
        time.sleep(2)
        at_rest = wakeups(scene.desk, IDLE)
        resident = scene.desk.figure("VmRSS") / 1024
    return [
        (f"desk without clients, wake-ups in {IDLE} s", at_rest, "", 0, 0),
        ("desk after its start, resident memory", at_start, "MiB", 0, 10),
        ("desk after logins, messages and clients, resident memory", resident, "MiB", 0, 10),
        (f"desk with {clients} clients that watch, peak memory", with_clients, "MiB", 0, None),
        (f"desk with {clients} clients that watch, share of a core", share, "%", 0, 5),
        ("POST /say to its first sample, floor: vocastra-say, median", posted, "s", said, None),
        ("POST /say to its first sample, more than vocastra-say", posted - said, "s", 0, 0.3),
        ("page of the desk, with all that it loads", size, "KB", 0, 60),
        (f"page of the desk with {HISTORY} messages in its history", full_size, "KB", 0, None),
        ("desk with hostile clients, peak memory", hostile_peak(*hostile), "MiB", 0, 20),
    ]


def main():
    for name, value, unit, floor, goal in measure():
        print(f"{name:<62}{value:>10.3f}{floor:>8.3f}{'' if goal is None else goal:>8}  {unit}")


if __name__ == "__main__":
    sys.exit(main())

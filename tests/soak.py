"""Runs the daemon for MINUTES under the load and failures of a busy station; counts the results.

    tools/soak MINUTES [SEED]

Messages are dropped into several directories (everyday, urgent with clips, repeated, XML, remote,
one whose translator fails now and then) while the configuration is reloaded, directories with
helpers come and go, the state changes between "run" and "stop", a player takes files under the lock
at random moments, and now and then the configuration is broken or a directory is away for a while.
Every word is unique, so that each message can be followed from its drop to the audio. By design, a
"stop" drops messages, and a failing translator or a missing output directory loses words. Such
messages are counted separately, and must still not be said twice or out of order.

Prints a table. The exit status is 0 if no message was lost, said twice or out of order, memory and
descriptors did not grow, and processor time stayed below its limit.
The program is build/release/vocastra, or the command in the environment variable VOCASTRA.
"""

import os
import pathlib
import random
import re
import sys
import tempfile
import threading
import time

from harness.daemon import PAUSE, Daemon
from harness.files import parser, publish

# "Speaks" by copying the text. In the directory "flaky" every tenth call fails and says so.
TRANSLATOR = """#!/bin/sh
if [ "$3" = flaky ]; then
  read -r calls <"$0.calls"
  calls=$((calls + 1))
  echo "$calls" >"$0.calls"
  if [ $((calls % 10)) -eq 0 ]; then
    cat "$1" >>"$0.failed" && echo >>"$0.failed"
    exit 1
  fi
fi
exec cat "$1" >"$2"
"""

BACKLOG = 25  # The largest number of unfinished messages.
# Milliseconds of processor time per second that are too much. The daemon needs a few.
SPIN = 250
GROWTH = 512  # KiB that resident memory and heap may differ between the middle and the end.


class Message:
    def __init__(self, directory, number, words, plays):
        self.directory = directory
        self.name = f"{directory}{number:06d}"
        self.words = [f"{self.name}-{i}" for i in range(words)]
        self.expected = self.words * plays
        self.heard = []
        self.excused = False

    def is_done(self):
        return len(self.heard) >= len(self.expected)


class Soak:
    def __init__(self, root, seed):
        self.random = random.Random(seed)
        self.daemon = Daemon(root, words=5, files=12, debug=1, status="apart")
        self.daemon.translator.unlink()
        self.daemon.translator.write_text(TRANSLATOR)
        self.daemon.translator.chmod(0o755)
        pathlib.Path(f"{self.daemon.translator}.calls").write_text("0\n")
        self.failed_seen = 0
        self.failed = pathlib.Path(f"{self.daemon.translator}.failed")
        for name in ("last", "cached"):
            (self.daemon.root / name).mkdir()
        for clip in ("spacer", "bumper", "silence"):
            (self.daemon.root / f"{clip}.wav").write_text("clip")
        self.watch = None  # The directory where files of the remote directory arrive.
        self.player = None
        self.numbers = {}
        self.messages = []
        self.by_name = {}
        self.open = {}  # By name: the messages that were not heard to their end.
        self.lock = threading.Lock()
        self.output_lock = threading.Lock()  # Held while the output directory is away or in use.
        self.out_of_order = 0
        self.unknown = 0
        self.interrupted = 0
        self.speaker = None  # The message heard last.
        self.clips = 0
        self.files = 0
        self.last_number = -1
        self.reloads = 0
        self.stops = 0
        self.faults = 0
        self.helpers = 1
        self.revision = 0
        self.with_guest = False
        self.playing = True

    # The station.

    def configure(self, state="run"):
        self.revision += 1
        d = self.daemon
        clips = {f"{clip}_path": d.root / f"{clip}.wav" for clip in ("spacer", "bumper", "silence")}
        elements = [
            d.directory("everyday", priority=5, last_played_path=d.root / "last", auto_delete=1),
            d.directory("cache", dir_mode="cache", last_played_path=d.root / "cached"),
            d.directory("urgent", priority=1, **clips),
            d.directory("twice", priority=3, loops=2),
            d.directory("xml", priority=4, parser="alert", encoding="utf8"),
            d.directory("flaky", priority=6, conv_opts="flaky"),
            d.directory("remote", type="ftp", path="nowhere", priority=2),
            d.directory("changing", priority=9, display_id=f"r{self.revision}"),
            parser("alert", ("text",)),
        ]
        if self.with_guest:
            elements.append(d.directory("guest", type="cifs", path="nowhere", priority=8))
        d.reconfigure(*elements, state=state)

    def start(self):
        self.daemon.configure(state="run")
        self.daemon.start()
        self.configure()
        self.watch = self.daemon.wait_helper_runs(1)[0].watch
        self.daemon.wait_log(f"Directory {self.watch}/ is receiving updates")
        self.daemon.wait_passes(2)
        self.player = threading.Thread(target=self.play)
        self.player.start()

    def drop(self):
        directory = self.random.choice(
            ["everyday", "everyday", "urgent", "twice", "xml", "flaky", "remote"]
        )
        number = self.numbers[directory] = self.numbers.get(directory, 0) + 1
        words = self.random.choice([1, 2, 5, 10, 11, 20, 30, 150])
        message = Message(directory, number, words, 2 if directory == "twice" else 1)
        text = " ".join(message.words)
        if directory == "xml":
            text = f"<m><noise>skipped</noise><text>{text}</text></m>"
        with self.lock:
            self.messages.append(message)
            self.by_name[message.name] = message
            self.open[message.name] = message
        publish(self.place(directory) / message.name, text)

    def place(self, directory):
        return self.watch if directory == "remote" else self.daemon.input(directory)

    # The player.

    def play(self):
        chance = random.Random(1)
        while self.playing:
            time.sleep(chance.uniform(0.02, 0.4))
            self.take(chance.choice([1, 2, 5, None]))

    def take(self, count=None):
        with self.output_lock:
            files = self.daemon.take(count)
        for name, content in files:
            number = int(name.partition("_")[0])
            self.out_of_order += number <= self.last_number
            self.last_number = number
            self.files += 1
            if ".warn_" in name:
                self.clips += 1
            else:
                self.hear(content.decode().replace(PAUSE, "").split())

    def hear(self, words):
        with self.lock:
            for word in words:
                message = self.open.get(word.rpartition("-")[0])
                if message is None:
                    # The word belongs to no message, or was spoken twice.
                    self.unknown += 1
                    continue
                self.interrupted += message is not self.speaker and bool(message.heard)
                self.speaker = message
                message.heard.append(word)
                if message.is_done():
                    del self.open[message.name]

    # Disturbances.

    def disturb(self):
        what = self.random.choice(["reload", "reload", "guest", "stop", "fault"])
        if what == "stop":
            self.stop_and_go()
        elif what == "fault":
            self.random.choice(
                [self.break_configuration, self.lose_input, self.lose_status, self.lose_output]
            )()
            self.faults += 1
        else:
            if what == "guest":
                self.with_guest = not self.with_guest
                self.helpers += self.with_guest
            self.configure()
            self.reloads += 1

    def excuse_messages_in_work(self):
        """Excuses the messages in work. A file still in an input directory must be said later."""
        with self.lock:
            for message in self.open.values():
                message.excused |= not (self.place(message.directory) / message.name).exists()

    def stop_and_go(self):
        """Stops and continues. Active messages and output files are dropped by design."""
        self.configure(state="stop")
        self.excuse_messages_in_work()
        self.stops += 1
        self.configure(state="run")

    def break_configuration(self):
        whole = self.daemon.config.read_text()
        publish(self.daemon.config, whole.replace("</tts-config>", "</oops>"))
        self.wait_for_more("mismatched tag at line ")
        publish(self.daemon.config, whole)

    def lose_input(self):
        path = self.daemon.input("changing")
        self.lose(path, f"Could not open directory {path}/")

    def lose_status(self):
        path = self.daemon.status_path
        self.lose(path.parent, f'Could not open "{path}" for writing')

    def lose_output(self):
        """Takes the output directory away. By design, audio made meanwhile is not delivered."""
        with self.output_lock:
            self.lose(self.daemon.output, f'Could not open "{self.daemon.output}/" for counting: ')
            self.excuse_messages_in_work()

    def lose(self, path, complaint):
        """Takes a directory away until the daemon has complained for a while."""
        away = path.with_name(path.name + ".away")
        path.rename(away)
        self.wait_for_more(complaint)
        away.rename(path)

    def wait_for_more(self, complaint):
        """Waits until the log has three more lines that begin so."""

        def count():
            return sum(line.startswith(complaint) for line in self.daemon.log())

        goal = count() + 3
        self.daemon.wait(lambda: count() >= goal, f"three times '{complaint}'")

    # The figures.

    def resources(self):
        pid = self.daemon.process.pid
        smaps = pathlib.Path(f"/proc/{pid}/smaps").read_text()
        rss = sum(int(kib) for kib in re.findall(r"^Rss:\s+(\d+)", smaps, re.M))
        heap = re.search(r"\[heap\]\nSize:\s+(\d+)", smaps)
        stat = pathlib.Path(f"/proc/{pid}/stat").read_text().rpartition(")")[2].split()
        return {
            "rss": rss,
            "heap": int(heap[1]) if heap else 0,
            "descriptors": len(os.listdir(f"/proc/{pid}/fd")),
            # Counts twice, to leave out a process that is just being collected, such as the
            # daemon's "date".
            "zombies": len(self.daemon.zombies() & self.daemon.zombies()),
            "cpu": (int(stat[11]) + int(stat[12])) / os.sysconf("SC_CLK_TCK"),
            "passes": self.daemon.timestamp() or 0,
            "time": time.monotonic(),
        }

    def backlog(self):
        self.note_failures()
        with self.lock:
            return sum(not message.excused for message in self.open.values())

    def note_failures(self):
        """Excuses the messages that have lost words in the translator since the last call."""
        if self.failed.exists():
            failed = self.failed.read_text()
            # Each call is one line; the last line may be incomplete.
            failed = failed[: failed.rfind("\n") + 1]
            words = failed[self.failed_seen :].replace(PAUSE, "").split()
            self.failed_seen = len(failed)
            for name in {word.rpartition("-")[0] for word in words}:
                self.by_name[name].excused = True

    def run(self, seconds):
        self.start()
        begin = time.monotonic()
        samples = [self.quiet_resources()]
        next_disturbance = begin + 5
        while time.monotonic() < begin + seconds:
            if self.backlog() < BACKLOG:
                self.drop()
            time.sleep(self.random.uniform(0, 0.2))
            if time.monotonic() > next_disturbance:
                next_disturbance += self.random.uniform(5, 15)
                self.disturb()
            if len(samples) == 1 and time.monotonic() > begin + seconds / 2:
                samples.append(self.quiet_resources())
        samples.append(self.quiet_resources())
        self.playing = False
        self.player.join()
        self.daemon.stop()
        return samples

    def quiet_resources(self):
        """Resources when all messages have been said or are excused."""

        def is_quiet():
            self.note_failures()
            status = self.daemon.status() or ""
            return (
                'now-playing="0"' in status
                and "<message" not in status
                and not re.search(r'updated-file-count="[1-9]', status)
                and not self.daemon.outputs()
            )

        self.daemon.wait(is_quiet, "everything on its way to arrive")
        self.daemon.wait_passes(3)
        self.daemon.wait(is_quiet, "everything on its way to arrive")
        return self.resources()


def is_in_order(message):
    """Whether the heard words are the message's in order, with no word twice in a play."""
    positions = [message.words.index(word) for word in message.heard]
    plays = 1 + sum(b <= a for a, b in zip(positions, positions[1:]))
    return plays <= len(message.expected) // len(message.words)


def report(soak, samples):
    complete = [m for m in soak.messages if m.heard == m.expected]
    excused = [m for m in soak.messages if m.heard != m.expected and m.excused]
    lost = [m for m in soak.messages if m.heard != m.expected and not m.excused]
    disordered = [m for m in soak.messages if not is_in_order(m)]
    start, middle, end = samples
    print(
        f"{'dropped':24}{len(soak.messages)} messages, "
        f"{sum(len(m.expected) for m in soak.messages)} words"
    )
    print(f"{'spoken whole':24}{len(complete)}")
    print(
        f"{'lost by design':24}{len(excused)} "
        "(under way at a stop or without output, or translator failed)"
    )
    print(f"{'lost':24}{len(lost)} {' '.join(m.name for m in lost[:5])}")
    print(f"{'said twice':24}{soak.unknown} words")
    print(f"{'out of order':24}{len(disordered)} messages, {soak.out_of_order} files")
    print(f"{'interruptions':24}{soak.interrupted}")
    print(f"{'files taken':24}{soak.files}, of these {soak.clips} clips")
    print(
        f"{'disturbances':24}{soak.reloads} reloads, {soak.stops} stops, "
        f"{soak.faults} faults, {soak.helpers} helpers"
    )
    print(f"\n{'':24}{'start':>10}{'middle':>10}{'end':>10}")
    for key, unit in (("rss", "KiB"), ("heap", "KiB"), ("descriptors", ""), ("zombies", "")):
        print(f"{key:16}{unit:8}{start[key]:10}{middle[key]:10}{end[key]:10}")
    spins = False
    for name, a, b in (("1st half", start, middle), ("2nd half", middle, end)):
        cpu = b["cpu"] - a["cpu"]
        per_pass = cpu / max(1, b["passes"] - a["passes"]) * 1e6
        per_second = cpu / (b["time"] - a["time"]) * 1e3
        spins = spins or per_second > SPIN
        print(f"CPU time, {name:14}{per_pass:10.0f} us per pass, {per_second:.1f} ms per second")
    grown = [key for key in ("rss", "heap") if end[key] - middle[key] > GROWTH]
    grown += [key for key in ("descriptors", "zombies") if end[key] != start[key]]
    if grown:
        print("grown: " + " ".join(grown))
    if spins:
        print("too much CPU time")
    bad = lost or soak.unknown or disordered or soak.out_of_order or grown or spins
    return bool(complete) and not bad


def main():
    if len(sys.argv) not in (2, 3) or not re.fullmatch(r"\d+(\.\d+)?", sys.argv[1]):
        sys.exit(__doc__)
    seed = int(sys.argv[2]) if len(sys.argv) == 3 else 1
    with tempfile.TemporaryDirectory(prefix="vocastra-soak-") as scratch:
        soak = Soak(pathlib.Path(scratch) / "d", seed)
        try:
            samples = soak.run(float(sys.argv[1]) * 60)
        finally:
            soak.playing = False
            soak.daemon.close()
        sys.exit(0 if report(soak, samples) else 1)


main()

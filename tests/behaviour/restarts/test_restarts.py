"""Restarts lose no message: the station runs under load, and is ended in many ways and moments.

Each message is spoken once from its start to its end. If it was cut, it is spoken again from its
start. The daemon's status shows the end of a message some time after its last piece was made. If a
restart comes in between, while the station still keeps the copy, the whole message may be spoken
twice. Within a directory, messages are spoken in the order of their arrival.

The environment variables RESTARTS and SEED set the number of restarts and the seed; tools/restarts
sets them.
"""

import contextlib
import os
import random
import re
import shutil
import signal
import threading
import time
from collections import Counter
from concurrent.futures import ThreadPoolExecutor

import pytest
from harness.companions import COMPANIONS
from harness.files import element
from harness.programs import start_command, tool
from harness.station import Station
from harness.wait import wait_until

RESTARTS = int(os.environ.get("RESTARTS", "12"))
SEED = int(os.environ.get("SEED") or random.randrange(10**6))

# A translator that records its text with the daemon's process group, which is the daemon's process
# id. It "speaks" by copying, or by tones.
TRANSLATOR = """#!/bin/sh
[ -e "$1" ] || exit 1
read -r _ _ _ _ daemon _ <"/proc/$$/stat"
printf '%s %s\\n' "$daemon" "$(cat "$1")" >>"$0.given"
exec SPEAK
"""
COPY = 'cp "$1" "$2"'

BACKLOG = 20  # The largest number of unfinished messages.

# The kinds of restarts with their shares. An upgrade replaces the programs and then stops the
# station. A hang is noticed after half a minute, so hangs are rare, and there are none in short
# runs.
KINDS = {
    "daemon killed": 40,
    "station killed": 22,
    "both killed": 8,
    "stop": 18,
    "quick stop": 11,
    "upgrade": 10,
    "hang": 1,
}
MANY = 30


class Message:
    def __init__(self, directory, number, words):
        self.directory = directory
        self.number = number
        # In "c", the names sort in the reverse order: the daemon alone would take the newest first.
        order = 99999 - number if directory == "c" else number
        self.name = f"{directory}{order:05d}"
        self.words = [f"{self.name}x{i}" for i in range(words)]


class Said:
    """The words that one witness, the translator or the player, has received, in their order.

    daemons: for each word, the daemon that sent it, if that is known.
    """

    def __init__(self, messages):
        self.lengths = {message.name: len(message.words) for message in messages}
        # For each try: the number of words, the first and the last position.
        self.tries = {name: [] for name in self.lengths}
        self.wrong = []  # Words that do not continue a message.

    def add(self, words, daemons=None):
        for at, word in enumerate(words):
            name, _, number = word.partition("x")
            tries = self.tries.get(name)
            if tries is None or not number.isdigit():
                self.wrong.append(word)
            elif number == "0":
                tries.append([1, at, at])
            elif not tries or tries[-1][0] != int(number):
                self.wrong.append(word)
            elif daemons and daemons[at] != daemons[tries[-1][2]]:
                self.wrong.append(word)
            else:
                tries[-1][0] += 1
                tries[-1][2] = at

    def whole(self, name):
        """The first and the last position of each complete try."""
        length = self.lengths[name]
        return [(begin, end) for count, begin, end in self.tries[name] if count == length]

    def lost(self):
        """Messages whose last try is not complete."""
        return [
            name
            for name, tries in self.tries.items()
            if not tries or tries[-1][0] != self.lengths[name]
        ]

    def cut(self):
        return sum(len(tries) - len(self.whole(name)) for name, tries in self.tries.items())


class Player(threading.Thread):
    """Takes files as they appear; "words" are their contents."""

    def __init__(self, station):
        super().__init__(daemon=True)
        self.station = station
        self.words = []
        self.taken = []  # Name and text of each file.
        self.is_playing = True
        state = {"device": "x", "device-ok": 1, "pid": os.getpid(), "playing": "", "problem": ""}
        state.update({"problem-time": 0, "since": 0})
        (station.run_path / "player").write_text(element("player-state", **state) + "\n")

    def run(self):
        while self.is_playing:
            for name, text in self.station.take(2):
                self.taken.append((name, text.decode()))
                self.words += said_words(text.decode())
            time.sleep(0.02)

    @property
    def files(self):
        return len(self.taken)

    def files_with(self, message):
        return [file for file in self.taken if message + "x" in file[1]]

    def close(self):
        self.is_playing = False
        self.join()


class SoundPlayer:
    """The real player, without a sound device."""

    def __init__(self, station):
        state = ("--state", station.run_path / "player")
        words = (COMPANIONS / "player", "--null", "--after-piece", "--verbose", *state)
        self.log_path = station.root / "player.log"
        with open(self.log_path, "wb") as log:
            self.process = start_command(*words, station.output, stdout=log, stderr=log)

    @property
    def files(self):
        return len(re.findall("^playing ", self.log_path.read_text(), re.MULTILINE))

    def start(self):
        assert self.process.poll() is None

    def close(self):
        self.process.terminate()
        self.process.wait()


def said_words(text):
    return text.replace("\\pau=300\\", " ").split()


class InstalledStation(Station):
    """A station with its own copies of the programs."""

    NAMES = ("vocastra", "vocastra-check", "vocastra-station")

    def __init__(self, root, **settings):
        super().__init__(root, **settings)
        self.programs = self.root / "programs"
        self.programs.mkdir()
        self.replace_programs()

    def replace_programs(self):
        """Replaces each program by a rename, as a package manager does."""
        for name in self.NAMES:
            new = self.programs / f"{name}.new"
            shutil.copy2(tool(name), new)
            new.rename(self.programs / name)

    def command(self):
        own = {str(tool(name)): self.programs / name for name in self.NAMES}
        return [own.get(str(word), word) for word in super().command()]


class Trial:
    """Restarts a station under load; check() asserts the result."""

    def __init__(self, station, restarts, is_sound):
        self.station = station
        self.random = random.Random(f"{SEED} {is_sound}")
        self.is_sound = is_sound
        self.messages = []
        self.restarts = restarts
        self.kinds = Counter()
        self.lost = 0  # The station's counter of losses,
        self.dropped = set()  # and messages that it has dropped.
        self.is_dropping = True
        # For each restart: the daemon that ended, and the messages with copies at that time.
        self.cuts = []
        speak = f'{COMPANIONS}/translators/tone "$@"' if is_sound else COPY
        station.translator.unlink()
        station.translator.write_text(TRANSLATOR.replace("SPEAK", speak))
        station.translator.chmod(0o755)
        self.given_path = station.translator.with_name("translator.given")
        self.given_path.touch()
        last = station.root / "last"
        last.mkdir()
        station.configure(
            station.directory("a", priority=10, auto_delete=1),
            station.directory("b", priority=5, last_played_path=last),
            station.directory("c", priority=10, auto_delete=1, display_id="other"),
        )
        self.player = (SoundPlayer if is_sound else Player)(station)

    def given(self):
        """The words that the translator received, and the daemon of each word."""
        words = []
        daemons = []
        for line in self.given_path.read_text().splitlines():
            daemon, _, text = line.partition(" ")
            words += said_words(text)
            daemons += [int(daemon)] * (len(words) - len(daemons))
        return words, daemons

    def judge(self):
        """The words that the translator received, and those that were heard, if that is known."""
        messages = list(self.messages)
        given = Said(messages)
        given.add(*self.given())
        if self.is_sound:
            return given, given
        heard = Said(messages)
        heard.add(list(self.player.words))
        return given, heard

    # Load.

    def drop(self):
        choice = random.Random(self.random.random())
        while self.is_dropping:
            time.sleep(choice.uniform(0, 0.5))
            if len(self.judge()[1].lost()) < BACKLOG:
                words = choice.choice([1, 2, 3] if self.is_sound else [1, 2, 5, 8, 13, 30])
                message = Message(choice.choice("abc"), len(self.messages), words)
                self.messages.append(message)
                self.station.drop(message.directory, message.name, " ".join(message.words))

    # Restarts.

    def pause(self, *limits):
        time.sleep(self.random.uniform(0, self.random.choice(limits)))

    def start(self):
        if self.station.manager:
            self.station.manager.close()
        self.station.start(wait=False)

    def copies(self):
        """The names of the messages of which the station keeps copies."""
        names = set()
        # A listing may miss a copy that is renamed meanwhile.
        for directory in "abc" * 2:
            for entry in os.listdir(self.station.input(directory)):
                if entry.startswith(".station-"):
                    names.add(entry.rpartition("-")[2])
        return names

    def restart(self):
        """Does one restart. Notes which daemon has ended, and which messages had copies."""
        kinds = list(KINDS) if RESTARTS >= MANY else [kind for kind in KINDS if kind != "hang"]
        kind = self.random.choices(kinds, [KINDS[kind] for kind in kinds])[0]
        station = self.station
        daemon = station.daemon()
        self.kinds[kind] += 1
        self.pause(0.3, 1.5, 3)
        copies = self.copies()
        if kind == "hang":
            os.kill(daemon, signal.SIGSTOP)
        elif kind in ("daemon killed", "both killed"):
            os.kill(daemon, signal.SIGKILL)
        copies |= self.copies()  # A copy may have been made since.
        if kind not in ("hang", "daemon killed"):
            copies = self.restart_station(kind, copies)
        station.wait(lambda: station.daemon() not in (0, daemon), "another daemon")
        self.cuts.append((daemon, copies))

    def restart_station(self, kind, copies):
        """Restarts the station. Returns the messages that had copies at the end of the daemon."""
        process = self.station.process
        if kind == "upgrade":
            self.station.replace_programs()
            self.pause(0.1, 1)
        if kind == "both killed":
            self.pause(0.1, 1)
        process.send_signal(signal.SIGKILL if "killed" in kind else signal.SIGTERM)
        if kind == "quick stop":
            self.pause(0.1, 0.5)
            process.send_signal(signal.SIGTERM)
        process.wait()
        copies = copies | self.copies() if "killed" in kind else self.copies()
        assert process.returncode == (-signal.SIGKILL if "killed" in kind else 0)
        self.note_lost()
        self.pause(0.1, 0.5)
        self.start()
        return copies

    def note_lost(self):
        """To be called once for each station."""
        self.lost += self.station.counter("lost") or 0
        for message in self.station.health().findall("message[@state='dropped']"):
            self.dropped.add(message.get("file"))

    def run(self):
        self.start()
        self.station.wait_daemon()
        self.player.start()
        with ThreadPoolExecutor(1) as pool:
            drops = pool.submit(self.drop)
            try:
                for _ in range(self.restarts):
                    self.restart()
            finally:
                self.is_dropping = False
            drops.result()
        self.wait_end()
        self.note_lost()
        self.player.close()
        self.station.stop()

    def wait_end(self):
        """Waits until all is spoken and played, or nothing has happened for long."""
        wait_until(lambda: self.is_done() or not self.is_moving(), "the end")
        # Hidden files are still being played.
        wait_until(lambda: not os.listdir(self.station.output), "the player to be done")

    def is_done(self):
        return not self.copies() and not any(said.lost() for said in self.judge())

    def is_moving(self):
        before = len(self.given()[0])
        with contextlib.suppress(AssertionError):
            return wait_until(lambda: len(self.given()[0]) > before or self.is_done(), "a word")
        return False

    # Judgement.

    def unfair(self, said, daemons):
        """Messages that were spoken twice without a restart before the station knew their end."""
        names = []
        for name in said.lengths:
            whole = said.whole(name)
            for (_, end), (begin, _) in zip(whole, whole[1:]):
                is_cut = (daemons[end], True) in [(d, name in copies) for d, copies in self.cuts]
                if not is_cut or daemons[begin] == daemons[end]:
                    names.append(name)
        return names

    def disordered(self, said, daemons):
        """Pairs of messages of one directory that were spoken in the wrong order."""
        pairs = []
        starts = {name: said.whole(name)[0][0] for name in said.lengths if said.whole(name)}
        for directory in "abc":
            names = [m.name for m in self.messages if m.directory == directory]
            names = [name for name in names if name in starts]
            for first, second in zip(names, names[1:]):
                begin = min(tries[0][1] for tries in (said.tries[first], said.tries[second]))
                if starts[first] > starts[second] and (
                    directory == "a" or self.waited({first, second}, daemons[begin])
                ):
                    pairs.append((first, second))
        return pairs

    def waited(self, names, daemon):
        """Whether all these messages had copies at one restart before that daemon."""
        ended = [cut[0] for cut in self.cuts]
        before = self.cuts[: ended.index(daemon)] if daemon in ended else self.cuts
        return any(names <= copies for _, copies in before)

    def check(self):
        given, heard = self.judge()
        _, daemons = self.given()
        twice = [name for name in given.lengths if len(given.whole(name)) > 1]
        unfair = self.unfair(given, daemons)
        disordered = self.disordered(given, daemons)
        calls = len(self.given_path.read_text().splitlines())
        unplayed = calls - self.player.files
        print(
            f"\nseed {SEED}: {sum(self.kinds.values())} restarts {dict(self.kinds)}\n"
            f"{len(self.messages)} messages, {given.cut()} cut, {len(twice)} twice as a whole, "
            f"{len(unfair)} of these without reason {unfair}\n"
            f"lost: {heard.lost()}, as the station knows {self.lost} {sorted(self.dropped)}\n"
            f"out of order: {disordered}, wrong words: {given.wrong[:9]} {heard.wrong[:9]}\n"
            f"{calls} pieces, {unplayed} of these not played"
        )
        for name in [] if self.is_sound else heard.lost():
            print(f"{name} was heard in {self.player.files_with(name)}")
        assert self.messages
        assert not heard.lost() and not given.lost() and self.lost == 0
        assert not unfair
        assert not disordered
        assert not given.wrong and not heard.wrong
        # An ended daemon may lose the piece that was just made.
        assert 0 <= unplayed <= sum(self.kinds.values())


@pytest.mark.parametrize(("is_sound", "share"), [(False, 0.75), (True, 0.25)])
def test_restarts_lose_no_message(maker, is_sound, share):
    station = maker(InstalledStation, "s")(options=("--raw",), words=3, files=12)
    trial = Trial(station, round(RESTARTS * share), is_sound)
    try:
        trial.run()
        trial.check()
    except BaseException:
        print(f"the seed was {SEED}")
        raise
    finally:
        trial.is_dropping = False
        trial.player.close()

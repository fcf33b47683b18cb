"""What the manuals say of the running daemon and no other suite looks at."""

import os
import re
import signal
import subprocess
import time
from pathlib import Path

import pytest

from docs import LIMIT, ROOT, program, run, validate

# Notes its arguments and what it is to say.
TRANSLATOR = """#!/bin/sh
for message; do :; done
printf '%s\\t%s\\t%s\\t%s\\n' "$1" "$2" "$message" "$(cat "$1")|" >>spoken
"""


class Daemon:
    """A daemon in a directory of its own, with local input directories in/ID."""

    def __init__(self, path):
        self.path = path
        (path / "output").mkdir()
        self.translator = path / "translator"
        self.translator.write_text(TRANSLATOR)
        self.translator.chmod(0o755)
        self.process = None

    def configure(self, *elements, state="run"):
        text = f'<tts-config state="{state}">{"".join(elements)}</tts-config>'
        (self.path / "config.xml").write_text(text)

    def local(self, identity, **attributes):
        (self.path / "in" / identity).mkdir(parents=True)
        more = "".join(f' {name}="{value}"' for name, value in attributes.items())
        return f'<directory id="{identity}" type="local" path="in/{identity}"{more}/>'

    def start(self, *arguments, wait=True):
        words = ["-c", "config.xml", "-s", "status.xml", "-o", "output", "-t", "./translator"]
        (self.path / "status.xml").unlink(missing_ok=True)
        with open(self.path / "log", "ab") as log:
            self.process = subprocess.Popen(
                program() + words + list(arguments),
                cwd=self.path,
                stdin=subprocess.DEVNULL,
                stdout=log,
                stderr=log,
            )
        if wait:
            self.wait(self.status)

    def log(self):
        return (self.path / "log").read_text()

    def end(self, number=signal.SIGINT):
        self.process.send_signal(number)
        return self.process.wait(LIMIT)

    def drop(self, name, text):
        path = self.path / "in" / name
        hidden = path.with_name(".new")
        hidden.write_bytes(text.encode() if isinstance(text, str) else text)
        hidden.rename(path)

    def status(self):
        path = self.path / "status.xml"
        text = path.read_text() if path.exists() else ""
        whole = re.fullmatch(r"<tts-status [^\n]*(/>\n|>\n.*</tts-status>\n)", text, re.DOTALL)
        return text if whole else ""

    def wait_status(self, *patterns):
        """Waits for a status that all patterns match, and returns it."""
        found = []

        def look():
            text = self.status()
            found[:] = [text] if text and all(re.search(p, text) for p in patterns) else []
            return found

        self.wait(look)
        return found[0]

    def runs(self):
        """For each run of the translator: text file, audio file, message, words."""
        path = self.path / "spoken"
        lines = path.read_text().split("\n")[:-1] if path.exists() else []
        return [line.split("\t") for line in lines]

    def said(self):
        return [words.rstrip("|") for _, _, _, words in self.runs()]

    def wait(self, condition):
        deadline = time.monotonic() + LIMIT
        while not condition():
            assert time.monotonic() < deadline, self.log()
            time.sleep(0.02)


@pytest.fixture
def daemon(tmp_path):
    result = Daemon(tmp_path)
    yield result
    if result.process and result.process.poll() is None:
        result.end()
    for text_file, audio_file, _, _ in result.runs():
        for name in (text_file, audio_file):
            Path(name).unlink(missing_ok=True)


def fits(text, tmp_path):
    path = tmp_path / "snapshot.xml"
    path.write_text(text)
    return validate("tts-status", path)


def test_a_status_without_directories_fits_the_schema(daemon, tmp_path):
    daemon.configure(state="stop")
    daemon.start()
    assert fits(daemon.wait_status('state="stop"'), tmp_path) == ""


def test_a_status_with_everything_fits_the_schema(daemon, tmp_path):
    remote = '<directory id="far" type="ftp" path="ftp.example.net"/>'
    kept = daemon.local("kept", **{"dir-mode": "cache"})
    daemon.configure(daemon.local("near"), kept, remote)
    daemon.start("-f", "0", "-p", "/bin/true")
    daemon.drop("near/one", "One.")
    daemon.drop("near/two", "Two.")
    text = daemon.wait_status('output-bound="1"', "<message ", 'updated-file-count="1"')
    assert re.search(r'id="far" path="/tmp/watch\w{6}" status="0"', text)
    assert fits(text, tmp_path) == ""


def test_what_sigkill_leaves_behind_does_not_disturb_the_next_start(daemon):
    daemon.configure(daemon.local("a"))
    daemon.start()
    daemon.drop("a/one", "One.")
    daemon.wait(lambda: len(daemon.runs()) == 1)
    assert daemon.end(signal.SIGKILL) == -signal.SIGKILL
    left = daemon.runs()[0][:2]
    assert all(os.path.exists(path) for path in left)
    assert [re.sub(r"\w{6}$", "X", path) for path in left] == ["/tmp/textX", "/tmp/speechX"]
    assert daemon.status()  # Stays, too.
    daemon.start()
    daemon.drop("a/two", "Two.")
    daemon.wait(lambda: len(daemon.runs()) == 2)
    assert daemon.end() == 1
    assert daemon.said() == ["\\pau=300\\ One. ", "\\pau=300\\ Two. "]
    own = daemon.runs()[1][:2]
    assert not set(own) & set(left) and not any(os.path.exists(path) for path in own)
    assert all(os.path.exists(path) for path in left)


def test_what_is_emptied_at_the_start(daemon):
    """Visible files directly in the path, nothing in the subdir."""
    daemon.configure(daemon.local("a", subdir="deep"))
    (daemon.path / "in/a/deep").mkdir()
    for name in ("gone", ".hidden", "deep/old"):
        (daemon.path / "in/a" / name).write_text("Old.")
    daemon.start()
    daemon.drop("a/deep/new", "New.")
    daemon.wait(lambda: daemon.said() == ["\\pau=300\\ New. "])
    left = sorted(str(p.relative_to(daemon.path)) for p in (daemon.path / "in").rglob("*"))
    assert left == ["in/a", "in/a/.hidden", "in/a/deep", "in/a/deep/old"]


def test_a_directory_that_is_missing_silences_all(daemon):
    daemon.configure(daemon.local("a"), '<directory id="b" type="local" path="in/b"/>')
    daemon.start(wait=False)
    complaint = "Could not open directory in/b/"
    daemon.wait(lambda: daemon.log().count(complaint) > 1)
    daemon.drop("a/one", "One.")
    seen = daemon.log().count(complaint)
    daemon.wait(lambda: daemon.log().count(complaint) > seen + 3)
    assert daemon.said() == [] and not daemon.status()
    (daemon.path / "in/b").mkdir()
    # What came meanwhile is found by the first scan that succeeds as a whole.
    daemon.wait(daemon.status)


@pytest.mark.parametrize(
    "option, pieces", [("0", ["one ", "two ", "three. "]), ("5x", ["one two three. "])]
)
def test_numbers_of_options(daemon, option, pieces):
    daemon.configure(daemon.local("a"))
    daemon.start("-w", option)
    daemon.drop("a/one", "one two three.")
    daemon.wait(lambda: len(daemon.runs()) >= len(pieces))
    assert daemon.said() == ["\\pau=300\\ " + pieces[0]] + pieces[1:]


@pytest.mark.parametrize(
    "text, words",
    [
        ("It costs 3.5 at 12:30", "It costs 3. 5 at 12: 30 "),
        ("Stop... Now!", "Stop. Now! "),
        (".Now . then", "Now . then "),
        ("one\ttwo\nthree", "one two three "),
        ("“well-known” (not)", "“well-known” (not) "),
        ("a\u00a0b", "a b "),
        ("x" * 150 + " end", "x" * 100 + " end "),
    ],
)
def test_words(daemon, text, words):
    daemon.configure(daemon.local("a"))
    daemon.start()
    daemon.drop("a/one", text)
    daemon.wait(lambda: daemon.runs())
    assert daemon.said() == ["\\pau=300\\ " + words]


MESSAGES = (ROOT / "man/vocastra-messages.7").read_text()


def words_of(daemon, text, **attributes):
    """The words of a message, spoken in one piece."""
    daemon.configure(daemon.local("a", **attributes))
    daemon.start("-w", "100000")
    daemon.drop("a/one", text)
    daemon.wait(daemon.runs)
    return daemon.said()[0].replace("\\pau=300\\ ", "").split(" ")[:-1]


def test_marks_that_end_a_word(daemon):
    """Those that the manual lists, and no other of ASCII."""
    line = re.search(r"^\.Ql (\\&! .*)$", MESSAGES, re.MULTILINE)[1]
    told = set(re.sub(r"\\&| ", "", line))
    marks = [chr(cp) for cp in range(0x21, 0x7F) if not chr(cp).isalnum()]
    assert told < set(marks)
    expected = []
    for mark in marks:
        expected += [f"x{mark}", "y"] if mark in told else [f"x{mark}y"]
    assert words_of(daemon, "\n".join(f"x{mark}y" for mark in marks)) == expected


def test_the_table_of_ascii(daemon):
    """Every byte becomes what the manual's table says."""
    singles = dict(re.findall(r"^\.It ([A-F\d]{2}) Ta (\S)$", MESSAGES, re.MULTILINE))
    assert len(singles) == 8
    expected = []
    for byte in range(0x80, 0x100):
        if f"{byte:02X}" in singles:
            letter = singles[f"{byte:02X}"]
        elif byte >= 0xC0:
            letter = chr(byte)
        elif byte <= 0x9F:
            letter = "\ufffd" + chr(byte - 0x20)
        else:
            letter = chr(byte - 0x20)
        # A control character, which DEL is as well, ends a word and vanishes.
        expected += re.sub("[\x7f-\x9f]", " ", f"x{letter}y").split(" ")
    text = b"\n".join(b"x" + bytes([byte]) + b"y" for byte in range(0x80, 0x100)) + b"\nx\0y"
    assert words_of(daemon, text, parser="text", encoding="ascii") == expected + ["xy"]


def test_the_rest_of_a_long_file_is_ignored(daemon):
    assert words_of(daemon, "x " * 32768 + "tail") == ["x"] * 32768


@pytest.mark.parametrize("victim, delivered", [("$$", 1), ("$PPID", 2)])
def test_words_of_a_translator_that_is_killed_are_lost(daemon, victim, delivered):
    """Unless its shell is killed, too, which counts as done."""
    kill = f'case $(cat "$1") in *One.*) kill -KILL {victim} ;; esac\n'
    daemon.translator.write_text(TRANSLATOR + kill)
    daemon.configure(daemon.local("a"))
    daemon.start("-w", "0")
    daemon.drop("a/one", "One. Two.")
    daemon.wait(lambda: daemon.log().count("copying") == delivered)
    daemon.wait_status('now-playing="0"')
    assert daemon.said() == ["\\pau=300\\ One. ", "Two. "]
    assert len(list((daemon.path / "output").iterdir())) == delivered
    complaints = re.findall(r'Could not execute "\./translator ', daemon.log())
    assert len(complaints) == 2 - delivered


def test_the_same_text_under_a_name_that_was_just_taken_is_not_spoken(daemon):
    daemon.translator.write_text(TRANSLATOR + "until [ -e go ]; do sleep 0.02; done\n")
    daemon.configure(daemon.local("a"))
    daemon.start()
    daemon.drop("a/one", "Same.")
    daemon.wait(daemon.runs)  # Taken. There is no scan before the translator ends.
    daemon.drop("a/one", "Same.")
    (daemon.path / "go").touch()
    daemon.wait_status('now-playing="0"', 'total-file-count="1"')
    daemon.drop("a/two", "Two.")
    daemon.wait(lambda: len(daemon.runs()) > 1)
    assert daemon.said() == ["\\pau=300\\ Same. ", "\\pau=300\\ Two. "]
    assert (daemon.path / "in/a/one").exists()


def test_a_malformed_configuration_silences_all_until_it_is_fixed(daemon):
    element = daemon.local("a")
    daemon.configure(element)
    daemon.start()
    daemon.configure("<directory></wrong>")
    daemon.wait(lambda: "mismatched tag at line 1" in daemon.log())
    daemon.drop("a/one", "One.")
    seen = daemon.log().count("mismatched tag at line 1")
    daemon.wait(lambda: daemon.log().count("mismatched tag at line 1") > seen + 3)
    assert daemon.said() == [] and (daemon.path / "in/a/one").exists()
    daemon.configure(element)
    daemon.wait(lambda: daemon.said() == ["\\pau=300\\ One. "])


def test_exit_status_of_a_daemon_that_cannot_start(tmp_path):
    done = run(*program(), "-o", tmp_path / "missing")
    assert (done.returncode, done.stdout) == (0, f"Could not open directory {tmp_path}/missing/\n")


def test_the_line_for_a_wrong_option_names_an_earlier_long_one():
    name = program()[-1]
    line = f"{name}: Unrecognized option or bad value for option: "
    for arguments, told in ((["-b", "3"], "-b"), (["--words", "3", "-b", "3"], "--words")):
        done = run(*program(), *arguments)
        assert (done.returncode, done.stdout) == (1, f"{line}{told}\n")

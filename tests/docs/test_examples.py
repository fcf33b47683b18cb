"""Each example runs, and speaks its messages, as its README says."""

import os
import re
import shutil
import signal
import subprocess

import pytest
from harness.companions import COMPANIONS
from harness.programs import ROOT, program, tool
from harness.schemas import validate
from harness.wait import LIMIT, wait_until

EXAMPLES = sorted(path.parent.name for path in (ROOT / "examples").glob("*/config.xml"))

PAUSE = "\\pau=300\\ "

# Writes its process id, so that the test can end it, and becomes the daemon.
DAEMON = """#!/bin/sh
echo $$ >"$SCRATCH/daemon.pid"
exec {program} "$@" 2>"$SCRATCH/log"
"""

# Records the text and makes tones.
TRANSLATOR = """#!/bin/sh
for message; do :; done
{companions}/translators/tone "$@" || exit
printf '%s\\t%s\\n' "$message" "$(cat "$1")|" >>"$SCRATCH/spoken"
"""

# A player without a sound device, which prints the files that it takes.
PLAYER = """#!/bin/sh
echo $$ >"$SCRATCH/player.pid"
exec {companions}/player --verbose --wav "$SCRATCH/sound.wav" "$@" >"$SCRATCH/played"
"""

# A helper that delivers the files in $SCRATCH/site.
HELPER = """#!/bin/sh
printf '%s\\n' "$@" >"$SCRATCH/helper-arguments"
mkdir -p "$5/$2"
trap 'exit 0' TERM
count=10
while cd "$5/$2" 2>/dev/null; do
  for file in "$SCRATCH"/site/*; do
    [ -e "$file" ] || continue
    cp "$file" .new && rm "$file" && mv .new "${{file##*/}}"
  done
  echo "$count" >.beat && mv .beat .helper.timestamp
  count=$((count + 1))
  sleep 0.2 &
  wait $!
done
"""


class Example:
    """A copy of an example in scratch/NAME; all other files are in scratch."""

    def __init__(self, name, scratch):
        self.name = name
        self.scratch = scratch
        self.path = scratch / name
        shutil.copytree(ROOT / "examples" / name, self.path)
        self.readme = (self.path / "README.md").read_text()
        (scratch / "site").mkdir()
        words = " ".join(f"'{word}'" for word in program())
        self.write("bin/vocastra", DAEMON.format(program=words))
        for file, text in (
            ("translators/espeak-ng", TRANSLATOR),
            ("player", PLAYER),
            ("helpers/ftp", HELPER),
        ):
            self.write(f"companions/{file}", text.format(companions=COMPANIONS))

    def write(self, name, text):
        path = self.scratch / name
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_text(text)
        path.chmod(0o755)

    def run(self):
        """Runs the commands of the README, which are indented."""
        script = "".join(re.findall(r"^    (.*\n)", self.readme, re.MULTILINE))
        environment = dict(
            os.environ,
            SCRATCH=str(self.scratch),
            companions=str(self.scratch / "companions"),
            clips=str(tool("clips")),
            PATH=f"{self.scratch}/bin:{os.environ['PATH']}",
            LC_ALL="C.UTF-8",
        )
        with open(self.scratch / "script.log", "wb") as log:
            done = subprocess.run(
                ["sh", "-eu", "-c", script],
                cwd=self.path,
                env=environment,
                stdin=subprocess.DEVNULL,
                stdout=log,
                stderr=log,
                timeout=LIMIT,
                check=False,
            )
        assert done.returncode == 0, self.describe()

    def promised(self):
        """The words of each message, from the table of the README."""
        return dict(re.findall(r"^\| `(\S+)` \| (.*) \|$", self.readme, re.MULTILINE))

    def spoken(self):
        """The spoken text of each message."""
        words = {}
        for line in self.text("spoken").splitlines():
            message, text = line.split("\t")
            words[message] = words.get(message, "") + text.rstrip("|").replace(PAUSE, "")
        return {message: text.strip() for message, text in words.items()}

    def played(self):
        """The files that the player has taken, in order, without their numbers."""
        return re.findall(r"^playing \d+_(\S+)$", self.text("played"), re.MULTILINE)

    def text(self, name):
        path = self.scratch / name
        return path.read_text(errors="replace") if path.exists() else ""

    def describe(self):
        names = ("script.log", "spoken", "played", "log")
        return "".join(f"\n--- {name}\n{self.text(name)}" for name in names)

    def wait(self, condition):
        wait_until(condition, self.describe)

    def end(self, kind, number):
        """Ends the daemon or the player, which are no children of this process, and waits."""
        pid = self.text(f"{kind}.pid").strip()
        if not pid:
            return

        def alive():
            try:  # The directory shows that the number still belongs to the same process.
                return os.readlink(f"/proc/{pid}/cwd") == str(self.path)
            except FileNotFoundError:
                return False

        if alive():
            os.kill(int(pid), number)
        self.wait(lambda: not alive())

    def close(self):
        try:
            self.end("daemon", signal.SIGINT)
        finally:
            self.end("player", signal.SIGTERM)


@pytest.fixture
def run_example(tmp_path):
    examples = []

    def run(name):
        examples.append(Example(name, tmp_path))
        examples[-1].run()
        return examples[-1]

    yield run
    for example in examples:
        example.close()


def status(example):
    """The newest whole status as text, or "" while it is being rewritten."""
    text = (example.path / "status.xml").read_text()
    return text if text.endswith("</tts-status>\n") else ""


@pytest.mark.parametrize("name", EXAMPLES)
def test_example_runs_as_its_readme_says(name, run_example):
    example = run_example(name)
    if name == "plant":
        example.wait(lambda: 'id="alarms"' in status(example))
        example.wait(lambda: re.search(r'id="alarms"[^>]* status="1"', status(example)))
        site = example.scratch / "site"
        shutil.copy(example.path / "messages/alarms/alarm-17.xml", site / ".new")
        (site / ".new").rename(site / "alarm-17.xml")
    promised = example.promised()
    assert promised
    example.wait(lambda: example.spoken() == promised)
    pieces = len(example.text("spoken").splitlines())
    example.wait(lambda: sum(".text_" in file for file in example.played()) == pieces)
    text = ""
    while not text:
        text = status(example)
    snapshot = example.scratch / "snapshot.xml"
    snapshot.write_text(text)
    assert validate("tts-status", snapshot) == ""
    played = example.played()
    if name == "station":
        assert {"office.text_pre_first.raw", "hall.text_live_first.raw"} <= set(played)
    if name == "plant":
        start = played.index("alarms.warn_live_first.wav")
        assert played[start : start + 4] == ["alarms.warn_live_first.wav"] * 3 + [
            "alarms.text_live_first.raw"
        ]
        arguments = example.text("helper-arguments").splitlines()
        watch = re.search(r'id="alarms" path="([^"]*)"', text)[1]
        assert arguments == [
            "control.example.net/alarms", "", "speaker", "secret", watch, "1", "2", "passive",
        ]  # fmt: skip
        kept = (example.path / "last/canteen").read_text()
        assert kept == (example.path / "messages/notices/canteen").read_text()


@pytest.mark.parametrize("name", EXAMPLES)
def test_files_fit_the_schemas(name):
    path = ROOT / "examples" / name
    assert validate("tts-config", path / "config.xml") == ""
    assert validate("glossary", path / "glossary.xml") == ""


def test_every_example_is_listed():
    text = (ROOT / "examples/README.md").read_text()
    listed = re.findall(r"^\| \[(\w+)\]\((\w+)/README.md\)", text, re.MULTILINE)
    assert sorted(listed) == [(name, name) for name in EXAMPLES]

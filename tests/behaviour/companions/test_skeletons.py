"""The skeletons of translator, player and helper in vocastra-companions(7) follow its rules."""

import os
import re
import stat
import textwrap

import pytest
from harness.files import locked
from harness.programs import ROOT, ended, run_command
from harness.sound import samples
from harness.wait import wait_until

# Replaces aplay: waits for a file "go" and appends its input to a file.
APLAY = """
for file; do :; done
until [ -e {0}/go ]; do sleep 0.02; done
echo "$@: $(cat "$file")" >> {0}/played
"""


def skeletons():
    page = run_command("mandoc", "-T", "ascii", ROOT / "man/vocastra-companions.7").stdout
    found = re.findall(r"^ +#!/bin/sh\n(?: .*\n)+", page, re.MULTILINE)
    return dict(zip(["translator", "player", "helper"], map(textwrap.dedent, found), strict=True))


@pytest.fixture
def skeleton(sandbox):
    def write(name):
        program = sandbox.path / name
        program.write_text(skeletons()[name])
        program.chmod(0o755)
        return program

    return write


def test_translator(sandbox, skeleton):
    program, text, audio = skeleton("translator"), sandbox.path / "text", sandbox.path / "audio"
    audio.write_bytes(b"before")
    audio.chmod(0o600)
    text.write_text("\\pau=300\\ one two ")
    assert sandbox.run(program, text, audio, "voice=nosuch", "note").returncode != 0
    assert audio.read_bytes() == b""
    lengths = []
    for arguments in ([], ["voice=de"]):
        result = sandbox.run(program, text, audio, *arguments, "a note")
        assert (result.returncode, result.stdout, result.stderr) == (0, "", "")
        lengths.append(len(samples(audio.read_bytes())))
        assert max(samples(audio.read_bytes())) > 1000
    assert lengths[0] != lengths[1] and max(lengths) < 3 * 22050
    assert stat.S_IMODE(audio.stat().st_mode) == 0o644


def test_player(sandbox, skeleton):
    sandbox.provide("aplay", APLAY.format(sandbox.path))
    out = sandbox.path / "out"
    out.mkdir()
    names = ["9_a.text_live_first.raw", "10_a.text_live_cont.raw", "11_a.warn_live_first.wav"]
    with locked(out):
        for name in [*reversed(names), ".hidden"]:
            (out / name).write_text(f"sound of {name}")
        player = sandbox.start(skeleton("player"), out)
        wait_until(lambda: "flock" in commands_of(player.pid), "the player to wait for the lock")
        assert sorted(os.listdir(out)) == sorted([*names, ".hidden"])
    wait_until(lambda: (out / ".playing").exists(), "the first file to be taken")
    with locked(out):  # Fails if the player holds the lock while it plays.
        assert sorted(os.listdir(out)) == sorted([".hidden", ".playing", *names[1:]])
    (sandbox.path / "go").touch()
    wait_until(lambda: os.listdir(out) == [".hidden"], "all files to be played")
    raw = "-q -t raw -f S16_LE -r 22050 .playing"
    assert (sandbox.path / "played").read_text().splitlines() == [
        f"{arguments}: sound of {name}" for arguments, name in zip([raw, raw, "-q .playing"], names)
    ]


def commands_of(session):
    return run_command("ps", "-o", "comm=", "-s", session).stdout.split()


def test_helper(sandbox, skeleton):
    remote, watch = sandbox.path / "remote/sub", sandbox.path / "watch"
    remote.mkdir(parents=True)
    for name in ("kept", "taken", "gone", "$(id)", "a b", ".hidden"):
        (remote / name).write_text(f"text of {name}")
    skeleton("helper")
    sandbox.provide("ls", f'echo >> {sandbox.path}/listings; exec /bin/ls "$@"')
    # The parent replaces the daemon: the helper ends with it.
    command = f"./helper {remote.parent} sub user password {watch} 0 1 passive & echo $!; wait"
    daemon = sandbox.start("/bin/bash", "-c", command)
    helper = int(daemon.stdout.readline())
    there = watch / "sub"

    def visible():
        return sorted(name for name in os.listdir(there) if name[0] != ".")

    def passes(count):
        for _ in range(count):
            before = (there / ".helper.timestamp").read_text()
            wait_until(lambda b=before: (there / ".helper.timestamp").read_text() != b, "a beat")

    wait_until((there / ".helper.timestamp").exists, "the first beat")
    assert visible() == ["gone", "kept", "taken"]
    assert (there / "kept").read_text() == "text of kept"
    (there / "taken").unlink()
    (remote / "gone").unlink()
    passes(2)
    assert visible() == ["kept"]
    (remote / "taken").write_text("changed")
    passes(2)
    assert visible() == ["kept", "taken"]
    remote.rename(remote.with_name("away"))
    listings = (sandbox.path / "listings").stat().st_size
    wait_until(
        lambda: (sandbox.path / "listings").stat().st_size >= listings + 4, "listings that fail"
    )
    assert visible() == ["kept", "taken"]
    daemon.kill()
    daemon.wait()
    ended(helper)


def test_helper_ends_by_sigterm(sandbox, skeleton):
    (sandbox.path / "remote").mkdir()
    arguments = [sandbox.path / "remote", "", "", "", sandbox.path / "watch", 0, 1, "passive"]
    helper = sandbox.start(skeleton("helper"), *arguments)
    wait_until((sandbox.path / "watch/.helper.timestamp").exists, "the first beat")
    helper.terminate()
    helper.wait(2)

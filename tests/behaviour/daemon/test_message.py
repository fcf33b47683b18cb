"""The way of a message: from the file that is dropped to the files that a player takes."""

import re

import pytest
from harness.daemon import PAUSE


@pytest.fixture
def daemon(make_daemon):
    """A daemon with one input directory "a" and snippets of 2 to 4 words."""
    daemon = make_daemon(words=2)
    daemon.configure(daemon.directory("a"))
    daemon.start()
    return daemon


@pytest.mark.core
def test_message_becomes_numbered_files(make_daemon):
    daemon = make_daemon(words=2)
    daemon.configure(daemon.directory("a", display_id="lobby", conv_opts="--voice 'en us' -s3"))
    daemon.start()
    daemon.drop("a", "fire.txt", "Fire in hall two. Leave now, please\n")
    runs = daemon.wait_translator_runs(2)
    names = ["0_lobby.text_live_first.raw", "1_lobby.text_live_cont.raw"]
    assert daemon.wait_outputs(2) == names

    assert [run.text.decode() for run in runs] == [
        PAUSE + "Fire in hall two. ",
        "Leave now, please ",
    ]
    # The same two files for every snippet; the configured arguments as the shell splits them.
    text, audio = runs[0].arguments[:2]
    assert re.fullmatch(r"/tmp/text\w{6}", text)
    assert re.fullmatch(r"/tmp/speech\w{6}", audio)
    for run in runs:
        assert run.arguments == [text, audio, "--voice", "en us", "-s3", "fire.txt"]
    assert daemon.take() == [(name, run.audio) for name, run in zip(names, runs)]
    assert list(daemon.input("a").iterdir()) == []

    # Numbers go on; they belong to the process and not to the message.
    daemon.drop("a", "again.txt", "Again.")
    assert daemon.wait_outputs(1) == ["2_lobby.text_live_first.raw"]
    daemon.stop()


def test_same_message_is_spoken_again_when_dropped_again(daemon):
    for count in (1, 2):
        daemon.drop("a", "m.txt", "same")
        daemon.wait_outputs(count)
        # A scan has to see that the file was gone.
        daemon.wait_passes(2)
    assert daemon.spoken() == [("m.txt", PAUSE + "same ")] * 2
    daemon.stop()


def test_name_with_blanks_is_one_argument(daemon):
    daemon.drop("a", "hall  two; (north).txt", "one")
    daemon.wait_spoken(("hall  two; (north).txt", PAUSE + "one "))
    assert daemon.wait_outputs(1) == ["0_a.text_live_first.raw"]
    daemon.stop()


# Clips.


def clip(daemon, name):
    path = daemon.root / f"{name}.wav"
    path.write_text(f"the {name} clip\n")
    return path


@pytest.mark.core
def test_clips_lead_every_message_once(make_daemon):
    daemon = make_daemon(words=1, files=100)
    bumper, spacer, silence = (clip(daemon, name) for name in ("bumper", "spacer", "silence"))
    daemon.configure(
        daemon.directory(
            "a", bumper_path=bumper, spacer_path=spacer, silence_path=silence, loops=2, preview=1
        )
    )
    daemon.start()
    daemon.drop("a", "m.txt", "one two three")
    daemon.wait_outputs(7)
    daemon.drop("a", "n.txt", "four")
    daemon.wait_outputs(12)
    runs = daemon.translator_runs()
    assert daemon.take() == [
        ("0_a.warn_pre_first.wav", b"the spacer clip\n"),
        ("1_a.warn_pre_first.wav", b"the bumper clip\n"),
        ("2_a.warn_pre_first.wav", b"the silence clip\n"),
        ("3_a.text_pre_first.raw", runs[0].audio),
        ("4_a.text_pre_cont.raw", runs[1].audio),
        ("5_a.text_pre_cont.raw", runs[2].audio),
        ("6_a.text_pre_cont.raw", runs[3].audio),
        ("7_a.warn_pre_first.wav", b"the spacer clip\n"),
        ("8_a.warn_pre_first.wav", b"the bumper clip\n"),
        ("9_a.warn_pre_first.wav", b"the silence clip\n"),
        ("10_a.text_pre_first.raw", runs[4].audio),
        ("11_a.text_pre_cont.raw", runs[5].audio),
    ]
    daemon.stop()
    log = [line for line in daemon.log() if line.startswith(("calling", "done", "copying"))]
    assert log[:8] == [
        "calling engine",
        "done calling engine",
        "copying 0_a.warn_pre_first.wav",
        "copying 1_a.warn_pre_first.wav",
        "copying 2_a.warn_pre_first.wav",
        "copying 3_a.text_pre_first.raw",
        "calling engine",
        "done calling engine",
    ]

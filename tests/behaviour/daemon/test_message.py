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


@pytest.mark.core
def test_pause_leads_the_first_snippet_alone(daemon):
    daemon.drop("a", "m.txt", "a b c d e f g h i")
    daemon.wait_spoken(("m.txt", PAUSE + "a b c d "), ("m.txt", "e f g h "), ("m.txt", "i "))
    daemon.stop()


SPLIT = [
    ("one,two;three:four!five?six.seven", "one, two; three: four! five? six. seven"),
    ("one\u00a0two\tthree\r\nfour\x7ffive", "one two three four five"),
    ("wait... what?! , no", "wait. what? , no"),
    ("\u00e9 \u65e5\u3002\u672c \U0001f525", "\u00e9 \u65e5\u3002\u672c \U0001f525"),
    ("\u00e9" * 101, "\u00e9" * 100),
]


@pytest.mark.core
def test_texts_are_split_into_words(make_daemon):
    daemon = make_daemon(words=1000, files=100)
    daemon.configure(daemon.directory("a"))
    daemon.start()
    for number, (text, _) in enumerate(SPLIT):
        daemon.drop("a", f"m{number}.txt", text)
    daemon.wait_outputs(len(SPLIT))
    expected = {f"m{number}.txt": f"{PAUSE}{words} " for number, (_, words) in enumerate(SPLIT)}
    assert dict(daemon.spoken()) == expected
    daemon.stop()
    assert daemon.log().count("Word too long") == 1


ENCODED = [
    ("ascii", b"caf\xe9 \xa8Qu\xe9? \x85", "caf\u00e9 \u00bfQu\u00e9? \ufffde"),
    ("utf8", b"caf\xc3\xa9 a\xffb", "caf\u00e9 a\ufffdb"),
    ("utf16", "caf\u00e9 \U0001f525".encode("utf-16-le"), "caf\u00e9 \U0001f525"),
]


@pytest.mark.core
@pytest.mark.parametrize("encoding, data, text", ENCODED)
def test_encodings_of_text_files(make_daemon, encoding, data, text):
    daemon = make_daemon()
    daemon.configure(daemon.directory("a", parser="text", encoding=encoding))
    daemon.start()
    daemon.drop("a", "m.txt", data)
    daemon.wait_spoken(("m.txt", PAUSE + text + " "))
    daemon.wait_outputs(1)
    daemon.stop()


def test_messages_wait_in_order_of_arrival(daemon):
    daemon.hold()
    daemon.drop("a", "m5.txt", "five")
    daemon.wait_translator_runs(1)
    # Found by one scan: in byte order of their names.
    for name in ("b.txt", "B.txt", "10.txt", "9.txt"):
        daemon.drop("a", name, name)
    daemon.release()
    names = ["10.txt", "9.txt", "B.txt", "b.txt"]
    daemon.wait_spoken(
        ("m5.txt", PAUSE + "five "),
        *[(name, PAUSE + name.replace(".", ". ") + " ") for name in names],
    )
    daemon.stop()


def test_same_message_is_spoken_again_when_dropped_again(daemon):
    for count in (1, 2):
        daemon.drop("a", "m.txt", "same")
        daemon.wait_outputs(count)
        # A scan has to see that the file was gone.
        daemon.wait_passes(2)
    assert daemon.spoken() == [("m.txt", PAUSE + "same ")] * 2
    daemon.stop()


@pytest.mark.core
def test_loops_repeat_a_message(make_daemon):
    daemon = make_daemon(words=1)
    daemon.configure(daemon.directory("a", loops=2))
    daemon.start()
    daemon.drop("a", "m.txt", "one two three")
    assert daemon.wait_outputs(4) == ["0_a.text_live_first.raw"] + [
        f"{number}_a.text_live_cont.raw" for number in (1, 2, 3)
    ]
    daemon.wait_status(lambda root: root.get("now-playing") == "0")
    texts = [PAUSE + "one two ", "three ", "one two ", "three "]
    assert daemon.spoken() == [("m.txt", text) for text in texts]
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

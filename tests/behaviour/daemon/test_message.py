"""The way of a message from the dropped file to the files that a player takes."""

import re

import pytest
from harness.daemon import PAUSE
from harness.files import crc16, parser
from harness.status import directory_status, status_text


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
    # Every snippet uses the same two files. The shell splits the configured arguments.
    text, audio = runs[0].arguments[:2]
    assert re.fullmatch(r"/tmp/text\w{6}", text)
    assert re.fullmatch(r"/tmp/speech\w{6}", audio)
    for run in runs:
        assert run.arguments == [text, audio, "--voice", "en us", "-s3", "fire.txt"]
    assert daemon.take() == [(name, run.audio) for name, run in zip(names, runs)]
    assert list(daemon.input("a").iterdir()) == []

    # The next message continues the numbers, which belong to the process.
    daemon.drop("a", "again.txt", "Again.")
    assert daemon.wait_outputs(1) == ["2_lobby.text_live_first.raw"]
    daemon.stop()


def test_same_message_is_spoken_again_when_dropped_again(daemon):
    for count in (1, 2):
        daemon.drop("a", "m.txt", "same")
        daemon.wait_outputs(count)
        # A scan must notice that the file is gone.
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


# XML.


@pytest.mark.core
def test_whole_log_of_an_xml_message(make_daemon):
    daemon = make_daemon(words=1000)
    daemon.configure(daemon.directory("a", parser="news", encoding="utf8"), parser("news", ("t",)))
    daemon.start()
    count = len(daemon.log())
    daemon.drop("a", "m.xml", "<m><t>one</t><t>two</t></m>")
    daemon.wait_spoken(("m.xml", PAUSE + "one. two "))
    daemon.wait_outputs(1)
    daemon.stop()
    assert daemon.log()[count:] == [
        f"Adding m.xml {crc16(b'one. two')} to file_map",
        "calling engine",
        "done calling engine",
        "copying 0_a.text_live_first.raw",
    ]


def test_xml_and_text_directories_work_together(make_daemon):
    daemon = make_daemon()
    daemon.configure(
        daemon.directory("a", parser="news", encoding="utf8", priority=1),
        daemon.directory("b", parser="text", encoding="ascii", priority=2),
        daemon.directory("c", priority=3),
        parser("news", ("t",)),
    )
    daemon.start()
    document = "<m><t>one</t></m>"
    daemon.hold()
    daemon.drop("c", "c.txt", document)
    daemon.wait_translator_runs(1)
    daemon.drop("a", "a.xml", document)
    daemon.drop("b", "b.txt", document)
    daemon.release()
    text = PAUSE + document + " "
    daemon.wait_spoken(("c.txt", text), ("a.xml", PAUSE + "one "), ("b.txt", text))
    daemon.stop()


# Priorities.


@pytest.mark.core
def test_urgent_message_interrupts_and_the_other_goes_on(make_daemon):
    daemon = make_daemon(words=1, files=100)
    daemon.configure(
        daemon.directory("everyday", priority=5), daemon.directory("urgent", priority=-1)
    )
    daemon.start()
    daemon.hold()
    daemon.drop("everyday", "news.txt", "one two three four five")
    daemon.wait_translator_runs(1)
    daemon.drop("urgent", "fire.txt", "fire in hall")
    daemon.release()
    daemon.wait_spoken(
        ("news.txt", PAUSE + "one two "),
        ("fire.txt", PAUSE + "fire in "),
        ("fire.txt", "hall "),
        # The message goes on where it was interrupted, without a new pause.
        ("news.txt", "three four "),
        ("news.txt", "five "),
    )
    assert daemon.wait_outputs(5) == [
        "0_everyday.text_live_first.raw",
        "1_urgent.text_live_first.raw",
        "2_urgent.text_live_cont.raw",
        "3_everyday.text_live_cont.raw",
        "4_everyday.text_live_cont.raw",
    ]
    daemon.stop()


# The glossary.


@pytest.mark.core
def test_changed_glossary_is_used_for_the_next_snippet(make_daemon):
    daemon = make_daemon(glossary=True)
    daemon.configure(daemon.directory("a"))
    daemon.write_glossary(("one", "first"))
    daemon.start()
    daemon.drop("a", "m.txt", "one")
    daemon.wait_outputs(1)
    daemon.write_glossary(("one", "second"))
    # After two statuses, a whole pass has begun after the change.
    daemon.wait_passes(2)
    daemon.drop("a", "n.txt", "one")
    daemon.wait_spoken(("m.txt", PAUSE + "first "), ("n.txt", PAUSE + "second "))
    daemon.wait_outputs(2)
    daemon.stop()


# The status.


@pytest.mark.core
def test_every_status_of_a_message_in_order(make_daemon):
    daemon = make_daemon(words=1, status="stream")
    daemon.configure(daemon.directory("b", loops=2), daemon.directory("a"))
    daemon.start()
    daemon.drop("b", "m.txt", "one two three")
    daemon.wait_outputs(4)
    daemon.wait_passes(2)
    daemon.stop()

    spoken = [(1, (1, "m.txt", 0)), (1, (1, "m.txt", 1)), (1, (1, "m.txt", 1)), (1, None)]
    statuses = daemon.statuses()
    first = next(i for i, text in enumerate(statuses) if ' now-playing="1"' in text)
    idle = [(0, None)]
    # The pass after the last snippet shows the end of the message.
    expected = idle * first + spoken + idle * (len(statuses) - first - len(spoken))
    assert statuses == [
        status_text(
            timestamp=number,
            playing=playing,
            directories=[
                directory_status("a", path=daemon.input("a")),
                directory_status("b", path=daemon.input("b"), message=message),
            ],
        )
        for number, (playing, message) in enumerate(expected)
    ]

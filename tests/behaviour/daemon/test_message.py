"""A message's road: from the file that is dropped to the files that a player takes."""

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


@pytest.mark.parametrize(
    "text, snippets",
    [
        ("one", ["one "]),
        ("one two", ["one two "]),
        # The words up to the limit are taken whatever they end in.
        ("one. two. three four", ["one. two. three four "]),
        # From there up to twice the limit, a full stop or a comma ends the snippet.
        ("one two three. four five", ["one two three. ", "four five "]),
        ("one two three, four five", ["one two three, ", "four five "]),
        ("one two three! four five", ["one two three! four ", "five "]),
        ("one two three four five.", ["one two three four ", "five. "]),
    ],
)
def test_snippets_stretch_to_punctuation(daemon, text, snippets):
    daemon.drop("a", "m.txt", text)
    daemon.wait_spoken(*[("m.txt", PAUSE * (not i) + text) for i, text in enumerate(snippets)])
    daemon.wait_status(lambda root: root.get("now-playing") == "0")
    assert len(daemon.spoken()) == len(snippets)
    daemon.stop()


@pytest.mark.core
def test_limit_of_one_looks_at_the_second_word(make_daemon):
    daemon = make_daemon(words=1)
    daemon.configure(daemon.directory("a"))
    daemon.start()
    daemon.drop("a", "m.txt", "one. two. three.")
    daemon.wait_spoken(("m.txt", PAUSE + "one. two. "), ("m.txt", "three. "))
    daemon.stop()


SPLIT = [
    # Control characters and every break end a word; what is no space stays with its word.
    ("breaks", "one two\tthree\nfour\r\nfive", "one two three four five"),
    ("glued", "one,two;three:four!five?six.seven", "one, two; three: four! five? six. seven"),
    ("no-break-space", "one\u00a0two", "one two"),
    ("control", "one\x7ftwo\u0085three\x01four", "one two three four"),
    ("hyphen", 'well-known it\'s (so) "quoted"', 'well-known it\'s (so) "quoted"'),
    # Punctuation that stands alone is kept after a space, and dropped after punctuation.
    ("alone", "one . two", "one . two"),
    ("repeated", "wait... what?! no", "wait. what? no"),
    ("leading", ", one", "one"),
    ("leading after a space", " , one", ", one"),
    # A full stop of another script ends no word.
    ("wide", "\u00e9 \u65e5\u3002\u672c \U0001f525", "\u00e9 \u65e5\u3002\u672c \U0001f525"),
    ("single letters", "a.b.c", "a. b. c"),
    ("long word", "x" * 100 + " " + "y" * 101 + " z", "x" * 100 + " " + "y" * 100 + " z"),
    ("long wide word", "\u00e9" * 150, "\u00e9" * 100),
]


@pytest.mark.core
def test_texts_are_split_into_words(make_daemon):
    daemon = make_daemon(words=1000, files=100)
    daemon.configure(daemon.directory("a"))
    daemon.start()
    for number, (_, text, _) in enumerate(SPLIT):
        daemon.drop("a", f"m{number:02}.txt", text)
    daemon.wait_translator_runs(len(SPLIT))
    expected = [
        (f"m{number:02}.txt", PAUSE + spoken + " ") for number, (_, _, spoken) in enumerate(SPLIT)
    ]
    # They may be found in two scans, which changes their order.
    assert sorted(daemon.spoken()) == expected
    daemon.wait_outputs(len(SPLIT))
    daemon.stop()
    # One character over the limit, and fifty.
    assert daemon.log().count("Word too long") == 51


ENCODED = {
    "ascii": ("ascii", b"caf\xe9 \xa8Qu\xe9? \xa4o", "caf\u00e9 \u00bfQu\u00e9? \u00f1o"),
    "ascii mended": ("ascii", b"a\0b \x85", "ab \ufffde"),
    "utf8": ("utf8", "caf\u00e9 \u20ac".encode(), "caf\u00e9 \u20ac"),
    "utf8 mended": ("utf8", b"a\xffb caf\xe9", "a\ufffdb caf\ufffd"),
    "utf16": ("utf16", "caf\u00e9 \U0001f525".encode("utf-16-le"), "caf\u00e9 \U0001f525"),
    "utf16 with mark": ("utf16", "\ufeffAB".encode("utf-16-le"), "\ufeffAB"),
    "utf16 cut": ("utf16", b"A\0B", "AB"),
}


@pytest.mark.core
@pytest.mark.parametrize("encoding, data, text", ENCODED.values(), ids=ENCODED)
def test_encodings_of_text_files(make_daemon, encoding, data, text):
    daemon = make_daemon()
    daemon.configure(daemon.directory("a", parser="text", encoding=encoding))
    daemon.start()
    daemon.drop("a", "m.txt", data)
    daemon.wait_spoken(("m.txt", PAUSE + text + " "))
    daemon.wait_outputs(1)
    daemon.stop()


def test_broken_utf16_is_never_spoken(make_daemon):
    daemon = make_daemon()
    daemon.configure(daemon.directory("a", parser="text", encoding="utf16"))
    daemon.start()
    daemon.drop("a", "bad.txt", b"\x00\xd8A\0")
    daemon.wait_log("Error converting from UTF-16 to UTF-8: Invalid UTF-16", 3)
    daemon.drop("a", "good.txt", b"A\0")
    daemon.wait_spoken(("good.txt", PAUSE + "A "))
    # Its text is empty: it is known, but stays where it is.
    assert [path.name for path in daemon.input("a").iterdir()] == ["bad.txt"]
    daemon.stop()


def test_long_file_is_cut_at_65536_bytes(make_daemon):
    daemon = make_daemon(words=100000)
    daemon.configure(daemon.directory("a"))
    daemon.start()
    # 6,553 whole words, then six bytes of the next.
    daemon.drop("a", "m.txt", "123456789 " * 7000)
    daemon.wait_spoken(("m.txt", PAUSE + "123456789 " * 6553 + "123456 "))
    daemon.wait_outputs(1)
    daemon.stop()


def test_characters_over_65536_are_dropped_one_by_one(make_daemon):
    daemon = make_daemon(words=100000)
    daemon.configure(daemon.directory("a", parser="text", encoding="ascii"))
    daemon.start()
    # The byte 85 becomes two characters when the text is mended: 66,000 from 44,000 bytes.
    daemon.drop("a", "m.txt", b"\x85 " * 22000)
    daemon.wait_spoken(("m.txt", PAUSE + "\ufffde " * (65536 // 3) + "\ufffd "))
    daemon.wait_outputs(1)
    daemon.stop()
    assert daemon.log().count("Too many characters") == 66000 - 65536


def test_file_without_words_is_consumed_without_a_number(make_daemon):
    daemon = make_daemon(debug=5)
    daemon.configure(daemon.directory("a"))
    daemon.start()
    daemon.drop("a", "blank.txt", " \t\n ")
    daemon.wait(lambda: list(daemon.input("a").iterdir()) == [], "the file to be taken")
    daemon.drop("a", "m.txt", "one")
    daemon.wait_spoken(("m.txt", PAUSE + "one "))
    assert "Directory a reports an active message ID of 1" in daemon.log()
    daemon.wait_outputs(1)
    daemon.stop()


def test_empty_file_stays_until_it_has_a_text(daemon):
    daemon.drop("a", "m.txt", "")
    daemon.wait_log("Adding m.txt 0 to file_map")
    daemon.wait_passes(3)
    assert daemon.spoken() == []
    assert [path.name for path in daemon.input("a").iterdir()] == ["m.txt"]
    daemon.drop("a", "m.txt", "now")
    daemon.wait_spoken(("m.txt", PAUSE + "now "))
    assert "Updating m.txt in file_map" in daemon.log()
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
@pytest.mark.parametrize("loops, plays", [("3", 3), ("0", 1), ("-1", 1), ("", 1)])
def test_loops_repeat_a_message(make_daemon, loops, plays):
    daemon = make_daemon(words=1)
    daemon.configure(daemon.directory("a", loops=loops))
    daemon.start()
    daemon.drop("a", "m.txt", "one two three")
    snippets = [PAUSE + "one two ", "three "] + ["one two ", "three "] * (plays - 1)
    daemon.wait_spoken(*[("m.txt", text) for text in snippets])
    names = ["0_a.text_live_first.raw"]
    names += [f"{number}_a.text_live_cont.raw" for number in range(1, 2 * plays)]
    assert daemon.wait_outputs(2 * plays) == names
    daemon.wait_status(lambda root: root.get("now-playing") == "0")
    assert len(daemon.spoken()) == 2 * plays
    daemon.stop()


def test_name_with_blanks_is_one_argument(daemon):
    daemon.drop("a", "hall  two; (north).txt", "one")
    daemon.wait_spoken(("hall  two; (north).txt", PAUSE + "one "))
    assert daemon.wait_outputs(1) == ["0_a.text_live_first.raw"]
    daemon.stop()


@pytest.mark.parametrize(
    "preview, part", [("0", "live"), ("1", "pre"), ("-3", "pre"), ("", "live")]
)
def test_preview_shows_in_names(make_daemon, preview, part):
    daemon = make_daemon(words=1)
    daemon.configure(daemon.directory("a", preview=preview))
    daemon.start()
    daemon.drop("a", "m.txt", "one two three")
    assert daemon.wait_outputs(2) == [f"0_a.text_{part}_first.raw", f"1_a.text_{part}_cont.raw"]
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


def test_silence_alone(make_daemon):
    daemon = make_daemon()
    # Without a bumper the spacer is not used.
    daemon.configure(
        daemon.directory(
            "a", spacer_path=clip(daemon, "spacer"), silence_path=clip(daemon, "silence")
        )
    )
    daemon.start()
    daemon.drop("a", "m.txt", "one")
    daemon.wait_outputs(2)
    assert daemon.take() == [
        ("0_a.warn_live_first.wav", b"the silence clip\n"),
        ("1_a.text_live_first.raw", daemon.translator_runs()[0].audio),
    ]
    daemon.stop()


def test_bumper_without_spacer_still_uses_its_number(make_daemon):
    daemon = make_daemon()
    daemon.configure(daemon.directory("a", bumper_path=clip(daemon, "bumper")))
    daemon.start()
    daemon.drop("a", "m.txt", "one")
    daemon.wait_outputs(2)
    assert daemon.take() == [
        ("1_a.warn_live_first.wav", b"the bumper clip\n"),
        ("2_a.text_live_first.raw", daemon.translator_runs()[0].audio),
    ]
    daemon.stop()
    log = [line for line in daemon.log() if not line.startswith(("cp: ", "Try 'cp "))]
    assert log[log.index("done calling engine") + 1 :] == [
        "copying 0_a.warn_live_first.wav",
        f'Could not execute "cp  {daemon.output}/0_a.warn_live_first.wav"',
        "copying 1_a.warn_live_first.wav",
        "copying 2_a.text_live_first.raw",
    ]

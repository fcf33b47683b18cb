"""The running daemon behaves as vocastra-messages(7) and the status file's schema say."""

import re

from harness.daemon import PAUSE
from harness.programs import ROOT
from harness.schemas import validate

MESSAGES = (ROOT / "man/vocastra-messages.7").read_text()


def fits(status, tmp_path):
    path = tmp_path / "snapshot.xml"
    path.write_text(status)
    return validate("tts-status", path)


def test_a_status_without_directories_fits_the_schema(make_daemon, tmp_path):
    daemon = make_daemon()
    daemon.configure(state="stop")
    daemon.start()
    assert fits(daemon.wait(daemon.status, "a status"), tmp_path) == ""


def test_a_status_with_everything_fits_the_schema(make_daemon, tmp_path):
    daemon = make_daemon(files=0)
    daemon.configure(
        daemon.directory("near"),
        daemon.directory("kept", dir_mode="cache"),
        daemon.directory("far", type="ftp", path="ftp.example.net"),
    )
    daemon.start()
    daemon.drop("near", "one", "One.")
    daemon.drop("near", "two", "Two.")
    wanted = (
        r'output-bound="1"',
        r"<message ",
        r'updated-file-count="1"',
        r'path="/tmp/watch\w{6}"',
    )

    def whole():
        status = daemon.status()
        return status if status and all(re.search(text, status) for text in wanted) else ""

    assert fits(daemon.wait(whole, "a status with everything"), tmp_path) == ""


def words_of(make_daemon, text, **attributes):
    """The words of a message, spoken in one piece."""
    daemon = make_daemon(words=100000)
    daemon.configure(daemon.directory("a", **attributes))
    daemon.start()
    daemon.drop("a", "m", text)
    daemon.wait_translator_runs(1)
    return daemon.spoken()[0][1].replace(PAUSE, "").split(" ")[:-1]


def test_the_listed_marks_end_a_word(make_daemon):
    """No other ASCII character does."""
    line = re.search(r"^\.Ql (\\&! .*)$", MESSAGES, re.MULTILINE)[1]
    listed = set(re.sub(r"\\&| ", "", line))
    marks = [chr(cp) for cp in range(0x21, 0x7F) if not chr(cp).isalnum()]
    assert listed < set(marks)
    expected = []
    for mark in marks:
        expected += [f"x{mark}", "y"] if mark in listed else [f"x{mark}y"]
    assert words_of(make_daemon, "\n".join(f"x{mark}y" for mark in marks)) == expected


def test_every_byte_of_ascii_becomes_what_the_table_says(make_daemon):
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
        # A control character, DEL included, ends a word and is dropped.
        expected += re.sub("[\x7f-\x9f]", " ", f"x{letter}y").split(" ")
    text = b"\n".join(b"x" + bytes([byte]) + b"y" for byte in range(0x80, 0x100)) + b"\nx\0y"
    words = words_of(make_daemon, text, parser="text", encoding="ascii")
    assert words == expected + ["xy"]


def test_the_same_text_under_a_name_that_was_just_taken_is_not_spoken(make_daemon):
    daemon = make_daemon()
    daemon.configure(daemon.directory("a"))
    daemon.start()
    daemon.hold()
    daemon.drop("a", "one", "Same.")
    # The file is taken. The next scan comes after the translator's end.
    daemon.wait(lambda: list(daemon.records.glob("1.complete")), "the translator")
    daemon.drop("a", "one", "Same.")
    daemon.release()
    daemon.wait_status(
        lambda root: root.get("now-playing") == "0"
        and root.find("directory").get("total-file-count") == "1"
    )
    daemon.drop("a", "two", "Two.")
    daemon.wait_spoken(("one", PAUSE + "Same. "), ("two", PAUSE + "Two. "))
    assert (daemon.input("a") / "one").exists()

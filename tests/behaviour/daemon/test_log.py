"""The daemon's log on standard error, and its standard output."""

import itertools
import re

import pytest
from harness.daemon import PAUSE
from harness.files import crc16, publish
from harness.programs import descriptors

TEXT = "Fire in hall two now"


def expected_log(daemon):
    """(debug bit, line) of a start, one message in two snippets, and a stop."""
    path = daemon.input("lobby")
    message = f"{path}/fire.txt"
    idle = (4, "Directory lobby reports an active message ID of 0")
    parsed = [(1, "Original is valid UTF-8"), (1, f"From {message}: {TEXT}")]
    snippet = [
        (4, "Directory lobby reports an active message ID of 1"),
        (4, "Highest priority directory is lobby"),
        (1, "calling engine"),
        (1, "done calling engine"),
    ]
    return [
        (4, "Original is valid UTF-8"),
        (4, "EndElement: directory"),
        (4, "EndElement: tts-config"),
        (1, f"Processing configuration {daemon.config}"),
        (1, f"Removing contents of directory {path}"),
        (1, f'Could not execute "rm {path}/* > /dev/null 2>&1"'),
        (1, "Created new input directory lobby"),
        (1, 'Directory "lobby" using parser PARSER text-utf8'),
        (1, 'Now in "run" state'),
        idle,
        *parsed,
        (1, f"Adding fire.txt {crc16(TEXT.encode())} to file_map"),
        *parsed,
        (4, f'Parser returned: "{TEXT}"'),
        (4, "Original is valid UTF-8"),
        (4, f"From {message}: Fire|in|hall|two|now"),
        *snippet,
        (1, "copying 0_lobby.text_live_first.raw"),
        (4, "Erasing fire.txt from file_map"),
        *snippet,
        (1, "copying 1_lobby.text_live_cont.raw"),
        idle,
    ]


def once(lines, repeated):
    """The lines, with each run of the repeated line reduced to one."""
    for line, group in itertools.groupby(lines):
        yield from [line] if line == repeated else group


@pytest.mark.parametrize(
    "mask, shown",
    [
        pytest.param(None, 0x1, marks=pytest.mark.core),
        pytest.param("7", 0x5, marks=pytest.mark.core),
        pytest.param("0xFFFFFFFF", 0x5, marks=pytest.mark.core),
        ("0", 0x0),
        ("2", 0x0),
        ("4", 0x4),
    ],
)
def test_whole_log_of_start_message_and_stop(make_daemon, mask, shown):
    daemon = make_daemon(words=2, debug=mask)
    daemon.configure(daemon.directory("lobby"))
    daemon.start()
    daemon.drop("lobby", "fire.txt", TEXT)
    daemon.wait_outputs(2)
    daemon.wait_passes(2)
    daemon.stop()
    lines = once(daemon.log(), "Directory lobby reports an active message ID of 0")
    assert list(lines) == [line for bit, line in expected_log(daemon) if bit & shown]
    assert daemon.stdout() == b""


def test_percent_signs_in_texts_and_names_are_plain(make_daemon):
    daemon = make_daemon(debug=7)
    daemon.configure(daemon.directory("a"))
    daemon.start()
    daemon.drop("a", "%s%n.txt", "%s %n 100%d")
    daemon.wait_spoken(("%s%n.txt", PAUSE + "%s %n 100%d "))
    daemon.wait_outputs(1)
    daemon.stop()
    assert f"From {daemon.input('a')}/%s%n.txt: %s|%n|100%d" in daemon.log()


def test_date_after_every_101_passes(make_daemon):
    daemon = make_daemon()
    date = daemon.bin / "date"
    date.write_text(
        "#!/bin/sh\n"
        f"cat '{daemon.status_path}' >>'{daemon.root}/dated'\n"
        f"(ls -l /proc/$$/fd >'{daemon.root}/date.descriptors')\n"
        'echo "the date"\n'
    )
    date.chmod(0o755)
    # A failed pass is not counted and writes no status. So the last status before "date" always has
    # the number 100.
    daemon.start(wait=False)
    daemon.wait_log(f'Could not open "{daemon.config}" for reading', 4)
    daemon.configure(daemon.directory("a"))
    dated = daemon.root / "dated"
    daemon.wait_status()
    daemon.drop("a", "m.txt", b"\xff")
    dump = b"0xef 0xbf 0xbd \n\r"
    daemon.wait(lambda: daemon.stdout() == 2 * dump, "the dump")
    daemon.wait_outputs(1)
    contents = daemon.config.read_text()
    publish(daemon.config, "<tts-config></a>")
    daemon.wait_log("mismatched tag at line 1", 4)
    publish(daemon.config, contents)
    daemon.wait(lambda: daemon.stdout().count(b"the date\n") == 2, "two dates")
    daemon.stop()
    # Each good pass wrote one status, and so did the pass with the single snippet.
    assert re.findall(r' timestamp="(\d+)"', dated.read_text()) == ["100", "201"]
    assert daemon.stdout() == 2 * dump + 2 * b"the date\n"
    assert descriptors(daemon.root / "date.descriptors").keys() - {10, 255} == {0, 1, 2}

"""The status file, byte for byte."""

import re

import pytest
from harness.daemon import PAUSE
from harness.status import StatusStream, timestamp

pytestmark = pytest.mark.core


def record(daemon, identity, message="", updated=0, total=0, path=None):
    path = daemon.input(identity) if path is None else path
    counts = f'total-file-count="{total}" updated-file-count="{updated}"'
    start = f'    <directory id="{identity}" path="{path}" status="1" {counts}'
    if message:
        return f"{start}>\n        <message {message}/>\n    </directory>\n"
    return f"{start}/>\n"


def document(number, state, *records, playing=0, bound=0):
    start = (
        f'<tts-status now-playing="{playing}" output-bound="{bound}" '
        f'state="{state}" timestamp="{number}"'
    )
    return f"{start}>\n{''.join(records)}</tts-status>\n" if records else f"{start}/>\n"


def test_every_status_of_a_message_in_order(make_daemon):
    daemon = make_daemon(words=1, status="stream")
    daemon.configure(daemon.directory("b", loops=2), daemon.directory("a"))
    daemon.start()
    daemon.drop("b", "m.txt", "one two three")
    daemon.wait_outputs(4)
    daemon.wait_passes(2)
    daemon.stop()

    a = record(daemon, "a")
    spoken = [
        (1, 'filename="m.txt" id="1" plays="0"'),
        (1, 'filename="m.txt" id="1" plays="1"'),
        (1, 'filename="m.txt" id="1" plays="1"'),
        (1, ""),
    ]
    statuses = daemon.statuses()
    first = next(i for i, text in enumerate(statuses) if ' now-playing="1"' in text)
    idle = [(0, "")]
    # The end of the message shows in the pass after its last snippet.
    expected = idle * first + spoken + idle * (len(statuses) - first - len(spoken))
    assert statuses == [
        document(number, "run", a, record(daemon, "b", message), playing=playing)
        for number, (playing, message) in enumerate(expected)
    ]


def test_status_without_directories(make_daemon):
    daemon = make_daemon(status="stream")
    daemon.configure(state="any words, even none")
    daemon.start()
    daemon.reconfigure(state="")
    daemon.wait_passes(2)
    daemon.stop()
    statuses = daemon.statuses()
    change = next(i for i, text in enumerate(statuses) if 'state=""' in text)
    assert change > 0
    states = ["any words, even none"] * change + [""] * (len(statuses) - change)
    assert statuses == [document(number, state) for number, state in enumerate(states)]


def test_values_are_written_without_escaping(make_daemon):
    daemon = make_daemon()
    path = daemon.input("here")
    daemon.configure(daemon.directory('a & "b" <c>', display_id="x", path=path), state="<&>")
    daemon.start()
    text = daemon.wait(daemon.status, "a status")
    assert text == document(timestamp(text), "<&>", record(daemon, 'a & "b" <c>', path=path))
    daemon.stop()


def test_output_bound_shows_while_it_lasts(make_daemon):
    daemon = make_daemon(words=1, files=1, status="stream")
    daemon.configure(daemon.directory("a"))
    daemon.start()
    daemon.drop("a", "m.txt", "one two three four")
    daemon.wait_log("Now output-bound")
    daemon.wait_passes(3)
    daemon.take()
    daemon.wait_log("Now output-bound", 2)
    daemon.wait_passes(2)
    daemon.stop()
    kinds = []
    for number, text in enumerate(daemon.statuses()):
        form = r'<tts-status now-playing="(\d)" output-bound="(\d)" state="run" timestamp="(\d+)">'
        kind = re.match(form, text)
        assert kind[3] == str(number)
        if kinds[-1:] != [kind[1] + kind[2]]:
            kinds.append(kind[1] + kind[2])
    # The first snippet's own status comes before the output is counted again. Bound once more
    # after the last snippet, the daemon does not look for messages: it still names that one.
    assert kinds == ["00", "10", "11", "10", "11"]


def test_files_are_counted(make_daemon):
    daemon = make_daemon(words=1, files=1)
    daemon.configure(daemon.directory("a"))
    daemon.start()
    daemon.drop("a", "m.txt", "one two three four")
    daemon.wait_log("Now output-bound")
    for name in ("n.txt", "o.txt", ".hidden"):
        (daemon.input("a") / name).write_text(name)
    daemon.drop("a", "empty.txt", "")
    daemon.wait_status(lambda root: root.find("directory").get("total-file-count") == "3")
    text = daemon.wait(daemon.status, "a status")
    message = 'filename="m.txt" id="1" plays="0"'
    # The empty file is there, but waits for nothing.
    a = record(daemon, "a", message, updated=2, total=3)
    assert text == document(timestamp(text), "run", a, playing=1, bound=1)
    daemon.stop()


def test_unwritable_status_is_logged_and_not_counted(make_daemon, tmp_path):
    path = tmp_path / "state" / "status.xml"
    daemon = make_daemon(status=False, arguments=["-s", path])
    daemon.configure()
    daemon.start(wait=False)
    line = f'Could not open "{path}" for writing'
    daemon.wait_log(line, 3)
    # The directory appears with the FIFO in it: not one status is missed.
    (tmp_path / "new").mkdir()
    daemon.stream = StatusStream(tmp_path / "new" / "status.xml")
    (tmp_path / "new").rename(path.parent)
    daemon.wait(lambda: len(daemon.statuses()) >= 3, "three statuses")
    count = daemon.log().count(line)
    (tmp_path / "state").rename(tmp_path / "old")
    daemon.wait_log(line, count + 2)
    (tmp_path / "old").rename(tmp_path / "state")
    count = len(daemon.statuses())
    daemon.wait(lambda: len(daemon.statuses()) >= count + 2, "two more statuses")
    daemon.stop()
    statuses = daemon.statuses()
    assert statuses == [document(number, "run") for number in range(len(statuses))]


def test_without_status_option_nothing_is_written(make_daemon):
    daemon = make_daemon(status=False)
    # A file that is there from the start tells when the first scan is over.
    daemon.drop("a/sub", "old.txt", "old")
    daemon.configure(daemon.directory("a", subdir="sub"))
    daemon.start(wait=False)
    daemon.wait_log(f"From {daemon.input('a/sub')}/old.txt: old", 2)
    daemon.drop("a/sub", "m.txt", "one")
    daemon.wait_spoken(("m.txt", PAUSE + "one "))
    daemon.wait_outputs(1)
    daemon.stop()
    assert not daemon.status_path.exists()

"""The status file, byte for byte."""

import re

import pytest
from harness.status import StatusStream, directory_status, status_text, timestamp

pytestmark = pytest.mark.core


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
    # The end of the message shows in the pass after its last snippet.
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


def test_values_are_written_without_escaping(make_daemon):
    daemon = make_daemon()
    path = daemon.input("here")
    daemon.configure(daemon.directory('a & "b" <c>', display_id="x", path=path), state="<&>")
    daemon.start()
    text = daemon.wait(daemon.status, "a status")
    record = directory_status('a & "b" <c>', path=path)
    assert text == status_text(timestamp(text), state="<&>", directories=[record])
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
    assert statuses == [status_text(number) for number in range(len(statuses))]

"""The status file, byte for byte."""

import pytest
from harness.status import directory_status, status_text

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

"""Which directory speaks when several have something to say."""

import pytest
from harness.daemon import PAUSE

pytestmark = pytest.mark.core


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
        # Where it was interrupted, and without a new pause.
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

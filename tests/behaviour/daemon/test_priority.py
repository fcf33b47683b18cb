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


def test_smallest_number_first_and_ids_among_equals(make_daemon):
    daemon = make_daemon(files=100, debug=5)
    # In the file in another order than by id.
    daemon.configure(
        daemon.directory("d", priority=10),
        daemon.directory("b", priority=2),
        daemon.directory("c", priority=2),
        daemon.directory("B", priority=2),
        daemon.directory("e", priority=-7),
        daemon.directory("a", priority=9),
    )
    daemon.start()
    daemon.hold()
    daemon.drop("d", "first.txt", "first")
    daemon.wait_translator_runs(1)
    for identity in "abcdBe":
        daemon.drop(identity, f"{identity}.txt", identity)
    daemon.release()
    daemon.wait_spoken(
        ("first.txt", PAUSE + "first "),
        *[(f"{identity}.txt", PAUSE + f"{identity} ") for identity in "eBbcad"],
    )
    daemon.wait_outputs(7)
    daemon.stop()
    # The walk stops at the first directory that has a message; ids were given by scans in byte
    # order of the directories' ids.
    log = daemon.log()
    start = log.index("Highest priority directory is b")
    walk = [line for line in log[:start] if line.startswith("Directory ") and "reports" in line]
    assert walk[-3:] == [
        "Directory e reports an active message ID of 0",
        "Directory B reports an active message ID of 0",
        "Directory b reports an active message ID of 4",
    ]


def test_urgent_message_waits_for_room(make_daemon):
    daemon = make_daemon(words=1, files=1)
    daemon.configure(daemon.directory("a", priority=1), daemon.directory("b", priority=2))
    daemon.start()
    daemon.drop("b", "news.txt", "one two three four")
    daemon.wait_log("Now output-bound")
    daemon.drop("a", "fire.txt", "fire")
    daemon.wait_status(lambda root: root.find("directory[@id='a']/message") is not None)
    assert daemon.spoken() == [("news.txt", PAUSE + "one two ")]
    daemon.take()
    daemon.wait_log("Now output-bound", 2)
    daemon.take()
    daemon.wait_spoken(
        ("news.txt", PAUSE + "one two "), ("fire.txt", PAUSE + "fire "), ("news.txt", "three four ")
    )
    daemon.stop()


def test_priority_changes_with_the_configuration(make_daemon):
    daemon = make_daemon(words=1, files=1)
    daemon.configure(daemon.directory("a", priority=1), daemon.directory("b", priority=2))
    daemon.start()
    daemon.drop("a", "a.txt", "one two three four")
    daemon.drop("b", "b.txt", "five six seven eight")
    daemon.wait_status(lambda root: len(root.findall("directory/message")) == 2)
    daemon.wait_log("Now output-bound")
    # Directory b keeps its message; a is built anew behind it and has none.
    daemon.reconfigure(daemon.directory("a", priority=3), daemon.directory("b", priority=2))
    daemon.drop("a", "c.txt", "nine")
    daemon.wait_status(lambda root: len(root.findall("directory/message")) == 2)
    for count in (2, 3, 4):
        daemon.take()
        daemon.wait_translator_runs(count)
        daemon.wait_outputs(1)
    assert daemon.spoken() == [
        ("a.txt", PAUSE + "one two "),
        ("b.txt", PAUSE + "five six "),
        ("b.txt", "seven eight "),
        ("c.txt", PAUSE + "nine "),
    ]
    daemon.stop()

"""The output directory: its limit, its lock, and its absence."""

import pytest
from harness.daemon import PAUSE
from harness.files import locked


@pytest.mark.core
def test_production_follows_the_room_in_the_output(make_daemon):
    daemon = make_daemon(words=1, files=3)
    daemon.configure(daemon.directory("a"))
    daemon.start()
    words = [f"w{number}" for number in range(12)]
    texts = [PAUSE * (not i) + f"w{i} w{i + 1} " for i in range(0, 12, 2)]
    daemon.drop("a", "m.txt", " ".join(words))
    daemon.wait_log("Now output-bound")
    assert daemon.outputs() == [
        "0_a.text_live_first.raw",
        "1_a.text_live_cont.raw",
        "2_a.text_live_cont.raw",
    ]
    # The state is logged once, however long it lasts.
    before = daemon.log()
    daemon.wait_passes(4)
    assert daemon.log() == before
    assert [text for _, text in daemon.spoken()] == texts[:3]

    taken = daemon.take(1)
    daemon.wait_log("Now output-bound", 2)
    assert daemon.log()[len(before) :] == [
        "No longer output-bound",
        "calling engine",
        "done calling engine",
        "copying 3_a.text_live_cont.raw",
        "Now output-bound",
    ]
    taken += daemon.take()
    daemon.wait_translator_runs(6)
    daemon.wait_outputs(2)
    taken += daemon.take()
    daemon.stop()
    runs = daemon.translator_runs()
    assert [run.text.decode() for run in runs] == texts
    kinds = ["first"] + ["cont"] * 5
    assert taken == [
        (f"{number}_a.text_live_{kind}.raw", run.audio)
        for number, (kind, run) in enumerate(zip(kinds, runs))
    ]


@pytest.mark.core
def test_lock_on_the_output_is_respected(make_daemon):
    daemon = make_daemon()
    daemon.configure(daemon.directory("a"))
    daemon.start()
    with locked(daemon.output):
        daemon.wait_lock()
        timestamp = daemon.timestamp()
        daemon.drop("a", "m.txt", "one")
        assert daemon.waits_for_lock()
        assert daemon.timestamp() == timestamp
        assert daemon.spoken() == []
    daemon.wait_spoken(("m.txt", PAUSE + "one "))
    daemon.wait_outputs(1)
    daemon.stop()


def test_lock_on_an_input_is_respected(make_daemon):
    daemon = make_daemon()
    daemon.configure(daemon.directory("a"))
    daemon.start()
    with locked(daemon.input("a")):
        daemon.wait_lock()
        # The holder of the lock may write in place.
        (daemon.input("a") / "m.txt").write_text("one ")
        with open(daemon.input("a") / "m.txt", "a") as file:
            file.write("two")
    daemon.wait_spoken(("m.txt", PAUSE + "one two "))
    daemon.wait_outputs(1)
    daemon.stop()


def test_emptying_for_stop_waits_for_the_lock(make_daemon):
    daemon = make_daemon()
    daemon.configure(daemon.directory("a"))
    daemon.start()
    (daemon.output / "1_x.raw").touch()
    with locked(daemon.output):
        daemon.configure(daemon.directory("a"), state="stop")
        daemon.wait_log(f"Processing configuration {daemon.config}", 2)
        daemon.wait_lock()
        assert daemon.outputs() == ["1_x.raw"]
        assert 'Now in "stop" state' not in daemon.log()
    daemon.wait_log('Now in "stop" state')
    assert daemon.outputs() == []
    daemon.stop()

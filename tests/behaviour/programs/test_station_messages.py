"""Messages of a running station: their records, vocastra-say, and restarts."""

import os
import signal

import pytest
from harness.programs import finish, start
from harness.station import Station
from harness.wait import wait_until

PAUSE = "\\pau=300\\ "


@pytest.fixture
def station(maker):
    made = maker(Station, "s")()
    made.configure(made.directory("a"))
    made.start()
    return made


def start_saying(station, *arguments):
    return start("vocastra-say", "-c", station.config, "--run", station.run_path, *arguments)


def states(station):
    """File and state of each message."""
    messages = station.health().findall("message")
    return [(message.get("file"), message.get("state")) for message in messages]


def wait_states(station, *expected):
    station.wait(lambda: states(station) == list(expected), str(expected))


def test_say_waits_for_the_audio_and_for_the_player(station):
    assert finish(start_saying(station, "-w", "one two")) == (0, "", "")
    process = start_saying(station, "--heard", "three")
    station.wait_outputs(2)
    station.wait(lambda: [state for _, state in states(station)] == ["said", "said"], "the end")
    assert process.poll() is None
    station.take()
    assert finish(process) == (0, "", "")
    wait_until(lambda: {state for _, state in states(station)} == {"heard"}, "both to be heard")


def test_say_reports_failed_pieces(station):
    station.behave("fake:exit=1")
    process = start_saying(station, "-w", "one two")
    assert finish(process) == (5, "", "vocastra-say: 1 of 1 pieces could not be made\n")


@pytest.mark.parametrize("dies", ["daemon", "station"])
def test_messages_survive_a_restart_in_their_order(station, dies):
    station.hold()
    for name in ("z", "y", "x"):
        station.drop("a", name, name)
    process = start_saying(station, "-w", "last")
    station.wait_translator_runs(1)
    first = station.daemon()
    station.wait(lambda: len(states(station)) == 4, "four records")
    if dies == "daemon":
        os.kill(first, signal.SIGKILL)
    else:
        station.process.kill()
        station.process.wait()
    station.release()
    if dies == "station":
        station.start()
    assert finish(process) == (0, "", "")
    assert [state for _, state in states(station)] == ["said"] * 4
    assert [text for _, text in station.spoken()][-4:] == [
        PAUSE + text + " " for text in ("z", "y", "x", "last")
    ]
    assert list(station.input("a").iterdir()) == []


def test_same_name_and_text_is_a_problem(station):
    station.drop("a", "first", "zero")
    wait_states(station, ("first", "said"))
    station.hold()
    station.drop("a", "m", "one")
    station.wait_translator_runs(2)
    station.drop("a", "m", "one")
    station.release()
    wait_states(station, ("first", "said"), ("m", "said"), ("m", "dropped"))
    assert [p.get("id") for p in station.health().findall("problem")] == ["not-queued:a/m"]
    (station.input("a") / "m").unlink()
    station.wait(lambda: not station.health().findall("problem"), "the end of the problem")


def test_changed_directory_gives_its_messages_back(station):
    station.hold()
    for name in ("m", "n"):
        station.drop("a", name, name)
    station.wait_translator_runs(1)
    station.wait(lambda: len(states(station)) == 2, "two records")
    station.configure(station.directory("a", priority=3))
    station.release()
    wait_states(station, ("m", "said"), ("n", "said"))
    assert [name for name, _ in station.spoken()][-1:] == ["n"]

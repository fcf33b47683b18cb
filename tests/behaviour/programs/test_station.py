"""vocastra-station and vocastra-apply, with a daemon and fake companions."""

import os
import re
import signal
import socket
import time
from pathlib import Path

import pytest
from harness.companions import COMPANIONS
from harness.files import element, publish
from harness.programs import ended, run, start_command
from harness.station import Station


@pytest.fixture
def make_station(maker):
    """Makes stations with one local directory "a" (see Station)."""
    make = maker(Station, "s")

    def make_station(**options):
        station = make(**options)
        station.configure(station.directory("a"))
        return station

    return make_station


@pytest.fixture
def station(make_station):
    made = make_station()
    made.start()
    return made


def test_speaks_and_ends(station):
    station.drop("a", "m", "one")
    station.wait_outputs(1)
    assert station.health().get("station") == str(station.process.pid)
    station.wait(lambda: "READY=1\nSTATUS=" in station.told(), "READY=1")
    station.stop()
    assert "STOPPING=1" in station.told()
    assert station.health().get("daemon") == "0"


def test_message_is_heard(make_station):
    station = make_station(options=())
    station.translator.unlink()
    station.translator.symlink_to(COMPANIONS / "translators/tone")
    state = station.run_path / "player"
    player = start_command(COMPANIONS / "player", "--null", "--state", state, station.output)
    try:
        station.start()
        station.drop("a", "m", "one two")
        station.wait(lambda: station.message("m").get("state") == "heard", "the message")
        assert station.message("m").get("pieces") == "1"
        assert not station.problems()
    finally:
        player.terminate()
        player.communicate()


def test_each_player_is_watched(make_station):
    station = make_station(options=())
    players = []
    try:
        for name, option in (("player", "--except"), ("player-hall", "--only")):
            words = (COMPANIONS / "player", "--null", option, "hall", "--state")
            players.append(start_command(*words, station.run_path / name, station.output))
        station.start()
        station.wait(lambda: (station.run_path / "player-hall").exists(), "the hall's player")
        players[1].terminate()
        players[1].communicate()
        station.wait(lambda: "no-player:hall" in station.problems(), "the problem")
        assert set(station.problems()) == {"no-player:hall"}
        remedy = station.health().find("problem").get("remedy")
        assert remedy == "Start the player: systemctl start vocastra-player@hall"
        (station.run_path / "player-hall").unlink()
        station.wait(lambda: station.problems() == {}, "no problem")
    finally:
        for player in players:
            player.kill()
            player.communicate()


def test_messages_survive_the_death_of_the_daemon(make_station):
    station = make_station(words=1)
    station.start()
    station.hold()
    station.drop("a", "m", "one two three")
    station.drop("a", "n", "four")
    station.wait(lambda: station.message("n"), "the second message to be known")
    station.wait_translator_runs(1)
    first = station.daemon()
    os.kill(first, signal.SIGKILL)
    station.release()
    station.wait_daemon(but=first)
    station.wait(lambda: station.message("n").get("state") == "said", "the last message")
    spoken = "".join(text for _, text in station.spoken())
    assert spoken.endswith("\\pau=300\\ one two three \\pau=300\\ four ")


@pytest.mark.parametrize("signum", [signal.SIGKILL, signal.SIGSTOP])
def test_daemon_that_dies_or_hangs_is_started_again(station, signum):
    station.drop("a", "m", "one")
    station.wait_outputs(1)
    first = station.daemon()
    os.kill(first, signum)
    station.wait_daemon(but=first)
    assert ended(first)
    station.wait(lambda: station.counter("restarts") == 1, "the restart to be counted")
    assert "<3>The daemon has ended with signal 9; it is started again" in station.log()
    station.drop("a", "n", "two")
    station.wait(lambda: ("n", "\\pau=300\\ two ") in station.spoken(), "the next message")


def test_only_the_station_has_a_higher_priority(station):
    """The station needs a right to do so, which depends on the user."""
    own = os.getpriority(os.PRIO_PROCESS, 0)
    nice = os.getpriority(os.PRIO_PROCESS, station.process.pid)
    assert nice in (-10, own)
    daemon = os.getpriority(os.PRIO_PROCESS, station.daemon())
    assert daemon == (max(nice, 0) if nice != own else own)


def test_daemon_ends_with_its_station(make_station):
    station = make_station(words=1)
    station.start()
    station.hold()
    station.drop("a", "m", "one " * 100)
    station.wait_translator_runs(1)
    daemon = station.daemon()
    station.process.kill()
    assert ended(daemon)
    station.process.wait()


def test_start_waits_for_processes_of_an_old_daemon(make_station):
    """Otherwise, a late copy of the old daemon's piece would mix with the pieces of the new one."""
    station = make_station()
    (station.bin / "cp").write_text(
        '#!/bin/sh\n: >"$0.runs"\nwhile [ -e "$0.hold" ]; do sleep 0.05; done\nexec /bin/cp "$@"\n'
    )
    (station.bin / "cp").chmod(0o755)
    hold = station.bin / "cp.hold"
    hold.touch()
    station.start()
    daemon = station.daemon()
    station.drop("a", "m", "one")
    station.wait((station.bin / "cp.runs").exists, "the copy")
    station.process.kill()
    station.process.wait()
    station.start(wait=False)
    station.wait(lambda: station.health().get("station") == str(station.process.pid), "a station")
    for _ in range(100):  # This is longer than a start takes.
        assert station.daemon() == 0
        time.sleep(0.02)
    hold.unlink()
    station.wait_daemon(but=daemon)
    with pytest.raises(ProcessLookupError):
        os.killpg(daemon, 0)


def test_output_that_nobody_plays_is_removed_before_a_start(make_station):
    station = make_station()
    for name in ("0_a.text_live_first.raw", "17_a.warn_live_first.wav", ".7_hidden", "other"):
        (station.output / name).write_text("old")
    station.start()
    assert sorted(path.name for path in station.output.iterdir()) == [".7_hidden", "other"]
    assert station.counter("lost") == 2


@pytest.mark.parametrize("name", ["player", "player-hall"])
def test_player_may_empty_the_output_before_a_start(make_station, name):
    station = make_station(options=())
    state = element(
        "player-state",
        **{"device": "x", "device-ok": 1, "pid": os.getpid(), "playing": "", "problem": ""},
        **{"problem-time": 0, "since": 0},
    )
    (station.run_path / name).write_text(state + "\n")
    station.start()
    station.drop("a", "m", "one")
    station.wait_outputs(1)
    first = station.daemon()
    os.kill(first, signal.SIGKILL)
    station.wait_log("<3>The daemon has ended with signal 9; it is started again")
    # The start has been due for some time when the player is done.
    station.wait(lambda: not station.daemon(), "no daemon")
    assert len(station.take()) == 1
    station.wait_daemon(but=first)
    assert station.counter("lost") == 0


def test_translator_that_hangs_is_killed(make_station):
    station = make_station(options=("--no-player", "--translator-limit", "1"))
    station.start()
    station.hold()
    station.drop("a", "m", "one")
    station.wait_log(
        "<3>The translator has run for 1 seconds; it is killed, and its words are lost"
    )
    station.wait(lambda: "Could not execute" in station.log_text(), "the failure")
    station.release()
    daemon = station.daemon()
    station.drop("a", "n", "two")
    station.wait_outputs(1)
    assert station.daemon() == daemon
    station.stop()


def test_wrong_configuration_is_refused_and_its_correction_applied(station):
    good = station.config.read_text()
    publish(station.config, good.replace("</tts-config>", ""))
    sentence = f"The edited configuration cannot be used: {station.config}:"
    station.wait(
        lambda: sentence in station.problems().get("configuration-refused", ""), "the problem"
    )
    status, out, err = station.apply()
    assert (status, out) == (1, "")
    assert err.startswith(f"configuration: refused\n{station.config}:1: error: tts-config: ")
    assert station.copy() == good
    station.configure(station.directory("a"), station.directory("b"))
    assert station.apply() == (0, "configuration: in force\n", "")
    assert not station.problems()
    station.wait_status(lambda root: len(root.findall("directory")) == 2)
    assert station.apply() == (0, "configuration: in force\n", "")


def test_reload_by_signal(station):
    station.told()
    station.configure(station.directory("a"), station.directory("b"))
    station.process.send_signal(signal.SIGHUP)
    told = []

    def is_reloaded():
        told.append(station.told())
        return re.search(r"RELOADING=1\nMONOTONIC_USEC=\d+\n.*READY=1", "\n".join(told), re.DOTALL)

    station.wait(is_reloaded, "the reload and its end")
    station.wait_status(lambda root: len(root.findall("directory")) == 2)


def test_apply_installs_a_file(station, tmp_path):
    station.config.chmod(0o640)
    new = tmp_path / "new.conf"
    new.write_text(element("tts-config", [station.directory("c")], state="run"))
    assert station.apply(new) == (0, "configuration: in force\n", "")
    assert station.config.read_text() == new.read_text() == station.copy()
    assert station.config.stat().st_mode & 0o777 == 0o640
    new.write_text("<tts-config>")
    status, _, err = station.apply(new)
    assert status == 1
    assert f"vocastra-apply: {new} is refused; nothing has changed\n" in err
    assert station.config.read_text() == station.copy()


def test_kept_configuration_is_used_at_the_next_boot(make_station, tmp_path):
    station = make_station(options=("--no-player", "--keep", tmp_path))
    (tmp_path / "vocastra.conf").write_text(station.config.read_text())
    station.config.write_text("<tts-config")
    station.start()
    assert list(station.problems()) == ["configuration-refused"]
    station.drop("a", "m", "one")
    station.wait_outputs(1)


def test_station_waits_for_a_configuration(make_station):
    station = make_station()
    text = station.config.read_text()
    station.config.unlink()
    station.start(wait=False)
    station.wait(lambda: list(station.problems()) == ["configuration-missing"], "the problem")
    assert not station.daemon()
    publish(station.config, text)
    station.wait_daemon()
    station.wait(lambda: not station.problems(), "no problem")


def test_stop_waits_for_the_end_of_the_message(make_station):
    station = make_station(words=1)
    station.start()
    station.hold()
    station.drop("a", "m", "one two three")
    station.wait_translator_runs(1)
    station.process.send_signal(signal.SIGTERM)
    station.wait(lambda: "STOPPING=1" in station.told(), "STOPPING=1")
    station.release()
    station.wait_exit(0)
    assert "".join(text for _, text in station.spoken()) == "\\pau=300\\ one two three "
    assert len(station.spoken()) > 1


def test_second_signal_does_not_wait(make_station):
    station = make_station(words=1, files=2)
    station.start()
    station.drop("a", "m", "one " * 1000)
    station.wait_translator_runs(1)
    station.process.send_signal(signal.SIGTERM)
    station.wait(lambda: "STOPPING=1" in station.told(), "STOPPING=1")
    station.process.send_signal(signal.SIGTERM)
    station.wait_exit(0)
    assert len(station.spoken()) < 500


def test_repeated_log_lines_are_counted(make_station):
    station = make_station()
    station.configure(station.directory("a"), station.directory("b"))
    station.start()
    path = station.input("b")
    path.rmdir()
    line = f"<3>Could not open directory {path}/"
    station.wait_log(line)
    station.drop("a", "m", "one")  # The scan finds it, although the pass fails later.
    station.wait(lambda: not (station.input("a") / "m").exists(), "the message to be taken")
    assert station.log().count(line) == 1
    assert "Original is valid UTF-8" not in station.log_text()


@pytest.mark.parametrize(
    ("options", "debug", "line"),
    [(["--no-player"], 4, None), (["--no-player", "--raw"], None, "<6>calling engine")],
)
def test_station_sees_class_1_of_the_log(make_station, options, debug, line):
    station = make_station(options=options, debug=debug)
    station.start()
    station.drop("a", "m", "one")
    station.wait_outputs(1)
    if line:
        station.wait_log(line)
    words = Path(f"/proc/{station.daemon()}/cmdline").read_text().split("\0")
    assert [words[i + 1] for i, word in enumerate(words) if word == "-d"][1:] == (
        ["5"] if debug else []
    )


@pytest.mark.parametrize(
    ("arguments", "text"),
    [
        ([], 'vocastra-station: name the daemon and its options after "--"\n'),
        (["--", "vocastra"], "vocastra-station: the daemon has no option -c\n"),
        (["--age", "x", "--", "vocastra"], 'vocastra-station: "x": not a number of seconds\n'),
    ],
)
def test_wrong_use(arguments, text):
    assert run("vocastra-station", *arguments) == (2, "", text)


def test_refused_configuration_is_accepted_when_its_directory_is_back(station):
    away = station.translator.with_name("away")
    station.translator.rename(away)
    with open(station.config, "a", encoding="utf8") as config:
        config.write("\n")
    station.wait(lambda: "configuration-refused" in station.problems(), "the problem")
    away.rename(station.translator)
    station.wait(lambda: not station.problems(), "its end")


def test_second_station_is_refused(station):
    command = [str(word) for word in station.command()[1:]]
    status, _, err = run("vocastra-station", *command)
    assert (status, err) == (1, f"vocastra-station: {station.run_path}: another station uses it\n")


def test_apply_without_a_station(tmp_path):
    path = tmp_path / "apply"
    for text in ("No such file or directory", "Connection refused"):
        assert run("vocastra-apply", "-r", tmp_path) == (2, "", f"vocastra-apply: {path}: {text}\n")
        if not path.exists():
            with socket.socket(socket.AF_UNIX) as listener:
                os.chdir(tmp_path)
                listener.bind("apply")

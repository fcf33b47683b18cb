"""vocastra-status: its output and its verdicts."""

import json
import os
import re
import signal
import threading

import pytest
from harness.programs import environment, finish, run, start, start_command
from harness.status import StatusWriter, directory_status, health_text, status_text
from harness.wait import wait_until


def fake(path, **values):
    """A writer of statuses with these values, and without problems otherwise."""
    return StatusWriter(path, lambda timestamp: status_text(timestamp, **values))


def test_idle_daemon_is_fine(make_daemon):
    daemon = make_daemon()
    daemon.configure(daemon.directory("a"), daemon.directory("bigger"))
    daemon.start()
    assert run("vocastra-status", daemon.status_path) == (
        0,
        "state:   run\n"
        "playing: nothing\n"
        "\n"
        "DIRECTORY  UPDATES  FILES  WAITING  MESSAGE  PLAYS  NAME  PATH\n"
        f"a          yes      0      0        -        -      -     {daemon.input('a')}\n"
        f"bigger     yes      0      0        -        -      -     {daemon.input('bigger')}\n",
        "",
    )
    daemon.stop()


def test_playing_message_as_json(make_daemon):
    daemon = make_daemon(words=1, files=1)
    daemon.configure(daemon.directory("a"))
    daemon.start()
    daemon.drop("a", "m.txt", "one two three four")
    daemon.wait_status(lambda root: root.get("output-bound") == "1")
    status, out, err = run("vocastra-status", "--json", daemon.status_path)
    assert (status, err) == (0, "")  # A busy player is fine.
    report = json.loads(out)
    assert report.pop("timestamp") > 0
    assert report.pop("time") > 0
    assert report == {
        "running": True,
        "now-playing": 1,
        "state": "run",
        "output-bound": True,
        "directories": [
            {
                "id": "a",
                "path": str(daemon.input("a")),
                "status": True,
                "total-file-count": 0,
                "updated-file-count": 0,
                "message": {"id": 1, "filename": "m.txt", "plays": 0},
            }
        ],
        "problems": [],
    }
    daemon.stop()


def test_remote_directory_without_updates(make_daemon):
    daemon = make_daemon()
    daemon.tell_helpers("silent")
    daemon.configure(daemon.directory("far", type="ftp", path="x", username="u"))
    daemon.start(wait=False)
    daemon.wait_status()
    status, out, _ = run("vocastra-status", daemon.status_path)
    assert status == 1
    assert out.splitlines()[-2:] == [
        "PROBLEM: no updates: directory far",
        "  remedy: See what its helper says in the log",
    ]
    assert re.search(r"^far        NO       0      0 .* /tmp/watch\w{6}$", out, re.M)
    daemon.tell_helpers()
    daemon.wait_status(lambda root: root[0].get("status") == "1")
    assert run("vocastra-status", daemon.status_path)[0] == 0
    daemon.stop()


def test_ended_daemon_is_stale(make_daemon):
    daemon = make_daemon()
    daemon.configure(daemon.directory("a"))
    daemon.start()
    daemon.stop()
    status, out, _ = run("vocastra-status", "-l", "1", daemon.status_path)
    assert status == 2
    assert out.splitlines()[-2] == "PROBLEM: stale: not rewritten for 1 seconds"


def test_every_problem_is_reported(tmp_path):
    path = tmp_path / "status"
    path.write_text(status_text(bound=1, directories=[directory_status("far", status=0)]))
    status, out, _ = run("vocastra-status", "--json", "--limit", "1", path)
    assert status == 2
    problems = json.loads(out)["problems"]
    assert [(problem["id"], problem["sentence"]) for problem in problems] == [
        ("stale", "stale: not rewritten for 1 seconds"),
        ("remote:far", "no updates: directory far"),
    ]
    assert all(problem["remedy"] for problem in problems)


@pytest.mark.parametrize(
    "text, why",
    [
        (None, "No such file or directory"),
        ("", "holds no whole status"),
        (status_text(directories=[directory_status()])[:-2], "holds no whole status"),
        ("<tts-config state='run'/>\n", "holds no whole status"),
    ],
)
def test_no_daemon(tmp_path, text, why):
    path = tmp_path / "status"
    if text is not None:
        path.write_text(text)
    line = f"no daemon: {path}: {why}"
    status, out, err = run("vocastra-status", path)
    assert (status, out.splitlines()[0], err) == (2, f"PROBLEM: {line}", "")
    status, out, _ = run("vocastra-status", "-j", path)
    assert (status, json.loads(out)["problems"][0]["sentence"]) == (2, line)


def letters(number):
    """A name of letters for each number."""
    return "".join("abcdefghij"[int(digit)] for digit in str(number))


@pytest.mark.parametrize(
    "text",
    [
        "<tts-status " + " ".join(f'{letters(i)}=""' for i in range(150000)) + "/>\n",
        "<tts-status>\n" + "<a/>\n" * 200000,
        "<a>\n" * 200000,
        '"' * (4 << 20),
        "x" * ((4 << 20) + 1),
    ],
    ids=["attributes", "elements", "depth", "quotes", "size"],
)
def test_a_large_file_that_is_no_status(tmp_path, text):
    """The program's own time limit ends it, whatever the file holds."""
    path = tmp_path / "status"
    path.write_text(text)
    status, out, _ = run("vocastra-status", path)
    assert status == 2
    assert out.startswith(f"PROBLEM: no daemon: {path}: ")


def test_files_that_are_not_regular_do_not_block(tmp_path):
    for name in ("health", "status.xml", "player"):
        os.mkfifo(tmp_path / name)
    assert run("vocastra-status", "--run", tmp_path)[0] == 2
    assert run("vocastra-status", tmp_path / "status.xml")[0] == 2
    (tmp_path / "health").unlink()
    (tmp_path / "health").write_text(health_text())
    assert run("vocastra-status", "--run", tmp_path)[0] == 0


def test_incomplete_statuses_are_read_again(tmp_path):
    """The reader sees an incomplete status most of the time."""
    path = tmp_path / "status"
    whole = status_text(directories=[directory_status(str(i)) for i in range(100)])
    ended = threading.Event()

    def rewrite():
        timestamp = 0
        while not ended.wait(0.01):
            timestamp += 1
            text = whole.replace('timestamp="0"', f'timestamp="{timestamp}"')
            with open(path, "w") as file:
                for start_of_piece in range(0, len(text), 4096):
                    file.write(text[start_of_piece : start_of_piece + 4096])
                    file.flush()
                    ended.wait(0.005)

    writer = threading.Thread(target=rewrite)
    writer.start()
    try:
        wait_until(path.exists, "the first status")
        for _ in range(5):
            status, out, _ = run("vocastra-status", "--json", path)
            assert status == 0
            assert [entry["id"] for entry in json.loads(out)["directories"]] == [
                str(i) for i in range(100)
            ]
    finally:
        ended.set()
        writer.join()


EVIL = ["a&b", "<", 'q"q', "back\\slash", "line\nend", "\x1b[31m", "\x7f", "\u0085", "é", "&amp;"]


def test_json_has_values_unchanged(tmp_path):
    records = [directory_status(i, path=i, message=(1, i, 0)) for i in EVIL]
    with fake(tmp_path / "status", state='r"&<', directories=records):
        status, out, _ = run("vocastra-status", "--json", tmp_path / "status")
    report = json.loads(out)
    assert status == 0
    assert out.count("\n") == 1
    assert report["state"] == 'r"&<'
    for key in ("id", "path"):
        assert [entry[key] for entry in report["directories"]] == EVIL
    assert [entry["message"]["filename"] for entry in report["directories"]] == EVIL


def test_table_is_safe_for_a_terminal(tmp_path):
    records = [directory_status(i) for i in EVIL]
    with fake(tmp_path / "status", directories=records):
        out = run("vocastra-status", tmp_path / "status", encoding="utf-8")[1]
    assert [line.split()[0] for line in out.splitlines()[4:]] == [
        "a&b",
        "<",
        'q"q',
        "back\\slash",
        "line?end",
        "?[31m",
        "?",
        "?",
        "é",
        "&amp;",
    ]
    # The second column begins below its head, even after a letter of two bytes.
    assert {line.index("yes") for line in out.splitlines()[4:]} == {out.splitlines()[3].index("UP")}


def test_invalid_utf8_is_replaced(tmp_path):
    text = status_text(directories=[directory_status("X")]).encode().replace(b'"X"', b'"\xff"')
    (tmp_path / "status").write_bytes(text)
    out = run("vocastra-status", "-j", "-l1", tmp_path / "status", encoding="utf-8")[1]
    assert json.loads(out)["directories"][0]["id"] == "\ufffd"


def test_follow_prints_only_changes(tmp_path):
    path = tmp_path / "status"
    current = {"state": "run"}
    with StatusWriter(path, lambda timestamp: status_text(timestamp, **current)) as writer:
        follower = start("vocastra-status", "-f", "--json", path)
        try:
            first = json.loads(follower.stdout.readline())
            assert (first["state"], first["problems"]) == ("run", [])
            current["state"] = "stop"
            second = json.loads(follower.stdout.readline())
            assert (second["state"], second["problems"]) == ("stop", [])
            assert second["timestamp"] > first["timestamp"]
            current["bound"] = 1
            assert json.loads(follower.stdout.readline())["output-bound"]
            # The writer ends, its file is removed, and another writer begins.
            writer.ended.set()
            writer.join()
            path.unlink()
            problems = json.loads(follower.stdout.readline())["problems"]
            assert problems[0]["sentence"] == f"no daemon: {path}: No such file or directory"
            other = tmp_path / "other"
            other.write_text(status_text(5))
            other.rename(path)
            assert json.loads(follower.stdout.readline())["timestamp"] == 5
            assert follower.poll() is None
        finally:
            follower.send_signal(signal.SIGTERM)
            assert finish(follower)[0] == -signal.SIGTERM


def test_follow_notices_that_a_status_gets_stale(tmp_path):
    path = tmp_path / "status"
    path.write_text(status_text())
    follower = start("vocastra-status", "-f", "-l", "1", path)
    try:
        lines = [follower.stdout.readline() for _ in range(9)]
        assert re.fullmatch(r"time:    \d{4}-\d\d-\d\d \d\d:\d\d:\d\d\n", lines.pop(0))
        assert lines[:4] == ["state:   run\n", "playing: nothing\n", "no directories\n", "\n"]
        assert lines[4].startswith("time:    ")
        assert lines[5:] == lines[:3]
        assert follower.stdout.readline() == "PROBLEM: stale: not rewritten for 1 seconds\n"
    finally:
        follower.kill()
        finish(follower)


def test_follow_ends_when_standard_output_is_closed(tmp_path):
    path = tmp_path / "status"
    with StatusWriter(path, lambda timestamp: status_text(timestamp, state=str(timestamp))):
        follower = start("vocastra-status", "-f", path)
        follower.stdout.readline()
        follower.stdout.close()
        assert follower.wait(60) in (3, -signal.SIGPIPE)
        follower.stderr.close()


@pytest.mark.parametrize(
    "arguments, why",
    [
        (["a", "b"], "vocastra-status: more than one status file\n"),
        (["-l", "0"], 'vocastra-status: -l "0": not a number of seconds above 0\n'),
        (["-l", "x"], 'vocastra-status: -l "x": not a number of seconds above 0\n'),
        (["-mj"], "vocastra-status: --metrics cannot be used with --json or --follow\n"),
        (["-mf"], "vocastra-status: --metrics cannot be used with --json or --follow\n"),
    ],
)
def test_wrong_use(arguments, why):
    assert run("vocastra-status", *arguments) == (3, "", why)


# --- With a station -------------------------------------------------------------------------------

PROBLEM = {"id": "remote:far", "sentence": "No updates", "remedy": "Wait", "since": 1700000000}
MESSAGE = {
    "directory": "lobby",
    "file": 'a "b" & c',
    "state": "speaking",
    "pieces": 2,
    "failed": 1,
    "arrived": 1700000000,
    "ended": 0,
}


def make_run(path, **health):
    """A run directory with all files; none of them changes."""
    (path / "health").write_text(health_text(**health))
    (path / "status.xml").write_text(status_text(7, 3, bound=1, directories=[directory_status()]))
    (path / "player").write_text(
        f'<player-state device="d" device-ok="1" pid="{os.getpid()}" playing="7_a.raw" problem=""'
        ' problem-time="0" rate="16000" since="5">\n'
        '    <waiting name="8_a.raw"/>\n</player-state>\n'
    )
    return path


@pytest.mark.parametrize(
    "health, status, problems",
    [
        ({}, 0, []),
        ({"children": [("problem", PROBLEM)]}, 1, ["No updates"]),
        ({"hung": 1}, 2, ["the daemon hangs"]),
        ({"daemon": 0}, 2, ["no daemon: the station has not started it"]),
        ({"daemon": 0, "children": [("problem", PROBLEM)]}, 2, ["No updates"]),
        ({"station": 2**22 + 1}, 2, ["no daemon: the station has ended"]),
    ],
)
def test_health_file_decides_if_there_is_a_station(tmp_path, health, status, problems):
    run_directory = make_run(tmp_path, **health)
    found, out, _ = run("vocastra-status", "--json", "--run", run_directory)
    assert found == status
    assert [problem["sentence"] for problem in json.loads(out)["problems"]] == problems
    assert json.loads(out)["running"] == (status < 2)


def test_stopped_station(tmp_path):
    process = start_command("sleep", 1000)
    try:
        make_run(tmp_path, station=process.pid)
        assert run("vocastra-status", "-r", tmp_path)[0] == 0
        process.send_signal(signal.SIGSTOP)
        os.waitid(os.P_PID, process.pid, os.WSTOPPED | os.WNOWAIT)
        status, out, _ = run("vocastra-status", "-j", "-r", tmp_path)
        assert status == 2
        (problem,) = json.loads(out)["problems"]
        assert problem["id"] == "station-stopped"
        assert problem["sentence"] == (
            f"The station, process {process.pid}, is stopped and watches nothing"
        )
        process.send_signal(signal.SIGCONT)
        wait_until(lambda: run("vocastra-status", "-r", tmp_path)[0] == 0, "a station that goes on")
    finally:
        process.kill()
        process.wait()


def test_json_of_a_station(tmp_path):
    children = [("counter", {"name": "messages", "value": 4}), ("message", MESSAGE)]
    children.append(("problem", PROBLEM))
    make_run(tmp_path, daemon=12, saying="lobby/x", children=children)
    report = json.loads(run("vocastra-status", "-j", "-r", tmp_path)[1])
    report.pop("time")
    assert len(report.pop("directories")) == 1
    assert report == {
        "running": True,
        "timestamp": 7,
        "now-playing": 3,
        "state": "run",
        "output-bound": True,
        "station": os.getpid(),
        "daemon": 12,
        "hung": False,
        "saying": "lobby/x",
        "counters": {"messages": 4},
        "messages": [MESSAGE],
        "player": {
            "pid": os.getpid(),
            "running": True,
            "playing": "7_a.raw",
            "since": 5,
            "waiting": ["8_a.raw"],
            "device": "d",
            "device-ok": True,
            "rate": 16000,
            "problem": "",
            "problem-time": 0,
        },
        "problems": [PROBLEM],
    }


def test_table_of_a_station(tmp_path):
    make_run(tmp_path, saying="lobby/x", children=[("message", MESSAGE), ("problem", PROBLEM)])
    out = run("vocastra-status", "-r", tmp_path, env=environment(TZ="UTC"))[1]
    assert out == (
        "state:   run\n"
        "playing: message 3\n"
        "saying:  lobby/x\n"
        "player:  plays 7_a.raw, 1 waiting\n"
        "\n"
        "DIRECTORY  UPDATES  FILES  WAITING  MESSAGE  PLAYS  NAME  PATH\n"
        "a          yes      0      0        -        -      -     /in\n"
        "\n"
        "MESSAGE          STATE     PIECES  FAILED  ARRIVED\n"
        'lobby/a "b" & c  speaking  2       1       2023-11-14 22:13:20\n'
        "\n"
        "PROBLEM: No updates\n"
        "  remedy: Wait\n"
        "  since:  2023-11-14 22:13:20 (remote:far)\n"
    )


def test_metrics(tmp_path):
    children = [("counter", {"name": "messages", "value": 4}), ("problem", PROBLEM)]
    children.append(("problem", {**PROBLEM, "id": 'input-missing:a"b\\'}))
    make_run(tmp_path, children=children)
    status, out, _ = run("vocastra-status", "--metrics", "--run", tmp_path)
    assert status == 1
    lines = out.splitlines()
    assert lines[-1] == "# EOF"
    families, samples = [], {}
    for line in lines[:-1]:
        if head := re.fullmatch(r"# TYPE (\w+) (gauge|counter)", line):
            families.append(head[1])
        elif not re.fullmatch(rf"# HELP {families[-1]} \S.*", line):
            sample = re.fullmatch(r'((\w+?)(_total)?(?:{\w+="(?:\\.|[^"\\])*"})?) (\d+)', line)
            assert sample[2] == families[-1]
            samples[sample[1].removeprefix("vocastra_")] = int(sample[4])
    assert len(families) == len(set(families))
    assert samples == {
        "up": 1,
        "problems": 2,
        'problem{id="remote:far"}': 1,
        r'problem{id="input-missing:a\"b\\"}': 1,
        "messages_total": 4,
        'directory_updates{directory="a"}': 1,
        'directory_files{directory="a"}': 0,
        'directory_waiting{directory="a"}': 0,
        "output_bound": 1,
        "player_up": 1,
        "player_device_up": 1,
        "player_playing": 1,
        "player_waiting": 1,
    }


def test_player_of_a_zone_is_shown_beside_the_main_player(tmp_path):
    state = (make_run(tmp_path) / "player").read_text()
    ended = state.replace(str(os.getpid()), str(2**22 + 1))
    (tmp_path / "player-hall").write_text(ended.replace("7_a.raw", ""))
    table = run("vocastra-status", "-r", tmp_path)[1]
    assert "\nplayer:  plays 7_a.raw, 1 waiting\nplayer hall: does not run\n" in table
    report = json.loads(run("vocastra-status", "-j", "-r", tmp_path)[1])
    assert report["player"]["running"]
    hall = {**report["player"], "pid": 2**22 + 1, "running": False, "playing": ""}
    assert report["players"] == {"hall": hall}
    metrics = run("vocastra-status", "-m", "-r", tmp_path)[1]
    for name, value in (("up", "0"), ("device_up", "1"), ("playing", "0"), ("waiting", "1")):
        samples = re.findall(rf"^vocastra_player_{name}(.*) (\d)$", metrics, re.MULTILINE)
        assert samples == [("", "1"), ('{zone="hall"}', value)]


def test_without_a_station_the_status_of_the_run_directory_is_read(tmp_path):
    with fake(tmp_path / "status.xml"):
        status, out, _ = run("vocastra-status", "-j", "--run", tmp_path)
        assert (status, json.loads(out)["problems"]) == (0, [])
        assert "vocastra_up 1\n" in run("vocastra-status", "-m", "--run", tmp_path)[1]


def test_follow_shows_a_change_of_the_health(tmp_path):
    make_run(tmp_path)
    follower = start("vocastra-status", "-f", "--json", "--run", tmp_path)
    try:
        assert json.loads(follower.stdout.readline())["problems"] == []
        (tmp_path / "new").write_text(health_text(children=[("problem", PROBLEM)]))
        (tmp_path / "new").rename(tmp_path / "health")
        assert json.loads(follower.stdout.readline())["problems"] == [PROBLEM]
    finally:
        follower.kill()
        finish(follower)

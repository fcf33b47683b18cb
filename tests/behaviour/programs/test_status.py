"""vocastra-status: what it shows and how it judges."""

import json
import re
import signal
import threading

import pytest
from harness.programs import finish, run, start
from harness.status import StatusWriter, directory_status, status_text
from harness.wait import wait_until


def fake(path, **values):
    """A writer of statuses without problems, except for the values."""
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
    assert (status, err) == (1, "")
    report = json.loads(out)
    assert report.pop("timestamp") > 0
    assert report == {
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
        "problems": ["output-bound: the player does not take what is there"],
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
    assert out.splitlines()[-1] == "PROBLEM: no updates: directory far"
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
    assert status == 1
    assert out.splitlines()[-1] == "PROBLEM: stale: not rewritten for 1 seconds"


def test_every_problem_is_reported(tmp_path):
    path = tmp_path / "status"
    path.write_text(status_text(bound=1, directories=[directory_status("far", status=0)]))
    status, out, _ = run("vocastra-status", "--json", "--limit", "1", path)
    assert status == 1
    assert json.loads(out)["problems"] == [
        "stale: not rewritten for 1 seconds",
        "output-bound: the player does not take what is there",
        "no updates: directory far",
    ]


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
    assert run("vocastra-status", path) == (2, f"PROBLEM: {line}\n", "")
    status, out, _ = run("vocastra-status", "-j", path)
    assert (status, json.loads(out)) == (2, {"problems": [line]})


def test_half_files_are_read_again(tmp_path):
    """The reader sees half a status most of the time."""
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
    # The second column begins below its head, also after a letter of two bytes.
    assert {line.index("yes") for line in out.splitlines()[4:]} == {out.splitlines()[3].index("UP")}


def test_invalid_utf8_is_replaced(tmp_path):
    text = status_text(directories=[directory_status("X")]).encode().replace(b'"X"', b'"\xff"')
    (tmp_path / "status").write_bytes(text)
    out = run("vocastra-status", "-j", "-l1", tmp_path / "status", encoding="utf-8")[1]
    assert json.loads(out)["directories"][0]["id"] == "\ufffd"


def test_follow_prints_changes_alone(tmp_path):
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
            # The writer ends, its file goes, another one comes.
            writer.ended.set()
            writer.join()
            path.unlink()
            assert json.loads(follower.stdout.readline()) == {
                "problems": [f"no daemon: {path}: No such file or directory"]
            }
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
        lines = [follower.stdout.readline() for _ in range(7)]
        assert lines[:4] == ["state:   run\n", "playing: nothing\n", "no directories\n", "\n"]
        assert lines[4:] == lines[:3]
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
    ],
)
def test_wrong_use(arguments, why):
    assert run("vocastra-status", *arguments) == (3, "", why)

"""Remote directories: how their helpers are started, watched and stopped."""

import os
import re
import signal
import stat
from pathlib import Path

import pytest
from harness.daemon import PAUSE
from harness.files import publish
from harness.programs import HERE, children, is_alive
from harness.wait import wait_until


def remote(daemon, identity, kind, **attributes):
    return daemon.directory(identity, type=kind, **attributes)


def wait_available(daemon, identity, status="1"):
    def condition(root):
        found = root.find(f"directory[@id='{identity}']")
        return found is not None and found.get("status") == status

    return daemon.wait_status(condition).find(f"directory[@id='{identity}']")


# Arguments.


@pytest.mark.core
def test_arguments_of_the_cifs_helper(make_daemon):
    daemon = make_daemon()
    daemon.configure(
        remote(
            daemon,
            "r",
            "cifs",
            path="//server/share $HOME",
            username="me; too",
            password="'secret'",
            subdir="sub",
            mount_opts="vers=3.0,port=4450",
            auto_delete="010",
            ftp_poll_rate=7,
            ftp_mode="active",
        )
    )
    daemon.start(wait=False)
    run = daemon.wait_helper_runs(1)[0]
    watch = wait_available(daemon, "r").get("path")
    assert run.kind == "cifs"
    assert run.arguments == [
        "//server/share $HOME",
        "me; too",
        "'secret'",
        "sub",
        watch,
        "vers=3.0,port=4450",
        # Only "0x" makes a number anything but decimal.
        "10",
    ]
    daemon.stop()


@pytest.mark.core
def test_arguments_of_the_ftp_helper(make_daemon):
    daemon = make_daemon()
    daemon.configure(
        remote(
            daemon,
            "r",
            "ftp",
            path="ftp://server/with blank",
            username="me",
            password="*",
            subdir="sub/deeper",
            mount_opts="ignored",
            auto_delete="-1",
            ftp_poll_rate="0x10",
            ftp_mode="active",
        )
    )
    daemon.start(wait=False)
    run = daemon.wait_helper_runs(1)[0]
    watch = wait_available(daemon, "r").get("path")
    assert run.kind == "ftp"
    assert run.arguments == [
        "ftp://server/with blank",
        "sub/deeper",
        "me",
        "*",
        watch,
        # Passed on as an unsigned number.
        "4294967295",
        "16",
        "active",
    ]
    daemon.stop()


# What it starts with.


# Python ignores some signals. The process that starts the tests may ignore others.
IGNORABLE = signal.valid_signals() - {signal.SIGKILL, signal.SIGSTOP}


def test_helper_ignores_what_was_ignored_and_blocks_no_signal(make_daemon, tmp_path):
    # Not a shell: some shells reset signals themselves. tail waits forever and complains about
    # arguments that are no files.
    program = tmp_path / "helper"
    program.symlink_to("/usr/bin/tail")
    daemon = make_daemon(helpers=False, arguments=["-i", program])
    daemon.configure(remote(daemon, "r", "cifs", path="-f", username="/dev/null"))

    def disturb():
        # Signals as another process may leave them to the daemon. It catches SIGPIPE itself.
        for number in IGNORABLE:
            signal.signal(number, signal.SIG_DFL)
        for ignored in (signal.SIGHUP, signal.SIGUSR2, signal.SIGPIPE):
            signal.signal(ignored, signal.SIG_IGN)
        signal.pthread_sigmask(signal.SIG_BLOCK, {signal.SIGTERM, signal.SIGUSR1})

    daemon.start(preexec_fn=disturb)

    def signals():
        for pid in children(daemon.process.pid):
            if Path(f"/proc/{pid}/cmdline").read_bytes().startswith(os.fsencode(program)):
                text = Path(f"/proc/{pid}/status").read_text()
                return re.findall(r"^(Sig(?:Blk|Ign|Cgt)):\s*(\w+)$", text, re.MULTILINE)
        return None

    found = daemon.wait(signals, "the helper")
    ignored = 1 << signal.SIGHUP - 1 | 1 << signal.SIGUSR2 - 1
    assert found == [("SigBlk", "0" * 16), ("SigIgn", f"{ignored:016x}"), ("SigCgt", "0" * 16)]
    pids = children(daemon.process.pid)
    daemon.stop()
    assert not any(is_alive(pid) for pid in pids)


@pytest.mark.core
def test_helper_gets_the_standard_descriptors_alone(make_daemon):
    daemon = make_daemon(glossary=True)
    daemon.write_glossary()
    daemon.configure(daemon.directory("a"), remote(daemon, "r", "ftp"), remote(daemon, "s", "cifs"))
    daemon.start()
    for run in daemon.wait_helper_runs(2):
        own = {n for n, target in run.descriptors.items() if target == str(HERE / "fake_helper")}
        assert {n: run.descriptors[n] for n in run.descriptors.keys() - own} == {
            0: "/dev/null",
            1: str(daemon.stdout_path),
            2: str(daemon.log_path),
        }
    daemon.stop()


# The way of a message.


@pytest.mark.core
@pytest.mark.parametrize("kind", ["cifs", "ftp"])
def test_remote_message_is_spoken_and_everything_ends(make_daemon, kind):
    daemon = make_daemon()
    daemon.configure(remote(daemon, "r", kind, subdir="sub", display_id="far"))
    daemon.tell_helpers("silent")
    daemon.start(wait=False)
    run = daemon.wait_helper_runs(1)[0]
    scanned = f"{run.watch}/sub/"
    assert re.fullmatch(r"/tmp/watch\w{6}", str(run.watch))
    assert stat.S_IMODE(run.watch.stat().st_mode) == 0o700

    # Before the helper's first report, files are known but not queued.
    publish(run.watch / "sub" / "old.txt", "old")
    daemon.wait_log(f"From {scanned}old.txt: old", 2)
    found = wait_available(daemon, "r", "0")
    assert found.get("path") == str(run.watch)
    assert f"Directory {scanned} is receiving updates" not in daemon.log()

    daemon.tell_helpers()
    wait_available(daemon, "r")
    daemon.wait_passes(1)
    publish(run.watch / "sub" / "m.txt", "one two")
    daemon.wait_spoken(("m.txt", PAUSE + "one two "))
    assert daemon.wait_outputs(1) == ["0_far.text_live_first.raw"]
    # Taken, as from a local directory.
    assert not (run.watch / "sub" / "m.txt").exists()
    assert (run.watch / "sub" / "old.txt").exists()
    assert is_alive(run.pid)
    daemon.stop()

    assert not is_alive(run.pid)
    assert not run.watch.exists()
    log = [line for line in daemon.log() if not line.startswith(("From ", "Original is"))]
    opening = "Could not open directory " + scanned
    assert [line for line in log if line != opening] == [
        f"Processing configuration {daemon.config}",
        "Created new input directory r",
        'Directory "r" using parser PARSER text-utf8',
        'Now in "run" state',
        log[[line.startswith("Adding old.txt ") for line in log].index(True)],
        f"Directory {scanned} is receiving updates",
        log[[line.startswith("Adding m.txt ") for line in log].index(True)],
        "calling engine",
        "done calling engine",
        "copying 0_far.text_live_first.raw",
        f"Sending SIGTERM to PID {run.pid}",
        f"Removing temporary directory {run.watch}",
    ]


def test_preview_does_not_repeat_remote_files(make_daemon, tmp_path):
    last = tmp_path / "last"
    last.mkdir()
    daemon = make_daemon()
    daemon.configure(remote(daemon, "r", "cifs", preview=1, last_played_path=last))
    daemon.start()
    wait_available(daemon, "r")
    run = daemon.helper_runs()[0]
    daemon.wait_passes(1)
    publish(run.watch / "m.txt", "one")
    assert daemon.wait_outputs(1) == ["0_r.text_pre_first.raw"]
    daemon.wait_passes(3)
    assert daemon.spoken() == [("m.txt", PAUSE + "one ")]
    assert (run.watch / "m.txt").exists()
    assert [path.name for path in last.iterdir()] == ["m.txt"]
    daemon.stop()


def test_directory_is_missing_until_the_helper_makes_it(make_daemon):
    daemon = make_daemon()
    daemon.configure(daemon.directory("a"), remote(daemon, "r", "ftp", subdir="x/y"))
    daemon.tell_helpers("no-mkdir")
    daemon.start(wait=False)
    run = daemon.wait_helper_runs(1)[0]
    daemon.wait_log(f"Could not open directory {run.watch}/x/y/", 3)
    assert daemon.status() is None
    (run.watch / "x" / "y").mkdir(parents=True)
    wait_available(daemon, "r")
    daemon.wait_passes(1)
    publish(run.watch / "x" / "y" / "m.txt", "one")
    daemon.wait_spoken(("m.txt", PAUSE + "one "))
    daemon.stop()


# Reports of a helper.


@pytest.mark.parametrize(
    "kind, attributes, behaviour",
    [
        ("cifs", {}, "silent"),
        # A sign of life that does not change is none.
        ("cifs", {}, "same"),
        ("ftp", {"ftp_poll_rate": 1}, "silent"),
    ],
    ids=["cifs silent", "cifs same", "ftp silent"],
)
def test_helper_that_stops_and_continues_its_reports(make_daemon, kind, attributes, behaviour):
    daemon = make_daemon()
    daemon.configure(
        remote(daemon, "r", kind, **attributes),
        # The poll rate adds to the time that an FTP directory is given.
        remote(daemon, "slow", "ftp", ftp_poll_rate=3600),
    )
    daemon.start()
    watch = Path(wait_available(daemon, "r").get("path"))
    wait_available(daemon, "slow")
    daemon.wait_passes(1)
    # The loss is logged only once.
    daemon.tell_helpers(behaviour)
    gone = f"Directory {watch}/ is no longer receiving updates"
    daemon.wait_log(gone)
    wait_available(daemon, "r", "0")
    assert wait_available(daemon, "slow").get("status") == "1"
    # Files that still arrive are spoken.
    publish(watch / "m.txt", "one")
    daemon.wait_spoken(("m.txt", PAUSE + "one "))
    daemon.tell_helpers()
    back = f"Directory {watch}/ is receiving updates"
    daemon.wait_log(back, 2)
    wait_available(daemon, "r")
    daemon.wait_outputs(1)
    daemon.stop()
    assert [line for line in daemon.log() if f"{watch}/ is " in line] == [back, gone, back]


def test_helper_that_quits_at_once(make_daemon):
    daemon = make_daemon()
    daemon.tell_helpers("quit")
    daemon.configure(daemon.directory("a"), remote(daemon, "r", "cifs"))
    daemon.start()
    run = daemon.wait_helper_runs(1)[0]
    wait_until(lambda: not is_alive(run.pid), "the helper's end")
    daemon.drop("a", "m.txt", "one")
    daemon.wait_spoken(("m.txt", PAUSE + "one "))
    # Nobody starts it again, and files appear in the watch directory without it.
    wait_available(daemon, "r", "0")
    assert len(daemon.helper_runs()) == 1
    daemon.stop()
    assert f"Sending SIGTERM to PID {run.pid}" in daemon.log()


# Failures to start.


def test_without_helper_paths_remote_directories_are_skipped(make_daemon):
    daemon = make_daemon(helpers=False)
    daemon.configure(remote(daemon, "c", "cifs"), remote(daemon, "f", "ftp"), daemon.directory("a"))
    daemon.start()
    found = daemon.wait_status().findall("directory")
    assert [record.get("id") for record in found] == ["a"]
    daemon.stop()
    path = daemon.input("a")
    assert daemon.log() == [
        f"Processing configuration {daemon.config}",
        "Skipped directory c: Ignoring CIFS mount; no CIFS helper directory",
        "Skipped directory f: Ignoring FTP dir; no FTP helper directory",
        f"Removing contents of directory {path}",
        f'Could not execute "rm {path}/* > /dev/null 2>&1"',
        "Created new input directory a",
        'Directory "a" using parser PARSER text-utf8',
        'Now in "run" state',
    ]


@pytest.mark.parametrize("way", ["missing", "not executable", "a directory"])
def test_helper_that_cannot_be_executed(make_daemon, way):
    daemon = make_daemon()
    for helper in (daemon.cifs_helper, daemon.ftp_helper):
        helper.unlink()
        if way == "not executable":
            helper.write_text("#!/bin/sh\n")
        elif way == "a directory":
            helper.mkdir()
    daemon.configure(daemon.directory("a"), remote(daemon, "c", "cifs"), remote(daemon, "f", "ftp"))
    daemon.start()
    daemon.wait_log("Unable to fork CIFS helper")
    daemon.wait_log("Unable to fork FTP helper")
    found = {record.get("id"): record for record in daemon.wait_status().findall("directory")}
    watches = {identity: Path(found[identity].get("path")) for identity in "cf"}
    assert all(watch.is_dir() for watch in watches.values())
    # The children are gone; one that went on would be a second daemon.
    pids = children(daemon.process.pid)
    daemon.wait(lambda: not any(is_alive(pid) for pid in pids), "the children's end")
    for pid in pids:
        status = Path(f"/proc/{pid}/stat").read_text().split()[-1]
        assert os.waitstatus_to_exitcode(int(status)) == 255
    daemon.drop("a", "m.txt", "one")
    daemon.wait_spoken(("m.txt", PAUSE + "one "))
    daemon.wait_outputs(1)
    daemon.stop()
    assert daemon.log().count("Unable to fork CIFS helper") == 1
    assert not any(watch.exists() for watch in watches.values())
    ends = [line for line in daemon.log() if line.startswith(("Sending", "Removing temp"))]
    assert sorted(zip(ends[::2], ends[1::2])) == sorted(
        (f"Sending SIGTERM to PID {pid}", f"Removing temporary directory {watch}")
        for pid, watch in zip(pids, watches.values())
    )


# Their end.


def test_reload_replaces_the_changed_helper_alone(make_daemon):
    daemon = make_daemon()
    daemon.configure(remote(daemon, "r", "cifs"), remote(daemon, "s", "ftp"))
    daemon.start()
    wait_available(daemon, "r")
    wait_available(daemon, "s")
    runs = {run.kind: run for run in daemon.helper_runs()}
    old, kept = runs["cifs"], runs["ftp"]
    count = len(daemon.log())
    daemon.reconfigure(remote(daemon, "r", "cifs", username="changed"), remote(daemon, "s", "ftp"))
    new = daemon.wait_helper_runs(3)[2]
    assert new.arguments[1] == "changed"
    assert new.watch != old.watch
    assert not old.watch.exists()
    assert not is_alive(old.pid)
    assert is_alive(kept.pid)
    wait_available(daemon, "r")
    assert daemon.log()[count:] == [
        f"Processing configuration {daemon.config}",
        f"Sending SIGTERM to PID {old.pid}",
        f"Removing temporary directory {old.watch}",
        "Deleted input directory r",
        "Created new input directory r",
        'Directory "r" using parser PARSER text-utf8',
        'Directory "s" using parser PARSER text-utf8',
        f"Directory {new.watch}/ is receiving updates",
    ]
    daemon.reconfigure()
    daemon.stop()
    assert not any(is_alive(run.pid) for run in daemon.helper_runs())
    assert len(daemon.helper_runs()) == 3


def test_helper_that_ignores_sigterm_does_not_hold_up_the_end(make_daemon):
    daemon = make_daemon()
    daemon.tell_helpers("ignore-term", "silent")
    daemon.configure(remote(daemon, "r", "cifs"))
    daemon.start()
    run = daemon.wait_helper_runs(1)[0]
    daemon.stop()
    assert not run.watch.exists()
    # It is told once and not waited for.
    assert is_alive(run.pid)
    assert daemon.log()[-2:] == [
        f"Sending SIGTERM to PID {run.pid}",
        f"Removing temporary directory {run.watch}",
    ]
    os.kill(run.pid, signal.SIGKILL)


def test_type_changes_from_remote_to_local(make_daemon):
    daemon = make_daemon()
    daemon.configure(remote(daemon, "r", "cifs"))
    daemon.start()
    run = daemon.wait_helper_runs(1)[0]
    daemon.reconfigure(daemon.directory("r"))
    assert not run.watch.exists()
    assert not is_alive(run.pid)
    daemon.drop("r", "m.txt", "one")
    daemon.wait_spoken(("m.txt", PAUSE + "one "))
    daemon.stop()
    assert len(daemon.helper_runs()) == 1

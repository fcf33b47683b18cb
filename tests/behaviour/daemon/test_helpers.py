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


def remote(daemon, identity, kind, **attributes):
    return daemon.directory(identity, type=kind, **attributes)


def wait_available(daemon, identity, status="1"):
    def condition(root):
        found = root.find(f"directory[@id='{identity}']")
        return found is not None and found.get("status") == status

    return daemon.wait_status(condition).find(f"directory[@id='{identity}']")


# Python ignores some signals, and the program that starts the tests may ignore others.
IGNORABLE = signal.valid_signals() - {signal.SIGKILL, signal.SIGSTOP}


def test_helper_ignores_what_was_ignored_and_blocks_no_signal(make_daemon, tmp_path):
    # The helper is no shell, as some shells reset signals. tail waits forever and reports arguments
    # that are no files.
    program = tmp_path / "helper"
    program.symlink_to("/usr/bin/tail")
    daemon = make_daemon(helpers=False, arguments=["-i", program])
    daemon.configure(remote(daemon, "r", "cifs", path="-f", username="/dev/null"))

    def disturb():
        # Another process may start the daemon with such signals. The daemon catches SIGPIPE itself.
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
def test_helper_gets_only_the_standard_descriptors(make_daemon):
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
    assert run.kind == kind
    scanned = f"{run.watch}/sub/"
    assert re.fullmatch(r"/tmp/watch\w{6}", str(run.watch))
    assert stat.S_IMODE(run.watch.stat().st_mode) == 0o700

    # Before the helper's first beat, files are known but not queued.
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
    # The message is removed, as in a local directory.
    assert not (run.watch / "sub" / "m.txt").exists()
    assert (run.watch / "sub" / "old.txt").exists()
    assert is_alive(run.pid)
    daemon.stop()

    assert not is_alive(run.pid)
    assert not run.watch.exists()


# Their end.


def test_reload_replaces_only_the_changed_helper(make_daemon):
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

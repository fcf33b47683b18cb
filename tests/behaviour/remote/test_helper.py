"""The helpers without a daemon, with real servers. test_daemon.py has tests with a daemon."""

import os
import re
import signal
import subprocess

import pytest
from harness.programs import children, descendants, ended, is_alive
from harness.remote import HELPERS
from harness.servers import PASSWORD

LIMIT = 1 << 20  # bytes of a file that is fetched

only_ftp = pytest.mark.parametrize("make_server", ["pyftpdlib", "vsftpd"], indirect=True)
only_smb = pytest.mark.parametrize("make_server", ["smbd"], indirect=True)


@pytest.mark.core
def test_first_mirror_is_complete_before_the_first_beat(server, make_helper):
    files = {f"{number}.txt": b"%d\n" % number for number in range(12)}
    for name, text in files.items():
        server.put(name, text)
    helper = make_helper(server).start()
    helper.wait_first_beat()
    assert helper.files() == files
    assert helper.beat() == "alive 00\n"
    inode = os.stat(helper.local / ".helper.timestamp").st_ino
    helper.wait_beats(1)
    assert helper.beat() == "alive 01\n"
    assert os.stat(helper.local / ".helper.timestamp").st_ino != inode
    helper.stop()
    assert helper.messages() == []
    assert server.names() == sorted(files)


def test_failure_and_its_end_are_reported_once(server, make_proxy, make_helper):
    proxy = make_proxy(server)
    server.stop()
    helper = make_helper(server, subdir="a b/it's%")
    helper.start()
    helper.wait(lambda: proxy.connections > 2, "three tries")
    # The directory exists before the helper has seen the server.
    assert helper.local.is_dir() and helper.beat() is None
    assert len(helper.messages()) == 1

    server.start()
    helper.wait(lambda: len(helper.messages()) == 2, "a message on the directory")
    assert "works" not in helper.messages()[1]
    assert helper.beat() is None

    (server.inbox / "a b/it's%").mkdir(parents=True)
    server.put("new.txt", "New.", subdir="a b/it's%")
    helper.wait_files(new="New.")
    helper.wait_beats(2)
    assert len(helper.messages()) == 3 and helper.messages()[2] == "works again"
    helper.stop()


def test_unsafe_names_are_reported_once(server, make_helper):
    names = ["a b", "$(id)", "-rf", "~root", "q'x", "semi;colon", "new"]
    for name in names:
        server.put(name, "Evil.")
    helper = make_helper(server).start()
    helper.wait(lambda: list(helper.files()) == ["new"], "the one good name")
    helper.wait_beats(2)
    assert sorted(helper.messages()) == sorted(f'refused the name "{name}"' for name in names[:-1])
    helper.stop()


def test_sizes_of_files(server, make_helper):
    server.put("larger.txt", b"x" * (LIMIT + 1))
    server.put("large.txt", b"x" * LIMIT)
    server.put("empty.txt", "")
    helper = make_helper(server).start()
    helper.wait_files(large="x" * LIMIT, empty="")
    helper.wait_beats(2)
    helper.wait_messages(f"larger.txt is larger than {LIMIT} bytes")
    assert "larger.txt" not in helper.files()

    server.put("larger.txt", "Small.")
    helper.wait_files(larger="Small.", large="x" * LIMIT, empty="")
    helper.stop()


def test_refused_delete_is_reported_and_does_no_harm(make_server, make_helper):
    server = make_server(writable=False)
    server.put("new.txt", "New.")
    helper = make_helper(server, auto_delete=1).start()
    helper.wait_files(new="New.")
    (helper.local / "new.txt").unlink()
    helper.wait_messages("cannot delete new.txt: ")
    helper.wait_beats(2)
    helper.wait_messages("cannot delete new.txt: ")
    assert helper.files() == {}
    helper.stop()


def test_sigterm_ends_it_while_the_server_does_not_answer(server, make_helper):
    helper = make_helper(server).start()
    helper.wait_first_beat()
    server.freeze()
    helper.wait_quiet()
    helper.stop()


def usage_of_children(pid):
    """The page faults of the collected children of a process, and the signals that it ignores."""
    with open(f"/proc/{pid}/stat", encoding="utf8") as file:
        faults = file.read().rpartition(")")[2].split()[8]
    with open(f"/proc/{pid}/status", encoding="utf8") as file:
        ignored = re.search(r"^SigIgn:\s*(\w+)", file.read(), re.M)[1]
    return int(faults), int(ignored, 16)


def test_looks_and_transfers_start_no_process(server, make_helper):
    helper = make_helper(server, auto_delete=1).start()
    helper.wait_first_beat()
    server.put("new.txt", "New.")
    helper.wait_files(new="New.")
    (helper.local / "new.txt").unlink()
    helper.wait(lambda: server.names() == [], "the file to be deleted")
    helper.wait_beats(3)
    (worker,) = children(helper.process.pid)
    assert children(worker) == []
    for pid in (helper.process.pid, worker):
        faults, ignored = usage_of_children(pid)
        # If SIGCHLD were ignored, children would not be counted.
        assert faults == 0 and not ignored >> signal.SIGCHLD - 1 & 1
    helper.stop()


def test_sigint_is_ignored(server, make_helper):
    helper = make_helper(server).start()
    helper.wait_first_beat()
    helper.process.send_signal(signal.SIGINT)
    helper.wait_beats(2)
    helper.stop()


def test_ends_with_its_parent(server, make_helper):
    helper = make_helper(server)
    helper.command = ["/bin/sh", "-c", '"$@" & echo $! >"$0" && wait', str(helper.root / "pid")] + (
        helper.command
    )
    helper.start()
    helper.wait_first_beat()
    pids = descendants(int(helper.read("pid")))
    assert len(pids) == 2 and all(is_alive(pid) for pid in pids)
    helper.process.kill()
    helper.process.wait()
    assert all(ended(pid) for pid in pids)
    assert list(helper.scratch.iterdir()) == []


@pytest.mark.parametrize("make_server", ["pyftpdlib", "smbd"], indirect=True)
def test_password_is_not_in_the_process_list(server, make_helper):
    helper = make_helper(server).start()
    helper.wait_first_beat()
    pids = descendants(helper.process.pid)
    assert len(pids) == 2
    for pid in pids:
        for name in ("cmdline", "environ"):
            with open(f"/proc/{pid}/{name}", "rb") as file:
                text = file.read()
            assert text and PASSWORD.strip().encode() not in text, name
        with open(f"/proc/{pid}/cmdline", "rb") as file:
            assert file.read().rstrip(b"\0") == str(HELPERS / server.kind).encode()
    helper.stop()


@pytest.mark.parametrize("name, count", [("ftp", 8), ("cifs", 7)])
def test_command_line(name, count):
    def run(*arguments):
        command = [HELPERS / name, *arguments]
        done = subprocess.run(command, capture_output=True, text=True, check=False)
        return done.returncode, done.stdout, done.stderr

    text = f"{name}: {count} arguments are needed, and {{}} are given; see --help\n"
    assert run() == (2, "", text.format(0))
    assert run("a", "b") == (2, "", text.format(2))
    assert run("--wrong")[0] == 2
    assert run("--help")[:2][1].startswith(f"Usage: {name} PATH ")
    status, out, err = run("--version")
    assert (status, out.split()[0], err) == (0, name, "")


@pytest.mark.parametrize("make_server", ["pyftpdlib"], indirect=True)
def test_directory_with_100_000_files(server, make_helper):
    good = {f"{number}.txt": b"%d\n" % number for number in range(0, 20000, 500)}
    for number in range(100_000 - len(good) - 1):
        with open(server.inbox / f"large{number}.txt", "wb") as file:
            file.truncate(LIMIT + 1)
    for name, text in good.items():
        server.put(name, text)
    helper = make_helper(server).start()
    helper.wait_first_beat()
    assert helper.files() == good
    server.put("new.txt", "New.")
    helper.wait(lambda: "new.txt" in helper.files(), "the last file")
    assert helper.files() == {**good, "new.txt": b"New."}
    helper.wait_beats(2)
    assert [text for text in helper.messages() if " is larger than " not in text] == [
        "more messages about files are left out for a minute"
    ]
    helper.stop()


@only_ftp
@pytest.mark.parametrize("mode", ["active", "passive"])
def test_ftp_mode(make_server, make_helper, mode):
    server = make_server(modes=[mode])
    server.put("new.txt", "New.")
    helper = make_helper(server, mode=f"{mode},settle=0").start()
    helper.wait_files(new="New.")
    helper.stop()

    helper = make_helper(server, mode={"active": "passive", "passive": "active"}[mode]).start()
    helper.wait_trouble()
    assert re.match("no updates: 5(00|02|50) ", helper.messages()[0]), helper.messages()
    assert helper.files() == {} and helper.beat() is None
    helper.stop()


@only_ftp
def test_ftp_paths(server, make_helper):
    server.put("new.txt", "New.")
    host = f"127.0.0.1:{server.port}"
    for path in (
        f"ftp://{host}/inbox",
        f"ftp://{host}/inbox/",
        f"{host}/./inbox",
        f"{host}//inbox",
    ):
        if server.name == "vsftpd" and "//inbox" in path:
            path = f"{host}/{server.inbox}"  # its users are not locked into their directory
        helper = make_helper(server, path=path).start()
        helper.wait_files(new="New.")
        helper.stop()
    for path in (f"ftp://{host}", host):
        helper = make_helper(server, path=path, subdir="inbox").start()
        helper.wait_files(new="New.")
        helper.stop()
    for path in ("http://127.0.0.1/inbox", "user@127.0.0.1/inbox", ""):
        helper = make_helper(server, path=path).start()
        assert helper.process.wait(60) == 1
        assert helper.messages() == ["PATH is not host[:port][/directory]"]


@only_ftp
def test_transfer_that_breaks_off_delivers_nothing(make_server, make_helper):
    server = make_server(rate=50_000)
    text = "x" * 200_000
    helper = make_helper(server)
    helper.start()
    helper.wait_first_beat()
    server.put("new.txt", text)
    helper.wait(helper.parts, "a transfer")
    server.stop()
    helper.wait_trouble()
    assert helper.files() == {}
    server.start()
    helper.wait(helper.files, "the file")
    assert helper.files() == {"new.txt": text.encode()}
    helper.stop()


@only_smb
@pytest.mark.parametrize(
    "options", ["vers=3.1.1", "vers=3,domain=WORKGROUP", "vers=2.1", "vers=default"]
)
def test_mount_options(server, make_helper, options):
    server.put("new.txt", "New.")
    helper = make_helper(server, mount_opts=f"port={server.port},{options},settle=0").start()
    helper.wait_files(new="New.")
    helper.stop()
    assert helper.messages() == []


@only_smb
def test_mount_option_of_an_old_protocol(server, make_helper):
    helper = make_helper(server, mount_opts=f"port={server.port},vers=1.0").start()
    helper.wait_trouble()  # smbd has it switched off
    assert helper.beat() is None
    helper.stop()


@pytest.mark.parametrize("make_server", ["pyftpdlib", "smbd"], indirect=True)
def test_unknown_option_is_an_error(server, make_helper):
    name, place = {"ftp": ("mode", "MODE"), "cifs": ("mount_opts", "MOUNT-OPTS")}[server.kind]
    helper = make_helper(server, **{name: "settle=1,secret=open sesame"}).start()
    assert helper.process.wait(60) == 1
    assert helper.messages() == [f'unknown option "secret=" in {place}']
    assert helper.local.is_dir()


@only_smb
@pytest.mark.parametrize(
    "changes",
    [{"mount_opts": "guest,settle=0,port={}"}, {"user": "", "mount_opts": "settle=0,port={}"}],
)
def test_guest(server, make_helper, changes):
    server.put("new.txt", "New.")
    changes = {name: value.format(server.port) for name, value in changes.items()}
    helper = make_helper(server, path="//127.0.0.1/open/inbox", **changes).start()
    helper.wait_files(new="New.")
    helper.stop()


@only_smb
def test_memory_is_limited(server, make_helper):
    helper = make_helper(server).start()
    helper.wait_first_beat()
    (worker,) = children(helper.process.pid)
    with open(f"/proc/{worker}/limits", encoding="utf8") as file:
        limit = re.search(r"^Max data size +(\w+)", file.read(), re.M)[1]
    assert limit.isdigit()
    helper.stop()


@only_smb
def test_temporary_directory_that_is_missing(server, make_helper):
    server.put("new.txt", "New.")
    helper = make_helper(server)
    helper.scratch = helper.root / "later"
    helper.start().wait_messages(
        "no updates: cannot make a temporary directory: No such file or directory"
    )
    helper.scratch.mkdir()
    helper.wait_files(new="New.")
    helper.stop()
    # Only the failure and its end are reported: the worker has not died.
    assert len(helper.messages()) == 2


@only_smb
def test_smb_paths(server, make_helper):
    server.put("new.txt", "New.")
    for path in ("\\\\127.0.0.1\\share\\inbox", "//127.0.0.1/share/inbox/"):
        helper = make_helper(server, path=path).start()
        helper.wait_files(new="New.")
        helper.stop()
    helper = make_helper(server, path="//127.0.0.1/share", subdir="inbox").start()
    helper.wait_files(new="New.")
    helper.stop()
    for path in ("127.0.0.1/share", "//127.0.0.1", "//127.0.0.1/", ""):
        helper = make_helper(server, path=path).start()
        assert helper.process.wait(60) == 1
        assert helper.messages() == ["PATH is not //host/share[/directory]"]

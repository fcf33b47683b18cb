"""The helpers by themselves, against real servers; test_daemon.py has the rest."""

import os
import shutil
import signal
import subprocess

import pytest
from harness.programs import ended, is_alive
from harness.remote import HELPERS
from harness.servers import PASSWORD
from harness.wait import wait_until

LIMIT = 1 << 20  # bytes of a file that is fetched

# A piece of the password that no client's file has to quote.
SECRET = "e;f&g|h#i!j"

only_ftp = pytest.mark.parametrize("make_server", ["pyftpdlib", "vsftpd"], indirect=True)
only_smb = pytest.mark.parametrize("make_server", ["smbd"], indirect=True)


class Gate:
    """Lets the helper's client run only so many times."""

    def __init__(self, helper, runs):
        self.helper = helper
        self.runs = helper.root / "runs"
        self.allowed = helper.root / "allowed"
        self.runs.write_text("0\n")
        self.open(runs)
        helper.wrap(
            helper.server.client,
            f"run=$(($(cat {self.runs}) + 1))\n"
            f"echo $run >{self.runs}\n"
            f'until [ "$(cat {self.allowed})" -ge $run ]; do sleep 0.02; done',
        )

    def open(self, runs):
        """Lets the client run until that many runs are done, then waits until it wants more."""
        hidden = self.allowed.with_name("hidden")
        hidden.write_text(f"{runs}\n")
        hidden.rename(self.allowed)

    def wait(self, runs):
        self.open(runs)
        self.helper.wait(
            lambda: self.runs.read_text() == f"{runs + 1}\n", f"{runs} runs of the client"
        )


def test_first_mirror_is_whole_before_the_first_beat(server, make_helper):
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


def test_first_mirror_goes_on_where_the_server_left_it(server, make_helper):
    files = {f"{number}.txt": b"%d\n" % number for number in range(30)}
    for name, text in files.items():
        server.put(name, text)
    helper = make_helper(server).start()
    helper.wait(helper.files, "the first file")
    server.stop()
    helper.wait_trouble()
    assert helper.beat() is None and len(helper.files()) < len(files)
    server.start()
    helper.wait_first_beat()
    assert helper.files() == files
    helper.stop()


def test_trouble_is_reported_once_and_its_end(server, make_helper):
    server.stop()
    helper = make_helper(server, subdir="a b/it's")
    gate = Gate(helper, 1)
    helper.start()
    for runs in range(1, 4):
        gate.wait(runs)
    # The directory is there although the helper has seen nothing yet.
    assert helper.local.is_dir() and helper.beat() is None
    assert len(helper.messages()) == 1
    assert "refused" in helper.messages()[0].lower()

    server.start()
    for runs in range(4, 7):
        gate.wait(runs)
    # Now it is the directory that is missing.
    assert len(helper.messages()) == 2
    assert "works" not in helper.messages()[1]
    assert helper.beat() is None

    (server.inbox / "a b/it's").mkdir(parents=True)
    server.put("new.txt", "New.", subdir="a b/it's")
    gate.open(1000)
    helper.wait_files(new="New.")
    helper.wait_beats(2)
    assert len(helper.messages()) == 3 and helper.messages()[2] == "works again"
    helper.stop()


def test_file_counts_when_two_listings_agree(server, make_helper):
    helper = make_helper(server)
    gate = Gate(helper, 2)
    helper.start()
    gate.wait(2)
    assert helper.beat() == "alive 00\n"
    for runs in range(3, 6):
        with open(server.inbox / "new.txt", "a", encoding="utf8") as file:
            file.write("grows ")
        gate.wait(runs)
        assert helper.files() == {}
    gate.open(1000)
    helper.wait_files(new="grows grows grows ")
    helper.stop()


def test_listings_before_and_after_an_outage_do_not_count(server, make_helper):
    helper = make_helper(server)
    gate = Gate(helper, 2)
    helper.start()
    gate.wait(2)
    # An upload that ends half-way, because the server does.
    server.put("new.txt", "half ")
    gate.wait(3)
    server.stop()
    gate.wait(4)
    server.start()
    gate.wait(5)
    assert helper.files() == {}
    with open(server.inbox / "new.txt", "a", encoding="utf8") as file:
        file.write("and half")
    gate.open(1000)
    helper.wait_files(new="half and half")
    assert helper.messages()[1:] == ["works again"]
    helper.stop()


def test_file_is_gone_when_two_listings_do_not_show_it(server, make_helper):
    server.put("a.txt", "A.")
    server.put("b.txt", "B.")
    helper = make_helper(server)
    gate = Gate(helper, 4)
    helper.start()
    gate.wait(4)
    helper.wait_files(a="A.", b="B.")
    server.remove("a.txt")
    gate.wait(5)
    helper.wait_files(a="A.", b="B.")
    gate.wait(6)
    helper.wait_files(b="B.")
    helper.stop()


@pytest.mark.parametrize("what", ["listing", "list"])
def test_listing_that_is_cut_counts_for_nothing(server, make_helper, what):
    server.put("a.txt", "A.")
    server.put("b.txt", "B.")
    helper = make_helper(server)
    # The client ends well without a whole listing, or there is no room for the helper's lists.
    program, status = {"listing": (server.client, 0), "list": ("sort", 2)}[what]
    helper.wrap(
        program,
        f"if [ -e {helper.root}/cut ]; then\n"
        f"  echo >>{helper.root}/cuts\n"
        "  echo noise >&2\n"
        f'  /usr/bin/{program} "$@" | head -c 7\n'
        f"  exit {status}\n"
        "fi",
    )
    helper.start()
    helper.wait_first_beat()
    helper.wait_files(a="A.", b="B.")
    (helper.local / "a.txt").unlink()
    (helper.root / "cut").touch()
    helper.wait(lambda: len(helper.read("cuts")) >= 3, "three listings that were cut")
    (helper.root / "cut").unlink()
    helper.wait_beats(3)
    helper.wait_files(b="B.")
    assert len(helper.messages()) == 2 and "again" in helper.messages()[1]
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


def test_file_that_comes_with_another_size(server, make_helper):
    server.put("new.txt", "All of it.")
    helper = make_helper(server)
    helper.wrap(
        server.client,
        f'/usr/bin/{server.client} "$@"\n'
        "status=$?\n"
        f"[ -e {helper.root}/well ] || [ ! -e .helper.part ] || truncate -s 3 .helper.part\n"
        "exit $status",
    )
    helper.start()
    helper.wait_beats(2)
    helper.wait_messages("new.txt changed while it was fetched")
    assert helper.files() == {}
    (helper.root / "well").touch()
    helper.wait_files(new="All of it.")
    helper.wait_messages("new.txt changed while it was fetched", "fetched new.txt now")
    helper.stop()


def test_auto_delete_spares_a_file_that_has_changed(server, make_helper):
    server.put("a.txt", "A.")
    server.put("b.txt", "B.")
    helper = make_helper(server, auto_delete=1)
    gate = Gate(helper, 4)
    helper.start()
    gate.wait(4)
    helper.wait_files(a="A.", b="B.")
    # Both are taken, while the helper does not look, and one of them is new by then.
    (helper.local / "a.txt").unlink()
    (helper.local / "b.txt").unlink()
    server.put("b.txt", "Another B.")
    gate.open(1000)
    helper.wait_files(b="Another B.")
    helper.wait_beats(2)
    assert server.names() == ["b.txt"]
    helper.stop()
    assert helper.messages() == []


def test_delete_that_the_server_refuses(make_server, make_helper):
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


def test_sigterm_while_the_server_is_mute(server, make_helper):
    helper = make_helper(server).start()
    helper.wait_first_beat()
    server.freeze()
    pid = wait_until(helper.client_pid, "the client to run")
    helper.stop()
    assert ended(pid)
    # It did not wait for the end of the client's time-out.
    assert helper.messages() == []


def test_sigterm_ends_the_client(server, make_helper):
    helper = make_helper(server)
    helper.wrap(server.client, f"echo $$ >{helper.root}/pid && exec sleep 1000")
    helper.wrap("timeout", 'shift 3; set -- -s KILL 1000 "$@"')
    helper.start()
    helper.wait(lambda: helper.read("pid").endswith("\n"), "the client to run")
    pid = int(helper.read("pid"))
    assert is_alive(pid)
    helper.stop()
    assert ended(pid)


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
    pid = int(helper.read("pid"))
    assert is_alive(pid)
    helper.process.kill()
    helper.process.wait()
    assert ended(pid)
    assert list(helper.scratch.iterdir()) == []


def test_password_is_in_private_files_only(server, make_helper):
    helper = make_helper(server)
    helper.wrap(
        server.client,
        f'printf "%s\\n" "$@" >>{helper.root}/arguments\n'
        f"env >>{helper.root}/environment\n"
        f"find {helper.scratch} -type f -exec grep -lF '{SECRET}' {{}} + |\n"
        f"  xargs stat -c %a >>{helper.root}/modes",
    )
    helper.start()
    helper.wait_beats(2)
    helper.stop()
    assert SECRET in PASSWORD
    assert set(helper.read("modes").split()) == {"600"}
    assert "PATH=" in helper.read("environment") and SECRET not in helper.read("environment")
    assert helper.read("arguments") and SECRET not in helper.read("arguments")


def test_client_that_hangs_is_ended(server, make_helper):
    helper = make_helper(server)
    helper.wrap(server.client, f"[ -e {helper.root}/well ] || exec sleep 1000")
    helper.wrap("timeout", 'shift 3; set -- -s KILL 1 "$@"')  # here not only after a minute
    helper.start()
    helper.wait_messages("no end after 60 seconds")
    assert helper.beat() is None
    (helper.root / "well").touch()
    helper.wait_first_beat()
    helper.wait_messages("no end after 60 seconds", "works again")
    helper.stop()


def test_helper_in_another_place(server, make_helper, tmp_path):
    place = tmp_path / "a place"
    shutil.copytree(HELPERS, place / "of its own")
    (place / "helper").symlink_to(f"of its own/{server.kind}")
    server.put("new.txt", "New.")
    helper = make_helper(server, script=place / "helper", watch=tmp_path / "a watch; directory")
    helper.start()
    helper.wait_files(new="New.")
    helper.stop()


def test_with_the_tools_of_a_small_system(server, make_helper):
    busybox = shutil.which("busybox")
    helper = make_helper(server, auto_delete=1)
    for name in subprocess.check_output([busybox, "--list"], text=True).split():
        (helper.bin / name).symlink_to(busybox)
    helper.command = [busybox, "sh", *helper.command]
    for name in ["a.txt", "b.txt", "a b", "t\u00fcr"]:
        server.put(name, name[0])
    helper.start()
    helper.wait_files(a="a", b="b")
    helper.wait_beats(2)
    (helper.local / "a.txt").unlink()
    helper.wait(lambda: "a.txt" not in server.names(), "the end of what was taken")
    server.put("c.txt", "c")
    helper.wait_files(b="b", c="c")
    server.remove("b.txt")
    helper.wait_files(c="c")
    assert sorted(helper.messages()) == ['refused the name "a b"', 'refused the name "t??r"']
    helper.stop()


def test_wrong_number_of_arguments(server):
    done = subprocess.run([HELPERS / server.kind, "x"], capture_output=True, check=False)
    assert done.returncode == 2
    assert done.stderr.startswith(f"usage: {server.kind} PATH ".encode())


@only_ftp
@pytest.mark.parametrize("mode", ["active", "passive"])
def test_ftp_mode(make_server, make_helper, mode):
    server = make_server(modes=[mode])
    server.put("new.txt", "New.")
    helper = make_helper(server, mode=mode).start()
    helper.wait_files(new="New.")
    helper.stop()

    helper = make_helper(server, mode={"active": "passive", "passive": "active"}[mode]).start()
    helper.wait_trouble()
    assert "not understood" in helper.messages()[0] or "Permission denied" in helper.messages()[0]
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
    for path in ("sftp://127.0.0.1/inbox", "user@127.0.0.1/inbox", ""):
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
    helper.wait(lambda: (helper.local / ".helper.part").exists(), "a transfer")
    server.stop()
    helper.wait_trouble()
    assert helper.files() == {}
    server.start()
    helper.wait(helper.files, "the file")
    assert helper.files() == {"new.txt": text.encode()}
    helper.stop()


@only_ftp
def test_beats_between_two_transfers(make_server, make_helper):
    server = make_server(rate=50_000)
    helper = make_helper(server)
    gate = Gate(helper, 2)
    helper.start()
    gate.wait(2)
    for name in ("a.txt", "b.txt"):
        server.put(name, "x" * 1000)
    gate.wait(5)  # two listings, one transfer; the second transfer waits
    assert len(helper.files()) == 1
    assert helper.beat() == "alive 02\n"  # of the first mirror, the first listing, the transfer
    gate.open(1000)
    helper.wait(lambda: len(helper.files()) == 2, "the second file")
    helper.stop()


@only_smb
@pytest.mark.parametrize(
    "options", ["vers=3.1.1", "vers=3,domain=WORKGROUP", "vers=2.1", "vers=default,rw"]
)
def test_mount_options(server, make_helper, options):
    server.put("new.txt", "New.")
    helper = make_helper(server, mount_opts=f"port={server.port},{options}").start()
    helper.wait_files(new="New.")
    helper.stop()
    assert helper.messages() == (["ignored in MOUNT-OPTS: rw"] if ",rw" in options else [])


@only_smb
def test_mount_option_of_an_old_protocol(server, make_helper):
    helper = make_helper(server, mount_opts=f"port={server.port},vers=1.0").start()
    helper.wait_trouble()  # smbd has it switched off
    assert helper.beat() is None
    helper.stop()


@only_smb
def test_mount_options_that_are_ignored(server, make_helper):
    options = f"uid=3,password={SECRET},port={server.port},port=x,vers=9,*"
    helper = make_helper(server, mount_opts=options).start()
    helper.wait_beats(2)
    helper.stop()
    assert helper.messages() == ["ignored in MOUNT-OPTS: uid password port vers *"]


@only_smb
@pytest.mark.parametrize(
    "changes", [{"mount_opts": "guest,port={}"}, {"user": "", "mount_opts": "port={}"}]
)
def test_guest(server, make_helper, changes):
    server.put("new.txt", "New.")
    changes = {name: value.format(server.port) for name, value in changes.items()}
    helper = make_helper(server, path="//127.0.0.1/open/inbox", **changes).start()
    helper.wait_files(new="New.")
    helper.stop()


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

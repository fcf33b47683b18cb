"""Sessions with real servers: kept, lost, cut, encrypted and refused ones."""

import os
import re
import signal

import pytest
from harness.programs import children, ended
from harness.servers import PASSWORD, run_quietly

only_vsftpd = pytest.mark.parametrize("make_server", ["vsftpd"], indirect=True)
only_root = pytest.mark.skipif(os.getuid() != 0, reason="only root can put files in place")
only_sshd = pytest.mark.parametrize("make_server", ["sshd"], indirect=True)

# A session is cut within so many bytes from the server: greeting, login, two looks and some files.
CUT_RANGE = {"pyftpdlib": 2000, "vsftpd": 2000, "sshd": 6000, "smbd": 4000}
CUTS = 13


class Taker:
    """Takes the files that a helper delivers, as the daemon does."""

    def __init__(self, helper):
        self.helper = helper
        self.taken = []

    def look(self):
        for name, text in self.helper.files().items():
            (self.helper.local / name).unlink()
            self.taken.append((name, text.decode()))
        return self.taken

    def wait(self, *expected):
        self.helper.wait(lambda: len(self.look()) >= len(expected), f"all of {expected}")
        self.assert_taken(*expected)

    def assert_taken(self, *expected):
        assert sorted(self.look()) == sorted(expected)


@pytest.mark.core
def test_one_session_for_many_looks(server, make_proxy, make_helper):
    proxy = make_proxy(server)
    server.put("old.txt", "Old.")
    helper = make_helper(server, auto_delete=1).start()
    helper.wait_first_beat()
    taker = Taker(helper)
    taker.wait(("old.txt", "Old."))
    helper.wait(lambda: server.names() == [], "the file to be deleted")
    server.put("new.txt", "New.")
    taker.wait(("old.txt", "Old."), ("new.txt", "New."))
    helper.wait_beats(3)
    assert proxy.connections == 1
    helper.stop()
    assert helper.messages() == []


@pytest.mark.parametrize("part", [0.2, 0.5, 0.8])
def test_connection_that_is_cut_anywhere(server, make_proxy, make_helper, part):
    proxy = make_proxy(server)
    limits = [int((number + part) * CUT_RANGE[server.name] / CUTS) for number in range(CUTS)]
    proxy.next_limit = lambda: limits.pop(0) if limits else None
    messages = [(f"{number}.txt", f"{number} " * 40) for number in range(12)]
    helper = make_helper(server).start()
    taker = Taker(helper)
    put = []

    def work():
        if len(put) < min(proxy.connections, len(messages)):
            put.append(messages[len(put)])
            server.put(*put[-1])
        return taker.look() is not None and proxy.connections > CUTS

    helper.wait(work, "the last cut")
    taker.wait(*messages)
    helper.wait_beats(3)
    taker.assert_taken(*messages)
    helper.stop()


def test_worker_that_is_killed(server, make_helper):
    messages = [(f"{number}.txt", f"Number {number}.") for number in range(20)]
    server.put(*messages[0])
    helper = make_helper(server).start()
    helper.wait_first_beat()
    taker = Taker(helper)
    taker.wait(messages[0])
    for count in range(1, 4):
        (worker,) = children(helper.process.pid)
        for message in messages[count::4]:
            server.put(*message)
        helper.wait(lambda: helper.files() or helper.parts(), "a transfer")
        os.kill(worker, signal.SIGKILL)
        assert ended(worker)
        taker.look()
        helper.wait_beats(1)
    for message in messages[4::4]:
        server.put(*message)
    taker.wait(*messages)
    helper.wait_beats(3)
    taker.assert_taken(*messages)
    helper.stop()


@only_vsftpd
@pytest.mark.parametrize("tls", ["explicit", "implicit"])
def test_tls(make_server, make_helper, tls):
    server = make_server(tls=tls)
    server.put("new.txt", "New.")
    helper = make_helper(server).start()
    helper.wait_files(new="New.")
    helper.wait_beats(2)
    helper.stop()
    assert helper.messages() == []


@only_vsftpd
@pytest.mark.parametrize("tls", ["explicit", "implicit"])
@pytest.mark.parametrize(
    "host, mode, message",
    [
        ("127.0.0.1", "passive", "SSL certificate problem: "),
        ("127.0.0.2", None, "SSL: no alternative certificate subject name matches "),
    ],
)
def test_certificate_that_is_not_trusted(make_server, make_helper, tls, host, mode, message):
    server = make_server(tls=tls, host=host)
    server.put("new.txt", "New.")
    helper = make_helper(server, **({"mode": mode} if mode else {})).start()
    helper.wait_messages(f"no updates: {message}")
    assert helper.files() == {} and helper.beat() is None
    helper.stop()


def put_in_place(directory, place):
    """A command prefix that mounts a directory over another one; needs root."""
    script = f'mount --bind {directory} {place} && exec "$@"'
    return ["unshare", "--mount", "sh", "-c", script, "sh"]


@only_vsftpd
@only_root
@pytest.mark.parametrize("is_trusted", [True, False])
def test_authorities_of_the_system(make_server, make_helper, is_trusted):
    server = make_server(tls="explicit")
    server.put("new.txt", "New.")
    authorities = server.root / "authorities"
    authorities.mkdir()
    if is_trusted:
        (authorities / "ca.crt").write_bytes((server.root / "ca.crt").read_bytes())
    run_quietly("openssl", "rehash", authorities)
    helper = make_helper(server, mode="settle=0")
    helper.command = put_in_place(authorities, "/etc/ssl/certs") + helper.command
    helper.start()
    if is_trusted:
        helper.wait_files(new="New.")
    else:
        helper.wait_messages("no updates: SSL certificate problem: ")
    helper.stop()


@pytest.mark.parametrize("make_server", ["pyftpdlib"], indirect=True)
def test_server_that_refuses_to_encrypt_data(make_server, make_helper):
    server = make_server(clear_data=True)
    server.put("new.txt", "New.")
    mode = f"settle=0,ca={server.root}/ca.crt"
    helper = make_helper(server, path=f"ftpes://{server.path}", mode=mode).start()
    helper.wait_messages("no updates: 536 No protection of data.")
    commands = re.findall(r"<- ([A-Z]+)", server.log())
    assert "PROT" in commands
    assert not {"EPSV", "PASV", "MLSD", "LIST", "RETR"} & set(commands), commands
    assert helper.files() == {} and helper.beat() is None
    helper.stop()


@only_vsftpd
def test_server_without_tls(make_server, make_helper):
    server = make_server()
    helper = make_helper(server, path=f"ftpes://{server.path}").start()
    helper.wait_trouble()
    assert "PASS" not in server.log() and "works" not in helper.messages()[0]
    helper.stop()


@only_sshd
def test_host_key_that_is_not_known(make_server, make_helper):
    server = make_server()
    server.known = "user_key"
    helper = make_helper(server).start()
    helper.wait_messages("no updates: the server's host key is not that of ")
    assert helper.beat() is None
    helper.stop()


@only_sshd
@pytest.mark.parametrize("password", [PASSWORD, "wrong"])
@pytest.mark.parametrize("login", [pytest.param("password", marks=only_root), "locked key"])
def test_sftp_with_password(make_server, make_helper, login, password):
    server = make_server(login=login)
    server.put("new.txt", "New.")
    helper = make_helper(server, password=password).start()
    if password == PASSWORD:
        helper.wait_files(new="New.")
    else:
        helper.wait_messages("no updates: login denied")
        assert helper.beat() is None
    helper.stop()


@only_sshd
@pytest.mark.parametrize("directory", ["tree/inbox", "link/.."])
def test_sftp_with_a_directory_that_begins_at_the_root(make_server, make_helper, directory):
    server = make_server()
    server.put("new.txt", "New.")
    (server.inbox / "deeper").mkdir()  # For a server, ".." leads up from the link's target.
    (server.root / "link").symlink_to(server.inbox / "deeper")
    path = f"sftp://127.0.0.1:{server.port}/{server.root}/{directory}"
    helper = make_helper(server, path=path, auto_delete=1).start()
    helper.wait_first_beat()
    Taker(helper).wait(("new.txt", "New."))
    helper.wait(lambda: server.names() == ["deeper"], "the file to be deleted")
    helper.stop()

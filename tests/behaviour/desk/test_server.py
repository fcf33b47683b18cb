"""The desk as a server: addresses, TLS, headers, events, users, its end."""

import contextlib
import json
import os
import re
import ssl
import time
from pathlib import Path

import pytest
from harness.desk import PASSWORD, Browser, receive_all
from harness.programs import run, start
from harness.servers import make_certificates
from harness.wait import LIMIT, wait_until


@pytest.mark.parametrize(
    "arguments, error",
    [
        (["--listen", "0.0.0.0:0"], "others could read passwords"),
        (["--listen", "[::]:0"], "others could read passwords"),
        (["--listen", "localhost:80"], '"localhost" is no IPv4 address'),
        (["--tls-key", "key"], "go together"),
        (["--role", "say"], "--role goes with --add-user"),
        (["--role", "king", "--add-user", "a"], 'no role "king"'),
        (["operand"], 'unknown argument "operand"'),
    ],
)
def test_wrong_use(arguments, error):
    status, out, err = run("vocastra-desk", *arguments)
    assert (status, out) == (2, "") and error in err


def test_failures_to_start(desk, tmp_path):
    (tmp_path / "empty").touch()
    where = ["--listen", "127.0.0.1:0", "--run", tmp_path]
    for arguments, error in [
        (["--listen", f"127.0.0.1:{desk.port}"], f"127.0.0.1:{desk.port}: Address already in use"),
        ([*where, "--tls-certificate", "/none", "--tls-key", "/none"], "/none: No such file"),
        (
            [*where, "--tls-certificate", tmp_path / "empty", "--tls-key", tmp_path / "empty"],
            "the server does not start: ",
        ),
    ]:
        status, _, err = run("vocastra-desk", *arguments)
        assert status == 1 and f"vocastra-desk: {error}" in err


def test_password_comes_from_standard_input(make_desk):
    desk = make_desk()
    assert run(
        *("vocastra-desk", "--add-user", "short", "--users", desk.root / "users"),
        prefix=("sh", "-c", 'echo 1234567 | "$@"', "sh"),
    ) == (1, "", "vocastra-desk: a password must have 8 to 256 bytes\n")
    status, _, err = run("vocastra-desk", "--add-user", "none", "--users", desk.root / "users")
    assert (status, err) == (1, "vocastra-desk: no password\n")
    assert "short" not in (desk.root / "users").read_text()


def test_password_is_not_echoed(make_desk):
    desk = make_desk(users=())
    user = ("--add-user", "eve", "--users", desk.root / "users")
    terminal, end = os.openpty()
    process = start("vocastra-desk", *user, stdin=end, stdout=end, stderr=end)
    os.close(end)
    shown = ""
    for question in ("Password: ", "Again: "):
        while question not in shown:
            shown += os.read(terminal, 1000).decode()
        os.write(terminal, f"{PASSWORD}\n".encode())
    assert process.wait(LIMIT) == 0
    with contextlib.suppress(OSError):  # The end of a terminal.
        shown += os.read(terminal, 1000).decode()
    os.close(terminal)
    assert PASSWORD not in shown
    desk.start()
    assert Browser(desk).send("POST", "/login", {"user": "eve", "password": PASSWORD}).status == 303


def test_headers_confine_the_page(desk, browser):
    for path in ("/", "/login", "/style.css", "/none", "/healthz"):
        headers = Browser(desk).get(path).headers
        policy = headers["Content-Security-Policy"]
        assert policy.startswith("default-src 'none'; ") and "unsafe" not in policy
        assert "frame-ancestors 'none'" in policy
        assert headers["X-Content-Type-Options"] == "nosniff"
        assert headers["Referrer-Policy"] == "no-referrer"
    assert browser.get("/").headers["Cache-Control"] == "no-store"
    assert browser.get("/style.css").headers["Cache-Control"] == "max-age=3600"
    assert browser.send("HEAD", "/").status == 200
    refused = browser.send("DELETE", "/")
    assert (refused.status, refused.headers["Allow"]) == (405, "GET, HEAD, POST")


def test_cookie_is_sent_to_the_server_only(desk):
    cookie = Browser(desk).log_in("say").headers["Set-Cookie"]
    assert re.fullmatch(
        r"desk=[0-9a-f]{64}; Path=/; HttpOnly; SameSite=Strict; Max-Age=43200", cookie
    )


@pytest.mark.filterwarnings("ignore:ssl.TLSVersion")
def test_tls(make_desk, tmp_path):
    make_certificates(tmp_path, "127.0.0.1")
    desk = make_desk(
        ["--tls-certificate", tmp_path / "server.crt", "--tls-key", tmp_path / "server.key"]
    ).start()
    browser = Browser(desk, ssl.create_default_context(cafile=tmp_path / "ca.crt"))
    cookie = browser.log_in("say").headers["Set-Cookie"]
    assert cookie.startswith("__Host-desk=") and cookie.endswith("; Secure")
    with browser.watch() as watcher:
        assert b"200 OK" in watcher.recv(20)
        assert desk.exchange(b"GET / HTTP/1.1\r\nHost: a\r\n\r\n")[:5] != b"HTTP/"
        old = ssl.create_default_context(cafile=tmp_path / "ca.crt")
        old.set_ciphers("ALL:@SECLEVEL=0")
        old.minimum_version = ssl.TLSVersion.TLSv1
        old.maximum_version = ssl.TLSVersion.TLSv1_1
        with pytest.raises((ssl.SSLError, ConnectionError)):
            Browser(desk, old).get("/login")
        with desk.connect() as silent:
            assert receive_all(silent) == b""  # The desk has closed the connection.
        assert browser.get("/").status == 200


def events(watcher):
    """Each call appends the received events to the watcher's text, and returns it."""
    text = ""
    while True:
        text += watcher.recv(65536).decode()
        yield [json.loads(line) for line in re.findall(r"^data: (.*)\n\r?\n", text, re.M)]


def test_watcher_gets_an_event_when_the_health_file_changes(desk, browser):
    with browser.watch() as watcher:
        received = events(watcher)
        wait_until(lambda: next(received), "the first event")
        desk.tell("Something is wrong")
        wait_until(lambda: len(next(received)) == 2, "the second event")
        assert desk.stop() == 0
        receive_all(watcher)


def test_run_directory_may_be_made_later(make_desk):
    desk = make_desk()
    desk.run_path.rmdir()
    desk.start()
    browser = Browser(desk)
    browser.log_in("say")
    with browser.watch() as watcher:
        received = events(watcher)
        wait_until(lambda: next(received), "the first event")
        desk.run_path.mkdir()
        desk.tell("Something is wrong")
        wait_until(lambda: len(next(received)) >= 2, "the directory to be seen")


def test_stream_ends_with_the_session(browser):
    with browser.watch() as watcher:
        received = events(watcher)
        wait_until(lambda: next(received), "the first event")
        assert browser.post("/logout").status == 303
        assert receive_all(watcher) == b"0\r\n\r\n"


def test_desk_sleeps_without_clients(desk, browser):
    assert browser.get("/").status == 200
    descriptors = 12
    wait_until(lambda: desk.descriptors() < descriptors, "the end of the connections")

    def look():
        text = Path(f"/proc/{desk.process.pid}/status").read_text()
        return re.findall(r"ctxt_switches:\s+(\d+)", text)

    def is_asleep():
        before = look()
        time.sleep(1)
        return look() == before

    wait_until(is_asleep, "a second without a wake-up")


def test_users_change_while_it_runs(desk, browser):
    desk.add_user("new", "look")
    new = Browser(desk)
    wait_until(lambda: new.log_in("new").status == 303, "the new user")
    assert new.post("/say").status == 403
    users = desk.root / "users"
    users.write_text("".join(line for line in users.open() if not line.startswith("say:")))
    assert browser.get("/").headers["Location"] == "/login"

"""Hostile and broken clients: the desk keeps running, serves others, and stays small."""

import contextlib
import itertools
import random
import re
import socket

import pytest
from harness.desk import FORM, Browser
from harness.programs import tool
from harness.wait import wait_until

MALFORMED = 10000
SLOW = 200
MEMORY = 20 * 1024  # KB, at any time.

HEAD = "Host: a\r\nCookie: {cookie}\r\n"


def check_health(desk):
    assert Browser(desk).get("/healthz").text == "ok\n"
    if b"__asan_init" not in tool("vocastra-desk").read_bytes():
        assert desk.figure("VmHWM") < MEMORY


def post(path, body, cookie="", headers=""):
    length = "" if "ransfer" in headers else f"Content-Length: {len(body)}\r\n"
    head = f"POST {path} HTTP/1.1\r\n{HEAD.format(cookie=cookie)}Content-Type: {FORM}\r\n"
    return (head + length + headers + "\r\n").encode() + body


def seeds(browser):
    """Valid requests."""
    get = "GET {} HTTP/1.1\r\n" + HEAD.format(cookie=browser.cookie)
    token = f"token={browser.token}&".encode()
    accept = "Accept: application/json\r\n"
    return [
        (get.format("/") + "\r\n").encode(),
        (get.format("/preview/1.wav") + "Range: bytes=0-5\r\n\r\n").encode(),
        (get.format("/style.css?a=b&c=%41") + "Connection: close\r\n\r\n").encode(),
        post("/say", token + b"directory=a&text=%C3%A9", browser.cookie, accept),
        post("/preview", token + b"directory=a&text=b", browser.cookie, "Expect: 100-continue\r\n"),
        post("/login", b"user=a&password=b"),
        post(
            "/withdraw",
            b"5\r\nid=a&\r\n0\r\nTrailer: a\r\n\r\n",
            browser.cookie,
            "Transfer-Encoding: chunked\r\n",
        ),
    ]


def mutated(request, chance):
    """The request with one or more random errors."""
    data = bytearray(request)
    for _ in range(chance.randint(1, 4)):
        at = chance.randrange(len(data) + 1)
        end = at + chance.choice([0, 1, 1, 2, 10, 100])
        piece = chance.choice(
            [
                *(b"", b"\0", b"\r", b"\n", b"\r\n", b"\r\n\r\n", b" ", b":", b"%", b"%00", b"%ff"),
                *(b"/../", b"%2e%2e%2f", b"//", b"HTTP/9.9", b"\xff\xfe", b"a" * 3000, b"\t" * 50),
                *(b"Content-Length: -1\r\n", b"Content-Length: 99999999999999999999\r\n"),
                *(b"Transfer-Encoding: chunked\r\n", b"Transfer-Encoding: x\r\n", b"fffffffff\r\n"),
                *(b"Cookie: desk=" + b"0" * 64 + b"\r\n", b"Host: b\r\n", b"&=&&=;", b"\xe2\x28"),
                bytes(chance.randrange(256) for _ in range(chance.randrange(20))),
            ]
        )
        data[at:end] = piece
    return bytes(data[: chance.randrange(len(data) + 1)] if chance.random() < 0.2 else data)


def test_malformed_requests_leave_it_serving(desk, browser):
    chance = random.Random(20)
    requests = seeds(browser)
    descriptors = desk.descriptors()
    statuses = set()
    for number in range(MALFORMED):
        answer = desk.exchange(mutated(chance.choice(requests), chance))
        assert answer == b"" or re.match(rb"HTTP/1\.[01] [1-5]\d\d ", answer), answer
        statuses.add(answer[9:12])
        if number % 1000 == 0:
            check_health(desk)
    check_health(desk)
    assert {b"200", b"303", b"400", b"403", b"404", b"405", b"413"} <= statuses
    assert b"500" not in statuses, desk.log()
    wait_until(lambda: desk.descriptors() <= descriptors, "the end of all connections")


@pytest.mark.parametrize(
    "first", [b"", b"GET / HTTP/1.1\r\nHost: a\r\nX: ", post("/login", b"")[:-4]]
)
def test_slow_clients_do_not_delay_others(desk, browser, first):
    """Clients that are silent, that send a byte now and then, or that never send the body."""
    descriptors = desk.descriptors()
    with contextlib.ExitStack() as stack:
        slow = [stack.enter_context(desk.connect()) for _ in range(SLOW)]
        for connection in slow:
            with contextlib.suppress(ConnectionError):
                connection.sendall(first)
        assert browser.get("/").status == 200
        check_health(desk)

        def all_are_gone():
            for connection in slow if first else ():
                with contextlib.suppress(ConnectionError):
                    connection.send(b"a")
            return desk.descriptors() <= descriptors

        wait_until(all_are_gone, "the end of slow connections")
        for connection in slow:
            answer = receive_what_is_there(connection)
            assert not answer.startswith(b"HTTP/1.1 2"), answer


def receive_what_is_there(connection):
    connection.setblocking(False)
    with contextlib.suppress(ConnectionError, BlockingIOError):
        return connection.recv(65536)
    return b""


def test_client_that_does_not_read_is_disconnected(desk, browser):
    """The client sends request after request on one connection and reads no answer."""
    descriptors = desk.descriptors()
    with desk.connect() as connection:
        connection.settimeout(1)
        request = f"GET / HTTP/1.1\r\nHost: a\r\nCookie: {browser.cookie}\r\n\r\n".encode() * 100
        with contextlib.suppress(TimeoutError, ConnectionError):
            while True:
                connection.sendall(request)
        check_health(desk)
    wait_until(lambda: desk.descriptors() <= descriptors, "the end of the connection")


def chunks(count):
    return b"".join(b"1000\r\n" + b"a" * 0x1000 + b"\r\n" for _ in range(count))


CHUNKED = "Transfer-Encoding: chunked\r\n"


@pytest.mark.parametrize(
    "make, answer",
    [
        (lambda cookie: post("/say", b"a=" + b"b" * 65537, cookie), b"413"),
        (lambda cookie: post("/say", b"", cookie, "Content-Length: 10000000000\r\n"), b"4"),
        (lambda cookie: post("/login", b"user=" + b"b" * 5000), b"413"),
        (lambda cookie: post("/say", b"b" * 100000), b"303"),
        (lambda cookie: post("/say", chunks(100), cookie, CHUNKED), b""),
        (lambda cookie: post("/login", chunks(2), "", CHUNKED), b""),
        (lambda cookie: b"GET /" + b"a" * 2000 + b" HTTP/1.1\r\nHost: a\r\n\r\n", b"414"),
        (lambda cookie: b"GET /" + b"a" * 100000 + b" HTTP/1.1\r\nHost: a\r\n\r\n", b"4"),
        (lambda cookie: b"GET / HTTP/1.1\r\nHost: a\r\nX: " + b"a" * 100000 + b"\r\n\r\n", b"4"),
        (lambda cookie: b"GET / HTTP/1.1\r\nHost: a\r\n" + b"a: b\r\n" * 9999 + b"\r\n", b"4"),
        (lambda cookie: b"GET / HTTP/1.1\r\n\r\n", b"400"),
    ],
)
def test_oversized_requests_are_refused(desk, browser, make, answer):
    request = make(browser.cookie)
    got = desk.exchange(request)
    # If the answer comes before the whole request was sent, the end of the connection may destroy
    # it.
    is_lost = got == b"" and len(request) > 4096
    assert is_lost or got[9:12].startswith(answer) and (answer or not got), got
    check_health(desk)


def test_form_of_another_site_is_refused(desk, browser):
    for token in ("", "0" * 64, browser.token[:-1], browser.cookie[5:]):
        assert browser.send("POST", "/say", {"token": token}).status == 403
        assert browser.send("POST", "/logout", {"token": token}).status == 403
    assert browser.post("/say", Sec_Fetch_Site="cross-site").status == 403
    assert browser.send("POST", "/say", {}, Content_Type="text/plain").status == 415
    stranger = Browser(desk)
    stranger.token = browser.token
    assert stranger.post("/say").headers["Location"] == "/login"
    assert browser.get("/").status == 200


@pytest.mark.parametrize(
    "path",
    [
        *("/../users", "/../../../../../../etc/passwd", "/%2e%2e/users", "/..%2fusers", "//users"),
        *(
            "/preview/../../users",
            "/preview/%2e%2e%2f%2e%2e%2fusers.wav",
            "/./",
            "/users",
            "/state/",
        ),
        *("/preview//etc/passwd", "/preview/.wav", "/preview/%00.wav", "/style.css/../users"),
        *("http://127.0.0.1/users", "/preview/1.wav%0d%0aSet-Cookie:a=b", "/%", "/%ff", "*"),
    ],
)
def test_other_paths_are_not_found(desk, browser, path):
    for cookie in ("", browser.cookie):
        request = f"GET {path} HTTP/1.1\r\n{HEAD.format(cookie=cookie)}\r\n"
        answer = desk.exchange(request.encode())
        assert answer[9:12] in ([b"400", b"404"] if cookie else [b"303", b"400"]), answer
        assert b"$y$" not in answer and b"root:" not in answer


def test_watchers_are_limited_and_make_room_when_they_leave(desk, browser):
    with contextlib.ExitStack() as stack:
        watchers = [stack.enter_context(browser.watch()) for _ in range(200)]
        for watcher in watchers:
            assert b"200 OK" in watcher.recv(20)
        assert browser.get("/events").status == 503
        assert browser.get("/").status == 200
        check_health(desk)
        watchers[0].close()

        def has_room():
            with browser.watch() as watcher:
                return b"200 OK" in watcher.recv(20)

        wait_until(has_room, "room for a watcher")
        assert desk.stop() == 0


def test_watcher_that_does_not_read_is_disconnected(desk, browser):
    descriptors = desk.descriptors()
    problems = (f"{number} " + "a" * 5000 for number in itertools.count())
    with socket.socket() as watcher:
        watcher.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 2048)
        watcher.connect(("127.0.0.1", desk.port))
        watcher.sendall(
            f"GET /events HTTP/1.1\r\n{HEAD.format(cookie=browser.cookie)}\r\n".encode()
        )
        assert watcher.recv(12) == b"HTTP/1.1 200"

        def is_gone():
            for _ in range(50):
                desk.tell(next(problems))
            return desk.descriptors() <= descriptors

        wait_until(is_gone, "the end of the connection")


def test_logins_are_slowed_down(make_desk):
    """With a proxy, the address that the proxy names counts, whatever the client claims."""
    desk = make_desk(["--behind-proxy"]).start()

    def attempt(*addresses):
        return Browser(desk, X_Forwarded_For=", ".join(addresses)).log_in("a", "wrong").status

    # The desk checks only a few passwords a second, so an attempt may have to be repeated.
    for _ in range(3):
        wait_until(lambda: attempt("6.6.6.6", "192.0.2.1") == 403, "a refusal")
    assert attempt("7.7.7.7", "192.0.2.1") == 429
    response = Browser(desk, X_Forwarded_For="192.0.2.2").send(
        "POST", "/login", {"user": "a", "password": "b"}
    )
    assert response.status == 429 and int(response.headers["Retry-After"]) >= 1  # The same user.
    assert "wrong" not in desk.log() and "from 192.0.2.1 failed" in desk.log()

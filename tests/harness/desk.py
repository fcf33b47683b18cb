"""Runs the desk, a web server, and sends it requests."""

import contextlib
import http.client
import os
import re
import signal
import socket
import ssl
import urllib.parse
from pathlib import Path

from harness.programs import SANITIZER_REPORT, run, start
from harness.wait import LIMIT, wait_until

PASSWORD = "correct horse"
FORM = "application/x-www-form-urlencoded"


class Desk:
    """A desk in its own directory, on a free port of loopback, with a user for each role."""

    def __init__(self, root, options=(), users=("look", "say", "operate")):
        self.root = Path(root)
        self.run_path = self.root / "run"
        for path in (self.root, self.run_path, self.root / "state"):
            path.mkdir()
        self.options = list(options)
        self.process = None
        self.port = 0
        for role in users:
            self.add_user(role, role)

    def add_user(self, name, role):
        users = self.root / "users"
        done = run(
            "vocastra-desk",
            *("--add-user", name, "--role", role, "--users", users),
            prefix=("sh", "-c", f'echo "{PASSWORD}" | "$@"', "sh"),
        )
        assert done[0] == 0, done

    def start(self):
        with open(self.root / "log", "wb") as log:
            self.process = start(
                "vocastra-desk",
                *("--listen", "127.0.0.1:0", "--run", self.run_path),
                *("--state", self.root / "state", "--users", self.root / "users"),
                *("--templates", self.root / "templates", *self.options),
                stderr=log,
            )
        found = wait_until(
            lambda: re.search(r"^Listening on https?://127.0.0.1:(\d+)/$", self.log(), re.M),
            self.log,
        )
        self.port = int(found[1])
        return self

    def log(self):
        return (self.root / "log").read_text()

    def stop(self):
        """Ends it as its manager does; returns the exit status."""
        self.process.send_signal(signal.SIGTERM)
        return self.process.wait(LIMIT)

    def close(self):
        if self.process:
            self.process.kill()
            self.process.wait()
            assert not SANITIZER_REPORT.search(self.log()), self.log()

    def figure(self, name):
        """A number of /proc/PID/status."""
        text = Path(f"/proc/{self.process.pid}/status").read_text()
        return int(re.search(rf"^{name}:\s+(\d+)", text, re.M)[1])

    def descriptors(self):
        return len(list(Path(f"/proc/{self.process.pid}/fd").iterdir()))

    def connect(self):
        """A TCP connection to the desk."""
        return socket.create_connection(("127.0.0.1", self.port), LIMIT)

    def exchange(self, data):
        """Sends bytes, and returns all bytes that come until the server closes the connection."""
        with self.connect() as connection:
            with contextlib.suppress(OSError):  # It may have been closed.
                connection.sendall(data)
                connection.shutdown(socket.SHUT_WR)
            return receive_all(connection)

    def tell(self, problem):
        """Replaces the health file as a running station does; this process is the station."""
        start = Path("/proc/self/stat").read_text().rpartition(")")[2].split()[19]
        pid = os.getpid()
        numbers = f'daemon="{pid}" station="{pid}" station-start="{start}"'
        text = f"""<health hung="0" saying="" {numbers}>
            <problem id="player" remedy="Wait" sentence="{problem}" since="1700000000"/>
        </health>"""
        (self.run_path / ".health").write_text(text)
        (self.run_path / ".health").rename(self.run_path / "health")


def receive_all(connection):
    data = b""
    with contextlib.suppress(ConnectionError, ssl.SSLError):
        while block := connection.recv(65536):
            data += block
    return data


class Browser:
    """Sends requests to a desk, with the session's cookie."""

    def __init__(self, desk, context=None, **headers):
        self.desk = desk
        self.context = context
        self.headers = {name.replace("_", "-"): value for name, value in headers.items()}
        self.cookie = ""
        self.token = ""

    def open(self):
        if self.context:
            return http.client.HTTPSConnection(
                "127.0.0.1", self.desk.port, timeout=LIMIT, context=self.context
            )
        return http.client.HTTPConnection("127.0.0.1", self.desk.port, timeout=LIMIT)

    def send(self, method, path, form=None, **headers):
        """The response, with its text in "text"."""
        headers = {**self.headers, **{n.replace("_", "-"): v for n, v in headers.items()}}
        if self.cookie:
            headers["Cookie"] = self.cookie
        body = None
        if form is not None:
            body = urllib.parse.urlencode(form)
            headers.setdefault("Content-Type", FORM)
        with contextlib.closing(self.open()) as connection:
            connection.request(method, path, body, headers)
            response = connection.getresponse()
            response.text = response.read().decode()
        return response

    def get(self, path, **headers):
        return self.send("GET", path, **headers)

    def post(self, path, form=None, **headers):
        """Sends a form with the session's token."""
        return self.send("POST", path, {"token": self.token, **(form or {})}, **headers)

    def log_in(self, user, password=PASSWORD):
        response = self.send("POST", "/login", {"user": user, "password": password})
        if response.status == 303:
            self.cookie = response.headers["Set-Cookie"].partition(";")[0]
            page = self.get("/").text
            self.token = re.search(r'name="token" value="([0-9a-f]{64})"', page)[1]
        return response

    def watch(self):
        """A connection on which events arrive; the caller closes it."""
        connection = self.desk.connect()
        if self.context:
            connection = self.context.wrap_socket(connection, server_hostname="127.0.0.1")
        head = f"Host: a\r\nCookie: {self.cookie}\r\n"
        connection.sendall(f"GET /events HTTP/1.1\r\n{head}\r\n".encode())
        return connection

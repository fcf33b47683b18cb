"""Runs a daemon under the station."""

import signal
import socket
import xml.etree.ElementTree
from pathlib import Path

from harness.daemon import Daemon
from harness.programs import run, tool


class Station(Daemon):
    """A station with its daemon; "process" is the station.

    options are the station's. run/ is its run directory; status and output are the daemon's.
    """

    def __init__(self, root, options=("--no-player",), **settings):
        super().__init__(root, **settings)
        self.run_path = self.root / "run"
        self.run_path.mkdir()
        self.options = list(options)
        self.manager = None

    def command(self):
        words = [tool("vocastra-station"), "--run", self.run_path, *self.options, "--"]
        return words + super().command()

    def start(self, wait=True, env=None, preexec_fn=None, **options):
        # The socket of a service manager, which told() reads.
        self.manager = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM | socket.SOCK_NONBLOCK)
        self.manager.bind(f"\0{self.root}")
        env = {"NOTIFY_SOCKET": f"@{self.root}", **(env or {})}
        super().start(wait, env, preexec_fn, **options)

    def stop(self):
        """Sends SIGTERM, then asserts the exit status."""
        self.process.send_signal(signal.SIGTERM)
        self.wait_exit(0)

    def close(self):
        super().close()
        if self.manager:
            self.manager.close()

    def told(self):
        """The messages to the service manager since the last call."""
        texts = []
        try:
            while True:
                texts.append(self.manager.recv(65536).decode())
        except BlockingIOError:
            return "\n".join(texts)

    def daemon(self):
        """The daemon's process id; 0 if there is none."""
        return int(self.health().get("daemon", "0"))

    def wait_daemon(self, but=0):
        """Waits for a daemon with another process id, and for its first status."""
        self.wait(lambda: self.daemon() not in (0, but), "another daemon")
        self.wait(self.status, "a status")

    def health(self):
        """The root of the health file; without attributes if there is none."""
        try:
            return xml.etree.ElementTree.fromstring((self.run_path / "health").read_text())
        except FileNotFoundError:
            return xml.etree.ElementTree.Element("health")

    def counter(self, name):
        found = self.health().find(f"counter[@name='{name}']")
        return None if found is None else int(found.get("value"))

    def message(self, name):
        """The attributes of a message's record; empty if there is none."""
        found = self.health().find(f"message[@file='{name}']")
        return {} if found is None else found.attrib

    def problems(self):
        """The problems' sentences by their ids."""
        return {child.get("id"): child.get("sentence") for child in self.health().iter("problem")}

    def apply(self, *arguments):
        """Runs vocastra-apply: exit status, standard output and error."""
        return run("vocastra-apply", "--run", self.run_path, *arguments)

    def copy(self):
        """The configuration that is in force."""
        return Path(self.run_path / "vocastra.conf").read_text()

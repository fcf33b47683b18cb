"""A daemon whose one input directory is the inbox of a server, mirrored by the real helper."""

import re
from pathlib import Path

from daemon import PAUSE, Daemon
from servers import HELPERS, ended, wait_beats

# In one snippet: as many words as a message of these tests has.
WORDS = 1000


class RemoteDaemon(Daemon):
    def __init__(self, root, server, **attributes):
        super().__init__(root, words=WORDS)
        self.server = server
        for link, name in ((self.cifs_helper, "cifs"), (self.ftp_helper, "ftp")):
            link.unlink()
            link.symlink_to(HELPERS / name)
        self.scratch = self.root / "scratch"
        self.scratch.mkdir()
        self.subdir = attributes.get("subdir", "")
        self.watch = None
        self.local = None
        self.set(**attributes)

    def set(self, **attributes):
        """Writes the configuration, with attributes of the directory that differ."""
        self.configure(self.directory("remote", **self.server.attributes(**attributes)))

    def start(self, **options):
        """Starts the daemon and finds out where its helper puts the files."""
        super().start(env={"TMPDIR": str(self.scratch)}, **options)
        self.find_watch()
        return self

    def find_watch(self):
        record = self.wait_status(lambda root: root.find("directory") is not None)
        self.watch = Path(record.find("directory").get("path"))
        self.local = self.watch / self.subdir
        return self.watch

    def temporaries(self):
        return super().temporaries() + ([self.watch] if self.watch else [])

    def wait_receiving(self, count=1):
        self.wait_log(f"Directory {self.local}/ is receiving updates", count)

    def wait_gone(self, count=1):
        self.wait_log(f"Directory {self.local}/ is no longer receiving updates", count)

    def wait_said(self, *messages):
        """Waits until these messages, (name, text), are spoken; asserts that no others are."""
        self.wait_spoken(*[(name, f"{PAUSE}{text} ") for name, text in messages])

    def wait_looks(self, count=2):
        """Waits for so many more looks at the server, and that the daemon has seen the last.

        The first of two may have begun earlier, the second has not.
        """
        wait_beats(self.local, count, self.wait)
        self.wait_passes(2)

    def names(self):
        """The files that the daemon sees."""
        return sorted(path.name for path in self.local.glob("[!.]*"))

    def messages(self):
        """What the helper said, without what every line begins with."""
        lines = [line for line in self.log() if line.startswith(f"{self.server.kind} helper: ")]
        return [line.split(": ", 2)[2] for line in lines]

    def helper_pids(self):
        """The helpers, by their numbers, that the daemon has sent SIGTERM."""
        return [
            int(n) for n in re.findall(r"^Sending SIGTERM to PID (\d+)$", self.log_text(), re.M)
        ]

    def stop(self):
        """Daemon.stop(), then asserts that the helper is gone with all that it had."""
        super().stop()
        pids = self.helper_pids()
        assert len(pids) >= 1 and all(ended(pid) for pid in pids)
        assert list(self.scratch.iterdir()) == []
        assert not self.watch.exists()

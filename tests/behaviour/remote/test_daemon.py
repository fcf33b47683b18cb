"""From a file on a server to a numbered audio file: the daemon, its helper and a real server."""

import threading
import time

import pytest
from harness.daemon import PAUSE
from harness.wait import wait_until

EVIL_NAMES = [
    "a b.txt",
    "$(touch pwned).txt",
    "`touch pwned`",
    ";touch pwned;",
    "x&touch pwned&.txt",
    "x|touch pwned",
    ">pwned",
    "-rf",
    "..x",
    ".x",
    "~root",
    "star*",
    "q'x.txt",
    'q"x.txt',
    "back\\slash.txt",
    "tab\tx.txt",
    "line\nbreak.txt",
    "umlaut-ä.txt",
    # Names that look like the end of a line in the listing of an FTP client, or of an SMB client:
    "b 5 20200101000000 c",
    "b A 5 c",
]


def test_each_new_file_is_spoken_once(server, make_daemon):
    server.put("old.txt", "An old one.")
    daemon = make_daemon(server).start()
    daemon.wait_receiving()

    server.put("new.txt", "A new one.")
    daemon.wait_said(("new.txt", "A new one."))
    assert daemon.wait_outputs(1) == ["0_remote.text_live_first.raw"]
    audio = daemon.translator_runs()[0].audio
    assert daemon.take() == [("0_remote.text_live_first.raw", audio)]
    daemon.wait(lambda: daemon.names() == ["old.txt"], "the new file to be taken")

    daemon.wait_looks()
    daemon.wait_said(("new.txt", "A new one."))
    assert server.names() == ["new.txt", "old.txt"]
    assert daemon.messages() == []
    daemon.stop()


def test_changed_file_is_spoken_again(server, make_daemon):
    server.put("old.txt", "An old one.")
    server.put("new.txt", "Old, too.")
    daemon = make_daemon(server).start()
    daemon.wait_receiving()

    said = []
    # One file that the daemon still has, and one that it has taken. The new words may be old ones.
    for name, text in [
        ("old.txt", "It has changed."),
        ("new.txt", "So has this one."),
        ("old.txt", "It has changed."),
    ]:
        server.put(name, text)
        said.append((name, text))
        daemon.wait_said(*said)
    daemon.wait_looks()
    daemon.wait_said(*said)
    daemon.stop()


def test_files_that_arrive_together_are_spoken_one_by_one(server, make_daemon):
    daemon = make_daemon(server).start()
    daemon.wait_receiving()
    messages = [(f"{number}.txt", f"Message {number}.") for number in range(8)]
    for name, text in messages:
        server.put(name, text)
    daemon.wait_translator_runs(len(messages))
    daemon.wait_looks()
    assert sorted(daemon.spoken()) == [(name, f"{PAUSE}{text} ") for name, text in messages]
    daemon.stop()


def test_file_that_vanishes_before_its_turn_is_not_spoken(server, make_daemon):
    daemon = make_daemon(server).start()
    daemon.wait_receiving()
    daemon.hold()
    server.put("a.txt", "First.")
    daemon.wait_said(("a.txt", "First."))
    server.put("b.txt", "Withdrawn.")
    server.put("c.txt", "Last.")
    wait_until(lambda: daemon.names() == ["b.txt", "c.txt"], "two files in the watch directory")
    server.remove("b.txt")
    wait_until(lambda: daemon.names() == ["c.txt"], "the file to vanish")
    daemon.release()
    daemon.wait_said(("a.txt", "First."), ("c.txt", "Last."))

    server.put("b.txt", "Withdrawn.")
    daemon.wait_said(("a.txt", "First."), ("c.txt", "Last."), ("b.txt", "Withdrawn."))
    daemon.stop()


class SlowWriter(threading.Thread):
    """Writes a file piece by piece until finish(); pause is the longest time between two pieces."""

    def __init__(self, path):
        super().__init__(daemon=True)
        self.path = path
        self.last = threading.Event()
        self.words = []
        self.pause = 0.0
        self.start()

    def run(self):
        with open(self.path, "w", encoding="utf8") as file:
            time_of_last = time.monotonic()
            while not self.last.wait(0.03):
                self.words.append(f"word{len(self.words)}")
                file.write(self.words[-1] + " ")
                file.flush()
                now = time.monotonic()
                self.pause = max(self.pause, now - time_of_last)
                time_of_last = now
            self.words.append("end.")
            file.write("end.")

    def finish(self):
        self.last.set()
        self.join()
        return " ".join(self.words)


def test_growing_file_is_spoken_when_it_is_complete(server, make_daemon):
    daemon = make_daemon(server).start()
    daemon.wait_receiving()
    said = []
    while True:
        name = f"growing{len(said)}.txt"
        writer = SlowWriter(server.inbox / name)
        daemon.wait_looks(4)
        early = daemon.spoken()[len(said) :] or daemon.names()
        text = writer.finish()
        if writer.pause < 0.9:
            break
        # The writer was delayed so long that the file was settled in the meantime.
        daemon.wait_looks()
        said = daemon.spoken()
        assert len(said) < 50
    assert early == []
    daemon.wait_translator_runs(len(said) + 1)
    daemon.wait_looks()
    assert daemon.spoken() == said + [(name, f"{PAUSE}{text} ")]
    daemon.stop()


def test_evil_names_are_refused(server, make_daemon):
    (server.inbox / "below").mkdir()
    daemon = make_daemon(server, subdir="below").start()
    daemon.wait_receiving()
    for name in EVIL_NAMES:
        server.put(name, "Evil.", subdir="below")
    (server.inbox / "below" / "directory.txt").mkdir()
    server.put("good.txt", "Good.", subdir="below")
    daemon.wait_said(("good.txt", "Good."))
    daemon.wait_looks()
    daemon.wait_said(("good.txt", "Good."))
    assert daemon.names() == []
    assert daemon.messages().count('refused the name "a b.txt"') == 1
    assert not list(daemon.root.rglob("pwned*"))
    daemon.stop()
    assert sorted(path.name for path in (server.inbox / "below").iterdir()) == sorted(
        EVIL_NAMES + ["directory.txt", "good.txt"]
    )


def test_auto_delete_removes_what_was_taken(server, make_daemon):
    server.put("old.txt", "An old one.")
    daemon = make_daemon(server, auto_delete=1).start()
    daemon.wait_receiving()
    said = []
    for _ in range(2):
        server.put("new.txt", "Said.")
        said.append(("new.txt", "Said."))
        daemon.wait_said(*said)
        daemon.wait(lambda: server.names() == ["old.txt"], "the file to be deleted")
    daemon.wait_looks()
    daemon.wait_said(*said)
    assert server.names() == ["old.txt"]
    assert daemon.messages() == []
    daemon.stop()


def test_outage_of_the_server_loses_nothing(server, make_daemon):
    server.put("old.txt", "An old one.")
    daemon = make_daemon(server).start()
    daemon.wait_receiving()
    server.put("new.txt", "A new one.")
    daemon.wait_said(("new.txt", "A new one."))

    server.stop()
    daemon.wait_gone()
    assert daemon.names() == ["old.txt"]
    server.put("later.txt", "A later one.")
    server.start()
    daemon.wait_receiving(2)
    daemon.wait_said(("new.txt", "A new one."), ("later.txt", "A later one."))
    daemon.wait_looks()
    daemon.wait_said(("new.txt", "A new one."), ("later.txt", "A later one."))
    daemon.stop()


def test_server_that_starts_late(server, make_daemon):
    server.stop()
    server.put("old.txt", "An old one.")
    daemon = make_daemon(server).start()
    daemon.wait(lambda: daemon.messages() != [], "a message of the helper")
    assert daemon.names() == []
    server.start()
    daemon.wait_receiving()
    server.put("new.txt", "A new one.")
    daemon.wait_said(("new.txt", "A new one."))
    daemon.stop()


def test_server_that_does_not_answer(server, make_daemon):
    daemon = make_daemon(server).start()
    daemon.wait_receiving()
    server.freeze()
    daemon.wait_gone()
    server.put("new.txt", "A new one.")
    server.thaw()
    daemon.wait_receiving(2)
    daemon.wait_said(("new.txt", "A new one."))

    server.freeze()
    daemon.wait_gone(2)
    daemon.stop()


@pytest.mark.parametrize("make_server", ["pyftpdlib", "vsftpd", "smbd"], indirect=True)
def test_wrong_password(server, make_daemon):
    daemon = make_daemon(server, password="0pen sesame").start()
    server.put("old.txt", "An old one.")
    daemon.wait(lambda: daemon.messages() != [], "a message of the helper")
    expected = {"ftp": "530 ", "cifs": "login or access refused"}[server.kind]
    assert expected in daemon.messages()[0] and "sesame" not in daemon.log_text()
    daemon.wait_passes(3)
    assert [record.get("status") for record in daemon.wait_status()] == ["0"]
    assert not daemon.log().count(f"Directory {daemon.local}/ is receiving updates")

    wrong = daemon.watch
    daemon.set()
    daemon.wait_log("Created new input directory remote", 2)
    daemon.wait(lambda: daemon.find_watch() != wrong, "the new watch directory")
    assert not wrong.exists()
    daemon.wait_receiving()
    server.put("new.txt", "A new one.")
    daemon.wait_said(("new.txt", "A new one."))
    daemon.stop()

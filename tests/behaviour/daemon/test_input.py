"""Input directories: which files are seen, when they are taken, and where they go."""

from pathlib import Path

import pytest
from harness.daemon import PAUSE


def names(path):
    return sorted(entry.name for entry in Path(path).iterdir())


@pytest.fixture
def last(tmp_path):
    """A last-played directory."""
    path = tmp_path / "last"
    path.mkdir()
    return path


@pytest.mark.core
@pytest.mark.parametrize("auto_delete", ["0", "1"])
def test_taken_file_is_copied_to_the_last_played_directory(make_daemon, last, auto_delete):
    daemon = make_daemon()
    daemon.configure(daemon.directory("a", last_played_path=last, auto_delete=auto_delete))
    daemon.start()
    daemon.drop("a", "m.txt", "one")
    daemon.wait_spoken(("m.txt", PAUSE + "one "))
    assert names(last) == ["m.txt"]
    daemon.drop("a", "n.txt", "two\n")
    daemon.wait_spoken(("m.txt", PAUSE + "one "), ("n.txt", PAUSE + "two "))
    # Only the newest is kept.
    assert names(last) == ["n.txt"]
    assert (last / "n.txt").read_text() == "two\n"
    daemon.wait_passes(3)
    # A file that stays is not spoken again.
    assert len(daemon.spoken()) == 2
    assert names(daemon.input("a")) == ([] if auto_delete == "1" else ["m.txt", "n.txt"])
    daemon.stop()
    text = f"From {daemon.input('a')}/m.txt: one"
    assert daemon.log().count(text) == 2 if auto_delete == "1" else daemon.log().count(text) > 4


def test_cache_mode_copies_to_the_last_played_directory(make_daemon, last):
    daemon = make_daemon()
    daemon.configure(daemon.directory("a", dir_mode="cache", last_played_path=last, auto_delete=1))
    daemon.start()
    for number in range(3):
        daemon.drop("a", f"m{number}.txt", f"text {number}")
    daemon.wait_status(lambda root: root.find("directory").get("updated-file-count") == "3")
    # All of them, and the originals stay.
    assert names(last) == names(daemon.input("a")) == ["m0.txt", "m1.txt", "m2.txt"]
    daemon.drop("a", "m1.txt", "changed")
    daemon.wait(lambda: (last / "m1.txt").read_text() == "changed", "the changed file's copy")
    (last / "m0.txt").unlink()
    (last / ".hidden").touch()
    daemon.wait_status(lambda root: root.find("directory").get("updated-file-count") == "2")
    daemon.stop()
    assert daemon.spoken() == []
    assert names(last) == [".hidden", "m1.txt", "m2.txt"]

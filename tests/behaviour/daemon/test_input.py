"""Input directories: which files are seen, when they are taken, and where they go."""

from pathlib import Path

import pytest
from harness.daemon import PAUSE
from harness.files import crc16


def names(path):
    return sorted(entry.name for entry in Path(path).iterdir())


@pytest.fixture
def last(tmp_path):
    """A last-played directory."""
    path = tmp_path / "last"
    path.mkdir()
    return path


@pytest.mark.core
def test_files_of_the_first_scan_are_not_spoken(make_daemon):
    daemon = make_daemon()
    # The directory itself is emptied at the start, its subdirectory is not.
    daemon.drop("a/sub/deep", "old.txt", "old")
    daemon.configure(daemon.directory("a", subdir="sub/deep"))
    daemon.start()
    daemon.drop("a/sub/deep", "m.txt", "new")
    daemon.wait_spoken(("m.txt", PAUSE + "new "))
    assert names(daemon.input("a/sub/deep")) == ["old.txt"]
    # Once it changes, it is news.
    daemon.drop("a/sub/deep", "old.txt", "old but changed")
    daemon.wait_spoken(("m.txt", PAUSE + "new "), ("old.txt", PAUSE + "old but changed "))
    assert names(daemon.input("a/sub/deep")) == []
    daemon.stop()
    log = daemon.log()
    assert f"Adding old.txt {crc16(b'old')} to file_map" in log
    assert log.count("Updating old.txt in file_map") == 1


def test_only_visible_regular_files_are_messages(make_daemon):
    daemon = make_daemon()
    daemon.configure(daemon.directory("a"))
    daemon.start()
    path = daemon.input("a")
    (path / ".hidden").write_text("hidden")
    (path / "directory").mkdir()
    (path / "directory" / "inside.txt").write_text("inside")
    (path / "link").symlink_to(".hidden")
    daemon.wait_passes(2)
    daemon.drop("a", "m.txt", "one")
    daemon.wait_spoken(("m.txt", PAUSE + "one "))
    daemon.wait_status(lambda root: root.find("directory").get("total-file-count") == "0")
    assert names(path) == [".hidden", "directory", "link"]
    daemon.stop()


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


def test_preview_repeats_a_file_that_stays(make_daemon, last):
    daemon = make_daemon(files=4)
    daemon.configure(daemon.directory("a", preview=1, last_played_path=last))
    daemon.start()
    daemon.drop("a", "m.txt", "one")
    assert daemon.wait_outputs(4) == [f"{number}_a.text_pre_first.raw" for number in range(4)]
    assert daemon.spoken() == [("m.txt", PAUSE + "one ")] * 4
    daemon.stop()
    assert daemon.log().count("Updating m.txt in file_map") >= 3


def test_missing_directory_fails_every_pass_until_it_is_there(make_daemon):
    daemon = make_daemon()
    away = daemon.root / "away"
    daemon.configure(daemon.directory("a"), daemon.directory("b", path=away))
    daemon.start(wait=False)
    line = f"Could not open directory {away}/"
    daemon.wait_log(line, 3)
    assert daemon.status() is None
    away.mkdir()
    daemon.wait_status()
    daemon.drop("a", "m.txt", "one")
    daemon.wait_spoken(("m.txt", PAUSE + "one "))
    daemon.wait_outputs(1)
    away.rename(daemon.root / "further")
    count = daemon.log().count(line)
    daemon.wait_log(line, count + 2)
    # Seen and taken before the pass fails, spoken when it no longer does.
    daemon.drop("a", "n.txt", "two")
    daemon.wait_log(line, count + 4)
    assert len(daemon.spoken()) == 1
    (daemon.root / "further").rename(away)
    daemon.wait_spoken(("m.txt", PAUSE + "one "), ("n.txt", PAUSE + "two "))
    daemon.stop()

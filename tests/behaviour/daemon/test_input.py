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


def test_kept_file_is_spoken_again_when_it_changes(make_daemon, last):
    daemon = make_daemon()
    daemon.configure(daemon.directory("a", last_played_path=f"{last}/"))
    daemon.start()
    daemon.drop("a", "m.txt", "one")
    daemon.wait_spoken(("m.txt", PAUSE + "one "))
    # The same text handed over anew is no news.
    daemon.drop("a", "m.txt", "one")
    daemon.wait_passes(3)
    assert len(daemon.spoken()) == 1
    daemon.drop("a", "m.txt", "two")
    daemon.wait_spoken(("m.txt", PAUSE + "one "), ("m.txt", PAUSE + "two "))
    assert (last / "m.txt").read_text() == "two"
    daemon.wait_outputs(2)
    daemon.stop()
    assert daemon.log().count("Updating m.txt in file_map") == 1


def test_without_last_played_directory_auto_delete_does_not_matter(make_daemon):
    daemon = make_daemon()
    daemon.configure(daemon.directory("a", auto_delete=0), daemon.directory("b", auto_delete=1))
    daemon.start()
    daemon.drop("a", "a.txt", "one")
    daemon.wait_outputs(1)
    daemon.drop("b", "b.txt", "two")
    daemon.wait_outputs(2)
    assert names(daemon.input("a")) == names(daemon.input("b")) == []
    daemon.stop()


def test_cache_mode_removes_what_is_new(make_daemon):
    daemon = make_daemon()
    daemon.drop("a/sub", "old.txt", "old")
    daemon.configure(daemon.directory("a", subdir="sub", dir_mode="cache"))
    daemon.start()
    for number in range(3):
        daemon.drop("a/sub", f"m{number}.txt", f"text {number}")
    daemon.wait(lambda: names(daemon.input("a/sub")) == ["old.txt"], "the files to be removed")
    # Files without a text are not queued.
    daemon.drop("a/sub", "empty.txt", "")
    daemon.wait_passes(3)
    found = daemon.wait_status(lambda root: root.find("directory").get("total-file-count") == "2")
    assert found.find("directory").get("updated-file-count") == "0"
    daemon.stop()
    assert daemon.spoken() == []
    assert names(daemon.input("a/sub")) == ["empty.txt", "old.txt"]


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


def test_preview_queues_a_waiting_file_once_per_scan(make_daemon):
    daemon = make_daemon(words=1, files=1)
    daemon.configure(daemon.directory("a", preview=1))
    daemon.start()
    daemon.drop("a", "m.txt", "one two three four")
    daemon.wait_log("Now output-bound")
    daemon.drop("a", "n.txt", "five")

    def queued(root):
        return int(root.find("directory").get("updated-file-count"))

    count = queued(daemon.wait_status(lambda root: queued(root) >= 3))
    daemon.take()
    daemon.wait_log("Now output-bound", 2)
    daemon.take()
    daemon.wait_spoken(
        ("m.txt", PAUSE + "one two "), ("m.txt", "three four "), ("n.txt", PAUSE + "five ")
    )
    daemon.wait_outputs(1)
    daemon.take()
    # Taken once; the file is gone when its other turns come.
    daemon.wait_status(lambda root: queued(root) == 0)
    daemon.stop()
    assert len(daemon.spoken()) == 3
    line = f"Could not remove {daemon.input('a')}/n.txt"
    assert daemon.log().count(line) >= count - 1


def test_file_that_goes_before_its_turn_is_not_spoken(make_daemon):
    daemon = make_daemon(words=1, files=1)
    daemon.configure(daemon.directory("a"))
    daemon.start()
    daemon.drop("a", "m.txt", "one two three four")
    daemon.wait_log("Now output-bound")
    daemon.drop("a", "n.txt", "gone soon")
    daemon.drop("a", "o.txt", "stays")
    daemon.wait_status(lambda root: root.find("directory").get("updated-file-count") == "2")
    (daemon.input("a") / "n.txt").unlink()
    daemon.take()
    daemon.wait_log("Now output-bound", 2)
    daemon.take()
    daemon.wait_spoken(
        ("m.txt", PAUSE + "one two "), ("m.txt", "three four "), ("o.txt", PAUSE + "stays ")
    )
    daemon.stop()
    assert f"Could not remove {daemon.input('a')}/n.txt" in daemon.log()


def test_changed_while_waiting_is_spoken_as_it_is_when_taken(make_daemon):
    daemon = make_daemon(words=1, files=1)
    daemon.configure(daemon.directory("a"))
    daemon.start()
    daemon.drop("a", "m.txt", "one two three four")
    daemon.wait_log("Now output-bound")
    daemon.drop("a", "n.txt", "first")
    daemon.wait_status(lambda root: root.find("directory").get("updated-file-count") == "1")
    daemon.drop("a", "n.txt", "second")
    # It stands in the queue twice and is taken by its first turn.
    daemon.wait_status(lambda root: root.find("directory").get("updated-file-count") == "2")
    daemon.take()
    daemon.wait_log("Now output-bound", 2)
    daemon.take()
    daemon.wait_spoken(
        ("m.txt", PAUSE + "one two "), ("m.txt", "three four "), ("n.txt", PAUSE + "second ")
    )
    daemon.wait_outputs(1)
    daemon.take()
    daemon.wait_status(lambda root: root.find("directory").get("updated-file-count") == "0")
    assert len(daemon.spoken()) == 3
    daemon.stop()


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


@pytest.mark.parametrize(
    "attributes", [{"type": "nfs"}, {"type": None}, {"path": None}, {"path": ""}], ids=str
)
def test_directory_without_a_place_fails_every_pass(make_daemon, attributes):
    daemon = make_daemon()
    a = daemon.directory("a")
    daemon.configure(a, daemon.directory("b", **attributes))
    daemon.start(wait=False)
    daemon.wait_log("Could not open directory ", 3)
    assert "Created new input directory b" in daemon.log()
    daemon.reconfigure(a)
    daemon.drop("a", "m.txt", "one")
    daemon.wait_spoken(("m.txt", PAUSE + "one "))
    daemon.stop()


def test_trailing_slashes_do_not_matter(make_daemon):
    daemon = make_daemon()
    path = daemon.input("a")
    daemon.drop("a/sub", "old.txt", "old")
    daemon.configure(daemon.directory("a", path=f"{path}/", subdir="sub/"))
    daemon.start()
    daemon.drop("a/sub", "m.txt", "one")
    daemon.wait_spoken(("m.txt", PAUSE + "one "))
    daemon.wait_outputs(1)
    daemon.stop()
    log = daemon.log()
    assert log[1:3] == [
        f"Removing contents of directory {path}/",
        f'Could not execute "rm {path}//* > /dev/null 2>&1"',
    ]
    assert f"From {path}/sub/m.txt: one" in log

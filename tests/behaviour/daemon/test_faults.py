"""Failures around the daemon: it survives them, logs them, and recovers without a restart.

Each test ends with a message that is spoken as usual, the same descriptors as at the start, no
zombie and a clean stop.
"""

import contextlib
import os
import re
import resource
import shutil
import signal
import subprocess
import tempfile
import time
from pathlib import Path

import pytest
from harness.daemon import PAUSE, Daemon
from harness.files import crc16, element, locked, publish
from harness.programs import is_alive, program
from harness.wait import wait_until

SMALL = 64 * 1024  # Bytes of the file system that fills up.


def open_descriptors(daemon):
    found = []
    for path in Path(f"/proc/{daemon.process.pid}/fd").iterdir():
        with contextlib.suppress(FileNotFoundError):  # It was closed meanwhile.
            found.append(os.readlink(path))
    return sorted(found)


def settled_descriptors(daemon):
    """The descriptors that are open between two passes: the same in several samples."""
    looks = []

    def is_settled():
        looks.append(open_descriptors(daemon))
        return len(looks) >= 5 and looks[-5:] == [looks[-1]] * 5

    daemon.wait(is_settled, "the same descriptors five times")
    return looks[-1]


def cpu_time(daemon):
    """Seconds of processor time that the daemon has used, without its children."""
    stat = Path(f"/proc/{daemon.process.pid}/stat").read_text().rpartition(")")[2].split()
    return (int(stat[11]) + int(stat[12])) / os.sysconf("SC_CLK_TCK")


class Station:
    """A running daemon with one directory "a"; end() checks that it still works."""

    def __init__(self, daemon, **attributes):
        self.daemon = daemon
        self.count = 0
        self.attributes = attributes
        daemon.configure(daemon.directory("a", **attributes))
        daemon.start()
        self.say()
        self.descriptors = len(settled_descriptors(daemon))

    def say(self):
        """Drops a message and waits until it is spoken, whole and once."""
        self.count += 1
        name, before = f"well{self.count}", len(self.daemon.translator_runs())
        self.daemon.drop("a", name, f"all is well {self.count}")
        self.daemon.wait(
            lambda: [run for run in self.daemon.translator_runs()[before:] if run.message == name],
            "the message",
        )
        said = [run.text.decode() for run in self.daemon.translator_runs() if run.message == name]
        assert said == [f"{PAUSE}all is well {self.count} "]

    def end(self):
        self.say()
        self.daemon.take()
        # Counts them: a directory that was replaced has another target.
        assert len(settled_descriptors(self.daemon)) == self.descriptors
        self.daemon.wait(lambda: not self.daemon.zombies(), "no zombie")
        said = self.daemon.spoken()
        assert len(said) == len(set(said)), "said twice"
        self.daemon.stop()


@pytest.fixture
def small_file_system(tmp_path):
    """A directory on a file system of its own that holds SMALL bytes."""
    path = tmp_path / "small"
    path.mkdir()
    subprocess.run(["mount", "-t", "tmpfs", "-o", f"size={SMALL}", "tmpfs", path], check=True)
    yield path
    subprocess.run(["umount", "-l", path], check=True)


def fill(path):
    """Writes into the file until its file system is full."""
    with contextlib.suppress(OSError), open(path, "wb", buffering=0) as file:
        while True:
            file.write(bytes(4096))


# Without it, a limit on the size of files replaces the tests on a full file system.
can_mount = (
    os.geteuid() == 0
    and subprocess.run(["unshare", "-m", "true"], check=False, stderr=subprocess.DEVNULL).returncode
    == 0
)


class UnprivilegedDaemon(Daemon):
    """A daemon for which permission bits count, also when the tests run as root.

    As root, it gets a user id of its own, which identifies the processes and files that it leaves.
    """

    user = 100000 + os.getpid() if os.geteuid() == 0 else os.geteuid()

    def start(self, **options):  # pylint: disable=arguments-differ
        if os.geteuid() == 0:
            for path in [self.root, *self.root.rglob("*")]:
                os.chown(path, self.user, self.user, follow_symlinks=False)
            options.update(user=self.user, group=self.user, extra_groups=[])
        super().start(**options)

    @classmethod
    def left_behind(cls):
        """Processes and temporary files of its user."""
        names = r"/proc/\d+|/tmp/(text|speech|watch)\w+"
        left = []
        for path in (*Path("/proc").iterdir(), *Path("/tmp").iterdir()):
            with contextlib.suppress(OSError):
                if re.fullmatch(names, str(path)) and path.stat().st_uid == cls.user:
                    left.append(path)
        return left


@pytest.fixture
def make_unprivileged(monkeypatch):
    """Makes unprivileged daemons in a public directory, with copies of the programs they start.

    Both pytest's own directory and the project may be closed to other users.
    """
    root = Path(tempfile.mkdtemp(prefix="vocastra-test-"))
    root.chmod(0o755)
    words = program()
    words[-1] = shutil.copy(words[-1], root / "vocastra")
    monkeypatch.setenv("VOCASTRA", " ".join(str(word) for word in words))

    with contextlib.ExitStack() as stack:
        stack.callback(shutil.rmtree, root)

        def make(**options):
            daemon = UnprivilegedDaemon(Path(tempfile.mkdtemp(dir=root)), **options)
            stack.callback(daemon.close)
            for link in (daemon.translator, daemon.cifs_helper, daemon.ftp_helper):
                target = link.resolve()
                link.unlink()
                shutil.copy(target, link)
            return daemon

        yield make


# --- Directories ---


def test_output_replaced_by_a_file(make_daemon):
    station = Station(make_daemon())
    daemon = station.daemon
    daemon.take()
    shutil.rmtree(daemon.output)
    daemon.output.write_text("in the way")
    daemon.drop("a", "m", "unheard")
    daemon.wait(
        lambda: any(line.startswith('Could not execute "cp ') for line in daemon.log()),
        "the copy to fail",
    )
    assert any(
        line.startswith(f'Could not open "{daemon.output}/" for counting: ')
        for line in daemon.log()
    )
    daemon.output.unlink()
    daemon.output.mkdir()
    station.say()
    daemon.wait_outputs(1)
    station.end()


def test_output_that_may_not_be_written(make_unprivileged):
    station = Station(make_unprivileged())
    daemon = station.daemon
    daemon.take()
    daemon.output.chmod(0o555)
    daemon.drop("a", "m", "unheard")
    daemon.wait(
        lambda: any(line.startswith('Could not execute "cp ') for line in daemon.log()),
        "the copy to fail",
    )
    daemon.output.chmod(0o755)
    station.end()


def test_output_that_may_not_be_read(make_unprivileged):
    station = Station(make_unprivileged())
    daemon = station.daemon
    daemon.output.chmod(0o300)
    daemon.wait_log(f'Could not open "{daemon.output}/" for counting: Permission denied')
    station.say()
    daemon.output.chmod(0o755)
    station.end()


def test_audio_over_the_limit_of_a_file(make_daemon):
    """Replaces the test on a full file system where none can be mounted."""
    daemon = make_daemon()
    daemon.behave("fake:big=200000")
    daemon.configure(daemon.directory("a"))
    daemon.start(preexec_fn=lambda: resource.setrlimit(resource.RLIMIT_FSIZE, (100000, 100000)))
    daemon.drop("a", "m", "too big")
    daemon.wait_translator_runs(1)
    daemon.behave()
    daemon.take()
    daemon.drop("a", "n", "small again")
    daemon.wait(
        lambda: any(content.endswith(b"small again ") for _, content in daemon.take()), "the audio"
    )
    daemon.stop()


if can_mount:

    def test_output_on_a_full_file_system(make_daemon, small_file_system):
        daemon = make_daemon(output=False, arguments=["-o", small_file_system])
        daemon.output.rmdir()
        daemon.output = small_file_system
        station = Station(daemon)
        daemon.take()
        ballast = small_file_system / ".ballast"
        fill(ballast)
        daemon.drop("a", "m", "no room")
        daemon.wait(
            lambda: any(line.startswith('Could not execute "cp ') for line in daemon.log()),
            "the copy to fail",
        )
        ballast.unlink()
        station.say()
        daemon.wait(
            lambda: any(content.endswith(b"all is well 2 ") for _, content in daemon.take()),
            "the audio",
        )
        station.end()


def test_input_replaced_by_a_file(make_daemon):
    station = Station(make_daemon())
    daemon = station.daemon
    path = daemon.input("a")
    path.rmdir()
    path.write_text("in the way")
    daemon.wait_log(f"Could not open directory {path}/")
    path.unlink()
    path.mkdir()
    daemon.wait_passes(2)
    station.end()


def test_input_that_goes_while_its_message_is_spoken(make_daemon):
    station = Station(make_daemon())
    daemon = station.daemon
    before = len(daemon.translator_runs())
    text = " ".join(f"word{i}" for i in range(50))
    daemon.hold()
    daemon.drop("a", "m", text)
    daemon.wait_translator_runs(before + 1)
    path = daemon.input("a")
    path.rename(daemon.root / "away")
    daemon.release()
    daemon.wait_log(f"Could not open directory {path}/", 3)
    (daemon.root / "away").rename(path)
    daemon.wait(lambda: daemon.spoken()[-1][1].endswith(" word49 "), "the end of the message")
    said = [said for _, said in daemon.spoken()[before:]]
    assert len(said) > 1
    assert "".join(said) == f"{PAUSE}{text} "
    station.end()


def test_input_that_may_not_be_read(make_unprivileged):
    station = Station(make_unprivileged())
    daemon = station.daemon
    daemon.input("a").chmod(0)
    daemon.wait_log(f"Could not open directory {daemon.input('a')}/")
    daemon.input("a").chmod(0o755)
    daemon.wait_passes(2)
    station.end()


def test_message_that_cannot_be_removed_is_not_spoken(make_unprivileged):
    station = Station(make_unprivileged())
    daemon = station.daemon
    before = len(daemon.translator_runs())
    path = daemon.input("a") / "m"
    publish(daemon.root / "m", "must not be said again and again")
    # Under the lock, so that the file appears only when it cannot be removed any more.
    os.rename(daemon.root / "m", daemon.input("a") / ".m")
    with locked(daemon.input("a")):
        os.rename(daemon.input("a") / ".m", path)
        daemon.input("a").chmod(0o555)
    daemon.wait_log(f"Could not remove {path}")
    daemon.wait_passes(3)
    assert len(daemon.translator_runs()) == before
    daemon.input("a").chmod(0o755)
    path.write_text("said once it is changed and can be removed")
    daemon.wait_translator_runs(before + 1)
    assert not path.exists()
    station.end()


@pytest.mark.parametrize("obstacle", ["missing", "file"])
def test_last_played_directory_in_trouble(make_daemon, obstacle):
    daemon = make_daemon()
    last = daemon.root / "last"
    last.mkdir()
    station = Station(daemon, last_played_path=last, auto_delete=1)
    shutil.rmtree(last)
    if obstacle == "file":
        last.write_text("in the way")
    station.say()
    if obstacle == "file":
        last.unlink()
    last.mkdir()
    station.say()
    assert [path.name for path in last.iterdir()] == [f"well{station.count}"]
    station.end()


@pytest.mark.parametrize("mode", [0o555, 0])
def test_last_played_directory_that_may_not_be_written(make_unprivileged, mode):
    daemon = make_unprivileged()
    last = daemon.root / "last"
    last.mkdir()
    station = Station(daemon, last_played_path=last, auto_delete=1)
    last.chmod(mode)
    station.say()
    last.chmod(0o755)
    assert [path.name for path in last.iterdir()] == ["well1"]
    station.say()
    assert [path.name for path in last.iterdir()] == [f"well{station.count}"]
    station.end()


if can_mount:

    def test_last_played_on_a_full_file_system(make_daemon, small_file_system):
        station = Station(make_daemon(), last_played_path=small_file_system, auto_delete=1)
        daemon = station.daemon
        ballast = small_file_system / ".ballast"
        fill(ballast)
        # Larger than the place that the last one frees.
        words = [f"{i:090d}" for i in range(60)]
        daemon.drop("a", "m", " ".join(words))
        daemon.wait(lambda: daemon.spoken()[-1][1].endswith(words[-1] + " "), "all of the message")
        assert any("No space left on device" in line for line in daemon.log())  # By cp.
        ballast.unlink()
        station.say()
        assert (small_file_system / f"well{station.count}").read_text() == "all is well 2"
        station.end()


def test_cache_without_its_directory_fails_every_pass_until_it_is_there(make_daemon):
    daemon = make_daemon()
    last = daemon.root / "last"
    last.mkdir()
    station = Station(daemon)
    daemon.reconfigure(
        daemon.directory("a"), daemon.directory("c", dir_mode="cache", last_played_path=last)
    )
    last.rmdir()
    daemon.wait_log(f"Could not open directory {last}/", 2)
    last.mkdir()
    daemon.wait_passes(2)
    station.end()


@pytest.mark.parametrize("obstacle", ["missing", "directory in its place"])
def test_status_file_in_trouble(make_daemon, obstacle):
    daemon = make_daemon(status="apart")
    status_directory = daemon.status_path.parent
    station = Station(daemon)
    before = daemon.timestamp()
    if obstacle == "missing":
        status_directory.rename(daemon.root / "away")
    else:
        # Until the daemon is between two writes.
        wait_until(lambda: daemon.status_path.exists(), "the status file")
        daemon.status_path.unlink()
        wait_until(lambda: make_directory(daemon.status_path), "a directory in its place")
    daemon.wait_log(f'Could not open "{daemon.status_path}" for writing')
    daemon.drop("a", "m", "spoken all the same")
    daemon.wait(lambda: daemon.spoken()[-1][0] == "m", "the message")
    if obstacle == "missing":
        (daemon.root / "away").rename(status_directory)
    else:
        daemon.status_path.rmdir()
    daemon.wait(lambda: (daemon.timestamp() or 0) > before, "a status")
    station.end()


def test_status_in_a_fifo_without_a_reader(make_daemon):
    daemon = make_daemon(status="apart")
    station = Station(daemon)
    before = daemon.timestamp()
    hidden = daemon.status_path.with_name("fifo")
    os.mkfifo(hidden)
    hidden.rename(daemon.status_path)
    daemon.wait_log(f'Could not open "{daemon.status_path}" for writing', 2)
    daemon.drop("a", "m", "spoken without a reader")
    daemon.wait(lambda: daemon.spoken()[-1][0] == "m", "the message")
    daemon.status_path.unlink()
    daemon.wait(lambda: (daemon.timestamp() or 0) > before, "a status")
    station.say()
    os.mkfifo(hidden)
    hidden.rename(daemon.status_path)
    count = daemon.log().count(f'Could not open "{daemon.status_path}" for writing')
    daemon.wait_log(f'Could not open "{daemon.status_path}" for writing', count + 2)
    daemon.stop()


@pytest.mark.parametrize("mode", [0o555, 0])
def test_status_directory_that_may_not_be_written(make_unprivileged, mode):
    daemon = make_unprivileged(status="apart")
    status_directory = daemon.status_path.parent
    station = Station(daemon)
    before = daemon.timestamp()
    # An old file that may be written would still be: it is rewritten in place.
    status_directory.chmod(0o755)
    wait_until(lambda: remove(daemon.status_path, status_directory, mode), "the file to be gone")
    daemon.wait_log(f'Could not open "{daemon.status_path}" for writing')
    daemon.drop("a", "m", "spoken all the same")
    daemon.wait(lambda: daemon.spoken()[-1][0] == "m", "the message")
    status_directory.chmod(0o755)
    daemon.wait(lambda: (daemon.timestamp() or 0) > before, "a status")
    station.end()


def remove(path, directory, mode):
    """Closes the directory to new files with that one gone; false if it came back before that."""
    directory.chmod(0o755)
    path.unlink(missing_ok=True)
    directory.chmod(mode)
    return not path.exists()


def make_directory(path):
    with contextlib.suppress(FileExistsError):
        path.mkdir()
        return True
    path.unlink(missing_ok=True)
    return False


if can_mount:

    def test_status_on_a_full_file_system(make_daemon, small_file_system):
        daemon = make_daemon(status=False)
        daemon.status_path = small_file_system / "status.xml"
        daemon.arguments += ["-s", daemon.status_path]
        daemon.status_path.write_text("")
        ballast = small_file_system / "ballast"
        fill(ballast)
        daemon.configure(daemon.directory("a"))
        daemon.start(wait=False)
        # Rewritten in every pass, but still empty.
        times = set()

        def is_rewritten():
            times.add(daemon.status_path.stat().st_mtime_ns)
            return len(times) > 3

        daemon.wait(is_rewritten, "three passes")
        daemon.drop("a", "m", "still spoken")
        daemon.wait_spoken(("m", PAUSE + "still spoken "))
        assert daemon.status_path.read_bytes() == b""
        ballast.unlink()
        daemon.wait(lambda: daemon.timestamp() is not None, "a status")
        daemon.stop()


# --- Files ---


def test_files_that_come_and_go_during_the_scans(make_daemon):
    station = Station(make_daemon(files=100000))
    daemon = station.daemon
    goal = daemon.timestamp() + 20
    number = 0
    while (daemon.timestamp() or 0) < goal:
        for _ in range(50):
            path = daemon.input("a") / f"flash{number % 7}"
            path.write_text("")
            path.unlink(missing_ok=True)
            number += 1
    assert not any(run.message.startswith("flash") for run in daemon.translator_runs())
    station.end()


def test_file_that_grows_is_taken_as_it_was(make_daemon):
    station = Station(make_daemon())
    daemon = station.daemon
    before = len(daemon.translator_runs())
    daemon.hold()
    daemon.drop("a", "first", "first")
    daemon.wait_translator_runs(before + 1)
    # Waits behind the first one, and is read again when it is taken.
    path = daemon.input("a") / "growing"
    with open(path, "w") as file:
        file.write("one ")
        file.flush()
        daemon.release()
        daemon.wait(lambda: not path.exists(), "the file to be taken")
        file.write("two")
    daemon.wait(lambda: daemon.spoken()[-1][0] == "growing", "the message")
    assert [text for name, text in daemon.spoken() if name == "growing"] == [PAUSE + "one "]
    station.end()


OBSTACLES = {
    "fifo": os.mkfifo,
    "endless device": lambda path: path.symlink_to("/dev/zero"),
    "directory": lambda path: path.mkdir(),
}


def put_in_the_way(path, obstacle):
    """Replaces the file by something that is no regular file, in one step if possible."""
    hidden = path.with_name(".obstacle")
    OBSTACLES[obstacle](hidden)
    if obstacle == "directory":
        path.unlink(missing_ok=True)
    hidden.rename(path)


@pytest.mark.core
@pytest.mark.parametrize("obstacle", OBSTACLES)
def test_daemon_reads_only_regular_files(make_daemon, obstacle):
    daemon = make_daemon(glossary=True)
    daemon.write_glossary(("well", "fine"))
    daemon.configure(daemon.directory("a"), daemon.directory("r", type="ftp", path="host"))
    daemon.start()
    (helper,) = daemon.wait_helper_runs(1)
    daemon.tell_helpers("quit")
    daemon.wait(lambda: not is_alive(helper.pid), "the helper's end")
    put_in_the_way(daemon.input("a") / "m", obstacle)
    daemon.wait_passes(2)
    put_in_the_way(helper.watch / ".helper.timestamp", obstacle)
    daemon.wait_passes(2)
    # The last glossary that could be read is kept.
    put_in_the_way(daemon.glossary, obstacle)
    daemon.wait_passes(2)
    daemon.drop("a", "n", "all is well")
    daemon.wait_spoken(("n", PAUSE + "all is fine "))
    put_in_the_way(daemon.config, obstacle)
    daemon.wait_log(f'Could not open "{daemon.config}" for reading', 4)
    daemon.stop()


# --- Configuration and glossary ---


def test_configuration_written_bit_by_bit(make_daemon):
    station = Station(make_daemon())
    daemon = station.daemon
    whole = element("tts-config", [daemon.directory("a"), daemon.directory("b")], state="run")
    with open(daemon.config, "w", buffering=1) as file:
        for character in whole:
            file.write(character)
            file.flush()
            time.sleep(0.002)
    daemon.wait_log("Created new input directory b")
    daemon.wait_passes(2)
    daemon.drop("b", "m", "from b")
    daemon.wait(lambda: ("m", PAUSE + "from b ") in daemon.spoken(), "the message")
    station.end()


def test_glossary_written_bit_by_bit(make_daemon):
    daemon = make_daemon(glossary=True)
    daemon.write_glossary(("other", "word"))
    station = Station(daemon)
    whole = element("glossary", [element("word", text="it", speech="that thing")])
    with open(daemon.glossary, "w", buffering=1) as file:
        for character in whole:
            file.write(character)
            file.flush()
            time.sleep(0.005)
    daemon.wait_passes(2)
    daemon.drop("a", "m", "it")
    daemon.wait(lambda: ("m", PAUSE + "that thing ") in daemon.spoken(), "the new speech")
    station.end()


def test_configuration_swapped_a_thousand_times(make_daemon):
    station = Station(make_daemon())
    daemon = station.daemon
    texts = [
        element("tts-config", [daemon.directory("a"), daemon.directory(name)], state="run")
        for name in ("b", "c")
    ]
    assert crc16(texts[0].encode()) != crc16(texts[1].encode())
    for i in range(1000):
        publish(daemon.config, texts[i % 2])
    daemon.wait(
        lambda: 'id="c"' in (daemon.status() or "") and 'id="b"' not in daemon.status(),
        "the last configuration",
    )
    assert "Deleted input directory a" not in daemon.log()
    station.end()


def test_glossary_swapped_a_thousand_times(make_daemon):
    daemon = make_daemon(glossary=True)
    daemon.write_glossary(("other", "word"))
    station = Station(daemon)
    texts = [
        element("glossary", [element("word", text="it", speech=f"speech{i}")]) for i in range(2)
    ]
    for i in range(1000):
        publish(daemon.glossary, texts[i % 2])
    daemon.wait_passes(2)
    daemon.drop("a", "m", "it")
    daemon.wait(lambda: ("m", PAUSE + "speech1 ") in daemon.spoken(), "the newest speech")
    assert not any(line.startswith("Reading glossary") for line in daemon.log())
    station.end()


def test_huge_configuration_and_glossary(make_daemon):
    daemon = make_daemon(glossary=True)
    daemon.write_glossary(*((f"word{i}", f"speech {i}") for i in range(5000)))
    fields = "".join(f'<field tag="t{i}" attr="" attr_value=""/>' for i in range(10))
    parsers = [f'<parser id="p{i}" type="xml">{fields}</parser>' for i in range(50)]
    station = Station(daemon)
    directories = [daemon.directory(f"d{i}", priority=i) for i in range(200)]
    daemon.reconfigure(daemon.directory("a"), *directories, *parsers)
    daemon.drop("d199", "m", "word0 word4999 word5000")
    daemon.wait(
        lambda: ("m", PAUSE + "speech 0 speech 4999 word5000 ") in daemon.spoken(), "the message"
    )
    daemon.reconfigure(daemon.directory("a"))
    station.end()


# --- Translator ---


def test_translator_that_writes_50_mb(make_daemon):
    station = Station(make_daemon())
    daemon = station.daemon
    daemon.take()
    daemon.behave("fake:big=50000000")
    daemon.drop("a", "m", "much to say")
    daemon.wait_outputs(1)
    daemon.behave()
    ((_, audio),) = daemon.take()
    assert len(audio) == 50000000
    station.end()


# --- Log ---


def test_closed_standard_error(make_daemon):
    daemon = make_daemon()
    daemon.configure(daemon.directory("a"))
    # No other file may get its number: that file would receive log lines.
    daemon.start(preexec_fn=lambda: os.close(2))
    daemon.drop("a", "m", "without a log")
    daemon.wait_outputs(1)
    assert daemon.take() == [
        ("0_a.text_live_first.raw", b"audio 1\n" + PAUSE.encode() + b"without a log ")
    ]
    assert os.readlink(f"/proc/{daemon.process.pid}/fd/2") == "/dev/null"
    daemon.stop()


def test_log_whose_reader_is_gone(make_daemon):
    daemon = make_daemon()
    daemon.configure(daemon.directory("a"))
    reader, writer = os.pipe()
    daemon.start(stderr=writer)
    os.close(writer)
    os.close(reader)
    daemon.wait_passes(2)
    daemon.drop("a", "m", "without a reader")
    daemon.wait_outputs(1)
    daemon.stop()


# --- Lasting failures ---


@contextlib.contextmanager
def away(path):
    hidden = path.with_name(path.name + ".away")
    path.rename(hidden)
    yield
    hidden.rename(path)


@contextlib.contextmanager
def replaced(path, text):
    """The file has another text, or the directory is a file with that text."""
    with away(path):
        path.write_text(text)
        yield
        path.unlink()


@contextlib.contextmanager
def failing_translator(daemon):
    daemon.behave("fake:exit=1")
    daemon.drop("a", "lost", " ".join(f"word{i}" for i in range(600)))
    yield
    daemon.wait(lambda: 'now-playing="0"' in (daemon.status() or ""), "the end of the message")
    daemon.behave()


@contextlib.contextmanager
def lost_helper(daemon, behaviour):
    daemon.tell_helpers(behaviour)
    daemon.reconfigure(
        daemon.directory("a"), daemon.directory("r", type="ftp", path="host", ftp_poll_rate=1)
    )
    yield
    daemon.reconfigure(daemon.directory("a"))


# What brings the trouble, how the lines begin that the daemon logs in every pass for it, and how
# many these are. Without such lines the statuses count the passes.
TROUBLES = {
    "none": (lambda d: contextlib.nullcontext(), None, 1),
    "no configuration": (lambda d: away(d.config), 'Could not open "{0.config}" for reading', 2),
    "broken configuration": (lambda d: replaced(d.config, "<tts-config></oops>"), "mismatched", 2),
    "no state": (lambda d: replaced(d.config, "<tts-config></tts-config>"), "Processing conf", 1),
    "broken glossary": (lambda d: replaced(d.glossary, "<glossary></oops>"), "Reading glossary", 1),
    "no input": (lambda d: away(d.input("a")), "Could not open directory {0.root}/in/a/", 1),
    "file as input": (lambda d: replaced(d.input("a"), ""), "Could not open directory", 1),
    "no output": (lambda d: away(d.output), 'Could not open "{0.output}/" for counting: ', 1),
    "file as output": (lambda d: replaced(d.output, ""), 'Could not open "{0.output}/" for ', 1),
    "no status": (lambda d: away(d.status_path.parent), 'Could not open "{0.status_path}" for', 1),
    "failing translator": (failing_translator, 'Could not execute "{0.translator} ', 1),
    "silent helper": (lambda d: lost_helper(d, "silent"), None, 1),
    "dead helper": (lambda d: lost_helper(d, "quit"), None, 1),
    "helper without news": (lambda d: lost_helper(d, "same"), None, 1),
}


@pytest.mark.parametrize("trouble, line, lines", TROUBLES.values(), ids=TROUBLES)
def test_lasting_failure_uses_little_time(make_daemon, trouble, line, lines):
    daemon = make_daemon(files=100000, glossary=True, status="apart")
    daemon.write_glossary(("other", "word"))
    station = Station(daemon)

    def passes():
        if line is None:
            return daemon.timestamp() or 0
        return sum(text.startswith(line.format(daemon)) for text in daemon.log()) // lines

    begin = passes()
    with trouble(daemon):
        daemon.wait(lambda: passes() > begin, "the trouble")
        started, count, burnt = time.monotonic(), passes(), cpu_time(daemon)
        daemon.wait(lambda: passes() >= count + 20, "20 passes")
        count, burnt = passes() - count, cpu_time(daemon) - burnt
        seconds = time.monotonic() - started
    # Every pass ends with a pause of 100 ms, and its work takes a small part of that.
    assert count <= seconds / 0.1 + 1
    assert burnt <= seconds / 4
    station.end()


# --- Signals ---


@pytest.mark.parametrize("batch", range(10))
def test_interrupt_at_any_moment(make_unprivileged, batch):
    daemons = []
    for moment in range(batch, 300, 10):
        daemon = make_unprivileged(files=1000)
        daemons.append(daemon)
        daemon.configure(
            daemon.directory("a"),
            daemon.directory("b"),
            daemon.directory("r", type="ftp", path="host"),
        )
        daemon.start(wait=False)
        # From before the first pass to the middle of a message, in steps of 3 ms.
        deadline = time.monotonic() + moment * 0.003
        if moment >= 90:
            daemon.wait(lambda: daemon.timestamp() is not None, "the first status")
            daemon.drop("a", "m", "one two three " * 20)
        while time.monotonic() < deadline:
            time.sleep(0.001)
        if moment < 20:
            # Waits for the signal handler: without it the signal just ends the program.
            daemon.wait(lambda: "Processing configuration" in daemon.log_text(), "the first pass")
        else:
            daemon.wait(lambda: daemon.log_text() != "", "the first line")
        assert daemon.process.poll() is None, daemon.describe()
        daemon.process.send_signal(signal.SIGINT)
    # Each takes two seconds to end its helper; all together do, too.
    for daemon in daemons:
        daemon.wait_exit(1)
        assert daemon.log().count('Now in "run" state') <= 1
    if os.geteuid() == 0:
        wait_until(lambda: UnprivilegedDaemon.left_behind() == [], "nothing to be left")


def test_kill_leaves_temporary_files_that_a_new_daemon_ignores(make_daemon):
    daemon = make_daemon()
    daemon.configure(daemon.directory("a"), daemon.directory("r", type="ftp", path="host"))
    daemon.start()
    watch = daemon.wait_helper_runs(1)[0].watch
    daemon.drop("a", "m", "last words")
    (run,) = daemon.wait_translator_runs(1)
    daemon.process.kill()
    assert daemon.process.wait() == -signal.SIGKILL
    assert Path(run.text_path).exists() and Path(run.audio_path).exists() and watch.exists()
    again = make_daemon()
    again.configure(again.directory("a"), again.directory("r", type="ftp", path="host"))
    station = again
    station.start()
    station.drop("a", "m", "as usual")
    station.wait_spoken(("m", PAUSE + "as usual "))
    station.stop()
    assert Path(run.text_path).exists() and watch.exists()  # Nobody removes them.


def test_lock_held_for_seconds_delays_delivery_and_loses_nothing(make_daemon):
    station = Station(make_daemon())
    daemon = station.daemon
    daemon.take()
    with locked(daemon.output):
        daemon.drop("a", "m", "after the lock")
        daemon.wait_lock()
        time.sleep(2)
        assert daemon.outputs() == []
    daemon.wait_outputs(1)
    station.end()

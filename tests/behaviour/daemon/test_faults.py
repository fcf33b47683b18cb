"""The daemon survives failures around it, logs them, and recovers without a restart.

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
from harness.files import element, locked, publish
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
    """The descriptors that are open between two passes: those of several equal samples."""
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
        """Drops a message and waits until it is spoken, completely and once."""
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
        # Compares the numbers only, as a replaced directory has another target.
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


# Without this right, a test with a limit on file sizes replaces those on a full file system.
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

    Other users may be unable to enter pytest's directory and the project.
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


def test_message_that_cannot_be_removed_is_not_spoken(make_unprivileged):
    station = Station(make_unprivileged())
    daemon = station.daemon
    before = len(daemon.translator_runs())
    path = daemon.input("a") / "m"
    publish(daemon.root / "m", "must never be said")
    # The file appears and the permission goes in one step.
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


if can_mount:

    def test_last_played_on_a_full_file_system(make_daemon, small_file_system):
        station = Station(make_daemon(), last_played_path=small_file_system, auto_delete=1)
        daemon = station.daemon
        ballast = small_file_system / ".ballast"
        fill(ballast)
        # Larger than the room that the removed copy frees.
        words = [f"{i:090d}" for i in range(60)]
        daemon.drop("a", "m", " ".join(words))
        daemon.wait(lambda: daemon.spoken()[-1][1].endswith(words[-1] + " "), "all of the message")
        assert any("No space left on device" in line for line in daemon.log())  # By cp.
        ballast.unlink()
        station.say()
        assert (small_file_system / f"well{station.count}").read_text() == "all is well 2"
        station.end()


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
        # The status is rewritten in every pass, but stays empty.
        times = set()

        def is_rewritten():
            times.add(daemon.status_path.stat().st_mtime_ns)
            return len(times) > 3

        daemon.wait(is_rewritten, "three passes")
        daemon.drop("a", "m", "spoken in spite of it")
        daemon.wait_spoken(("m", PAUSE + "spoken in spite of it "))
        assert daemon.status_path.read_bytes() == b""
        ballast.unlink()
        daemon.wait(lambda: daemon.timestamp() is not None, "a status")
        daemon.stop()


# --- Files ---


OBSTACLES = {
    "fifo": os.mkfifo,
    "endless device": lambda path: path.symlink_to("/dev/zero"),
    "directory": lambda path: path.mkdir(),
}


def replace_by_obstacle(path, obstacle):
    """Replaces the file by an obstacle that is no regular file, in one step if possible."""
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
    replace_by_obstacle(daemon.input("a") / "m", obstacle)
    daemon.wait_passes(2)
    replace_by_obstacle(helper.watch / ".helper.timestamp", obstacle)
    daemon.wait_passes(2)
    # The last glossary that could be read is kept.
    replace_by_obstacle(daemon.glossary, obstacle)
    daemon.wait_passes(2)
    daemon.drop("a", "n", "all is well")
    daemon.wait_spoken(("n", PAUSE + "all is fine "))
    replace_by_obstacle(daemon.config, obstacle)
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
    # No other file may get the number of standard error, as it would receive log lines.
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
def replaced(path, text=""):
    """Writes another text to the file, or replaces the directory by a file with that text."""
    with away(path):
        path.write_text(text)
        yield
        path.unlink()


@contextlib.contextmanager
def emptied(path, mode, inside=None):
    """Replaces the directory by one of that mode, empty or with one subdirectory."""
    with away(path):
        path.mkdir()
        if inside:
            (path / inside).mkdir()
        path.chmod(mode)
        yield
        path.chmod(0o755)
        shutil.rmtree(path)


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


NO_INPUT = "Could not open directory {0.root}/in/a/"
NO_OUTPUT = 'Could not open "{0.output}/" for counting: '
NO_COPY = 'Could not execute "cp '
NO_STATUS = 'Could not open "{0.status_path}" for writing'

# For each kind of trouble: the function that causes it, the start of the log lines of each pass,
# and their number in a pass (without such lines, the statuses count the passes). Then the log of a
# message that is spoken nevertheless: empty for any log, None if no message can be spoken.
TROUBLES = {
    "none": (lambda d: contextlib.nullcontext(), None, 1, ""),
    "no config": (lambda d: away(d.config), 'Could not open "{0.config}" for reading', 2, None),
    "broken config": (lambda d: replaced(d.config, "<tts-config></oops>"), "mismatched", 2, None),
    "no state": (lambda d: replaced(d.config, "<tts-config></tts-config>"), "Processing", 1, None),
    "broken glossary": (lambda d: replaced(d.glossary, "<glossary></x>"), "Reading glo", 1, None),
    "no input": (lambda d: away(d.input("a")), NO_INPUT, 1, None),
    "file as input": (lambda d: replaced(d.input("a")), NO_INPUT, 1, None),
    "closed input": (lambda d: emptied(d.input("a"), 0), NO_INPUT, 1, None),
    "no output": (lambda d: away(d.output), NO_OUTPUT, 1, NO_COPY),
    "file as output": (lambda d: replaced(d.output), NO_OUTPUT, 1, NO_COPY),
    "closed output": (lambda d: emptied(d.output, 0), NO_OUTPUT, 1, NO_COPY),
    "read-only output": (lambda d: emptied(d.output, 0o555), None, 1, NO_COPY),
    "no status": (lambda d: away(d.status_path.parent), NO_STATUS, 1, ""),
    "closed status": (lambda d: emptied(d.status_path.parent, 0), NO_STATUS, 1, ""),
    "read-only status": (lambda d: emptied(d.status_path.parent, 0o555), NO_STATUS, 1, ""),
    "directory as status": (
        lambda d: emptied(d.status_path.parent, 0o777, d.status_path.name),
        NO_STATUS,
        1,
        "",
    ),
    "failing translator": (failing_translator, 'Could not execute "{0.translator} ', 1, None),
    "silent helper": (lambda d: lost_helper(d, "silent"), None, 1, ""),
    "dead helper": (lambda d: lost_helper(d, "quit"), None, 1, ""),
    "helper without news": (lambda d: lost_helper(d, "same"), None, 1, ""),
}


@pytest.mark.parametrize("trouble, line, lines, spoken", TROUBLES.values(), ids=TROUBLES)
def test_lasting_trouble_takes_little_processor_time(
    make_unprivileged, trouble, line, lines, spoken
):
    daemon = make_unprivileged(files=100000, glossary=True, status="apart")
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
        if spoken is not None:
            station.say()
            daemon.wait(lambda: any(text.startswith(spoken) for text in daemon.log()), spoken)
    # A pass pauses for 100 ms, however it ends, and works for a small part of that.
    assert count <= seconds / 0.1 + 1
    assert burnt <= seconds / 4
    station.end()


OBSTACLES_OF_COPIES = {
    "missing": away,
    "file": replaced,
    "read-only": lambda path: emptied(path, 0o555),
    "closed": lambda path: emptied(path, 0),
}


@pytest.mark.parametrize("obstacle", OBSTACLES_OF_COPIES)
def test_last_played_directory_in_trouble(make_unprivileged, obstacle):
    daemon = make_unprivileged()
    last = daemon.root / "last"
    last.mkdir()
    station = Station(daemon, last_played_path=last, auto_delete=1)
    with OBSTACLES_OF_COPIES[obstacle](last):
        station.say()
    assert [path.name for path in last.iterdir()] == ["well1"]
    station.say()
    assert [path.name for path in last.iterdir()] == [f"well{station.count}"]
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
        # The moments reach from before the first pass to the middle of a message, in steps of 3 ms.
        deadline = time.monotonic() + moment * 0.003
        if moment >= 90:
            daemon.wait(lambda: daemon.timestamp() is not None, "the first status")
            daemon.drop("a", "m", "one two three " * 20)
        while time.monotonic() < deadline:
            time.sleep(0.001)
        if moment < 20:
            # Waits for the signal handler, without which the signal ends the program.
            daemon.wait(lambda: "Processing configuration" in daemon.log_text(), "the first pass")
        else:
            daemon.wait(lambda: daemon.log_text() != "", "the first line")
        assert daemon.process.poll() is None, daemon.describe()
        daemon.process.send_signal(signal.SIGINT)
    # Each takes two seconds to end its helper; they do so at the same time.
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
    assert Path(run.text_path).exists() and watch.exists()  # After a kill, these files stay.

"""The player empties the output directory in order and leaves the daemon room to work."""

import contextlib
import io
import os
import signal
import subprocess
import wave

import pytest
from harness.companions import COMPANIONS
from harness.files import is_locked, lock_waiters, locked
from harness.sound import RATE, pcm, samples
from harness.wait import wait_until

PLAYER = COMPANIONS / "player"

# Writes down how it was called and what it was fed, like a device that never stutters.
FAKE_APLAY = """
printf '%s\\n' "$*" >> aplay.calls
for last; do :; done
[ "$last" = /dev/null ] || exec cat > aplay.sound
"""


class Output:
    """The daemon's output directory."""

    def __init__(self, sandbox):
        self.sandbox = sandbox
        self.path = sandbox.path / "out"
        self.path.mkdir()

    def deliver(self, name, content):
        hidden = self.path / ".being-written"
        hidden.write_bytes(content)
        hidden.rename(self.path / name)

    def deliver_wav(self, name, *arguments):
        """Makes a clip with sox; the arguments name it clip.wav."""
        subprocess.run(["sox", "-D", "-n", *arguments], cwd=self.sandbox.path, check=True)
        (self.sandbox.path / "clip.wav").rename(self.path / name)

    def names(self):
        return sorted(os.listdir(self.path))


@pytest.fixture
def output(sandbox):
    return Output(sandbox)


@pytest.fixture
def wav(sandbox):
    return sandbox.path / "sound.wav"


def frames(path):
    """The samples of a WAV file; fails unless it is a whole and valid one in our format."""
    with wave.open(str(path)) as file:
        assert (file.getnchannels(), file.getsampwidth(), file.getframerate()) == (1, 2, RATE)
        content = file.readframes(file.getnframes())
        assert len(content) == 2 * file.getnframes()
    return samples(content)


def wav_holds(path, expected):
    """Whether a player that still runs has written these samples. It writes the header last."""
    size = 44 + 2 * len(expected)
    return path.exists() and path.stat().st_size == size and frames(path) == expected


def as_wav(content):
    """A WAV file in our own format."""
    file = io.BytesIO()
    with contextlib.closing(wave.Wave_write(file)) as writer:
        writer.setparams((1, 2, RATE, 0, "NONE", None))
        writer.writeframes(content)
    return file.getvalue()


def assert_sizes_are_exact(path):
    content = path.read_bytes()
    assert content[:4] == b"RIFF" and content[36:40] == b"data"
    assert int.from_bytes(content[4:8], "little") == len(content) - 8
    assert int.from_bytes(content[40:44], "little") == len(content) - 44


def collect(output, wav, *options):
    """Plays what lies in the directory into the WAV file and returns its samples."""
    result = output.sandbox.run(PLAYER, "--wav", wav, "--until-empty", *options, output.path)
    assert (result.returncode, result.stderr) == (0, "")
    return frames(wav)


def start(output, *options):
    # Whoever runs the tests in the background of a shell has SIGINT ignored.
    return output.sandbox.start(
        PLAYER,
        *options,
        output.path,
        preexec_fn=lambda: signal.signal(signal.SIGINT, signal.SIG_DFL),
    )


def stop(process, how=signal.SIGTERM):
    process.send_signal(how)
    _, complaint = process.communicate(timeout=30)
    return process.returncode, complaint


# --- Taking files ---------------------------------------------------------------------------------


def test_files_are_played_in_the_order_of_their_numbers(output, wav):
    for number in (100, 9, 10, 4294967295, 8, 0):
        output.deliver(f"{number}_lobby.text_live_cont.raw", pcm(number % 1000, 10))
    played = collect(output, wav)
    assert played == samples(b"".join(pcm(n, 10) for n in (0, 8, 9, 10, 100, 295)))
    assert output.names() == []


def test_verbose_names_the_files_as_they_are_played(output, wav):
    for name in ("10_b.raw", "9_a.raw", "11_c.raw"):
        output.deliver(name, pcm(1, 10))
    result = output.sandbox.run(PLAYER, "--wav", wav, "--until-empty", "--verbose", output.path)
    assert result.stdout == "playing 9_a.raw\nplaying 10_b.raw\nplaying 11_c.raw\n"


def test_files_without_a_number_and_hidden_files_are_left_alone(output, wav):
    others = [".5_lobby.raw", "lobby_5.raw", "5.raw", "5x_lobby.raw", "12345678901_x.raw", "-1_x"]
    for name in others:
        output.deliver(name, pcm(1, 10))
    (output.path / "6_directory").mkdir()
    (output.path / "7_link").symlink_to(output.path / "lobby_5.raw")
    output.deliver("8_lobby.raw", pcm(8, 10))
    assert collect(output, wav) == samples(pcm(8, 10))
    assert output.names() == sorted(others + ["6_directory", "7_link"])


def test_file_that_an_earlier_player_left_hidden_is_deleted_unplayed(output, wav):
    output.deliver(".playing.3_lobby.raw", pcm(3, 10))
    assert len(collect(output, wav)) == 0
    assert output.names() == []


def test_files_that_come_later_are_played_too(output, wav):
    start(output, "--wav", wav)
    for number in range(3):
        output.deliver(f"{number}_lobby.raw", pcm(number, 10))
        wait_until(lambda: output.names() == [], "the file is taken")
    expected = samples(pcm(0, 10) + pcm(1, 10) + pcm(2, 10))
    wait_until(lambda: wav_holds(wav, expected), "all is written")


def test_takes_nothing_while_another_process_holds_the_lock(output):
    output.deliver("1_lobby.raw", pcm(1, 10))
    with locked(output.path):
        start(output, "--null")
        wait_until(lambda: lock_waiters(output.path), "the player waits for the lock")
        assert output.names() == ["1_lobby.raw"]
    wait_until(lambda: output.names() == [], "the file is played")


def test_lock_is_taken_for_every_file(output, sandbox):
    sandbox.provide("flock", 'echo "$1" >> flock.calls; exec /usr/bin/flock "$@"')
    for number in range(3):
        output.deliver(f"{number}_lobby.raw", pcm(1, 10))
    collect(output, sandbox.path / "sound.wav")
    assert (sandbox.path / "flock.calls").read_text() == "9\n9\n9\n"


def test_file_in_play_is_hidden_and_the_lock_is_free(output):
    output.deliver("1_lobby.raw", pcm(0, 3600 * RATE // 10))
    output.deliver("2_lobby.raw", pcm(0, 10))
    process = start(output, "--null")
    wait_until(lambda: output.names() == [".playing.1_lobby.raw", "2_lobby.raw"], "it plays")
    wait_until(lambda: not is_locked(output.path), "the lock is free while it plays")
    assert process.poll() is None
    assert output.names() == [".playing.1_lobby.raw", "2_lobby.raw"]


def test_player_that_waits_for_the_lock_can_be_stopped(output):
    output.deliver("1_lobby.raw", pcm(1, 10))
    with locked(output.path):
        process = start(output, "--null")
        wait_until(lambda: lock_waiters(output.path), "the player waits for the lock")
        assert stop(process) == (0, "")
        assert output.names() == ["1_lobby.raw"]


def test_file_that_vanishes_while_the_player_waits_is_forgotten(output, wav):
    output.deliver("1_lobby.raw", pcm(1, 10))
    with locked(output.path):
        process = start(output, "--wav", wav)
        wait_until(lambda: lock_waiters(output.path), "the player waits for the lock")
        (output.path / "1_lobby.raw").unlink()
    output.deliver("2_lobby.raw", pcm(2, 10))
    wait_until(lambda: wav_holds(wav, samples(pcm(2, 10))), "the other is played")
    assert stop(process) == (0, "")


def test_file_that_vanishes_at_the_last_moment_is_forgotten(output, wav, sandbox):
    sandbox.provide("mv", 'case $2 in */1_lobby.raw) rm "$2" ;; esac\nexec /bin/mv "$@"')
    output.deliver("1_lobby.raw", pcm(1, 10))
    output.deliver("2_lobby.raw", pcm(2, 10))
    assert collect(output, wav) == samples(pcm(2, 10))


def test_file_that_cannot_be_renamed_ends_the_player(output, sandbox):
    sandbox.provide("mv", "exit 1")
    output.deliver("1_lobby.raw", pcm(1, 10))
    result = sandbox.run(PLAYER, "--null", output.path)
    assert result.returncode == 1
    assert result.stderr == f"player: cannot rename {output.path}/1_lobby.raw\n"
    assert output.names() == ["1_lobby.raw"]


def test_directory_that_goes_away_ends_the_player(output, wav, sandbox):
    sandbox.provide("flock", "rm -r out; exit 1")
    output.deliver("1_lobby.raw", pcm(1, 10))
    with locked(output.path):
        result = sandbox.run(PLAYER, "--wav", wav, output.path)
    assert result.returncode == 1
    assert result.stderr == f"player: cannot lock {output.path}\n"


# --- Kinds of files -------------------------------------------------------------------------------


def test_first_bytes_tell_wav_from_raw_whatever_the_name(output, wav):
    output.deliver("1_lobby.wav", pcm(1, 10))
    output.deliver("2_lobby.raw", as_wav(pcm(2, 10)))
    output.deliver("3_lobby.raw", b"RIF" + b"x" * 17)
    played = collect(output, wav)
    assert played == samples(pcm(1, 10) + pcm(2, 10) + b"RIF" + b"x" * 17)


@pytest.mark.parametrize(
    "kind",
    [
        ["-r", "44100", "-c", "2", "-b", "16"],
        ["-r", "8000", "-c", "1", "-b", "8"],
        ["-r", "48000", "-c", "1", "-b", "24"],
        ["-r", "16000", "-c", "1", "-e", "mu-law"],
        ["-r", "22050", "-c", "1", "-b", "32", "-e", "floating-point"],
    ],
    ids=" ".join,
)
def test_wav_clips_of_any_kind_are_converted(output, wav, kind):
    output.deliver_wav("1_lobby.wav", *kind, "clip.wav", "synth", "1", "sine", "440", "vol", "0.5")
    played = collect(output, wav)
    assert len(played) == pytest.approx(RATE, abs=2)
    assert max(played) == pytest.approx(16384, rel=0.05)


def test_half_a_sample_at_the_end_does_not_shift_what_follows(output, wav):
    output.deliver("1_lobby.raw", pcm(1, 10) + b"x")
    output.deliver("2_lobby.raw", b"y")
    output.deliver("3_lobby.raw", pcm(3, 10))
    assert collect(output, wav) == samples(pcm(1, 10) + pcm(3, 10))


def test_empty_file_is_taken_and_silent(output, wav):
    output.deliver("1_lobby.raw", b"")
    assert len(collect(output, wav)) == 0
    assert output.names() == []


def test_unreadable_wav_is_dropped_and_named(output, wav):
    output.deliver("1_lobby.wav", b"RIFF, but nothing more")
    output.deliver("2_lobby.raw", pcm(2, 10))
    result = output.sandbox.run(PLAYER, "--wav", wav, "--until-empty", output.path)
    assert result.returncode == 0
    assert result.stderr == "player: cannot read the sound of 1_lobby.wav\n"
    assert frames(wav) == samples(pcm(2, 10))
    assert output.names() == []


# --- The WAV file ---------------------------------------------------------------------------------


def test_wav_file_is_valid_before_there_is_sound(output, wav):
    assert len(collect(output, wav)) == 0
    assert_sizes_are_exact(wav)


def test_wav_file_of_an_earlier_run_is_continued(output, wav):
    output.deliver("1_lobby.raw", pcm(1, 10))
    collect(output, wav)
    output.deliver("2_lobby.raw", pcm(2, 10))
    assert collect(output, wav) == samples(pcm(1, 10) + pcm(2, 10))
    assert_sizes_are_exact(wav)


def test_half_a_sample_of_a_killed_run_does_not_shift_what_follows(output, wav):
    output.deliver("1_lobby.raw", pcm(1, 10))
    collect(output, wav)
    with wav.open("ab") as file:
        file.write(b"x")
    output.deliver("2_lobby.raw", pcm(2, 10))
    played = collect(output, wav)
    assert len(played) == 21 and played[11:] == samples(pcm(2, 10))


def test_rate_is_written_into_the_wav_file(output, wav):
    output.deliver("1_lobby.raw", pcm(1, 10))
    output.deliver_wav("2_lobby.wav", "-r", "44100", "clip.wav", "trim", "0", "1")
    result = output.sandbox.run(
        PLAYER, "--rate", "8000", "--wav", wav, "--until-empty", output.path
    )
    assert (result.returncode, result.stderr) == (0, "")
    with wave.open(str(wav)) as file:
        assert (file.getframerate(), file.getnframes()) == (8000, 8010)


@pytest.mark.parametrize("rate, content", [("8000", None), (str(RATE), b"a letter to a friend")])
def test_other_file_is_not_overwritten(output, wav, rate, content):
    if content:
        wav.write_bytes(content)
    else:
        collect(output, wav)
    before = wav.read_bytes()
    output.deliver("1_lobby.raw", pcm(1, 10))
    result = output.sandbox.run(PLAYER, "--rate", rate, "--wav", wav, "--until-empty", output.path)
    assert result.returncode == 1
    assert result.stderr == f"player: {wav} is not a WAV file of this player at {rate} Hz\n"
    assert wav.read_bytes() == before
    assert output.names() == ["1_lobby.raw"]


@pytest.mark.parametrize("how", [signal.SIGTERM, signal.SIGINT, signal.SIGHUP])
def test_signal_while_playing_ends_it_with_a_valid_wav_file(output, wav, how):
    output.deliver("1_lobby.raw", pcm(1, 10))
    output.deliver("2_lobby.raw", pcm(2, 3600 * RATE // 10))
    output.deliver("3_lobby.raw", pcm(3, 10))
    process = start(output, "--wav", wav, "--null")
    wait_until(lambda: wav.exists() and wav.stat().st_size > 44 + 20, "the second one plays")
    assert stop(process, how) == (0, "")
    assert_sizes_are_exact(wav)
    assert frames(wav) == samples(pcm(1, 10) + pcm(2, 3600 * RATE // 10))
    assert output.names() == ["3_lobby.raw"]
    assert list(output.sandbox.scratch.iterdir()) == []


@pytest.mark.parametrize("how", [signal.SIGTERM, signal.SIGINT])
def test_signal_while_idle_ends_it_with_a_valid_wav_file(output, wav, how):
    process = start(output, "--wav", wav)
    output.deliver("1_lobby.raw", pcm(1, 10))
    wait_until(lambda: output.names() == [], "it is idle")
    assert stop(process, how) == (0, "")
    assert_sizes_are_exact(wav)
    assert frames(wav) == samples(pcm(1, 10))


def test_killed_player_leaves_a_valid_wav_file(output, wav):
    process = start(output, "--wav", wav, "--null")
    output.deliver("1_lobby.raw", pcm(1, 10))
    output.deliver("2_lobby.raw", pcm(2, 36 * RATE))
    wait_until(lambda: wav.exists() and wav.stat().st_size > 44 + 20, "the second one plays")
    process.kill()
    # Not reaped: what it leaves running is ended with its process group.
    os.waitid(os.P_PID, process.pid, os.WEXITED | os.WNOWAIT)
    assert frames(wav)[:10] == samples(pcm(1, 10))


def test_wav_file_that_cannot_be_written_ends_the_player(output, sandbox):
    result = sandbox.run(PLAYER, "--wav", "/nonexistent/x.wav", output.path)
    assert result.returncode == 1
    assert result.stderr == "player: cannot write /nonexistent/x.wav\n"


# --- Null and the sound device --------------------------------------------------------------------


def test_null_takes_as_long_as_the_sound(output, sandbox):
    sandbox.provide("sleep", 'echo "$1" >> sleeps')
    output.deliver("1_lobby.raw", pcm(0, RATE * 3 // 2))
    output.deliver("2_lobby.raw", pcm(0, 0))
    output.deliver_wav("3_lobby.wav", "-r", "8000", "clip.wav", "trim", "0", "10.05")
    result = sandbox.run(PLAYER, "--null", "--until-empty", output.path)
    assert (result.returncode, result.stdout, result.stderr) == (0, "", "")
    assert (sandbox.path / "sleeps").read_text() == "1.500\n0.000\n10.050\n"


def test_device_gets_one_stream_of_all_files(output, sandbox):
    sandbox.provide("aplay", FAKE_APLAY)
    output.deliver("9_lobby.raw", pcm(9, 10))
    output.deliver("10_lobby.wav", as_wav(pcm(10, 10)))
    output.deliver("11_lobby.raw", pcm(11, 10))
    result = sandbox.run(PLAYER, "--until-empty", "--device", "hw:1", output.path)
    assert (result.returncode, result.stderr) == (0, "")
    format_options = "-q -D hw:1 -t raw -f S16_LE -r 22050 -c 1"
    calls = (sandbox.path / "aplay.calls").read_text()
    assert calls == f"{format_options} /dev/null\n{format_options}\n"
    sound = (sandbox.path / "aplay.sound").read_bytes()
    assert sound == pcm(9, 10) + pcm(10, 10) + pcm(11, 10)
    assert output.names() == []


def test_device_gets_half_a_second_of_silence_when_nothing_follows(output, sandbox):
    sandbox.provide("aplay", FAKE_APLAY)
    process = start(output)
    expected = b""
    for number in (1, 2):
        output.deliver(f"{number}_lobby.raw", pcm(number, 10))
        expected += pcm(number, 10) + pcm(0, RATE // 2)
        sound = sandbox.path / "aplay.sound"
        wait_until(lambda: sound.exists() and sound.stat().st_size >= len(expected), "a flush")
    assert stop(process) == (0, "")
    assert sound.read_bytes() == expected
    assert list(sandbox.scratch.iterdir()) == []


def test_stopped_player_stops_its_device(output, sandbox):
    sandbox.provide(
        "aplay",
        'for last; do :; done\n[ "$last" = /dev/null ] || '
        "{ echo $$ > aplay.pid; exec sleep 3600; }",
    )
    process = start(output)
    pid_file = sandbox.path / "aplay.pid"
    wait_until(lambda: pid_file.exists() and pid_file.read_text(), "the device plays")
    device = int(pid_file.read_text())
    assert stop(process) == (0, "")
    wait_until(lambda: not os.path.exists(f"/proc/{device}"), "the device has ended")


def test_device_that_stops_ends_the_player(output, sandbox):
    sandbox.provide("aplay", 'for last; do :; done\n[ "$last" = /dev/null ] || exec head -c 4')
    output.deliver("1_lobby.raw", pcm(1, 10 * RATE))
    result = sandbox.run(PLAYER, output.path)
    assert result.returncode == 1
    assert result.stderr == "player: the sound device stopped\n"


def test_real_aplay_accepts_the_stream(output):
    output.deliver("1_lobby.raw", pcm(1, 1000))
    result = output.sandbox.run(PLAYER, "--device", "null", "--until-empty", output.path)
    assert (result.returncode, result.stderr) == (0, "")
    assert output.names() == []


def test_without_a_device_nothing_is_taken(output, sandbox):
    sandbox.provide("aplay", "echo 'audio open error' >&2; exit 1")
    output.deliver("1_lobby.raw", pcm(1, 10))
    result = sandbox.run(PLAYER, output.path)
    assert result.returncode == 1
    assert result.stderr == (
        "audio open error\nplayer: no sound device; --wav FILE and --null do without\n"
    )
    assert output.names() == ["1_lobby.raw"]


TOOLS = "sh cat flock head mkfifo mktemp mv rm sleep tr wc".split()


def test_play_stands_in_for_aplay(output, sandbox):
    sandbox.provide(
        "play",
        'printf "%s\\n" "$*" >> play.calls\n'
        "case $* in *trim*) ;; *) exec cat > play.sound ;; esac",
    )
    sandbox.leave_only(*TOOLS)
    output.deliver("1_lobby.raw", pcm(1, 10))
    result = sandbox.run(PLAYER, "--until-empty", output.path)
    assert (result.returncode, result.stderr) == (0, "")
    assert (sandbox.path / "play.calls").read_text() == (
        "-q -V1 -n trim 0 0.01\n-q -V1 -t raw -r 22050 -e signed-integer -b 16 -L -c 1 -\n"
    )
    assert (sandbox.path / "play.sound").read_bytes() == pcm(1, 10)


def test_without_any_player_program_it_says_so(output, sandbox):
    sandbox.leave_only(*TOOLS)
    result = sandbox.run(PLAYER, output.path)
    assert result.returncode == 1
    assert result.stderr == (
        "player: neither aplay nor play is installed; --wav FILE and --null do without\n"
    )


# --- Command line ---------------------------------------------------------------------------------


def test_help_is_the_first_comment(sandbox):
    result = sandbox.run(PLAYER, "--help")
    assert (result.returncode, result.stderr) == (0, "")
    lines = PLAYER.read_text().split("\n\n")[0].split("\n")[1:]
    assert result.stdout.rstrip("\n").split("\n") == [line[2:] for line in lines]
    for option in ("--device", "--wav", "--null", "--rate", "--until-empty", "--verbose"):
        assert f"\n  {option} " in result.stdout


@pytest.mark.parametrize(
    "arguments, complaint",
    [
        ([], "one directory is needed; see --help"),
        (["out", "out"], "one directory is needed; see --help"),
        (["--nonsense", "out"], "unknown option --nonsense; see --help"),
        (["--wav"], "--wav needs a value"),
        (["--rate"], "--rate needs a value"),
        (["--device"], "--device needs a value"),
        (["--rate", "3999", "out"], '--rate must be a number from 4000 to 192000, not "3999"'),
        (["--rate", "fast", "out"], '--rate must be a number from 4000 to 192000, not "fast"'),
        (["missing"], "missing is not a directory"),
    ],
)
def test_bad_command_lines_are_errors(output, arguments, complaint):
    result = output.sandbox.run(PLAYER, *arguments)
    assert (result.returncode, result.stdout) == (1, "")
    assert result.stderr == f"player: {complaint}\n"

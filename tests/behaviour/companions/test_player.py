"""The player empties the output directory in order and leaves the daemon room to work."""

import contextlib
import io
import os
import re
import signal
import subprocess
import wave
import xml.etree.ElementTree

import pytest
from harness.companions import COMPANIONS
from harness.daemon import PAUSE
from harness.files import is_locked, locked, publish
from harness.programs import environment, finish
from harness.sound import RATE, pcm, samples
from harness.wait import wait_until

PLAYER = COMPANIONS / "player"


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

    def names(self):
        return sorted(os.listdir(self.path))


@pytest.fixture
def output(sandbox):
    return Output(sandbox)


@pytest.fixture
def wav(sandbox):
    return sandbox.path / "sound.wav"


def frames(path):
    """The samples of a WAV file; fails unless it is valid, complete and in the project's format."""
    with wave.open(str(path)) as file:
        assert (file.getnchannels(), file.getsampwidth(), file.getframerate()) == (1, 2, RATE)
        content = file.readframes(file.getnframes())
        assert len(content) == 2 * file.getnframes()
    return samples(content)


def has_sound(path, count):
    """Whether the WAV file of a running player has at least that many samples."""
    return path.exists() and path.stat().st_size >= 44 + 2 * count


def as_wav(content):
    """A WAV file in the project's format."""
    file = io.BytesIO()
    with contextlib.closing(wave.Wave_write(file)) as writer:
        writer.setparams((1, 2, RATE, 0, "NONE", None))
        writer.writeframes(content)
    return file.getvalue()


def collect(output, wav, *options):
    """Plays the files in the directory into the WAV file and returns its samples."""
    result = output.sandbox.run(PLAYER, "--wav", wav, "--until-empty", *options, output.path)
    assert (result.returncode, result.stderr) == (0, "")
    return frames(wav)


def start(output, *options):
    # If the tests run in the background of a shell, SIGINT is ignored; this restores it.
    return output.sandbox.start(
        PLAYER,
        *options,
        output.path,
        preexec_fn=lambda: signal.signal(signal.SIGINT, signal.SIG_DFL),
    )


def start_idle(output, *options):
    """Starts a player and waits until it watches the directory."""
    state = output.sandbox.path / "state"
    process = start(output, "--state", state, *options)
    wait_until(state.exists, "the first look")
    return process


def stop(process, how=signal.SIGTERM):
    process.send_signal(how)
    status, _, complaint = finish(process)
    return status, complaint


# --- Taking files ---------------------------------------------------------------------------------


def test_files_are_played_by_number_and_named_and_messages_counted(output, wav):
    names = [f"{n}_lobby.text_live_{'first' if n in (8, 10) else 'cont'}.raw" for n in (10, 9, 8)]
    for number, name in zip((10, 9, 8), names):
        output.deliver(name, pcm(number, RATE // 10))
    others = [".5_lobby.raw", "lobby_5.raw", "5.raw", "12345678901_x.raw"]
    for name in others:
        output.deliver(name, pcm(1, 10))
    result = output.sandbox.run(PLAYER, "--wav", wav, "--until-empty", "--verbose", output.path)
    assert (result.returncode, result.stderr) == (0, "")
    assert result.stdout == (
        f"playing {names[2]}\nplaying {names[1]}\nplaying {names[0]}\n"
        "finished lobby files=2 seconds=0.20 interruptions=0\n"
        "finished lobby files=1 seconds=0.10 interruptions=0\n"
    )
    assert frames(wav) == samples(b"".join(pcm(n, RATE // 10) for n in (8, 9, 10)))
    assert output.names() == sorted(others)


def test_files_that_come_later_are_played_too(output, wav):
    process = start(output, "--wav", wav)
    for number in range(3):
        output.deliver(f"{number}_lobby.raw", pcm(number, 10))
        wait_until(lambda: has_sound(wav, 10 * (number + 1)), "the file is played")
    wait_until(lambda: output.names() == [], "the last one is deleted")
    assert stop(process) == (0, "")
    assert frames(wav) == samples(pcm(0, 10) + pcm(1, 10) + pcm(2, 10))


def test_player_takes_nothing_while_another_process_holds_the_lock(output, wav):
    output.deliver("1_lobby.raw", pcm(0, 3600 * RATE // 10))
    process = start(output, "--null", "--wav", wav)
    wait_until(lambda: has_sound(wav, 1), "it plays")
    with locked(output.path):
        output.deliver("0_lobby.raw", pcm(1, 10))
        size = wav.stat().st_size
        wait_until(lambda: wav.stat().st_size > size + RATE, "it goes on under the lock")
        assert output.names() == [".playing.1_lobby.raw", "0_lobby.raw"]
        assert stop(process) == (0, "")
    with locked(output.path):
        process = start_idle(output, "--null")
        assert stop(process) == (0, "")
    assert output.names() == [".playing.1_lobby.raw", "0_lobby.raw"]


def test_playing_file_is_hidden_and_the_lock_is_free(output):
    output.deliver("1_lobby.raw", pcm(0, 3600 * RATE // 10))
    output.deliver("2_lobby.raw", pcm(0, 10))
    process = start(output, "--null")
    wait_until(lambda: output.names() == [".playing.1_lobby.raw", "2_lobby.raw"], "it plays")
    wait_until(lambda: not is_locked(output.path), "the lock is free while it plays")
    assert process.poll() is None


@pytest.mark.parametrize("how", [signal.SIGTERM, signal.SIGINT, signal.SIGHUP, signal.SIGKILL])
def test_player_leaves_a_valid_wav_file_and_its_last_file_to_the_next_player(output, wav, how):
    output.deliver("1_lobby.raw", pcm(1, 10))
    output.deliver("2_lobby.raw", pcm(2, 36 * RATE))
    output.deliver("3_lobby.raw", pcm(3, 10))
    process = start(output, "--wav", wav, "--null")
    wait_until(lambda: has_sound(wav, RATE // 10), "the second one plays")
    assert stop(process, how) == (-9 if how == signal.SIGKILL else 0, "")
    played = frames(wav)
    assert played == samples(pcm(1, 10) + pcm(2, len(played) - 10)) and len(played) > 10
    assert output.names() == [".playing.2_lobby.raw", "3_lobby.raw"]
    assert collect(output, wav) == played + samples(pcm(2, 36 * RATE) + pcm(3, 10))
    assert output.names() == []


def test_players_share_a_directory_by_display_ids(output, sandbox):
    for number, name in enumerate(["hall", "lobby", "yard", "hall"]):
        output.deliver(f"{number}_{name}.raw", pcm(number, 10))
    output.deliver(".playing.9_lobby.raw", pcm(9, 10))
    assert collect(output, sandbox.path / "a.wav", "--only", "hall,yard") == samples(
        pcm(0, 10) + pcm(2, 10) + pcm(3, 10)
    )
    assert output.names() == [".playing.9_lobby.raw", "1_lobby.raw"]
    assert len(collect(output, sandbox.path / "b.wav", "--except", "lobby,hall")) == 0
    assert collect(output, sandbox.path / "c.wav", "--except", "hall") == samples(
        pcm(1, 10) + pcm(9, 10)
    )


def test_directory_that_goes_away_ends_the_player(output):
    process = start_idle(output, "--null")
    output.path.rename(output.path.with_name("moved"))
    assert finish(process) == (1, "", f"player: {output.path} is gone\n")


# --- Urgency --------------------------------------------------------------------------------------

REPEATS = 1000

# A translator that makes different sound for each piece.
SPEECH = f"""#!/bin/sh
text=$(cat "$1" && echo .)
for _ in $(seq {REPEATS}); do printf %s "${{text%.}}"; done >"$2"
"""


def fade(content):
    """The fading samples that an interruption plays from these."""
    values = samples(content)
    count = len(values)
    for i, value in enumerate(values):
        values[i] = int(value * (count - 1 - i) / count)
    return values.tobytes()


def test_alarm_interrupts_an_announcement_without_loss(make_daemon, tmp_path):
    daemon = make_daemon(words=5, files=2)
    daemon.translator.unlink()
    daemon.translator.write_text(SPEECH)
    daemon.translator.chmod(0o755)
    daemon.configure(daemon.directory("lobby", priority=5), daemon.directory("alarm", priority=1))
    daemon.start()
    wav = tmp_path / "sound.wav"
    command = [PLAYER, "--null", "--wav", wav, "--verbose", "--config", daemon.config]
    command += ["--status", daemon.status_path, daemon.output]
    with open(tmp_path / "played", "wb") as played, open(tmp_path / "problems", "wb") as problems:
        player = subprocess.Popen(command, stdout=played, stderr=problems, env=environment())
    text = (tmp_path / "played").read_text
    try:
        words = {"lobby": 60, "alarm": 20}
        pieces = {  # Without punctuation, a piece has twice as many words as the limit.
            name: [
                (PAUSE if first == 0 else "")
                + "".join(f"{name[0]}{word:02} " for word in range(first, first + 10))
                for first in range(0, count, 10)
            ]
            for name, count in words.items()
        }
        daemon.drop("lobby", "long.txt", "".join(pieces["lobby"])[len(PAUSE) :])
        daemon.wait(lambda: text().count("playing") >= 2, "the announcement")
        daemon.drop("alarm", "fire.txt", "".join(pieces["alarm"])[len(PAUSE) :])
        daemon.wait(lambda: text().count("finished") == 2, "the end of both messages")
    finally:
        player.terminate()
        assert player.wait() == 0
    daemon.stop()
    assert (tmp_path / "problems").read_text() == ""
    assert os.listdir(daemon.output) == []

    content = frames(wav).tobytes()
    position, ended, interrupted = 0, [], []
    for name in re.findall(r"^playing \d+_(.*)$", text(), re.MULTILINE):
        identity = name.partition(".")[0]
        count = sum(other == identity for other, _ in ended)
        sound = (pieces[identity][count] * REPEATS).encode()
        if content.startswith(sound, position):
            position += len(sound)
            ended.append((identity, count))
        else:
            length = next(
                i for i in range(0, len(sound), 2) if content[position + i :][:2] != sound[i:][:2]
            )
            rest = fade(sound[length:][: RATE // 50 * 2])
            assert content.startswith(rest, position + length)
            position += length + len(rest)
            interrupted.append(identity)
    assert position == len(content)
    assert interrupted == ["lobby"]
    assert [count for name, count in ended if name == "lobby"] == list(range(6))
    first = ended.index(("alarm", 0))
    assert ended[first + 1] == ("alarm", 1) and first < 6
    finished = sorted(re.findall(r"^finished .*$", text(), re.MULTILINE))
    seconds = [sum(map(len, pieces[name])) * REPEATS // 2 / RATE for name in ("alarm", "lobby")]
    assert finished == [
        f"finished alarm files=2 seconds={seconds[0]:.2f} interruptions=0",
        f"finished lobby files=6 seconds={seconds[1]:.2f} interruptions=1",
    ]


# --- Sound ----------------------------------------------------------------------------------------


def test_format_depends_on_the_first_bytes_not_the_name(output, wav):
    output.deliver("1_lobby.wav", pcm(1, 10))
    output.deliver("2_lobby.raw", as_wav(pcm(2, 10)))
    output.deliver("3_lobby.raw", b"RIF" + b"x" * 17)
    output.deliver("4_lobby.raw", b"")
    played = collect(output, wav)
    assert played == samples(pcm(1, 10) + pcm(2, 10) + b"RIF" + b"x" * 17)
    assert output.names() == []


def test_rate_and_volume_apply_to_the_stream(output, wav):
    output.deliver("1_lobby.raw", pcm(1000, 10))
    output.deliver("2_lobby.wav", as_wav(pcm(1000, RATE)))
    options = ["--rate", "8000", "--volume", "50", "--wav", wav, "--until-empty"]
    result = output.sandbox.run(PLAYER, *options, output.path)
    assert (result.returncode, result.stderr) == (0, "")
    with wave.open(str(wav)) as file:
        assert (file.getframerate(), file.getnframes()) == (8000, 8010)
        played = samples(file.readframes(8010))
    assert list(played[:10]) == [500] * 10 and abs(played[4000] - 500) <= 2


def test_unreadable_wav_is_dropped_and_named(output, wav):
    output.deliver("1_lobby.wav", b"RIFF, but nothing more")
    output.deliver("2_lobby.raw", pcm(2, 10))
    result = output.sandbox.run(PLAYER, "--wav", wav, "--until-empty", output.path)
    assert result.returncode == 0
    assert re.fullmatch("player: cannot read the sound of 1_lobby.wav: .+\n", result.stderr)
    assert frames(wav) == samples(pcm(2, 10))


def test_wav_file_of_an_earlier_run_is_continued(output, wav):
    assert len(collect(output, wav)) == 0
    for number in (1, 2):
        output.deliver(f"{number}_lobby.raw", pcm(number, 10))
        played = collect(output, wav)
    assert played == samples(pcm(1, 10) + pcm(2, 10))
    wav.write_bytes(b"a letter to a friend")
    result = output.sandbox.run(PLAYER, "--wav", wav, output.path)
    complaint = f"player: {wav} is not a WAV file of this player at {RATE} Hz\n"
    assert (result.returncode, result.stderr) == (1, complaint)
    assert wav.read_bytes() == b"a letter to a friend"


def test_commands_run_around_sound(output, sandbox, wav):
    output.deliver("1_lobby.raw", pcm(1, 10))
    begin = "ls -A out >begin; ls -l /proc/$$/fd >descriptors"
    collect(output, wav, "--begin", begin, "--end", "ls -A out >end")
    assert (sandbox.path / "begin").read_text() == "1_lobby.raw\n"
    assert (sandbox.path / "end").read_text() == ""
    descriptors = (sandbox.path / "descriptors").read_text()
    assert "/descriptors" in descriptors or "/dev/null" in descriptors
    assert not re.search(r"inotify|signalfd|/out$|\.wav$", descriptors, re.MULTILINE)


def test_player_waits_for_a_missing_device(output, sandbox):
    """The ALSA device is a file, which the library's configuration does not have at first."""
    config = sandbox.path / "asoundrc"
    config.write_text("pcm.other { type null }\n")
    sandbox.environment["ALSA_CONFIG_PATH"] = str(config)
    output.deliver("1_lobby.raw", pcm(1, RATE))
    output.deliver("2_lobby.wav", as_wav(pcm(2, 10)))
    process = start_idle(output, "--device", "speaker", "--until-empty")
    assert 'device-ok="0"' in (sandbox.path / "state").read_text()
    assert output.names() == ["1_lobby.raw", "2_lobby.wav"]
    # Makes a new file, as the library compares only the whole seconds of its time.
    publish(
        config, 'pcm.speaker { type file slave.pcm { type null } file "sound.raw" format raw }\n'
    )
    status, _, complaint = finish(process)
    assert status == 0
    assert re.fullmatch(
        "player: no sound device speaker: .+\nplayer: the sound device is back\n", complaint
    )
    sound = (sandbox.path / "sound.raw").read_bytes()
    expected = pcm(1, RATE) + pcm(2, 10)
    assert sound[: len(expected)] == expected and not any(sound[len(expected) :])


def test_option_run_sets_directory_state_and_status(output, sandbox):
    output.deliver("1_lobby.raw", pcm(0, 3600 * RATE // 10))
    output.deliver("2_lobby.raw", pcm(0, 10))
    process = sandbox.start(PLAYER, "--null", "--run", sandbox.path)
    state = sandbox.path / "player"
    wait_until(lambda: state.exists() and 'playing="1_' in state.read_text(), "the state")
    root = xml.etree.ElementTree.parse(state).getroot()
    assert (root.tag, root.get("device"), root.get("problem")) == ("player-state", "null", "")
    assert [waiting.get("name") for waiting in root] == ["2_lobby.raw"]
    assert stop(process) == (0, "")


# --- Command line ---------------------------------------------------------------------------------


@pytest.mark.parametrize(
    "arguments, complaint",
    [
        ([], "name one directory; see --help"),
        (["out", "out"], "name one directory; see --help"),
        (["--run", ".", "out"], "name one directory; see --help"),
        (["--nonsense", "out"], "unrecognized option '--nonsense'"),
        (["--wav"], "option '--wav' requires an argument"),
        (["--rate", "3999", "out"], '--rate must be a number from 4000 to 192000, not "3999"'),
        (["--rate", "fast", "out"], '--rate must be a number from 4000 to 192000, not "fast"'),
        (["--volume", "101", "out"], '--volume must be a number from 0 to 100, not "101"'),
        (["missing"], "missing is not a directory"),
        (["--wav", "/nonexistent/x.wav", "out"], "cannot write /nonexistent/x.wav"),
    ],
)
def test_bad_command_lines_are_errors(output, arguments, complaint):
    result = output.sandbox.run(PLAYER, *arguments)
    assert (result.returncode, result.stdout) == (1, "")
    assert re.fullmatch(f"(.*/)?player: {re.escape(complaint)}\n", result.stderr)

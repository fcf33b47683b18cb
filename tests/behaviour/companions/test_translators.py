"""The translators, with an engine and without one, follow the daemon's contract."""

import stat
import subprocess

import pytest
from harness.companions import COMPANIONS
from harness.sound import RATE, samples

BOTH = ["espeak-ng", "tone"]


class Translator:
    def __init__(self, sandbox, name):
        self.sandbox = sandbox
        self.name = name
        self.text_file = sandbox.path / "text"
        self.audio_file = sandbox.path / "audio"
        self.audio_file.write_bytes(b"the snippet before")
        self.audio_file.chmod(0o600)

    def run(self, text, *arguments, message="note.txt"):
        self.text_file.write_bytes(text if isinstance(text, bytes) else text.encode())
        return self.sandbox.run(
            COMPANIONS / "translators" / self.name,
            self.text_file,
            self.audio_file,
            *arguments,
            message,
        )

    def speak(self, text, *arguments, message="note.txt"):
        """Runs it, expects success without any output and returns the samples."""
        result = self.run(text, *arguments, message=message)
        assert (result.returncode, result.stdout, result.stderr) == (0, "", "")
        return samples(self.audio_file.read_bytes())

    def fail(self, text, *arguments):
        """Runs it, expects a clean failure and returns its standard error."""
        result = self.run(text, *arguments)
        assert result.returncode == 1
        assert result.stdout == ""
        assert self.audio_file.read_bytes() == b""
        prefix = f"{self.name} translator: "
        assert result.stderr.startswith(prefix) and result.stderr.count("\n") == 1
        return result.stderr[len(prefix) : -1]


@pytest.fixture(params=BOTH)
def translator(request, sandbox):
    return Translator(sandbox, request.param)


@pytest.fixture
def espeak(sandbox):
    return Translator(sandbox, "espeak-ng")


@pytest.fixture
def tone(sandbox):
    return Translator(sandbox, "tone")


def silent_at_start(sound):
    return next((i for i, value in enumerate(sound) if abs(value) > 100), len(sound))


def silent_at_end(sound):
    return silent_at_start(sound[::-1])


# --- Both -----------------------------------------------------------------------------------------


def test_words_make_sound_that_grows_with_them(translator):
    few = translator.speak("one two ")
    many = translator.speak("one two three four five six ")
    assert max(few) > 1000
    assert len(many) > 2 * len(few)


def test_same_text_makes_same_sound(translator):
    assert translator.speak("once more ") == translator.speak("once more ")


def test_audio_file_can_be_read_by_a_player_under_another_user(translator):
    translator.speak("hello ")
    assert stat.S_IMODE(translator.audio_file.stat().st_mode) == 0o644


def test_audio_file_stays_the_same_file(translator):
    before = translator.audio_file.stat().st_ino
    translator.speak("hello ")
    assert translator.audio_file.stat().st_ino == before


def test_leading_pause_is_silence_of_its_length(translator):
    plain = translator.speak("hello ")
    paused = translator.speak("\\pau=300\\ hello ")
    # The engine rounds the pause to whole blocks.
    assert len(paused) - len(plain) == pytest.approx(0.3 * RATE, abs=0.01 * RATE)
    assert silent_at_start(paused) >= 0.3 * RATE


def test_pause_between_words_is_silence_of_its_length(translator):
    short = translator.speak("hello \\pau=1000\\ you ")
    long = translator.speak("hello \\pau=4000\\ you ")
    assert len(long) - len(short) == pytest.approx(3 * RATE, abs=0.01 * RATE)


def test_pause_of_five_digits_is_read_aloud(translator):
    sound = translator.speak("\\pau=99999\\ hello ")
    assert silent_at_start(sound) < 0.3 * RATE
    assert len(sound) < 15 * RATE


@pytest.mark.parametrize("text", ["", " ", "\n", "\0", "\1\2\x1f\x7f"])
def test_nothing_to_say_is_success(translator, text):
    assert len(translator.speak(text)) < 0.5 * RATE


def test_control_characters_separate_words(translator):
    assert translator.speak("one\x012\0three\n") == translator.speak("one 2 three ")


def test_invalid_utf8_is_accepted(translator):
    assert max(translator.speak(b"one \xff\xfe\xc0 two ")) > 1000


def test_text_never_reaches_a_shell(translator):
    evil = "$(touch one) `touch two`; touch three | touch four & ' \" * ~ > five \\"
    translator.speak(evil, message="$(touch six) `touch seven`")
    left = {entry.name for entry in translator.sandbox.path.iterdir()}
    assert left == {"scratch", "bin", "text", "audio"}


def test_no_temporary_file_stays(translator):
    translator.speak("hello ")
    translator.fail("hello ", "nonsense")
    assert list(translator.sandbox.scratch.iterdir()) == []


@pytest.mark.parametrize("name", ["voice=nosuch", "rate=1", "--help", "a b", ""])
def test_last_argument_is_always_the_message(translator, name):
    assert translator.speak("hello ", message=name) == translator.speak("hello ")


def test_rate_changes_the_number_of_samples_not_the_length(translator):
    usual = translator.speak("one two three ")
    lower = translator.speak("one two three ", "rate=8000")
    assert len(lower) / 8000 == pytest.approx(len(usual) / RATE, abs=0.005)


def test_last_of_equal_arguments_counts(translator):
    expected = translator.speak("one ", "rate=8000")
    assert translator.speak("one ", "rate=16000", "rate=8000") == expected


def test_arguments_of_the_engine_are_known_to_both(translator):
    assert max(translator.speak("hello ", "voice=de", "speed=200", "pitch=30", "volume=90")) > 500


@pytest.mark.parametrize("argument", ["nonsense", "Rate=8000", "--rate=8000", "rate", "-v", ""])
def test_unknown_argument_is_an_error(translator, argument):
    assert translator.fail("hello ", argument) == f'unknown argument "{argument}"'


@pytest.mark.parametrize("rate", ["", "3999", "192001", "8e3", "-8000", "22050.0", "9999999999"])
def test_bad_rate_is_an_error(translator, rate):
    complaint = translator.fail("hello ", f"rate={rate}")
    assert complaint == f'rate must be a number from 4000 to 192000, not "{rate}"'


def test_missing_text_file_is_an_error(translator):
    missing = translator.sandbox.path / "missing"
    program = COMPANIONS / "translators" / translator.name
    result = translator.sandbox.run(program, missing, translator.audio_file, "note.txt")
    assert result.returncode == 1
    complaint = f"{translator.name} translator: cannot read {missing}"
    assert result.stderr in [f"{complaint}\n", f"{complaint}: No such file or directory\n"]
    assert translator.audio_file.read_bytes() == b""


def test_audio_file_that_cannot_be_written_is_an_error(translator):
    translator.text_file.write_text("hello ")
    program = COMPANIONS / "translators" / translator.name
    directory = translator.sandbox.scratch
    result = translator.sandbox.run(program, translator.text_file, directory, "note.txt")
    assert result.returncode == 1
    complaint = f"{translator.name} translator: cannot write {directory}"
    assert result.stderr in [f"{complaint}\n", f"{complaint}: Is a directory\n"]


def test_too_few_arguments_are_an_error(translator):
    program = COMPANIONS / "translators" / translator.name
    result = translator.sandbox.run(program, translator.text_file, translator.audio_file)
    assert result.returncode == 1
    usage = f"usage: {translator.name} TEXT-FILE AUDIO-FILE [ARGUMENT...] MESSAGE-NAME"
    assert result.stderr == f"{translator.name} translator: {usage}\n"


# --- espeak-ng ------------------------------------------------------------------------------------

SSML_BREAK = '<break time="{}ms" strength="weak"/>'
# Text, its markup for the engine's program, and the silence after it.
YARDSTICKS = [
    ("one two ", "one two", 0.04),
    ("\\pau=300\\ one, two, ", SSML_BREAK.format(300) + " one, two,", 0.12),
    (
        "a&b <c> \\pau=40\\ &lt; it? ",
        f"a&amp;b &lt;c&gt; {SSML_BREAK.format(40)} &amp;lt; it?",
        0.25,
    ),
    ("\u00e9t\u00e9 10:30 (n.) \u2026 x; ", "\u00e9t\u00e9 10:30 (n.) \u2026 x;", 0.12),
]


@pytest.mark.parametrize("arguments", [(), ("voice=de", "speed=300", "pitch=80", "volume=40")])
@pytest.mark.parametrize("text, markup, pause", YARDSTICKS)
def test_sound_equals_the_engines_without_silence_at_the_end(
    espeak, text, markup, pause, arguments
):
    letters = {"voice": "-v", "speed": "-s", "pitch": "-p", "volume": "-a"}
    options = [letters[name] + value for name, _, value in (a.partition("=") for a in arguments)]
    spoken = subprocess.run(
        ["espeak-ng", "-b1", "-m", *options, "--stdin", "--stdout"],
        input=f"<speak>{markup}</speak>".encode(),
        stdout=subprocess.PIPE,
        check=True,
    ).stdout
    trimmed = subprocess.run(
        "sox -V1 -D --ignore-length -t wav - -t raw -".split()
        + f"reverse silence 1 0.01 0.3% reverse pad 0 {pause}".split(),
        input=spoken,
        stdout=subprocess.PIPE,
        check=True,
    ).stdout
    assert espeak.speak(text, *arguments) == samples(trimmed)


@pytest.mark.parametrize(
    "text",
    [
        '<break time="9s"/> hello ',
        '</speak><speak><break time="9s"/> hello ',
        '&lt;break time="9s"/&gt; hello ',
        '&#60;break time="9s"/&#62; hello ',
        '\ue03cbreak time="9s"/\ue03e hello ',
        '<![CDATA[<break time="9s"/>]]> hello ',
        "<audio src='/dev/zero'/> [[h@l'oU]] ",
    ],
)
def test_markup_in_a_message_is_read_aloud(espeak, text):
    sound = espeak.speak(text)
    assert silent_at_start(sound) < 0.5 * RATE
    assert len(sound) < 9 * RATE


def test_phonemes_in_a_message_are_read_as_letters(espeak):
    assert len(espeak.speak("[[h@l'oU]] ")) > 2 * len(espeak.speak("hello "))


@pytest.mark.parametrize(
    "text", ["a" * 65536, "& " * 32768, "<" * 65536, "\\pau=9\\" * 8000, ". " * 32768]
)
def test_long_text_is_spoken_to_its_end(espeak, text):
    espeak.speak(text, "limit=600")


def test_sound_of_more_than_an_hour_is_an_error(espeak):
    assert espeak.fail("\\pau=9999\\" * 400, "limit=600") == "the sound is longer than an hour"


def test_time_is_limited(espeak):
    assert espeak.fail("hello " * 150000, "limit=1") == "not done within 1 seconds"


@pytest.mark.parametrize(
    "text",
    ["\u0663 ", "\\pau=300\\ \u0663\u0664 "],  # Arabic digits, for which English has no name.
)
def test_words_without_sound_are_an_error(espeak, text):
    assert espeak.fail(text) == "voice en has no sound for the text"
    assert len(espeak.speak(text, "volume=0")) < 0.5 * RATE


@pytest.mark.parametrize("text", ["\\pau=300\\ ", "... ", "\u2014 "])
def test_text_without_words_is_silence(espeak, text):
    sound = espeak.speak(text)
    assert len(sound) < 0.5 * RATE and silent_at_start(sound) == len(sound)


@pytest.mark.parametrize("rate", [4000, 48000, 192000])
def test_resampled_sound_is_as_loud_and_as_long(espeak, rate):
    usual, other = espeak.speak("one two. "), espeak.speak("one two. ", f"rate={rate}")
    assert len(other) == pytest.approx(len(usual) * rate / RATE, abs=1)
    assert max(other) == pytest.approx(max(usual), rel=0.5)


def test_variant_changes_the_voice(espeak):
    assert espeak.speak("hello ", "voice=en+f3") != espeak.speak("hello ")


@pytest.mark.parametrize(
    "arguments, why",
    [
        ([], None),
        (["voice=en-gb", "speed=80", "pitch=0", "volume=200", "rate=192000", "limit=1"], None),
        (["voice=nosuch"], "espeak-ng failed: The specified espeak-ng voice does not exist."),
        (["voice=a b"], '"a b" is not the name of a voice'),
        (["speed=451"], 'speed must be a number from 80 to 450, not "451"'),
        (["limit=0"], 'limit must be a number from 1 to 3600, not "0"'),
        (["--help"], 'unknown argument "--help"'),
        (["voice=en", "note.txt"], 'unknown argument "note.txt"'),
        (["a\nb"], 'unknown argument "a b"'),
    ],
)
def test_check_gives_the_same_reason_as_a_run(espeak, arguments, why):
    program = COMPANIONS / "translators/espeak-ng"
    result = espeak.sandbox.run(program, "--check", *arguments)
    assert result.stdout == ""
    if why is None:
        assert (result.returncode, result.stderr) == (0, "")
        espeak.speak("hello ", *arguments)
    else:
        assert (result.returncode, result.stderr) == (1, f"espeak-ng translator: {why}\n")
        assert espeak.fail("hello ", *arguments) == why


@pytest.mark.parametrize("home", [None, "/nonexistent", "/proc/1"])
def test_cause_is_reported_without_a_home_directory(espeak, home):
    data = espeak.sandbox.scratch / "data"
    data.mkdir()
    espeak.sandbox.environment.pop("HOME", None)
    if home is not None:
        espeak.sandbox.environment["HOME"] = home
    espeak.speak("hello ")
    espeak.sandbox.environment["ESPEAK_DATA_PATH"] = str(data)
    assert espeak.fail("hello ") == (
        f"espeak-ng failed: Error processing file '{data}/phontab': No such file or directory."
    )


def test_home_directory_stays_empty(espeak):
    espeak.sandbox.environment["HOME"] = str(espeak.sandbox.scratch)
    espeak.speak("hello ")
    assert list(espeak.sandbox.scratch.iterdir()) == []


def test_espeak_needs_no_other_program(espeak):
    expected = espeak.speak("hello ")
    espeak.sandbox.leave_only()
    assert espeak.speak("hello ") == expected


def test_help_and_version(espeak):
    program = COMPANIONS / "translators/espeak-ng"
    text = espeak.sandbox.run(program, "--help")
    assert (text.returncode, text.stderr) == (0, "")
    assert (
        text.stdout.startswith("Usage: espeak-ng TEXT-FILE AUDIO-FILE") and "--check" in text.stdout
    )
    assert espeak.sandbox.run(program, "--version").stdout.startswith("espeak-ng translator ")


def test_volume_lowers_the_sound(espeak):
    assert max(espeak.speak("hello ", "volume=20")) < 0.4 * max(espeak.speak("hello "))


def test_speed_shortens_the_speech(espeak):
    slow = espeak.speak("one two three four ", "speed=100")
    fast = espeak.speak("one two three four ", "speed=300")
    assert len(fast) < 0.6 * len(slow)


@pytest.mark.parametrize(
    "end, low, high",
    [("", 0.03, 0.1), (",", 0.1, 0.18), (";", 0.1, 0.18), (".", 0.24, 0.32), ("!", 0.24, 0.32)],
)
def test_silence_at_the_end_follows_the_punctuation(espeak, end, low, high):
    sound = espeak.speak(f"one two{end} ")
    assert low * RATE <= silent_at_end(sound) <= high * RATE


def test_silence_between_pieces_is_short(espeak):
    words = ("the quick brown fox jumps over a lazy dog " * 4).split()
    whole = len(espeak.speak(" ".join(words)))
    pieces = [words[i : i + 4] for i in range(0, len(words), 4)]
    silence = [silent_at_end(espeak.speak(" ".join(piece))) for piece in pieces]
    assert sum(silence) < 0.1 * whole


# --- tone -----------------------------------------------------------------------------------------


def test_tones_are_a_square_wave_with_silence_after_each(tone):
    word = tone.speak("abc ")
    assert len(word) == RATE * 95 // 1000 + RATE * 30 // 1000
    assert set(word[: RATE * 95 // 1000]) == {0x1010, -0x0F10}
    assert set(word[RATE * 95 // 1000 :]) == {0}


def test_word_sounds_the_same_at_every_place(tone):
    one, two = tone.speak("one "), tone.speak("two ")
    assert one != two
    assert tone.speak("two one two ") == two + one + two


def test_pitch_depends_on_the_letters_and_their_order(tone):
    sounds = {tone.speak(word).tobytes() for word in ["ab", "ba", "bb", "\u00e4"]}
    assert len(sounds) == 4


def test_length_depends_on_the_bytes_of_a_word_up_to_a_limit(tone):
    lengths = [len(tone.speak("x" * count)) for count in (1, 2, 20, 21, 400)]
    assert lengths == sorted(lengths)
    assert lengths[0] < lengths[1] < lengths[2] == lengths[3] == lengths[4]


def test_silence_is_exact(tone):
    word = tone.speak("one ")
    assert list(tone.speak("\\pau=300\\ one ")) == [0] * (RATE * 3 // 10) + list(word)
    assert list(tone.speak("\\pau=0\\one\\pau=9999\\")) == list(word) + [0] * (RATE * 9999 // 1000)


def test_empty_text_is_silent(tone):
    assert len(tone.speak(" ")) == 0


def test_tone_needs_no_engine(tone):
    expected = tone.speak("one ")
    tone.sandbox.leave_only("sh", "awk", "tr", "chmod")
    assert tone.speak("one ") == expected


def test_tone_without_awk_is_an_error(tone):
    tone.sandbox.leave_only("sh", "tr", "chmod")
    assert tone.fail("one ") == "awk is not installed"


@pytest.mark.parametrize("end", ["exit 2", "kill -9 $$"])
def test_awk_that_fails_is_an_error(tone, end):
    tone.sandbox.provide("awk", "echo hhll; " + end)
    assert tone.fail("one ") == "awk could not draw the tones"

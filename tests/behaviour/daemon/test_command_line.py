"""The command line: usage, bad options, numbers, and how the program ends."""

import contextlib
import stat
import time
from pathlib import Path

import pytest
from harness.daemon import PAUSE
from harness.files import locked
from harness.programs import program, run

pytestmark = pytest.mark.core

USAGE = """\
Usage: vocastra [options]
Command line options:
  -h, --help                     Show this message
  -d, --debug <mask>             Debug mask for stderr; available bits are 0x00000007, \
default is 0x00000001 (see debug.h)
  -c, --config <file-path>       Path to XML configuration file (required)
  -s, --status <file-path>       Path to XML status file (optional)
  -o, --output <dir-path>        Path to output directory (required)
  -t, --translator <path>        Path to text-to-speech translator (required)
  -g, --glossary <file-path>     Path to glossary file (optional)
  -i, --cifs-helper <path>       Path to CIFS helper script
  -p, --ftp-helper <path>        Path to FTP helper app
  -w, --words <count>            Maximum number of words to process at once (optional; default = 10)
  -f, --files <count>            Maximum number of files in the output directory \
(optional; default = 10)
"""


HELP = ["-h", "--help", "--he", "-w 3 --config none -h", "-h -z", "word -h", "-d 7 -d0 -h"]


@pytest.mark.parametrize("arguments", HELP)
def test_help_prints_the_usage_whatever_came_before(arguments):
    assert run("vocastra", *arguments.split()) == (0, USAGE, "")


# The option that the error names, and command lines.
BAD_OPTIONS = {
    # Unknown letters, and the two letters of the option string that have no meaning.
    "-z": ["-z", "-z -h", "word -z", "-w 3 -z"],
    "-b": ["-b 3", "-b"],
    "-m": ["-m 3", "-m3"],
    # No value.
    **{f"-{letter}": [f"-{letter}"] for letter in "dcsotgipwf"},
    **{
        f"--{name}": [f"--{name}"]
        for name in "debug config status output translator glossary cifs-helper ftp-helper".split()
    },
    # An abbreviation without its value. After a valid long option, that option's name is printed.
    "--words": ["--words", "--wor", "--w", "--config none --words", "-c none --words"]
    + ["--words 3 -z", "--words=3 -b 3", "--debug 0 --words 3 -c none -z", "--words 3 ---=x"],
    "--files": ["--files", "--files 3 --nonsense"],
    "--config": ["--config", "--conf none -w"],
    # A value for an option that takes none.
    "--help": ["--help=now", "--h=x"],
    # No match, several matches, and the entry named "-", which is refused. No letter is named.
    "-\0": ["--nonsense", "--c none", "---", "--words 3 ---", "---=x", "--=x"],
}


@pytest.mark.parametrize(
    "arguments, named", [(words, name) for name, lines in BAD_OPTIONS.items() for words in lines]
)
def test_bad_option_is_named_on_one_line(arguments, named):
    line = f"{program()[-1]}: Unrecognized option or bad value for option: {named}\n"
    assert run("vocastra", *arguments.split()) == (1, line, "")


def test_long_options_mean_what_short_ones_do(make_daemon):
    daemon = make_daemon(words=1, debug=4, glossary=True)
    letters = {"-c": "--config", "-s": "--status", "-o": "--output", "-t": "--translator",
               "-g": "--glossary", "-i": "--cifs-helper", "-p": "--ftp-helper", "-w": "--words",
               "-d": "--debug"}  # fmt: skip
    daemon.arguments = [letters.get(argument, argument) for argument in daemon.arguments]
    assert set(letters.values()) <= set(daemon.arguments)
    daemon.write_glossary(("Dr", "doctor"))
    daemon.configure(
        daemon.directory("a"),
        daemon.directory("c", type="cifs", path="//host/share"),
        daemon.directory("f", type="ftp", path="ftp://host/"),
    )
    daemon.start()
    daemon.drop("a", "m.txt", "Dr Who")
    daemon.wait_spoken(("m.txt", PAUSE + "doctor Who "))
    daemon.wait_outputs(1)
    assert {run.kind for run in daemon.wait_helper_runs(2)} == {"cifs", "ftp"}
    daemon.stop()
    assert "Directory a reports an active message ID of 1" in daemon.log()
    assert "calling engine" not in daemon.log()


def test_words_limit_that_is_no_int(make_daemon):
    """strtol stops at the limit of long, and its result is cut to an int."""
    is_32_bit = Path(program()[-1]).read_bytes()[4] == 1  # Of the ELF header.
    daemon = make_daemon(words=2**32 + 1)
    daemon.configure(daemon.directory("a"))
    daemon.start()
    daemon.drop("a", "m.txt", "a b c d e")
    first = "a b c d e " if is_32_bit else "a b "
    assert daemon.wait_translator_runs(1)[0].text.decode() == PAUSE + first
    daemon.stop()


def test_without_options_it_runs_and_complains_once_per_pass(make_daemon):
    daemon = make_daemon()
    daemon.arguments = []
    started = time.monotonic()
    daemon.start(wait=False)
    daemon.wait_log('Could not open "" for reading', 6)
    daemon.stop()
    elapsed = time.monotonic() - started
    # XMLDocument logs the line, and the main loop logs it too.
    lines = daemon.log()
    assert set(lines) == {'Could not open "" for reading'}
    assert len(lines) % 2 == 0
    # A failed pass also ends with the pause of 100 ms, so a missing file does not flood the log.
    assert len(lines) / 2 <= elapsed / 0.1 + 1
    assert daemon.stdout() == b""


def test_missing_output_directory_ends_it_with_status_0(tmp_path):
    error = f"Could not open directory {tmp_path}/none/\n"
    assert run("vocastra", "-o", tmp_path / "none") == (0, "", error)


def unreadable_temporaries():
    """Temporary files that a daemon's umask made unreadable."""
    found = set()
    for prefix in ("text", "speech"):
        for path in Path("/tmp").glob(prefix + "??????"):
            with contextlib.suppress(FileNotFoundError):
                if stat.S_IMODE(path.lstat().st_mode) == 0:
                    found.add(path)
    return found


def test_temporary_files_do_not_outlive_the_program(make_daemon, tmp_path):
    # The umask marks the files of these two runs among those of other tests. The lock lets only one
    # process run this test at a time.
    with locked("/tmp"):
        before = unreadable_temporaries()
        daemon = make_daemon(status=False)
        daemon.configure()
        daemon.start(wait=False, umask=0o600)
        daemon.wait_log('Now in "run" state')
        found = unreadable_temporaries() - before
        assert sorted(path.name[:-6] for path in found) == ["speech", "text"]
        daemon.stop()
        assert unreadable_temporaries() - before == set()

        # The files are made before the output directory is opened.
        assert run("vocastra", "-o", tmp_path / "none", umask=0o600)[0] == 0
        assert unreadable_temporaries() - before == set()


def test_interrupt_before_any_configuration(make_daemon):
    daemon = make_daemon()
    daemon.start(wait=False)
    daemon.wait_log(f'Could not open "{daemon.config}" for reading', 2)
    daemon.stop()
    assert not daemon.status_path.exists()

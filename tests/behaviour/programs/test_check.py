"""vocastra-check: each finding with its line, and no other finding."""

import os
import re
import shlex
import shutil
import subprocess
import tempfile
from pathlib import Path

import pytest
from harness.daemon import PAUSE
from harness.files import element, publish
from harness.programs import ended, environment, run, start, tool

HERE = Path(__file__).resolve().parent

WAV = (
    b"RIFF\x26\0\0\0WAVE"
    b"fmt \x10\0\0\0\1\0\1\0\x22\x56\0\0\x44\xac\0\0\2\0\x10\0"
    b"data\2\0\0\0\1\2"
)


class World:
    """A clean configuration, and the directories, clips and programs that it names."""

    def __init__(self, root):
        self.root = root
        for name in ("in", "in2", "last", "last2", "out", "run", "etc"):
            (root / name).mkdir()
        for name in ("bumper", "spacer", "silence"):
            (root / f"{name}.wav").write_bytes(WAV)
        for name in ("translator", "helper"):
            (root / name).write_text("#!/bin/sh\n")
            (root / name).chmod(0o755)
        self.config = root / "etc/config.xml"
        self.glossary = root / "etc/glossary.xml"

    def check(self, text, *arguments, mode=0o600, service=None, **options):
        """Exit status and findings for that configuration; "@" in either is the root.

        mode is that of the file. service is an id that the service manager gives.
        """
        data = text if isinstance(text, bytes) else text.encode()
        self.config.write_bytes(data.replace(b"@", os.fsencode(self.root)))
        self.config.chmod(mode)
        options["env"] = environment()
        options["env"].pop("INVOCATION_ID", None)
        if service:
            options["env"]["INVOCATION_ID"] = service
        arguments = [str(word).replace("@", str(self.root)) for word in arguments]
        status, out, err = run("vocastra-check", self.config, *arguments, **options)
        assert out == ""
        lines = re.sub(f"^{self.root}/etc/(config|glossary).xml:", r"\1:", err, flags=re.M)
        return status, lines.replace(str(self.root), "@").split("\n")[:-1]

    def check_glossary(self, text):
        self.glossary.write_text(text)
        return self.check(CLEAN, "-g", self.glossary)


@pytest.fixture
def world(tmp_path):
    return World(tmp_path)


CLEAN = """<tts-config state="run">
  <directory id="a" type="local" path="@/in"/>
</tts-config>
"""

FULL = """<?xml version="1.0"?>
<tts-config state="run">
  <!-- Two lines of
       comment. -->
  <parser id="alarm" type="xml" attr-mode="0">
    <field parent="alert" tag="headline" attr="" attr_value=""/>
    <field tag="text" attr="lang" attr_value="en"/>
  </parser>
  <parser id="items" type="xml" attr-mode="1"><field tag="i" attr="t" attr_value=""/></parser>
  <directory id="a" display-id="lobby" parser="text" encoding="ascii" priority="0x1" loops="2"
    type="local" path="@/in" conv-opts="--voice en-us pitch=3,rate=2" preview="0"
    last-played-path="@/last" auto-delete="1"
    bumper-path="@/bumper.wav" spacer-path="@/spacer.wav" silence-path="@/silence.wav"/>
  <directory id="b" parser="alarm" encoding="utf8" type="cifs" path="//host/sh are" subdir="x y"
    username="u" password="p$'" mount-opts="vers=3.0,port=4450" dir-mode="cache"
    last-played-path="@/last2"/>
  <directory id="c" parser="items" encoding="utf16" type="ftp" path="ftps://host:99/in" username=""
    ftp-poll-rate="10" ftp-mode="active,settle=1,ca=/c" auto-delete=""/>
</tts-config>
"""

COMMAND_LINE = ["-t", "@/translator", "-o", "@/out", "-s", "@/run/status.xml"]
HELPERS = ["-i", "@/helper", "-p", "@/helper"]


def test_clean(world):
    assert world.check(CLEAN) == (0, [])
    assert world.check(CLEAN, "-v") == (0, ["config: no findings"])
    assert world.check(CLEAN.replace("run", "stop"), *COMMAND_LINE) == (0, [])
    assert world.check(FULL) == (0, [])
    assert world.check(FULL, *COMMAND_LINE, *HELPERS, "-w", "0x10", "-f", "2", "-d7") == (0, [])


def test_check_changes_no_file(world):
    """Unlike the daemon, which empties its directories."""
    for path in ("in/message", "last/copy", "out/0_a.text_live_first.raw"):
        (world.root / path).write_text("x")
    before = sorted(world.root.rglob("*"))
    assert world.check(FULL, *COMMAND_LINE, *HELPERS) == (0, [])
    assert [path for path in sorted(world.root.rglob("*")) if path != world.config] == before


def test_rates_are_those_of_running_players(world):
    at = world.root / "run"
    arguments = ("-t", "@/translators/x", *COMMAND_LINE[2:], "--run", at)
    (world.root / "translators").mkdir()
    (world.root / "translator").rename(world.root / "translators/x")
    finding = (
        'config:2: warning: directory "a": no rate= in conv-opts, which means 22050, but the '
        "player plays at 16000 Hz: speech sounds too high or too low. Write rate=16000; or give "
        "the player --rate 22050."
    )

    def found_with(**rates):
        for zone, (rate, pid) in rates.items():
            state = {"device": "", "device-ok": 1, "pid": pid, "playing": "", "problem": ""}
            state.update({"problem-time": 0, "rate": rate, "since": 0})
            (at / zone).write_text(element("player-state", **state) + "\n")
        return world.check(CLEAN, *arguments)[1]

    gone = 2**22 + 1  # More than any process id.
    assert found_with() == []
    assert found_with(player=(16000, gone)) == []
    assert found_with(player=(16000, os.getpid())) == [finding]
    assert found_with(**{"player-hall": (22050, os.getpid())}) == []
    assert found_with(**{"player-hall": (0, os.getpid())}) == [finding]


def test_configuration_by_option(world):
    world.config.write_text("<x/>")
    assert run("vocastra-check", "-c", world.config)[0] == 2


def around(element):
    """A configuration with that element in line 2, after a clean directory."""
    clean = '<directory id="a" type="local" path="@/in"/>'
    return f'<tts-config state="run">{clean}\n{element}</tts-config>\n'


def directory(attributes):
    """A configuration with a directory "b" in line 2 that also has these attributes."""
    path = "" if " path=" in " " + attributes else ' path="@/in2"'
    kind = "" if " type=" in " " + attributes else ' type="local"'
    return around(f'<directory id="b"{kind}{path} {attributes}/>')


B = 'config:2: {}: directory "b": '
ERROR, WARNING = B.format("error"), B.format("warning")
DAEMON_USER = "Create the directory for the daemon's user."


def read_cases():
    """The input and the findings by the case's name; findings/README.md describes the format."""
    cases = {}
    for path in sorted((HERE / "findings").glob("*.txt")):
        given, *findings = re.split(r"^=> ", path.read_text(), flags=re.M)
        cases[path.stem] = given.removesuffix("\n"), [finding.rstrip("\n") for finding in findings]
    return cases


CASES = read_cases()


@pytest.mark.parametrize("case", CASES)
def test_finding(world, case):
    given, expected = CASES[case]
    kind, _, rest = given.partition(":")
    (world.root / "in/out").mkdir()
    options = {"cwd": world.root / "run"}
    if kind == "options":
        words, _, elements = rest.partition("\n")
        words = shlex.split(words)
        words = COMMAND_LINE + words[1:] if words[0] == "..." else words
        status, found = world.check(around(elements) if elements else CLEAN, *words)
    elif kind == "glossary":
        status, found = world.check_glossary(rest.lstrip())
    elif kind == "clip":
        name, content = rest.split(maxsplit=1)
        content = content.encode("latin-1").decode("unicode_escape").encode("latin-1")
        (world.root / name).write_bytes(content.replace(b"(wav)", WAV))
        status, found = world.check(directory(f'silence-path="@/{name}"'))
    else:
        text = {
            "file": lambda: rest[1:],
            "utf16": lambda: rest[1:].encode("utf-16"),
            "directory": lambda: directory(rest.lstrip()),
            "service": lambda: directory(rest.lstrip()),
            "public": lambda: directory(rest.lstrip()),
        }.get(kind, lambda: around(given))()
        options["service"] = "1" if kind == "service" else None
        status, found = world.check(text, mode=0o644 if kind == "public" else 0o600, **options)
    assert found == expected
    assert status == (2 if ": error: " in "".join(expected) else 1)


def test_missing_file(world):
    assert run("vocastra-check", world.config) == (
        2,
        "",
        f'{world.config}:1: error: tts-config: Could not open "{world.config}" for reading. '
        "Let the daemon's user read it (No such file or directory).\n",
    )


def test_file_that_is_not_utf8(world):
    text = CLEAN.replace("<directory", "<!--\n\xe9 -->\n<directory").encode("latin-1")
    expected = "not UTF-8; the daemon replaces what is wrong by U+FFFD. Save the file as UTF-8."
    assert world.check(text) == (1, [f"config:3: warning: tts-config: {expected}"])


def test_home_directory(world):
    """Uses a home directory of this machine, as a test cannot have its own user database.

    Every Debian system has some, such as /var/backups. System directories have another finding.
    """
    system = ("/bin/", "/boot/", "/dev/", "/etc/", "/lib", "/proc/", "/sbin/", "/sys/")
    system += ("/usr/bin/", "/usr/include/", "/usr/lib", "/usr/sbin/", "/usr/share/")
    with open("/etc/passwd") as users:
        homes = [os.path.realpath(line.split(":")[5]) for line in users]
    home = next(
        home
        for home in homes
        if os.path.isdir(home) and home.count("/") > 1 and not f"{home}/".startswith(system)
    )
    status, found = world.check(directory(f'last-played-path="{home}"'))
    assert status == 2
    assert [line for line in found if " is emptied, but it is the home directory of " in line]


def test_subdirectories_of_one_path(world):
    """The daemon empties the path itself, and nothing below it."""
    for name in ("x", "y"):
        (world.root / "in2" / name).mkdir()
    text = around(
        '<directory id="x" type="local" path="@/in2" subdir="x"/>\n'
        '<directory id="y" type="local" path="@/in2" subdir="y"/>\n'
    )
    assert world.check(text) == (0, [])
    assert world.check(text.replace('path="@/in"', 'path="@/in2"')) == (
        2,
        [
            f'config:{line}: error: directory "{name}": path above subdir "@/in2" is also the path '
            'of directory "a": each takes or removes the other\'s files. '
            "Use a directory of its own."
            for line, name in ((2, "x"), (3, "y"))
        ],
    )


@pytest.mark.parametrize("path, findings", [("@/in", 200), ("@/in/out", 200 + 199)])
def test_each_directory_is_compared_with_the_first_of_a_path(world, path, findings):
    """If each pair were a finding, time and memory would grow with the square of the number."""
    (world.root / "in/out").mkdir()
    many = "".join(f'<directory id="{i}" type="local" path="{path}"/>' for i in range(200))
    assert len(world.check(around(many))[1]) == findings


@pytest.mark.parametrize("count, line", [(3000, 2), (10001, 1)])
def test_document_that_takes_too_much_memory(world, count, line):
    """Default attributes are copied into each element, so 100 KB would take 600 MB."""
    declared = "".join(f'<!ATTLIST a x{i} CDATA "0">' for i in range(count))
    world.config.write_text(f"<!DOCTYPE t [{declared}]>{CLEAN.replace('  <', '<a/>' * 3000 + '<')}")
    process = start("vocastra-check", world.config)
    err = process.stderr.read()
    _, status, usage = os.wait4(process.pid, 0)
    process.returncode = os.waitstatus_to_exitcode(status)
    assert process.returncode == 2
    assert err == (
        f"{world.config}:{line}: error: tts-config: the daemon refuses a document that takes so "
        f"much memory: out of memory at line {line}. Remove entities and attribute declarations.\n"
    )
    assert usage.ru_maxrss < 300 << 10  # KiB; most of it is for tools that watch the program.


def test_findings_come_in_the_order_of_lines(world):
    text = (
        '<tts-config state="x" y="">\n<directory id="a" type="local" path="@/in" z=""/>\n'
        '<parser id="p" type="q"/>\n</tts-config>\n'
    )
    _, found = world.check(text, *COMMAND_LINE, "-w", "x")
    places = [":".join(line.split(":")[:2]) for line in found]
    assert places == "config:1 config:1 config:2 config:3".split() + ["<command-line>:0"] * 2


# Permissions of the user.


def as_daemon_user():
    """A command prefix that makes permission bits apply to root."""
    if os.geteuid() != 0:
        return []
    return ["setpriv", "--bounding-set=-dac_override,-dac_read_search,-fowner"]


@pytest.mark.parametrize(
    "name, what",
    [
        (
            "in",
            'config:2: error: directory "a": "@/in": not readable and writable; the daemon cannot '
            "work with it. " + DAEMON_USER,
        ),
        ("out", '<command-line>:0: error: -o: "@/out": not readable and writable. ' + DAEMON_USER),
        (
            "run",
            '<command-line>:0: warning: -s: "@/run/status.xml" cannot be written: Permission '
            "denied. " + DAEMON_USER,
        ),
        (
            "etc/config.xml",
            'config:1: error: tts-config: Could not open "@/etc/config.xml" for '
            "reading. Let the daemon's user read it (Permission denied).",
        ),
    ],
)
def test_permissions(world, name, what):
    world.check(CLEAN)
    (world.root / name).chmod(0o555 if name != "etc/config.xml" else 0)
    try:
        status, _, err = run(
            "vocastra-check",
            world.config,
            *[word.replace("@", str(world.root)) for word in COMMAND_LINE],
            prefix=as_daemon_user(),
        )
    finally:
        (world.root / name).chmod(0o755)
    found = err.replace(f"{world.config}:", "config:", 1).replace(str(world.root), "@").splitlines()
    assert found == [what]
    assert status == (2 if ": error: " in what else 1)


def test_sticky_directory(world):
    """In a sticky directory, as /tmp, only the owner may remove a file."""
    if os.geteuid() != 0:
        status, found = world.check(directory('last-played-path="@/last" path="/tmp"'))
    else:
        public = Path(tempfile.mkdtemp(prefix="vocastra-test-"))
        try:
            public.chmod(0o755)
            (public / "config.xml").write_text(
                directory('path="/tmp"').replace("@/in", "/tmp/none")
            )
            shutil.copy(tool("vocastra-check"), public)
            user = ["setpriv", "--reuid=65534", "--regid=65534", "--clear-groups"]
            command = [*user, public / "vocastra-check", public / "config.xml"]
            done = subprocess.run(command, capture_output=True, text=True, timeout=60, check=False)
        finally:
            shutil.rmtree(public)
        status = done.returncode
        found = done.stderr.replace(f"{public}/config.xml", "config").split("\n")
    assert status == 2
    assert (
        WARNING + '"/tmp" is sticky: files of others cannot be removed, and are then not spoken. '
        "Remove its sticky bit, or make the daemon's user its owner."
    ) in found


# The command line.


@pytest.mark.parametrize("kind, path, option", [("cifs", "//h/s", "-i"), ("ftp", "h", "-p")])
def test_remote_directory_without_helper(world, kind, path, option):
    text = directory(f'type="{kind}" path="{path}"')
    assert world.check(text) == (0, [])
    assert world.check(text, *COMMAND_LINE) == (
        2,
        [ERROR + f"no helper for it: the directory is skipped. Give the daemon option {option}."],
    )


@pytest.mark.parametrize("arguments", [[], ["a", "b"], ["--no-such-option", "a"], ["a", "-b", "1"]])
def test_wrong_use(arguments):
    status, out, err = run("vocastra-check", *arguments)
    assert (status, out) == (2, "")
    assert err.startswith(("vocastra-check: ", "/"))


# Whether the translator takes its arguments. Each call is a line of the file "calls".

ASKED = """#!/bin/sh
printf '%s\\n' "$*" >> @/calls
case $1 in
  --help) echo "usage: $0 [--check ARGUMENT...]"; exit ;;
  --check) shift ;;
esac
pwd > @/place
[ "$*" != bad ] || { printf 'no voice\\033.\\nline two\\n' >&2; exit 1; }
[ "$*" != "a b" ] || exit 1
[ "$*" != odd ] || exit 2
[ "$*" != killed ] || kill -9 $$
"""
REFUSED = "the translator refuses conv-opts {}; no message would be spoken. Try it with --check."


def translator(world, text):
    (world.root / "translator").write_text(text.replace("@", str(world.root)))


def calls(world):
    path = world.root / "calls"
    found = path.read_text().splitlines() if path.exists() else []
    path.unlink(missing_ok=True)
    return found


@pytest.mark.parametrize(
    "conv_opts, call, refused",
    [
        ("good", "good", None),
        (" good  &#9;better ", "good better", None),
        ("bad", "bad", '"bad": no voice?'),
        ("a b", "a b", '"a b": no reason given'),
        ("odd", "odd", None),
        ("killed", "killed", None),
    ],
)
def test_translator_is_asked(world, conv_opts, call, refused):
    translator(world, ASKED)
    text = directory(f'type="local" path="@/in2" conv-opts="{conv_opts}"')
    expected = [ERROR + REFUSED.format(refused)] if refused else []
    assert world.check(text, *COMMAND_LINE)[1] == expected
    assert calls(world) == ["--help", "--check", f"--check {call}"]
    assert world.check(text) == (0, []) and calls(world) == []
    assert (world.root / "place").read_text() == "/proc\n"


def test_translator_is_asked_once_for_equal_arguments(world):
    translator(world, ASKED)
    text = directory('type="local" path="@/in2" conv-opts=""')
    assert (
        world.check(text, "-t", os.path.relpath(world.root / "translator"), *COMMAND_LINE[2:])[1]
        == []
    )
    assert calls(world) == ["--help", "--check"]


def test_translator_is_asked_for_every_directory(world):
    translator(world, ASKED)
    text = around(
        '<directory id="b" type="local" path="@/in2" conv-opts="killed"/>\n'
        '<directory id="c" type="ftp" path="host" conv-opts="bad"/>\n'
        '<directory id="d" type="cifs" path="//h/s" conv-opts="a b"/>'
    )
    assert world.check(text, *COMMAND_LINE, *HELPERS)[1] == [
        'config:3: error: directory "c": ' + REFUSED.format('"bad": no voice?'),
        'config:4: error: directory "d": ' + REFUSED.format('"a b": no reason given'),
    ]


@pytest.mark.parametrize("attributes", ['conv-opts="$HOME"', 'conv-opts="bad" dir-mode="cache"'])
def test_translator_is_not_asked_if_the_daemon_would_not_use_it(world, attributes):
    translator(world, ASKED)
    found = world.check(directory(f'type="local" path="@/in2" {attributes}'), *COMMAND_LINE)[1]
    assert not any("refuses" in line for line in found)
    assert calls(world) == ["--help", "--check"]


@pytest.mark.parametrize(
    "end", ["exit 1", "exit 0", "echo --check; exit 1", "echo --check >&2", "yes & exit 0"]
)
def test_translator_that_knows_no_check_makes_no_file(world, end):
    """It treats its first argument as a text file, and its second as an audio file."""
    translator(world, f'#!/bin/sh\necho "$*" >> @/calls\necho sound > "${{2:-audio}}"\n{end}\n')
    before = sorted(world.root.rglob("*"))
    text = directory('type="local" path="@/in2" conv-opts="voice=nosuch"')
    assert world.check(text, *COMMAND_LINE, cwd=world.root / "in") == (0, [])
    assert calls(world) == ["--help"]
    assert sorted(world.root.rglob("*")) == sorted([*before, world.config])


@pytest.mark.parametrize("knows", ["", "[ $1 != --help ] || exec echo --check\n"])
def test_translator_that_hangs_gives_no_finding_and_is_ended(world, knows):
    translator(world, f"#!/bin/sh\n{knows}echo $$ > @/pid\nyes | sleep 1000\n")
    text = directory('type="local" path="@/in2" conv-opts="b"')
    assert world.check(text, *COMMAND_LINE) == (0, [])
    assert ended(int((world.root / "pid").read_text()))


@pytest.mark.parametrize("name", ["espeak-ng", "tone"])
def test_translators_of_the_project(world, name):
    text = directory('type="local" path="@/in2" conv-opts="speed=9 voice=de"')
    found = world.check(text, "-t", tool("libexec") / "translators" / name, *COMMAND_LINE[2:])[1]
    why = 'espeak-ng translator: speed must be a number from 80 to 450, not "9"'
    refused = REFUSED.format(f'"speed=9 voice=de": {why}')
    assert found == ([ERROR + refused] if name == "espeak-ng" else [])


# The glossary.


def test_clean_glossary(world):
    texts = ("Dr", ".", "ok:", "d'accord", "x&amp;y", "é" * 100)
    words = "".join(f'<word text="{text}" speech="s"/>\n' for text in texts)
    assert world.check_glossary(f"<glossary>\n{words}</glossary>\n") == (0, [])


# The daemon does what the findings say.

WORDS = "Dr Dr. ,Dr z.B z.B. ? . , .. !x x! x; 10:30 1,5 naïve - '".split()
WORDS += ["a b", "a\u00a0b", "a\u0085b"] + [letter * n for letter in "xé" for n in (100, 101)]


def test_words_that_never_match_are_not_replaced_by_the_daemon(world, make_daemon):
    """Each word is spoken in a message of its own, between two other words."""
    daemon = make_daemon(words=100, files=1000, glossary=True)
    daemon.configure(daemon.directory("a"))
    daemon.write_glossary(*[(word, f"spoken-{i}") for i, word in enumerate(WORDS)])
    daemon.start()
    for number, word in enumerate(WORDS):
        daemon.drop("a", f"{number:02}", f"before {word} after")
    daemon.wait_translator_runs(len(WORDS))
    texts = [text for _, text in sorted(daemon.spoken())]
    daemon.stop()
    matched = [f"spoken-{i}" in text for i, text in enumerate(texts)]
    assert all(text.startswith(PAUSE) for text in texts)

    _, found = world.check(CLEAN, "-g", daemon.glossary)
    warned = [any(f'word "{word}": never matches' in line for line in found) for word in WORDS]
    assert len(found) == warned.count(True)
    assert [not match for match in matched] == warned


def test_parser_of_unknown_type_stops_the_daemon(world, make_daemon):
    daemon = make_daemon()
    daemon.configure(daemon.directory("a"), daemon.directory("b", type="smb"))
    status, found = world.check(daemon.config.read_text())
    assert (status, len(found)) == (2, 1)
    daemon.start(wait=False)
    daemon.wait_log("Could not open directory ", 3)
    daemon.drop("a", "m", "Fire")
    daemon.wait_log("Could not open directory ", 6)
    assert daemon.spoken() == []
    assert daemon.status() is None
    daemon.stop()


def test_daemon_uses_an_incomplete_file(world, make_daemon):
    daemon = make_daemon()
    daemon.configure(daemon.directory("a"), daemon.directory("b"))
    whole = daemon.config.read_text()
    publish(daemon.config, whole[: whole.index('<directory id="b"') + 10])
    assert world.check(daemon.config.read_text())[0] == 2
    daemon.start()
    assert [record.get("id") for record in daemon.wait_status()] == ["a"]
    daemon.stop()


def test_blank_in_a_path_makes_the_daemon_empty_another_directory(make_daemon):
    """This is the reason why a blank in a path is an error."""
    daemon = make_daemon()
    other = daemon.root / "other"
    (daemon.root / "x").mkdir()
    other.write_text("mine")
    daemon.configure(daemon.directory("a", path=f"{other} x"))
    daemon.start(wait=False)
    daemon.wait_log(f"Could not open directory {other} x/")
    assert not other.exists()
    daemon.stop()

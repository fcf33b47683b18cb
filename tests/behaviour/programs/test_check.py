"""vocastra-check: every finding with its line, and none where there is nothing to find."""

import os
import re
import shutil
import subprocess
import tempfile
from pathlib import Path

import pytest
from harness.daemon import PAUSE
from harness.files import publish
from harness.programs import run, tool


class World:
    """Directories, clips and programs that a clean configuration names, and that configuration."""

    def __init__(self, root):
        self.root = root
        for name in ("in", "in2", "last", "last2", "out", "run", "etc"):
            (root / name).mkdir()
        for name in ("bumper", "spacer", "silence"):
            (root / f"{name}.wav").write_bytes(b"RIFF")
        for name in ("translator", "helper"):
            (root / name).write_text("#!/bin/sh\n")
            (root / name).chmod(0o755)
        self.config = root / "etc/config.xml"
        self.glossary = root / "etc/glossary.xml"

    def check(self, text, *arguments, **options):
        """Exit status and findings for that configuration; "@" in either stands for the root."""
        data = text if isinstance(text, bytes) else text.encode()
        self.config.write_bytes(data.replace(b"@", os.fsencode(self.root)))
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
    username="u" password="p$'" mount-opts="vers=3.0" dir-mode="cache"/>
  <directory id="c" parser="items" encoding="utf16" type="ftp" path="host/in" username=""
    ftp-poll-rate="10" ftp-mode="active" auto-delete=""/>
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


def test_nothing_is_touched(world):
    """Unlike the daemon, which empties its directories."""
    for path in ("in/message", "last/copy", "out/0_a.text_live_first.raw"):
        (world.root / path).write_text("x")
    before = sorted(world.root.rglob("*"))
    assert world.check(FULL, *COMMAND_LINE, *HELPERS) == (0, [])
    assert [path for path in sorted(world.root.rglob("*")) if path != world.config] == before


def test_configuration_by_option(world):
    world.config.write_text("<x/>")
    assert run("vocastra-check", "-c", world.config)[0] == 2


def around(element):
    """A configuration with that element in line 2, behind a clean directory."""
    return f'<tts-config state="run"><directory id="a" type="local" path="@/in"/>\n{element}</tts-config>\n'


def directory(attributes):
    """A configuration with a directory "b" in line 2 that has these attributes besides."""
    path = "" if " path=" in " " + attributes else ' path="@/in2"'
    kind = "" if " type=" in " " + attributes else ' type="local"'
    return around(f'<directory id="b"{kind}{path} {attributes}/>')


B = 'config:2: {}: directory "b": '
ERROR, WARNING = B.format("error"), B.format("warning")
DAEMON_USER = "Make the directory, for the daemon's user."

CASES = {
    # The file.
    "no file": (
        None,
        'config:1: error: tts-config: Could not open "@/etc/config.xml" for reading. '
        "Let the daemon's user read it (No such file or directory).",
    ),
    "empty": (
        "",
        'config:1: error: tts-config: No "tts-config" root element: no element found. '
        "Correct the XML at that line.",
    ),
    "broken": (
        '<tts-config state="run">\n<a>\n</b></tts-config>',
        "config:3: error: tts-config: mismatched tag at line 3. Correct the XML at that line.",
    ),
    "wrong root": (
        '<?xml version="1.0"?>\n<config state="run"/>',
        'config:2: error: tts-config: No "tts-config" root element. ' "Name the root element so.",
    ),
    "two roots": (
        CLEAN + "<x/>",
        "config:4: error: tts-config: junk after document element at line 4."
        " Correct the XML at that line.",
    ),
    "ends early": (
        CLEAN.replace("</tts-config>", ""),
        "config:4: error: tts-config: the file ends early, inside <tts-config> of line 1; "
        "the daemon would take what is there for all. Restore the rest of the file.",
    ),
    "ends in an element": (
        around("<parser id='p' type='xml'>\n").replace("</tts-config>\n", ""),
        [
            'config:2: warning: parser "p": no "field": the parser finds nothing to say. '
            'Add a "field" element.',
            "config:3: error: tts-config: the file ends early, inside <parser> of line 2; "
            "the daemon would take what is there for all. Restore the rest of the file.",
        ],
    ),
    "ends in a comment": (
        CLEAN + "<!-- ",
        "config:4: error: tts-config: the file ends early, inside "
        "<tts-config> of line 1; the daemon would take what is there for all. "
        "Restore the rest of the file.",
    ),
    "not UTF-8": (
        CLEAN.replace("<directory", "<!--\n\xe9 -->\n<directory").encode("latin-1"),
        "config:3: warning: tts-config: not UTF-8; the daemon replaces what is wrong by "
        "U+FFFD. Save the file as UTF-8.",
    ),
    # The root.
    "no state": (
        CLEAN.replace(' state="run"', ""),
        'config:1: error: tts-config: no attribute "state"; the daemon would not use the '
        'file. Add state="run".',
    ),
    "odd state": (
        CLEAN.replace("run", "Run"),
        'config:1: error: tts-config: state "Run" is not "run": nothing would be spoken. '
        'Write "run" or "stop".',
    ),
    "no directory": (
        '<tts-config state="run"/>',
        "config:1: warning: tts-config: there is no directory to watch. "
        'Add a "directory" element.',
    ),
    "unknown element": (
        around("<dir/>"),
        "config:2: warning: dir: unknown element in <tts-config> is " "ignored. Remove it.",
    ),
    "unknown in directory": (
        around('<directory id="b" type="local" path="@/in2">\n<x/></directory>'),
        "config:3: warning: x: unknown element in <directory> is ignored. " "Remove it.",
    ),
    # Ids and attributes.
    "no id": (
        around('<directory type="local" path="@/in2"/>'),
        'config:2: error: directory "": Element directory has no attribute id; the directory '
        "is skipped. Give it an id of its own.",
    ),
    "duplicate id": (
        around('<directory id="a" type="local" path="@/in2"/>'),
        'config:2: error: directory "a": an earlier directory has this id; this one is '
        "ignored. Choose another id.",
    ),
    "unknown attribute": (
        directory('colour="red"'),
        WARNING + 'unknown attribute "colour" is ignored. Remove it.',
    ),
    "nearly known": (
        directory('Bumper_Path="x"'),
        WARNING + 'unknown attribute "Bumper_Path" is ignored. Write "bumper-path".',
    ),
    "not for the type": (
        directory('ftp-mode="active"'),
        WARNING + '"ftp-mode" means nothing for type "local". Remove it.',
    ),
    "no number": (
        directory('priority="high"'),
        ERROR + 'While processing attribute "priority" of "directory": Could not convert '
        '"high" to integer; the directory is skipped. Write a whole number.',
    ),
    "trailing blank": (
        directory('loops="2 "'),
        ERROR + 'While processing attribute "loops" of "directory": Could not convert '
        '"2 " to integer; the directory is skipped. Write a whole number.',
    ),
    "no loops": (
        directory('loops="0"'),
        WARNING + '"loops" below 1: messages are spoken once. Write 1 or more.',
    ),
    "poll rate": (
        directory('type="ftp" path="h" ftp-poll-rate="-1"'),
        WARNING + '"ftp-poll-rate" is no number of seconds above 0. Write 1 or more.',
    ),
    "dir-mode": (
        directory('dir-mode="chache"'),
        WARNING + 'dir-mode "chache" means nothing. Write "cache" or remove it.',
    ),
    "ftp-mode": (
        directory('type="ftp" path="h" ftp-mode="pasv"'),
        WARNING + 'ftp-mode "pasv" is unknown. Write "passive" or "active".',
    ),
    "type": (
        directory('type="smb"'),
        ERROR + 'type "smb" is unknown: the daemon cannot scan it, and then speaks nothing at '
        'all. Write "local", "cifs" or "ftp".',
    ),
    "display id": (
        directory('display-id="Hall 2/3"'),
        ERROR + '"Hall 2/3" is part of audio file names, which cannot hold blank /. '
        'Set a "display-id" of letters, digits and "_".',
    ),
    "conv-opts": (
        directory('conv-opts="-v &quot;en us&quot; > x"'),
        WARNING + 'conv-opts goes through the shell, which reads " >. '
        "Make sure that this is meant.",
    ),
    # Parsers.
    "no such parser": (
        directory('parser="x" encoding="utf8"'),
        ERROR + 'there is no parser "x": no file would be read. '
        'Name "text" or a "parser" element of this file.',
    ),
    "no encoding": (
        directory('parser="text"'),
        ERROR + 'parser "text" has no encoding "": no file would be read. '
        'Set "encoding" to "ascii", "utf8" or "utf16".',
    ),
    "bad encoding": (
        directory('parser="text" encoding="UTF-8"'),
        ERROR + 'parser "text" has no encoding "UTF-8": no file would be read. '
        'Set "encoding" to "ascii", "utf8" or "utf16".',
    ),
    "encoding alone": (
        directory('encoding="ascii"'),
        WARNING + 'encoding "ascii" means nothing without "parser". ' 'Add parser="text".',
    ),
    "parser without id": (
        around('<parser type="xml"/>'),
        'config:2: error: parser "": Element parser has no attribute id; '
        'no message would be spoken. Add id="...".',
    ),
    "parser without type": (
        around('<parser id="p"/>'),
        'config:2: error: parser "p": Element parser has no attribute type; '
        'no message would be spoken. Add type="...".',
    ),
    "parser type": (
        around('<parser id="p" type="json"/>'),
        'config:2: warning: parser "p": type "json" is unknown; the parser is ignored. '
        'Write "xml".',
    ),
    "encoded id": (
        around('<parser id="text-utf8" type="xml"/>'),
        'config:2: error: parser "text-utf8": the id is taken by an encoded parser; this '
        "one is ignored. Choose an id that does not end in an encoding.",
    ),
    "built-in id": (
        around('<parser id="text" type="xml"><field tag="t" attr="" attr_value=""/>' "</parser>"),
        'config:2: error: parser "text": the id is taken; this parser is ignored '
        "silently. Choose another id.",
    ),
    "duplicate parser": (
        around(
            '<parser id="p" type="xml"><field tag="t" attr="" attr_value=""/>'
            '</parser>\n<parser id="p" type="xml"><field tag="u" attr="" '
            'attr_value=""/></parser>'
        ),
        'config:3: error: parser "p": the id is taken; this parser is ignored '
        "silently. Choose another id.",
    ),
    "attr-mode": (
        around(
            '<parser id="p" type="xml" attr-mode="on"><field tag="t" attr="a" '
            'attr_value=""/></parser>'
        ),
        'config:2: error: parser "p": While processing attribute "attr-mode" of "parser": '
        'Could not convert "on" to integer; no message would be spoken. Write 0 or 1.',
    ),
    "field": (
        around(
            '<parser id="p" type="xml">\n<field tag="t" attr="a" attr-value=""/>\n'
            '<field tag="" attr="" attr_value="v"/></parser>'
        ),
        [
            'config:3: warning: parser "p", field 1: unknown attribute "attr-value" is ignored. '
            'Write "attr_value".',
            'config:3: error: parser "p", field 1: Element field has no attribute attr_value; '
            'no message would be spoken. Add attr_value="...".',
            'config:4: warning: parser "p", field 2: empty "tag": the field is skipped. '
            "Name an element.",
            'config:4: warning: parser "p", field 2: "attr_value" means nothing without "attr". '
            "Empty it.",
        ],
    ),
    "attribute mode": (
        around(
            '<parser id="p" type="xml" attr-mode="1">\n'
            '<field tag="t" attr="" attr_value=""/>\n'
            '<field tag="t" attr="a" attr_value="v"/></parser>'
        ),
        [
            'config:3: warning: parser "p", field 1: empty "attr" in attribute mode: the field yields '
            "nothing. Name the attribute to be said.",
            'config:4: warning: parser "p", field 2: "attr_value" means nothing in attribute mode. '
            "Empty it.",
        ],
    ),
    # Clips.
    "bumper alone": (
        directory('bumper-path="@/bumper.wav"'),
        WARNING + "bumper without spacer: the daemon copies a spacer from nowhere. "
        'Add "spacer-path".',
    ),
    "spacer alone": (
        directory('spacer-path="@/spacer.wav"'),
        WARNING + 'spacer without bumper is never played. Add "bumper-path".',
    ),
    "no clip": (
        directory('silence-path="@/none.wav"'),
        WARNING + 'silence-path "@/none.wav" is no readable file. Put the clip there.',
    ),
    "clip in input": (
        directory('silence-path="@/in/s.wav"'),
        [
            WARNING + 'silence-path "@/in/s.wav" is no readable file. Put the clip there.',
            ERROR
            + 'silence-path "@/in/s.wav" lies in the path of directory "a", where files are taken '
            "or removed. Move it elsewhere.",
        ],
    ),
    # Paths.
    "no path": (
        directory('path=""'),
        ERROR + 'no "path": the daemon cannot scan it, and then speaks nothing at all. '
        'Add a "path".',
    ),
    "missing": (
        directory('path="@/none"'),
        ERROR + f'"@/none": No such file or directory; the daemon cannot work with it. '
        f"{DAEMON_USER}",
    ),
    "a file": (
        directory('path="@/helper"'),
        ERROR + f'"@/helper": not a directory; the daemon cannot work with it. {DAEMON_USER}',
    ),
    "no subdir": (
        directory('subdir="x"'),
        ERROR
        + '"@/in2/x": No such file or directory; the daemon cannot work with it. '
        + DAEMON_USER,
    ),
    "relative": (
        directory('path="etc"'),
        [
            WARNING + 'path "etc" depends on where the daemon is started. '
            "Write a path from the root.",
            ERROR
            + '"etc": No such file or directory; the daemon cannot work with it. '
            + DAEMON_USER,
        ],
    ),
    "blank in path": (
        directory('path="@/in 2"'),
        [
            ERROR + 'path "@/in 2" goes through the shell, which reads blank: other files would be '
            "removed. Use letters, digits and . _ + - / only.",
            ERROR
            + '"@/in 2": No such file or directory; the daemon cannot work with it. '
            + DAEMON_USER,
        ],
    ),
    "remote path": (
        directory('type="ftp" path=""'),
        ERROR + 'no "path": the helper has nothing to mirror. Add a "path".',
    ),
    "last-played missing": (
        directory('last-played-path="@/none"'),
        WARNING + 'last-played-path "@/none": No such file or directory; copies '
        "are lost. " + DAEMON_USER,
    ),
    "cache missing": (
        directory('dir-mode="cache" last-played-path="@/none"'),
        ERROR + 'last-played-path "@/none": No such file or directory; every pass of '
        "the daemon would fail. " + DAEMON_USER,
    ),
    "system": (
        directory('last-played-path="/etc"'),
        ERROR + 'last-played-path "/etc" is emptied, but it belongs to the system. '
        "Use a directory of its own.",
    ),
    "shared": (
        directory('last-played-path="/tmp/"'),
        ERROR + 'last-played-path "/tmp/" is emptied, but other programs keep files there. '
        "Use a directory of its own.",
    ),
    "root": (
        directory('last-played-path="/"'),
        ERROR + 'last-played-path "/" is emptied, but other programs keep files there. '
        "Use a directory of its own.",
    ),
    "same path": (
        directory('path="@/in2/../in/"'),
        ERROR + 'path "@/in2/../in/" is also the path of directory "a": each takes or '
        "removes the other's files. Use a directory of its own.",
    ),
    "last-played is path": (
        directory('last-played-path="@/in2"'),
        ERROR + 'path "@/in2" is also the last-played-path of directory "b": '
        "each takes or removes the other's files. "
        "Use a directory of its own.",
    ),
    "last-played is another's": (
        directory('last-played-path="@/in"'),
        ERROR + 'last-played-path "@/in" is also the path of directory "a": '
        "each takes or removes the other's files. "
        "Use a directory of its own.",
    ),
    "configuration in input": (
        directory('path="@/etc"'),
        'config:1: error: tts-config: configuration "@/etc/config.xml" lies in '
        'the path of directory "b", where files are taken or removed. '
        "Move it elsewhere.",
    ),
}


@pytest.mark.parametrize("case", CASES)
def test_finding(world, case):
    text, expected = CASES[case]
    expected = [expected] if isinstance(expected, str) else expected
    if text is None:
        status, out, err = run("vocastra-check", world.config)
        assert (status, out) == (2, "")
        found = (
            err.replace(str(world.config), "config", 1).replace(str(world.root), "@").splitlines()
        )
    else:
        status, found = world.check(text, cwd=world.root / "run")
    assert found == expected
    assert status == (2 if any(": error: " in line for line in expected) else 1)


def test_home_directory(world):
    """No test can have a user database of its own, so the first home that fits is used. Every Debian
    has some, /var/backups for instance; one that belongs to the system has another finding."""
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


def test_shared_last_played(world):
    text = FULL.replace(
        "</tts-config>",
        '<directory id="d" type="local" path="@/in2" last-played-path="@/last"/>\n</tts-config>',
    )
    assert world.check(text) == (
        1,
        [
            'config:18: warning: directory "d": last-played-path "@/last" is also that of directory '
            '"a": each removes the other\'s copies. Make sure that this is meant.'
        ],
    )


def test_subdirectories_of_one_path(world):
    """What is emptied is the path itself, and nothing below it."""
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
            f'config:{line}: error: directory "{name}": path above subdir "@/in2" is also the path of '
            'directory "a": each takes or removes the other\'s files. Use a directory of its own.'
            for line, name in ((2, "x"), (3, "y"))
        ],
    )


def test_values_stay_in_one_line(world):
    assert world.check(directory('type="a&#10;b&#127;"')) == (
        2,
        [
            ERROR + 'type "a?b?" is unknown: the daemon cannot scan it, and then speaks nothing at '
            'all. Write "local", "cifs" or "ftp".'
        ],
    )


def test_findings_come_in_the_order_of_lines(world):
    text = (
        '<tts-config state="x" y="">\n<directory id="a" type="local" path="@/in" z=""/>\n'
        '<parser id="p" type="q"/>\n</tts-config>\n'
    )
    _, found = world.check(text, *COMMAND_LINE, "-w", "x")
    assert [line.split(":")[:2] for line in found] == [
        ["config", "1"],
        ["config", "1"],
        ["config", "2"],
        ["config", "3"],
        ["<command-line>", "0"],
        ["<command-line>", "0"],
    ]


# What depends on the user.


def as_daemon_user():
    """A command prefix that takes root's power over permissions away."""
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
            "denied. Make its directory, for the daemon's user.",
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
    """In /tmp only the owner may remove a file. Neither tool nor test need lie in public places."""
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
        status, found = done.returncode, done.stderr.replace(
            f"{public}/config.xml", "config"
        ).split("\n")
    assert status == 2
    assert (
        WARNING + '"/tmp" is sticky: files of others cannot be removed, and are then not spoken. '
        "Take its sticky bit away, or give it to the daemon's user."
    ) in found


# The command line.

OPTIONS = {
    "no translator": (
        ["-o", "@/out"],
        "error: -t: no translator: nothing would be spoken. Give the daemon option -t.",
    ),
    "no output": (
        ["-t", "@/translator"],
        "error: -o: no output directory: nothing would be delivered. " "Give the daemon option -o.",
    ),
    "missing translator": (
        ["-t", "@/none", "-o", "@/out"],
        'error: -t: "@/none": No such file or directory. '
        "Name a program that the daemon may execute.",
    ),
    "translator by PATH": (
        ["-t", "no-such-program", "-o", "@/out"],
        'error: -t: "no-such-program": not found. ' "Name a program that the daemon may execute.",
    ),
    "no program": (
        ["-t", "@/bumper.wav", "-o", "@/out"],
        'error: -t: "@/bumper.wav": not executable. ' "Name a program that the daemon may execute.",
    ),
    "a directory": (
        ["-t", "@/in2", "-o", "@/out"],
        'error: -t: "@/in2": not executable. ' "Name a program that the daemon may execute.",
    ),
    "translator with words": (
        ["-t", "@/translator -x", "-o", "@/out"],
        'warning: -t: "@/translator -x" goes through the shell, which reads '
        "blank. Use a path of letters, digits and . _ + - / only.",
    ),
    "no output directory": (
        ["-t", "@/translator", "-o", "@/none"],
        'error: -o: "@/none": No such file or directory. ' + DAEMON_USER,
    ),
    "output is input": (
        ["-t", "@/translator", "-o", "@/in"],
        'error: -o: output "@/in" is also the path of directory "a": each takes or '
        "removes the other's files. Use a directory of its own.",
    ),
    "output inside input": (
        ["-t", "@/translator", "-o", "@/in/out"],
        'warning: -o: output "@/in/out" and the path "@/in" of directory "a" lie '
        "one inside the other. Keep them apart.",
    ),
    "status in output": (
        [*COMMAND_LINE, "-s", "@/out/status.xml"],
        'error: -s: status file "@/out/status.xml" lies in the output of -o, where '
        "files are taken or removed. Move it elsewhere.",
    ),
    "status in input": (
        [*COMMAND_LINE, "-s", "@/in/status.xml"],
        'error: -s: status file "@/in/status.xml" lies in the path of directory "a", '
        "where files are taken or removed. Move it elsewhere.",
    ),
    "helper": (
        [*COMMAND_LINE, "-i", "@/none"],
        'error: -i: "@/none": No such file or directory. '
        "Name a program that the daemon may execute.",
    ),
    "files 0": (
        [*COMMAND_LINE, "-f", "0"],
        'error: -f: "0" files: there is never room for audio. Write 1 or more.',
    ),
    "words 0": (
        [*COMMAND_LINE, "--words=-3"],
        'warning: -w: "-3" words: every word is spoken by itself. Write 1 or more.',
    ),
    "words 5x": (
        [*COMMAND_LINE, "-w", "5x"],
        'warning: -w: "5x" is no number; the daemon takes 5. Write a whole number.',
    ),
    "octal": (
        [*COMMAND_LINE, "-f", "010"],
        'warning: -f: "010" begins with 0 and is read as octal, 8. '
        "Write it without the leading 0.",
    ),
    "mask": (
        [*COMMAND_LINE, "-d", "all"],
        'warning: -d: "all" is no number; the daemon takes 0. Write a whole number.',
    ),
}


@pytest.mark.parametrize("case", OPTIONS)
def test_option(world, case):
    (world.root / "in/out").mkdir()
    arguments, expected = OPTIONS[case]
    status, found = world.check(CLEAN, *arguments)
    assert found == [f"<command-line>:0: {expected}"]
    assert status == (2 if expected.startswith("error") else 1)


def test_files_that_are_no_number(world):
    assert world.check(CLEAN, *COMMAND_LINE, "-f", "many") == (
        2,
        [
            '<command-line>:0: warning: -f: "many" is no number; the daemon takes 0. '
            "Write a whole number.",
            '<command-line>:0: error: -f: "many" files: there is never room for audio. '
            "Write 1 or more.",
        ],
    )


@pytest.mark.parametrize("kind, option", [("cifs", "-i"), ("ftp", "-p")])
def test_remote_directory_without_helper(world, kind, option):
    text = directory(f'type="{kind}" path="host"')
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


# The glossary.


def entries(*texts):
    return (
        "<glossary>\n"
        + "".join(f'<word text="{t}" speech="s"/>\n' for t in texts)
        + "</glossary>\n"
    )


def test_clean_glossary(world):
    assert world.check_glossary(entries("Dr", ".", "ok:", "d'accord", "x&amp;y", "é" * 100)) == (
        0,
        [],
    )


@pytest.mark.parametrize(
    "text, expected",
    [
        (
            "",
            'glossary:1: error: glossary: No "glossary" root element: no element found. '
            "Correct the XML at that line.",
        ),
        (
            "<glossary>\n<word>",
            [
                "glossary:2: error: glossary: the file ends early, inside <word> of line 2; the daemon "
                "would take what is there for all. Restore the rest of the file.",
                'glossary:2: error: word "": Element word has no attribute text; no message would be '
                "spoken. Add it.",
            ],
        ),
        (
            '<glossary>\n<word text="a"/></glossary>',
            'glossary:2: error: word "a": Element word has no attribute speech; no message would be '
            "spoken. Add it.",
        ),
        (
            entries("Dr", "Mr", "Dr"),
            'glossary:4: warning: word "Dr": an earlier entry has this text; this one is ignored. '
            "Remove it.",
        ),
        (
            '<glossary lang="en">\n<Word/><word text="a" speech="b" say="c"/></glossary>',
            [
                'glossary:1: warning: glossary: unknown attribute "lang" is ignored. Remove it.',
                "glossary:2: warning: Word: unknown element in <glossary> is ignored. Remove it.",
                'glossary:2: warning: word "a": unknown attribute "say" is ignored. Remove it.',
            ],
        ),
        (
            entries("Dr."),
            'glossary:2: warning: word "Dr.": never matches: "." is taken off a word '
            "before it is looked up. Write the word as it stands by itself.",
        ),
        (
            entries("z.B"),
            'glossary:2: warning: word "z.B": never matches: words end after ".". '
            "Write the word as it stands by itself.",
        ),
    ],
)
def test_glossary_finding(world, text, expected):
    expected = [expected] if isinstance(expected, str) else expected
    assert world.check_glossary(text) == (2 if "error" in "".join(expected) else 1, expected)


# Whether the daemon does as it is said to.

WORDS = [
    "Dr",
    "Dr.",
    ",Dr",
    "a b",
    "z.B",
    "z.B.",
    "?",
    ".",
    ",",
    "..",
    "!x",
    "x!",
    "x;",
    "10:30",
    "1,5",
    "a\u00a0b",
    "naïve",
    "-",
    "'",
    "x" * 100,
    "x" * 101,
    "é" * 100,
    "é" * 101,
    "a\u0085b",
]


def test_verdict_on_words_is_the_daemons(world, make_daemon):
    """Every word is said in a message of its own, among others."""
    daemon = make_daemon(words=100, files=1000, glossary=True)
    daemon.configure(daemon.directory("a"))
    daemon.write_glossary(*[(word, f"spoken-{i}") for i, word in enumerate(WORDS)])
    daemon.start()
    for number, word in enumerate(WORDS):
        daemon.drop("a", f"{number:02}", f"before {word} after")
    texts = [
        text
        for _, text in sorted(
            (run.message, run.text.decode()) for run in daemon.wait_translator_runs(len(WORDS))
        )
    ]
    daemon.stop()
    matched = [f"spoken-{i}" in text for i, text in enumerate(texts)]
    assert all(text.startswith(PAUSE) for text in texts)

    _, found = world.check(CLEAN, "-g", daemon.glossary)
    warned = [any(f'word "{word}": never matches' in line for line in found) for word in WORDS]
    assert len(found) == warned.count(True)
    assert [not match for match in matched] == warned


def test_unknown_type_stops_everything(world, make_daemon):
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


def test_daemon_takes_half_a_file(world, make_daemon):
    daemon = make_daemon()
    daemon.configure(daemon.directory("a"), daemon.directory("b"))
    whole = daemon.config.read_text()
    publish(daemon.config, whole[: whole.index('<directory id="b"') + 10])
    assert world.check(daemon.config.read_text())[0] == 2
    daemon.start()
    assert [record.get("id") for record in daemon.wait_status()] == ["a"]
    daemon.stop()


def test_daemon_empties_what_half_a_path_names(make_daemon):
    """Why a blank in a path is an error."""
    daemon = make_daemon()
    other = daemon.root / "other"
    (daemon.root / "x").mkdir()
    other.write_text("mine")
    daemon.configure(daemon.directory("a", path=f"{other} x"))
    daemon.start(wait=False)
    daemon.wait_log(f"Could not open directory {other} x/")
    assert not other.exists()
    daemon.stop()

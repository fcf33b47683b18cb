"""vocastra-say: the messages that reach the daemon, and the refused ones."""

import ctypes
import grp
import os
import re
import shlex
import stat
import struct
import subprocess

import pytest
from harness.daemon import PAUSE
from harness.files import element, publish
from harness.health import write_health
from harness.programs import ended, finish, run, start, start_command
from harness.status import directory_status, status_text
from harness.wait import wait_until

NAME = re.compile(r"say-\d{8}-\d{6}-\d{9}-\d+")


@pytest.fixture
def daemon(make_daemon):
    """A running daemon with one local directory "a"."""
    daemon = make_daemon()
    daemon.configure(daemon.directory("a"))
    daemon.start()
    return daemon


def say(daemon, *arguments):
    return finish(start_saying(daemon, *arguments))


def start_saying(daemon, *arguments):
    write_health(daemon.root / "run")
    return start("vocastra-say", "-c", daemon.config, "--run", daemon.root / "run", *arguments)


def write_config(path, *elements, state="run"):
    """A configuration that no daemon reads; returns its path."""
    config = path / "config.xml"
    publish(config, element("tts-config", elements, state=state))
    return config


def local(path, identity="a", **attributes):
    """A local directory element at path/identity, which is made."""
    (path / identity).mkdir(exist_ok=True)
    return element("directory", id=identity, type="local", path=path / identity, **attributes)


def handed_over(directory):
    """The bytes of the only message in the directory; asserts that it has no other file."""
    (path,) = directory.iterdir()
    assert NAME.fullmatch(path.name)
    return path.read_bytes()


# Handing over.


def test_words_are_spoken(daemon):
    assert say(daemon, "Fire", "in hall", "two.") == (0, "", "")
    (message,) = daemon.wait_translator_runs(1)
    assert message.text.decode() == PAUSE + "Fire in hall two. "
    assert NAME.fullmatch(message.message)
    assert list(daemon.input("a").iterdir()) == []
    daemon.stop()


def test_standard_input_is_spoken(daemon):
    write_health(daemon.root / "run")
    options = ["-c", daemon.config, "--run", daemon.root / "run"]
    process = start("vocastra-say", *options, stdin=subprocess.PIPE, stdout=None, stderr=None)
    process.communicate("Line one.\nGrüße & <b>\n", timeout=60)
    assert process.returncode == 0
    (message,) = daemon.wait_translator_runs(1)
    assert message.text.decode() == PAUSE + "Line one. Grüße & <b> "
    daemon.stop()


@pytest.mark.parametrize("encoding", ["utf8", "utf16", "ascii"])
def test_text_survives_the_encoding_of_the_directory(make_daemon, encoding):
    text = "áéíóúüñÑ¿¡ÀÿçÖ× "
    text += "" if encoding == "ascii" else "– € ✓ 𝄞 "
    daemon = make_daemon(words=30)
    daemon.configure(daemon.directory("a", parser="text", encoding=encoding))
    daemon.start()
    assert say(daemon, text) == (0, "", "")
    (message,) = daemon.wait_translator_runs(1)
    assert message.text.decode() == PAUSE + text
    daemon.stop()


def start_saying_into(path, *arguments, elements=None, **options):
    """Says it with a configuration of these elements, or of the local directory "a"."""
    config = write_config(path, *([local(path)] if elements is None else elements))
    write_health(path / "run")
    return start("vocastra-say", "-c", config, "--run", path / "run", *arguments, **options)


def say_into(path, *arguments, **options):
    return finish(start_saying_into(path, *arguments, **options))


# Attributes of the directory, arguments, and the bytes that are handed over.
BYTES = {
    # Without a parser, the daemon reads UTF-8 and ignores "encoding".
    "no parser": ({"encoding": "utf16"}, ["é𝄞"], "é𝄞".encode()),
    "utf8": ({"parser": "text", "encoding": "utf8"}, ["é𝄞"], "é𝄞".encode()),
    "utf16": ({"parser": "text", "encoding": "utf16"}, ["é𝄞"], "é𝄞".encode("utf-16-le")),
    "option": ({"parser": "text", "encoding": "utf16"}, ["-e", "utf8", "é𝄞"], "é𝄞".encode()),
    "option alone": ({"parser": "text"}, ["-e", "utf16", "é𝄞"], "é𝄞".encode("utf-16-le")),
    "byte order mark": ({}, ["\ufeffGo"], b"Go"),
    "longest": ({}, ["x" * 65536], b"x" * 65536),
    "subdirectory": ({"subdir": "sub"}, ["Go"], b"Go"),
}


@pytest.mark.parametrize("attributes, arguments, data", BYTES.values(), ids=BYTES)
def test_file_has_the_bytes_of_the_text(tmp_path, attributes, arguments, data):
    directory = tmp_path / "a" / attributes.get("subdir", "")
    directory.mkdir(parents=True)
    assert say_into(tmp_path, *arguments, elements=[local(tmp_path, **attributes)]) == (0, "", "")
    assert handed_over(directory) == data


def test_everyone_may_read_the_file(tmp_path):
    assert say_into(tmp_path, "Go", umask=0o077)[0] == 0
    (path,) = (tmp_path / "a").iterdir()
    assert stat.S_IMODE(path.stat().st_mode) == 0o644


class Inotify:
    """The events of the entries of a directory: (event, name) in order."""

    EVENTS = {0x100: "create", 0x8: "close-write", 0x40: "from", 0x80: "to", 0x200: "delete"}

    def __init__(self, directory):
        libc = ctypes.CDLL(None, use_errno=True)
        self.descriptor = libc.inotify_init1(os.O_NONBLOCK)
        watch = libc.inotify_add_watch(self.descriptor, os.fsencode(directory), sum(self.EVENTS))
        assert self.descriptor >= 0 and watch >= 0

    def events(self):
        data = os.read(self.descriptor, 65536)
        events = []
        while data:
            _, mask, _, length = struct.unpack_from("iIII", data)
            events.append((self.EVENTS[mask], data[16 : 16 + length].rstrip(b"\0").decode()))
            data = data[16 + length :]
        os.close(self.descriptor)
        return events


def test_file_is_hidden_until_it_is_whole(tmp_path):
    (tmp_path / "a").mkdir()
    watch = Inotify(tmp_path / "a")
    assert say_into(tmp_path, "x" * 60000)[0] == 0
    events = watch.events()
    assert [event for event, _ in events] == ["create", "close-write", "from", "to"]
    names = [name for _, name in events]
    assert re.fullmatch(r"\.message-\w{6}", names[0]) and len(set(names[:3])) == 1
    assert NAME.fullmatch(names[3])


def test_names_are_unique_and_in_order(tmp_path):
    for number in range(5):
        assert say_into(tmp_path, str(number))[0] == 0
    texts = [path.read_text() for path in sorted((tmp_path / "a").iterdir())]
    assert texts == list("01234")
    processes = [start_saying_into(tmp_path, "again") for _ in range(20)]
    assert [finish(process) for process in processes] == [(0, "", "")] * 20
    assert len(list((tmp_path / "a").iterdir())) == 25


# Where to.


def test_the_only_local_directory_is_the_default(tmp_path):
    elements = [
        element("directory", id="far", type="ftp", path="host"),
        local(tmp_path, "near"),
        # The daemon ignores it.
        element("directory", id="near", type="local", path="/nowhere"),
    ]
    assert say_into(tmp_path, "Go", elements=elements)[0] == 0
    assert handed_over(tmp_path / "near") == b"Go"


def test_announcements_are_the_default_among_several(tmp_path):
    elements = [local(tmp_path, "alarms"), local(tmp_path, "announcements")]
    assert say_into(tmp_path, "Go", elements=elements)[0] == 0
    assert handed_over(tmp_path / "announcements") == b"Go"
    assert say_into(tmp_path, "-d", "alarms", "Run", elements=elements)[0] == 0
    assert handed_over(tmp_path / "alarms") == b"Run"


def unmade(identity="a", kind="local", **attributes):
    """A directory element at {path}/identity, which does not exist."""
    attributes = {"path": "{path}/" + str(identity), **attributes}
    return element("directory", id=identity, type=kind, **attributes)


X = {"parser": "x", "encoding": "utf8"}
NO_ENCODING = 'directory "a" has no usable encoding: ""'
EXPECTS_XML = 'directory "a" expects XML documents for parser "x": give one with --raw'
NO_PARSER = 'directory "a" uses parser "x", which the configuration does not have'
ON_SERVER = (
    'directory "far" is of type "cifs": messages for it belong on its server, "//host/share"'
)

# The configuration's elements, options, and why it is refused.
REFUSALS = {
    "several": (unmade("a") + unmade("b"), "", "name a directory with -d; there are a b"),
    "no local one": (unmade("far", "ftp"), "", "the configuration has no local directory"),
    "unknown": (unmade(), "-d b", 'no directory "b" in {path}/config.xml'),
    "no id": (unmade(None), "-d ''", 'no directory "" in {path}/config.xml'),
    "remote": (unmade("far", "cifs", path="//host/share"), "-d far", ON_SERVER),
    "no encoding": (unmade(parser="text"), "", NO_ENCODING),
    "xml": (unmade(**X) + element("parser", id="x", type="xml"), "", EXPECTS_XML),
    "no parser": (unmade(**X), "--raw", NO_PARSER),
    "missing directory": (unmade(), "", "cannot write to {path}/a/: No such file or directory"),
    "cache": (
        unmade(dir_mode="cache"),
        "-w",
        'directory "a" is in cache mode: nothing in it is spoken',
    ),
}


@pytest.mark.parametrize("elements, options, why", REFUSALS.values(), ids=REFUSALS)
def test_wrong_directory_is_refused(tmp_path, elements, options, why):
    elements, why = elements.format(path=tmp_path), why.format(path=tmp_path)
    found = say_into(tmp_path, *shlex.split(options), "Go", elements=[elements])
    assert found == (1, "", f"vocastra-say: {why}\n")
    assert sorted(tmp_path.iterdir()) == [tmp_path / "config.xml", tmp_path / "run"]


TOO_LONG = 'the message is too long: {} bytes in "{}", of which the daemon reads 65536'


@pytest.mark.parametrize(
    "encoding, text, why",
    [
        ("utf8", "", "there is nothing to say"),
        ("utf8", " .,! \t\n", "there is nothing to say"),
        ("utf8", b"caf\xe9", "the text is not valid UTF-8"),
        ("ascii", "2 €", '"€" (U+20AC) cannot be expressed in "ascii"'),
        ("ascii", "a²", '"²" (U+00B2) cannot be expressed in "ascii"'),
        ("utf8", "x" * 65537, TOO_LONG.format(65537, "utf8")),
        ("utf16", "x" * 32769, TOO_LONG.format(65538, "utf16")),
    ],
)
def test_text_that_cannot_be_said(tmp_path, encoding, text, why):
    elements = [local(tmp_path, parser="text", encoding=encoding)]
    (tmp_path / "text").write_bytes(text if isinstance(text, bytes) else text.encode())
    with open(tmp_path / "text", "rb") as stdin:
        found = say_into(tmp_path, elements=elements, stdin=stdin, encoding="utf-8")
    assert found == (1, "", f"vocastra-say: {why}\n")
    assert list((tmp_path / "a").iterdir()) == []


OTHER_FILE = "name a file that you may read, or leave out -c"


def test_bad_configuration(tmp_path):
    config = tmp_path / "config.xml"
    why = f"cannot read {config}: No such file or directory; {OTHER_FILE}"
    assert run("vocastra-say", "-c", config, "Go") == (1, "", f"vocastra-say: {why}\n")
    config.write_text("<tts-config>\n<a></b>")
    why = "mismatched tag at line 2"
    assert run("vocastra-say", "-c", config, "Go") == (1, "", f"vocastra-say: {why}\n")


# XML documents.


@pytest.fixture
def xml_daemon(make_daemon):
    daemon = make_daemon()
    field = '<field tag="t" attr="" attr_value=""/>'
    daemon.configure(
        daemon.directory("a", parser="x", encoding="utf8"),
        element("parser", [field], id="x", type="xml"),
    )
    daemon.start()
    return daemon


def test_raw_document_is_spoken(xml_daemon):
    assert say(xml_daemon, "--raw", "<m><t>Fire &amp; smoke</t></m>") == (0, "", "")
    (message,) = xml_daemon.wait_translator_runs(1)
    assert message.text.decode() == PAUSE + "Fire & smoke "
    xml_daemon.stop()


@pytest.mark.parametrize(
    "document", ["<m><other>Fire</other></m>", "<m><t> . </t></m>", "<m><t>x</m>", ""]
)
def test_raw_document_without_a_message_is_refused(xml_daemon, document):
    assert say(xml_daemon, "--raw", document) == (
        1,
        "",
        'vocastra-say: parser "x" finds nothing to say in the document\n',
    )
    assert list(xml_daemon.input("a").iterdir()) == []
    xml_daemon.stop()


# The service.


def test_service_that_does_not_run(tmp_path):
    path = tmp_path / "run/health"
    config = write_config(tmp_path, local(tmp_path))
    command = ["vocastra-say", "-c", config, "--run", tmp_path / "run", "Go"]
    why = f"the service does not run, as {path} tells; --queue hands over nevertheless"
    assert run(*command) == (1, "", f"vocastra-say: {why}\n")
    process = start_command("sleep", "60")
    write_health(tmp_path / "run", station=process.pid)
    process.kill()
    process.communicate()
    assert ended(process.pid)
    assert run(*command) == (1, "", f"vocastra-say: {why}\n")
    assert list((tmp_path / "a").iterdir()) == []
    assert run(*command, "--queue") == (0, "", "")
    assert handed_over(tmp_path / "a") == b"Go"


# A command before a program, which then has no more rights to files than other users.
NO_RIGHTS = ()
if os.geteuid() == 0:
    TAKEN = "-dac_override,-dac_read_search"
    NO_RIGHTS = ("setpriv", "--bounding-set", TAKEN, "--inh-caps", TAKEN)


def test_published_directories_are_read_instead_of_the_configuration(tmp_path):
    config = write_config(tmp_path, local(tmp_path, identity="b"))
    config.chmod(0)
    arguments = ["--run", tmp_path / "run", "Go"]
    write_health(tmp_path / "run")
    far = element("directory", id="far", type="ftp", priority=1)
    text = element("tts-config", [local(tmp_path), far], state="run")
    publish(tmp_path / "run/directories.xml", text)
    assert run("vocastra-say", *arguments, prefix=NO_RIGHTS) == (0, "", "")
    assert handed_over(tmp_path / "a") == b"Go"
    why = f"cannot read {config}: Permission denied; {OTHER_FILE}"
    found = run("vocastra-say", "-c", config, *arguments, prefix=NO_RIGHTS)
    assert found == (1, "", f"vocastra-say: {why}\n")
    why = ON_SERVER.partition(",")[0].replace("cifs", "ftp")
    found = run("vocastra-say", "-d", "far", *arguments)
    assert found == (1, "", f"vocastra-say: {why}\n")


def test_missing_permission_names_the_group(tmp_path):
    (tmp_path / "a").mkdir()
    os.chmod(tmp_path / "a", 0o070)
    group = grp.getgrgid((tmp_path / "a").stat().st_gid).gr_name
    found = say_into(tmp_path, "Go", prefix=NO_RIGHTS)
    os.chmod(tmp_path / "a", 0o700)
    why = f'cannot write to {tmp_path}/a/: Permission denied; members of the group "{group}" may'
    assert found == (1, "", f"vocastra-say: {why}\n")


# Waiting. The test is the station.


def answer(path, state, problems=(), **record):
    """Writes the state of the only message in path/a to the health file; returns its name."""
    (name,) = wait_until(
        lambda: [p.name for p in (path / "a").iterdir() if not p.name.startswith(".")], "a message"
    )
    others = [
        {"directory": "b", "file": name, "state": "heard"},
        {"directory": "a", "file": name + "0", "state": "dropped"},
    ]
    record = {"directory": "a", "file": name, "state": state, **record}
    problems = [(identity.format(name), *texts) for identity, *texts in problems]
    write_health(path / "run", [*others, record], problems)
    return name


DROPPED = "vocastra-say: the message was dropped"
PROBLEMS = [("kind:a/other", "No.", "No."), ("kind:a/{}", "It is odd.", "Change it.")]

# The option, the last state and record, and the expected end.
ENDS = {
    "said": ("-w", "said", {"pieces": 2}, (0, "", "")),
    "heard": ("-w", "heard", {"pieces": 2}, (0, "", "")),
    "played": ("--heard", "heard", {"pieces": 2}, (0, "", "")),
    "failed": (
        "-w",
        "failed",
        {"pieces": 2, "failed": 1},
        (5, "", "vocastra-say: 1 of 3 pieces could not be made\n"),
    ),
    "dropped": ("--heard", "dropped", {}, (3, "", DROPPED + "\n")),
    "reason": (
        "-w",
        "dropped",
        {"problems": PROBLEMS},
        (3, "", DROPPED + ": It is odd. Change it.\n"),
    ),
}


@pytest.mark.parametrize("option, state, record, expected", ENDS.values(), ids=ENDS)
def test_end_of_a_message(tmp_path, option, state, record, expected):
    process = start_saying_into(tmp_path, option, "Go")
    unfinished = ["waiting", "speaking"] + (["said"] if option == "--heard" else [])
    for before in unfinished:
        answer(tmp_path, before)
        assert process.poll() is None
    answer(tmp_path, state, **record)
    assert finish(process) == expected


def test_wait_goes_on_after_a_restart_of_the_station(tmp_path):
    process = start_saying_into(tmp_path, "-w", "Go")
    answer(tmp_path, "speaking")
    (tmp_path / "run/health").unlink()
    assert process.poll() is None
    answer(tmp_path, "said")
    assert finish(process) == (0, "", "")


# The option, the copy that the station has made, whether the file exists, and the expected end.
TIMEOUTS = {
    "waits": ("-w", "w", True, "said within 1 seconds; it is withdrawn"),
    "hidden": ("-w", "w", False, "said within 1 seconds; it is withdrawn"),
    "spoken": ("--heard", "s", False, "played within 1 seconds; it was taken already"),
}


@pytest.mark.parametrize("option, kind, is_there, expected", TIMEOUTS.values(), ids=TIMEOUTS)
def test_message_that_timed_out_is_withdrawn(tmp_path, option, kind, is_there, expected):
    process = start_saying_into(tmp_path, option, "-t", 1, "Go")
    name = answer(tmp_path, "waiting")
    message = tmp_path / "a" / name
    copy = tmp_path / "a" / f".station-{kind}-1700000000000000000-{name}"
    other = tmp_path / "a" / f".station-{kind}-1700000000000000000-{name}0"
    copy.touch()
    other.touch()
    if not is_there:
        message.unlink()
    assert finish(process) == (4, "", f"vocastra-say: not {expected}\n")
    assert sorted((tmp_path / "a").iterdir()) == sorted([other] + ([copy] if kind == "s" else []))


def test_message_that_the_daemon_has_taken_cannot_be_withdrawn(tmp_path):
    process = start_saying_into(tmp_path, "-w", "-t", 1, "Go")
    name = answer(tmp_path, "waiting")
    status = status_text(directories=[directory_status("a", message=(1, name, 0))])
    (tmp_path / "run/status.xml").write_text(status)
    copy = tmp_path / "a" / f".station-w-1700000000000000000-{name}"
    os.rename(tmp_path / "a" / name, copy)
    why = "vocastra-say: not said within 1 seconds; it was taken already\n"
    assert finish(process) == (4, "", why)
    assert copy.exists()


@pytest.mark.parametrize("text", ["-5 degrees", "-x", "--no-such-option"])
def test_text_that_begins_with_a_dash(tmp_path, text):
    status, out, err = say_into(tmp_path, text)
    advice = 'put "--" before a text that begins with "-", or give it on standard input'
    assert (status, out, err.splitlines()[1:]) == (2, "", [f"vocastra-say: {advice}"])
    assert say_into(tmp_path, "--", text) == (0, "", "")
    assert handed_over(tmp_path / "a") == text.encode()


@pytest.mark.parametrize(
    "arguments, why",
    [
        (["-e", "latin1"], 'vocastra-say: -e "latin1": not ascii, utf8 or utf16\n'),
        (["-t", "-1"], 'vocastra-say: -t "-1": not a number of seconds\n'),
        (["-t", "x"], 'vocastra-say: -t "x": not a number of seconds\n'),
    ],
)
def test_wrong_use(arguments, why):
    assert run("vocastra-say", *arguments) == (2, "", why)

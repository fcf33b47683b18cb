"""The configuration: what a change does, what it leaves alone, what a broken one does."""

import pytest
from harness.daemon import PAUSE
from harness.files import parser, publish

pytestmark = pytest.mark.core


def created(daemon, identity):
    """Log of a new local directory whose input is empty."""
    path = daemon.input(identity)
    return [
        f"Removing contents of directory {path}",
        f'Could not execute "rm {path}/* > /dev/null 2>&1"',
        f"Created new input directory {identity}",
    ]


def using(identity, parser="text-utf8"):
    return f'Directory "{identity}" using parser PARSER {parser}'


def test_first_load_logs_every_step_in_order(make_daemon):
    daemon = make_daemon()
    daemon.configure(
        daemon.directory("b", priority=1),
        daemon.directory("a", parser="text", encoding="ascii"),
        daemon.directory("c", parser="text", encoding="utf16"),
        daemon.directory("d", encoding="ascii"),
        state="quiet",
    )
    daemon.start()
    daemon.stop()
    assert daemon.log() == [
        f"Processing configuration {daemon.config}",
        *created(daemon, "b"),
        *created(daemon, "a"),
        *created(daemon, "c"),
        *created(daemon, "d"),
        using("a", "text-ascii"),
        using("b"),
        using("c", "text-utf16"),
        # Without a parser the encoding is not looked at.
        using("d"),
        'Now in "quiet" state',
    ]


def test_change_replaces_what_changed_alone(make_daemon):
    daemon = make_daemon()
    a, b, c = (daemon.directory(identity) for identity in "abc")
    daemon.configure(c, b, a)
    daemon.start()
    count = len(daemon.log())
    daemon.reconfigure(
        daemon.directory("d"),
        a.replace("/>", "><note>text and children do not count</note></directory>"),
        daemon.directory("b", loops=2),
    )
    daemon.stop()
    assert daemon.log()[count:] == [
        f"Processing configuration {daemon.config}",
        *created(daemon, "d"),
        "Deleted input directory b",
        *created(daemon, "b"),
        "Deleted input directory c",
        using("a"),
        using("b"),
        using("d"),
    ]


def test_bad_directories_are_skipped(make_daemon):
    daemon = make_daemon()
    daemon.configure(daemon.directory("a"), daemon.directory("b"))
    daemon.start()
    count = len(daemon.log())
    bad = 'While processing attribute "priority" of "directory": Could not convert "1 " to integer'
    missing = "Element directory has no attribute id"
    daemon.reconfigure(
        daemon.directory("a", priority="1 "),
        daemon.directory(None, path=daemon.input("nowhere")),
        daemon.directory("a"),
        daemon.directory("b"),
        daemon.directory("c"),
    )
    daemon.drop("c", "m.txt", "one")
    daemon.wait_spoken(("m.txt", PAUSE + "one "))
    daemon.wait_outputs(1)
    log = daemon.log()[count:]
    assert log[: log.index(using("c")) + 1] == [
        f"Processing configuration {daemon.config}",
        # Gone, and not replaced by the later element of its id.
        "Deleted input directory a",
        bad,
        f"Skipped directory a: {bad}",
        missing,
        f"Skipped directory : {missing}",
        'Duplicate directory ID "a"',
        *created(daemon, "c"),
        using("b"),
        using("c"),
    ]
    daemon.stop()


def test_parser_comes_with_a_later_configuration(make_daemon):
    daemon = make_daemon()
    directory = daemon.directory("a", parser="news", encoding="utf8")
    daemon.configure(directory)
    daemon.start()
    daemon.drop("a", "m.xml", "<m><t>one</t></m>")
    daemon.wait_status(lambda root: root.find("directory").get("total-file-count") == "1")
    # The directory is kept and its first pass is over: the file is new when it can be read.
    daemon.reconfigure(directory, parser("news", ("t",)))
    daemon.wait_spoken(("m.xml", PAUSE + "one "))
    daemon.stop()


BROKEN = {
    "missing": (None, ['Could not open "{config}" for reading'] * 2),
    "malformed after its directories": (
        "<tts-config state='stop'>\n<directory id='x' type='local'/>\n</oops>",
        ["mismatched tag at line 3"] * 2,
    ),
    "without state": (
        "<tts-config><directory id='x' type='local'/></tts-config>",
        ["Processing configuration {config}"] + ["Element tts-config has no attribute state"] * 2,
    ),
}


@pytest.mark.parametrize("contents, lines", BROKEN.values(), ids=BROKEN)
def test_broken_configuration_changes_nothing(make_daemon, contents, lines):
    daemon = make_daemon(words=1, files=1)
    daemon.configure(daemon.directory("a"))
    daemon.start()
    daemon.drop("a", "m.txt", "one two three four")
    daemon.wait_log("Now output-bound")
    count = len(daemon.log())
    good = daemon.config.read_text()
    lines = [line.format(config=daemon.config) for line in lines]

    if contents is None:
        daemon.config.unlink()
    else:
        publish(daemon.config, contents)
    daemon.wait_log(lines[-1], 6)
    # Every pass tries again and does nothing else.
    log = daemon.log()[count:]
    assert log[: 3 * len(lines)] == lines * 3
    assert set(log) == set(lines)

    # The configuration in force needs no second look when it comes back.
    publish(daemon.config, good)
    daemon.take()
    daemon.wait_spoken(("m.txt", PAUSE + "one two "), ("m.txt", "three four "))
    daemon.wait_outputs(1)
    daemon.stop()
    assert [line for line in daemon.log()[count:] if line not in lines] == [
        "No longer output-bound",
        "calling engine",
        "done calling engine",
        "copying 1_a.text_live_cont.raw",
        "Now output-bound",
    ]


# States.


def test_stop_empties_the_output_and_drops_the_messages(make_daemon):
    daemon = make_daemon(words=1, files=2)
    a, b = daemon.directory("a"), daemon.directory("b")
    daemon.configure(a, b)
    daemon.start()
    (daemon.output / ".hidden").touch()
    (daemon.output / "directory").mkdir()
    daemon.drop("a", "m.txt", "one two three four five six seven eight")
    daemon.drop("b", "n.txt", "nine ten")
    daemon.wait_log("Now output-bound")
    daemon.wait_status(lambda root: len(root.findall("directory/message")) == 2)
    count = len(daemon.log())

    daemon.reconfigure(a, b, state="stop")
    assert sorted(path.name for path in daemon.output.iterdir()) == [".hidden", "directory"]
    (daemon.output / "directory").rmdir()
    root = daemon.wait_status()
    assert root.get("state") == "stop"
    assert root.findall("directory/message") == []
    # Not looked at again while it is stopped.
    assert (root.get("now-playing"), root.get("output-bound")) == ("1", "1")
    assert daemon.log()[count:] == [
        f"Processing configuration {daemon.config}",
        using("a"),
        using("b"),
        'Now in "stop" state',
    ]

    # Messages become active, but nothing is spoken, nor is anything logged for it.
    daemon.drop("a", "o.txt", "eleven")
    daemon.wait_status(lambda root: root.find("directory[@id='a']/message[@id='3']") is not None)
    (daemon.output / "9_x.raw").touch()
    # Told to stop twice in a row, the output is emptied only once.
    daemon.reconfigure(b, a, state="stop")
    assert (daemon.output / "9_x.raw").exists()
    assert len(daemon.spoken()) == 2

    daemon.reconfigure(a, b, state="run")
    daemon.wait_spoken(
        ("m.txt", PAUSE + "one two "), ("m.txt", "three four "), ("o.txt", PAUSE + "eleven ")
    )
    assert daemon.wait_outputs(2) == ["2_a.text_live_first.raw", "9_x.raw"]
    daemon.stop()
    log = daemon.log()
    run = log.index('Now in "run" state', count)
    assert log[run + 1 :][:2] == ["No longer output-bound", "calling engine"]


def test_run_as_the_first_state_keeps_the_output(make_daemon):
    daemon = make_daemon(files=2)
    daemon.configure(daemon.directory("a"))
    (daemon.output / "5_old.raw").touch()
    daemon.start()
    daemon.drop("a", "m.txt", "one")
    assert daemon.wait_outputs(2) == ["0_a.text_live_first.raw", "5_old.raw"]
    daemon.stop()


def test_any_other_state_pauses(make_daemon):
    daemon = make_daemon(words=1, files=1)
    a = daemon.directory("a")
    daemon.configure(a)
    daemon.start()
    daemon.drop("a", "m.txt", "one two three four")
    daemon.wait_log("Now output-bound")
    daemon.reconfigure(a, state="RUN")
    assert daemon.outputs() == ["0_a.text_live_first.raw"]
    daemon.take()
    daemon.wait_passes(3)
    root = daemon.wait_status()
    assert (root.get("state"), root.find("directory/message").get("id")) == ("RUN", "1")
    assert len(daemon.spoken()) == 1
    daemon.reconfigure(a, state="run")
    daemon.wait_spoken(("m.txt", PAUSE + "one two "), ("m.txt", "three four "))
    daemon.stop()


def test_configuration_waits_until_the_message_is_made(make_daemon):
    daemon = make_daemon(words=1)
    daemon.configure(daemon.directory("a"))
    daemon.start()
    daemon.hold()
    daemon.drop("a", "m.txt", "one two three four")
    daemon.wait_translator_runs(1)
    daemon.configure(daemon.directory("a"), state="stop")
    daemon.release()
    daemon.wait_log('Now in "stop" state')
    daemon.stop()
    # It is read at the start of a pass, and a pass goes on while there is a snippet to make.
    assert daemon.spoken() == [("m.txt", PAUSE + "one two "), ("m.txt", "three four ")]
    assert daemon.outputs() == []


def test_old_files_are_removed_when_a_directory_is_built(make_daemon):
    daemon = make_daemon()
    path, last = daemon.input("a"), daemon.input("last")
    for directory in (path, last):
        (directory / "old.txt").write_text("old")
        (directory / ".hidden").write_text("hidden")
        (directory / "sub").mkdir()
        (directory / "sub" / "kept.txt").write_text("kept")
    daemon.configure(daemon.directory("a", last_played_path=last))
    daemon.start()
    daemon.stop()
    for directory in (path, last):
        assert sorted(entry.name for entry in directory.iterdir()) == [".hidden", "sub"]
        assert (directory / "sub" / "kept.txt").exists()
    assert daemon.log() == [
        f"Processing configuration {daemon.config}",
        f"Removing contents of directory {last}",
        # The subdirectory makes the command fail.
        f'Could not execute "rm {last}/* > /dev/null 2>&1"',
        f"Removing contents of directory {path}",
        f'Could not execute "rm {path}/* > /dev/null 2>&1"',
        "Created new input directory a",
        using("a"),
        'Now in "run" state',
    ]

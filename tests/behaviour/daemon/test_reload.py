"""Changes of the configuration: their effects and times."""

import pytest
from harness.daemon import PAUSE

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


def test_change_replaces_only_changed_directories(make_daemon):
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
    # The configuration is read at the start of a pass, and a pass goes on while there is a snippet
    # to make.
    assert daemon.spoken() == [("m.txt", PAUSE + "one two "), ("m.txt", "three four ")]
    assert daemon.outputs() == []

"""XML messages: which parts of a document are spoken."""

import pytest
from harness.daemon import PAUSE
from harness.files import crc16, parser


# A sample of the rules: name, fields, attr-mode, document, spoken text.


@pytest.fixture
def daemon(make_daemon):
    """A daemon with an input directory "a" whose XML messages have their t elements spoken."""
    daemon = make_daemon(words=1000)
    daemon.configure(daemon.directory("a", parser="news", encoding="utf8"), parser("news", ("t",)))
    daemon.start()
    return daemon


@pytest.mark.core
def test_whole_log_of_an_xml_message(daemon):
    count = len(daemon.log())
    daemon.drop("a", "m.xml", "<m><t>one</t><t>two</t></m>")
    daemon.wait_spoken(("m.xml", PAUSE + "one. two "))
    daemon.wait_outputs(1)
    daemon.stop()
    assert daemon.log()[count:] == [
        f"Adding m.xml {crc16(b'one. two')} to file_map",
        "calling engine",
        "done calling engine",
        "copying 0_a.text_live_first.raw",
    ]


def test_xml_and_text_are_read_side_by_side(make_daemon):
    daemon = make_daemon()
    daemon.configure(
        daemon.directory("a", parser="news", encoding="utf8", priority=1),
        daemon.directory("b", parser="text", encoding="ascii", priority=2),
        daemon.directory("c", priority=3),
        parser("news", ("t",)),
    )
    daemon.start()
    document = "<m><t>one</t></m>"
    daemon.hold()
    daemon.drop("c", "c.txt", document)
    daemon.wait_translator_runs(1)
    daemon.drop("a", "a.xml", document)
    daemon.drop("b", "b.txt", document)
    daemon.release()
    text = PAUSE + document + " "
    daemon.wait_spoken(("c.txt", text), ("a.xml", PAUSE + "one "), ("b.txt", text))
    daemon.stop()

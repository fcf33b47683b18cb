"""XML messages: which parts of a document are spoken."""

import pytest
from harness.daemon import PAUSE
from harness.files import crc16, parser

FIRE = "<msg><headline>Fire</headline><body>Leave now</body></msg>"
LANGUAGES = '<m><p lang="en">A1</p><p lang="fr">B1</p><p>C1</p></m>'
ALERTS = (
    "<msg><body>no</body>"
    "<alert><body>one</body><info><x><body>two</body></x></info></alert></msg>"
)
LONG = f"<m><t>one</t><t>{'x ' * 35000}</t><t>two</t></m>"

# A sample of the rules: name, fields, attr-mode, document, spoken text.
RULES = [
    ("order", [("headline",), ("body",)], None, FIRE, "Fire. Leave now"),
    ("parent", [("body", "", "", "alert")], None, ALERTS, "one. two"),
    ("attribute", [("p", "lang", "fr"), ("p", "lang", "")], "0", LANGUAGES, "B1. C1"),
    ("attribute-mode", [("p", "lang", "", "m")], "1", LANGUAGES, "en. fr."),
    ("too-long", [("t",)], None, LONG, "one. two"),
    (
        "entities",
        [("t",)],
        None,
        "<m><t>a &amp; b &#233;<![CDATA[<c>]]></t></m>",
        "a & b \u00e9<c>",
    ),
    ("ends-early", [("t",)], None, "<m><t>one</t><u><t>two", "one. two"),
    ("no-text", [("t",)], None, "<m><u>no</u></m>", None),
]


@pytest.mark.core
def test_field_rules(make_daemon):
    daemon = make_daemon(words=1000, files=100)
    names = [rule[0] for rule in RULES]
    daemon.configure(
        *[daemon.directory(name, parser=name, encoding="utf8") for name in names],
        *[parser(name, *fields, attr_mode=mode) for name, fields, mode, _, _ in RULES],
    )
    daemon.start()
    for name, _, _, document, _ in RULES:
        daemon.drop(name, f"{name}.xml", document)
    expected = {f"{name}.xml": f"{PAUSE}{spoken} " for name, _, _, _, spoken in RULES if spoken}
    daemon.wait_outputs(len(expected))
    daemon.wait_log("Adding no-text.xml 0 to file_map")
    assert dict(daemon.spoken()) == expected
    daemon.stop()
    # When the file is new and when it is taken.
    assert daemon.log().count("Too many characters, truncating") == 2


@pytest.fixture
def daemon(make_daemon):
    """A daemon with an input directory "a" whose XML messages have their t elements spoken."""
    daemon = make_daemon(words=1000)
    daemon.configure(daemon.directory("a", parser="news", encoding="utf8"), parser("news", ("t",)))
    daemon.start()
    return daemon


@pytest.mark.core
def test_broken_document_is_not_spoken_until_it_is_fixed(daemon):
    count = len(daemon.log())
    daemon.drop("a", "m.xml", "<m>\n<t>one</t></n>")
    unable = f"Unable to read {daemon.input('a')}/m.xml as XML document"
    daemon.wait_log(unable, 3)
    daemon.drop("a", "m.xml", "<m><t>whole</t></m>")
    daemon.wait_spoken(("m.xml", PAUSE + "whole "))
    daemon.wait_outputs(1)
    daemon.stop()
    log = daemon.log()[count:]
    # It is read in every scan.
    failure = ["mismatched tag at line 2", unable]
    expected = [*failure, "Adding m.xml 0 to file_map", *failure * (log.count(unable) - 1)]
    assert log == expected + [
        "Updating m.xml in file_map",
        "calling engine",
        "done calling engine",
        "copying 0_a.text_live_first.raw",
    ]


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


ENCODED = [
    ("ascii", b"<m><t>caf\xe9 \x85</t></m>", "caf\u00e9 \ufffde"),
    # The encoding that a document declares does not count.
    ("utf8", b"<?xml version='1.0' encoding='latin1'?><m><t>\xc3\xa9\xff</t></m>", "\u00e9\ufffd"),
    ("utf16", "\ufeff<m><t>caf\u00e9</t></m>".encode("utf-16-be"), "caf\u00e9"),
]


@pytest.mark.core
@pytest.mark.parametrize("encoding, document, spoken", ENCODED)
def test_encodings_of_documents(make_daemon, encoding, document, spoken):
    daemon = make_daemon()
    daemon.configure(
        daemon.directory("a", parser="news", encoding=encoding), parser("news", ("t",))
    )
    daemon.start()
    daemon.drop("a", "m.xml", document)
    daemon.wait_spoken(("m.xml", PAUSE + spoken + " "))
    daemon.wait_outputs(1)
    daemon.stop()
    assert f'Directory "a" using parser PARSER news-{encoding}' in daemon.log()


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

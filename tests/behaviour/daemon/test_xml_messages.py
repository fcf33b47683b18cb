"""XML messages: which parts of a document are spoken."""

import resource

import pytest
from harness.daemon import PAUSE
from harness.files import crc16, element, parser, publish

FIRE = "<msg><headline>Fire</headline><body>Leave now</body></msg>"
LANGUAGES = '<m><p lang="en">A1</p><p lang="fr">B1</p><p>C1</p></m>'
ALERTS = (
    "<msg><body>no</body>"
    "<alert><body>one</body><info><x><body>two</body></x></info></alert></msg>"
)

# Name, fields, attr-mode, document, what is spoken.
RULES = [
    ("in-order", [("headline",), ("body",)], None, FIRE, "Fire. Leave now"),
    ("field-order", [("body",), ("headline",)], None, FIRE, "Leave now. Fire"),
    ("one-field", [("body",)], None, FIRE, "Leave now"),
    ("one-tag-twice", [("body",), ("body",)], None, FIRE, "Leave now. Leave now"),
    (
        "blank-at-the-end",
        [("h",), ("b",)],
        None,
        "<m><h>Fire </h><b>Leave</b><b>now\n</b><b>all</b></m>",
        "Fire Leave. now all",
    ),
    ("empty-piece", [("h",), ("b",)], None, "<m><h>Fire</h><b/><b>out</b></m>", "Fire. out"),
    ("empty-first", [("h",), ("b",)], None, "<m><h/><b>out</b></m>", "out"),
    (
        "parents-in-document-order",
        [("b",), ("a",)],
        None,
        "<m><g><a>a1</a><b>b1</b></g><a>a0</a><g><b>b2</b><a>a2</a></g><b>b0</b></m>",
        "b0. a0. b1. a1. b2. a2",
    ),
    ("root-is-not-extracted", [("m",)], None, "<m>no<m>yes</m></m>", "yes"),
    ("nested", [("t",)], None, "<r><t>x1<t>y1</t></t></r>", "x1. y1"),
    ("own-text-alone", [("t",)], None, "<r><t>one<b> no </b>two</t></r>", "onetwo"),
    ("parent", [("body", "", "", "alert")], None, ALERTS, "one. two"),
    ("parent-is-any-ancestor", [("body", "", "", "info")], None, ALERTS, "two"),
    ("parent-is-the-root", [("body", "", "", "msg")], None, ALERTS, "no. one. two"),
    ("parent-of-its-own-name", [("a", "", "", "a")], None, "<m><a>no<a>yes</a></a></m>", "yes"),
    ("attribute-must-match", [("p", "lang", "en")], None, LANGUAGES, "A1"),
    ("attribute-must-be-absent", [("p", "lang", "")], None, LANGUAGES, "C1"),
    ("value-without-attribute", [("p", "", "en")], None, LANGUAGES, "A1. B1. C1"),
    (
        "several-conditions",
        [("p", "lang", "fr"), ("p", "lang", "en"), ("", "lang", "en")],
        "0",
        LANGUAGES,
        "B1. A1",
    ),
    (
        "attribute-mode",
        [("item", "text", "ignored"), ("item", ""), ("", "text")],
        "1",
        '<m><item text="Hello">no</item><x><item text="you"/></x><item/></m>',
        "Hello. you",
    ),
    ("attribute-mode-of-any-number", [("i", "t")], "-2", '<m><i t="one"/></m>', "one"),
    (
        "attribute-mode-with-parent",
        [("i", "t", "", "g")],
        "0x1",
        '<m><i t="no"/><g><i t="one"/></g></m>',
        "one",
    ),
    (
        "too-long-is-left-out-whole",
        [("t",)],
        None,
        f"<m><t>one</t><t>{'x ' * 35000}</t><t>two</t></m>",
        "one. two",
    ),
    (
        "text-counts-in-attribute-mode",
        [("t", "a")],
        "1",
        f"<m><t a='one'/><t a='no'>{'x ' * 35000}</t><t a='two'/></m>",
        "one. two",
    ),
    (
        "too-long-attribute",
        [("t", "a")],
        "1",
        f"<m><t a='one'/><t a='{'x ' * 35000}'/><t a='two'/></m>",
        "one. two",
    ),
    (
        "entities",
        [("t",)],
        None,
        "<?xml version='1.0'?><!-- c --><m><t>a &amp; b &#233;<![CDATA[<c>]]><!-- no --></t></m>",
        "a & b \u00e9<c>",
    ),
    ("ends-early", [("t",)], None, "<m><t>one</t><u><t>two", "one. two"),
    ("ends-in-a-tag", [("t",)], None, "<m><t>one</t><t>two</t", "one. two"),
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
    daemon.wait_translator_runs(len(RULES))
    expected = {f"{name}.xml": PAUSE + spoken + " " for name, _, _, _, spoken in RULES}
    assert dict(daemon.spoken()) == expected
    daemon.wait_outputs(len(RULES))
    daemon.stop()
    # Three pieces, each met twice: when the file is new and when it is taken.
    assert daemon.log().count("Too many characters, truncating") == 6


SILENT = [
    ("nothing-extracted", [("t",)], None, "<m><u>no</u></m>"),
    ("no-fields", [], None, "<m><t>no</t></m>"),
    ("empty-tag", [("", "", "", "m")], None, "<m><t>no</t></m>"),
    ("attribute-mode-without-attribute", [("t",)], "1", "<m><t>no</t></m>"),
    ("parent-is-not-the-child", [("t", "", "", "t")], None, "<m><t>no</t></m>"),
    ("empty-parent-name", [("t", "", "", "u")], None, "<m><t>no</t><u/></m>"),
]


def test_documents_without_a_text_stay_unspoken(make_daemon):
    daemon = make_daemon(words=1000)
    names = [rule[0] for rule in SILENT]
    daemon.configure(
        *[daemon.directory(name, parser=name, encoding="utf8") for name in names],
        *[parser(name, *fields, attr_mode=mode) for name, fields, mode, _ in SILENT],
    )
    daemon.start()
    for name, _, _, document in SILENT:
        daemon.drop(name, "m.xml", document)
    daemon.wait_log("Adding m.xml 0 to file_map", len(SILENT))
    daemon.wait_passes(2)
    root = daemon.wait_status()
    assert [record.get("updated-file-count") for record in root] == ["0"] * len(SILENT)
    daemon.stop()
    assert daemon.spoken() == []
    assert daemon.log().count("extract attr value") >= 2


@pytest.fixture
def daemon(make_daemon):
    """A daemon with an input directory "a" whose XML messages have their t elements spoken."""
    daemon = make_daemon(words=1000)
    daemon.configure(daemon.directory("a", parser="news", encoding="utf8"), parser("news", ("t",)))
    daemon.start()
    return daemon


BROKEN = {
    "mismatched": ("<m>\n<t>one</t></n>", "mismatched tag at line 2"),
    "no markup": ("just words", "syntax error at line 1"),
    "two roots": ("<m><t>one</t></m>\n<m/>", "junk after document element at line 2"),
    "bad character": ("<m><t>one\x01</t></m>", "not well-formed (invalid token) at line 1"),
    "unknown entity": ("<m><t>one &x; two</t></m>", "undefined entity at line 1"),
    "duplicate attribute": ("<m a='1' a='2'/>", "duplicate attribute at line 1"),
}


@pytest.mark.core
@pytest.mark.parametrize("document, error", BROKEN.values(), ids=BROKEN)
def test_broken_document_is_not_spoken_until_it_is_mended(daemon, document, error):
    count = len(daemon.log())
    daemon.drop("a", "m.xml", document)
    unable = f"Unable to read {daemon.input('a')}/m.xml as XML document"
    daemon.wait_log(unable, 3)
    daemon.drop("a", "m.xml", "<m><t>whole</t></m>")
    daemon.wait_spoken(("m.xml", PAUSE + "whole "))
    daemon.wait_outputs(1)
    daemon.stop()
    log = daemon.log()[count:]
    tries = log.count(unable)
    # Looked at in every scan.
    expected = [error, unable, "Adding m.xml 0 to file_map"] + [error, unable] * (tries - 1)
    assert log == expected + [
        "Updating m.xml in file_map",
        "calling engine",
        "done calling engine",
        "copying 0_a.text_live_first.raw",
    ]


def test_empty_document(daemon):
    count = len(daemon.log())
    daemon.drop("a", "m.xml", "")
    daemon.wait_log("NULL element", 3)
    daemon.stop()
    log = daemon.log()[count:]
    tries = log.count("NULL element")
    assert log == ["NULL element", "Adding m.xml 0 to file_map"] + ["NULL element"] * (tries - 1)
    assert daemon.spoken() == []


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


def test_whole_trace_of_an_xml_message(make_daemon):
    daemon = make_daemon(debug=4)
    fields = [("t", "l", "en", "g"), (), ("u",)]
    daemon.configure(
        daemon.directory("a", parser="news", encoding="ascii"), parser("news", *fields)
    )
    daemon.start()
    document = "<m><g><t l='en'>one</t><t>no</t></g><t l='en'>no</t><u/></m>"
    daemon.drop("a", "m.xml", document)
    daemon.wait_outputs(1)
    daemon.wait_passes(2)
    daemon.stop()

    checks = [
        "Checking Field g/t",
        "Checking Field /",
        "Skipping due to empty tag",
        "Checking Field /u",
    ]
    parsed = [
        "Original is valid UTF-8",
        *[f"EndElement: {name}" for name in "ttgtum"],
        "Checking Element m",
        "Checking Field g/t",
        'Processing child "t"',
        "Skipping due to parent mismatch m g",
        *checks[1:],
        'Processing child "u"',
        "Checking Element g",
        "Checking Field g/t",
        'Processing child "t"',
        "found text",
        'Processing child "t"',
        "found text",
        "Skipping due to attr mismatch key en act ",
        *checks[1:],
        *["Checking Element t", *checks] * 3,
        *["Checking Element u", *checks],
    ]
    idle = "Directory a reports an active message ID of 0"
    log = daemon.log()
    trace = [line for i, line in enumerate(log) if line != idle or log[i - 1] != idle]
    assert trace == [
        "Original is valid UTF-8",
        "EndElement: directory",
        *["EndElement: field"] * 3,
        "EndElement: parser",
        "EndElement: tts-config",
        idle,
        *parsed,
        *parsed,
        'Parser returned: "one"',
        "Original is valid UTF-8",
        f"From {daemon.input('a')}/m.xml: one",
        "Directory a reports an active message ID of 1",
        "Highest priority directory is a",
        "Erasing m.xml from file_map",
        idle,
    ]


ENCODED = {
    "ascii": (
        "ascii",
        b"<m><t>caf\xe9 \xa8Qu\xe9? \x85</t></m>",
        "caf\u00e9 \u00bfQu\u00e9? \ufffde",
    ),
    "utf8": ("utf8", "<m><t>caf\u00e9 \u20ac</t></m>".encode(), "caf\u00e9 \u20ac"),
    "utf8 mended": ("utf8", b"<m><t>a\xffb</t></m>", "a\ufffdb"),
    "utf8 with mark": ("utf8", "\ufeff<m><t>mark</t></m>".encode(), "mark"),
    # What the document says about itself does not count.
    "declared otherwise": (
        "utf8",
        "<?xml version='1.0' encoding='latin1'?><m><t>\u00e9</t></m>".encode(),
        "\u00e9",
    ),
    "utf16 little-endian": (
        "utf16",
        "\ufeff<m><t>caf\u00e9 \U0001f525</t></m>".encode("utf-16-le"),
        "caf\u00e9 \U0001f525",
    ),
    "utf16 big-endian": ("utf16", "\ufeff<m><t>caf\u00e9</t></m>".encode("utf-16-be"), "caf\u00e9"),
}


@pytest.mark.core
@pytest.mark.parametrize("encoding, document, spoken", ENCODED.values(), ids=ENCODED)
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


def test_nothing_is_held_back_behind_long_tokens(make_daemon):
    daemon = make_daemon(words=1000, files=1000, glossary=True)
    sizes = [*range(900, 1150, 25), *range(1500, 9000, 500)]
    long = "x" * 5000
    publish(
        daemon.glossary,
        f'<glossary><word text="{long}" speech="no"/><word text="end" speech="{long}"/>'
        '<word text="last" speech="very last"/></glossary>',
    )
    # The end of the configuration, too, follows a long comment and a long attribute.
    publish(
        daemon.config,
        f'<tts-config state="run">{parser("news", ("t",))}<!-- {long} -->'
        f'<directory id="z" type="local" path="{daemon.input("z")}" note="{long}"/>'
        f'{daemon.directory("a", parser="news", encoding="utf8")}</tts-config>',
    )
    daemon.start()
    for size in sizes:
        filler = "y" * size
        daemon.drop("a", f"c{size}.xml", f"<m><!-- {filler} --><t>comment {size}</t></m>")
        daemon.drop("a", f"d{size}.xml", f'<m><u n="{filler}"/><t>value {size}</t></m>')
    daemon.drop("z", "z.txt", "end last")
    daemon.wait_translator_runs(2 * len(sizes) + 1)
    expected = {"z.txt": PAUSE + f"{long} very last "}
    for size in sizes:
        expected[f"c{size}.xml"] = PAUSE + f"comment {size} "
        expected[f"d{size}.xml"] = PAUSE + f"value {size} "
    assert dict(daemon.spoken()) == expected
    daemon.stop()


def test_deep_document_needs_no_deep_stack(make_daemon):
    daemon = make_daemon(words=1000)
    daemon.configure(
        daemon.directory("a", parser="news", encoding="utf8"),
        parser("news", ("t", "", "", "top"), ("u", "", "", "nowhere")),
    )
    daemon.start(preexec_fn=lambda: resource.setrlimit(resource.RLIMIT_STACK, (1 << 20, 1 << 20)))
    depth = 200000
    daemon.drop("a", "m.xml", "<top>" + "<x>" * depth + "<t>deep</t>" + "</x>" * depth + "</top>")
    daemon.wait_spoken(("m.xml", PAUSE + "deep "))
    daemon.wait_outputs(1)
    daemon.stop()


REJECTED = {
    "tag": ('<field attr="" attr_value=""/>', "Element field has no attribute tag"),
    "attr": ('<field tag="t" attr_value=""/>', "Element field has no attribute attr"),
    "attr_value": ('<field tag="t" attr=""/>', "Element field has no attribute attr_value"),
    "hyphen": (
        '<field tag="t" attr="" attr-value=""/>',
        "Element field has no attribute attr_value",
    ),
}


@pytest.mark.parametrize("field, text", REJECTED.values(), ids=REJECTED)
def test_field_without_a_required_attribute(make_daemon, field, text):
    daemon = make_daemon()
    directory = daemon.directory("a", parser="news", encoding="utf8")
    daemon.configure(directory, element("parser", [field], id="news", type="xml"))
    daemon.start(wait=False)
    daemon.wait_log(text, 6)
    path = daemon.input("a")
    log = daemon.log()
    first = [
        f"Processing configuration {daemon.config}",
        f"Removing contents of directory {path}",
        f'Could not execute "rm {path}/* > /dev/null 2>&1"',
        "Created new input directory a",
        text,
        text,
    ]
    again = [f"Processing configuration {daemon.config}", text, text]
    assert log[: len(first)] == first
    assert log[len(first) :][: 2 * len(again)] == again * 2
    daemon.configure(directory, parser("news", ("t",)))
    daemon.wait_status()
    daemon.drop("a", "m.xml", "<m><t>one</t></m>")
    daemon.wait_spoken(("m.xml", PAUSE + "one "))
    daemon.stop()


def test_attr_mode_must_be_a_number(make_daemon):
    daemon = make_daemon()
    daemon.configure(parser("news", ("t",), attr_mode="yes"))
    daemon.start(wait=False)
    text = 'While processing attribute "attr-mode" of "parser": Could not convert "yes" to integer'
    daemon.wait_log(text, 4)
    daemon.stop()
    assert set(daemon.log()) == {f"Processing configuration {daemon.config}", text}


def test_first_parser_of_an_id_counts(make_daemon):
    daemon = make_daemon()
    daemon.configure(
        daemon.directory("a", parser="news", encoding="utf8"),
        parser("news", ("t",)),
        parser("news", ("u",)),
        # This one is in the way of an encoded id.
        parser("news-utf8", ("u",)),
    )
    daemon.start()
    daemon.drop("a", "m.xml", "<m><t>first</t><u>second</u></m>")
    daemon.wait_spoken(("m.xml", PAUSE + "first "))
    daemon.wait_outputs(1)
    daemon.stop()
    assert [line for line in daemon.log() if line.startswith(("Duplicate", "Directory"))] == [
        'Duplicate parser ID "news-utf8"',
        'Directory "a" using parser PARSER news-utf8',
    ]


def test_xml_and_text_stand_side_by_side(make_daemon):
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

"""doc/log.md explains every line that the daemon can log or throw, and no other."""

import pathlib
import re

ROOT = pathlib.Path(__file__).resolve().parents[2]
TEXT = r'"((?:[^"\\]|\\.)*)"'
# Calls with a text that is logged or thrown, or with one of two texts.
CALLS = [
    r"Debug\(\s*(?:kDebug\w+|mask_),\s*" + TEXT,
    r"ToValidUtf8\([^;\"]*" + TEXT,
    r"Debug\(\s*kDebug\w+,\s*\"%s\",\s*\w+\s*\?\s*" + TEXT,
    r"Debug\(\s*kDebug\w+,\s*\"%s\",\s*\w+\s*\?\s*"
    + TEXT.replace("(", "(?:", 1)
    + r"\s*:\s*"
    + TEXT,
    r"(?:throw|Logged\()\s*(?:Logged\()?Format\(\s*" + TEXT,
    r"\bLog\w+\([^;\"]*" + TEXT,
]


def texts_in_sources():
    texts = set()
    for path in (ROOT / "src").glob("*.cc"):
        source = path.read_text()
        for call in CALLS:
            texts.update(text.replace('\\"', '"') for text in re.findall(call, source))
    return texts - {"%s"}  # This call logs a text made elsewhere.


def texts_in_document():
    rows = (ROOT / "doc/log.md").read_text().splitlines()
    return {match.group(1) for row in rows if (match := re.match(r"\| `([^`]+)` \|", row))}


def test_every_text_in_the_sources_is_found():
    assert {
        "Now output-bound",
        "No longer output-bound",
        "calling engine",
        "%s at line %d",
        'No "%s" root element',
        "Root element must be a singleton",
    } <= texts_in_sources()


def test_every_text_is_explained():
    assert texts_in_sources() - texts_in_document() == set()


def test_nothing_else_is_explained():
    assert texts_in_document() - texts_in_sources() == set()

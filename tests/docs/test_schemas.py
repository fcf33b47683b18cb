"""The schemas accept what is right, and refuse each of tests/docs/wrong for its one reason."""

import pathlib
import re
import shutil

import pytest
from harness.programs import ROOT, run_command
from harness.schemas import validate

SCHEMAS = ["tts-config", "glossary", "tts-status"]
WRONG = sorted((ROOT / "tests/docs/wrong").glob("*.xml"))
HEAD = re.compile(r"<!-- wrong: (.*) -->\n<!-- right: (.*) -->\n")


def schema_of(path):
    return next(name for name in SCHEMAS if path.name.startswith(name))


def test_there_are_wrong_files_for_every_schema():
    assert {schema_of(path) for path in WRONG} == set(SCHEMAS)


@pytest.mark.parametrize("path", WRONG, ids=lambda path: path.stem)
def test_refuses(path, tmp_path):
    """A wrong file names in its head what is wrong in it. It becomes valid when only that is
    corrected, so nothing else was the reason."""
    head = HEAD.match(path.read_text())
    wrong, right = head.groups()
    body = path.read_text()[head.end() :]
    assert body.count(wrong) == 1
    assert "fails to validate" in validate(schema_of(path), path)
    corrected = tmp_path / "corrected.xml"
    corrected.write_text(body.replace(wrong, right))
    assert validate(schema_of(path), corrected) == ""


@pytest.mark.parametrize("schema", SCHEMAS)
def test_the_xml_form_is_made_from_the_compact_one(schema, tmp_path):
    if not shutil.which("trang"):
        pytest.fail("trang is missing: tools/setup docs installs it")
    made = tmp_path / "made.rng"
    done = run_command("trang", ROOT / f"schema/{schema}.rnc", made)
    assert done.returncode == 0, done.stdout
    assert made.read_text() == (ROOT / f"schema/{schema}.rng").read_text()


def accepts(schema, text, tmp_path):
    path = pathlib.Path(tmp_path) / "file.xml"
    path.write_text(text)
    return validate(schema, path) == ""


@pytest.mark.parametrize(
    "value, accepted",
    [
        ("", True),
        ("0", True),
        ("7", True),
        (" 7", True),
        ("+7", True),
        ("-7", True),
        ("017", True),
        ("0x1F", True),
        ("-0x1f", True),
        ("0x7fffffff", True),
        ("2147483647", True),
        ("-2147483648", True),
        ("00002147483647", True),
        ("7 ", False),
        ("7x", False),
        ("x", False),
        ("1.5", False),
        ("0x", False),
        ("0X1F", False),
        ("1F", False),
        ("0x80000000", False),
        ("2147483648", False),
        ("-2147483649", False),
        ("99999999999", False),
    ],
)
def test_numbers_are_those_that_the_daemon_reads(value, accepted, tmp_path):
    directory = f'<directory id="a" type="local" path="in" priority="{value}"/>'
    config = f'<tts-config state="run">{directory}</tts-config>'
    assert accepts("tts-config", config, tmp_path) == accepted


@pytest.mark.parametrize(
    "text, accepted",
    [
        ("Dr", True),
        ("km/h", True),
        ("Dr!", True),
        ("é", True),
        (".", True),
        (",", True),
        ("?", True),
        ("x" * 100, True),
        ("x" * 101, False),
        ("Dr,", False),
        (".Dr", False),
        ("a:b", False),
        ("a\u00a0b", False),
    ],
)
def test_glossary_words_are_those_that_can_occur(text, accepted, tmp_path):
    glossary = f'<glossary><word text="{text}" speech="x"/></glossary>'
    assert accepts("glossary", glossary, tmp_path) == accepted

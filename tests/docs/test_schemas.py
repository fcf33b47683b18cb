"""The schemas accept valid documents, and refuse each line of wrong.txt."""

import re
import shutil
from pathlib import Path

import pytest
from harness.programs import ROOT, run_command
from harness.schemas import validate

SCHEMAS = ["tts-config", "glossary", "tts-status"]


def read_cases():
    """The valid document of each schema, and the faults: schema, name, right text, wrong text."""
    text = Path(__file__).with_name("wrong.txt").read_text()
    right, wrong = {}, []
    for schema, rest in re.findall(r"^# (\S+)\n(.*?)(?=^# |\Z)", text, re.MULTILINE | re.DOTALL):
        right[schema], rows = re.fullmatch(r"(.*</[\w-]+>\n)(.*)", rest, re.DOTALL).groups()
        found = re.findall(r"^(\S+): +(.*) => (.*)$", rows, re.MULTILINE)
        assert len(found) == rows.count("\n")
        wrong += [pytest.param(schema, *row[1:], id=f"{schema} {row[0]}") for row in found]
    return right, wrong


RIGHT, WRONG = read_cases()


def accepts(schema, text, tmp_path):
    path = tmp_path / "file.xml"
    path.write_text(text)
    found = validate(schema, path)
    assert found == "" or "fails to validate" in found
    return found == ""


@pytest.mark.parametrize("schema", SCHEMAS)
def test_accepts_its_root_alone(schema, tmp_path):
    assert accepts(schema, RIGHT[schema], tmp_path)
    assert not accepts(schema, RIGHT[schema].replace(schema, "other"), tmp_path)


@pytest.mark.parametrize("schema, right, wrong", WRONG)
def test_refuses(schema, right, wrong, tmp_path):
    """Refuses the schema's valid document with only this change."""
    assert RIGHT[schema].count(right) == 1
    assert not accepts(schema, RIGHT[schema].replace(right, wrong), tmp_path)


@pytest.mark.parametrize("schema", SCHEMAS)
def test_the_xml_form_is_made_from_the_compact_one(schema, tmp_path):
    if not shutil.which("trang"):
        pytest.fail("trang is missing: tools/setup docs installs it")
    made = tmp_path / "made.rng"
    done = run_command("trang", ROOT / f"schema/{schema}.rnc", made)
    assert done.returncode == 0, done.stdout
    assert made.read_text() == (ROOT / f"schema/{schema}.rng").read_text()


NUMBERS = ["", "0", "7", " 7", "+7", "-7", "017", "0x1F", "-0x1f", "0x7fffffff", "2147483647"]
NUMBERS += ["-2147483648", "00002147483647"]
NO_NUMBERS = ["7 ", "7x", "x", "1.5", "0x", "0X1F", "1F", "0x80000000", "2147483648"]
NO_NUMBERS += ["-2147483649", "99999999999"]


@pytest.mark.parametrize("value", NUMBERS + NO_NUMBERS)
def test_numbers_are_those_that_the_daemon_reads(value, tmp_path):
    directory = f'<directory id="a" type="local" path="in" priority="{value}"/>'
    config = f'<tts-config state="run">{directory}</tts-config>'
    assert accepts("tts-config", config, tmp_path) == (value in NUMBERS)


WORDS = ["Dr", "km/h", "Dr!", "é", ".", ",", "?", "x" * 100]
NO_WORDS = ["x" * 101, "Dr,", ".Dr", "a:b", "a\u00a0b"]


@pytest.mark.parametrize("text", WORDS + NO_WORDS)
def test_glossary_words_are_those_that_can_occur(text, tmp_path):
    glossary = f'<glossary><word text="{text}" speech="x"/></glossary>'
    assert accepts("glossary", glossary, tmp_path) == (text in WORDS)

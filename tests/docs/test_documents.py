"""Links and paths in the documents exist, and their examples are valid."""

import re

import pytest
from harness.programs import ROOT
from harness.schemas import validate

DOCUMENTS = sorted(
    path for path in ROOT.rglob("*.md") if not {"build", ".git"} & set(path.relative_to(ROOT).parts)
)


def fenced(path, language):
    """The fenced code blocks of a language."""
    return re.findall(rf"^```{language}\n(.*?)^```$", path.read_text(), re.DOTALL | re.MULTILINE)


def is_valid(schema, text, tmp_path):
    path = tmp_path / "example.xml"
    path.write_text(text)
    assert validate(schema, path) == "", text


@pytest.mark.parametrize("path", DOCUMENTS, ids=lambda path: str(path.relative_to(ROOT)))
def test_links_have_targets(path):
    text = re.sub(r"^```.*?^```$", "", path.read_text(), flags=re.DOTALL | re.MULTILINE)
    for target in re.findall(r"\]\(([^)#\s]+)(?:#[^)]*)?\)", text):
        assert "://" in target or (path.parent / target).exists(), target


@pytest.mark.parametrize("path", DOCUMENTS, ids=lambda path: str(path.relative_to(ROOT)))
def test_named_paths_exist(path):
    """A path in backticks whose first part is one of the project's directories."""
    tops = [entry.name for entry in ROOT.iterdir() if entry.is_dir() and entry.name != "build"]
    pattern = rf"`((?:{'|'.join(map(re.escape, tops))})/[\w./-]*)`"
    for name in re.findall(pattern, path.read_text()):
        assert (ROOT / name).exists(), name


def test_paths_in_the_table_of_the_readme_exist():
    table = (ROOT / "README.md").read_text().partition("## Where things are")[2]
    rows = re.findall(r"^\| (`.*?) \|", table, re.MULTILINE)
    names = re.findall(r"`([^`]+)`", " ".join(rows))
    assert names and all((ROOT / name).exists() for name in names), names


def test_configurations_in_the_readme(tmp_path):
    text = (ROOT / "README.md").read_text()
    blocks = fenced(ROOT / "README.md", "xml") + re.findall(
        r"<<'XML'\n(.*?)^ *XML$", text, re.DOTALL | re.MULTILINE
    )
    assert len(blocks) == text.count('<tts-config state="run">') == 2
    for block in blocks:
        is_valid("tts-config", block, tmp_path)


def test_the_readme_is_short():
    assert len((ROOT / "README.md").read_text().splitlines()) <= 150


@pytest.mark.parametrize(
    "name, schema",
    [
        ("vocastra.conf.5", "tts-config"),
        ("vocastra-glossary.5", "glossary"),
        ("vocastra-status.5", "tts-status"),
    ],
)
def test_xml_in_the_manuals(name, schema, tmp_path):
    examples = (ROOT / "man" / name).read_text().partition("\n.Sh EXAMPLES\n")[2]
    block = re.search(r"^\.Bd -literal\n(.*?)^\.Ed$", examples, re.DOTALL | re.MULTILINE)[1]
    is_valid(schema, block.replace("\\e\n", ""), tmp_path)


def test_every_configuration_and_glossary_fits_its_schema():
    roots = {"tts-config": 0, "glossary": 0}
    for pattern in ("**/*.xml", "**/*.conf"):
        for path in ROOT.glob(pattern):
            if {"build", ".git", "tests", "fuzz"} & set(path.relative_to(ROOT).parts):
                continue  # The file is generated, or wrong on purpose.
            root = re.search(r"<([a-z][\w-]*)", path.read_text(errors="replace"))
            if root and root[1] in roots:
                roots[root[1]] += 1
                assert validate(root[1], path) == ""
    assert min(roots.values()) >= 3


def test_functions_in_the_design_exist():
    text = (ROOT / "doc/design.md").read_text()
    sources = "".join(path.read_text() for path in (ROOT / "src").glob("*.cc"))
    names = set(re.findall(r"\b(?:[A-Z]\w+::)+\w+", text))
    assert len(names) >= 8
    for name in names:
        # The design omits the "Impl" in the name.
        owner, _, function = name.replace("::Impl", "").rpartition("::")
        assert re.search(rf"\b{owner}::(Impl::)?{function}\(", sources), name


def test_the_diagram_shows_every_include():
    """Every arrow of doc/design.md is an #include, and every #include an arrow, except of the
    support library, which every module may use."""
    support = {"charencoding", "crc", "debug", "directory", "format", "safe_strncpycat", "xml"}
    diagram = fenced(ROOT / "doc/design.md", "mermaid")[0]
    arrow = re.compile(r"^\s*(\w+)(?:\[.*?\])? (?:-->|-\.implements\.->) (\w+)", re.MULTILINE)
    drawn = set(arrow.findall(diagram))
    included = set()
    modules = {path.stem for path in (ROOT / "src").glob("*.cc")} | {"fileparser"}
    for path in (ROOT / "src").iterdir():
        for name in re.findall(r'^#include "(\w+)\.h"', path.read_text(), re.MULTILINE):
            included.add((path.stem, name))
    included = {(user, used) for user, used in included if user != used}
    assert drawn - included == set()
    missing = {(user, used) for user, used in included - drawn if used not in support}
    assert missing == set()
    assert set(re.findall(r"\w+", diagram)) >= modules

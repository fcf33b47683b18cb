"""The manuals are well-formed, and agree with the programs' usage texts and the schemas."""

import re
import xml.etree.ElementTree

import pytest
from harness.companions import COMPANIONS
from harness.programs import ROOT, program, run_command

MAN = sorted((ROOT / "man").glob("*.[1-8]"))
RNG = "{http://relaxng.org/ns/structure/1.0}"


def page(name):
    return (ROOT / "man" / name).read_text()


# --- Form -----------------------------------------------------------------------------------------


@pytest.mark.parametrize("path", MAN, ids=lambda path: path.name)
def test_lint(path):
    done = run_command("mandoc", "-T", "lint", "-W", "warning", path)
    assert (done.returncode, done.stdout) == (0, "")


@pytest.mark.parametrize("path", MAN, ids=lambda path: path.name)
def test_title_is_the_file_name(path):
    name, section = re.search(r"^\.Dt (\S+) (\d)$", path.read_text(), re.MULTILINE).groups()
    assert f"{name.lower()}.{section}" == path.name


@pytest.mark.parametrize("path", MAN, ids=lambda path: path.name)
def test_pages_referred_to_exist(path):
    for name, section in re.findall(r"^\.Xr (vocastra\S*) (\d)", path.read_text(), re.MULTILINE):
        assert (ROOT / f"man/{name}.{section}").exists(), f"{name}({section})"


# --- Options --------------------------------------------------------------------------------------


def usage():
    return run_command(*program(), "--help").stdout


def test_options_are_those_of_the_usage_text():
    options = re.findall(r"^  -(\w), --([\w-]+)", usage(), re.MULTILINE)
    assert len(options) == 11
    text = page("vocastra.8")
    assert sorted(re.findall(r"^\.It Fl (\w) , Fl -([\w-]+)", text, re.MULTILINE)) == sorted(
        options
    )
    synopsis = re.findall(r"^\.Op Fl (\w)", text, re.MULTILINE)
    assert sorted(synopsis) == sorted(letter for letter, _ in options)


@pytest.mark.parametrize("option", ["words", "files"])
def test_defaults_are_those_of_the_usage_text(option):
    default = re.search(rf"--{option} .*default = (\d+)\)", usage())[1]
    item = re.search(rf"^\.It Fl \w , Fl -{option} .*\n((?!\.It ).*\n)*", page("vocastra.8"), re.M)
    assert re.findall(r"default is (\d+)", item[0]) == [default]


def test_options_of_the_player_are_those_of_its_usage_text():
    text = run_command(COMPANIONS / "player", "--help").stdout
    options = re.findall(r"^  (?:-\w, )?--([\w-]+)", text, re.MULTILINE)
    items = re.findall(r"^\.It Fl -([\w-]+)", page("vocastra-player.1"), re.MULTILINE)
    assert sorted(items) == sorted(options) and options


# --- Attributes -----------------------------------------------------------------------------------


def attributes_of(schema, element):
    """The attributes that a schema allows in an element."""
    root = xml.etree.ElementTree.parse(ROOT / f"schema/{schema}.rng").getroot()
    rules = {rule.get("name"): rule for rule in root.iter(f"{RNG}define")}
    found, seen = set(), set()

    def collect(node):
        for child in node:
            if child.tag == f"{RNG}attribute":
                found.add(child.get("name"))
            elif child.tag == f"{RNG}ref" and child.get("name") not in seen:
                seen.add(child.get("name"))
                collect(rules[child.get("name")])
            elif child.tag != f"{RNG}element":  # Inner elements have their own attributes.
                collect(child)

    elements = [node for node in root.iter(f"{RNG}element") if node.get("name") == element]
    assert elements, element
    for node in elements:
        collect(node)
    return found


def items(text, start):
    """The attributes in the first list after a line, each with the text in its parentheses."""
    listing = text[text.index(start) :]
    listing = listing[listing.index("\n.Bl ") : listing.index("\n.El")]
    return dict(re.findall(r"^\.It Ic ([\w-]+) Pq (.*)$", listing, re.MULTILINE))


CONFIGURATION = ["tts-config", "directory", "parser", "field"]


def table(element):
    """The rows of vocastra-check's table. For each attribute: "string" or "number", and the
    default, which is None if the attribute is required."""
    code = (ROOT / "programs/check/attributes.cc").read_text()
    row = rf'\{{"{element}", "([\w-]+)", (kInteger)?.*, (nullptr|"\w*"), [^,]+, \w+\}}'
    return {
        name: ("number" if number else "string", None if default == "nullptr" else default[1:-1])
        for name, number, default in re.findall(row, code)
    }


@pytest.mark.parametrize("element", CONFIGURATION)
def test_attributes_of_the_configuration(element):
    rows = table(element)
    documented = items(page("vocastra.conf.5"), f"\n.Ss The element {element}\n")
    assert set(documented) == set(rows) == attributes_of("tts-config", element)
    for name, (kind, default) in rows.items():
        words = {None: "required", "": "default empty"}.get(default, f"default {default}")
        if name == "display-id":
            words = "default: the id"
        assert re.fullmatch(rf"{kind}, {words}; such as Qq \S.*", documented[name]), name


def test_table_of_directories_has_what_the_daemon_reads():
    code = (ROOT / "src/inputdirectory.cc").read_text()
    read = re.findall(r'GetAttribute(String|Integer)\("([\w-]+)", "?(\w*)"?\)', code)
    kinds = {"String": "string", "Integer": "number"}
    rows = table("directory")
    rows["id"] = ("string", "")  # The daemon requires it before it reads the others.
    rows["display-id"] = ("string", "id")
    assert {name: (kinds[kind], default) for kind, name, default in read} == rows


def test_attributes_of_the_glossary():
    documented = items(page("vocastra-glossary.5"), "\n.Ic word\n")
    assert set(documented) == attributes_of("glossary", "word")


@pytest.mark.parametrize("element", ["tts-status", "directory", "message"])
def test_attributes_of_the_status_file(element):
    documented = items(page("vocastra-status.5"), f"\n.Ic {element}\n")
    assert set(documented) == attributes_of("tts-status", element)


# --- Problems -------------------------------------------------------------------------------------


def test_problems_in_the_manual_are_those_of_the_code():
    table = (ROOT / "programs/station/problems.cc").read_text().partition("kKinds[] = {")[2]
    ids = re.findall(r'^ +\{"([a-z-]+)",', table.partition("};")[0], re.MULTILINE)
    ids += ["no-daemon", "stale", "station-stopped"]  # The station cannot tell these.
    documented = re.findall(r"^\.It Cm ([a-z-]+)(?: Ns .*)?$", page("vocastra-status.1"), re.M)
    assert sorted(documented) == sorted(ids) and len(ids) > 20
    for path in (ROOT / "programs/station").glob("*.cc"):
        calls = r'\b(?:Set|Clear|Find|FindPlayer|SetProblem)\(\s*"([a-z-]+)"'
        for name in re.findall(calls, path.read_text()):
            assert name in ids, path
    report = (ROOT / "programs/status/report.cc").read_text()
    for name in re.findall(r'push_back\(\s*\{"([a-z-]+)', report):
        assert name in ids


# --- The example with everything ------------------------------------------------------------------

FULL = (ROOT / "examples/full/config.xml").read_text()
# Attributes whose defaults make a directory useless.
NEEDED = {"type", "path"}
# The daemon uses these without a "parser" attribute.
NAMED_DEFAULTS = {"parser": "text", "encoding": "utf8"}


def explained():
    """For each element of the example, the attributes that its comments explain in one line."""
    found, element = {}, ""
    for comment in re.findall(r"<!--(.*?)-->", FULL, re.DOTALL):
        for line in comment.splitlines():
            if head := re.match(r" *([\w-]+)(?:, of .*)?:$", line):
                element = head[1]
            elif name := re.match(r" +([\w-]+) {2,}\S", line):
                found.setdefault(element, []).append(name[1])
    return {element: sorted(names) for element, names in found.items()}


@pytest.mark.parametrize("element", CONFIGURATION)
def test_the_full_example_explains_every_attribute(element):
    assert explained()[element] == sorted(attributes_of("tts-config", element))


@pytest.mark.parametrize("element", CONFIGURATION)
def test_the_full_example_has_every_attribute_at_its_default(element):
    documented = items(page("vocastra.conf.5"), f"\n.Ss The element {element}\n")
    shown = set()
    for node in xml.etree.ElementTree.fromstring(FULL).iter(element):
        shown |= set(node.attrib)
        for name, value in node.attrib.items():
            default = re.search(r"(required|default.*);", documented[name])[1]
            if default == "default: the id":
                assert value == node.get("id")
            elif default != "required" and name not in NEEDED:
                default = default.replace("default empty", "default ")
                assert NAMED_DEFAULTS.get(name, default[8:]) == value, name
    # The schema refuses an empty path, so these are explained and not set.
    unset = {"bumper-path", "spacer-path", "silence-path", "last-played-path"}
    assert set(documented) - shown == (unset if element == "directory" else set())


# --- Commands of the shell ------------------------------------------------------------------------

# For every call of the shell in the sources: its text or variable, and its command in SECURITY.md.
COMMANDS = {
    "date": "date",
    "rm %s/* > /dev/null 2>&1": "rm PATH/* > /dev/null 2>&1",
    "rm ": "rm LAST-PLAYED/* > /dev/null 2>&1",
    "cp ": "cp MESSAGE LAST-PLAYED/NAME",
    "removal": "rm -rf WATCH",
    "%s %s %s%s": "cp AUDIO OUTPUT/NUMBER_ID.KIND",
    "command": 'TRANSLATOR TEXT AUDIO OPTIONS "NAME" > /dev/null 2>&1',
}


def test_every_shell_command_is_in_security_md():
    sources = "".join(path.read_text() for path in (ROOT / "src").glob("*.cc"))
    assert not re.search(r"\b(system|popen)\(", sources)
    calls = re.findall(r"^ .*\bRun(?:Shell|Command)\(\s*(?!cmd_)(\S.*)$", sources, re.MULTILINE)
    assert {re.search(r'(?<=")[^"]+|\w+(?=\);)', call)[0] for call in calls} == set(COMMANDS)
    rows = re.findall(r"^\| `(.*?)` \|", (ROOT / "SECURITY.md").read_text(), re.MULTILINE)
    # A clip is copied as audio is.
    assert set(rows) == {*COMMANDS.values(), "cp CLIP OUTPUT/NUMBER_ID.KIND"}

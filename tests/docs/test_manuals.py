"""The manuals are well-formed and say what the code does: no option, attribute, default or shell
command is missing in them, and none is made up."""

import re

import pytest

from docs import ROOT, run

MAN = sorted((ROOT / "man").glob("*.[1-8]"))
TEXT = r'"((?:[^"\\]|\\.)*)"'


def source(name):
    return (ROOT / "src" / name).read_text()


def page(name):
    return (ROOT / "man" / name).read_text()


def rendered(name):
    """A page as plain text, all blanks alike."""
    done = run("mandoc", "-T", "ascii", ROOT / "man" / name)
    assert done.returncode == 0, done.stdout
    return re.sub(r"\s+", " ", re.sub(".\b", "", done.stdout))


def part(text, start, end):
    """What stands between two patterns; both must be there."""
    found = re.search(f"{start}(.*?){end}", text, re.DOTALL | re.MULTILINE)
    assert found, (start, end)
    return found[1]


def readme():
    return (ROOT / "README.md").read_text()


# --- Form -----------------------------------------------------------------------------------------


@pytest.mark.parametrize("path", MAN, ids=lambda path: path.name)
def test_lint(path):
    done = run("mandoc", "-T", "lint", "-W", "warning", path)
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


def test_options():
    table = part(source("main.cc"), r"kLongOptions\[\] = \{", r"^\};")
    entries = re.findall(r'\{"([\w-]+)", \w+, \w+, \'(\w)\'', table)
    options = {(letter, name) for name, letter in entries}
    assert len(options) == 11
    manual = re.findall(r"^\.It Fl (\w) , Fl -([\w-]+)", page("vocastra.8"), re.MULTILINE)
    assert sorted(manual) == sorted(options)
    synopsis = re.findall(r"^\.Op Fl (\w)", page("vocastra.8"), re.MULTILINE)
    assert sorted(synopsis) == sorted(letter for letter, _ in options)
    rows = re.findall(r"^\| `-(\w)`, `--([\w-]+)[ `]", readme(), re.MULTILINE)
    assert sorted(rows) == sorted(options)


def test_defaults_of_options():
    words, files = (
        re.search(rf"{name} = (\d+);", source("main.cc"))[1]
        for name in ("kDefaultWords", "kDefaultFiles")
    )
    text = rendered("vocastra.8")
    assert f"The default is {files}. With 0 or less nothing is ever produced, unless there is" in text
    assert f"The default is {words}; with 0 or less it is one word." in text
    assert re.search(rf"^\| `-w`.*\| {words} \|$", readme(), re.MULTILINE)
    assert re.search(rf"^\| `-f`.*\| {files} \|$", readme(), re.MULTILINE)


def test_reserved_options():
    letters = re.findall(r"(\w):?", re.search(r'kShortOptions\[\] = "(.*)";', source("main.cc"))[1])
    used = re.findall(r"^\.It Fl (\w) ", page("vocastra.8"), re.MULTILINE)
    reserved = sorted(set(letters) - set(used))
    assert reserved == ["b", "m"]
    text = rendered("vocastra.8")
    assert "-b and -m are reserved: they take an argument and are then refused." in text


# --- Attributes -----------------------------------------------------------------------------------


def read_by(code):
    """Attributes that code reads: name to default, None for a required one."""
    found = {}
    for kind, name, default in re.findall(
        r'GetAttribute(String|Integer)\(\s*"([\w-]+)"(?:,\s*([^)]+))?\)', code
    ):
        default = default.strip('"') if default else None
        if kind == "Integer" and default is not None:
            int(default)
        found[name] = default
    return found


def kinds_in(code):
    return {
        name: {"String": "string", "Integer": "number"}[kind]
        for kind, name in re.findall(r'GetAttribute(String|Integer)\(\s*"([\w-]+)"', code)
    }


def element_code():
    """Where the attributes of each element of the configuration are read."""
    player, xml = source("vocastra.cc"), source("xmlfileparser.cc")
    parsers = part(player, r"^void Vocastra::Impl::ConfigureParser\(", r"^}")
    field = part(xml, r"^struct Field \{", r"^\};")
    return {
        "tts-config": part(player, r"^void Vocastra::Impl::Configure\(\) \{", r"^}"),
        "directory": part(player, r"^void Vocastra::Impl::ConfigureDirectories\(", r"^}")
        + source("inputdirectory.cc").replace('"id", ""', '"id"'),  # The player requires it.
        "parser": parsers + part(xml, r"^XMLFileParser::Impl::Impl\(", r"^}"),
        "field": field,
    }


def manual_items(name, element):
    """Attributes in the section of a page: name to what stands behind it in parentheses."""
    text = page(name)
    section = part(text, rf"^\.Ss The element {element}$", r"^\.S[sh]")
    return dict(re.findall(r"^\.It Ic ([\w-]+) Pq (.*)$", section, re.MULTILINE))


def schema_attributes(schema, element):
    """Attributes that a schema's compact form allows in an element."""
    text = (ROOT / f"schema/{schema}.rnc").read_text()
    rules = dict(re.findall(r"^([\w-]+) =\n((?:  .*\n|\n(?=  ))+)", text, re.MULTILINE))
    names = {rule for rule, body in rules.items() if f"element {element} " in body}
    assert names, element
    found, todo = set(), list(names)
    while todo:
        body = re.sub(r"#.*|\"[^\"\n]*\"", "", rules[todo.pop()])
        inner = {rule for rule in rules if re.search(rf"(?<![\w-]){rule}(?![\w-])", body)}
        # An element's own rule is not part of the one that holds it.
        inner = {rule for rule in inner if "element " not in rules[rule] and rule not in names}
        found.update(re.findall(r"attribute ([\w-]+)", body))
        names |= inner
        todo += inner
    return found


@pytest.mark.parametrize("element", ["tts-config", "directory", "parser", "field"])
def test_configuration_attributes(element):
    code = element_code()[element]
    read, kinds = read_by(code), kinds_in(code)
    items = manual_items("vocastra.conf.5", element)
    assert sorted(items) == sorted(read)
    for name, default in read.items():
        default = {None: "required", "id": "default: the id", "": "default empty"}.get(
            default, f"default {default}"
        )
        assert re.fullmatch(rf"{kinds[name]}, {default}; such as Qq \S.*", items[name]), name
    assert schema_attributes("tts-config", element) == set(read)


def test_attributes_in_the_readme():
    table = part(readme(), r"^\| attribute of", r"^\n")
    rows = re.findall(r"^\| (`.*?) \|", table, re.MULTILINE)
    names = {name for row in rows for name in re.findall(r"`([\w-]+)`", row)}
    assert names == set(read_by(element_code()["directory"]))


def test_glossary_attributes():
    read = read_by(source("glossary.cc"))
    items = dict(re.findall(r"^\.It Ic (\w+) Pq (.*)$", page("vocastra-glossary.5"), re.MULTILINE))
    assert sorted(items) == sorted(read) and set(read.values()) == {None}
    assert schema_attributes("glossary", "word") == set(read)


@pytest.mark.parametrize("element", ["tts-status", "directory", "message"])
def test_status_attributes(element):
    code = source("vocastra.cc") + source("inputdirectory.cc")
    made = rf'XMLElement (\w+)\("{element}"\)|(\w+) = .*\bXMLElement>?\("{element}"\)'
    variable = next(filter(None, re.search(made, code).groups()))
    written = set(re.findall(rf'\b{variable}(?:\.|->)SetAttribute\w+\("([\w-]+)"', code))
    assert written
    items = page("vocastra-status.5")
    start = items.index(f"\n.Ic {element}\n")
    listing = part(items[start:], r"^\.Bl ", r"^\.El")
    listed = re.findall(r"^\.It Ic ([\w-]+) Pq", listing, re.MULTILINE)
    assert listed == sorted(written)
    assert schema_attributes("tts-status", element) == written


# --- What is passed on ----------------------------------------------------------------------------

# Every command line in the sources, and how vocastra(8) writes it.
COMMANDS = {
    ("format.cc", ""): None,  # RunCommand passes on what it is given.
    ("main.cc", "date"): "`date'",
    ("inputdirectory.cc", "rm %s/* > /dev/null 2>&1"): "`rm PATH/* > /dev/null 2>&1'",
    ("inputdirectory.cc", "rm "): "`rm LAST-PLAYED/* > /dev/null 2>&1'",
    ("inputdirectory.cc", "cp "): "`cp MESSAGE LAST-PLAYED/NAME'",
    ("inputdirectory.cc", "rm -rf %s"): "`rm -rf WATCH'",
    ("directory.cc", "%s %s %s%s"): "`cp AUDIO OUTPUT/NUMBER_ID.KIND'",
    ("vocastra.cc", ""): '`TRANSLATOR TEXT AUDIO OPTIONS "NAME" > /dev/null 2>&1\'',
}


def test_every_shell_command_is_told():
    calls = set()
    sources = {path.name: path.read_text() for path in (ROOT / "src").glob("*.cc")}
    for name, code in sources.items():
        for call in re.findall(r"^.*\bRun(?:Shell|Command)\((.*)$", code, re.MULTILINE):
            if call.startswith("const std::string& cmd_"):
                continue  # The definition.
            text = re.search(TEXT, call)
            calls.add((name, text[1] if text else ""))
    assert calls == set(COMMANDS)
    text = rendered("vocastra.8")
    security = (ROOT / "SECURITY.md").read_text()
    for told in filter(None, COMMANDS.values()):
        assert told in text
        assert f"| {told.replace(chr(39), '`')} |" in security
    translator = r'"%s %s %s %s \"%s\" > /dev/null 2>&1"'
    assert translator in source("vocastra.cc")
    assert not re.search(r"\b(system|popen)\(", "".join(sources.values()))


def test_limits():
    code = "".join(path.read_text() for path in (ROOT / "src").glob("*.cc"))
    text = rendered("vocastra-messages.7")
    for constant, told in (
        ("kMaxFileBytes = 65536;", "a text file 65,536 bytes"),
        ("kMaxTextBytes = 65536;", "what is extracted of an XML message 65,536 bytes"),
        ("kMaxMessageChars = 65536;", "a message 65,536 characters"),
        ("kMaxWordChars = 100;", "a word 100 characters"),
    ):
        assert constant in code
        assert told in text


# --- Companions -----------------------------------------------------------------------------------


def test_options_of_the_player():
    head = part((ROOT / "companions/player").read_text(), r"^#!/bin/sh\n", r"^$")
    options = re.findall(r"^#   (--[\w-]+)", head, re.MULTILINE)
    items = re.findall(r"^\.It Fl (-[\w-]+)", page("vocastra-player.1"), re.MULTILINE)
    assert sorted("-" + item for item in items) == sorted(options) and options


def test_arguments_of_the_translators():
    script = (ROOT / "companions/translators/espeak-ng").read_text()
    arguments = re.findall(r"^#   (\w+)=\w+ +.*$", script, re.MULTILINE)
    items = re.findall(r"^\.It Cm (\w+) Ns =", page("vocastra-translators.1"), re.MULTILINE)
    assert items == arguments and arguments
    text = rendered("vocastra-translators.1")
    defaults = re.search(r"^voice=.*$", script, re.MULTILINE)[0]
    for name, default in re.findall(r"(\w+)=(\w+)", defaults):
        assert re.search(rf" {name}=\w+ [^=]*The default is `?{default}\b", text), name


@pytest.mark.parametrize("kind", ["cifs", "ftp"])
def test_arguments_of_the_helpers(kind):
    script = (ROOT / f"companions/helpers/{kind}").read_text()
    order = re.search(rf"^# usage: {kind} (.*)$", script, re.MULTILINE)[1].lower()
    assert f"\n.Ar {order}\n" in page("vocastra-helpers.1")
    assert f"\n.D1 Ar {kind}-helper {order}\n" in page("vocastra-companions.7")


def test_every_argument_of_the_helpers_is_explained():
    usage = re.findall(r"^\.Ar (path [a-z].*)$", page("vocastra-helpers.1"), re.MULTILINE)
    items = re.findall(r"^\.It Ar ([\w-]+)$", page("vocastra-helpers.1"), re.MULTILINE)
    assert sorted(items) == sorted(set(" ".join(usage).split()))


def test_names_of_output_files():
    """The sample in vocastra-companions(7) is what OutputFileName makes."""
    sample = re.findall(r"^\d+_lobby\.(\w+\.\w+)", page("vocastra-companions.7"), re.MULTILINE)
    assert sample == ["warn_live_first.wav"] * 3 + ["text_live_first.raw", "text_live_cont.raw"]
    code = part(source("vocastra.cc"), r"^std::string Vocastra::Impl::OutputFileName", r"^}")
    words = set(re.findall(r'"(\w+?)_?"', code)) | set(re.findall(r'"\.(\w+)"', code))
    assert words == {"warn", "text", "pre", "live", "first", "cont", "wav", "raw"}
    text = rendered("vocastra-companions.7")
    for word in words:
        assert f"`{word}'" in text

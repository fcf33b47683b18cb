"""The daemon with older and newer versions of the expat library than it was built with.

Newer versions defer a token that is incomplete at the end of a feed, and have a function that
switches this off. The same program reads whole documents with and without that function.
"""

import re
import subprocess
from pathlib import Path

import pytest
from harness.daemon import PAUSE
from harness.files import element
from harness.programs import program

FUNCTION = "XML_SetReparseDeferralEnabled"

# The function's name in a copy of the library, where old_expat.c finds it. It has the same length
# and hash: "S" plus one and "e" less 33, as the hash multiplies by 33 with every character.
RENAMED = "XML_TDtReparseDeferralEnabled"

# Bytes of a comment: it fits in one feed, or needs some or many.
SIZES = (100, 1000, 1023, 1500, 2000, 2500, 3000, 5000, 20000, 100000)


def library_of(make_daemon):
    """The file that the daemon has as its expat."""
    daemon = make_daemon()
    daemon.configure(daemon.directory("a"))
    daemon.start()
    maps = Path(f"/proc/{daemon.process.pid}/maps").read_text()
    daemon.stop()
    found = set(re.findall(r" (/\S*/libexpat\.so\S*)$", maps, re.MULTILINE))
    assert len(found) == 1, found
    return Path(found.pop())


def copy_renamed(library, directory):
    """Writes a copy of the library in which the function, if there is one, has the name RENAMED."""
    directory.mkdir()
    data = library.read_bytes().replace(FUNCTION.encode() + b"\0", RENAMED.encode() + b"\0")
    (directory / "libexpat.so.1").write_bytes(data)


def preloaded(name):
    return Path(program()[-1]).parent / f"tests/{name}.so"


@pytest.fixture(params=["installed", "without the function", "deferring to the last"])
def expat(request, make_daemon, tmp_path):
    """The environment of a daemon with an expat of that kind."""
    if request.param == "installed":
        return {}
    if request.param == "deferring to the last":
        return {"LD_PRELOAD": preloaded("deferring_expat")}
    copy_renamed(library_of(make_daemon), tmp_path / "expat")
    return {"LD_LIBRARY_PATH": tmp_path / "expat", "LD_PRELOAD": preloaded("old_expat")}


@pytest.fixture
def station(make_daemon, expat):
    """A daemon with that expat, and directories "a" and "b"."""
    daemon = make_daemon(glossary=True)
    daemon.write_glossary(("North", "the north"))
    daemon.configure(daemon.directory("a"), daemon.directory("b"))
    daemon.start(env={name: str(value) for name, value in expat.items()})
    if "LD_LIBRARY_PATH" in expat:
        maps = Path(f"/proc/{daemon.process.pid}/maps").read_text()
        assert str(expat["LD_LIBRARY_PATH"]) in maps
    return daemon


def directories(daemon):
    root = daemon.wait_status()
    return [child.get("id") for child in root.findall("directory")]


@pytest.mark.core
def test_the_program_starts_with_older_libraries():
    symbols = subprocess.run(
        ["readelf", "-W", "--dyn-syms", program()[-1]],
        check=True,
        stdout=subprocess.PIPE,
        text=True,
    ).stdout
    assert "XML_Parse" in symbols
    assert FUNCTION not in symbols


@pytest.mark.core
def test_a_configuration_is_complete_after_a_long_comment(station):
    for number, size in enumerate(SIZES):
        ids = [f"a{number}", f"b{number}"]
        station.reconfigure(
            *[station.directory(identity) for identity in ids],
            f"<!--{'x' * size}-->",
            station.directory(f"c{number}"),
        )
        assert directories(station) == [*ids, f"c{number}"], size
    assert "symbol lookup error" not in station.log_text()
    station.stop()


def test_a_message_and_a_glossary_are_complete_after_long_tokens(station):
    station.configure(
        station.directory("a", parser="alert", encoding="utf8"),
        '<parser id="alert" type="xml">'
        '<field tag="text" attr="" attr_value="" parent=""/></parser>',
    )
    station.wait_passes(3)
    expected = []
    for size in SIZES[3:8]:
        station.glossary.write_text(
            element(
                "glossary",
                [f"<!--{'x' * size}-->", element("word", text="North", speech=f"north {size}")],
            )
        )
        station.wait_passes(2)
        station.drop("a", f"m{size}", f"<alert><!--{'x' * size}--><text>to North</text></alert>")
        expected.append((f"m{size}", f"{PAUSE}to north {size} "))
        station.wait_spoken(*expected)
    station.stop()

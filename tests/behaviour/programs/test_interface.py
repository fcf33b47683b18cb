"""Common properties of all tools: help, version, manual pages, completion, installation."""

import re
import subprocess

import pytest
from harness.programs import ROOT, environment, run, tool
from harness.wait import LIMIT

TOOLS = [
    "vocastra-apply",
    "vocastra-check",
    "vocastra-desk",
    "vocastra-inbox",
    "vocastra-say",
    "vocastra-station",
    "vocastra-status",
]
COMPLETION = ROOT / "programs/completions/vocastra"


def long_options(text):
    return set(re.findall(r"--[a-z][a-z-]+", text))


@pytest.mark.parametrize("name", TOOLS)
def test_help(name):
    status, out, err = run(name, "--help")
    assert (status, err) == (0, "")
    assert out.startswith(f"Usage: {name} ")
    assert run(name, "-h") == (status, out, err)


@pytest.mark.parametrize("name", TOOLS)
def test_version(name):
    version = re.search(r"project\(vocastra VERSION (\S+)", (ROOT / "CMakeLists.txt").read_text())[
        1
    ]
    assert run(name, "--version") == (0, f"{name} {version}\n", "")
    assert run(name, "-V") == (0, f"{name} {version}\n", "")


@pytest.mark.parametrize("name", TOOLS)
def test_unknown_option(name):
    status, out, err = run(name, "--no-such-option")
    assert (status, out) == (3 if name == "vocastra-status" else 2, "")
    assert "no-such-option" in err


@pytest.mark.parametrize("name", TOOLS)
def test_manual_page_has_every_option(name):
    (path,) = (ROOT / "man").glob(f"{name}.[18]")
    page = path.read_text()
    options = long_options(run(name, "--help")[1])
    documented = {f"--{word}" for word in re.findall(r"Fl -([a-z-]+)", page.replace("\\-", "-"))}
    assert options <= documented


def test_check_takes_every_option_of_the_daemon(tmp_path):
    (tmp_path / "config.xml").write_text('<tts-config state="run"/>')
    usage = run("vocastra", "-h")[1]
    options = re.findall(r"^  (-\w), (--[a-z-]+) <", usage, re.MULTILINE)
    assert len(options) == 10
    for option in sum(options, ()):
        _, _, err = run("vocastra-check", tmp_path / "config.xml", option, tmp_path / "config.xml")
        assert "option '" not in err and "option requires" not in err, err


# Completion.


def complete(*words):
    """The words that bash offers for the last word."""
    script = (
        'source "$1"; shift; COMP_WORDS=("$@"); COMP_CWORD=$(($# - 1)); '
        '_vocastra "$1" "${@: -1}" "${@: -2:1}"; printf "%s\\n" "${COMPREPLY[@]}"'
    )
    done = subprocess.run(
        ["bash", "-c", script, "bash", COMPLETION, *map(str, words)],
        env=environment(),
        capture_output=True,
        timeout=LIMIT,
        check=True,
        text=True,
    )
    assert done.stderr == ""
    return done.stdout.split()


@pytest.mark.parametrize("name", ["vocastra", *TOOLS])
def test_completion_offers_every_option(name):
    text = run(name, "-h")[1]
    expected = long_options(text) - {"--"}
    if name == "vocastra-check":
        expected |= long_options(run("vocastra", "-h")[1])
    assert set(complete(name, "--")) == expected
    # The program accepts each of them.
    if name == "vocastra":
        assert complete(name, "--glo") == ["--glossary"]


def test_completion_of_values(tmp_path):
    (tmp_path / "dir").mkdir()
    (tmp_path / "file").touch()
    both = [f"{tmp_path}/dir", f"{tmp_path}/file"]
    assert sorted(complete("vocastra", "-c", f"{tmp_path}/")) == both
    assert complete("vocastra", "--output", f"{tmp_path}/") == both[:1]
    assert complete("/usr/sbin/vocastra", "--output", "=", f"{tmp_path}/") == both[:1]
    assert complete("vocastra", "-w", "") == []
    assert sorted(complete("vocastra-check", f"{tmp_path}/")) == both
    assert complete("vocastra-check", "-o", f"{tmp_path}/") == both[:1]
    assert sorted(complete("vocastra-status", f"{tmp_path}/")) == both
    assert complete("vocastra-say", "-e", "utf") == ["utf8", "utf16"]


@pytest.mark.parametrize("option", [["-c"], ["--config"], ["--config", "="]])
def test_completion_of_directory_ids(tmp_path, option):
    config = tmp_path / "config.xml"
    config.write_text(
        '<tts-config state="run">\n<parser id="no" type="xml"/>\n'
        "<directory type='local' id='alarms'/>"
        "<directory\n  display-id='no' id=\"announcements\"/>\n"
        "</tts-config>\n"
    )
    assert complete("vocastra-say", *option, config, "-d", "") == ["alarms", "announcements"]
    assert complete("vocastra-say", *option, config, "-d", "an") == ["announcements"]
    assert complete("vocastra-say", *option, tmp_path / "none", "-d", "") == []


def test_completion_is_registered():
    script = f'source "{COMPLETION}"; complete -p'
    done = subprocess.run(["bash", "-c", script], capture_output=True, check=True, text=True)
    assert sorted(done.stdout.splitlines()) == [
        f"complete -F _vocastra {name}" for name in ["vocastra", *TOOLS]
    ]


# Installation.


def test_installed_files(tmp_path):
    subprocess.run(
        ["cmake", "--install", tool("vocastra").parent, "--prefix", tmp_path],
        stdout=subprocess.DEVNULL,
        timeout=LIMIT,
        check=True,
    )
    for name in TOOLS:
        (path,) = tmp_path.glob(f"*bin/{name}")
        done = subprocess.run([path, "-V"], capture_output=True, check=True)
        assert done.stdout.startswith(name.encode())
    completions = tmp_path / "share/bash-completion/completions"
    for name in ["vocastra", *TOOLS]:
        assert (completions / name).read_bytes() == COMPLETION.read_bytes()

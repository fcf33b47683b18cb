"""Checks of the package without building it: units, versions, installed files."""

import json
import re
import shutil
import signal
import wave
from pathlib import Path

import pytest
from harness.programs import ROOT, program, run_command, start
from harness.sound import RATE, samples
from harness.wait import LIMIT, wait_until

BUILD = Path(program()[-1]).parent
# The units as CMake has configured them.
UNITS = sorted((BUILD / "units").iterdir())


def run(*command):
    """Exit status and all output."""
    done = run_command(*command)
    return done.returncode, done.stdout


@pytest.fixture(scope="module")
def staged(tmp_path_factory):
    """The files that CMake and debian/*.install install."""
    system = tmp_path_factory.mktemp("system")
    status, output = run("cmake", "--install", BUILD, "--prefix", system / "usr")
    assert status == 0, output
    shutil.copytree(ROOT / "debian/conf", system / "etc/vocastra")
    shutil.copytree(ROOT / "debian/default", system / "etc/default")
    shutil.copytree(ROOT / "debian/desk", system / "etc/vocastra-desk")
    return system


@pytest.fixture(params=UNITS, ids=lambda path: path.name)
def unit(request, staged, tmp_path):
    """A unit, or an instance of a template, that runs the staged programs."""
    path = tmp_path / request.param.name.replace("@.", "@hall.")
    path.write_text(re.sub("/usr/(s?bin|libexec)/", rf"{staged}\g<0>", request.param.read_text()))
    return path


def test_there_are_units():
    names = ["vocastra", "vocastra-desk", "vocastra-inbox@", "vocastra-player", "vocastra-player@"]
    assert sorted(path.name for path in UNITS) == sorted(f"{name}.service" for name in names)


def test_units_have_no_errors(unit):
    assert run("systemd-analyze", "verify", "--man=no", unit) == (0, "")


def test_exposure_of_units_is_at_most_1_5(unit):
    status, output = run("systemd-analyze", "security", "--offline=yes", "--threshold=15", unit)
    assert status == 0, output


@pytest.mark.parametrize("path", UNITS, ids=lambda path: path.name)
def test_units_name_files_that_are_installed(path, staged):
    text = path.read_text()
    paths = set(re.findall(r"(?<![\w/])/(?:usr|etc)/[\w./-]+(?![\w./%-])", text)) - {
        "/etc/vocastra",
        "/etc/default",
    }
    assert paths
    assert [path for path in sorted(paths) if not (staged / path[1:]).is_file()] == []


def test_readme_installs_files_where_the_manuals_look(staged):
    """Without a package, the commands of the README install below the package's prefix."""
    presets = json.loads((ROOT / "CMakePresets.json").read_text())["configurePresets"]
    assert [preset["installDir"] for preset in presets if "installDir" in preset] == ["/usr"]
    texts = [path.read_text() for path in [ROOT / "README.md", *(ROOT / "man").iterdir()]]
    named = re.findall(r"/(?:usr|etc)/[\w./-]*vocastra[\w./-]*", "\n".join(texts))
    # People make these files.
    made = {"/etc/default/vocastra-inbox-scans", "/etc/vocastra-desk/users"}
    paths = sorted({path.rstrip(".") for path in named} - made)
    assert "/usr/sbin/vocastra" in paths and "/usr/libexec/vocastra/player" in paths
    assert [path for path in paths if not (staged / path[1:]).exists()] == []


def test_files_of_the_running_service_have_the_names_that_were_configured():
    """In manuals, documents and the package's own files."""
    names = re.findall(r"RUN_DIR}/([\w.]+)", (ROOT / "cmake/paths.cmake").read_text())
    places = [ROOT / "README.md", ROOT / "debian", ROOT / "man", ROOT / "doc", ROOT / "examples"]
    files = [file for place in places for file in (place, *place.rglob("*")) if file.is_file()]
    text = "\n".join(file.read_text(errors="replace") for file in files)
    used = set(re.findall(r"/run/vocastra/([\w.]*\w)", text))
    assert "out" in used and used <= set(names)


def test_tools_read_the_files_that_the_manuals_name(staged):
    status, output = run(staged / "usr/bin/vocastra-say", "--help")
    assert status == 0
    config, run_directory = re.findall(r"(/\S+)\)", output)
    assert (config, run_directory) == ("/etc/vocastra/vocastra.conf", "/run/vocastra")
    (published,) = re.findall(r"default: (\S+) in the run directory", output)
    manual = (ROOT / "man/vocastra-say.1").read_text()
    for path in (config, f"{run_directory}/{published}"):
        assert f".It Pa {path}\n" in manual


@pytest.mark.parametrize("name, seconds", [("gong", 2), ("silence-half", 0.5), ("silence-one", 1)])
def test_clips_have_the_format_of_speech(name, seconds, staged):
    with wave.open(str(staged / f"usr/share/vocastra/clips/{name}.wav")) as clip:
        form = (clip.getnchannels(), clip.getsampwidth(), clip.getframerate())
        sound = samples(clip.readframes(clip.getnframes()))
    assert form == (1, 2, RATE) and len(sound) == seconds * RATE
    loudest = max(map(abs, sound))
    assert loudest > 10000 if name == "gong" else loudest == 0
    assert max(abs(sound[0]), abs(sound[-1])) < 100  # Without a click.


def test_program_notes_and_package_have_one_version():
    program = re.search(r"project\(vocastra VERSION (\S+)", (ROOT / "CMakeLists.txt").read_text())
    notes = re.search(r"^## (\S+)", (ROOT / "CHANGES.md").read_text(), re.MULTILINE)
    package = re.match(r"vocastra \((\S+)\)", (ROOT / "debian/changelog").read_text())
    assert program[1] == notes[1] == package[1]


def test_nobody_else_can_lock_what_the_daemon_locks():
    rows = re.findall(
        r"^d (\S+) +(\d{4}) ", (ROOT / "debian/vocastra.tmpfiles").read_text(), re.MULTILINE
    )
    modes = {
        path: int(mode, 8) & 0o7
        for path, mode in rows
        if path.count("/") > 3 or path.endswith("/out")
    }
    assert set(modes.values()) == {0} and len(modes) == 3


def test_directories_that_the_station_creates_get_the_group_of_the_packaged_ones():
    text = (ROOT / "debian/vocastra.tmpfiles").read_text()
    rows = re.findall(r"^d (/var/spool/\S+) +(\d+) +(\S+) (\S+)$", text, re.MULTILINE)
    assert len(rows) == 3
    assert {(int(mode, 8) & 0o2700, *owners) for _, mode, *owners in rows} == {
        (0o2700, "vocastra", "vocastra-say")
    }


@pytest.mark.parametrize("helper", ["ftp", "cifs"])
def test_installed_helpers_find_their_libraries(helper, staged, tmp_path):
    """A helper that starts reports a wrong source."""
    script = staged / "usr/libexec/vocastra/helpers" / helper
    arguments = {
        "ftp": ["a b", "", "", "", tmp_path / "watch", "0", "5", "passive"],
        "cifs": ["a b", "", "", "", tmp_path / "watch", "", "0"],
    }[helper]
    status, output = run(script, *arguments)
    assert status == 1
    assert output.startswith(f"{helper} helper: ")
    assert output.count("\n") == 1


def test_daemon_runs_with_the_configuration(staged, tmp_path):
    config = tmp_path / "vocastra.conf"
    spool = tmp_path / "spool"
    text = (staged / "etc/vocastra/vocastra.conf").read_text()
    config.write_text(text.replace("/var/spool/vocastra", str(spool)))
    for name in ("announcements", "alarms", "out"):
        (spool / name).mkdir(parents=True)
    log = tmp_path / "log"
    glossary = staged / "etc/vocastra/glossary.xml"
    with open(log, "wb") as stream:
        arguments = ["-c", config, "-g", glossary, "-o", spool / "out"]
        daemon = start("vocastra", *arguments, stderr=stream)
    try:
        wait_until(lambda: 'Now in "run" state' in log.read_text(), log.read_text)
    finally:
        daemon.send_signal(signal.SIGINT)
        assert daemon.wait(LIMIT) == 1
    lines = [
        line for line in log.read_text().splitlines() if not line.startswith("Could not execute")
    ]
    directories = ["alarms", "announcements"]
    created = []
    for name in directories:
        created += [
            f"Removing contents of directory {spool}/{name}",
            f"Created new input directory {name}",
        ]
    assert lines[: 1 + len(created)] == [f"Processing configuration {config}", *created]
    assert lines[-1] == 'Now in "run" state'
    for name in directories:
        using = f'Directory "{name}" using parser 0x[0-9a-f]+ text-utf8'
        assert any(re.fullmatch(using, line) for line in lines)

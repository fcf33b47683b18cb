"""vocastra-inbox: files of producers that cannot rename become messages."""

import signal

import pytest
from harness.files import element, publish
from harness.programs import finish, run, start
from harness.wait import wait_until


@pytest.fixture
def inbox(tmp_path, request):
    """Starts an inbox for directory "a"; its path is tmp_path/box."""
    (tmp_path / "box").mkdir()

    def start_inbox(config, *arguments):
        arguments = ("-c", config, "--settle", "0", *arguments, tmp_path / "box", "a")
        process = start("vocastra-inbox", *arguments)
        request.addfinalizer(process.kill)
        return process

    return start_inbox


def visible(path):
    return sorted(file.name for file in path.iterdir() if not file.name.startswith("."))


def test_message_is_spoken(tmp_path, make_daemon, inbox):
    daemon = make_daemon()
    daemon.configure(daemon.directory("a"))
    (tmp_path / "box/a train;.txt").write_text("The train")
    process = inbox(daemon.config, "--run", daemon.status_path.parent)
    assert process.stderr.readline().startswith("vocastra-inbox: files wait: ")
    assert visible(tmp_path / "box") == ["a train;.txt"]
    daemon.start()
    daemon.wait_translator_runs(1)
    assert [text.rpartition("\\")[2].strip() for _, text in daemon.spoken()] == ["The train"]
    assert visible(tmp_path / "box") == []
    daemon.stop()
    process.send_signal(signal.SIGTERM)
    assert finish(process) == (0, "", "vocastra-inbox: it works again\n")


def test_refusal_is_one_line(tmp_path, inbox):
    (tmp_path / "in").mkdir()
    directory = element("directory", id="a", type="local", path=tmp_path / "in")
    publish(tmp_path / "config", element("tts-config", [directory], state="run"))
    (tmp_path / "box/a\nb").write_text("")
    process = inbox(tmp_path / "config")
    wait_until(lambda: (tmp_path / "box/refused/a\nb").exists(), "the refusal")
    process.send_signal(signal.SIGINT)
    expected = "vocastra-inbox: a?b: refused: it is empty; it is now refused/a?b\n"
    assert finish(process) == (0, "", expected)
    assert visible(tmp_path / "in") == []


@pytest.mark.parametrize(
    "arguments, why",
    [
        (["box"], "name the inbox and the id of a directory (see --help)"),
        (["--settle", "-1", "box", "a"], '--settle "-1": not a number of seconds'),
    ],
)
def test_wrong_use(arguments, why):
    assert run("vocastra-inbox", *arguments) == (2, "", f"vocastra-inbox: {why}\n")

"""The translator: how it is called, how it may fail, and a stop while it runs."""

import signal

import pytest
from harness.daemon import PAUSE
from harness.programs import HERE, descriptors


def command(daemon, run, options=""):
    """The shell command of that call of the translator."""
    return (
        f"{daemon.translator} {run.text_path} {run.audio_path} {options} "
        f'"{run.message}" > /dev/null 2>&1'
    )


@pytest.mark.core
def test_failing_translator_loses_only_its_words(make_daemon):
    daemon = make_daemon(words=1)
    clip = daemon.root / "clip.wav"
    clip.write_text("clip")
    daemon.configure(daemon.directory("a", bumper_path=clip, spacer_path=clip, silence_path=clip))
    daemon.start()
    count = len(daemon.log())
    daemon.behave("fake:exit=1")
    daemon.hold()
    daemon.drop("a", "m.txt", "one two three four five")
    daemon.wait_translator_runs(1)
    daemon.release()
    failed = f'Could not execute "{command(daemon, daemon.translator_runs()[0])}"'
    daemon.wait_log(failed)
    daemon.behave()
    # The lost snippet was the one with the clips and the pause.
    assert daemon.wait_outputs(1)[0].endswith("_a.text_live_cont.raw")
    daemon.stop()
    spoken = daemon.spoken()
    assert spoken == [("m.txt", PAUSE + "one two "), ("m.txt", "three four "), ("m.txt", "five ")]
    engine = [line for line in daemon.log()[count:] if line.startswith(("ca", "co", "do", "Could"))]
    assert engine[:3] == ["calling engine", "done calling engine", failed]
    # A failed call uses no number.
    assert daemon.outputs()[0].startswith("0_")


def test_end_by_a_signal_counts_as_done(make_daemon):
    daemon = make_daemon(words=1)
    daemon.configure(daemon.directory("a"))
    daemon.start()
    daemon.behave("fake:signal=KILL")
    daemon.drop("a", "m.txt", "one two three")
    daemon.wait_outputs(2)
    # The translator wrote no audio, so the daemon delivers empty files.
    assert daemon.take() == [("0_a.text_live_first.raw", b""), ("1_a.text_live_cont.raw", b"")]
    daemon.stop()
    assert f'Could not execute "{daemon.translator}' not in daemon.log_text()


def test_translator_that_writes_nothing_delivers_the_old_audio(make_daemon):
    daemon = make_daemon()
    daemon.configure(daemon.directory("a"))
    daemon.start()
    daemon.behave("fake:nothing")
    daemon.drop("a", "m.txt", "one")
    daemon.wait_outputs(1)
    assert daemon.take() == [("0_a.text_live_first.raw", b"")]
    daemon.behave()
    daemon.drop("a", "n.txt", "two")
    daemon.wait_outputs(1)
    audio = daemon.translator_runs()[1].audio
    assert daemon.take() == [("1_a.text_live_first.raw", audio)]
    daemon.behave("fake:nothing")
    daemon.drop("a", "o.txt", "three")
    daemon.wait_outputs(1)
    assert daemon.take() == [("2_a.text_live_first.raw", audio)]
    daemon.stop()


@pytest.mark.core
def test_translator_gets_none_of_the_daemons_descriptors(make_daemon):
    daemon = make_daemon(glossary=True)
    daemon.write_glossary()
    remover = daemon.bin / "rm"
    remover.write_text(
        f"#!/bin/sh\n(ls -l /proc/$$/fd >'{daemon.root}/rm.descriptors')\nexec /bin/rm \"$@\"\n"
    )
    remover.chmod(0o755)
    daemon.configure(daemon.directory("a"))
    daemon.start()
    daemon.behave("fake:descriptors")
    daemon.drop("a", "m.txt", "one")
    daemon.wait_outputs(1)
    daemon.stop()
    for found, script in (
        (descriptors(daemon.records / "1.descriptors"), HERE / "fake_translator"),
        (descriptors(daemon.root / "rm.descriptors"), remover),
    ):
        # A shell has its script open under a high number.
        own = {number for number, target in found.items() if target == str(script)}
        assert {number: found[number] for number in found.keys() - own} == {
            0: "/dev/null",
            1: "/dev/null",
            2: "/dev/null",
        }


@pytest.mark.core
def test_interrupt_while_the_translator_runs(make_daemon):
    daemon = make_daemon(words=1)
    daemon.configure(daemon.directory("a"))
    daemon.start()
    daemon.hold()
    daemon.drop("a", "m.txt", "one two three four five")
    daemon.wait_translator_runs(1)
    count = len(daemon.log())
    daemon.process.send_signal(signal.SIGINT)
    daemon.process.send_signal(signal.SIGINT)
    assert daemon.process.poll() is None
    daemon.release()
    # The interrupt takes effect at the end of the pass, so the whole message is made.
    daemon.wait_exit(1)
    assert daemon.log()[count:] == [
        "done calling engine",
        "copying 0_a.text_live_first.raw",
        "calling engine",
        "done calling engine",
        "copying 1_a.text_live_cont.raw",
        "calling engine",
        "done calling engine",
        "copying 2_a.text_live_cont.raw",
    ]
    runs = daemon.translator_runs()
    assert [data for _, data in daemon.take()] == [run.audio for run in runs]
    assert [path for path in daemon.temporaries() if path.exists()] == []


def test_interrupt_while_other_commands_run(make_daemon):
    daemon = make_daemon()
    daemon.configure(daemon.directory("a"))
    # The daemon's first command, which empties the input directory.
    remover = daemon.bin / "rm"
    remover.write_text(
        f"#!/bin/sh\n: >'{daemon.root}/removing'\n"
        f"while [ ! -e '{daemon.root}/go' ]; do sleep 0.05; done\n"
    )
    remover.chmod(0o755)
    daemon.start(wait=False)
    daemon.wait(lambda: (daemon.root / "removing").exists(), "the command")
    daemon.process.send_signal(signal.SIGINT)
    (daemon.root / "go").touch()
    daemon.wait_exit(1)
    # The daemon has finished the pass.
    assert daemon.timestamp() == 0
    assert daemon.log()[-1] == 'Now in "run" state'

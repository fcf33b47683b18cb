"""The glossary: spoken forms of words, taken anew in every pass."""

import pytest
from harness.daemon import PAUSE
from harness.files import element, publish

pytestmark = pytest.mark.core


@pytest.fixture
def daemon(make_daemon):
    daemon = make_daemon(words=100, glossary=True)
    daemon.configure(daemon.directory("a"))
    return daemon


def test_words_are_spoken_as_the_glossary_says(daemon):
    daemon.write_glossary(
        ("Dr", "doctor"),
        ("Dr", "never this one"),
        ("St", "saint of  all"),
        ("a.b", "letters"),
        (".", "point"),
        ("nothing", ""),
        ("caf\u00e9", "coffee & cake"),
        ("Mr!", "mister"),
    )
    daemon.start()
    daemon.drop("a", "m.txt", "Dr. dr Dr, St Dr! nothing . caf\u00e9. Mr! (Dr) end")
    daemon.wait_spoken(
        (
            "m.txt",
            PAUSE + "doctor. dr doctor, saint of  all Dr!  point coffee & cake. mister (Dr) end ",
        )
    )
    daemon.wait_outputs(1)
    daemon.stop()


def test_changed_glossary_serves_the_next_snippet(daemon):
    daemon.write_glossary(("one", "first"))
    daemon.start()
    daemon.drop("a", "m.txt", "one")
    daemon.wait_outputs(1)
    daemon.write_glossary(("one", "second"))
    # Two statuses later a whole pass has begun after the change.
    daemon.wait_passes(2)
    daemon.drop("a", "n.txt", "one")
    daemon.wait_spoken(("m.txt", PAUSE + "first "), ("n.txt", PAUSE + "second "))
    daemon.wait_outputs(2)
    daemon.stop()


def test_removed_or_emptied_glossary_stays_in_force(daemon):
    daemon.write_glossary(("one", "first"))
    daemon.start()
    daemon.wait_passes(1)
    before = daemon.log()
    daemon.glossary.unlink()
    daemon.wait_passes(2)
    assert daemon.log() == before
    daemon.drop("a", "m.txt", "one")
    daemon.wait_outputs(1)
    publish(daemon.glossary, "")
    daemon.wait_passes(2)
    daemon.drop("a", "n.txt", "one")
    daemon.wait_spoken(("m.txt", PAUSE + "first "), ("n.txt", PAUSE + "first "))
    daemon.wait_outputs(2)
    daemon.stop()


def test_glossary_that_broke_is_not_in_force_any_more(daemon):
    daemon.write_glossary(("one", "first"))
    daemon.start()
    publish(daemon.glossary, "<glossary>")
    daemon.wait_passes(2)
    publish(daemon.glossary, "<words>")
    daemon.wait_log(f'Reading glossary {daemon.glossary}: No "glossary" root element', 2)
    # A good one would outlive the removal of its file.
    daemon.glossary.unlink()
    text = f'Could not open "{daemon.glossary}" for reading'
    daemon.wait_log(f"Reading glossary {daemon.glossary}: {text}", 2)
    daemon.stop()


BROKEN = {
    "missing": (None, 'Could not open "{glossary}" for reading'),
    "empty": ("", 'No "glossary" root element'),
    "other root": ("<words/>", 'No "glossary" root element'),
    "malformed": ("<glossary>\n\n</words>", "mismatched tag at line 3"),
    "without text": (
        "<glossary><word speech='x'/></glossary>",
        "Element word has no attribute text",
    ),
    "without speech": (
        "<glossary><word text='x'/></glossary>",
        "Element word has no attribute speech",
    ),
}


@pytest.mark.parametrize("contents, text", BROKEN.values(), ids=BROKEN)
def test_broken_glossary_stops_every_pass_until_it_is_mended(make_daemon, contents, text):
    daemon = make_daemon(glossary=True)
    daemon.configure(daemon.directory("a"))
    if contents is not None:
        publish(daemon.glossary, contents)
    daemon.start(wait=False)
    text = text.format(glossary=daemon.glossary)
    whole = f"Reading glossary {daemon.glossary}: {text}"
    daemon.wait_log(whole, 3)
    log = daemon.log()
    state = log.index('Now in "run" state')
    assert log[state + 1 :][:6] == [text, whole] * 3
    assert daemon.status() is None

    daemon.write_glossary(("one", "first"))
    daemon.wait_status()
    daemon.drop("a", "m.txt", "one")
    daemon.wait_spoken(("m.txt", PAUSE + "first "))

    if contents:
        # Broken once more: no message is lost by it.
        publish(daemon.glossary, contents)
        count = daemon.log().count(whole)
        daemon.wait_log(whole, count + 2)
        daemon.drop("a", "n.txt", "one")
        daemon.wait_log(whole, count + 4)
        assert len(daemon.spoken()) == 1
        daemon.write_glossary(("one", "third"))
        daemon.wait_spoken(("m.txt", PAUSE + "first "), ("n.txt", PAUSE + "third "))
    daemon.wait_passes(1)
    daemon.stop()


def test_other_elements_are_ignored(daemon):
    inner = element("word", text="two", speech="second")
    children = [element("entry", [inner]), "text", element("word", text="one", speech="first")]
    publish(daemon.glossary, element("glossary", children, version=1))
    daemon.start()
    daemon.drop("a", "m.txt", "one two")
    daemon.wait_spoken(("m.txt", PAUSE + "first two "))
    daemon.wait_outputs(1)
    daemon.stop()

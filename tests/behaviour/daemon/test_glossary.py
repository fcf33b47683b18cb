"""The glossary: spoken forms of words, read in every pass."""

import pytest
from harness.daemon import PAUSE
from harness.files import publish

pytestmark = pytest.mark.core


@pytest.fixture
def daemon(make_daemon):
    daemon = make_daemon(words=100, glossary=True)
    daemon.configure(daemon.directory("a"))
    return daemon


def test_words_are_spoken_as_the_glossary_says(daemon):
    daemon.write_glossary(
        ("Dr", "doctor"), ("St", "saint of  all"), ("nothing", ""), ("caf\u00e9", "coffee & cake")
    )
    daemon.start()
    daemon.drop("a", "m.txt", "Dr. dr Dr, St Dr! nothing caf\u00e9. end")
    text = "doctor. dr doctor, saint of  all Dr!  coffee & cake. end "
    daemon.wait_spoken(("m.txt", PAUSE + text))
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


BROKEN = {
    "missing": (None, 'Could not open "{glossary}" for reading'),
    "malformed": ("<glossary>\n\n</words>", "mismatched tag at line 3"),
}


@pytest.mark.parametrize("contents, text", BROKEN.values(), ids=BROKEN)
def test_broken_glossary_stops_every_pass_until_it_is_fixed(make_daemon, contents, text):
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

"""The glossary: spoken forms of words, read in every pass."""

import pytest
from harness.daemon import PAUSE

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

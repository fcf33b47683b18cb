"""The wait loop that all suites use."""

import time

# Seconds until a wait fails; far more than any step takes, even under an emulator.
LIMIT = 60

# Seconds between two looks at a condition.
INTERVAL = 0.02


def wait_until(condition, what):
    """Polls until condition() is true and returns its value.

    what describes the condition: a text, or a callable that returns one.
    """
    deadline = time.monotonic() + LIMIT
    while True:
        value = condition()
        if value:
            return value
        if time.monotonic() > deadline:
            raise AssertionError("this did not happen: " + (what() if callable(what) else what))
        time.sleep(INTERVAL)

"""The one wait loop."""

import time

# Seconds until a wait fails. Far above what any step takes, even emulated.
LIMIT = 60

# Seconds between two looks at a condition.
INTERVAL = 0.02


def wait_until(condition, what):
    """Polls until condition() is true and returns its value.

    what says what is waited for: a text, or a callable that returns one.
    """
    deadline = time.monotonic() + LIMIT
    while True:
        value = condition()
        if value:
            return value
        if time.monotonic() > deadline:
            raise AssertionError("this did not happen: " + (what() if callable(what) else what))
        time.sleep(INTERVAL)

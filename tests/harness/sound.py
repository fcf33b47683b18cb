"""Raw audio as the player expects it."""

import array

RATE = 22050  # Samples per second.


def samples(pcm):
    """The samples of raw audio."""
    result = array.array("h")
    result.frombytes(pcm)
    return result


def pcm(value, count):
    """Raw audio of count samples, all of this value."""
    return array.array("h", [value] * count).tobytes()

"""A stand-in for the station: its health file."""

import os
from pathlib import Path

from harness.files import element, publish

ENDED = ("said", "failed", "dropped", "heard")


def start_of(pid):
    """When a process began, in ticks since the start of the system; 0 if there is none."""
    try:
        stat = Path(f"/proc/{pid}/stat").read_text()
    except (FileNotFoundError, ProcessLookupError):
        return 0
    return int(stat.rpartition(")")[2].split()[19])


def write_health(run, messages=(), problems=(), station=None):
    """Writes run/health, by default as if this process were the station.

    messages are keywords of a record; directory, file and state are needed. problems are
    (id, sentence, remedy).
    """
    pid = os.getpid() if station is None else station
    children = ["\n"]
    for identity, sentence, remedy in problems:
        children.append(
            element("problem", id=identity, sentence=sentence, remedy=remedy, since=1700000000)
        )
    for message in messages:
        ended = 1700000009 if message["state"] in ENDED else 0
        record = {"pieces": 0, "failed": 0, "arrived": 1700000000, "ended": ended, **message}
        children.append(element("message", **record))
    health = {"daemon": 0, "hung": 0, "saying": "", "station": pid, "station_start": start_of(pid)}
    Path(run).mkdir(exist_ok=True)
    publish(Path(run) / "health", element("health", children, **health))

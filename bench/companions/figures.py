"""One table of the figures of the companions and the desk, and of the former scripts."""

import json
import sys
from pathlib import Path

HERE = Path(__file__).resolve().parent
sys.path.insert(0, str(HERE))

# pylint: disable=wrong-import-position
import desk  # noqa: E402
import mirror  # noqa: E402
import player  # noqa: E402
import voice  # noqa: E402

SCRIPTS = HERE / "scripts.json"  # By figure: the last measured value of the scripts.
LOOK_RATIO = 1.5  # Times a loop that only lists, with 100 files.
HEAD = "| figure | scripts | now | floor | ratio | goal | |\n|---|---:|---:|---:|---:|---:|---|\n"


def measure(libexec, floors=None, smoke=False, runs=50):
    """Rows (name, value, unit, floor, goal) for a tree of companions as installed."""
    if smoke:
        return [
            *mirror.measure(
                libexec / "helpers", floors, counts=(10,), seconds=mirror.SMOKE_SECONDS
            ),
            *voice.measure(libexec / "translators/espeak-ng", runs=1),
            *player.measure(libexec / "player", runs=1, seconds=3),
        ]
    return [
        *mirror.measure(libexec / "helpers", floors),
        *voice.measure(libexec / "translators/espeak-ng"),
        *player.measure(libexec / "player", runs=runs),
    ]


def measure_desk(smoke=False):
    """Rows of the desk."""
    if smoke:
        return desk.measure(runs=1, clients=3, seconds=1, hostile=("-k", "oversized"))
    return desk.measure()


def record_scripts(libexec):
    """Measures the scripts. An alarm waits for them, so there are fewer alarms."""
    values = {
        row[0].replace("worst of 5", "worst of 50"): row[1] for row in measure(libexec, runs=5)
    }
    SCRIPTS.write_text(json.dumps(values, indent=2) + "\n", encoding="utf-8")


def number(value, unit):
    if value is None:
        return ""
    return (f"{value:.2f} {unit}" if value < 100 else f"{value:.0f} {unit}").rstrip()


def line(row, scripts):
    name, value, unit, floor, goal = row
    # The goals of the voice are for its ratio. A mirror's look has a goal of each kind.
    is_ratio = name.startswith("translator")
    ratio = value / floor if floor else None
    judged = ratio if is_ratio else value
    is_slow_look = "100 known files: processor time" in name and ratio and ratio > LOOK_RATIO
    is_missed = goal is not None and (judged is None or judged > goal)
    cells = [
        name,
        number(scripts.get(name), unit),
        number(value, unit),
        number(floor, unit) if floor else "",
        f"{ratio:.2f}" if ratio else "",
        "" if goal is None else f"{goal}" if is_ratio else f"{goal} {unit}".rstrip(),
        "missed" if is_slow_look or is_missed else "",
    ]
    return "| " + " | ".join(cells) + " |"


def table(rows, text=HEAD):
    """The text of a table with these rows instead of those of the same name; new ones come last."""
    scripts = json.loads(SCRIPTS.read_text(encoding="utf-8")) if SCRIPTS.exists() else {}
    lines = text.splitlines()
    for row in rows:
        same = [i for i, old in enumerate(lines) if old.startswith(f"| {row[0]} |")]
        at = same[0] if same else len(lines)
        lines[at : at + 1] = [line(row, scripts)]
    return "\n".join(lines) + "\n"

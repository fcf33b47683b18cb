#!/usr/bin/python3
"""Measures the translator espeak-ng and the engine's own program, which writes a WAV file.

bench/companions/voice.py [TRANSLATOR]   (default: the one in build/release)
"""

import os
import statistics
import sys
import tempfile
import time
from pathlib import Path

ROOT = Path(__file__).resolve().parents[2]
TRANSLATOR = ROOT / "build/release/libexec/translators/espeak-ng"
ENGINE = "/usr/bin/espeak-ng"
RUNS = 100

TEXTS = {
    10: "the train to the north leaves from platform nine today, ",
    20: "the train to the north leaves from platform nine today, "
    "please keep clear of the doors and mind the gap. ",
}

# Name, unit and the most that the translator may take, times the engine's program.
FIGURES = [("CPU", "ms", 1.15), ("wall", "ms", 1.3)]


def timed(command):
    """CPU and wall time of a command that must succeed, children included, in milliseconds."""
    start = time.perf_counter()
    pid = os.posix_spawn(command[0], command, os.environ)
    _, status, usage = os.wait4(pid, 0)
    wall = time.perf_counter() - start
    if status != 0:
        sys.exit(f"{' '.join(command)} failed")
    return (usage.ru_utime + usage.ru_stime) * 1000, wall * 1000


def measure(translator=TRANSLATOR, runs=RUNS):
    """Rows (name, value, unit, floor, goal); the goal is for value / floor. Medians."""
    rows = []
    with tempfile.TemporaryDirectory(dir="/dev/shm") as scratch:
        text_file, audio, wav = (os.path.join(scratch, name) for name in ("text", "audio", "wav"))
        for words, text in TEXTS.items():
            Path(text_file).write_text(text, encoding="utf-8")
            # In turn, so that both see the same machine. The first of each warms the caches up.
            pairs = [
                (
                    timed([str(translator), text_file, audio, "note.txt"]),
                    timed([ENGINE, "-w", wav, text]),
                )
                for _ in range(runs + 1)
            ][1:]
            for i, (figure, unit, goal) in enumerate(FIGURES):
                value, floor = (statistics.median(pair[j][i] for pair in pairs) for j in (0, 1))
                name = f"translator espeak-ng, {words} words, {figure}, against espeak-ng -w"
                rows.append((name, value, unit, floor, goal))
    return rows


def main():
    print("| figure | translator | engine | ratio | goal |\n|---|---:|---:|---:|---:|")
    for name, value, unit, floor, goal in measure(*sys.argv[1:2]):
        ratio = value / floor
        print(f"| {name} | {value:.2f} {unit} | {floor:.2f} {unit} | {ratio:.2f} | {goal} |")


if __name__ == "__main__":
    main()

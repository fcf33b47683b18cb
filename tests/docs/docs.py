"""What the tests of the documents share."""

import os
import pathlib
import shlex
import subprocess

ROOT = pathlib.Path(__file__).resolve().parents[2]

# Seconds until a wait gives up. Far above what any step takes.
LIMIT = 60


def program():
    """The daemon's command as a list, with absolute paths."""
    words = shlex.split(os.environ.get("VOCASTRA", "")) or [str(ROOT / "build/release/vocastra")]
    return [os.path.abspath(word) if "/" in word else word for word in words]


def run(*command, **options):
    """Runs a command to its end. Its output, both kinds in one text, is in stdout."""
    return subprocess.run(
        [str(word) for word in command],
        stdin=subprocess.DEVNULL,
        stdout=subprocess.PIPE,
        stderr=subprocess.STDOUT,
        text=True,
        timeout=LIMIT,
        check=False,
        **options,
    )


def validate(schema, path):
    """Why a file does not fit schema/SCHEMA.rng; empty if it does."""
    done = run("xmllint", "--noout", "--relaxng", ROOT / f"schema/{schema}.rng", path)
    # 3: the file is not valid; anything else is a failure of another kind.
    assert done.returncode in (0, 3), done.stdout
    return done.stdout if done.returncode else ""

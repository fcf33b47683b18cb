"""Checks documents against the schemas."""

from harness.programs import ROOT, run_command


def validate(schema, path):
    """Why a file does not fit schema/SCHEMA.rng; empty if it does."""
    done = run_command("xmllint", "--noout", "--relaxng", ROOT / f"schema/{schema}.rng", path)
    # 3: the file is not valid; anything else is a failure of another kind.
    assert done.returncode in (0, 3), done.stdout
    return done.stdout if done.returncode else ""

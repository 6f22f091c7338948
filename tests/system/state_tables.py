"""The state file's tables, for tests that write one by hand: the daemon takes no others for its own."""

import pathlib
import re

SCHEMA = (pathlib.Path(__file__).parents[2] / "platform" / "linux" / "state" / "schema.cc").read_text("utf-8")


def create(database):
    """In an empty database, and within the transaction that is under way there."""
    marks = re.search(r'kMarkAsOurs = "(.*)"', SCHEMA)[1].split(";")
    tables = re.search(r'R"sql\((.*)\)sql"', SCHEMA, re.DOTALL)[1].split(";\n\n")
    for statement in marks + tables:
        database.execute(statement)

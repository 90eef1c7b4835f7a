#!/usr/bin/env python3
"""Compares the documents with the sources of the program.

- protocol.md: runs the worked example of the token. Every token, timestamp and path in the document
  must be the same as in the example.
- operations.md: every log record in src/ must have a table row with its level and its text, and
  every such row must have its record in src/.
- CHANGELOG.md: the newest version must be the version in CMakeLists.txt.

Prints the differences. Exit status 1 if there are any.
"""

import re
import subprocess
import sys
from pathlib import Path

DOCS = Path(__file__).parent
PROTOCOL = (DOCS / "protocol.md").read_text()
OPERATIONS = (DOCS / "operations.md").read_text()
CHANGELOG = (DOCS.parent / "CHANGELOG.md").read_text()
BUILD = (DOCS.parent / "CMakeLists.txt").read_text()
SOURCES = "\n".join(file.read_text() for file in sorted(DOCS.parent.glob("src/**/*.cpp")))

LITERAL = r'"(?:[^"\\]|\\.)*"'
ADJACENT_LITERALS = rf"({LITERAL}(?:\s*{LITERAL})*)"
LOG_CALL = re.compile(rf"VEYRA_LOG\(\s*([A-Z]+)\s*,\s*{ADJACENT_LITERALS}")
# Both are logged with the format "%s".
EXCEPTION_PREFIX = re.compile(rf"exceptionRecord\(\s*{ADJACENT_LITERALS}")
FATAL_ERROR = re.compile(rf"errorFile,\s*{ADJACENT_LITERALS}")
# | LEVEL | `text` | ...
TABLE_ROW = re.compile(r"^\| (ERROR|WARNING|INFO|DEBUG|TRACE) \| `([^`]+)` \|", re.MULTILINE)


def text_of(literals: str) -> str:
    """The text of adjacent string literals, as the documents write it: \\r and \\n stay."""
    return "".join(part[1:-1] for part in re.findall(LITERAL, literals)).replace('\\"', '"')


def check_example() -> list[str]:
    """What is wrong with the worked example of protocol.md."""
    blocks = re.findall(r"^```\w*\n(.*?)^```", PROTOCOL, re.MULTILINE | re.DOTALL)
    example = next((block for block in blocks if "sha256sum" in block), None)
    if example is None:
        return ["protocol.md has no worked example"]
    run = subprocess.run(
        ["bash", "-euo", "pipefail", "-c", example], capture_output=True, text=True, check=True
    )
    assigned = dict(re.findall(r"^(\w+)='(.*)'$", example, re.MULTILINE))
    expected = {
        r"\b[0-9a-f]{64}\b": run.stdout.split()[0],
        r"\b\d{4}-\d\d-\d\dT[\d:]{8}\.\d{6}Z": assigned["timestamp"],
        r"\bm1/gateways/\w+/check_in": assigned["path"],
    }
    return [
        f"protocol.md has {found}, but the example has {value}"
        for pattern, value in expected.items()
        for found in sorted(set(re.findall(pattern, PROTOCOL)) or {"nothing"})
        if found != value
    ]


def check_records() -> list[str]:
    """Which log records lack a table row in operations.md, and which rows lack a record."""
    records = {f"{level} {text_of(literals)}" for level, literals in LOG_CALL.findall(SOURCES)}
    records.discard("ERROR %s")
    parts = [
        text_of(literals)
        for pattern in (EXCEPTION_PREFIX, FATAL_ERROR)
        for literals in pattern.findall(SOURCES)
    ]
    rows = {f"{level} {text}" for level, text in TABLE_ROW.findall(OPERATIONS)}

    faults = []
    if SOURCES.count("VEYRA_LOG(") != len(LOG_CALL.findall(SOURCES)):
        faults.append("src has a log call without a literal text")
    if not records or not EXCEPTION_PREFIX.search(SOURCES) or not FATAL_ERROR.search(SOURCES):
        faults.append("src has no records that this script can find")
    faults += [f"operations.md has no row for: {record}" for record in sorted(records - rows)]
    for part in parts:
        if not any(row.startswith("ERROR ") and part in row for row in rows):
            faults.append(f"operations.md has no ERROR row with: {part}")
    for row in sorted(rows - records):
        if not row.startswith("ERROR ") or not any(part in row for part in parts):
            faults.append(f"operations.md has a row for a record that src does not write: {row}")
    return faults


def check_version() -> list[str]:
    """Whether the changelog lacks the version of the program."""
    built = re.findall(r"^project\(\S+ VERSION (\S+)", BUILD, re.MULTILINE)
    described = re.findall(r"^## (\S+)$", CHANGELOG, re.MULTILINE)
    if built[:1] == described[:1]:
        return []
    return [f"CHANGELOG.md begins with {described[:1]}, but the version is {built[:1]}"]


def main() -> int:
    faults = check_example() + check_records() + check_version()
    for fault in faults:
        print(f"docs/check.py: {fault}", file=sys.stderr)
    return 1 if faults else 0


if __name__ == "__main__":
    sys.exit(main())

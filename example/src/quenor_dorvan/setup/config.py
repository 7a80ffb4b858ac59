"""Rules text that `quenor-dorvan init` writes into an agent's instruction file."""

from __future__ import annotations

import re
from pathlib import Path

QUENOR_INSTRUCTION_CONTENT = """## Code intelligence (quenor-dorvan)

This repository is indexed by quenor-dorvan. Prefer its tools to grepping and
opening files one by one: they answer from the index, cost fewer tokens and
know about definitions, references and call graphs.

Over MCP the tools come from the `quenor-dorvan` server. Without MCP, run the
same tools from a shell as `quenor-dorvan query <tool> [options]`; tool and
option names take hyphens there (`--token-budget 2000`).

<!-- registry:rules-routes -->
| Need | Command |
| --- | --- |
| Text or pattern, e.g. `get_\\|set_` | `quenor-dorvan query search --action regex` |
| Definition of a name | `quenor-dorvan query lookup-symbol` |
| Callers of a function | `quenor-dorvan query call-graph --action callers` |
| Outline of a file (`C:\\repo\\src\\app.py`) | `quenor-dorvan query outline` |
<!-- /registry:rules-routes -->

Before you edit:
- read the outline of a file before reading the whole file;
- look up the callers before changing a function's signature;
- if answers disagree with what is on disk, the index is behind: call
  `index_status`, or run `quenor-dorvan index` yourself.
"""

# Open marker with its line feed, or close marker with its line feed if any.
_MARKER = re.compile(r"<!-- (?:registry:[\w:-]+ -->\n|/registry:[\w:-]+ -->\n?)")


def without_markers(text: str) -> str:
    """`text` without the marker comments that delimit generated blocks."""
    return _MARKER.sub("", text)


def instruction_text() -> str:
    """The rules as they land in an agent's instruction file."""
    return without_markers(QUENOR_INSTRUCTION_CONTENT)


def write_instructions(target: Path) -> bool:
    """Append the rules to `target` (e.g. CLAUDE.md) unless it has them already.

    Returns True when the file was changed.
    """
    text = instruction_text()
    heading = text.splitlines()[0]
    existing = target.read_text(encoding="utf-8") if target.exists() else ""
    if heading in existing.splitlines():
        return False
    separator = "" if not existing or existing.endswith("\n\n") else (
        "\n" if existing.endswith("\n") else "\n\n"
    )
    target.write_text(existing + separator + text, encoding="utf-8")
    return True

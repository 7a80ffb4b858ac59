"""Routing tables: which tool answers which need."""

from __future__ import annotations

from typing import Mapping

_SKILL_ROUTES = (
    ("Find code by text or pattern", "`search` with action `text` or `regex`"),
    ("Find a file by name", "`search` with action `path`"),
    ("Where is this defined?", "`lookup_symbol`"),
    ("Every use of the name under the cursor", "`find_refs` with `path`, `line`"),
    ("Who calls it, what it calls", "`call_graph` with action `callers` or `callees`"),
    ("Code that does X, name unknown", "`embeddings_search`"),
    ("Shape of a file before reading it", "`file_outline`"),
    ("What a change can break", "`diff_impact`, then `test_map` action `tests_for`"),
    ("HTTP routes and their handlers", "`list_endpoints`"),
)


def _table(header: tuple[str, ...], rows: tuple[tuple[str, str], ...]) -> str:
    lines = [
        "| " + " | ".join(header) + " |",
        "| " + " | ".join("---" for _ in header) + " |",
    ]
    lines += ["| " + " | ".join(row) + " |" for row in rows]
    return "\n".join(lines)


def skill_table(facts: Mapping[str, str]) -> str:
    """Body of the skill's "Route by need" section.

    `facts["frameworks"]` is the comma-separated list of web frameworks the
    endpoint scanner understands.
    """
    notes = (
        f"Endpoint listing understands: {facts['frameworks']}.",
        "When answers look out of date, call `index_status` before anything else.",
    )
    return _table(("Need", "Call"), _SKILL_ROUTES) + "\n\n" + "\n".join(notes)


_RULES_ROUTES = (
    ("Text or pattern, e.g. `get_\\|set_`", "`quenor-dorvan query search --action regex`"),
    ("Definition of a name", "`quenor-dorvan query lookup-symbol`"),
    ("Callers of a function", "`quenor-dorvan query call-graph --action callers`"),
    (
        "Outline of a file (`C:\\repo\\src\\app.py` works too)",
        "`quenor-dorvan query file-outline`",
    ),
    ("Impact of local changes", "`quenor-dorvan query diff-impact --action working_tree`"),
)


def rules_table() -> str:
    """Short routing table for the rules block of agent instruction files."""
    return _table(("Need", "Command"), _RULES_ROUTES)

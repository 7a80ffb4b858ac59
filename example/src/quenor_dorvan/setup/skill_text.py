"""The `dorvan` skill that `quenor-dorvan init` installs for AI agents."""

from __future__ import annotations

# Rendered with str.format: literal braces are doubled.
SKILL_TEMPLATE = """---
name: dorvan
description: Answer questions about this code base with quenor-dorvan (search, definitions, references, call graphs, change impact) instead of reading files one by one.
---

# dorvan

quenor-dorvan {version} keeps an index of this repository: symbols, references,
imports, call edges, HTTP routes and, when enabled, embeddings. Its tools answer
from that index, so they are fast and their replies are small.

Call the tools over MCP when the `quenor-dorvan` server is connected. Otherwise
use the shell: `quenor-dorvan query <tool> --option value`, with tool and option
names in kebab case. Over MCP, tools with actions take the action as an argument,
for example `{{"action": "callers", "symbol": "billing.invoice.total"}}`.

## Route by need

<!-- registry:skill-routes -->
| Need | Call |
| --- | --- |
| Find code by text or pattern | `search` with action `text` or `regex` |
| Where is this defined? | `lookup_symbol` |
| Every use of a name | `find_refs` |
| Who calls it, what it calls | `call_graph` |
| Code that does X, name unknown | `embeddings_search` |
| Shape of a file before reading it | `file_outline` |
| HTTP routes and their handlers | `list_endpoints` |

Endpoint listing understands: Flask, FastAPI, Django REST framework, Express.
<!-- /registry:skill-routes -->

## Tools

<!-- registry:skill-tools -->
Core:
- `search` (`text`, `regex`, `path`): Find code by plain text, regular expression (`get_|set_`) or file path glob.
- `lookup_symbol`: Show where a symbol is defined, with its signature and docstring.
- `find_refs`: List every reference to a symbol.
- `call_graph` (`callers`, `callees`, `path`): Walk the static call graph from a function.
- `file_outline`: Outline one file. Paths may be absolute, e.g. C:\\repo\\src\\app.py.
- `list_endpoints`: List the HTTP endpoints the code declares, e.g. `GET /files/{{path}}`.
- `index_status`: Report how fresh the index is.

Extended:
- `embeddings_search`: Find code by meaning.
- `diff_impact` (`working_tree`, `commit_range`): Show what a change touches.
- `dependency_graph` (`imports`, `importers`, `cycles`): Module dependency graph.
- `test_map` (`tests_for`, `covered_by`): Map source code to tests.
- `history` (`blame`, `log`): Git history of code.
<!-- /registry:skill-tools -->

## Habits that pay off

- Start narrow: `lookup_symbol` or `file_outline` first, whole files last.
- Keep `token_budget` low on broad searches and raise it only when a reply is cut.
- Before renaming or changing a signature, list the callers and the tests
  that cover them.
- Say which tool an answer came from when you report findings.
"""


def render_skill(version: str) -> str:
    """SKILL.md for this version of quenor-dorvan."""
    return SKILL_TEMPLATE.format(version=version)

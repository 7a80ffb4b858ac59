"""JSON Schemas of the tools' command-line input."""

from __future__ import annotations

import copy
from typing import Any, Dict

from quenor_dorvan.tool_registry import ParamSpec, get_tool


def snake_to_kebab(name: str) -> str:
    """`token_budget` -> `token-budget`, as tool and option names appear on the CLI."""
    return name.replace("_", "-")


def _property(param: ParamSpec) -> Dict[str, Any]:
    prop: Dict[str, Any] = {"type": param.type}
    if param.items is not None:
        prop["items"] = {"type": param.items}
    if param.description:
        prop["description"] = param.description
    if param.minimum is not None:
        prop["minimum"] = param.minimum
    if param.maximum is not None:
        prop["maximum"] = param.maximum
    if not param.required:
        # Copy so callers can't change a registry default through the schema.
        prop["default"] = copy.deepcopy(param.default)
    return prop


def get_cli_schema(name: str) -> Dict[str, Any]:
    """Schema of `quenor-dorvan query <name>` options; KeyError for an unknown tool."""
    tool = get_tool(name)
    return {
        "type": "object",
        "properties": {param.name: _property(param) for param in tool.all_params},
        "required": [param.name for param in tool.all_params if param.required],
    }

"""The registry_docs module in pure Python, statement for statement: the harness runs it in a copy
of the module's globals, where each name it reads is looked up at each call; test_module imports it
as a module of its own and compares the two namespaces."""

from __future__ import annotations

import re
from collections.abc import Callable, Iterable
from dataclasses import dataclass
from pathlib import Path
from typing import Any, get_args

from quenor_dorvan.setup.config import QUENOR_INSTRUCTION_CONTENT, without_markers
from quenor_dorvan.tool_registry import TOOLS, ParamSpec, ToolSpec, ToolTier
from quenor_dorvan.tool_routes import rules_table, skill_table
from quenor_dorvan.tool_schemas import get_cli_schema, snake_to_kebab
from quenor_dorvan.workers.api_endpoints import ENDPOINT_FRAMEWORKS

__all__ = ["GeneratedFile", "rules_block", "skill_routes_block", "block_names", "generated_files", "cli_usage",
           "mcp_cli_block", "mcp_intro_block", "mcp_overview_block", "mcp_params_block", "ordered_tools",
           "readme_tools_block", "render_file", "skill_tools_block", "stale_blocks", "write_blocks"]
_TIERS: tuple[ToolTier, ...] = get_args(ToolTier)
_NONE = "--"
_MARKER = re.compile(r"(?P<open><!-- registry:(?P<name>[\w:-]+) -->\n)(?P<body>.*?)"
                     r"(?P<close><!-- /registry:(?P=name) -->)", re.DOTALL)


def ordered_tools():
    return sorted(TOOLS, key=lambda tool: _TIERS.index(tool.tier))


def _tier_tools(tier):
    return [tool for tool in TOOLS if tool.tier == tier]


def _code(text):
    return f"`{text}`"


def _cell(text):
    return " ".join(text.split()).replace("|", "\\|")


def _row(cells):
    return "| " + " | ".join(cells) + " |"


def _table(header, rows):
    return [_row(header), _row(["---" for _ in header]), *(_row(row) for row in rows)]


def _value(value):
    if isinstance(value, bool):
        return "true" if value else "false"
    if isinstance(value, (list, tuple)):
        return ", ".join(_value(item) for item in value)
    return str(value)


def _actions_cell(tool, placeholder):
    names = tool.action_names
    return ", ".join(_code(name) for name in names) if names else placeholder


def _tier_counts():
    return " and ".join(f"{len(_tier_tools(tier))} {tier}" for tier in _TIERS)


def cli_usage(tool):
    return " ".join(["quenor-dorvan query", snake_to_kebab(tool.name),
                     *(f"--{snake_to_kebab(p.name)} <{p.name}>" for p in tool.all_params if p.required)])


def skill_tools_block():
    tools = ordered_tools()

    def row(tool):
        yield _code(tool.name)
        yield _actions_cell(tool, "*(one call)*")
        yield _cell(tool.mcp_text)

    rows = (row(tool) for tool in tools)
    lines = [f"## Tool reference ({len(TOOLS)} tools; MCP name = CLI `quenor-dorvan query <tool>`)",
             "", *_table(("Tool", "Actions", "Use for"), rows)]
    return "\n".join(lines)


def readme_tools_block():
    tools = ordered_tools()

    def row(tool):
        yield "**" + tool.tier.capitalize() + "**"
        yield _code(tool.name)
        yield _actions_cell(tool, _NONE)
        yield _cell(tool.summary)

    rows = (row(tool) for tool in tools)
    lines = [f"{len(TOOLS)} tools for code intelligence, {_tier_counts()}. A tool with actions "
             "takes an `action` parameter that selects one.", "",
             *_table(("Tier", "Tool", "Actions", "Purpose"), rows)]
    return "\n".join(lines)


def mcp_intro_block():
    return (f"Complete reference for the **{len(TOOLS)} MCP tools** provided by Quenor Dorvan, "
            f"{_tier_counts()}.\n\nEach tool groups related functionality behind a single "
            "endpoint; a tool with actions takes an `action` parameter that selects the operation.")


def mcp_overview_block():
    tools = ordered_tools()

    def row(number, tool):
        yield str(number)
        yield _code(tool.name)
        yield _actions_cell(tool, _NONE)
        yield tool.tier.capitalize()
        yield _cell(tool.summary)

    rows = (row(number, tool) for number, tool in enumerate(tools, 1))
    tiers = [f"- **{tier.capitalize()}** ({len(_tier_tools(tier))} tools): "
             + ", ".join(_code(t.name) for t in _tier_tools(tier)) for tier in _TIERS]
    return "\n".join([*_table(("#", "Tool", "Actions", "Tier", "Purpose"), rows), "",
                      "**Tiers:**", "", *tiers])


def mcp_cli_block():
    tools = ordered_tools()

    def row(tool):
        yield _code(tool.name)
        yield _code(cli_usage(tool))

    rows = (row(tool) for tool in tools)
    return "\n".join([
        "Every parameter is an option of the same name in kebab-case (`token_budget` is "
        "`--token-budget`), an array is a comma-separated list, and a boolean is `--flag` or "
        "`--flag true|false`. `quenor-dorvan query <tool> --help` prints a tool's options with "
        "their full texts and `quenor-dorvan query --schema` prints them all as JSON Schema.",
        "", *_table(("Tool", "CLI usage"), rows)])


def _default_cell(param):
    text = _NONE if param.default is None else _value(param.default)
    by_action = ", ".join(f"{action}: {_value(value)}" for action, value in param.action_defaults)
    return f"{text} ({by_action})" if by_action else text


def _type_cell(prop):
    if prop["type"] == "array" and "items" in prop:
        return f"{prop['items']['type']}[]"
    return str(prop["type"])


def _description_cell(param, prop):
    description = prop.get("description", "").strip()
    if description and not description.endswith("."):
        description += "."
    values = param.values_text(_code)
    low, high = prop.get("minimum"), prop.get("maximum")
    bound = (f"Range: {_value(low)}-{_value(high)}." if low is not None and high is not None else
             f"At least {_value(low)}." if low is not None else f"At most {_value(high)}." if high is not None else "")
    return _cell(" ".join(piece for piece in (description, values, bound) if piece))


def mcp_params_block(tool):
    schema = get_cli_schema(tool.name)
    properties = schema["properties"]
    if list(properties) != [param.name for param in tool.all_params]:
        raise ValueError(f"{tool.name}: the CLI schema and the registry name different parameters")
    required = set(schema["required"])
    has_actions = bool(tool.actions)
    header = ("Parameter", "CLI", "Type", "Required", "Default",
              *(("Actions",) if has_actions else ()), "Description")

    rows = []
    for param in tool.all_params:
        prop = properties[param.name]
        rows.append((_code(param.name), _code(f"--{snake_to_kebab(param.name)}"), _type_cell(prop),
                     "Yes" if param.name in required else "No", _cell(_default_cell(param)),
                     *((", ".join(param.applies_to) or "all",) if has_actions else ()),
                     _description_cell(param, prop)))
    lines = ((["**Actions:** " + " | ".join(_code(n) for n in tool.action_names), ""]
              if has_actions else []) + ["#### Parameters", "", *_table(header, rows)])
    return "\n".join(lines)


def _skill_text(block):
    return _literal_text(block).replace("{", "{{").replace("}", "}}")


def _literal_text(block):
    return block.replace("\\", "\\\\")


def skill_routes_block():
    return skill_table({"frameworks": ", ".join(ENDPOINT_FRAMEWORKS.values())})


def rules_block():
    def render(match):
        return match["open"] + rules_table() + "\n" + match["close"]

    return without_markers(_MARKER.sub(render, QUENOR_INSTRUCTION_CONTENT)).strip()


@dataclass(frozen=True)
class GeneratedFile:
    path: str
    blocks: tuple[tuple[str, Callable[[], str]], ...]
    encode: Callable[[str], str] = str


def _params_renderer(tool):
    def render():
        return mcp_params_block(tool)

    return render


def generated_files():
    return (
        GeneratedFile("src/quenor_dorvan/setup/skill_text.py",
                      (("skill-routes", skill_routes_block), ("skill-tools", skill_tools_block)), _skill_text),
        GeneratedFile("src/quenor_dorvan/setup/config.py", (("rules-routes", rules_table),), _literal_text),
        GeneratedFile("docs/claude-instructions-template.md", (("rules-block", rules_block),)),
        GeneratedFile("README.md", (("readme-tools", readme_tools_block),)),
        GeneratedFile("docs/mcp-tools.md", (
            ("mcp-intro", mcp_intro_block), ("mcp-overview", mcp_overview_block), ("mcp-cli", mcp_cli_block),
            *((f"params:{tool.name}", _params_renderer(tool)) for tool in ordered_tools()))),
    )


def block_names(text):
    return [match["name"] for match in _MARKER.finditer(text)]


def render_file(text, generated):
    pairs = [(name, renderer) for name, renderer in generated.blocks]
    expected = [name for name, _ in pairs]
    found = block_names(text)
    if sorted(found) != sorted(expected) or len(set(found)) != len(found):
        missing = sorted(set(expected) - set(found))
        unknown = sorted(set(found) - set(expected))
        repeated = sorted({name for name in found if found.count(name) > 1})
        raise ValueError(f"{generated.path}: the markers do not match the blocks it holds "
                         f"(missing {missing}, unknown {unknown}, repeated {repeated})")
    renderers = dict(pairs)

    def render(match):
        return match["open"] + generated.encode(renderers[match["name"]]()) + "\n" + match["close"]

    return _MARKER.sub(render, text)


def _read(root, generated):
    return (root / generated.path).read_text(encoding="utf-8")


def stale_blocks(root):
    problems = []
    for generated in generated_files():
        text = _read(root, generated)
        try:
            rendered = render_file(text, generated)
        except ValueError as error:
            problems.append(str(error))
            continue
        if rendered == text:
            continue
        old, new = _blocks(text), _blocks(rendered)
        stale = [name for name, body in old.items() if new.get(name) != body]
        problems.append(f"{generated.path}: blocks out of date: {', '.join(stale)}")
    return problems


def _blocks(text):
    return {match["name"]: match["body"] for match in _MARKER.finditer(text)}


def write_blocks(root):
    catalogue = generated_files()
    rendered = {g.path: render_file(_read(root, g), g) for g in catalogue}
    changes, scheduled = [], {}
    for g in catalogue:
        current = _read(root, g)
        path = g.path
        text = rendered[path]
        if path in scheduled:  # the file as the earlier write leaves it
            current = scheduled[path]
        if current != text:
            scheduled[path] = text
            changes.append((path, text.encode("utf-8")))
    for path, data in changes:  # nothing is written before every file is rendered and encoded
        (root / path).write_bytes(data)
    return [path for path, _ in changes]

"""Shared helpers of the test suites: the module, stand-in registries and example copies."""

import contextlib
import os
import shutil
import tempfile
import types
from pathlib import Path

import quenor_dorvan.setup.registry_docs as docs

EXAMPLE = Path(os.environ.get("REGISTRY_DOCS_EXAMPLE", Path(__file__).resolve().parents[1] / "example"))


@contextlib.contextmanager
def rebound(**names):
    """Rebinds module globals for the duration of a block (a value of `DELETE` removes the name)."""
    saved = {name: docs.__dict__[name] for name in names if name in docs.__dict__}
    try:
        for name, value in names.items():
            if value is DELETE:
                docs.__dict__.pop(name, None)
            else:
                setattr(docs, name, value)
        yield
    finally:
        for name in names:
            docs.__dict__.pop(name, None)
        docs.__dict__.update(saved)


DELETE = object()


def param(name, *, required=False, default=None, action_defaults=(), applies_to=(), values=""):
    """A stand-in ParamSpec: only the fields and the operation the module reads."""
    return types.SimpleNamespace(
        name=name,
        required=required,
        default=default,
        action_defaults=action_defaults,
        applies_to=applies_to,
        values_text=lambda formatter: values(formatter) if callable(values) else values,
    )


def tool(name, tier="core", *, actions=(), summary="", mcp_text="", params=()):
    """A stand-in ToolSpec: only the fields the module reads."""
    return types.SimpleNamespace(
        name=name,
        tier=tier,
        summary=summary,
        mcp_text=mcp_text,
        action_names=tuple(actions),
        actions=tuple(actions),
        all_params=tuple(params),
    )


MODEL = Path(__file__).with_name("reference_model.py")


def python_model():
    """The pure-Python model's functions, executed into a copy of the module's globals."""
    namespace = dict(docs.__dict__)
    exec(compile(MODEL.read_text(encoding="utf-8"), str(MODEL), "exec"), namespace)
    return namespace


class HostTool:
    """A clone of an example tool under another name, as a plain-Python host would hold it: the
    fields the module reads are plain attributes, its parameters plain objects of its own."""

    def __init__(self, source, name):
        self.name, self.tier, self.summary, self.mcp_text = name, source.tier, source.summary, source.mcp_text
        self.actions, self.action_names = source.actions, source.action_names
        self.all_params = tuple(HostParam(p) for p in source.all_params)


class HostParam:
    def __init__(self, source):
        for field in ("name", "type", "required", "default", "action_defaults", "applies_to", "values"):
            setattr(self, field, getattr(source, field))

    def values_text(self, formatter):
        """Worded as the example host's registry words it."""
        if not self.values:
            return ""
        lead = "Any of" if self.type == "array" else "One of"
        return f"{lead} {', '.join(formatter(value) for value in self.values)}."


def synthetic_registry(count):
    """The names to rebind for a registry of `count` tools: the example's 14 cloned in turn (so the
    tiers interleave), each clone named after its source and round (`search_0`, ...), with a
    plain-Python `get_cli_schema` over the example's schemas."""
    from quenor_dorvan import tool_registry, tool_schemas

    sources, tools, schemas = tool_registry.TOOLS, [], {}
    for i in range(count):
        source = sources[i % len(sources)]
        tools.append(HostTool(source, f"{source.name}_{i // len(sources)}"))
        schemas[tools[-1].name] = tool_schemas.get_cli_schema(source.name)

    def get_cli_schema(name):
        return schemas[name]

    return {"TOOLS": tuple(tools), "get_cli_schema": get_cli_schema}


def with_params_blocks(text, blocks):
    """The example's MCP reference text with its per-tool sections replaced by one section for
    each (tool name, old body) pair of `blocks`, in that order."""
    head, rest = text.split("## Core tools\n", 1)
    sections = (f"### {name}\n\n<!-- registry:params:{name} -->\n{body}<!-- /registry:params:{name} -->\n\n"
                for name, body in blocks)
    return head + "## Tools\n\n" + "".join(sections) + rest[rest.index("## Errors"):]


@contextlib.contextmanager
def example_copy():
    """A temporary copy of the example host repository; yields its root as a Path."""
    with tempfile.TemporaryDirectory() as directory:
        root = Path(directory) / "example"
        shutil.copytree(EXAMPLE, root, ignore=shutil.ignore_patterns("__pycache__"))
        yield root

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


@contextlib.contextmanager
def example_copy():
    """A temporary copy of the example host repository; yields its root as a Path."""
    with tempfile.TemporaryDirectory() as directory:
        root = Path(directory) / "example"
        shutil.copytree(EXAMPLE, root, ignore=shutil.ignore_patterns("__pycache__"))
        yield root

"""The module as callers see it: its namespace, its import, and functions that behave as the
model's defs do, with the annotations its type stub states."""

import __future__
import builtins
import copy
import dataclasses
import gc
import importlib.util
import inspect
import os
import pickle
import shutil
import subprocess
import sys
import tempfile
import typing
import unittest
import weakref
from pathlib import Path

import quenor_dorvan.tool_registry as registry
from harness import MODEL, MODEL_FILE, docs, shown, tool
from test_kept import Keeping



def outcome(call):
    try:
        return "ok", type(call()).__name__
    except Exception as error:  # compared with the model's
        return type(error).__name__, str(error)


def described(function):
    """What a caller can see of a function, and what each kind of wrong call raises."""
    names = list(parameters := inspect.signature(function).parameters)
    seen = [function.__name__, function.__qualname__, function.__module__, function.__defaults__,
            function.__kwdefaults__, [(p.name, p.kind) for p in parameters.values()]]
    seen.append(setattr(function, "custom", 1) or vars(function).copy())
    del function.custom
    for call in (lambda: function(*range(len(names) + 1)), lambda: function(x=1),
                 lambda: function(**{1: 2}), lambda: function(**{name[:-1]: 1 for name in names}),
                 lambda: function(*range(len(names)), **{name: 1 for name in names[:1]}),
                 lambda: names and function(**{name: 1 for name in names[1:]})):
        seen.append(outcome(call))
    holder = type("Holder", (), {"f": function})  # a def read through a class binds to the instance
    seen += [holder.f is function, copy.copy(function) is function, copy.deepcopy([function])[0] is function]
    code, cells = function.__code__, function.__closure__  # CO_NOFREE (0x40) follows the body's cells
    seen += [code.co_name, getattr(code, "co_qualname", None), code.co_argcount, code.co_varnames[:code.co_argcount],
             code.co_flags & ~0x40, code.co_freevars, cells is None, cells is function.__closure__,
             function.__builtins__ is vars(builtins),
             code.co_filename == (docs.__file__ if function.__globals__ is vars(docs) else str(MODEL_FILE)),
             shown(inspect.getclosurevars(function).nonlocals),  # the cells; the module's code reads no global
             inspect.getfullargspec(function)[:6]]  # the model states no annotations
    if cells:  # the next call reads what a cell holds now
        del cells[0].cell_contents
        seen.append(outcome(lambda: function(*range(len(names)))))
    return seen


class ModuleTest(unittest.TestCase):
    maxDiff = None

    def test_namespace_and_record_are_the_models(self):
        spec = importlib.util.spec_from_file_location(docs.__name__, MODEL_FILE)  # the model as a module
        spec.loader.exec_module(model := importlib.util.module_from_spec(spec))
        self.assertEqual(list(vars(docs)), list(vars(model)))  # the body's order, as documented
        self.assertEqual(*[(side.__all__, side._TIERS, side._NONE, side.__annotations__,
                            side._MARKER.pattern, side._MARKER.flags) for side in (docs, model)])
        self.assertIsNone(docs.__cached__)  # the model's file has a cache; a native module none
        records = [side.GeneratedFile("p", (("a", str),)) for side in (docs, model)]
        self.assertEqual(*[(repr(r), hash(r), r == dataclasses.replace(r), r.__match_args__, type(r).__qualname__,
                            type(r).__module__, type(r).__annotations__, dataclasses.fields(r)[2].default,
                            outcome(lambda: setattr(r, "path", "q"))) for r in records])

    def test_functions_are_the_stubs_and_behave_as_defs(self):
        # The stub run as Python, its annotations kept as texts: functions, record and `__all__`.
        stub, stubbed = Path(docs.__file__).with_name("registry_docs.pyi"), {}
        exec(compile(stub.read_bytes(), stub, "exec", __future__.CO_FUTURE_ANNOTATIONS), stubbed)
        functions = {name: f.__annotations__ for name, f in stubbed.items() if getattr(f, "__globals__", 0) is stubbed}
        own = {name: value for name, value in vars(docs).items() if type(value) is type(docs._code)}
        self.assertEqual([(name, f.__annotations__) for name, f in own.items()], list(functions.items()))
        self.assertEqual((stubbed["GeneratedFile"].__annotations__, stubbed["__all__"]),
                         (docs.GeneratedFile.__annotations__, docs.__all__))
        self.assertEqual(typing.get_type_hints(docs._tier_tools),
                         {"tier": registry.ToolTier, "return": list[registry.ToolSpec]})
        # The nested functions a caller can reach: a rebound `_MARKER` keeps what render_file and
        # rules_block hand to its `sub`.
        pairs = [(own[name], MODEL[name]) for name in own]
        marker, generated, saved = Keeping(), docs.GeneratedFile("f.md", (("a", str),)), docs._MARKER
        for side in (docs.__dict__, MODEL):
            side["_MARKER"] = marker
            side["render_file"]("<!-- registry:a -->\n<!-- /registry:a -->", generated)
            side["rules_block"]()
            side["_MARKER"] = saved
        self.assertEqual(len(marker.kept), 4)
        closures = [(docs._params_renderer(tool("t")), MODEL["_params_renderer"](tool("t")))]
        for module, model in pairs + closures + list(zip(marker.kept[:2], marker.kept[2:])):
            with self.subTest(model.__qualname__):
                self.assertEqual(described(module), described(model))
                self.assertTrue(module.__doc__ if module in own.values() else True)  # the model has none
                with self.assertRaises(TypeError):  # no defaults to take, unlike a def
                    module.__defaults__ = (1,)
        # The module only: a pickle names the module's function, and the model's defs are collected by design.
        self.assertIs(pickle.loads(pickle.dumps(docs.ordered_tools)), docs.ordered_tools)
        closure = docs._params_renderer(tool("t"))
        closure.itself, collected = closure, weakref.ref(closure)  # held through its own dict, and collected
        del closure
        gc.collect()
        self.assertIsNone(collected())

    def test_import_fails_as_the_model(self):
        script = f"""import importlib, runpy, sys
def load(run, name):
    try:
        run(name)
    except ImportError as e:
        return type(e).__name__, str(e), e.name, e.path
print(load(importlib.import_module, "{docs.__name__}"), load(runpy.run_path, {str(MODEL_FILE)!r}),
      "{docs.__name__}" in sys.modules, sep="\\n")"""
        routes = "quenor_dorvan/tool_routes.py"  # both names gone: the first imported is named
        for change in [lambda host: (host / routes).write_text((host / routes).read_text().replace(
                "def skill_table(", "def _gone(").replace("def rules_table(", "def _lost(")),
                       lambda host: (host / "quenor_dorvan/workers/api_endpoints.py").unlink()]:
            with tempfile.TemporaryDirectory() as directory:
                shutil.copytree(Path(docs.__file__).parents[2], directory, dirs_exist_ok=True)
                change(Path(directory))
                module, model, kept = subprocess.run([sys.executable, "-c", script], env=dict(
                    os.environ, PYTHONPATH=directory), capture_output=True, text=True, check=True).stdout.split("\n")[:3]
            self.assertEqual((module, kept), (model, "False"))
            self.assertIn("Error", module)

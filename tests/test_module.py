"""The module as callers see it: its namespace, its functions, argument binding and its import."""

import __future__
import collections.abc
import copy
import dataclasses
import gc
import inspect
import os
import pickle
import re
import shutil
import subprocess
import sys
import tempfile
import typing
import unittest
import weakref
from pathlib import Path

import quenor_dorvan.setup.config as config
import quenor_dorvan.tool_registry as registry
import quenor_dorvan.tool_routes as routes
import quenor_dorvan.tool_schemas as schemas
import quenor_dorvan.workers.api_endpoints as endpoints
from support import DELETE, docs, python_model, rebound, tool
from test_stub import stub

# Taken before any test rebinds a name (restoring a deleted name moves it to the end).
KEYS_AT_IMPORT = list(docs.__dict__)

HOST_NAMES = {
    "QUENOR_INSTRUCTION_CONTENT": config, "without_markers": config, "TOOLS": registry,
    "ParamSpec": registry, "ToolSpec": registry, "ToolTier": registry, "rules_table": routes,
    "skill_table": routes, "get_cli_schema": schemas, "snake_to_kebab": schemas,
    "ENDPOINT_FRAMEWORKS": endpoints,
}

# Every function in definition order, with its parameters' and its return annotation texts, as
# the type stub states them (test_stub holds the stub to the module's own annotations).
SIGNATURES = {name: (dict(texts[:-1]), texts[-1][1]) for name, texts in stub()[0].items()}
DOCSTRINGS = {
    "ordered_tools": "The tools in the order the docs list them: by tier, then in registry order.",
    "_tier_tools": "The tools of one tier, in registry order.",
    "_actions_cell":
        "A tool's actions as code spans, or the placeholder for a tool without actions.",
    "cli_usage":
        "The shortest command line that runs the tool: its required parameters, as placeholders.",
    "_code": "Text as a Markdown code span.",
    "_cell": "Text made safe for one cell of a Markdown table.",
    "_row": "One row of a Markdown table.",
    "_table": "A Markdown table: the header, its rule and the rows.",
    "_value": "A default or a bound as a reader writes it (JSON spelling for booleans).",
}


class NamespaceTest(unittest.TestCase):
    def test_globals(self):
        self.assertEqual(docs.__all__, [
            "GeneratedFile", "rules_block", "skill_routes_block", "block_names", "generated_files",
            "cli_usage", "mcp_cli_block", "mcp_intro_block", "mcp_overview_block",
            "mcp_params_block", "ordered_tools", "readme_tools_block", "render_file",
            "skill_tools_block", "stale_blocks", "write_blocks"])
        self.assertEqual(docs._TIERS, ("core", "extended"))
        self.assertEqual(docs._TIERS, typing.get_args(registry.ToolTier))
        self.assertEqual(docs._NONE, "--")
        self.assertEqual(docs._MARKER, re.compile(
            r"(?P<open><!-- registry:(?P<name>[\w:-]+) -->\n)(?P<body>.*?)"
            r"(?P<close><!-- /registry:(?P=name) -->)", re.DOTALL))
        self.assertEqual(docs.__annotations__, {"_TIERS": "tuple[ToolTier, ...]"})
        self.assertIsNone(docs.__cached__)
        self.assertEqual(docs.__file__, docs.__spec__.origin)
        self.assertEqual(Path(docs.__file__).suffix, ".so")
        imported = {"annotations": __future__.annotations, "re": re,
                    "Callable": collections.abc.Callable, "Iterable": collections.abc.Iterable,
                    "dataclass": dataclasses.dataclass, "Path": Path, "Any": typing.Any,
                    "get_args": typing.get_args}
        imported.update({name: getattr(module, name) for name, module in HOST_NAMES.items()})
        for name, value in imported.items():
            self.assertIs(docs.__dict__[name], value, name)

    def test_key_order(self):
        # A module body binds these in this order; __builtins__ is there before its first line.
        self.assertEqual(KEYS_AT_IMPORT, [
            "__name__", "__doc__", "__package__", "__loader__", "__spec__", "__file__",
            "__cached__", "__builtins__", "__annotations__", "annotations", "re", "Callable",
            "Iterable", "dataclass", "Path", "Any", "get_args", *HOST_NAMES, "__all__", "_TIERS",
            "_NONE", "_MARKER", *list(SIGNATURES)[:23], "GeneratedFile", *list(SIGNATURES)[23:]])

    def test_tiers_are_fixed_at_import(self):
        stand_ins = [tool("a", "extended"), tool("b", "core")]
        with rebound(ToolTier=typing.Literal["extended", "core"], TOOLS=stand_ins):
            self.assertEqual([t.name for t in docs.ordered_tools()], ["b", "a"])


class FunctionTest(unittest.TestCase):
    def test_metadata(self):
        self.assertEqual(len(SIGNATURES), 31)
        for name, (params, returns) in SIGNATURES.items():
            with self.subTest(name):
                function = getattr(docs, name)
                self.assertEqual((function.__name__, function.__qualname__), (name, name))
                self.assertEqual(function.__module__, "quenor_dorvan.setup.registry_docs")
                self.assertEqual(function.__annotations__, {**params, "return": returns})
                signature = inspect.signature(function)
                self.assertEqual(signature.return_annotation, returns)
                parameters = signature.parameters.values()
                self.assertEqual(
                    [(p.name, p.kind, p.annotation, p.default) for p in parameters],
                    [(p, inspect.Parameter.POSITIONAL_OR_KEYWORD, text, inspect.Parameter.empty)
                     for p, text in params.items()])
                self.assertIsInstance(function.__doc__, str)
                self.assertTrue(function.__doc__)
                if name in DOCSTRINGS:
                    self.assertEqual(function.__doc__, DOCSTRINGS[name])
        self.assertEqual(typing.get_type_hints(docs.cli_usage),
                         {"tool": registry.ToolSpec, "return": str})
        self.assertEqual(typing.get_type_hints(docs._tier_tools),
                         {"tier": registry.ToolTier, "return": list[registry.ToolSpec]})

    def test_behaves_as_a_def(self):
        # Read through a class it binds to the instance; copies and pickles are the function itself.
        holder = type("Holder", (), {"code": docs._code, "__format__": lambda self, spec: "me"})
        self.assertEqual(holder().code(), "`me`")
        self.assertIs(holder.code, docs._code)
        self.assertIs(copy.copy(docs.cli_usage), docs.cli_usage)
        self.assertIs(copy.deepcopy([docs._cell])[0], docs._cell)
        self.assertIs(pickle.loads(pickle.dumps(docs.ordered_tools)), docs.ordered_tools)

    def test_own_dict_and_no_defaults(self):
        # Beside the model's defs: a dict a caller may fill, and defaults of None.
        model = python_model()
        pairs = [(docs.cli_usage, model["cli_usage"]),
                 (docs._params_renderer(tool("t")), model["_params_renderer"](tool("t")))]

        def attributes(function):
            function.custom = 1
            function.__defaults__ = function.__kwdefaults__ = None
            seen = vars(function).copy(), function.__defaults__, function.__kwdefaults__
            del function.custom
            return seen, vars(function)

        for native, model_function in pairs:
            with self.subTest(native.__qualname__):
                self.assertEqual(attributes(native), attributes(model_function))
                with self.assertRaises(TypeError):  # no defaults to take
                    native.__defaults__ = (1,)
        # A closure that holds itself through its dict is collected.
        closure = docs._params_renderer(tool("t"))
        closure.itself = closure
        collected = weakref.ref(closure)
        del closure
        gc.collect()
        self.assertIsNone(collected())

    def test_argument_errors_and_names_resolved_at_each_call(self):
        def outcome(call):
            try:
                return call()
            except TypeError as error:
                return str(error)
            except NameError as error:
                return str(error), error.name

        suggestion = ". Did you mean 'tool'?" if sys.version_info >= (3, 13) else ""
        with_actions, value = tool("t", actions=("by_name", "by_path")), docs._value
        for names, call, expected in [
                ({}, lambda: docs.cli_usage(), "cli_usage() missing 1 required positional argument: 'tool'"),
                ({}, lambda: docs.cli_usage(1, 2), "cli_usage() takes 1 positional argument but 2 were given"),
                ({}, lambda: docs.ordered_tools(1), "ordered_tools() takes 0 positional arguments but 1 was given"),
                ({}, lambda: docs.cli_usage(1, 2, x=3), "cli_usage() got an unexpected keyword argument 'x'"),
                ({}, lambda: docs.cli_usage(tol=1),
                 "cli_usage() got an unexpected keyword argument 'tol'" + suggestion),
                ({}, lambda: docs.cli_usage(1, tool=2), "cli_usage() got multiple values for argument 'tool'"),
                ({}, lambda: docs.cli_usage(**{1: 2}), "keywords must be strings"),
                ({}, lambda: docs._actions_cell(placeholder="--"),
                 "_actions_cell() missing 1 required positional argument: 'tool'"),
                ({}, lambda: docs.render_file(),
                 "render_file() missing 2 required positional arguments: 'text' and 'generated'"),
                ({}, lambda: docs._actions_cell(placeholder="--", tool=with_actions), "`by_name`, `by_path`"),
                (dict(generated_files=lambda: ()), lambda: docs.stale_blocks(root=Path("nowhere")), []),
                (dict(TOOLS=DELETE), docs.ordered_tools, ("name 'TOOLS' is not defined", "TOOLS")),
                (dict(_code=DELETE), lambda: docs._actions_cell(with_actions, "--"),
                 ("name '_code' is not defined", "_code")),
                (dict(TOOLS=[tool("a")]), docs._tier_counts, "1 core and 0 extended"),
                (dict(_code=lambda text: f"<{text}>"), lambda: docs._actions_cell(with_actions, "--"),
                 "<by_name>, <by_path>"),
                (dict(_tier_tools=lambda tier: [tier] * len(tier), _TIERS=("ab", "c")), docs._tier_counts,
                 "2 ab and 1 c"),
                (dict(snake_to_kebab=str.upper), lambda: docs.cli_usage(tool("a_b")), "quenor-dorvan query A_B"),
                (dict(_row=lambda cells: "row"), lambda: docs._table(("A",), [["x"]]), ["row"] * 3),
                # A name holding another of the module's own functions runs that one.
                (dict(_code=docs._value), lambda: docs._actions_cell(with_actions, "--"), "by_name, by_path"),
                (dict(_row=docs._code), lambda: docs._table(("A",), [["x"]]),
                 ["`('A',)`", "`['---']`", "`['x']`"]),
                (dict(_value=docs._code), lambda: value([1, (2,)]),
                 "`1`, `(2,)`"),
                (dict(_tier_tools=docs._code), docs._tier_counts, "6 core and 10 extended")]:
            with self.subTest(expected=expected), rebound(**names):
                self.assertEqual(outcome(call), expected)


class ImportTest(unittest.TestCase):
    def import_in_copy(self, change):
        """Imports the module from a changed copy of the host package: the error, what is left."""
        host = Path(docs.__file__).parents[2]
        with tempfile.TemporaryDirectory() as directory:
            root = Path(directory)
            shutil.copytree(host, root, dirs_exist_ok=True,
                            ignore=shutil.ignore_patterns("__pycache__"))
            change(root / "quenor_dorvan")
            script = (
                "import sys\n"
                "try:\n"
                "    import quenor_dorvan.setup.registry_docs\n"
                "except ImportError as error:\n"
                "    print(repr((type(error).__name__, str(error), error.name, error.path)))\n"
                "print('quenor_dorvan.setup.registry_docs' in sys.modules)\n")
            env = dict(os.environ, PYTHONPATH=str(root), PYTHONDONTWRITEBYTECODE="1")
            done = subprocess.run([sys.executable, "-c", script], env=env, capture_output=True,
                                  text=True, check=True)
            return done.stdout, str(root / "quenor_dorvan")

    def test_missing_host_name_or_module(self):
        def drop_skill_table(package):
            routes_file = package / "tool_routes.py"
            text = routes_file.read_text()
            routes_file.write_text(text.replace("def skill_table(", "def _gone("))

        output, package = self.import_in_copy(drop_skill_table)
        path = f"{package}/tool_routes.py"
        message = f"cannot import name 'skill_table' from 'quenor_dorvan.tool_routes' ({path})"
        expected = ("ImportError", message, "quenor_dorvan.tool_routes", path)
        self.assertEqual(output, f"{expected!r}\nFalse\n")

        output, _ = self.import_in_copy(
            lambda package: (package / "workers" / "api_endpoints.py").unlink())
        module = "quenor_dorvan.workers.api_endpoints"
        expected = ("ModuleNotFoundError", f"No module named '{module}'", module, None)
        self.assertEqual(output, f"{expected!r}\nFalse\n")


if __name__ == "__main__":
    unittest.main()

"""The type stub beside the module states the module's own annotations, name for name.

mypy's stubtest checks names, parameters and values where mypy is installed; the annotation texts
are checked here, on every interpreter.
"""

import ast
import unittest
from pathlib import Path

from support import docs


def stub():
    """The stub's functions ({name: [(parameter, annotation), ..., ("return", annotation)]}, in
    order), classes' fields, annotated variables and `__all__`."""
    tree = ast.parse(Path(docs.__file__).with_name("registry_docs.pyi").read_text("utf-8"))
    functions, records, variables, exported = {}, {}, {}, None
    for node in tree.body:
        if isinstance(node, ast.FunctionDef):
            functions[node.name] = [(arg.arg, ast.unparse(arg.annotation)) for arg in node.args.args]
            functions[node.name].append(("return", ast.unparse(node.returns)))
        elif isinstance(node, ast.ClassDef):
            records[node.name] = [(field.target.id, ast.unparse(field.annotation))
                                  for field in node.body if isinstance(field, ast.AnnAssign)]
        elif isinstance(node, ast.AnnAssign):
            variables[node.target.id] = ast.unparse(node.annotation)
        elif isinstance(node, ast.Assign) and node.targets[0].id == "__all__":
            exported = ast.literal_eval(node.value)
    return functions, records, variables, exported


class StubTest(unittest.TestCase):
    def test_states_the_module_annotations(self):
        functions, records, variables, exported = stub()
        function_type = type(docs.ordered_tools)
        self.assertEqual(list(functions.items()), [
            (name, list(value.__annotations__.items())) for name, value in vars(docs).items()
            if isinstance(value, function_type)])
        self.assertEqual(records, {"GeneratedFile": list(docs.GeneratedFile.__annotations__.items())})
        self.assertEqual(exported, docs.__all__)
        self.assertEqual(set(variables), {"_TIERS", "_NONE", "_MARKER"})
        self.assertEqual({name: variables[name] for name in docs.__annotations__}, docs.__annotations__)


if __name__ == "__main__":
    unittest.main()

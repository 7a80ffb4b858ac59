"""The one harness: a case binds its world (host data, callbacks, names) into the module's namespace
and into the model's, makes one call, and may act when the call reaches a site (a field read, a
callback, a file read or write). Both sides must end alike, after the same reads and callbacks in
the same order."""

import collections
import contextlib
import dataclasses
import os
import shutil
import sys
import tempfile
import types
import unittest
from pathlib import Path

import quenor_dorvan.setup.registry_docs as docs

EXAMPLE = Path(os.environ.get("REGISTRY_DOCS_EXAMPLE", Path(__file__).resolve().parents[1] / "example"))
MODEL_FILE = Path(__file__).with_name("reference_model.py")


# The model run into a copy of the module's globals, where it looks up every name it reads.
MODEL = dict(vars(docs), __annotations__={})
exec(compile(MODEL_FILE.read_text("utf-8"), MODEL_FILE, "exec"), MODEL)
SIDES = {"module": docs.__dict__, "model": MODEL}


# A case: a label (up to its first colon, the kind by which mismatches are counted); its world (side ->
# the names to bind, made for each side); its call (side -> result); the action to run the nth time
# the call reaches a site; and what to compare once the call ended (side -> value).
Case = collections.namedtuple("Case", "label world call site nth action after", defaults=(None, 1, None, None))


class Side:
    """One run of a case: its namespace, what the call reached, the errors its callbacks raised."""

    running = None

    def __init__(self, ns, case):
        self.ns, self.case, self.events, self.raised, self.count = ns, case, [], [], collections.Counter()

    def reached(self, site, detail=None):
        self.events.append(detail or site)
        self.count[site] += 1
        if site == self.case.site and self.count[site] == self.case.nth:
            self.case.action(self)

    def fail(self, message="raised by a callback"):
        self.raised.append(RuntimeError(message))
        raise self.raised[-1]


def reached(site, detail=None):
    return Side.running and Side.running.reached(site, detail)


def callback(site, result):
    """A host callback: reaching it is a site; it returns `result`, or calls it with its arguments."""
    return lambda *args: reached(site) or (result(*args) if callable(result) else result)


class Record:
    """Host data (a tool, a parameter, a file record) whose every field read is a site."""

    def __init__(self, tag, **fields):
        vars(self).update(tag=tag, fields=fields)

    def __getattr__(self, field):
        reached(field, f"{self.tag}.{field}")
        if field not in self.fields:
            raise AttributeError(f"{self.tag} has no field {field!r}")
        return self.fields[field]


# A schema mapping whose reads, through each operation Python code uses on one, are sites.
RecordedDict = type("RecordedDict", (dict,), {method: lambda self, *args, method=method: reached(
    "schema", f"{method}{args!r}") or getattr(dict, method)(self, *args) for method in (
    "__getitem__", "get", "__contains__", "__iter__")})


def recorded(value):
    return RecordedDict({key: recorded(item) for key, item in value.items()}) if type(value) is dict else value


def param(name, **fields):
    fields = {"required": False, "default": None, "action_defaults": (), "applies_to": (),
              "values_text": lambda formatter: "", **fields}
    return Record(f"param {name}", name=name, **fields)


def tool(name, tier="core", *, actions=(), summary="", mcp_text="", params=()):
    return Record(f"tool {name}", name=name, tier=tier, summary=summary, mcp_text=mcp_text,
                  action_names=list(actions), actions=list(actions), all_params=list(params))


def call(name, *args):
    return lambda side: side.ns[name](*args)


def block(name, body):
    return f"<!-- registry:{name} -->\n{body}<!-- /registry:{name} -->"


def shown(value):
    """A result as compared: host data by its tag, functions by name, mappings in their order."""
    if isinstance(value, Record):
        return value.tag
    if callable(value) and hasattr(value, "__qualname__"):
        return f"<{value.__qualname__}>"
    if isinstance(value, (list, tuple)):
        return type(value)(map(shown, value)) if type(value) in (list, tuple) else shown(list(value))
    if isinstance(value, dict):
        return [(shown(key), shown(item)) for key, item in value.items()]
    return value


def kinds(value):
    """The types of a result and of all it holds, and the size of each str: an equal str of another
    class is another result, and one whose ASCII flag or storage width its characters do not call
    for (the two decide the layout) has another size than the interpreter's own."""
    inner = value.items() if isinstance(value, dict) else value if isinstance(value, (list, tuple)) else ()
    return type(value).__qualname__, isinstance(value, str) and sys.getsizeof(value), [kinds(item) for item in inner]


def tried(function):
    try:
        return function()
    except Exception as failure:  # compared by how it failed: an error whose text fails, an attribute not set
        return "raises", type(failure)


def attributes(error):
    """The attributes an error's classes add to BaseException's (`name`, `obj`, `errno`, ...), and its own."""
    names = [key for kind in type(error).__mro__[:-2] for key, value in vars(kind).items() if not key.startswith(
        "__") and isinstance(value, (types.MemberDescriptorType, types.GetSetDescriptorType))]
    return {key: tried(lambda: shown(getattr(error, key))) for key in [*names, *getattr(error, "__dict__", {})]}


def error_seen(side, error, depth=4):
    """All a caller can see of an error: type, args, text, attributes, whether a callback raised it, and
    the same of its cause and context, down the chain."""
    if error is None or not depth:
        return None
    return (type(error), tried(lambda: str(error)), shown(error.args), kinds(error.args), attributes(error),
            any(error is e for e in side.raised), error.__traceback__ is not None, error.__suppress_context__,
            error_seen(side, error.__cause__, depth - 1), error_seen(side, error.__context__, depth - 1))


def outcome(side, call):
    previous, Side.running = Side.running, side
    try:
        return ("ok", shown(result := call(side)), kinds(result))
    except RecursionError:
        return ("error", RecursionError)  # worded by the depth at which it is noticed
    except Exception as error:  # compared with the other side's, never swallowed
        return ("error", *error_seen(side, error))
    finally:
        Side.running = previous


Text = type("Text", (str,), {})  # a str subclass that adds nothing
FORMS = ("literal", "built", "subclass")
MEMOS = {}
PLAIN = {int, float, bool, type(None), bytes}  # nothing in them to make anew
TESTS = str(Path(__file__).parent)


def fresh(value, form, memo, depth=0):
    """`value` with every text in it made anew: an equal str built at run time (never the interned
    object a literal is, one Latin-1 character or none excepted), or a `Text`. Containers, records and
    the tests' own functions are copied around them, keeping which object stood where."""
    kind = type(value)
    if kind in PLAIN or depth > 50:  # deeper than host data, as deep as values nested on purpose
        return value
    if id(value) in memo:
        return memo[id(value)][1]
    again = lambda item: fresh(item, form, memo, depth + 1)  # noqa: E731
    if kind is str:
        new = Text(value) if form == "subclass" else value[:1] + value[1:] if len(value) > 1 else (
            chr(ord(value)) if value else value)
    elif isinstance(value, (list, dict, Record)):
        new = kind.__new__(kind)
        vars(new).update(vars(value)) if hasattr(value, "__dict__") else None
    elif isinstance(value, tuple):
        new = kind.__new__(kind, map(again, tuple.__iter__(value)))
    elif isinstance(value, types.FunctionType) and value.__code__.co_filename.startswith(TESTS):
        new = types.FunctionType(value.__code__, value.__globals__, value.__name__, again(value.__defaults__),
                                 again(value.__closure__))
    elif kind is types.CellType:
        new = types.CellType()
        with contextlib.suppress(ValueError):  # an empty cell stays empty
            new.cell_contents = again(value.cell_contents)
    elif isinstance(value, types.BuiltinMethodType) and isinstance(value.__self__, (dict, list)):
        new = getattr(again(value.__self__), value.__name__)
    elif dataclasses.is_dataclass(value) and not isinstance(value, type):
        new = dataclasses.replace(value, **{field.name: again(getattr(value, field.name))
                                            for field in dataclasses.fields(value) if field.init})
    else:
        return value
    memo[id(value)] = (value, new)  # the value is kept, so that its id is not reused meanwhile
    if isinstance(value, Record):
        new.fields = again(value.fields)
    elif isinstance(value, list):
        list.extend(new, map(again, list.__iter__(value)))  # past a walk of its own
    elif isinstance(value, dict):
        dict.update(new, [(again(key), again(item)) for key, item in dict.items(value)])
    return new


def run_case(case, ns, form="literal"):
    """The case on one side, with the host's texts in one of the `FORMS`: what it ended with, what
    `after` saw, and what it reached."""
    saved, side = dict(ns), Side(ns, case)
    try:
        names, side.call = case.world(side), case.call
        ns.update(names)
        if form != "literal":
            if names is not MEMOS.get("names"):  # a world made once serves many cases: it is made anew once
                MEMOS.clear()
                MEMOS["names"] = names
            memo = MEMOS.setdefault(form, {})
            ns.update({key: fresh(value, form, memo) for key, value in ns.items()
                       if key in names or saved.get(key, ns) is not value})
            for key in vars(side).keys() - {"ns", "case", "events", "raised", "count"}:
                setattr(side, key, fresh(getattr(side, key), form, memo))
        return outcome(side, side.call), case.after(side) if case.after else None, side.events
    finally:
        ns.clear()
        ns.update(saved)


class Comparison(unittest.TestCase):
    """Runs cases on both sides; `compared()` fails on any difference, showing the first few."""

    maxDiff = None

    def setUp(self):
        self.mismatches, self.ends = collections.Counter(), collections.Counter()

    def compared(self, cases, forms=FORMS):  # the literal form's outcome of each case, by label
        ends = {case.label: [self.same_in(case, form) for form in forms][0] for case in cases}
        self.assertEqual(+self.mismatches, {}, "cases whose outcome or reads differ, by kind")
        return ends

    def same_in(self, case, form):
        module, model = (run_case(case, ns, form) for ns in SIDES.values())
        kind = case.label.split(":")[0]
        self.ends[kind, module[0][0]] += 1
        self.mismatches[kind] += module != model
        if module != model and self.mismatches[kind] <= 2:
            with self.subTest(f"{case.label} [{form}]"):
                self.assertEqual(module, model)
        return module[0]


@contextlib.contextmanager
def example_copy(with_module=False):
    """The root of a temporary copy of the example host, with this build's module if asked."""
    with tempfile.TemporaryDirectory() as directory:
        shutil.copytree(EXAMPLE, root := Path(directory) / "example", ignore=shutil.ignore_patterns("__pycache__"))
        if with_module:
            shutil.copy(docs.__file__, root / "src/quenor_dorvan/setup")
        yield root

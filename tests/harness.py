"""The one harness: a case binds its world (host data, callbacks, names) into the module's namespace
and into the model's, makes one call, and may act when the call reaches a site (a field read, a
callback, a file read or write). Both sides must end alike, after the same reads and callbacks in
the same order, and every str the module returns must be well formed."""

import collections
import contextlib
import dataclasses
import os
import shutil
import sys
import tempfile
import unittest
from pathlib import Path
from typing import Callable, Optional

import quenor_dorvan.setup.registry_docs as docs

EXAMPLE = Path(os.environ.get("REGISTRY_DOCS_EXAMPLE", Path(__file__).resolve().parents[1] / "example"))
MODEL_FILE = Path(__file__).with_name("reference_model.py")


def python_model():
    """The model run into a copy of the module's globals, where it looks up every name it reads."""
    namespace = dict(docs.__dict__)
    exec(compile(MODEL_FILE.read_text(encoding="utf-8"), str(MODEL_FILE), "exec"), namespace)
    return namespace


MODEL = python_model()
SIDES = {"module": docs.__dict__, "model": MODEL}


@dataclasses.dataclass
class Case:
    label: str  # up to its first colon, the kind by which mismatches are counted
    world: Callable  # side -> the names to bind, made fresh for each side
    call: Callable  # side -> result
    site: Optional[str] = None  # the action runs the nth time the call reaches the site
    nth: int = 1
    action: Optional[Callable] = None
    after: Optional[Callable] = None  # side -> what to compare once the call ended


class Side:
    """One run of a case: its namespace, what the call reached, the errors its callbacks raised."""

    running = None

    def __init__(self, ns, case):
        self.ns, self.case = ns, case
        self.events, self.raised, self.count = [], [], collections.Counter()

    def reached(self, site, detail=None):
        self.events.append(detail or site)
        self.count[site] += 1
        if site == self.case.site and self.count[site] == self.case.nth:
            self.case.action(self)

    def fail(self, message="raised by a callback"):
        error = RuntimeError(message)
        self.raised.append(error)
        raise error


def reached(site, detail=None):
    if Side.running:
        Side.running.reached(site, detail)


def callback(site, result):
    """A host callback: reaching it is a site; it returns `result`, or calls it with its arguments."""
    def call(*args):
        reached(site)
        return result(*args) if callable(result) else result

    return call


class Record:
    """Host data (a tool, a parameter, a file record) whose every field read is a site."""

    def __init__(self, tag, **fields):
        vars(self).update(tag=tag, fields=fields)

    def __getattr__(self, field):
        reached(field, f"{self.tag}.{field}")
        if field not in self.fields:
            raise AttributeError(f"{self.tag} has no field {field!r}")
        return self.fields[field]

    def __delattr__(self, field):
        self.fields.pop(field, None)


# A schema mapping whose reads, through each operation Python code uses on one, are sites.
RecordedDict = type("RecordedDict", (dict,), {method: lambda self, *args, method=method: reached(
    "schema", f"{method}{args!r}") or getattr(dict, method)(self, *args) for method in (
    "__getitem__", "get", "__contains__", "__iter__")})


def recorded(value):
    if type(value) is not dict:
        return value
    return RecordedDict({key: recorded(item) for key, item in value.items()})


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


def outcome(side, call):
    previous, Side.running = Side.running, side
    try:
        return ("ok", shown(call(side)))
    except RecursionError:
        return ("error", RecursionError)  # worded by the depth at which it is noticed
    except Exception as error:  # compared with the other side's, never swallowed
        try:
            text = str(error)
        except Exception as failure:  # an error whose text fails is compared by that failure
            text = f"str() raised {failure!r}"
        context = error.__context__  # an error raised while another was handled: kept, with its traceback
        return ("error", type(error), text, any(error is e for e in side.raised), type(context),
                getattr(context, "__traceback__", None) is not None)
    finally:
        Side.running = previous


def texts(value):
    return [value] if type(value) is str else [t for v in value for t in texts(v)] if isinstance(value, (
        list, tuple)) else []


def malformed(text):
    """An ASCII flag or a storage width that its characters do not call for: still equal to the right str."""
    rebuilt = text.encode("utf-32-le", "surrogatepass").decode("utf-32-le", "surrogatepass")
    return text.isascii() != (max(map(ord, text), default=0) < 128) or (
        sys.getsizeof(text) != sys.getsizeof(rebuilt))


def run_case(case, ns):
    saved, side = dict(ns), Side(ns, case)
    try:
        ns.update(case.world(side))
        result = outcome(side, case.call)
        return result, case.after(side) if case.after else None, side.events
    finally:
        ns.clear()
        ns.update(saved)


class Comparison(unittest.TestCase):
    """Runs cases on both sides; `agreed()` fails on any difference, showing the first few."""

    maxDiff = None

    def setUp(self):
        self.mismatches, self.ends, self.bad_texts = collections.Counter(), collections.Counter(), {}

    def same(self, case):
        module, model = (run_case(case, ns) for ns in SIDES.values())
        kind = case.label.split(":")[0]
        self.ends[kind, module[0][0]] += 1
        for text in filter(malformed, texts(module[:2])):
            self.bad_texts.setdefault(kind, text)
        self.mismatches[kind] += module != model
        if module != model and self.mismatches[kind] <= 2:
            with self.subTest(case.label):
                self.assertEqual(module, model)
        return module[0]

    def agreed(self):
        self.assertEqual(+self.mismatches, {}, "cases whose outcome or reads differ, by kind")
        self.assertEqual(self.bad_texts, {}, "strs with a wrong ASCII flag or storage width")


@contextlib.contextmanager
def example_copy():
    """A temporary copy of the example host repository; yields its root."""
    with tempfile.TemporaryDirectory() as directory:
        root = Path(directory) / "example"
        shutil.copytree(EXAMPLE, root, ignore=shutil.ignore_patterns("__pycache__"))
        yield root

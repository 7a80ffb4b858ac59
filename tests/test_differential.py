"""The native module against a pure-Python model of it, on random registries and marked files."""

import collections
import random
import sys
import types
import unittest

import support
from support import docs, param, rebound, tool

SEED, CASES = 20240611, 400
LOG = []  # attribute and key reads of the recorded registries, in the order they happen
HOST = {name: docs.__dict__[name] for name in ("skill_table", "without_markers", "snake_to_kebab")}
# \u200b is not whitespace to str.split: it must stay inside a word.
SPACES = [" ", "\t", "\n", "\x0b", "\x0c", "\r", "\x1c", "\x1d", "\x1e", "\x1f", "\x85", "\xa0",
          "\u1680", *map(chr, range(0x2000, 0x200b)), "\u2028", "\u2029", "\u202f", "\u205f",
          "\u3000", "\u200b"]
# Texts of each storage width: Latin-1 only, with BMP letters and lone surrogates, with astral ones.
WORDS = ["find", "a|b", "|", "\\", "\\d", "{x}", "{", "}", "`code`", "why?", "done.", "\\1",
         "\\g<0>", "é", "ÿ|"]
WIDE_WORDS = ["\ud800", "\udfff", "ǅ", "Ωμέγα", "名前", "\U0001f600", "𝔘|", "\U0010ffff"]
NAME_PARTS = ["search", "find", "refs", "x", "v2", "2", "é", "名", "ǅ", "Ⅻ", "", "token", "𝔘"]
TIERS = ["core", "extended", "beta", "EXTENDED", "Core", "ǆemo", "ßeta", "İx", "ΟΔΟΣ", "a-b"]
VALUES = [None, True, False, 0, 7, -3, 10**30, -10**20, 0.5, 1e-5, 1e16, -0.0, float("inf"),
          float("nan"), 3.0, "", "x|y", " a  b ", "\ud800", [1, [2, True]], (False, None), [],
          ("a", 0.5)]
BOUNDS = [None, None, 0, 1, -2, 0.5, True, 1e16]
MARKER_NAMES = ["a", "b", "a:b", "x-1", "é", "_", "٣", "Ⅻ", "𝔘", "a\u200b"]
RENDERED = ["", "x", "\\1 {x} \\g<0>", "a\\\\b}{", "{{}}", "\ud800\n", "line\r\n"]
# Stand-ins for `_table` and `_row` that read the lazy rows in other orders, or only in part.
READERS = [("_table", lambda head, rows: [" ".join(head), *(c for r in list(rows) for c in r)]),
           ("_table", lambda head, rows: [cell for row in rows for cell in [next(row, "")]]),
           ("_row", lambda cells: "/".join(list(cells)[::-1])),
           ("_row", lambda cells: next(iter(cells), "-"))]


def text(rng, words=4):
    """Words joined by random runs of (mostly) whitespace, often all in Latin-1."""
    latin1 = rng.random() < 0.4
    spaces = [c for c in SPACES if c < "\u0100"] if latin1 else SPACES
    runs = ["".join(rng.choices(spaces, k=rng.randint(0, 2))) for _ in range(words + 1)]
    pool = WORDS if latin1 else WORDS + WIDE_WORDS
    return "".join(run + rng.choice(pool) for run in runs[:-1]) + runs[-1]


def name(rng):
    return "_".join(rng.choice(NAME_PARTS) for _ in range(rng.randint(1, 3)))


def marked_text(rng):
    parts = []
    for _ in range(rng.randint(0, 10)):
        marker, kind = rng.choice(MARKER_NAMES), rng.random()
        if kind < 0.4:
            body = rng.choice(["", "old\n", "<!-- registry:a -->\n"])
            parts.append(f"<!-- registry:{marker} -->\n{body}<!-- /registry:{marker} -->")
        elif kind < 0.7:
            parts.append(rng.choice([f"<!-- registry:{marker} -->" + rng.choice(["\n", "\r\n", ""]),
                                     f"<!-- /registry:{marker} -->"]))
        else:
            parts.append(rng.choice(["\n", "\r\n", " x ", "\\1", "{y}", "\ud800", "<!-- ", "-->", " -->\n",
                                     "<!-- registry:", "<!-- /registry:", "a b", "\U0001f600"]))
    return "".join(parts)


def new_param(rng, actions):
    pick, shown = rng.random(), rng.sample(VALUES, 3)
    action_defaults = tuple(rng.choice([tuple, list])((rng.choice([*actions, "list", 3]),
                                                        rng.choice(VALUES)))
                            for _ in range(rng.randint(0, 2)))
    if pick < 0.015:
        action_defaults = (rng.choice([("list",), ("list", 1, 2)]),)
    values = rng.choice(["", " ", text(rng, 2),
                         lambda f: "One of " + ", ".join(f(value) for value in shown) + "."])
    return param(name(rng), required=rng.random() < 0.4,
                 default=10**5000 if pick > 0.995 else rng.choice(VALUES),
                 action_defaults=action_defaults, values=values,
                 applies_to=tuple(rng.sample(actions, rng.randint(0, len(actions)))))


def new_prop(rng):
    prop = {"type": rng.choice(["string", "integer", "number", "boolean", "array", "array"])}
    if prop["type"] == "array" and rng.random() < 0.6:
        prop["items"] = {"type": "string"} if rng.random() < 0.97 else {}
    if rng.random() < 0.7:
        prop["description"] = rng.choice([text(rng, 3), " \u2028\xa0 ", "Is it set?", "Done.", ""])
    prop.update((key, rng.choice(BOUNDS)) for key in ("minimum", "maximum") if rng.random() < 0.4)
    if rng.random() < 0.01:
        del prop["type"]
    return prop


class Recorded:
    """A tool or parameter that logs each attribute read: when and how often count as output."""

    def __init__(self, target, tag, **fields):
        self.__dict__.update(target=target, tag=tag, fields=fields)

    def __getattr__(self, attr):
        LOG.append(f"{self.tag}.{attr}")
        return self.fields[attr] if attr in self.fields else getattr(self.target, attr)


def logged(method):
    return lambda self, *args: LOG.append(f"{method}{args!r}") or getattr(dict, method)(self, *args)


# A schema mapping that logs each read made through the operations Python code uses on it.
RecordedDict = type("RecordedDict", (dict,), {method: logged(method) for method in (
    "__getitem__", "get", "__contains__", "__iter__")})


def recorded(value):
    if type(value) is not dict:
        return value
    return RecordedDict({key: recorded(item) for key, item in value.items()})


def registry(rng):
    tiers = ("core", "extended")
    if rng.random() < 0.3:
        tiers = rng.choice([tuple, tuple, list])(rng.choices(TIERS, k=rng.randint(1, 3)))
    tools = []
    for _ in range(rng.randint(0, 8)):
        actions = [name(rng) for _ in range(rng.randint(0, 3))]
        tier = rng.choice(tiers) if rng.random() < 0.97 else rng.choice(TIERS)
        tools.append(tool(name(rng), tier, actions=actions, summary=text(rng), mcp_text=text(rng),
                          params=[new_param(rng, actions) for _ in range(rng.randint(0, 5))]))
    schemas = {}
    for entry in tools:  # the schema names the same parameters, but for a few that do not
        keys, change = [p.name for p in entry.all_params], rng.random()
        keys = (rng.sample(keys, len(keys)) if change < 0.04 else keys[:-1] if change < 0.07
                else [*keys, "extra"] if change < 0.1 else keys)
        schemas[entry.name] = {"type": "object", "properties": {k: new_prop(rng) for k in keys},
                               "required": [p.name for p in entry.all_params if p.required]}
    if rng.random() < 0.25:
        schemas = recorded(schemas)
        tools = [Recorded(entry, i, all_params=tuple(Recorded(p, f"{i}.{j}")
                                                    for j, p in enumerate(entry.all_params)))
                 for i, entry in enumerate(tools)]
    table = rng.choice(RENDERED)
    names = dict(TOOLS=rng.choice([list, tuple])(tools), _TIERS=tiers,
                 get_cli_schema=lambda tool_name: schemas[tool_name], rules_table=lambda: table,
                 ENDPOINT_FRAMEWORKS={str(i): text(rng, 1) for i in range(rng.randint(0, 3))},
                 QUENOR_INSTRUCTION_CONTENT=marked_text(rng), **HOST)
    return names, schemas, dict([rng.choice(READERS)] if rng.random() < 0.2 else [])


def record(rng, found):
    """A GeneratedFile-like record over `found`'s names, a few of them wrong on purpose."""
    names, change = rng.sample(list(dict.fromkeys(found)), len(set(found))), rng.random()
    if change < 0.25:
        names = names[:-1] if change < 0.15 else [*names, rng.choice([*MARKER_NAMES, 1])]
    blocks = [(block, lambda shown=rng.choice(RENDERED): shown) for block in names]
    if rng.random() < 0.05:
        blocks.append(rng.choice([("a",), ("a", str, 1)]))
    return types.SimpleNamespace(path="docs/f.md", blocks=tuple(blocks), encode=rng.choice(
        [str, docs._skill_text, docs._literal_text]))


def texts(value):
    """Every str in a result, inside lists, tuples and dicts (keys too)."""
    if type(value) is str:
        yield value
    elif isinstance(value, (list, tuple)):
        for item in value:
            yield from texts(item)
    elif isinstance(value, dict):
        for key, item in value.items():
            yield from texts(key)
            yield from texts(item)


def malformed(text):
    """Whether a str breaks CPython's invariants: its ASCII flag or its storage width is not the
    one its characters call for. Such a str still compares equal to the right one."""
    rebuilt = text.encode("utf-32-le", "surrogatepass").decode("utf-32-le", "surrogatepass")
    ascii_only = max(map(ord, text), default=0) < 128
    return text.isascii() != ascii_only or sys.getsizeof(text) != sys.getsizeof(rebuilt)


def outcome(function, *args):
    try:
        return ("ok", function(*args))
    except Exception as error:  # compared with the model's, never swallowed
        return ("error", type(error), str(error))


class DifferentialTest(unittest.TestCase):
    maxDiff = None

    def test_native_matches_the_model(self):
        model = support.python_model()
        own = {key: model[key] for key in ("_table", "_row")}  # the model's, between stand-ins
        rng, kinds, mismatches = random.Random(SEED), collections.Counter(), collections.Counter()
        bad_texts = {}  # the module's malformed strs, by function: how many, and the first

        def same(case, label, function, *args, convert=lambda result: result):
            results = []
            for side in (docs.__dict__, model):
                LOG.clear()
                result = outcome(side[function], *args)
                if side is docs.__dict__:  # results and error messages alike
                    for text in filter(malformed, texts(result[1:])):
                        count, first = bad_texts.get(function, (0, text))
                        bad_texts[function] = (count + 1, first)
                results.append((convert(result) if result[0] == "ok" else result, LOG[:]))
            kind = label.split()[0]
            kinds[kind, results[0][0][0]] += 1
            mismatches[kind] += results[0] != results[1]
            if results[0] != results[1] and mismatches[kind] <= 3:  # the first few of each call
                with self.subTest(case=case, call=label):
                    self.assertEqual(*results)

        for case in range(CASES):
            names, schemas, readers = registry(rng)
            tools = names["TOOLS"]
            model.update(names, **{**own, **readers})
            with rebound(**names, **readers):
                same(case, "ordered_tools", "ordered_tools", convert=lambda result: (
                    "ok", [[t is s for s in tools].index(True) for t in result[1]]))
                for function in ("_tier_counts", "skill_tools_block", "readme_tools_block",
                                 "mcp_intro_block", "mcp_overview_block", "mcp_cli_block",
                                 "skill_routes_block", "rules_block"):
                    same(case, function, function)
                for i, entry in enumerate(tools):
                    same(case, f"mcp_params_block of tool {i}", "mcp_params_block", entry)
                    same(case, f"cli_usage of tool {i}", "cli_usage", entry)
                    properties = schemas[entry.name]["properties"]
                    for p in entry.all_params:
                        prop = properties[p.name] if p.name in properties else new_prop(rng)
                        same(case, f"_default_cell {p.name!r}", "_default_cell", p)
                        same(case, f"_type_cell {prop!r}", "_type_cell", prop)
                        same(case, f"_description_cell {p.name!r}", "_description_cell", p, prop)
                for _ in range(4):
                    marked, block = marked_text(rng), rng.choice(RENDERED) + text(rng, 2)
                    found = [match["name"] for match in docs._MARKER.finditer(marked)]
                    same(case, f"block_names {marked!r}", "block_names", marked)
                    same(case, f"_blocks {marked!r}", "_blocks", marked,
                         convert=lambda result: ("ok", list(result[1].items())))
                    same(case, f"render_file {marked!r}", "render_file", marked, record(rng, found))
                    same(case, f"_skill_text {block!r}", "_skill_text", block)
                    same(case, f"_literal_text {block!r}", "_literal_text", block)
        # The generated registries reach both the rendered and the failing paths.
        for label in ("ordered_tools", "mcp_params_block", "_default_cell", "_type_cell",
                      "render_file"):
            self.assertGreater(kinds[label, "ok"], kinds[label, "error"], label)
            self.assertGreater(kinds[label, "error"], kinds[label, "ok"] // 100, label)
        self.assertEqual(+mismatches, {}, "calls whose outcome or reads differ, by function")
        self.assertEqual(bad_texts, {}, "strs with a wrong ASCII flag or storage width")


if __name__ == "__main__":
    unittest.main()

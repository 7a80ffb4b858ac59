"""Memory and references stay flat over repeated calls of the comparison's cases, on the module
only (the model has no references to count): rounds of calls must leave the allocated blocks, less
one per four calls, and the reference counts of the module, its globals and the host data where
they were. Under PYTHONMALLOC=malloc (sanitizers, valgrind) only the counts, over a sample."""

import gc
import itertools
import sys
import unittest

import test_compare
import test_files
import test_kept
import test_text
from harness import Record, Side, docs, run_case

# Without counted blocks, young garbage only: walking the heap is slow under valgrind.
CALLS, WARMUP, SAMPLE, GENERATION = (100, 5, 1, 2) if sys.getallocatedblocks() > 0 else (2, 1, 7, 1)
UNWATCHED = (type(None), bool, int, float)  # shared singletons and cached numbers move with any code


def settle():  # up to 3.11 the type attribute cache holds names it looked up ("query"), until reused
    gc.collect(GENERATION)
    sys._clear_type_cache()


def watched(ns):
    """The module, and its globals and what they hold (host data and its fields), three levels deep."""
    items, found = {}, [("the module", docs, 0), *((name, value, 3) for name, value in ns.items())]
    for label, value, depth in found:
        if not isinstance(value, UNWATCHED) and id(value) not in items:
            items[id(value)] = (label, value)
            inner = value.fields if isinstance(value, Record) else value if type(value) is dict else dict(
                enumerate(value)) if type(value) in (list, tuple) else {}
            found += [(f"{label}.{key}", item, depth - 1) for key, item in inner.items()] if depth else []
    return list(items.values())


class LeakTest(unittest.TestCase):
    def flat(self, case):  # each call on a fresh world, as the comparison makes it
        calls = CALLS // 10 if case.after else CALLS  # the cases that make files
        for _ in range(WARMUP):
            run_case(case, docs.__dict__)
        side = Side(dict(docs.__dict__), case)
        objects, bound = watched({**docs.__dict__, **case.world(side)}), max(calls // 4, 1)
        # Only the collections made here: an automatic one could free older garbage, and with it
        # references to the objects watched, in the middle of a round.
        gc.disable()
        try:
            for _ in range(3):  # one of the rounds must be flat
                settle()
                counts, blocks = [sys.getrefcount(obj) for _, obj in objects], sys.getallocatedblocks()
                for _ in range(calls):
                    run_case(case, docs.__dict__)
                settle()
                grown = sys.getallocatedblocks() - blocks
                changed = {name: sys.getrefcount(obj) - count
                           for (name, obj), count in zip(objects, counts) if sys.getrefcount(obj) != count}
                if not changed and grown < bound:
                    break
        finally:
            gc.enable()
        with self.subTest(case.label):
            self.assertEqual(changed, {}, "references gained or lost over the calls")
            self.assertLess(grown, bound, f"blocks after {calls} calls")

    def test_comparison_cases(self):
        for case in itertools.islice(itertools.chain(
                test_compare.example_cases(), test_compare.odd_cases(), test_compare.midway_cases(),
                test_compare.table_cases(), test_kept.kept_cases(), test_text.scanner_cases(),
                test_text.width_cases(), test_files.file_cases(), test_compare.random_cases(count=5),
                itertools.islice(test_compare.action_cases(), 0, None, 14)), 0, None, SAMPLE):
            self.flat(case)

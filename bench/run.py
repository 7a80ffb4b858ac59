"""Benchmark of registry_docs against the pure-Python model and the host-call floor.

Every figure is a median over repeats taken in this one run, and every ratio compares figures of
this run: the machine is shared and noisy, so timings of different runs are not compared.
Run through `make bench` (which builds first), or with the built host on the path:

    PYTHONPATH=build/host python3.10 bench/run.py [--tools 2000] [--large 20000] [--repeats 9]
"""

import argparse
import contextlib
import ctypes
import gc
import json
import statistics
import subprocess
import sys
import tempfile
import time
import timeit
import tracemalloc
from pathlib import Path
from unittest import mock

HERE = Path(__file__).resolve().parent
sys.path.insert(0, str(HERE.parent / "tests"))
sys.path.insert(0, str(HERE))

import harness  # noqa: E402  (the tests' helpers: the model, the example)
from host_floor import catalogue_floor, count, counted_registry  # noqa: E402
from harness import docs  # noqa: E402
from quenor_dorvan import tool_registry, tool_schemas  # noqa: E402

FILES = ("src/quenor_dorvan/setup/skill_text.py", "src/quenor_dorvan/setup/config.py",
         "docs/claude-instructions-template.md", "README.md", "docs/mcp-tools.md")


# -- the registry and its files -----------------------------------------------------------------

class HostTool:
    """A clone of an example tool under another name, with plain attributes as a host holds them."""

    def __init__(self, source, name):
        self.name, self.tier, self.summary, self.mcp_text = name, source.tier, source.summary, source.mcp_text
        self.actions, self.action_names = source.actions, source.action_names
        self.all_params = tuple(HostParam(p) for p in source.all_params)


class HostParam:
    def __init__(self, source):
        for field in ("name", "type", "required", "default", "action_defaults", "applies_to", "values"):
            setattr(self, field, getattr(source, field))

    def values_text(self, formatter):
        if not self.values:
            return ""
        lead = "Any of" if self.type == "array" else "One of"
        return f"{lead} {', '.join(formatter(value) for value in self.values)}."


def synthetic_registry(count):
    """The names to bind for a registry of `count` tools: the example's cloned in turn (so the
    tiers interleave), named after their source and round (`search_0`, ...)."""
    sources, tools, schemas = tool_registry.TOOLS, [], {}
    for i in range(count):
        source = sources[i % len(sources)]
        tools.append(HostTool(source, f"{source.name}_{i // len(sources)}"))
        schemas[tools[-1].name] = tool_schemas.get_cli_schema(source.name)
    return {"TOOLS": tuple(tools), "get_cli_schema": schemas.__getitem__}


def with_params_blocks(text, blocks):
    """The example's MCP reference text with its per-tool sections replaced by one section for
    each (tool name, old body) pair of `blocks`, in that order."""
    head, rest = text.split("## Core tools\n", 1)
    sections = (f"### {name}\n\n<!-- registry:params:{name} -->\n{body}<!-- /registry:params:{name} -->\n\n"
                for name, body in blocks)
    return head + "## Tools\n\n" + "".join(sections) + rest[rest.index("## Errors"):]


def python_model():
    """A model of its own, run into a copy of the module's globals: each workload binds its registry."""
    model = dict(vars(docs), __annotations__={})
    exec(compile(harness.MODEL_FILE.read_text("utf-8"), harness.MODEL_FILE, "exec"), model)
    return model


class Workload:
    """A synthetic registry of `size` tools, the model bound to it, and the five files' texts."""

    def __init__(self, size):
        self.names = synthetic_registry(size)
        self.model = python_model()
        self.model.update(self.names)
        example = {path: (harness.EXAMPLE / path).read_text(encoding="utf-8") for path in FILES}
        # Each clone's parameter block starts out holding its source tool's old table.
        old = docs._blocks(example["docs/mcp-tools.md"])
        tiers = docs._TIERS
        listed = sorted(self.names["TOOLS"], key=lambda tool: tiers.index(tool.tier))
        example["docs/mcp-tools.md"] = with_params_blocks(example["docs/mcp-tools.md"], [
            (tool.name, old["params:" + tool.name.rsplit("_", 1)[0]]) for tool in listed])
        self.texts = example

    @contextlib.contextmanager
    def installed(self, names=None):
        """The registry bound on the module (restored afterwards) and in the model's namespace."""
        names = names or self.names
        with mock.patch.dict(vars(docs), names):
            self.model.update(names)
            yield

    def repository(self, directory):
        root = Path(directory)
        for path, text in self.texts.items():
            (root / path).parent.mkdir(parents=True, exist_ok=True)
            (root / path).write_text(text, encoding="utf-8")
        return root


def catalogue(ns, texts):
    """`generated_files()`, then `render_file` of each file's text, all in memory."""
    render_file = ns["render_file"]
    return [render_file(texts[generated.path], generated) for generated in ns["generated_files"]()]


def rules_markers():
    return len(docs.block_names(docs.QUENOR_INSTRUCTION_CONTENT))


# -- timing -------------------------------------------------------------------------------------

# CPU time of this process: the time it spends descheduled while other jobs run is not counted.
clock = time.process_time


def sample(function):
    gc.collect()
    start = clock()
    function()
    return clock() - start


class Times:
    """Seconds per run of each case, `repeats` samples each. The cases of a group are sampled back
    to back, in turn, so that a ratio can be taken between samples of one moment of the machine;
    the groups take turns. A case is (label, workload, function)."""

    def __init__(self, groups, repeats):
        for _, workload, function in (case for group in groups for case in group):
            with workload.installed():  # warm-up, and a first check that each case runs
                function()
        self.samples = {label: [] for group in groups for label, _, _ in group}
        for repeat in range(repeats):
            for group in groups[repeat % len(groups):] + groups[:repeat % len(groups)]:
                for label, workload, function in group[::-1] if repeat % 2 else group:
                    with workload.installed():
                        self.samples[label].append(sample(function))

    def __getitem__(self, label):
        return statistics.median(self.samples[label])

    def ratio(self, over, under, minus=None):
        """The median over repeats of (over - minus) / under, each from one group's turn."""
        minus = self.samples[minus] if minus else [0] * len(self.samples[over])
        return statistics.median((a - c) / b for a, b, c in zip(
            self.samples[over], self.samples[under], minus))


def small_calls(repeats, number):
    """Nanoseconds per call of the small calls and their built-in peers: quartiles of the samples,
    and quartiles of the ratio of each pair sampled back to back. Short samples, many of them:
    each pair then shares one moment of the machine."""
    shapes = {'_cell("a b")': '"a b".strip()', '_code("x")': 'len("ab")'}
    scope = {"_cell": docs._cell, "_code": docs._code}
    timers = {stmt: timeit.Timer(stmt, clock, globals=scope)
              for pair in shapes.items() for stmt in pair}
    samples = {stmt: [] for stmt in timers}
    for repeat in range(repeats):
        for stmt, timer in (timers.items() if repeat % 2 else list(timers.items())[::-1]):
            samples[stmt].append(timer.timeit(number) / number * 1e9)
    result = {}
    for call, peer in shapes.items():
        ratios = [a / b for a, b in zip(samples[call], samples[peer])]
        result[call] = (quartiles(samples[call]), peer, quartiles(samples[peer]), quartiles(ratios))
    return result


def quartiles(values):
    if len(values) < 2:
        return (values[0],) * 3
    q1, q2, q3 = statistics.quantiles(values, n=4, method="inclusive")
    return q1, q2, q3


# -- memory -------------------------------------------------------------------------------------

def status_kib(field):
    with open("/proc/self/status") as status:
        for line in status:
            if line.startswith(field + ":"):
                return int(line.split()[1])
    raise LookupError(field)


def memory_child(size):
    """Run in a fresh interpreter: the peak memory of write_blocks on a stale repository of
    `size` tools, as the resident high-water mark's rise and as tracemalloc's peak, and the size
    of the old and the new texts (as str objects)."""
    workload = Workload(size)
    with tempfile.TemporaryDirectory() as one, tempfile.TemporaryDirectory() as two:
        roots = workload.repository(one), workload.repository(two)
        old = sum(sys.getsizeof(text) for text in workload.texts.values())
        workload.texts = None
        with workload.installed():
            gc.collect()
            with contextlib.suppress(OSError, AttributeError):
                ctypes.CDLL("libc.so.6").malloc_trim(0)
            try:
                with open("/proc/self/clear_refs", "w") as clear:
                    clear.write("5")  # the high-water mark starts again from the resident size now
                reset = True
            except OSError:
                reset = False
            before = status_kib("VmRSS")
            written = docs.write_blocks(roots[0])
            rss = (status_kib("VmHWM") - before) * 1024
            gc.collect()
            tracemalloc.start()
            docs.write_blocks(roots[1])
            traced = tracemalloc.get_traced_memory()[1]
            tracemalloc.stop()
        new = sum(sys.getsizeof((roots[0] / path).read_text(encoding="utf-8")) for path in FILES)
    json.dump({"rss": rss, "reset": reset, "traced": traced, "old": old, "new": new,
               "written": len(written)}, sys.stdout)


def memory(size):
    result = subprocess.run([sys.executable, __file__, "--memory-child", str(size)], check=True,
                            stdout=subprocess.PIPE, text=True)
    return json.loads(result.stdout)


# -- the run ------------------------------------------------------------------------------------

def verify_floor(workload):
    """The floor, the module and the model make the same host calls and reads, each as often."""
    markers = rules_markers()

    def on(ns_of, run):
        def counted(counts):
            with workload.installed(counted_registry(workload.names, docs.__dict__, counts)):
                run(ns_of())

        return count(counted)

    module = on(lambda: docs.__dict__, lambda ns: catalogue(ns, workload.texts))
    model = on(lambda: workload.model, lambda ns: catalogue(ns, workload.texts))
    floor = on(lambda: docs.__dict__, lambda ns: catalogue_floor(ns, markers))
    for name, other in (("the model", model), ("the floor", floor)):
        if other != module:
            differ = {key: (module[key], other[key]) for key in module.keys() | other.keys()
                      if module[key] != other[key]}
            sys.exit(f"host calls and reads differ between the module and {name}: {differ}")
    return module


def profile(case, size, repeats):
    workload = Workload(size)
    with tempfile.TemporaryDirectory() as directory, workload.installed():
        root = workload.repository(directory)
        docs.write_blocks(root)
        function = {"catalogue": lambda: catalogue(docs.__dict__, workload.texts),
                    "stale_blocks": lambda: docs.stale_blocks(root)}[case]
        start = time.perf_counter()
        for _ in range(repeats):
            function()
        print(f"{case}, {size:,} tools: {repeats} runs in {time.perf_counter() - start:.3f} s")


def ms(seconds):
    return f"{seconds * 1e3:10.2f}"


def verdict(ok):
    return "PASS" if ok else "FAIL"


def renderer_runs(workload):
    """The cases timed against the model, by label: each makes its run from a namespace, the
    module's or the model's."""
    return {
        "catalogue": lambda ns: (lambda: catalogue(ns, workload.texts)),
        "mcp_params_block, every tool": lambda ns: (
            lambda: [ns["mcp_params_block"](tool) for tool in ns["TOOLS"]]),
        "mcp_cli_block": lambda ns: ns["mcp_cli_block"],
        "README table": lambda ns: ns["readme_tools_block"],
        "skill table": lambda ns: ns["skill_tools_block"],
    }


def time_cases(small, large, repeats):
    """Every timed case: each renderer of the module and of the model, stale_blocks of both on a
    current repository, and with the catalogue its floor and both at the large size."""
    module, model, markers = docs.__dict__, small.model, rules_markers()
    with tempfile.TemporaryDirectory() as directory:
        root = small.repository(directory)
        with small.installed():
            docs.write_blocks(root)
            if docs.stale_blocks(root) or model["stale_blocks"](root):
                sys.exit("the repository written by write_blocks is not current")
        groups = [[(label, small, make(module)), (label + " model", small, make(model))]
                  for label, make in renderer_runs(small).items()]
        groups[0] += [("catalogue floor", small, lambda: catalogue_floor(module, markers)),
                      ("catalogue large", large, lambda: catalogue(module, large.texts)),
                      ("catalogue floor large", large, lambda: catalogue_floor(module, markers))]
        groups.insert(1, [("stale_blocks", small, lambda: docs.stale_blocks(root)),
                          ("stale_blocks model", small, lambda: model["stale_blocks"](root))])
        return Times(groups, repeats)


def own_work(times):
    """The catalogue's own work (its time less the floor's), and the median ratio of it to the
    floor."""
    return (times["catalogue"] - times["catalogue floor"],
            times.ratio("catalogue", "catalogue floor", minus="catalogue floor"))


def report_heading(args, counts):
    print(f"registry_docs benchmark: {args.tools:,} tools ({args.large:,} for linearity and memory), "
          f"the example's 14 tools cloned; medians of {args.repeats} samples of CPU time, ms")
    print(f"host-call floor: a tight Python loop (bench/host_floor.py), {sum(counts.values()):,} "
          f"host calls and reads of {len(counts)} kinds, counted equal to the module's and the "
          "model's")


def report_times(times, args):
    print(f"\n{'':34}{'module':>10}{'model':>10}{'model/module':>14}")
    for label in [label for label in times.samples if label + " model" in times.samples]:
        ratio = times.ratio(label + " model", label)
        print(f"{label:34}{ms(times[label])}{ms(times[label + ' model'])}{ratio:13.2f}x")
    own, own_ratio = own_work(times)
    linear = times.ratio("catalogue large", "catalogue")
    print(f"{'  catalogue host-call floor':34}{ms(times['catalogue floor'])}")
    print(f"{'  catalogue own work (total-floor)':34}{ms(own)}{'':10}{own_ratio:13.2f}x floor")
    print(f"{'catalogue, ' + format(args.large, ',') + ' tools':34}{ms(times['catalogue large'])}"
          f"{'':10}{linear:13.2f}x {args.tools:,}")
    print(f"{'  its host-call floor':34}{ms(times['catalogue floor large'])}{'':10}"
          f"{times.ratio('catalogue floor large', 'catalogue floor'):13.2f}x {args.tools:,}")


def report_small_calls(calls):
    print("\nsmall calls, ns per call, median [quartiles]; ratio quartiles over paired samples")
    for call, ((c1, c2, c3), peer, (p1, p2, p3), (r1, r2, r3)) in calls.items():
        print(f"  {call:14}{c2:6.1f} [{c1:.1f}, {c3:.1f}]   {peer:15}{p2:6.1f} [{p1:.1f}, {p3:.1f}]"
              f"   ratio {r2:.2f} [{r1:.2f}, {r3:.2f}]")


def report_memory(peak, size):
    texts = peak["old"] + peak["new"]
    print(f"\nwrite_blocks at {size:,} tools ({peak['written']} files written): resident "
          f"high-water rise {peak['rss'] / 2**20:.1f} MiB"
          f"{'' if peak['reset'] else ' (high-water mark not reset: a lower bound)'}, tracemalloc peak "
          f"{peak['traced'] / 2**20:.1f} MiB; old + new texts {texts / 2**20:.1f} MiB")


# The figures recorded in bench/README.md ("Today's figures"), which the speed targets hold: runs
# of one build spread by up to 7% on this machine, so a figure 10% worse is a loss.
RECORDED = {"catalogue": 3.30, "stale_blocks": 4.56, "own work": 1.66}


def report_targets(times, calls, peak, args):
    """Each target the project holds, named by what it compares, with its bound, this run's figure
    and the verdict."""
    speed = times.ratio("catalogue model", "catalogue")
    stale = times.ratio("stale_blocks model", "stale_blocks")
    own, own_ratio = own_work(times)
    linear = times.ratio("catalogue large", "catalogue")
    floor_growth = times.ratio("catalogue floor large", "catalogue floor")
    texts, worst = peak["old"] + peak["new"], max(peak["rss"], peak["traced"])
    cell = calls['_cell("a b")'][3]
    least_speed, least_stale, most_own = (0.9 * RECORDED["catalogue"], 0.9 * RECORDED["stale_blocks"],
                                          1.1 * RECORDED["own work"])
    print("\ntargets:")
    print(f"  1a catalogue against the model, as recorded ({RECORDED['catalogue']:.2f}x, at least "
          f"{least_speed:.2f}x): {speed:.2f}x  {verdict(speed >= least_speed)}")
    print(f"  1b catalogue own work against the host-call floor, as recorded ({RECORDED['own work']:.2f}x, at "
          f"most {most_own:.2f}x): {own * 1e3:.2f} ms against {times['catalogue floor'] * 1e3:.2f} ms "
          f"({own_ratio:.2f}x)  {verdict(own_ratio <= most_own)}")
    print(f"  2  stale_blocks against the model, as recorded ({RECORDED['stale_blocks']:.2f}x, at least "
          f"{least_stale:.2f}x): {stale:.2f}x  {verdict(stale >= least_stale)}")
    print(f"  3a catalogue at {args.large:,} tools against {args.tools:,}, at most 1.1 times its host-call "
          f"floor's growth ({floor_growth:.2f}x): {linear:.2f}x  {verdict(linear <= 1.1 * floor_growth)}")
    print(f"  3b write_blocks peak memory at {args.large:,} tools against the old + new texts, "
          f"at most 3x: {worst / texts:.2f}x (the larger of the two peaks)  "
          f"{verdict(worst <= 3 * texts)}")
    print(f"  4  _cell(\"a b\") against \"a b\".strip(), at most 2x: {cell[1]:.2f}x "
          f"[{cell[0]:.2f}, {cell[2]:.2f}]  {verdict(cell[1] <= 2)}")


def parse_args():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("--tools", type=int, default=2000, help="registry size (default 2000)")
    parser.add_argument("--large", type=int, default=20000,
                        help="registry size of the linearity and memory figures (default 20000)")
    parser.add_argument("--repeats", type=int, default=9, help="samples per median (default 9)")
    parser.add_argument("--number", type=int, default=20000,
                        help="calls per sample of the small calls (default 20000)")
    parser.add_argument("--profile", choices=("catalogue", "stale_blocks"),
                        help="only run the module's catalogue or stale_blocks --repeats times "
                             "(for perf and callgrind)")
    parser.add_argument("--memory-child", type=int, help=argparse.SUPPRESS)
    return parser.parse_args()


def main():
    args = parse_args()
    if args.memory_child:
        return memory_child(args.memory_child)
    if args.profile:
        return profile(args.profile, args.tools, args.repeats)
    small, large = Workload(args.tools), Workload(args.large)
    report_heading(args, verify_floor(small))
    times = time_cases(small, large, args.repeats)
    calls = small_calls(max(args.repeats, 5) * 11, args.number)
    peak = memory(args.large)
    report_times(times, args)
    report_small_calls(calls)
    report_memory(peak, args.large)
    report_targets(times, calls, peak, args)


if __name__ == "__main__":
    main()

"""The tools quenor-dorvan offers, over MCP and as `quenor-dorvan query <tool>`.

This registry is the single source for the MCP tool list, the CLI options
and the tool tables in the docs.
"""

from __future__ import annotations

import re
from dataclasses import dataclass
from typing import Callable, Literal, Optional, Tuple, Union, get_args

from quenor_dorvan.workers.api_endpoints import ENDPOINT_FRAMEWORKS

ToolTier = Literal["core", "extended"]

JsonValue = Union[bool, int, float, str, list, None]

_SNAKE = re.compile(r"[a-z][a-z0-9]*(?:_[a-z0-9]+)*\Z")
_SCALAR_TYPES = ("string", "integer", "number", "boolean")
_TYPES = _SCALAR_TYPES + ("array",)


def _fits(value: object, type_name: str) -> bool:
    if type_name == "boolean":
        return isinstance(value, bool)
    if type_name == "integer":
        return isinstance(value, int) and not isinstance(value, bool)
    if type_name == "number":
        return isinstance(value, (int, float)) and not isinstance(value, bool)
    if type_name == "string":
        return isinstance(value, str)
    return isinstance(value, list)


@dataclass(frozen=True)
class ParamSpec:
    """One parameter of a tool."""

    name: str
    type: str
    required: bool = False
    default: JsonValue = None
    description: str = ""
    items: Optional[str] = None
    minimum: Optional[Union[int, float]] = None
    maximum: Optional[Union[int, float]] = None
    values: Tuple[JsonValue, ...] = ()
    # Actions the parameter serves; empty means every action.
    applies_to: Tuple[str, ...] = ()
    # (action, default) pairs for actions whose default differs from `default`.
    action_defaults: Tuple[Tuple[str, JsonValue], ...] = ()

    def __post_init__(self) -> None:
        where = f"parameter {self.name!r}"
        if not _SNAKE.match(self.name):
            raise ValueError(f"{where}: name is not snake_case")
        if self.type not in _TYPES:
            raise ValueError(f"{where}: unknown type {self.type!r}")
        if (self.type == "array") != (self.items is not None):
            raise ValueError(f"{where}: `items` is for arrays, and arrays need it")
        if self.items is not None and self.items not in _SCALAR_TYPES:
            raise ValueError(f"{where}: unknown item type {self.items!r}")
        if self.required and (self.default is not None or self.action_defaults):
            raise ValueError(f"{where}: a required parameter has no default")
        if (self.minimum is not None or self.maximum is not None) and self.type not in (
            "integer",
            "number",
        ):
            raise ValueError(f"{where}: bounds are for numbers")
        if (
            self.minimum is not None
            and self.maximum is not None
            and self.minimum > self.maximum
        ):
            raise ValueError(f"{where}: minimum above maximum")
        # Allowed values of an array are its items' (arrays always have `items`, checked above).
        value_type = self.type if self.items is None else self.items
        for value in self.values:
            if not _fits(value, value_type):
                raise ValueError(f"{where}: allowed value {value!r} is not {value_type}")
        defaults = [self.default] + [value for _, value in self.action_defaults]
        for value in defaults:
            if value is not None:
                self._check_value(value, where, value_type)

    def _check_value(self, value: JsonValue, where: str, item_type: str) -> None:
        if not _fits(value, self.type):
            raise ValueError(f"{where}: default {value!r} is not {self.type}")
        # Having passed `_fits`, a list is the default of an array and a number that of a number.
        if isinstance(value, list):
            for item in value:
                if not _fits(item, item_type):
                    raise ValueError(f"{where}: default item {item!r} is not {item_type}")
                if self.values and item not in self.values:
                    raise ValueError(f"{where}: default item {item!r} not allowed")
            return
        if self.values and value not in self.values:
            raise ValueError(f"{where}: default {value!r} not allowed")
        if not isinstance(value, (int, float)):
            return
        if self.minimum is not None and value < self.minimum:
            raise ValueError(f"{where}: default {value!r} below minimum")
        if self.maximum is not None and value > self.maximum:
            raise ValueError(f"{where}: default {value!r} above maximum")

    def values_text(self, formatter: Callable[[JsonValue], str]) -> str:
        """Sentence naming the allowed values, or "" when any value goes."""
        if not self.values:
            return ""
        lead = "Any of" if self.type == "array" else "One of"
        return f"{lead} {', '.join(formatter(value) for value in self.values)}."


@dataclass(frozen=True)
class ActionSpec:
    name: str
    summary: str


@dataclass(frozen=True)
class ToolSpec:
    name: str
    tier: ToolTier
    summary: str
    # What the MCP server says about the tool in tools/list.
    mcp_text: str
    actions: Tuple[ActionSpec, ...] = ()
    params: Tuple[ParamSpec, ...] = ()

    def __post_init__(self) -> None:
        where = f"tool {self.name!r}"
        if not _SNAKE.match(self.name):
            raise ValueError(f"{where}: name is not snake_case")
        if self.tier not in get_args(ToolTier):
            raise ValueError(f"{where}: unknown tier {self.tier!r}")
        actions = self.action_names
        if len(set(actions)) != len(actions):
            raise ValueError(f"{where}: duplicate action")
        for action in actions:
            if not _SNAKE.match(action):
                raise ValueError(f"{where}: action {action!r} is not snake_case")
        names = [param.name for param in self.all_params]
        if len(set(names)) != len(names):
            raise ValueError(f"{where}: duplicate parameter")
        for param in self.params:
            served = param.applies_to or actions
            for action in param.applies_to:
                if action not in actions:
                    raise ValueError(f"{where}: {param.name} serves unknown action {action!r}")
            for action, _ in param.action_defaults:
                if action not in served:
                    raise ValueError(
                        f"{where}: {param.name} has a default for action {action!r} it does not serve"
                    )

    @property
    def action_names(self) -> Tuple[str, ...]:
        return tuple(action.name for action in self.actions)

    @property
    def all_params(self) -> Tuple[ParamSpec, ...]:
        """Parameters as the CLI and MCP see them: `action` first when the tool has actions."""
        if not self.actions:
            return self.params
        names = self.action_names
        single = len(names) == 1
        action = ParamSpec(
            name="action",
            type="string",
            required=not single,
            default=names[0] if single else None,
            description="Which action to run.",
            values=names,
        )
        return (action,) + self.params


TOOLS: Tuple[ToolSpec, ...] = (
    ToolSpec(
        name="search",
        tier="core",
        summary="Find code by plain text, regular expression (`get_|set_`) or file path glob.",
        mcp_text=(
            "Search the indexed repository.\n"
            "text: substring search over source lines.\n"
            "regex: regular-expression search; alternation such as `get_|set_` works.\n"
            "path: match file paths against a glob such as `src/**/*.py`."
        ),
        actions=(
            ActionSpec("text", "Substring search over source lines."),
            ActionSpec("regex", "Regular-expression search over source lines."),
            ActionSpec("path", "Match file paths against a glob."),
        ),
        params=(
            ParamSpec(
                name="query",
                type="string",
                required=True,
                description="Text, pattern or glob to look for.",
            ),
            ParamSpec(
                name="paths",
                type="array",
                items="string",
                default=[],
                description="Limit the search to these files or directories; the whole repository when empty.",
            ),
            ParamSpec(
                name="case_sensitive",
                type="boolean",
                default=False,
                applies_to=("text", "regex"),
                description="Match letter case exactly",
            ),
            ParamSpec(
                name="limit",
                type="integer",
                default=50,
                minimum=1,
                maximum=500,
                action_defaults=(("path", 200),),
                description="Largest number of hits to return.",
            ),
            ParamSpec(
                name="token_budget",
                type="integer",
                default=4000,
                minimum=0,
                description="Rough cap on the size of the reply in tokens; 0 means no cap.",
            ),
        ),
    ),
    ToolSpec(
        name="lookup_symbol",
        tier="core",
        summary="Show where a symbol is defined, with its signature and docstring.",
        mcp_text=(
            "Resolve a function, class, method or variable name to its definition: "
            "file, line range, signature and docstring. A dotted name such as "
            "`billing.invoice.Invoice.total` narrows the match."
        ),
        params=(
            ParamSpec(
                name="symbol",
                type="string",
                required=True,
                description="Plain or dotted name of the symbol.",
            ),
            ParamSpec(
                name="kind",
                type="string",
                default="any",
                values=("any", "function", "class", "method", "variable"),
                description="Restrict matches to one kind of symbol.",
            ),
            ParamSpec(
                name="include_source",
                type="boolean",
                default=False,
                description="Return the whole definition rather than only its signature?",
            ),
        ),
    ),
    ToolSpec(
        name="find_refs",
        tier="core",
        summary="List every reference to the symbol at a given file position.",
        mcp_text=(
            "Find references to the symbol at `path`:`line`:`column`, the way an "
            "editor's \"find all references\" does, grouped by file."
        ),
        params=(
            ParamSpec(
                name="path",
                type="string",
                required=True,
                description="File holding the symbol.",
            ),
            ParamSpec(
                name="line",
                type="integer",
                required=True,
                minimum=1,
                description="Line of the symbol, counting from 1.",
            ),
            ParamSpec(
                name="column",
                type="integer",
                default=0,
                minimum=0,
                description="Column of the symbol; 0 takes the first name on the line.",
            ),
            ParamSpec(
                name="kinds",
                type="array",
                items="string",
                default=["call", "read", "write"],
                values=("call", "read", "write", "import"),
                description="Kinds of reference to report.",
            ),
            ParamSpec(name="include_tests", type="boolean", default=True),
            ParamSpec(
                name="limit",
                type="integer",
                default=100,
                maximum=1000,
                description="Largest number of references to return.",
            ),
        ),
    ),
    ToolSpec(
        name="call_graph",
        tier="core",
        summary=(
            "Walk the static call graph from a function.\n"
            "    callers: who calls it, up to `depth` levels\n"
            "    callees: what it calls\n"
            "    path:    the shortest call chain to `target`"
        ),
        mcp_text=(
            "Static call graph built from the index.\n"
            "callers: functions that call `symbol`, nearest first.\n"
            "callees: functions that `symbol` calls.\n"
            "path: one shortest chain of calls from `symbol` to `target`, or none."
        ),
        actions=(
            ActionSpec("callers", "Functions that call the symbol."),
            ActionSpec("callees", "Functions the symbol calls."),
            ActionSpec("path", "Shortest call chain from the symbol to a target."),
        ),
        params=(
            ParamSpec(
                name="symbol",
                type="string",
                required=True,
                description="Function or method to start from.",
            ),
            ParamSpec(
                name="target",
                type="string",
                applies_to=("path",),
                description="Function the chain must end at.",
            ),
            ParamSpec(
                name="depth",
                type="integer",
                default=2,
                minimum=1,
                maximum=10,
                action_defaults=(("path", 6),),
                description="How many call levels to follow.",
            ),
        ),
    ),
    ToolSpec(
        name="embeddings_search",
        tier="extended",
        summary="Find code by meaning, using the local embeddings index.",
        mcp_text=(
            "Semantic search: embeds the query and returns the closest code chunks "
            "with a score between 0 and 1. Needs `quenor-dorvan index --embeddings` "
            "to have run; see `index_status`."
        ),
        params=(
            ParamSpec(
                name="query",
                type="string",
                required=True,
                description="Natural-language description of the code you want.",
            ),
            ParamSpec(
                name="top_k",
                type="integer",
                default=10,
                maximum=50,
                description="Number of chunks to return",
            ),
            ParamSpec(
                name="min_score",
                type="number",
                default=0.5,
                minimum=0,
                maximum=1,
                description="Drop chunks scoring below this.",
            ),
            ParamSpec(
                name="languages",
                type="array",
                items="string",
                description="Only chunks in these languages; every language when omitted.",
            ),
        ),
    ),
    ToolSpec(
        name="file_outline",
        tier="core",
        summary=(
            "Outline one file: imports, classes, functions and their line ranges.\n"
            "  Paths may be relative to the repository or absolute, e.g. C:\\repo\\src\\app.py."
        ),
        mcp_text=(
            "Compact outline of one source file: imports, classes, functions and "
            "methods with line ranges and signatures. Read it before opening a large file."
        ),
        params=(
            ParamSpec(
                name="path",
                type="string",
                required=True,
                description="File to outline, relative or absolute (C:\\repo\\src\\app.py works on Windows).",
            ),
            ParamSpec(
                name="include_private",
                type="boolean",
                default=False,
                description="Also list names starting with an underscore.",
            ),
            ParamSpec(
                name="max_depth",
                type="integer",
                default=3,
                minimum=1,
                maximum=8,
                description="Deepest nesting level to show.",
            ),
        ),
    ),
    ToolSpec(
        name="diff_impact",
        tier="extended",
        summary="Show which symbols, tests and endpoints a change touches.",
        mcp_text=(
            "Impact of a change on the code base.\n"
            "working_tree: uncommitted changes against HEAD.\n"
            "commit_range: the commits in `base..head`."
        ),
        actions=(
            ActionSpec("working_tree", "Uncommitted changes against HEAD."),
            ActionSpec("commit_range", "Commits between two revisions."),
        ),
        params=(
            ParamSpec(
                name="base",
                type="string",
                default="main",
                applies_to=("commit_range",),
                description="Revision the range starts after.",
            ),
            ParamSpec(
                name="head",
                type="string",
                default="HEAD",
                applies_to=("commit_range",),
                description="Revision the range ends at.",
            ),
            ParamSpec(
                name="max_hops",
                type="integer",
                default=1,
                minimum=0,
                maximum=5,
                action_defaults=(("commit_range", 2),),
                description="Levels of callers to follow from each changed symbol; 0 reports only the changed symbols.",
            ),
        ),
    ),
    ToolSpec(
        name="dependency_graph",
        tier="extended",
        summary=(
            "Module dependency graph:\n"
            "  imports   - what a module imports\n"
            "  importers - which modules import it\n"
            "  cycles    - import cycles inside a package"
        ),
        mcp_text=(
            "Module-level dependency graph.\n"
            "imports: modules that `module` imports.\n"
            "importers: modules that import `module`.\n"
            "cycles: import cycles inside `package`."
        ),
        actions=(
            ActionSpec("imports", "Modules a module imports."),
            ActionSpec("importers", "Modules that import a module."),
            ActionSpec("cycles", "Import cycles inside a package."),
        ),
        params=(
            ParamSpec(
                name="module",
                type="string",
                applies_to=("imports", "importers"),
                description="Dotted module name or file path.",
            ),
            ParamSpec(
                name="package",
                type="string",
                applies_to=("cycles",),
                description="Package to scan; the whole repository when omitted.",
            ),
            ParamSpec(
                name="transitive",
                type="boolean",
                default=False,
                applies_to=("imports", "importers"),
                description="Follow dependencies past the first level",
            ),
            ParamSpec(
                name="output",
                type="string",
                default="tree",
                values=("tree", "list", "dot"),
                action_defaults=(("cycles", "list"),),
                description="Shape of the reply.",
            ),
        ),
    ),
    ToolSpec(
        name="list_endpoints",
        tier="core",
        summary="List the HTTP endpoints the code declares, e.g. `GET /files/{path}`, with their handlers.",
        mcp_text=(
            "HTTP routes found in the code: method, path template (such as "
            "`/users/{user_id}`) and handler function. Frameworks understood: "
            + ", ".join(ENDPOINT_FRAMEWORKS.values())
            + "."
        ),
        params=(
            ParamSpec(
                name="framework",
                type="string",
                values=tuple(ENDPOINT_FRAMEWORKS),
                description="Only endpoints of this framework.",
            ),
            ParamSpec(
                name="method",
                type="string",
                values=("GET", "POST", "PUT", "PATCH", "DELETE"),
                description="HTTP method to keep",
            ),
            ParamSpec(
                name="path_prefix",
                type="string",
                default="/",
                description="Only routes under this prefix.",
            ),
        ),
    ),
    ToolSpec(
        name="test_map",
        tier="extended",
        summary="Map source code to the tests that exercise it, and back.",
        mcp_text=(
            "Links between code and tests, from static analysis and the last coverage run.\n"
            "tests_for: tests that exercise the given files or symbols.\n"
            "covered_by: source symbols the given tests exercise."
        ),
        actions=(
            ActionSpec("tests_for", "Tests that exercise the given code."),
            ActionSpec("covered_by", "Code the given tests exercise."),
        ),
        params=(
            ParamSpec(
                name="targets",
                type="array",
                items="string",
                required=True,
                description="Files, symbols or test ids, e.g. tests/test_api.py::test_login.",
            ),
            ParamSpec(
                name="direct_only",
                type="boolean",
                required=True,
                description="True keeps only direct links; false adds links through shared helpers.",
            ),
            ParamSpec(
                name="min_confidence",
                type="number",
                default=0.25,
                minimum=0,
                maximum=1,
                action_defaults=(("covered_by", 0.6),),
                description="Drop links the analysis is less sure of than this.",
            ),
        ),
    ),
    ToolSpec(
        name="index_status",
        tier="core",
        summary="Report how fresh the index is and what it covers.",
        mcp_text=(
            "State of the index: files indexed, time of the last update, languages, "
            "pending changes and whether embeddings are built. Call it first when "
            "results look out of date."
        ),
    ),
    ToolSpec(
        name="history",
        tier="extended",
        summary=(
            "Git history of code:\n"
            "    blame: who last changed each line\n"
            "    log:   commits that touched a file or line range"
        ),
        mcp_text=(
            "Version history from git.\n"
            "blame: last commit, author and date for each line of the file.\n"
            "log: commits that touched the file, like `git log -- {path}`."
        ),
        actions=(
            ActionSpec("blame", "Last change of each line."),
            ActionSpec("log", "Commits that touched a file or line range."),
        ),
        params=(
            ParamSpec(
                name="path",
                type="string",
                required=True,
                description="File in the repository.",
            ),
            ParamSpec(
                name="start_line",
                type="integer",
                minimum=1,
                description="First line of the range; the start of the file when omitted.",
            ),
            ParamSpec(
                name="end_line",
                type="integer",
                minimum=1,
                description="Last line of the range; the end of the file when omitted.",
            ),
            ParamSpec(
                name="since",
                type="string",
                applies_to=("log",),
                description="Only commits after this date (YYYY-MM-DD).",
            ),
            ParamSpec(
                name="max_commits",
                type="integer",
                default=20,
                minimum=1,
                maximum=200,
                applies_to=("log",),
                description="Largest number of commits to list.",
            ),
        ),
    ),
    ToolSpec(
        name="code_metrics",
        tier="extended",
        summary="Measure complexity and size of each function.",
        mcp_text=(
            "complexity: cyclomatic complexity, length and nesting depth of each "
            "function under `path`, worst first."
        ),
        actions=(ActionSpec("complexity", "Complexity and size per function."),),
        params=(
            ParamSpec(
                name="threshold",
                type="number",
                required=True,
                minimum=0,
                description="Only report functions scoring at or above this.",
            ),
            ParamSpec(
                name="path",
                type="string",
                default=".",
                description="File or directory to measure.",
            ),
            ParamSpec(
                name="top",
                type="integer",
                default=25,
                minimum=1,
                maximum=500,
                description="Largest number of functions to report.",
            ),
        ),
    ),
    ToolSpec(
        name="project_config",
        tier="core",
        summary="Show the effective quenor-dorvan configuration and what it indexes.",
        mcp_text=(
            "show: settings merged from `.quenor/config.toml` and the defaults, "
            "as a JSON object {key: value}.\n"
            "paths: directories that are indexed and those that are ignored."
        ),
        actions=(
            ActionSpec("show", "Effective settings."),
            ActionSpec("paths", "Indexed and ignored directories."),
        ),
        params=(
            ParamSpec(
                name="key",
                type="string",
                applies_to=("show",),
                description="Dotted setting name, e.g. index.exclude; every setting when omitted.",
            ),
            ParamSpec(
                name="resolved",
                type="boolean",
                default=True,
                action_defaults=(("paths", False),),
                description="Expand environment variables and globs.",
            ),
        ),
    ),
)


def get_tool(name: str) -> ToolSpec:
    """The tool called `name`; KeyError when there is none."""
    for tool in TOOLS:
        if tool.name == name:
            return tool
    raise KeyError(name)

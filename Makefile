# Front door for the two everyday jobs; CMake is the build of record.
# The interpreter the module is built for: PYTHON=... (on the command line or in the environment),
# else a CPython 3.10 found here: a `python3.10` on PATH that runs (pyenv's shim only does when
# pyenv has 3.10 selected), else the newest $(pyenv root)/versions/3.10.*/bin/python3.10, with
# $PYENV_ROOT or ~/.pyenv when `pyenv` itself is not there. Its own path is taken, not the shim's.
ifeq ($(strip $(PYTHON)),)
PYTHON := $(shell \
  root=$$(pyenv root 2>/dev/null) || root=$${PYENV_ROOT:-$$HOME/.pyenv}; \
  for python in python3.10 $$(ls -d "$$root"/versions/3.10.*/bin/python3.10 2>/dev/null | sort -rV); do \
    "$$python" -c 'import sys; assert sys.version_info[:2] == (3, 10); print(sys.executable)' \
      2>/dev/null && break; \
  done)
endif
BUILD ?= build
CMAKE_FLAGS ?=
MAKEFLAGS += --no-print-directory

.PHONY: build demo test clean

build:
	@test -n "$(PYTHON)" || { echo "no CPython 3.10 found (python3.10 on PATH, or under pyenv's versions): give one with PYTHON=..." >&2; exit 1; }
	cmake -S . -B $(BUILD) -DPython3_EXECUTABLE=$(PYTHON) $(CMAKE_FLAGS)
	cmake --build $(BUILD) -j2

# The maintenance job on a copy of the example host: rewrite the stale blocks, check that all is
# current, then show what changed. The repository's own example stays as it is.
demo: build
	@work=$$(mktemp -d) && cp -rL example "$$work/example" && \
	echo "== gen_registry_docs.py --check (before)" && \
	{ PYTHONPATH=$(BUILD)/host $(PYTHON) example/scripts/gen_registry_docs.py --root "$$work/example" --check; \
	  echo "exit status $$?"; } && \
	echo "== gen_registry_docs.py --write" && \
	PYTHONPATH=$(BUILD)/host $(PYTHON) example/scripts/gen_registry_docs.py --root "$$work/example" --write && \
	echo "== gen_registry_docs.py --check (after)" && \
	PYTHONPATH=$(BUILD)/host $(PYTHON) example/scripts/gen_registry_docs.py --root "$$work/example" --check && \
	echo "exit status $$?" && \
	echo "== what changed" && \
	{ diff -ru example "$$work/example" | head -n 80; true; } && rm -rf "$$work"

test: build
	cd $(BUILD) && ctest --output-on-failure

clean:
	rm -rf $(BUILD)

# The benchmark (bench/README.md): medians and ratios measured in one run, and its targets.
.PHONY: bench
BENCH_ARGS ?=
bench: build
	PYTHONPATH=$(BUILD)/host $(PYTHON) bench/run.py $(BENCH_ARGS)

# Instructions per catalogue at 500 tools, counted by callgrind (bench/callgrind.py; options in
# CALLGRIND_ARGS, e.g. "--case stale_blocks --runs 10 --keep cg").
.PHONY: callgrind
CALLGRIND_ARGS ?=
callgrind: build
	PYTHONPATH=$(BUILD)/host $(PYTHON) bench/callgrind.py $(CALLGRIND_ARGS)

# The interpreter found (or given), for commands run outside make: "$(make -s python)".
.PHONY: python
python:
	@echo $(PYTHON)

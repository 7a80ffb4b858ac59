# Front door for the two everyday jobs; CMake is the build of record.
PYTHON ?= /root/.pyenv/versions/3.10.13/bin/python3.10
BUILD ?= build
CMAKE_FLAGS ?=
MAKEFLAGS += --no-print-directory

.PHONY: build demo test clean

build:
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

# The benchmark (bench/README.md): medians and ratios measured in one run, and the issue's targets.
.PHONY: bench
BENCH_ARGS ?=
bench: build
	PYTHONPATH=$(BUILD)/host $(PYTHON) bench/run.py $(BENCH_ARGS)

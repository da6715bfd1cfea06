# The two commands that do everything on a fresh machine:
#   make run    build and run the server in the foreground (Ctrl-C stops it)
#   make test   build and pass every test (PRESET=asan or PRESET=tsan for the sanitizer runs)
# and:
#   make bench  build optimised and run the benchmarks against their Linux equivalents
#   make stress build the server and run the stress tools against it (MINUTES=2 by default)

PRESET ?= debug
BUILD := build/$(PRESET)
JOBS ?= $(shell nproc)
# Most tests wait on a server rather than compute, so the plain build runs three per core; the
# sanitizer builds, which compute several times as much, one per core.
TEST_JOBS ?= $(if $(filter debug,$(PRESET)),$(shell echo $$((3 * $$(nproc)))),$(JOBS))

.PHONY: all build run test bench clean

all: build

build:
	@cmake --preset $(PRESET) >/dev/null
	cmake --build --preset $(PRESET) -j $(JOBS)

# Builds the server and posixctl (to talk to it from another terminal), then runs the server.
run:
	@cmake --preset $(PRESET) >/dev/null
	cmake --build --preset $(PRESET) -j $(JOBS) --target posix-server posixctl
	$(BUILD)/server/posix-server

test: build
	ctest --preset $(PRESET) -j $(TEST_JOBS)

bench:
	@cmake --preset release >/dev/null
	cmake --build --preset release -j $(JOBS) --target posix_bench
	build/release/bench/posix_bench --benchmark_repetitions=5 --benchmark_display_aggregates_only=true

MINUTES ?= 2
.PHONY: stress
stress:
	@cmake --preset $(PRESET) >/dev/null
	cmake --build --preset $(PRESET) -j $(JOBS) --target posix-server
	python3 tests/stress/run.py --server $(BUILD)/server/posix-server --minutes $(MINUTES)

clean:
	rm -rf build

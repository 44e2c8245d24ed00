# Two commands set up and check everything on a fresh machine: `make demo` and `make test`.
JOBS ?= $(shell nproc)

.PHONY: all deps build test demo bench fuzz format clean

all: build

deps:
	@scripts/install-deps.sh

build: deps
	cmake --preset default
	cmake --build --preset default -j $(JOBS)

test: deps
	cmake --preset default
	cmake --build --preset default -j $(JOBS)
	ctest --preset default -j $(JOBS)
	cmake --preset asan
	cmake --build --preset asan -j $(JOBS)
	ctest --preset asan -j $(JOBS)
	cmake --preset tsan
	cmake --build --preset tsan -j $(JOBS)
	ctest --preset tsan -j $(JOBS)

demo: build
	@scripts/demo.sh build/default

bench: build
	build/default/bench/evcam_bench --benchmark_counters_tabular=true

fuzz:
	@scripts/install-deps.sh --fuzz
	cmake --preset fuzz
	cmake --build --preset fuzz -j $(JOBS)
	@scripts/fuzz.sh build/fuzz

format:
	git ls-files '*.h' '*.cpp' | xargs clang-format -i

clean:
	rm -rf build demo-out

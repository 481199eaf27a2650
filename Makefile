# Quick start: `make demo` and `make check`. Everything else is a building block of those two.
JOBS       ?= $(shell nproc)
BUILD      ?= build
ASAN_BUILD ?= build-sanitize
FUZZ_BUILD ?= build-fuzz
FUZZ_SECONDS ?= 5
CMAKE_GEN  := -G Ninja

.PHONY: all deps build demo check check-sanitize fuzz-smoke package check-package bench format clean

all: build

deps:
	@scripts/install-deps

build: deps
	cmake -S . -B $(BUILD) $(CMAKE_GEN) -DCMAKE_BUILD_TYPE=RelWithDebInfo
	cmake --build $(BUILD) -j $(JOBS)

demo: build
	tools/demo/run-demo $(BUILD)

# The package test (label "package") boots a container and needs the network
# once; it runs in check-package only.
check: build
	ctest --test-dir $(BUILD) --output-on-failure -j $(JOBS) -LE package
	$(MAKE) --no-print-directory fuzz-smoke

check-sanitize: deps
	cmake -S . -B $(ASAN_BUILD) $(CMAKE_GEN) -DCMAKE_BUILD_TYPE=Debug -DQVL_SANITIZE=ON -DQVL_BENCH=OFF
	cmake --build $(ASAN_BUILD) -j $(JOBS)
	ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
	  ctest --test-dir $(ASAN_BUILD) --output-on-failure -j $(JOBS) -LE package

fuzz-smoke: deps
	cmake -S . -B $(FUZZ_BUILD) $(CMAKE_GEN) -DCMAKE_BUILD_TYPE=RelWithDebInfo -DQVL_FUZZ=ON \
	  -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++
	cmake --build $(FUZZ_BUILD) -j $(JOBS)
	fuzz/run-all $(FUZZ_BUILD) $(FUZZ_SECONDS)

package: build
	cmake --build $(BUILD) --target package

# Installs the package on a fresh Debian in a booted container and checks it there.
check-package: package
	ctest --test-dir $(BUILD) --output-on-failure -L package

bench: build
	bench/run-all $(BUILD)

format:
	git ls-files '*.cpp' '*.h' '*.c' | xargs clang-format -i

clean:
	rm -rf $(BUILD) $(ASAN_BUILD) $(FUZZ_BUILD)

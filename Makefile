# Entry points for a fresh Debian machine:
#   make demo   installs what is missing, builds, and runs kelvo on examples/
#   make check  installs what is missing, builds, runs every test, then the
#               same tests built with AddressSanitizer and UBSan (clang)
BUILD      ?= build
ASAN_BUILD ?= build-asan
JOBS       ?= $(shell nproc)

.PHONY: all deps build build-asan check test test-asan demo bench clean

all: build

deps:
	@sh scripts/install-deps.sh

build: deps
	@cmake -S . -B $(BUILD) -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
	@cmake --build $(BUILD) -j $(JOBS)

build-asan: deps
	@CC=clang CXX=clang++ cmake -S . -B $(ASAN_BUILD) -G Ninja -DCMAKE_BUILD_TYPE=Debug -DKELVO_SANITIZE=ON >/dev/null
	@cmake --build $(ASAN_BUILD) -j $(JOBS)

test: build
	cd $(BUILD) && ctest --output-on-failure -j $(JOBS)

test-asan: build-asan
	cd $(ASAN_BUILD) && ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
	  ctest --output-on-failure -j $(JOBS)

check: test test-asan

demo: build
	@sh scripts/demo.sh $(BUILD)

bench: build
	@sh bench/run_all.sh $(BUILD)

# libFuzzer targets (clang), each run for FUZZ_SECONDS; see tests/fuzz/run.sh.
FUZZ_BUILD   ?= build-fuzz
FUZZ_SECONDS ?= 60
.PHONY: fuzz
fuzz: deps
	@CC=clang CXX=clang++ cmake -S . -B $(FUZZ_BUILD) -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DKELVO_FUZZ=ON -DKELVO_TESTS=OFF >/dev/null
	@cmake --build $(FUZZ_BUILD) -j $(JOBS) --target fuzz_targets
	@sh tests/fuzz/run.sh $(FUZZ_BUILD) $(FUZZ_SECONDS)

clean:
	rm -rf $(BUILD) $(ASAN_BUILD)

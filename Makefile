# Entry points for a fresh Debian machine:
#   make demo          installs what is missing, builds, and runs kelvo on examples/
#   make check         installs what is missing, builds (Release, GCC), runs every
#                      test, then the same tests built with AddressSanitizer and
#                      UBSan (Debug, clang); warnings are errors in both
#   make check-chroot  runs the Release build's tests again in a bare chroot
#   make format-check  formatting, the layers of docs/architecture.md, names
#   make install       builds and installs below PREFIX (cmake --install)
#   make deb           builds the Debian package into BUILD/deb
#   make check-package installs that package and runs the demo with it
#   make fuzz          runs each libFuzzer target for FUZZ_SECONDS
# demo and check share one configuration of BUILD (warnings are errors
# there too), so that "make demo" then "make check" compiles nothing twice.
# install and deb check for missing dependencies instead of installing them.
BUILD      ?= build
ASAN_BUILD ?= build-asan
JOBS       ?= $(shell nproc)
# Warnings are errors in every build made here (ON or OFF; the same value
# for every target, or the tree is compiled again with the other flags).
WERROR     ?= ON
CMAKE_OPTS  = -DKELVO_WERROR=$(WERROR)
PREFIX     ?= /usr/local
# What build depends on first; make install empties it (it checks instead).
DEPS       ?= deps

.PHONY: all deps build build-asan check check-chroot test test-asan demo bench clean format-check \
        install deb check-package demo-installed

all: build

deps:
	@sh scripts/install-deps.sh

build: $(DEPS)
	@CC=gcc CXX=g++ cmake -S . -B $(BUILD) -G Ninja -DCMAKE_BUILD_TYPE=Release $(CMAKE_OPTS) >/dev/null
	@cmake --build $(BUILD) -j $(JOBS)

build-asan: deps
	@CC=clang CXX=clang++ cmake -S . -B $(ASAN_BUILD) -G Ninja -DCMAKE_BUILD_TYPE=Debug -DKELVO_SANITIZE=ON $(CMAKE_OPTS) >/dev/null
	@cmake --build $(ASAN_BUILD) -j $(JOBS)

test: build
	cd $(BUILD) && ctest --output-on-failure -j $(JOBS)

test-asan: build-asan
	cd $(ASAN_BUILD) && ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
	  ctest --output-on-failure -j $(JOBS)

check:
	@$(MAKE) --no-print-directory test test-asan

# The tests of BUILD again in a bare chroot (scripts/chroot-run.sh), as a
# package builder runs them: "/" no mount point, no systemd, a fresh /tmp.
check-chroot: build
	@sh scripts/chroot-run.sh sh -c 'cd $(BUILD) && ctest --output-on-failure -j $(JOBS)'

# What CI checks of the sources before building them: formatting
# (.clang-format), the layout that docs/architecture.md states, and the
# naming rule (clang-tidy, with compile commands from TIDY_BUILD).
TIDY_BUILD ?= build-tidy
format-check: deps
	@sh scripts/check-format.sh
	@sh scripts/check-architecture.sh
	@JOBS=$(JOBS) sh scripts/check-naming.sh $(TIDY_BUILD)

demo: build
	@sh scripts/demo.sh $(BUILD)

# The demo with the programs installed in /usr/bin (by the package).
demo-installed:
	@KELVO_BINDIR=/usr/bin sh scripts/demo.sh $(BUILD)/installed

install:
	@PREFIX=$(PREFIX) DESTDIR=$(DESTDIR) sh scripts/check-deps.sh install
	@$(MAKE) --no-print-directory build DEPS=
	DESTDIR=$(DESTDIR) cmake --install $(BUILD) --strip --prefix $(PREFIX)

deb:
	@sh scripts/check-deps.sh deb
	@JOBS=$(JOBS) sh scripts/make-deb.sh $(BUILD)/deb

check-package: deb
	@sh scripts/check-package.sh $(BUILD)

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
	rm -rf $(BUILD) $(ASAN_BUILD) $(TIDY_BUILD)

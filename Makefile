# SPDX-License-Identifier: MIT
# Thin wrapper over CMake. `make test` builds and runs every test; `make run` runs the
# main example. Sanitizer builds live in their own folders.
MAKEFLAGS += --no-print-directory
SHELL   := /bin/bash
JOBS    ?= 2
PREFIX  ?= /usr/local
# DIRECT_LOCK=OFF builds without the direct lock (every lock through the C library), and
# COMPILER=clang with clang instead of GCC, each in build folders of its own.
DIRECT_LOCK ?= ON
COMPILER ?= gcc
SUFFIX  := $(if $(filter OFF,$(DIRECT_LOCK)),-nodirect,)$(if $(filter clang,$(COMPILER)),-clang,)
BUILD   := build$(SUFFIX)
CMAKE_FLAGS ?=
CONFIGURE = -DVOKT_WERROR=ON -DVOKT_DIRECT_LOCK=$(DIRECT_LOCK) $(CMAKE_FLAGS)
ifeq ($(COMPILER),clang)
export CC := clang
export CXX := clang++
endif
# make cross ARCH=...: Debian's cross compilers, and qemu-user to run what they make.
ARCH ?= s390x
CROSS_PACKAGES_i386 := g++-i686-linux-gnu
CROSS_PACKAGES_arm64 := g++-aarch64-linux-gnu qemu-user
CROSS_PACKAGES_s390x := g++-s390x-linux-gnu qemu-user
EMULATOR_arm64 := qemu-aarch64 -L /usr/aarch64-linux-gnu
EMULATOR_s390x := qemu-s390x -L /usr/s390x-linux-gnu

FUZZ_SECONDS ?= 30
FUZZ_TARGETS := text stream containers codename version date
# Coverage floors for vokt/ (percent of lines and of branches).
COVERAGE_LINES ?= 95
COVERAGE_BRANCHES ?= 85

.PHONY: all configure deps build-deps test test-checks run sanitize tsan clang cross fuzz coverage lint docs abi-check \
  abi-baseline package package-lint bench install libdir clean

all: configure deps
	@cmake --build $(BUILD) -j$(JOBS)

configure: build-deps
	@cmake -S . -B $(BUILD) -DCMAKE_BUILD_TYPE=RelWithDebInfo -DVOKT_BUILD_BENCH=OFF $(CONFIGURE) >/dev/null

# Checks the tools: build-deps what the library and the examples need, deps what the tests
# need besides. As root it installs what is missing from Debian's packages, otherwise it
# prints the command to run.
build-deps:
	@missing=""; \
	command -v cmake >/dev/null 2>&1 || missing="$$missing cmake"; \
	command -v make >/dev/null 2>&1 || missing="$$missing make"; \
	command -v pkg-config >/dev/null 2>&1 || missing="$$missing pkg-config"; \
	[ "$(COMPILER)" != clang ] || command -v clang++ >/dev/null 2>&1 || missing="$$missing clang libclang-rt-14-dev"; \
	echo 'int main(){}' | g++ -std=c++20 -x c++ -o /dev/null - >/dev/null 2>&1 || missing="$$missing g++"; \
	[ -f /usr/include/valgrind/valgrind.h ] || missing="$$missing valgrind"; \
	cmake/install-deps.sh $$missing

deps: build-deps
	@[ -f /usr/include/gtest/gtest.h ] || cmake/install-deps.sh libgtest-dev
	@command -v gdb >/dev/null 2>&1 || cmake/install-deps.sh gdb

test: all
	@ctest --test-dir $(BUILD) --output-on-failure -j$(JOBS)

# The whole suite again with every check on (VOKT_CHECK=all): the library's own tests must
# leave no report in their output. (The checks' own example plants a leak and prints its
# report; the checks' tests keep their planted mistakes' output to themselves.)
test-checks: all
	@VOKT_CHECK=all ctest --test-dir $(BUILD) --output-on-failure -j$(JOBS) -E '^example_checks$$'
	@if grep -n '^vokt: ' $(BUILD)/Testing/Temporary/LastTest.log; then \
	  echo "the checks reported the lines above"; exit 1; fi

# Only the library and the example: no test dependencies.
run: configure
	@cmake --build $(BUILD) -j$(JOBS) --target config_reader
	@$(BUILD)/examples/config_reader

sanitize: deps
	@cmake -S . -B build-asan$(SUFFIX) -DCMAKE_BUILD_TYPE=Debug -DVOKT_SANITIZE=address -DVOKT_BUILD_EXAMPLES=OFF $(CONFIGURE) >/dev/null
	@cmake --build build-asan$(SUFFIX) -j$(JOBS)
	@ASAN_OPTIONS=detect_leaks=1:abort_on_error=0 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
	  ctest --test-dir build-asan$(SUFFIX) --output-on-failure -j$(JOBS)

tsan: deps
	@cmake -S . -B build-tsan$(SUFFIX) -DCMAKE_BUILD_TYPE=Debug -DVOKT_SANITIZE=thread -DVOKT_BUILD_EXAMPLES=OFF $(CONFIGURE) >/dev/null
	@cmake --build build-tsan$(SUFFIX) -j$(JOBS)
	@TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1 ctest --test-dir build-tsan$(SUFFIX) --output-on-failure -j$(JOBS)

# The whole suite built by clang (make sanitize and make tsan take COMPILER=clang too).
clang:
	@$(MAKE) test COMPILER=clang

# The library, the tests and the examples built for another machine by Debian's cross
# compilers (ARCH=i386, arm64 or s390x, which is big-endian), GoogleTest built for it from
# Debian's sources; the unit suite and the main example run under qemu-user (i386 natively).
cross: build-deps
	@cmake/install-deps.sh $(CROSS_PACKAGES_$(ARCH)) googletest
	@VOKT_CROSS=$(ARCH) cmake -S . -B build-$(ARCH) -DCMAKE_TOOLCHAIN_FILE=cmake/cross.cmake \
	  -DCMAKE_BUILD_TYPE=RelWithDebInfo $(CONFIGURE) >/dev/null
	@VOKT_CROSS=$(ARCH) cmake --build build-$(ARCH) -j$(JOBS)
	@ctest --test-dir build-$(ARCH) --output-on-failure -j$(JOBS)
	@$(EMULATOR_$(ARCH)) build-$(ARCH)/examples/config_reader

# Every fuzz target for FUZZ_SECONDS, starting from the checked-in seeds; new inputs are
# kept under build-fuzz/, a crash, leak or model mismatch stops with its input saved there.
fuzz: deps
	@cmake/install-deps.sh clang libclang-rt-14-dev
	@CC=clang CXX=clang++ cmake -S . -B build-fuzz -DCMAKE_BUILD_TYPE=RelWithDebInfo -DVOKT_FUZZ=ON \
	  -DVOKT_BUILD_TESTS=OFF -DVOKT_BUILD_EXAMPLES=OFF $(CONFIGURE) >/dev/null
	@cmake --build build-fuzz -j$(JOBS)
	@cd build-fuzz && for t in $(FUZZ_TARGETS); do \
	  mkdir -p corpus/$$t artifacts && echo "== fuzz_$$t ($(FUZZ_SECONDS) s)" && \
	  ASAN_OPTIONS=detect_leaks=1 ./fuzz/fuzz_$$t -max_total_time=$(FUZZ_SECONDS) -print_final_stats=1 \
	    -artifact_prefix=artifacts/ corpus/$$t ../fuzz/corpus/$$t 2>&1 | grep -E '^(==|#[0-9]+ +DONE|stat::number_of_executed_units|SUMMARY|model mismatch|ERROR)' ; \
	  [ $${PIPESTATUS[0]} -eq 0 ] || exit 1; done

# Line and branch coverage of vokt/ from the test suite, per file; fails below the floors.
coverage: deps
	@cmake/install-deps.sh gcovr
	@cmake -S . -B build-cov -DCMAKE_BUILD_TYPE=Debug -DVOKT_COVERAGE=ON -DVOKT_BUILD_EXAMPLES=OFF $(CONFIGURE) >/dev/null
	@cmake --build build-cov -j$(JOBS)
	@find build-cov -name '*.gcda' -delete
	@ctest --test-dir build-cov -j$(JOBS) >/dev/null || { ctest --test-dir build-cov --rerun-failed --output-on-failure; exit 1; }
	@# and again with every check on, as CI runs it: the hooks' other side, in every place they are inlined
	@VOKT_CHECK=all ctest --test-dir build-cov -j$(JOBS) >/dev/null || \
	  { VOKT_CHECK=all ctest --test-dir build-cov --rerun-failed --output-on-failure; exit 1; }
	@gcovr -r . --object-directory build-cov --filter 'vokt/' --exclude-unreachable-branches --exclude-throw-branches \
	  --txt build-cov/coverage.txt --fail-under-line $(COVERAGE_LINES) --fail-under-branch $(COVERAGE_BRANCHES) \
	  --print-summary; status=$$?; cat build-cov/coverage.txt; exit $$status

# The HTML reference (and man pages) from the public headers and the README, under
# $(BUILD)/docs; an undocumented public function, type, field, macro or parameter fails it.
docs: configure
	@cmake/install-deps.sh doxygen
	@cmake -S . -B $(BUILD) >/dev/null
	@cmake --build $(BUILD) --target docs | grep -v '^\[' ; echo "reference: $(BUILD)/docs/html/index.html"

# clang-tidy (the checks in .clang-tidy) and cppcheck over the library; any finding fails.
lint: deps
	@cmake/install-deps.sh clang-tidy cppcheck
	@cmake -S . -B $(BUILD) -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_EXPORT_COMPILE_COMMANDS=ON $(CONFIGURE) >/dev/null
	@run-clang-tidy -quiet -extra-arg=-Wno-ignored-optimization-argument -p $(BUILD) '$(CURDIR)/vokt/' 2>&1 | grep -vE '^(clang-tidy|[0-9]+ warnings? generated|Suppressed|Use -header-filter|Enabled checks)' ; \
	  test $${PIPESTATUS[0]} -eq 0 && echo "clang-tidy: clean"
	@cppcheck --enable=warning,performance,portability --std=c++20 --language=c++ -I . -I $(BUILD)/generated \
	  --quiet --inline-suppr --error-exitcode=1 vokt/ && echo "cppcheck: clean"

# The built library against the committed ABI baseline of its SONAME for its machine
# (abi/<machine>/); additions pass, anything else fails. ABI=i386 or ABI=arm64 checks the
# library that make cross ARCH=... built. abi-baseline records a new baseline, for a new
# SONAME (or a machine that has none yet).
ABI ?= $(shell uname -m)
ABI_BUILD = $(if $(filter $(shell uname -m),$(ABI)),$(BUILD),build-$(ABI))
abi-check: $(if $(filter $(shell uname -m),$(ABI)),all,)
	@cmake/install-deps.sh abigail-tools
	@abi/check.sh $(ABI_BUILD)/libvokt.so abi/$(ABI)

abi-baseline: $(if $(filter $(shell uname -m),$(ABI)),all,)
	@cmake/install-deps.sh abigail-tools
	@mkdir -p abi/$(ABI); soname=$$(readelf -d $(ABI_BUILD)/libvokt.so | sed -n 's/.*(SONAME).*\[\(.*\)\]/\1/p'); \
	abidw --headers-dir vokt --headers-dir $(ABI_BUILD)/generated/vokt --no-corpus-path --no-show-locs \
	  --out-file abi/$(ABI)/$$soname.abi $(ABI_BUILD)/libvokt.so && echo "wrote abi/$(ABI)/$$soname.abi"

# Each hot path run as vokt, as the bare algorithm and as the peer, side by side, in the
# order the rows are listed (the one-thread lock rows must run before any thread exists); the table
# of ratios goes to $(BUILD)/bench/ratios.md and .csv, the chart to ratios.png. A whole run
# (no BENCH_ARGS) also renews bench/ratios.md and bench/ratios.png, which the README shows;
# a row without a measurement fails the run and renews nothing.
bench: deps
	@cmake/install-deps.sh libbenchmark-dev libglib2.0-dev gnuplot-nox
	@cmake -S . -B $(BUILD) -DCMAKE_BUILD_TYPE=RelWithDebInfo -DVOKT_BUILD_BENCH=ON $(CONFIGURE) >/dev/null
	@cmake --build $(BUILD) -j$(JOBS)
	@$(BUILD)/bench/bench_paths --out-dir=$(BUILD)/bench --benchmark_min_time=0.05 --benchmark_repetitions=5 \
	  --benchmark_display_aggregates_only=true $(BENCH_ARGS)
	@if [ -z "$(BENCH_ARGS)" ]; then cp $(BUILD)/bench/ratios.md bench/ratios.md && \
	  cp $(BUILD)/bench/ratios.png bench/ratios.png && echo "renewed bench/ratios.md and bench/ratios.png"; fi

# The .tar.gz and the Debian packages (libvokt1 with libvokt1-dbgsym, libvokt-dev,
# libvokt-doc) under $(BUILD)/packages; package-lint checks them with lintian.
package: all docs
	@rm -rf $(BUILD)/packages && mkdir -p $(BUILD)/packages
	@cd $(BUILD)/packages && cpack --config ../CPackConfig.cmake 2>&1 | grep -E 'generated|rror'
	@cmake/debian/dbgsym.sh $$(readlink -f $(BUILD)/libvokt.so) $(BUILD)/packages \
	  $$(dpkg-deb -f $(BUILD)/packages/libvokt1_*.deb Version) $$(dpkg --print-architecture) \
	  "$$(dpkg-deb -f $(BUILD)/packages/libvokt1_*.deb Maintainer)"

# No error, and no warning but one: initial-upload-closes-no-bugs concerns uploads to
# Debian's archive, which these packages are not.
package-lint: package
	@cmake/install-deps.sh lintian
	@lintian --fail-on error,warning --suppress-tags initial-upload-closes-no-bugs $(BUILD)/packages/*.deb \
	  $(BUILD)/packages/*.ddeb && echo "lintian: clean"

# Installs the libraries, headers, pkg-config and CMake files, and the reference with its
# man pages; `make libdir` prints where the libraries go below PREFIX.
install: all docs
	@cmake --install $(BUILD) --prefix $(PREFIX)

libdir: configure
	@sed -n 's/^CMAKE_INSTALL_LIBDIR:PATH=//p' $(BUILD)/CMakeCache.txt

clean:
	@rm -rf build build-* 

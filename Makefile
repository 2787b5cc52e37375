# Thin wrapper over CMake presets and ctest. Every target installs missing
# Debian packages first (scripts/install-deps is a no-op when all are there).
#
#   make run     build and run the system-key crypto self-test
#   make test    build and run the whole test suite
#   make check   make test, then the ASan+UBSan and TSan suites and a fuzz smoke run
#   make fuzz    run every fuzz target for FUZZ_SECONDS (default 300) each
#   make bench   build and run the benchmarks
#   make docs    API reference of the public headers in build/docs/html; fails
#                when a public function is undocumented (scripts/check-docs)

JOBS ?= $(shell nproc)
FUZZ_SECONDS ?= 300
FUZZ_SMOKE_SECONDS ?= 10
SUPP := $(CURDIR)/scripts/sanitizers
CTEST_FLAGS := --output-on-failure -j$(JOBS) --timeout 600

export GTEST_DEATH_TEST_STYLE := threadsafe
# detect_stack_use_after_return=0: tasks run on stacks the library maps itself.
# new_delete_type_mismatch=0: log4cxx 1.0 releases its rolling file appender
# with a sized delete of the wrong size, inside the uninstrumented library, on
# every reconfiguration; harmless with glibc's allocator.
ASAN_ENV := ASAN_OPTIONS=detect_stack_use_after_return=0:new_delete_type_mismatch=0:detect_leaks=1:abort_on_error=0 \
            LSAN_OPTIONS=suppressions=$(SUPP)/lsan.supp \
            UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
TSAN_ENV := TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1:suppressions=$(SUPP)/tsan.supp

.PHONY: all deps build run test check asan tsan fuzz-build fuzz-smoke fuzz bench docs clean

all: build

deps:
	@scripts/install-deps

build: deps
	cmake --preset default >/dev/null
	cmake --build build -j$(JOBS)

run: build
	./build/bin/zel_crypto_tests

test: build
	ctest --test-dir build $(CTEST_FLAGS)

asan: deps
	cmake --preset asan >/dev/null
	cmake --build build-asan -j$(JOBS)
	$(ASAN_ENV) ctest --test-dir build-asan $(CTEST_FLAGS)

tsan: deps
	cmake --preset tsan >/dev/null
	cmake --build build-tsan -j$(JOBS)
	$(TSAN_ENV) ctest --test-dir build-tsan $(CTEST_FLAGS)

fuzz-build: deps
	cmake --preset fuzz >/dev/null
	cmake --build build-fuzz -j$(JOBS)

fuzz-smoke: fuzz-build
	scripts/run-fuzzers $(FUZZ_SMOKE_SECONDS)

fuzz: fuzz-build
	scripts/run-fuzzers $(FUZZ_SECONDS)

check: test asan tsan fuzz-smoke

bench: build
	@for b in build/bin/bench_*; do echo "== $$b"; $$b --benchmark_min_time=0.2; done

DOCS_DIR := build/docs
PUBLIC_HEADERS = $(shell scripts/public-headers)

docs: deps
	rm -rf $(DOCS_DIR)
	mkdir -p $(DOCS_DIR)
	KV_DOCS_INPUT="$(PUBLIC_HEADERS)" \
	KV_DOCS_INCLUDE_DIRS="$(sort $(foreach h,$(PUBLIC_HEADERS),$(firstword $(subst /include/, ,$(h)))/include))" \
	KV_DOCS_OUTPUT=$(DOCS_DIR) \
	KV_DOCS_VERSION="$$(sed -n 's/^project(.* VERSION \([0-9.]*\).*/\1/p' CMakeLists.txt)" \
	doxygen docs/Doxyfile
	scripts/check-docs $(DOCS_DIR)/warnings.log
	@echo "API reference: $(DOCS_DIR)/html/index.html"

clean:
	rm -rf build build-asan build-tsan build-fuzz

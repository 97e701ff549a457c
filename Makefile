# One word for each everyday job. Each target bootstraps the machine first, so on a fresh
# Debian machine `make test` alone installs, configures, builds and runs every test.
.PHONY: all bootstrap build test test-fast test-slow asan-test tsan-test thread-safety-check bench fuzz demo install \
  check-install format format-check tidy coverage clean

JOBS ?= 2
# Let ccache share results between checkouts at different paths (CI builds a fresh clone).
export CCACHE_BASEDIR ?= $(CURDIR)
export CCACHE_NOHASHDIR ?= 1

all: build

bootstrap:
	@bash scripts/bootstrap.sh

build: bootstrap
	cmake --preset debug
	cmake --build --preset debug -j $(JOBS)

test: build
	ctest --preset debug

test-fast: build
	ctest --preset debug -LE slow

test-slow: build
	ctest --preset debug -L slow

asan-test: bootstrap
	cmake --preset asan
	cmake --build --preset asan -j $(JOBS)
	ctest --preset asan

# Only the concurrent tests run under the thread sanitizer, so only they are built.
tsan-test: bootstrap
	cmake --preset tsan
	cmake --build --preset tsan -j $(JOBS) --target \
	  $$(ninja -C build/tsan -t targets all | sed -n 's/^\(test_[a-z_]*_concurrent\): .*/\1/p' | sort -u)
	ctest --preset tsan

# Builds the libraries, tools and tests with clang, whose -Wthread-safety checks the lock
# annotations (thread_annotations.h) as errors. Nothing runs: the check is the compilation.
thread-safety-check: bootstrap
	cmake --preset thread-safety
	cmake --build --preset thread-safety -j $(JOBS)

bench: bootstrap
	cmake --preset release
	cmake --build --preset release -j $(JOBS)
	bash scripts/run-benchmarks.sh build/release/bench

fuzz: bootstrap
	cmake --preset fuzz
	cmake --build --preset fuzz -j $(JOBS)
	bash scripts/run-fuzz.sh build/fuzz/fuzz $${FUZZ_SECONDS:-60}

# Two devices editing one document through two mirrored folders; fails if they disagree.
demo: build
	build/debug/bin/example_two_devices examples/two_devices_model.json

install: bootstrap
	cmake --preset release
	cmake --build --preset release -j $(JOBS)
	cmake --install build/release --prefix $${PREFIX:-/usr/local}

# Installs the libraries into a temporary prefix and builds and runs a host project against
# them (tests/consumer), as a host application would.
check-install: bootstrap
	JOBS=$(JOBS) bash scripts/check-install.sh

# Rewrites every tracked C++ source with clang-format (.clang-format at the top).
format: bootstrap
	bash scripts/format.sh

# Fails, changing nothing, when a tracked C++ source is not formatted; lists the files.
format-check: bootstrap
	bash scripts/format.sh --check

# clang-tidy (.clang-tidy at the top) over src/ and tools/; any finding fails. Only the
# compile database is needed, so build/tidy is configured and never built.
tidy: bootstrap
	JOBS=$(JOBS) bash scripts/tidy.sh

# Builds with GCC's --coverage, runs the fast tests and prints line and branch coverage of src/.
coverage: bootstrap
	JOBS=$(JOBS) bash scripts/coverage.sh

clean:
	rm -rf build

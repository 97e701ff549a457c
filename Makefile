# One word for each everyday job. Each target bootstraps the machine first, so on a fresh
# Debian machine `make test` alone installs, configures, builds and runs every test.
.PHONY: all bootstrap build test test-fast test-slow asan-test tsan-test bench fuzz demo install clean

JOBS ?= 2

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

tsan-test: bootstrap
	cmake --preset tsan
	cmake --build --preset tsan -j $(JOBS)
	ctest --preset tsan

bench: bootstrap
	cmake --preset release
	cmake --build --preset release -j $(JOBS)
	bash scripts/run-benchmarks.sh build/release/bench

fuzz: bootstrap
	cmake --preset fuzz
	cmake --build --preset fuzz -j $(JOBS)
	bash scripts/run-fuzz.sh build/fuzz/fuzz $${FUZZ_SECONDS:-60}

install: bootstrap
	cmake --preset release
	cmake --build --preset release -j $(JOBS)
	cmake --install build/release --prefix $${PREFIX:-/usr/local}

clean:
	rm -rf build

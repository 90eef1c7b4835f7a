# Short names for the commands of this project; CMake does the work. Each target installs what it
# needs on Debian, so that it works as the first command after a clone.

JOBS ?= $(shell nproc)
DEPENDENCIES := .ci/install-dependencies.sh
SOURCES = $(shell git ls-files '*.cpp' '*.h')
PYTHON = $(shell git ls-files '*.py')
SCRIPTS = $(shell git ls-files '*.sh' .ci/run 'packaging/*.init.in' 'packaging/debian/p*')
# Functions that only glibc has. Only common/Memory.cpp may call them.
GLIBC_ONLY := mallopt|mallinfo|malloc_(trim|info|stats)|gnu_get_|__GLIBC|backtrace_symbols|execinfo\.h
# Most tests wait for a broker or a timer, so many more tests than cores can run at the same time.
TEST_JOBS ?= 24

.PHONY: help deps build test demo run lint format loc clean asan tsan

help:
	@echo 'make demo      three datagrams, hop by hop, with a real broker and a real TLS server'
	@echo 'make test      all tests'
	@echo 'make doctor    lora-veyra-doctor on a healthy gateway, and with three faults'
	@echo 'make run       the daemon in the foreground, with lora-veyra-server.conf'
	@echo 'make build     the programs, in build/'
	@echo 'make asan      all tests under AddressSanitizer and UndefinedBehaviorSanitizer'
	@echo 'make tsan      all tests under ThreadSanitizer'
	@echo 'make cross ARCH=armhf        the programs for an architecture of cmake/targets.list'
	@echo 'make test-cross ARCH=armhf   the tests for that architecture, in an emulator'
	@echo 'make package   Debian packages and their SHA-256 sums'
	@echo 'make test-package      builds the packages twice, compares them, and tests them in Debian'
	@echo 'make test-integration  runs the commands of docs/integration.md in a clean Debian'
	@echo 'make fuzz      fuzzes the parsers of external input, FUZZ_SECONDS for each'
	@echo 'make soak      SOAK_MINUTES of load with failing peers; accounts for every datagram'
	@echo 'make bench     the daemon compared with a minimal baseline'
	@echo 'make lint      checks formatting, sources, scripts and documents'
	@echo 'make format    formats the sources'
	@echo 'make loc       lines of code by component; ratio of test code to product code'
	@echo 'make clean     removes all build directories'

deps:
	@$(DEPENDENCIES) build test

build: deps
	cmake --preset release
	cmake --build --preset release -j $(JOBS)

test: build
	ctest --preset release -j $(TEST_JOBS)

demo: build
	@testbed/run.sh /usr/bin/python3 -m demo.run

run: build
	build/lora-veyra-server -c lora-veyra-server.conf -l build/lora-veyra-server.log

asan tsan: deps
	cmake --preset $@
	cmake --build --preset $@ -j $(JOBS)
	ctest --preset $@ -j $(TEST_JOBS)

lint:
	@$(DEPENDENCIES) build test lint
	clang-format --dry-run --Werror $(SOURCES)
	shellcheck $(SCRIPTS)
	/usr/bin/python3 -m flake8 $(PYTHON)
	/usr/bin/python3 -m mypy $(PYTHON)
	! grep -nE '$(GLIBC_ONLY)' $(filter-out %/Memory.cpp bench/% fuzz/% tests/%,$(SOURCES))
	.ci/check-musl.sh
	cmake --preset debug
	run-clang-tidy -quiet -p build-debug -j $(JOBS)
	docs/check.py
	docs/check-findings.sh

format:
	@$(DEPENDENCIES) lint
	clang-format -i $(SOURCES)

loc:
	@.ci/count-lines.sh

clean:
	rm -rf build build-*

include packaging/targets.mk bench/targets.mk doctor/targets.mk

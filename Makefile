# SPDX-License-Identifier: Apache-2.0
#
# Front door of the build. The rules themselves are in CMakeLists.txt and scripts/.

FUZZ_SECONDS ?= 60
MINUTES ?= 60
export FUZZ_SECONDS

.PHONY: help demo check check-all prove lab bench bench-store coverage format clean

help:
	@echo 'make demo       build the daemon and show it find and break a forwarding loop'
	@echo 'make check      optimised build and all tests, those on network namespaces included'
	@echo 'make check-all  32-bit and sanitizer builds with their tests, layering, headers, format,'
	@echo '                clang-tidy, benchmarks as tests, short fuzz runs (FUZZ_SECONDS=$(FUZZ_SECONDS) each)'
	@echo 'make lab        only the tests on real network namespaces, and with them the long ones and those'
	@echo '                with Open vSwitch; LAB_REPEAT=20 repeats the scenarios and sums their figures up'
	@echo 'make prove      the long proofs, in MINUTES=$(MINUTES): every kill point of the table store, its model,'
	@echo '                weakened orders, hostile input, whole processes, faults, deaths, checked reads'
	@echo 'make bench      build and run the benchmarks; bench-store: the table store beside its peers'
	@echo 'make coverage   lines and branches of the table store that its tests reach'
	@echo 'make format     format every source file in place'
	@echo 'make clean      remove build/'
	@echo
	@echo 'All but help, clean install missing Debian packages first (scripts/setup).'

demo:
	@scripts/setup demo
	@scripts/run-demo

check:
	@scripts/setup check
	@scripts/run-tests release -LE 'bench|lab-long'

check-all:
	@scripts/setup check-all
	@scripts/check-all

lab:
	@scripts/setup lab
	@scripts/run-lab

prove:
	@scripts/setup prove
	@scripts/prove $(MINUTES)

bench:
	@scripts/setup bench
	@scripts/run-bench

bench-store:
	@scripts/setup bench
	@scripts/bench-store

coverage:
	@scripts/setup coverage
	@scripts/coverage

format:
	@scripts/setup format
	@scripts/sources | xargs -r clang-format -i

clean:
	rm -rf build

# Measurements. Each builds what it runs.

BENCH_SLICES ?= 5

.PHONY: bench

bench:
	@$(DEPENDENCIES) build test bench
	cmake --preset release
	cmake --build --preset release -j $(JOBS) --target benchmark
	bench/run-bench.sh build $(BENCH_SLICES)

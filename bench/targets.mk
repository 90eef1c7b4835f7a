# Measurements. Each target builds the programs that it runs.

# How often "make bench" repeats all measurements. More repetitions reduce the spread.
BENCH_SLICES ?= 5
# For each fuzzer.
FUZZ_SECONDS ?= 60
SOAK_MINUTES ?= 10
SOAK_SEED ?= 20261121

.PHONY: bench fuzz soak

bench:
	@$(DEPENDENCIES) build test bench
	cmake --preset release
	cmake --build --preset release -j $(JOBS) --target lora-veyra-server baseline-json
	testbed/run.sh /usr/bin/python3 -m bench.benchmark $(BENCH_SLICES)

soak:
	@$(DEPENDENCIES) build test bench
	cmake --preset release
	cmake --build --preset release -j $(JOBS) --target lora-veyra-server
	testbed/run.sh /usr/bin/python3 -m bench.soak $(SOAK_MINUTES) $(SOAK_SEED) build/soak.svg

fuzz:
	@$(DEPENDENCIES) build test fuzz
	cmake -B build-fuzz -DCMAKE_CXX_COMPILER=clang++ -DCMAKE_BUILD_TYPE=RelWithDebInfo \
		-DVEYRA_SANITIZE=fuzzer-no-link,address,undefined
	cmake --build build-fuzz -j $(JOBS) --target fuzzers
	fuzz/run.sh build-fuzz $(FUZZ_SECONDS)

# Thin wrapper over CMake for the two commands in the README.
BUILD      ?= build
ASAN_BUILD ?= build-asan
JOBS       ?= $(shell nproc)

.PHONY: deps build test test-plain test-asan clean bench

deps:
	@scripts/deps.sh

build: deps
	cmake -S . -B $(BUILD) -DCMAKE_BUILD_TYPE=RelWithDebInfo
	cmake --build $(BUILD) -j $(JOBS)

test-plain: build
	ctest --test-dir $(BUILD) --output-on-failure -j $(JOBS)

test-asan: deps
	cmake -S . -B $(ASAN_BUILD) -DCMAKE_BUILD_TYPE=Debug -DWS_CLIENT_SANITIZE=ON
	cmake --build $(ASAN_BUILD) -j $(JOBS)
	ASAN_OPTIONS=detect_leaks=1 ctest --test-dir $(ASAN_BUILD) --output-on-failure -j $(JOBS)

test: test-plain test-asan

clean:
	rm -rf $(BUILD) $(ASAN_BUILD)

# Benchmarks: an optimised build with WS_CLIENT_BENCH=ON in build-bench/.
BENCH_BUILD ?= build-bench
bench: deps
	cmake -S . -B $(BENCH_BUILD) -DCMAKE_BUILD_TYPE=Release -DWS_CLIENT_BENCH=ON -DWS_CLIENT_TESTS=OFF
	cmake --build $(BENCH_BUILD) -j $(JOBS)
	$(BENCH_BUILD)/bench/udp_roundtrip_bench

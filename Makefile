# Thin wrapper over CMake for the two commands in the README.
BUILD      ?= build
ASAN_BUILD ?= build-asan
FUZZ_BUILD ?= build-fuzz
FUZZ_SECONDS ?= 20
BENCH_BUILD ?= build-bench
LUAJIT_BUILD ?= build-luajit
JOBS       ?= $(shell nproc)

.PHONY: deps build demo test test-plain test-asan test-luajit test-fuzz bench mutants clean

deps:
	@scripts/deps.sh

build: deps
	cmake -S . -B $(BUILD) -DCMAKE_BUILD_TYPE=RelWithDebInfo
	cmake --build $(BUILD) -j $(JOBS)

# The module alone, then examples/demo.lua under lua5.1 against a local peer
# (certificates kept in $(BUILD)/peer-certs, the peer's log in $(BUILD)/peer.log).
demo: deps
	cmake -S . -B $(BUILD) -DCMAKE_BUILD_TYPE=RelWithDebInfo
	cmake --build $(BUILD) -j $(JOBS) --target ws_client
	LUA_CPATH="$(CURDIR)/$(BUILD)/?.so" scripts/with_peer.sh -c "$(CURDIR)/$(BUILD)/peer-certs" \
	  -l "$(CURDIR)/$(BUILD)/peer.log" -- lua5.1 examples/demo.lua

# Each test group prints one line (its full output goes to <build dir>/test.log);
# `make test` runs every group, then prints the total "N passed, N failed".
GROUP = JOBS=$(JOBS) scripts/test_group.sh

test-plain: deps
	@$(GROUP) plain $(BUILD) -DCMAKE_BUILD_TYPE=RelWithDebInfo

test-asan: deps
	@ASAN_OPTIONS=detect_leaks=1 $(GROUP) asan $(ASAN_BUILD) -DCMAKE_BUILD_TYPE=Debug -DWS_CLIENT_SANITIZE=ON

# Built against LuaJIT: the module and the script-level tests under luajit.
test-luajit: deps
	@$(GROUP) luajit $(LUAJIT_BUILD) -DCMAKE_BUILD_TYPE=RelWithDebInfo -DWS_CLIENT_LUAJIT=ON -DWS_CLIENT_TESTS=OFF

# Each fuzz target for FUZZ_SECONDS (make test-fuzz FUZZ_SECONDS=3600 for a long run).
test-fuzz: deps
	@if command -v clang++ >/dev/null 2>&1; then \
	  TARGET=fuzz_targets $(GROUP) fuzz $(FUZZ_BUILD) -DCMAKE_CXX_COMPILER=clang++ -DCMAKE_BUILD_TYPE=RelWithDebInfo \
	    -DWS_CLIENT_TESTS=OFF -DWS_CLIENT_FUZZ=ON -DWS_CLIENT_FUZZ_SECONDS=$(FUZZ_SECONDS); \
	else echo "fuzz: clang++ not found, not run"; fi

test: deps
	@rm -f $(BUILD)/test-counts $(ASAN_BUILD)/test-counts $(LUAJIT_BUILD)/test-counts $(FUZZ_BUILD)/test-counts
	@$(MAKE) -k --no-print-directory test-plain test-asan test-luajit test-fuzz; status=$$?; \
	  scripts/test_group.sh --total $(BUILD) $(ASAN_BUILD) $(LUAJIT_BUILD) $(FUZZ_BUILD) && exit $$status

# Every mutant of tools/mutants.txt against the fast tests (incremental builds
# in build-mutants/); the table ends with `killed K of N` and names every
# mutant the baseline run killed that survives now.
mutants: deps
	@tools/mutate.py --killed build-mutants/killed.txt --baseline tools/mutants-baseline-killed.txt

bench: deps
	cmake -S . -B $(BENCH_BUILD) -DCMAKE_BUILD_TYPE=Release -DWS_CLIENT_TESTS=OFF -DWS_CLIENT_BENCH=ON
	cmake --build $(BENCH_BUILD) -j $(JOBS)
	$(BENCH_BUILD)/bench/ws_client_bench
	$(BENCH_BUILD)/bench/udp_roundtrip_bench
	$(BENCH_BUILD)/bench/chunked_bench
	$(BENCH_BUILD)/bench/tcp_roundtrip_bench
	$(BENCH_BUILD)/bench/ws_roundtrip_bench

clean:
	rm -rf $(BUILD) $(ASAN_BUILD) $(FUZZ_BUILD) $(BENCH_BUILD) $(LUAJIT_BUILD) build-mutants

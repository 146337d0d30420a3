# Thin wrapper over CMake for the two commands in the README.
BUILD      ?= build
ASAN_BUILD ?= build-asan
FUZZ_BUILD ?= build-fuzz
FUZZ_SECONDS ?= 20
BENCH_BUILD ?= build-bench
JOBS       ?= $(shell nproc)

LUA_LEGS   := test-lua5.2 test-lua5.3 test-lua5.4 test-luajit
# The other TLS libraries the module can be built on (-DWS_CLIENT_TLS=...);
# OpenSSL is the default.
OTHER_TLS  ?= mbedtls wolfssl

.PHONY: deps deps-demo build demo test test-plain test-asan $(LUA_LEGS) test-fuzz test-tls bench footprint dist clean

deps:
	@scripts/deps.sh

deps-demo:
	@scripts/deps.sh demo

build: deps
	cmake -S . -B $(BUILD) -DCMAKE_BUILD_TYPE=RelWithDebInfo -DWS_CLIENT_TESTS=ON
	cmake --build $(BUILD) -j $(JOBS)

# The module alone, then examples/demo.lua under lua5.1 against a local peer
# (certificates kept in $(BUILD)/peer-certs, the peer's log in $(BUILD)/peer.log).
# Configured without the unit tests: the demo needs neither GoogleTest nor clang.
demo: deps-demo
	cmake -S . -B $(BUILD) -DCMAKE_BUILD_TYPE=RelWithDebInfo -DWS_CLIENT_TESTS=OFF
	cmake --build $(BUILD) -j $(JOBS) --target ws_client
	LUA_CPATH="$(CURDIR)/$(BUILD)/?.so" scripts/with_peer.sh -c "$(CURDIR)/$(BUILD)/peer-certs" \
	  -l "$(CURDIR)/$(BUILD)/peer.log" -- lua5.1 examples/demo.lua

test-plain: build
	ctest --test-dir $(BUILD) --output-on-failure -j $(JOBS)

test-asan: deps
	cmake -S . -B $(ASAN_BUILD) -DCMAKE_BUILD_TYPE=Debug -DWS_CLIENT_SANITIZE=ON
	cmake --build $(ASAN_BUILD) -j $(JOBS)
	ASAN_OPTIONS=detect_leaks=1 ctest --test-dir $(ASAN_BUILD) --output-on-failure -j $(JOBS)

# The other interpreters, each in a build of its own (build-lua5.2 ...
# build-luajit): the module and the script-level tests under that interpreter
# (module load, install, the examples and the demo against the local peer).
# Only the 5.4 build adds the unit suite; the others build the module alone.
$(LUA_LEGS): test-lua%: deps
	cmake -S . -B build-lua$* -DCMAKE_BUILD_TYPE=RelWithDebInfo -DWS_CLIENT_LUA=$(patsubst jit,luajit,$*) \
	  -DWS_CLIENT_TESTS=$(if $(filter 5.4,$*),ON,OFF)
	cmake --build build-lua$* -j $(JOBS)
	ctest --test-dir build-lua$* --output-on-failure -j $(JOBS)

# Each fuzz target for FUZZ_SECONDS (make test-fuzz FUZZ_SECONDS=3600 for a long run).
test-fuzz: deps
	@if command -v clang++ >/dev/null 2>&1; then \
	  cmake -S . -B $(FUZZ_BUILD) -DCMAKE_CXX_COMPILER=clang++ -DCMAKE_BUILD_TYPE=RelWithDebInfo \
	    -DWS_CLIENT_TESTS=OFF -DWS_CLIENT_FUZZ=ON -DWS_CLIENT_FUZZ_SECONDS=$(FUZZ_SECONDS) && \
	  cmake --build $(FUZZ_BUILD) -j $(JOBS) --target fuzz_targets && \
	  ctest --test-dir $(FUZZ_BUILD) --output-on-failure -j $(JOBS); \
	else echo "clang++ not found: fuzz targets not run"; fi

# The TLS, WebSocket and protection tests, the examples and the demo on each other TLS
# library, one build each in build-tls-NAME.
test-tls: deps
	@for tls in $(OTHER_TLS); do \
	  echo "== TLS library: $$tls"; \
	  cmake -S . -B build-tls-$$tls -DCMAKE_BUILD_TYPE=RelWithDebInfo -DWS_CLIENT_TLS=$$tls && \
	  cmake --build build-tls-$$tls -j $(JOBS) && \
	  ctest --test-dir build-tls-$$tls --output-on-failure -j $(JOBS) -R 'Tls|Ws|Handshake|Protect|examples' || exit 1; \
	done

test: test-plain test-asan $(LUA_LEGS) test-fuzz test-tls

# Release files in dist/: ws_client-<version>.tar.gz and its rockspec, whose
# source URL is DIST_URL/ws_client-<version>.tar.gz (default: file:// dist/).
dist:
	scripts/dist.sh dist $(DIST_URL)

bench: deps
	cmake -S . -B $(BENCH_BUILD) -DCMAKE_BUILD_TYPE=Release -DWS_CLIENT_TESTS=OFF -DWS_CLIENT_BENCH=ON
	cmake --build $(BENCH_BUILD) -j $(JOBS)
	$(BENCH_BUILD)/bench/ws_client_bench
	$(BENCH_BUILD)/bench/udp_roundtrip_bench
	$(BENCH_BUILD)/bench/chunked_bench
	$(BENCH_BUILD)/bench/tcp_roundtrip_bench
	$(BENCH_BUILD)/bench/ws_roundtrip_bench
	LUA_CPATH="$(CURDIR)/$(BENCH_BUILD)/?.so" LUA_PATH="$(CURDIR)/src/?.lua;;" \
	  scripts/with_peer.sh -- lua5.1 bench/easy_roundtrip.lua
	bench/footprint.sh lua5.1 $(BENCH_BUILD) openssl

# Resident memory per connection kind, the module's size and the wss round
# trip rate against the local peer (bench/footprint.sh), for the module on
# each TLS library (optimised builds in build-footprint-NAME).
footprint: deps
	@for tls in openssl $(OTHER_TLS); do \
	  cmake -S . -B build-footprint-$$tls -DCMAKE_BUILD_TYPE=Release -DWS_CLIENT_TESTS=OFF \
	    -DWS_CLIENT_SCRIPT_TESTS=OFF -DWS_CLIENT_TLS=$$tls >/dev/null && \
	  cmake --build build-footprint-$$tls -j $(JOBS) --target ws_client >/dev/null && \
	  bench/footprint.sh lua5.1 build-footprint-$$tls $$tls || exit 1; \
	done

clean:
	rm -rf $(BUILD) $(ASAN_BUILD) $(FUZZ_BUILD) $(BENCH_BUILD) $(patsubst test-%,build-%,$(LUA_LEGS)) dist build-tls-* build-footprint-*

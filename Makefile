# Thin wrapper over CMake for the two commands in the README.
BUILD      ?= build
ASAN_BUILD ?= build-asan
FUZZ_BUILD ?= build-fuzz
FUZZ_SECONDS ?= 20
BENCH_BUILD ?= build-bench
CROSS_BUILD ?= build-cross
JOBS       ?= $(shell nproc)

LUA_LEGS   := test-lua5.2 test-lua5.3 test-lua5.4 test-luajit
# The other TLS libraries the module can be built on (-DWS_CLIENT_TLS=...);
# OpenSSL is the default.
OTHER_TLS  ?= mbedtls wolfssl

.PHONY: deps deps-demo build demo check test test-plain test-asan $(LUA_LEGS) test-fuzz test-tls test-mbedtls36 test-musl test-debian test-openwrt test-cross cross bench footprint dist mutants clean

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

# The test groups are the lines of scripts/test_groups.txt; scripts/test_groups.sh
# runs some or all of them, one line each (the whole output in <build dir>/test.log),
# then the total "N passed, N failed".
GROUPS = JOBS=$(JOBS) scripts/test_groups.sh

# The fast tier: the Lua 5.1 build in $(BUILD) with the unit tests, the seed
# replays, the examples and the companion's test (not the packaging tests).
check: deps
	@EXCLUDE='^rockspec$$' $(GROUPS) plain

test-plain: deps
	@$(GROUPS) plain

test-asan: deps
	@$(GROUPS) asan

# The other interpreters, each in a build of its own (build-lua5.2 ...
# build-luajit): the module and the script-level tests under that interpreter
# (module load, install, the examples and the demo against the local peer).
# Only the 5.4 build adds the unit suite; the others build the module alone.
$(LUA_LEGS): test-%: deps
	@$(GROUPS) $*

# Each fuzz target for FUZZ_SECONDS (make test-fuzz FUZZ_SECONDS=3600 for a long run).
test-fuzz: deps
	@FUZZ_SECONDS=$(FUZZ_SECONDS) $(GROUPS) fuzz

# The TLS, WebSocket and protection tests, the examples and the demo on each other TLS
# library, one build each in build-tls-NAME.
test-tls: deps
	@$(GROUPS) $(OTHER_TLS)

# The whole suite on mbedTLS 3.6 (Debian 13's packages in a private root,
# build-mbedtls36/trixie/root; the host's 2.28 stays as it is).
test-mbedtls36: deps
	@JOBS=$(JOBS) scripts/test_mbedtls36.sh build-mbedtls36

# The module on musl with mbedTLS 3.6, script-level tests under a musl lua5.1
# (musl-tools; Lua and mbedTLS built from Debian's sources into
# build-musl/root once).
test-musl: deps
	@JOBS=$(JOBS) scripts/test_musl.sh build-musl

# The Debian recipe (debian/): binary packages built from a copy of the
# tracked files, unpacked into a throwaway root and loaded by every Lua.
test-debian: deps
	@JOBS=$(JOBS) scripts/test_debian.sh build-debian

# The OpenWrt recipe (packaging/openwrt/ws-client) run as that build system
# would, cross-built for arm64 on mbedTLS 3.6 (build-openwrt/, the arm64
# sysroot shared with make cross), its package checked and loaded under qemu.
test-openwrt:
	@scripts/deps.sh cross
	@JOBS=$(JOBS) ARM64_SYSROOT=$(CROSS_BUILD)/sysroot-arm64 scripts/test_openwrt.sh build-openwrt

# Release files in dist/: ws_client-<version>.tar.gz and its rockspec, whose
# source URL is DIST_URL/ws_client-<version>.tar.gz (default: file:// dist/).
dist:
	scripts/dist.sh dist $(DIST_URL)

# Cross builds: size-optimised, stripped, one per architecture in
# $(CROSS_BUILD)/ARCH/ws_client.so, each against a sysroot of that
# architecture's Debian packages kept in ~/.cache/ws_client/sysroot-ARCH.
# `make cross ARCH=arm64` for one (only ARCH given on the command line counts);
# `make cross TLS=mbedtls` (or wolfssl) builds on that TLS library instead, in
# $(CROSS_BUILD)/ARCH-TLS.
CROSS_ARCHES := arm64 armhf mipsel s390x
ifneq ($(origin ARCH),command line)
ARCH := $(CROSS_ARCHES)
endif
TLS ?= openssl
cross:
	@scripts/deps.sh cross
	JOBS=$(JOBS) TLS=$(TLS) scripts/cross.sh $(CROSS_BUILD) $(ARCH)

# The cross builds under qemu-user against the local peer (and the unit tests
# on s390x); one more leg on mbedTLS, the small-device TLS library, on arm64.
test-cross:
	@scripts/deps.sh cross
	@JOBS=$(JOBS) TLS=$(TLS) scripts/cross.sh -t $(CROSS_BUILD) $(ARCH); status=$$?; \
	  JOBS=$(JOBS) TLS=mbedtls scripts/cross.sh -t $(CROSS_BUILD) arm64 && exit $$status

test: deps
	@scripts/deps.sh cross
	@FUZZ_SECONDS=$(FUZZ_SECONDS) $(GROUPS)

# Every mutant of tools/mutants.txt against the fast tests (incremental builds
# in build-mutants/); the table ends with `killed K of N` and names every
# mutant the baseline run killed that survives now.
mutants: deps
	@tools/mutate.py --killed tools/mutants-killed.txt --baseline tools/mutants-baseline-killed.txt

bench: deps
	cmake -S . -B $(BENCH_BUILD) -DCMAKE_BUILD_TYPE=Release -DWS_CLIENT_TESTS=OFF -DWS_CLIENT_BENCH=ON
	cmake --build $(BENCH_BUILD) -j $(JOBS)
	$(BENCH_BUILD)/bench/ws_client_bench
	$(BENCH_BUILD)/bench/udp_roundtrip_bench
	$(BENCH_BUILD)/bench/chunked_bench
	$(BENCH_BUILD)/bench/ws_codec_bench
	$(BENCH_BUILD)/bench/tcp_roundtrip_bench
	$(BENCH_BUILD)/bench/ws_roundtrip_bench
	LUA_CPATH="$(CURDIR)/$(BENCH_BUILD)/?.so" LUA_PATH="$(CURDIR)/src/?.lua;;" \
	  scripts/with_peer.sh -- lua5.1 bench/easy_roundtrip.lua
	LUA_CPATH="$(CURDIR)/$(BENCH_BUILD)/?.so;;" LUA_PATH="$(CURDIR)/src/?.lua;;" \
	  scripts/with_peer.sh -- lua5.1 bench/easy_step.lua
	bench/nonblocking.sh $(CURDIR)/$(BENCH_BUILD)
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
	rm -rf $(BUILD) $(ASAN_BUILD) $(FUZZ_BUILD) $(BENCH_BUILD) build-ccache build-logs $(patsubst test-%,build-%,$(LUA_LEGS)) dist build-tls-* build-footprint-* $(CROSS_BUILD) build-mutants build-mbedtls36 build-musl build-openwrt build-debian

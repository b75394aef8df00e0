# hostrix: build, test and demo entry points. `make demo` and `make check` install
# their own Debian packages when missing, so both work on a fresh machine as root.

BUILD        ?= build
ASAN_BUILD   ?= build-asan
FUZZ_BUILD   ?= build-fuzz
BENCH_BUILD  ?= build-bench
DEMO_SECONDS ?=
# make install: where the programs go (DESTDIR is honoured too); the settings stay in /etc/hostrix.
PREFIX       ?= /usr/local
INSTALL_BUILD ?= build-install
# Seconds each fuzz target runs: bounded in `make check`, longer in `make fuzz`.
CHECK_FUZZ_SECONDS ?= 10
FUZZ_SECONDS ?= 1800
# `make fuzz` stops a target once it has made this many executions.
FUZZ_RUNS ?= 10000000

DEPS := cmake ninja-build g++ clang libclang-rt-14-dev libgtest-dev libgmock-dev \
        libbenchmark-dev libnftnl-dev libmnl-dev libsqlite3-dev ieee-data iproute2 dnsmasq-base \
        busybox nftables tcpdump python3 procps faketime pkg-config libmicrohttpd-dev \
        chromium chromium-driver python3-prometheus-client scdoc \
        libmosquitto-dev mosquitto mosquitto-clients

CMAKE_GEN := -G Ninja

.PHONY: all build deps check unit asan e2e fuzz fuzz-build fuzz-run bench demo clean install uninstall \
        cross cross-check cross-deps sizes

all: build

deps:
	@missing=$$(for p in $(DEPS); do dpkg -s $$p >/dev/null 2>&1 || echo $$p; done); \
	if [ -n "$$missing" ]; then \
	  echo "Installing missing packages:" $$missing; \
	  apt-get update -qq && DEBIAN_FRONTEND=noninteractive apt-get install -y -qq $$missing; \
	fi

build:
	cmake -S . -B $(BUILD) $(CMAKE_GEN) -DCMAKE_BUILD_TYPE=RelWithDebInfo
	cmake --build $(BUILD)

asan:
	cmake -S . -B $(ASAN_BUILD) $(CMAKE_GEN) -DCMAKE_BUILD_TYPE=Debug -DHOSTRIX_SANITIZE=ON
	cmake --build $(ASAN_BUILD)

fuzz-build:
	CXX=clang++ cmake -S . -B $(FUZZ_BUILD) $(CMAKE_GEN) -DCMAKE_BUILD_TYPE=RelWithDebInfo -DHOSTRIX_FUZZ=ON
	cmake --build $(FUZZ_BUILD)

fuzz-run:
	tests/fuzz/run.sh $(FUZZ_BUILD) $(SECONDS_EACH) $(RUNS_EACH) $(KEEP_CORPUS)

# Every test: unit and process tests, the same under ASan+UBSan, the end-to-end
# tests in the virtual LAN, the unit tests on big-endian MIPS under qemu, and a
# bounded run of every fuzz target.
check: deps build asan fuzz-build
	ctest --test-dir $(BUILD) --output-on-failure
	ctest --test-dir $(ASAN_BUILD) --output-on-failure -L 'unit|process'
	$(MAKE) --no-print-directory cross-check ARCH=mips
	$(MAKE) --no-print-directory fuzz-run SECONDS_EACH=$(CHECK_FUZZ_SECONDS)

unit: build
	ctest --test-dir $(BUILD) --output-on-failure -L unit

e2e: deps build
	ctest --test-dir $(BUILD) --output-on-failure -L e2e

fuzz: deps fuzz-build
	$(MAKE) --no-print-directory fuzz-run SECONDS_EACH=$(FUZZ_SECONDS) RUNS_EACH=$(FUZZ_RUNS) KEEP_CORPUS=1

# Same optimisation as the daemon that ships (-O2), so the numbers are the real ones.
bench: deps
	cmake -S . -B $(BENCH_BUILD) $(CMAKE_GEN) -DCMAKE_BUILD_TYPE=RelWithDebInfo -DHOSTRIX_BENCH=ON -DHOSTRIX_TESTS=OFF
	cmake --build $(BENCH_BUILD)
	@for b in $(BENCH_BUILD)/bin/bench_*; do [ -x "$$b" ] && "$$b"; done; true
	@HOSTRIX_BIN=$(BENCH_BUILD)/bin/hostrix bash bench/capture_lab.sh || true
	@HOSTRIX_BIN=$(BENCH_BUILD)/bin/hostrix bash bench/scale_lab.sh || true
	@HOSTRIX_BIN=$(BENCH_BUILD)/bin/hostrix bash bench/scale_lab.sh churn || true

# Brings the virtual LAN up, runs the daemon in it and shows what it sees.
demo: deps build
	lab/demo.sh $(DEMO_SECONDS)

# The programs, vendor registry, man pages, example settings and systemd units, under
# DESTDIR and PREFIX. As root into the real system it also creates the agent's user
# and group (systemd-sysusers). Its own build folder, so the prefix in the units
# never leaks into the test build; -O2 as tested, stripped.
install: deps
	cmake -S . -B $(INSTALL_BUILD) $(CMAKE_GEN) -DCMAKE_BUILD_TYPE=RelWithDebInfo \
	  -DHOSTRIX_TESTS=OFF -DCMAKE_INSTALL_PREFIX=$(PREFIX)
	cmake --build $(INSTALL_BUILD)
	DESTDIR=$(DESTDIR) cmake --install $(INSTALL_BUILD) --strip
	@packaging/after-install.sh "$(DESTDIR)" "$(PREFIX)"

# Removes what install put there; a settings file changed since is kept, and said so.
uninstall:
	@packaging/uninstall.sh $(INSTALL_BUILD)/install_manifest.txt packaging/examples "$(DESTDIR)"

# Cross builds with Debian's cross compilers (ARCH=arm64|armhf|mips), the unit tests
# under qemu-user (mips is big-endian), and the programs' stripped sizes.
ARCH ?= mips
CROSS_CXX_arm64 := g++-aarch64-linux-gnu
CROSS_CXX_armhf := g++-arm-linux-gnueabihf
CROSS_CXX_mips  := g++-mips-linux-gnu

cross-deps:
	@$(MAKE) --no-print-directory deps DEPS="$(DEPS) $(CROSS_CXX_$(ARCH)) qemu-user-static"

cross: cross-deps
	packaging/cross/cross.sh build $(ARCH)

cross-check: cross-deps
	packaging/cross/cross.sh check $(ARCH)

sizes:
	@$(MAKE) --no-print-directory deps DEPS="$(DEPS) $(CROSS_CXX_arm64) $(CROSS_CXX_armhf) $(CROSS_CXX_mips)"
	packaging/cross/cross.sh sizes

clean:
	rm -rf $(BUILD) $(ASAN_BUILD) $(FUZZ_BUILD) $(BENCH_BUILD) $(INSTALL_BUILD) build-x86-64 \
	  $(foreach a,arm64 armhf mips,build-$(a) build-$(a)-check)

# hostrix: build, test and demo entry points. `make demo` and `make check` install
# their own Debian packages when missing, so both work on a fresh machine as root.

BUILD        ?= build
ASAN_BUILD   ?= build-asan
FUZZ_BUILD   ?= build-fuzz
BENCH_BUILD  ?= build-bench
DEMO_SECONDS ?=
# Seconds each fuzz target runs: bounded in `make check`, longer in `make fuzz`.
CHECK_FUZZ_SECONDS ?= 20
FUZZ_SECONDS ?= 1800
# `make fuzz` stops a target once it has made this many executions.
FUZZ_RUNS ?= 10000000

DEPS := cmake ninja-build g++ clang libclang-rt-14-dev libgtest-dev libgmock-dev \
        libbenchmark-dev libnftnl-dev libmnl-dev libsqlite3-dev ieee-data iproute2 dnsmasq-base \
        busybox nftables tcpdump python3 procps faketime \
        libmosquitto-dev mosquitto mosquitto-clients

CMAKE_GEN := -G Ninja

.PHONY: all build deps check unit asan e2e fuzz fuzz-build fuzz-run bench demo clean

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
# tests in the virtual LAN, and a bounded run of every fuzz target.
check: deps build asan fuzz-build
	ctest --test-dir $(BUILD) --output-on-failure
	ctest --test-dir $(ASAN_BUILD) --output-on-failure -L 'unit|process'
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

clean:
	rm -rf $(BUILD) $(ASAN_BUILD) $(FUZZ_BUILD) $(BENCH_BUILD)

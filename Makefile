# Thin wrapper over CMake. `make demo` builds the library and runs the record
# tour example; `make test` installs what is missing and runs the whole suite
# on the host (with the epoll and with the select wait), under AddressSanitizer
# + UndefinedBehaviorSanitizer and on 32-bit ARM (qemu), then the install test
# and a short run of every fuzzer.

SHELL := /bin/bash
JOBS ?= 2
CTEST_JOBS ?= 1
BUILD ?= build
BUILD_TYPE ?= RelWithDebInfo
PREFIX ?= /usr/local
CMAKE ?= cmake
CTEST ?= ctest
ARM_SYSROOT ?= $(or $(ORVO_ARM_SYSROOT),$(or $(XDG_CACHE_HOME),$(HOME)/.cache)/orvo-arm-sysroot)

# `make fuzz` runs each target 60 s; within `make test` 20 s unless
# FUZZ_SECONDS is given.
ifeq ($(origin FUZZ_SECONDS),undefined)
TEST_FUZZ_SECONDS := 20
else
TEST_FUZZ_SECONDS := $(FUZZ_SECONDS)
endif
FUZZ_SECONDS ?= 60

HOST_DIR := $(BUILD)/host
ASAN_DIR := $(BUILD)/asan
TSAN_DIR := $(BUILD)/tsan
SELECT_DIR := $(BUILD)/host-select
ARM_DIR := $(BUILD)/arm
FUZZ_DIR := $(BUILD)/fuzz
BENCH_DIR := $(BUILD)/bench
CTEST_RUN := $(CTEST) --output-on-failure -j$(CTEST_JOBS)

.PHONY: all deps build demo test host-test select-build select-test install-test asan-build asan-test tsan-build tsan-test \
        arm-sysroot arm-build arm-test deb deb-amd64 deb-armhf deb-test fuzz-build fuzz fuzz-long bench-build bench-smoke bench soak install clean

all: build

deps:
	scripts/install-deps.sh

build:
	$(CMAKE) -S . -B $(HOST_DIR) -DCMAKE_BUILD_TYPE=$(BUILD_TYPE) -DORVO_SANITIZE=OFF
	$(CMAKE) --build $(HOST_DIR) -j$(JOBS)

demo: deps
	@$(MAKE) --no-print-directory build
	@test -x $(HOST_DIR)/examples/record_tour || { echo "demo: $(HOST_DIR)/examples/record_tour was not built (examples/record_tour.cpp missing?)"; exit 1; }
	$(HOST_DIR)/examples/record_tour
	scripts/demo-platform.sh $(HOST_DIR)

# The whole suite three ways plus install test and fuzzers; see scripts/test-all.sh.
test: deps
	@FUZZ_SECONDS=$(TEST_FUZZ_SECONDS) BUILD=$(BUILD) scripts/test-all.sh

host-test: build
	cd $(HOST_DIR) && $(CTEST_RUN) -E '^install_test$$'

# The host suite again with the service loops waiting in select() instead of
# epoll (-DORVO_SELECT_WAIT=ON): both waits keep the same behaviour.
select-build:
	$(CMAKE) -S . -B $(SELECT_DIR) -DCMAKE_BUILD_TYPE=$(BUILD_TYPE) -DORVO_SANITIZE=OFF \
	    -DORVO_SELECT_WAIT=ON
	$(CMAKE) --build $(SELECT_DIR) -j$(JOBS)

select-test: select-build
	cd $(SELECT_DIR) && $(CTEST_RUN) -E '^install_test$$'

install-test: build
	cd $(HOST_DIR) && $(CTEST_RUN) -R '^install_test$$'

asan-build:
	$(CMAKE) -S . -B $(ASAN_DIR) -DCMAKE_BUILD_TYPE=$(BUILD_TYPE) -DORVO_SANITIZE=ON
	$(CMAKE) --build $(ASAN_DIR) -j$(JOBS)

asan-test: asan-build
	cd $(ASAN_DIR) && $(CTEST_RUN)

# The tests whose code runs on several threads, built with ThreadSanitizer;
# any report fails.
TSAN_TESTS := ^(thread|msgthread|service|service_ipc|selectloop|socket|msgsocket|timer|stress|scm|sharedmem|tls|uart|wan)_test

tsan-build:
	$(CMAKE) -S . -B $(TSAN_DIR) -DCMAKE_BUILD_TYPE=$(BUILD_TYPE) -DORVO_TSAN=ON \
	    -DORVO_BUILD_EXAMPLES=OFF
	$(CMAKE) --build $(TSAN_DIR) -j$(JOBS)

tsan-test: tsan-build
	cd $(TSAN_DIR) && $(CTEST_RUN) -R '$(TSAN_TESTS)'

arm-sysroot:
	scripts/arm-sysroot.sh $(ARM_SYSROOT)

arm-build: arm-sysroot
	$(CMAKE) -S . -B $(ARM_DIR) -DCMAKE_BUILD_TYPE=$(BUILD_TYPE) \
	    -DCMAKE_TOOLCHAIN_FILE=$(CURDIR)/cmake/arm-linux-gnueabihf.cmake \
	    -DORVO_ARM_SYSROOT=$(ARM_SYSROOT)
	$(CMAKE) --build $(ARM_DIR) -j$(JOBS)

arm-test: arm-build
	cd $(ARM_DIR) && $(CTEST_RUN)

fuzz-build:
	$(CMAKE) -S . -B $(FUZZ_DIR) -DCMAKE_BUILD_TYPE=RelWithDebInfo \
	    -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ \
	    -DORVO_BUILD_FUZZ=ON -DORVO_BUILD_TESTS=OFF -DORVO_BUILD_EXAMPLES=OFF
	$(CMAKE) --build $(FUZZ_DIR) -j$(JOBS)

fuzz: fuzz-build
	scripts/run-fuzz.sh $(FUZZ_DIR) $(FUZZ_SECONDS)

# Long runs on the corpus kept in fuzz/corpus (grown and minimised; see
# fuzz/README.md). Not part of make test.
FUZZ_LONG_SECONDS ?= 600
FUZZ_TARGETS ?=
fuzz-long: fuzz-build
	scripts/fuzz-long.sh $(FUZZ_DIR) $(FUZZ_LONG_SECONDS) $(FUZZ_TARGETS)

bench-build:
	$(CMAKE) -S . -B $(BENCH_DIR) -DCMAKE_BUILD_TYPE=Release \
	    -DORVO_BUILD_BENCH=ON -DORVO_BUILD_TESTS=OFF -DORVO_BUILD_EXAMPLES=OFF
	$(CMAKE) --build $(BENCH_DIR) -j$(JOBS)

# The benchmarks built and run briefly: each checks its results before it
# times anything, so this catches a benchmark that no longer builds or agrees.
bench-smoke: bench-build
	$(BENCH_DIR)/bench/record_bench --benchmark_min_time=0.01 --benchmark_repetitions=1
	$(BENCH_DIR)/bench/ipc_bench --rr=1000 --oneway=20000
	$(BENCH_DIR)/bench/loop_bench --rr=200 --rounds=1
	$(BENCH_DIR)/bench/mem_bench --conns=300 --rounds=1 --rr=50 --smoke
	$(BENCH_DIR)/bench/tls_bench --bytes=2000000 --handshakes=20 --seconds=1
	$(BENCH_DIR)/bench/scm_bench --rounds=1 --rr=200
	$(BENCH_DIR)/bench/storage_bench --records=2000 --commit-records=20 --repeat=1
	$(BENCH_DIR)/bench/crypto_bench --seconds=0.2 --rounds=1
	$(BENCH_DIR)/bench/wan_bench --mb=20 --rounds=1 --starts=5 --pings=200

bench: deps bench-build
	@found=0; for b in $(BENCH_DIR)/bench/*_bench; do \
	    [ -x "$$b" ] || continue; found=1; \
	    echo "== $$b"; "$$b" || exit 1; \
	done; [ $$found = 1 ] || echo "bench: no benchmarks yet"
	@# The message benchmark again with clients and servers on different CPUs.
	@if [ -x $(BENCH_DIR)/bench/ipc_bench ]; then \
	    echo "== $(BENCH_DIR)/bench/ipc_bench --placement=apart"; \
	    $(BENCH_DIR)/bench/ipc_bench --placement=apart || exit 1; \
	fi

# The long run against orvo-scm and the example services (scripts/soak.sh):
# builds only what it runs; SOAK_MINUTES (default 10); not part of `make test`.
SOAK_MINUTES ?= 10
soak:
	$(CMAKE) -S . -B $(HOST_DIR) -DCMAKE_BUILD_TYPE=$(BUILD_TYPE) -DORVO_SANITIZE=OFF
	$(CMAKE) --build $(HOST_DIR) -j$(JOBS) --target orvo-scm soak_driver meter_service meter_reader first_service
	SOAK_MINUTES=$(SOAK_MINUTES) scripts/soak.sh $(HOST_DIR)

# Installs stripped (no debug information: the amd64 library is 0.56 MB
# instead of 7.5 MB); STRIP=0 keeps the symbols for debugging.
STRIP ?= 1
install: build
	$(CMAKE) --install $(HOST_DIR) --prefix $(PREFIX) $(if $(filter 0,$(STRIP)),,--strip)

# Debian packages for amd64 and armhf (liborvo3, liborvo-dev, orvo-tools of
# each) in $(BUILD)/deb. The armhf library is built as a device ships it:
# -Os with every function and object in its own section, unused ones dropped
# by the linker, optimised for size across the whole library at link time,
# stripped in the package (sizes in bench/README.md).
DEB_AMD64_DIR := $(BUILD)/deb-amd64
DEB_ARMHF_DIR := $(BUILD)/deb-armhf
DEB_OUT := $(BUILD)/deb
ARM_STRIP := arm-linux-gnueabihf-strip
DEVICE_FLAGS := -Os -DNDEBUG -ffunction-sections -fdata-sections
# ORVO_REQUIRE_MAN: a package build without help2man (or, cross, without
# qemu to run the ARM tools for it) fails instead of leaving the man pages out.
DEB_COMMON := -DCMAKE_INSTALL_PREFIX=/usr -DCMAKE_SKIP_INSTALL_RPATH=ON \
    -DORVO_BUILD_TESTS=OFF -DORVO_BUILD_EXAMPLES=OFF -DORVO_REQUIRE_MAN=ON

deb-amd64: deps
	$(CMAKE) -S . -B $(DEB_AMD64_DIR) -DCMAKE_BUILD_TYPE=Release $(DEB_COMMON)
	$(CMAKE) --build $(DEB_AMD64_DIR) -j$(JOBS)
	rm -f $(DEB_AMD64_DIR)/*.deb $(DEB_OUT)/*_amd64.deb
	cd $(DEB_AMD64_DIR) && cpack -G DEB
	mkdir -p $(DEB_OUT) && cp $(DEB_AMD64_DIR)/*.deb $(DEB_OUT)/

# nlohmann-json is headers only: the armhf tools take the host's copy from a
# directory of its own, so no other host header enters the cross build.
deb-armhf: deps arm-sysroot
	mkdir -p $(DEB_ARMHF_DIR)/json-include
	ln -sfn /usr/include/nlohmann $(DEB_ARMHF_DIR)/json-include/nlohmann
	$(CMAKE) -S . -B $(DEB_ARMHF_DIR) -DCMAKE_BUILD_TYPE=Release $(DEB_COMMON) \
	    -DCMAKE_TOOLCHAIN_FILE=$(CURDIR)/cmake/arm-linux-gnueabihf.cmake \
	    -DORVO_ARM_SYSROOT=$(ARM_SYSROOT) -DCMAKE_INSTALL_LIBDIR=lib/arm-linux-gnueabihf \
	    -DCMAKE_INTERPROCEDURAL_OPTIMIZATION=ON \
	    -DORVO_NLOHMANN_JSON_DIR=$(CURDIR)/$(DEB_ARMHF_DIR)/json-include \
	    "-DCMAKE_C_FLAGS_RELEASE=$(DEVICE_FLAGS)" "-DCMAKE_CXX_FLAGS_RELEASE=$(DEVICE_FLAGS)" \
	    -DCMAKE_SHARED_LINKER_FLAGS_RELEASE=-Wl,--gc-sections -DCMAKE_EXE_LINKER_FLAGS_RELEASE=-Wl,--gc-sections
	$(CMAKE) --build $(DEB_ARMHF_DIR) -j$(JOBS)
	rm -f $(DEB_ARMHF_DIR)/*.deb $(DEB_OUT)/*_armhf.deb
	cd $(DEB_ARMHF_DIR) && cpack -G DEB
	mkdir -p $(DEB_OUT) && cp $(DEB_ARMHF_DIR)/*.deb $(DEB_OUT)/
	@# tests/deb_test.sh fails when the packaged (stripped) library is over 300 KiB.
	@$(ARM_STRIP) -o $(DEB_ARMHF_DIR)/liborvo.stripped $$(find $(DEB_ARMHF_DIR) -maxdepth 1 -name 'liborvo.so.3.*' -type f) \
	    && echo "deb-armhf: stripped liborvo.so.3 is $$(stat -c %s $(DEB_ARMHF_DIR)/liborvo.stripped) bytes"

deb: deb-amd64 deb-armhf
	@ls -l $(DEB_OUT)/*.deb

# Installs the amd64 packages into this machine (root), checks them, and
# purges them again; see tests/deb_test.sh.
deb-test: deb
	tests/deb_test.sh $(DEB_OUT) $(CURDIR)

clean:
	rm -rf $(BUILD)

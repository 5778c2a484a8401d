# SPDX-License-Identifier: Apache-2.0
# make test   installs what is missing, then builds and runs the tests three
#             ways: host Release, host with ASan+UBSan, mipsel under qemu.
# make build  host Release build only (installs nothing; `make deps` does).
JOBS ?= $(shell nproc)
BUILD := build
SYSROOT := $(CURDIR)/$(BUILD)/mipsel-sysroot
# Every suite runs its cases in a random order; the seed is printed so a
# failing order can be replayed with `make test SEED=N`.
ifndef SEED
SEED := $(shell echo $$(( $$(od -An -N2 -tu2 /dev/urandom) + 1 )))
endif
CTEST := GTEST_RANDOM_SEED=$(SEED) ctest --output-on-failure -j$(JOBS)
# This project's own builds treat warnings as errors; a consumer's need not.
CMAKE_OPTS := -DSWMGR_WERROR=ON

# make fuzz   builds the fuzz targets with clang and runs each on its seed
#             corpus for FUZZ_SECONDS (default 60), one after the other.
FUZZ_SECONDS ?= 60
FUZZ_TARGETS := fuzz_bus_handler fuzz_config_rows fuzz_bus_frames

.PHONY: all deps build test test-host test-asan test-mipsel debs clean fuzz

all: build

deps:
	@./scripts/install-deps.sh

build:
	cmake -S . -B $(BUILD)/host -DCMAKE_BUILD_TYPE=Release $(CMAKE_OPTS)
	cmake --build $(BUILD)/host -j$(JOBS)

test-host: deps
	@$(MAKE) --no-print-directory build
	@echo "== host (Release), test order seed $(SEED)"
	cd $(BUILD)/host && $(CTEST)

test-asan: deps
	@echo "== host with AddressSanitizer and UndefinedBehaviorSanitizer, test order seed $(SEED)"
	cmake -S . -B $(BUILD)/asan -DCMAKE_BUILD_TYPE=Debug -DSWMGR_SANITIZE=ON $(CMAKE_OPTS)
	cmake --build $(BUILD)/asan -j$(JOBS)
	cd $(BUILD)/asan && $(CTEST)

test-mipsel: deps
	@echo "== mipsel (32-bit little-endian MIPS) under qemu, test order seed $(SEED)"
	cmake -S . -B $(BUILD)/mipsel -DCMAKE_BUILD_TYPE=Release $(CMAKE_OPTS) \
	  -DCMAKE_TOOLCHAIN_FILE=$(CURDIR)/cmake/mipsel-linux-gnu.cmake -DMIPSEL_EXTRA_ROOT=$(SYSROOT)
	cmake --build $(BUILD)/mipsel -j$(JOBS)
	cd $(BUILD)/mipsel && $(CTEST)

test: test-host test-asan test-mipsel

fuzz:
	@SWMGR_FUZZ=1 ./scripts/install-deps.sh
	CC=clang CXX=clang++ cmake -S . -B $(BUILD)/fuzz -DCMAKE_BUILD_TYPE=RelWithDebInfo -DSWMGR_FUZZ=ON -DSWMGR_TESTS=ON
	cmake --build $(BUILD)/fuzz -j$(JOBS) --target $(FUZZ_TARGETS)
	@set -e; for t in $(FUZZ_TARGETS); do \
	  echo "== $$t for $(FUZZ_SECONDS) s"; \
	  mkdir -p $(BUILD)/fuzz/corpus/$$t; \
	  $(BUILD)/fuzz/fuzz/$$t -max_total_time=$(FUZZ_SECONDS) -print_final_stats=1 \
	    -artifact_prefix=$(BUILD)/fuzz/ $(BUILD)/fuzz/corpus/$$t fuzz/corpus/$$t; \
	done

# make debs   the Debian packages from a production build (/usr prefix, no
#             simulator, no tests) into build/deb, with their contents checked.
debs: deps
	cmake -S . -B $(BUILD)/deb -DCMAKE_BUILD_TYPE=Release -DCMAKE_INSTALL_PREFIX=/usr \
	  -DSWMGR_BUILD_TESTS=OFF -DSWMGR_SIM=OFF $(CMAKE_OPTS)
	cmake --build $(BUILD)/deb -j$(JOBS)
	cd $(BUILD)/deb && cpack -G DEB
	./scripts/check-debs.sh $(BUILD)/deb

clean:
	rm -rf $(BUILD)

# make demo   a guided tour: swmgrd on simulated hardware driven by swmgrctl.
.PHONY: demo
demo:
	@./scripts/demo.sh

# make bench        host benchmarks: start-up on the models, one command
#                   line, one VLAN add (state on a RAM file system).
# make bench-scale  4094 VLANs with every command line really spawned.
.PHONY: bench bench-scale
bench: build
	cmake --build $(BUILD)/host -j$(JOBS) --target bench_startup bench_cmd bench_vlan_add
	$(BUILD)/host/bench/bench_startup
	$(BUILD)/host/bench/bench_cmd
	$(BUILD)/host/bench/bench_vlan_add

bench-scale: build
	cmake --build $(BUILD)/host -j$(JOBS) --target bench_scale
	$(BUILD)/host/bench/bench_scale 4094

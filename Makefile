# The front door. Every target sets up what it needs first (as root or with sudo), and may be
# repeated at will.
SECONDS ?= 10
JOBS ?= $(shell nproc)
BUILD = build/linux

.PHONY: help run test test-build test-run lint sanitize soak bench fuzz deb windows \
  test-windows test-windows-build test-windows-run clean
.NOTPARALLEL:

help:
	@echo "make run [SECONDS=n]  build, stream this computer's screen to a client here, report"
	@echo "make test             build and run all tests"
	@echo "make lint             formatting, static analysis, the tree's own rules, the package"
	@echo "make sanitize         the tests under address, undefined-behaviour and thread sanitizers"
	@echo "make soak             the relay under load, ten minutes of streaming and the long tests under ASan"
	@echo "make bench            benchmarks, each beside a rival"
	@echo "make fuzz             each fuzz target for FUZZ_SECONDS (default 600)"
	@echo "make deb              build the Debian package, out/deb/lunderhaze_<version>_<architecture>.deb"
	@echo "make windows          cross-build for Windows x64 what exists for it"
	@echo "make test-windows     the tests as Windows programs under Wine, and those with this client"

# $(call configure,packages to set up,preset,further arguments)
define configure
@scripts/setup $(1)
@cmake --preset $(2) $(3) > build/.$(2).log 2>&1 || { cat build/.$(2).log; exit 1; }
endef

build:
	@mkdir -p build

run: | build
	$(call configure,linux,linux,-DLUND_TESTS=OFF -DLUND_BENCH=OFF)
	@cmake --build $(BUILD) -j $(JOBS) --target lunderhaze lunderhaze-client lunderhaze-testscreen
	@scripts/run $(BUILD)/bin $(SECONDS) out/run

test: test-build test-run

test-build: | build
	$(call configure,tests,linux)
	@cmake --build $(BUILD) -j $(JOBS)

test-run:
	@ctest --test-dir $(BUILD) -j $(JOBS) --output-on-failure --no-tests=error

lint: | build
	$(call configure,tools,linux)
	@cmake --build $(BUILD) -j $(JOBS) --target package_deb
	@scripts/lint $(BUILD)

sanitize: | build
	@scripts/setup tests
	@scripts/sanitize

soak: | build
	$(call configure,tests,linux)
	@cmake --build $(BUILD) -j $(JOBS) --target rendezvous_load
	@$(BUILD)/bin/rendezvous_load
	$(call configure,tests,linux-asan)
	@cmake --build build/linux-asan -j $(JOBS) \
	  --target lunderhaze lunderhaze-client lunderhaze-testscreen system_test \
	  control_realtime_test
	@scripts/soak build/linux-asan/bin
	$(call configure,wine,windows)
	@cmake --build build/windows -j $(JOBS) --target lunderhaze moving_picture
	@cmake --build $(BUILD) -j $(JOBS) --target windows_system_test
	@LUND_WINDOWS_BIN=build/windows/bin $(BUILD)/bin/windows_system_test --gtest_filter='*SoakTest.*'

bench: | build
	$(call configure,tests,linux)
	@cmake --build $(BUILD) -j $(JOBS)
	@scripts/bench $(BUILD)/bin

fuzz: | build
	$(call configure,tools,fuzz)
	@cmake --build build/fuzz -j $(JOBS) --target fuzz_targets
	@scripts/fuzz build/fuzz/bin $(or $(FUZZ_SECONDS),600)

deb: | build
	$(call configure,linux,linux,-DLUND_TESTS=OFF -DLUND_BENCH=OFF)
	@cmake --build $(BUILD) -j $(JOBS) --target package_deb
	@rm -rf out/deb && mkdir -p out/deb && cp $(BUILD)/deb/*.deb out/deb/
	@ls out/deb/*.deb

windows: | build
	$(call configure,windows,windows)
	@cmake --build build/windows -j $(JOBS) --target programs
	@scripts/pack-windows build/windows out/windows
	@scripts/check-windows out/windows
	@du -sh out/windows

test-windows: test-windows-build test-windows-run

test-windows-build: windows
	$(call configure,wine,windows)
	@cmake --build build/windows -j $(JOBS)
	$(call configure,tests,linux)
	@cmake --build $(BUILD) -j $(JOBS) --target windows_system_test

# What Wine 8 lacks is shown by Wine 10, whose system only root can make and enter.
test-windows-run:
	@scripts/test-windows build/windows/bin
	@if [ "$$(id -u)" = 0 ]; then tests/system/windows/on-wine-10 build/windows/bin; \
	else echo "test-windows: what needs Wine 10 was not run: it needs root"; fi

clean:
	rm -rf build out

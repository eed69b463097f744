# make run   - set up, build and start the shell
# make lint  - clang-format (check only), clang-tidy and pyflakes over the tree's own sources;
#              fails on any finding (scripts/lint)
# make test  - set up, lint, build and run the whole suite: the normal build, AddressSanitizer +
#              UndefinedBehaviorSanitizer (with the fuzz targets), ThreadSanitizer, and the
#              arm64 build under qemu's user-mode emulation; then the packages, made and tried
# make package - set up, build and make the Debian packages for amd64 and arm64 (.deb files
#              in build/packages and build-arm64/packages), checked by lintian
# make bench - set up, build and run the benchmarks, the live display end to end under
#              Xvfb, the web view end to end with a headless browser, the cost at four
#              picture sizes with its plot and the Python module's figures, then print one
#              table of every figure beside its baseline and bound: about twelve minutes
#              once built (the Python part a minute and a half of them). Only figures go to
#              the terminal; the sinks' trace lines and the shells' output go
#              to $(BUILD)/bench.log.
# make soak  - set up, build and run the soak: the shell streaming, dumping, re-plugged and
#              stopped and started for SOAK_MINUTES (10 by default), with its figures each
#              minute; exit status 0 only when it passes

BUILD := build

.PHONY: all setup build run lint test bench soak package clean
all: build

setup:
	@bash scripts/setup

build: setup
	@cmake -S . -B $(BUILD) -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
	@cmake --build $(BUILD)

run: build
	@$(BUILD)/shell/lumora-shell

lint: setup
	@bash scripts/lint $(BUILD)

test: setup
	@bash scripts/test

package: setup
	@bash scripts/package

RESULTS := $(BUILD)/bench-results.txt
bench: export BENCH_LOG := $(abspath $(BUILD))/bench.log

bench: build
	@rm -f $(RESULTS) $(BENCH_LOG)
	@echo "make bench: trace lines and the shells' output go to $(BENCH_LOG)"
	@$(BUILD)/bench/lumora-bench $(RESULTS) --benchmark_color=false >>$(BENCH_LOG)
	@/usr/bin/python3 bench/display_e2e.py $(BUILD) 60 $(RESULTS)
	@/usr/bin/python3 bench/web_e2e.py $(BUILD) 20 $(RESULTS)
	@/usr/bin/python3 bench/scaling.py $(BUILD) $(RESULTS) $(BUILD)/scaling.png
	@/usr/bin/python3 bench/python_bench.py $(BUILD) 60 $(RESULTS)
	@/usr/bin/python3 bench/table.py $(RESULTS)

soak: build
	@bash tests/soak/soak.sh $(BUILD)

clean:
	rm -rf $(BUILD) $(BUILD)-asan $(BUILD)-tsan $(BUILD)-arm64

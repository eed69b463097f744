# make run   - set up, build and start the shell
# make test  - set up, build and run the whole suite: the normal build, AddressSanitizer +
#              UndefinedBehaviorSanitizer (with the fuzz targets), ThreadSanitizer, and the
#              arm64 build under qemu's user-mode emulation; then the packages, made and tried
# make package - set up, build and make the Debian packages for amd64 and arm64 (.deb files
#              in build/packages and build-arm64/packages), checked by lintian
# make bench - set up, build and run the benchmarks, then print the table of figures; then
#              the live display end to end under Xvfb (about three minutes), then the web
#              view end to end with a headless browser (about three minutes)
# make soak  - set up, build and run the soak: the shell streaming, dumping, re-plugged and
#              stopped and started for SOAK_MINUTES (10 by default), with its figures each
#              minute; exit status 0 only when it passes

BUILD := build

.PHONY: all setup build run test bench soak package clean
all: build

setup:
	@bash scripts/setup

build: setup
	@cmake -S . -B $(BUILD) -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
	@cmake --build $(BUILD)

run: build
	@$(BUILD)/shell/lumora-shell

test: setup
	@bash scripts/test

package: setup
	@bash scripts/package

bench: build
	@$(BUILD)/bench/lumora-bench --benchmark_color=false
	@bash bench/display_e2e.sh $(BUILD)
	@/usr/bin/python3 bench/web_e2e.py $(BUILD)

soak: build
	@bash tests/soak/soak.sh $(BUILD)

clean:
	rm -rf $(BUILD) $(BUILD)-asan $(BUILD)-tsan $(BUILD)-arm64

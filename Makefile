# make run   - set up, build and start the shell
# make test  - set up, build and run the whole suite: the normal build, AddressSanitizer +
#              UndefinedBehaviorSanitizer (with the fuzz targets), ThreadSanitizer
# make bench - set up, build and run the benchmarks, then print the table of figures; then
#              the live display end to end under Xvfb (about three minutes), then the web
#              view end to end with a headless browser (about three minutes)

BUILD := build

.PHONY: all setup build run test bench clean
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

bench: build
	@$(BUILD)/bench/lumora-bench --benchmark_color=false
	@bash bench/display_e2e.sh $(BUILD)
	@/usr/bin/python3 bench/web_e2e.py $(BUILD)

clean:
	rm -rf $(BUILD) $(BUILD)-asan $(BUILD)-tsan

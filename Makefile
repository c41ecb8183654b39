# Front door. `make test` and `make demo` work on a fresh Debian machine.
JOBS ?= $(shell nproc)
BUILD ?= build
ASAN_BUILD ?= build-asan
CMAKE_FLAGS ?=

.PHONY: all deps build build-asan test test-fast test-asan demo format bench bench-quick soak clean

all: build

deps:
	@scripts/install-deps.sh core

$(BUILD)/CMakeCache.txt:
	cmake -S . -B $(BUILD) -DCMAKE_BUILD_TYPE=RelWithDebInfo $(CMAKE_FLAGS)

$(ASAN_BUILD)/CMakeCache.txt:
	cmake -S . -B $(ASAN_BUILD) -DCMAKE_BUILD_TYPE=Debug -DZQ_SANITIZE=ON -DZQ_BENCH=OFF $(CMAKE_FLAGS)

build: deps $(BUILD)/CMakeCache.txt
	cmake --build $(BUILD) -j $(JOBS)

build-asan: deps $(ASAN_BUILD)/CMakeCache.txt
	cmake --build $(ASAN_BUILD) -j $(JOBS)

# The whole suite, in the normal build and under ASan+UBSan.
test: test-fast test-asan

test-fast: build
	cd $(BUILD) && ctest --output-on-failure -j $(JOBS)

test-asan: build-asan
	cd $(ASAN_BUILD) && ASAN_OPTIONS=detect_leaks=1 UBSAN_OPTIONS=print_stacktrace=1 \
	  ctest --output-on-failure -j $(JOBS)

demo: build
	scripts/demo.sh $(BUILD)

format:
	clang-format -i $$(git ls-files '*.h' '*.cc' '*.c')

soak: build
	ZQ_SOAK=1 $(BUILD)/tests/test_tree --gtest_filter='*Random*'

bench-quick: build
	scripts/bench.sh quick $(BUILD)

bench: build
	scripts/install-deps.sh bench
	scripts/bench.sh full $(BUILD)

clean:
	rm -rf $(BUILD) $(ASAN_BUILD)

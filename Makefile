# Front door. `make test` and `make demo` work on a fresh Debian machine.
JOBS ?= $(shell nproc)
BUILD ?= build
ASAN_BUILD ?= build-asan
CMAKE_FLAGS ?=

.PHONY: all deps build build-asan test test-fast test-asan test-tsan test-pg fuzz-smoke demo package format bench bench-quick soak fuzz clean

all: build

deps:
	@scripts/install-deps.sh core

# The builds here are test builds: Release (what CI must prove builds), with
# the test-only entry points the suites need, configured every time so an
# older build directory cannot keep other settings. A user's build is a
# plain `cmake -S . -B build`, which has none of those entry points.
build: deps
	cmake -S . -B $(BUILD) -DCMAKE_BUILD_TYPE=Release -DZQ_TEST_HOOKS=ON $(CMAKE_FLAGS)
	cmake --build $(BUILD) -j $(JOBS)

build-asan: deps
	cmake -S . -B $(ASAN_BUILD) -DCMAKE_BUILD_TYPE=Debug -DZQ_SANITIZE=ON -DZQ_BENCH=OFF \
	  -DZQ_TEST_HOOKS=ON $(CMAKE_FLAGS)
	cmake --build $(ASAN_BUILD) -j $(JOBS)

# The whole suite: the normal build, ASan+UBSan, the concurrency test under
# ThreadSanitizer, each fuzz target for a few seconds, and the PostgreSQL
# extension against a throwaway cluster.
test: test-fast test-asan test-tsan fuzz-smoke test-pg

fuzz-smoke:
	$(MAKE) fuzz FUZZ_SECONDS=10

test-fast: build
	cd $(BUILD) && ctest --output-on-failure -j $(JOBS)

test-asan: build-asan
	cd $(ASAN_BUILD) && ASAN_OPTIONS=detect_leaks=1 UBSAN_OPTIONS=print_stacktrace=1 \
	  ctest --output-on-failure -j $(JOBS)

# The PostgreSQL extension: pg_regress and the server tests (two sessions,
# crashes, a streaming replica) against a throwaway cluster; skipped with a
# message where PostgreSQL cannot be installed.
test-pg: build
	JOBS=$(JOBS) pg/test/run.sh $(BUILD)

# Readers beside a writer on one database, under ThreadSanitizer: only what
# the concurrency test needs is built.
TSAN_BUILD ?= build-tsan
test-tsan: deps
	cmake -S . -B $(TSAN_BUILD) -DCMAKE_BUILD_TYPE=Debug -DZQ_BENCH=OFF -DZQ_TEST_HOOKS=ON \
	  -DCMAKE_CXX_FLAGS="-fsanitize=thread -O1" -DCMAKE_C_FLAGS="-fsanitize=thread -O1" \
	  -DCMAKE_EXE_LINKER_FLAGS=-fsanitize=thread -DCMAKE_SHARED_LINKER_FLAGS=-fsanitize=thread \
	  $(CMAKE_FLAGS)
	cmake --build $(TSAN_BUILD) -j $(JOBS) --target test_concurrency
	TSAN_OPTIONS="halt_on_error=1 second_deadlock_stack=1 suppressions=$(CURDIR)/tests/concurrency/tsan.supp" \
	  $(TSAN_BUILD)/tests/test_concurrency

# libFuzzer targets built with clang; each runs FUZZ_SECONDS on a copy of
# its corpus in the repository (new finds stay in $(FUZZ_BUILD)/corpus). An
# input that runs longer than FUZZ_TIMEOUT seconds is a finding (a hang).
FUZZ_BUILD ?= build-fuzz
FUZZ_SECONDS ?= 20
FUZZ_TIMEOUT ?= 10
FUZZ_TARGETS = node_decode check_rows csv tree_ops
fuzz:
	scripts/install-deps.sh fuzz
	CC=clang CXX=clang++ cmake -S . -B $(FUZZ_BUILD) -DCMAKE_BUILD_TYPE=RelWithDebInfo \
	  -DZQ_FUZZ=ON -DZQ_BENCH=OFF -DZQ_TEST_HOOKS=ON $(CMAKE_FLAGS)
	cmake --build $(FUZZ_BUILD) -j $(JOBS) --target $(addprefix fuzz_,$(FUZZ_TARGETS))
	@for t in $(FUZZ_TARGETS); do \
	  log=$(FUZZ_BUILD)/fuzz_$$t.log; \
	  mkdir -p $(FUZZ_BUILD)/corpus/$$t && cp fuzz/corpus/$$t/* $(FUZZ_BUILD)/corpus/$$t/ || exit 1; \
	  $(FUZZ_BUILD)/fuzz/fuzz_$$t -max_total_time=$(FUZZ_SECONDS) -timeout=$(FUZZ_TIMEOUT) -print_final_stats=1 \
	    -max_len=8192 -artifact_prefix=$(FUZZ_BUILD)/ $(FUZZ_BUILD)/corpus/$$t >$$log 2>&1; rc=$$?; \
	  echo "fuzz_$$t: $(FUZZ_SECONDS) s, $$(grep -h number_of_executed_units $$log | tr -s ' ' | cut -d' ' -f2) executions"; \
	  if [ $$rc -ne 0 ]; then tail -60 $$log; exit 1; fi; \
	done

# What a user builds: Release, no test hooks, no test suites. The demo runs
# on it (the tool and the libraries it runs on only), and the package ships it.
USER_BUILD ?= build-release
$(USER_BUILD)/CMakeCache.txt:
	cmake -S . -B $(USER_BUILD) -DCMAKE_BUILD_TYPE=Release -DZQ_BENCH=OFF $(CMAKE_FLAGS)

demo: deps $(USER_BUILD)/CMakeCache.txt
	cmake --build $(USER_BUILD) -j $(JOBS) --target zqrtree_tool
	scripts/demo.sh $(USER_BUILD)

# A Debian package of the installed tree (CPack), from the user's build:
# $(USER_BUILD)/zqrtree_<version>_<arch>.deb.
package: deps $(USER_BUILD)/CMakeCache.txt
	cmake --build $(USER_BUILD) -j $(JOBS)
	cd $(USER_BUILD) && cpack -G DEB

format:
	clang-format -i $$(git ls-files '*.h' '*.cc' '*.c')

soak: build
	ZQ_SOAK=1 $(BUILD)/tests/test_tree --gtest_filter='*Random*'

bench-quick: build
	scripts/bench.sh quick $(BUILD)

# make bench measures a Release build of its own, as users build it: no
# test hooks.
BENCH_BUILD ?= build-bench
$(BENCH_BUILD)/CMakeCache.txt:
	cmake -S . -B $(BENCH_BUILD) -DCMAKE_BUILD_TYPE=Release $(CMAKE_FLAGS)

bench: deps $(BENCH_BUILD)/CMakeCache.txt
	scripts/install-deps.sh bench
	scripts/bench.sh full $(BENCH_BUILD)

clean:
	rm -rf $(BUILD) $(ASAN_BUILD) $(TSAN_BUILD) $(FUZZ_BUILD) $(BENCH_BUILD) $(USER_BUILD)

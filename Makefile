# The two commands a new user needs: `make test` and (once the host tool exists) `make demo`.
# Both install any missing Debian packages first.

FUZZ_SECONDS ?= 60
PACKAGES := build-essential cmake ninja-build pkg-config clang libclang-rt-14-dev \
	libssl-dev zlib1g-dev libsqlite3-dev libcurl4-openssl-dev nlohmann-json3-dev libplist-dev \
	libcpp-httplib-dev libgtest-dev libgmock-dev libbenchmark-dev curl jq tmux libsystemd-dev \
	dbus fprintd libfprint-2-2 python3-dbusmock
SUDO := $(shell [ "$$(id -u)" = 0 ] || echo sudo)

.PHONY: deps test demo asan fuzz bench format clean

deps:
	@missing=$$(for p in $(PACKAGES); do dpkg -s $$p >/dev/null 2>&1 || echo $$p; done); \
	if [ -n "$$missing" ]; then \
	  echo "Installing:" $$missing; \
	  $(SUDO) apt-get update && DEBIAN_FRONTEND=noninteractive $(SUDO) apt-get install -y $$missing; \
	fi

test: deps
	cmake --preset default
	cmake --build --preset default
	ctest --preset default

# The whole road against the test relying party, with a transcript of each step and its verdict.
demo: deps
	cmake --preset default
	cmake --build --preset default --target corvane-cli corvane-rp
	bash tools/corvane/demo.sh build/default

asan: deps
	cmake --preset asan
	cmake --build --preset asan
	ctest --preset asan

# Builds every libFuzzer target and runs each for FUZZ_SECONDS on its committed seed corpus.
# New inputs go to a scratch folder, so the committed corpus stays as it is.
fuzz: deps
	cmake --preset fuzz
	cmake --build --preset fuzz
	@set -e; for src in fuzz/*.cpp; do \
	  t=$$(basename $$src .cpp); \
	  mkdir -p .fuzz-work/$$t fuzz/corpus/$$t; \
	  echo "== $$t for $(FUZZ_SECONDS)s"; \
	  if ! ASAN_OPTIONS=detect_leaks=1 build/fuzz/$$t -max_total_time=$(FUZZ_SECONDS) -print_final_stats=1 \
	      -rss_limit_mb=4096 .fuzz-work/$$t fuzz/corpus/$$t > .fuzz-work/$$t.log 2>&1; then \
	    tail -n 60 .fuzz-work/$$t.log; echo "$$t FAILED"; exit 1; \
	  fi; \
	  grep -E '^(#[0-9]+.*DONE|stat::number_of_executed_units|stat::average_exec_per_sec|stat::peak_rss_mb)' .fuzz-work/$$t.log; \
	done

bench: deps
	cmake --preset release
	cmake --build --preset release --target corvane_bench
	build/release/corvane_bench $(BENCH_ARGS)

format:
	git ls-files '*.cpp' '*.h' | xargs clang-format -i

clean:
	rm -rf build .fuzz-work

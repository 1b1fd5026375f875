// corvane_bench: every benchmark of the project, each beside its OpenSSL or bare baseline.
#include <benchmark/benchmark.h>

BENCHMARK_MAIN();

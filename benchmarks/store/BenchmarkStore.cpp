#include "BenchmarkStore.h"

#include <cstdio>
#include <unistd.h>

void BenchmarkStore::add(std::string_view key, std::string_view value, ScanResult* result) {
    ++result->recordCount;
    result->byteCount += key.size() + value.size();
    result->checksum += touch(value);
}

// A byte of every cache line: a store that hands out memory that it has not read must read it now, as for any caller.
std::uint64_t BenchmarkStore::touch(std::string_view value) {
    std::uint64_t sum = 0;
    for (std::size_t position = 0; position < value.size(); position += 64)
        sum += static_cast<unsigned char>(value[position]);
    return sum;
}

void failBenchmark(const std::string& what) {
    std::fprintf(stderr, "store_benchmark: %s\n", what.c_str());
    // Not exit(): other threads of the store still run.
    ::_exit(1);
}

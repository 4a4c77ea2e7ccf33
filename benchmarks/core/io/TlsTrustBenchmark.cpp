#include "core/io/ZnSslTrust_.h"

#include <benchmark/benchmark.h>
#include <cstdlib>

namespace {

constexpr const char* kSystemBundle = "/etc/ssl/certs/ca-certificates.crt";

/// What every TLS client pays for its trusted roots, with and without contexts that are kept.
void trust(benchmark::State& state, const char* caFile, const char* environmentFile) {
    ZnOpenSslApi_& api = ZnOpenSslApi_::instance();
    ZnString errorText;
    if (!api.ensureLoaded(&errorText)) {
        state.SkipWithError(errorText.data());
        return;
    }
    if (environmentFile != nullptr)
        ::setenv("ZN_SSL_CA_FILE", environmentFile, 1);
    ZnSslTrust_::setKeepsContexts(state.range(0) != 0);
    for (auto _ : state) {
        if (ZnSslTrust_::clientContext(api, caFile, &errorText) == nullptr)
            state.SkipWithError(errorText.data());
    }
    ::unsetenv("ZN_SSL_CA_FILE");
}

BENCHMARK_CAPTURE(trust, discovered, "", nullptr)->ArgName("kept")->Arg(1)->Arg(0)->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(trust, discoveredWithBundle, "", kSystemBundle)
    ->ArgName("kept")
    ->Arg(1)
    ->Arg(0)
    ->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(trust, explicitBundle, kSystemBundle, nullptr)
    ->ArgName("kept")
    ->Arg(1)
    ->Arg(0)
    ->Unit(benchmark::kMicrosecond);

} // namespace

#include "core/io/http1/ZnHttpClientRequest_.h"

#include "core/io/ZnHttpClient.h"
#include "core/io/http1/ZnHttpHeadWriter_.h"

#include <algorithm>

namespace {

constexpr std::size_t kUsualHeadBytes = 384;

const char* methodText(int method) {
    static constexpr const char* kTexts[] = {"GET", "HEAD", "POST", "PUT", "PATCH", "DELETE", "OPTIONS"};
    return method >= ZnHttpClient::Get && method <= ZnHttpClient::Options ? kTexts[method] : kTexts[0];
}

} // namespace

ZnString ZnHttpClientRequest_::head() const {
    ZnHttpHeadWriter_ out(kUsualHeadBytes);
    const auto addDefault = [&](std::string_view name, std::string_view value) {
        if (!hasHeader(name))
            out.header(name, value);
    };
    out.startLine(methodText(method), url.path.view(), "HTTP/1.1");
    addDefault("Host", url.hostText().view());
    for (const auto& [name, value] : headers)
        out.header(name.view(), value.view());
    if (!keepsConnection)
        addDefault("Connection", "close");
    addDefault("Accept", "*/*");
    addDefault("User-Agent", "ZnHttpClient/1.0");
    const bool expectsBody =
        method == ZnHttpClient::Post || method == ZnHttpClient::Put || method == ZnHttpClient::Patch;
    if (expectsBody || !body.isEmpty()) {
        addDefault("Content-Type", contentType.isEmpty() ? "application/octet-stream" : contentType.view());
        addDefault("Content-Length", ZnString::number(static_cast<unsigned long long>(body.size())).view());
    }
    return out.finish();
}

bool ZnHttpClientRequest_::hasHeader(std::string_view name) const {
    return std::any_of(headers.begin(), headers.end(),
                       [name](const auto& header) { return header.first.equalsIgnoreCase(name); });
}

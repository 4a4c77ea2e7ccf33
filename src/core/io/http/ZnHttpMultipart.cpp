#include "core/io/http/ZnHttpMultipart.h"

#include <algorithm>
#include <string>
#include <utility>

namespace zn::http {
namespace {

constexpr std::string_view kFormType = "multipart/form-data";
constexpr std::size_t kMaxBoundaryBytes = 70; // RFC 2046, section 5.1.1

bool fail(const char* text, ZnString* errorText) {
    *errorText = text;
    return false;
}

/// Takes what stands in front of the next `separator`, or everything, off the front of `*rest`.
std::string_view takePiece(std::string_view* rest, std::string_view separator) noexcept {
    const std::size_t end = rest->find(separator);
    const std::string_view piece = rest->substr(0, end);
    *rest = end == std::string_view::npos ? std::string_view() : rest->substr(end + separator.size());
    return piece;
}

ZnString lowerTrimmed(std::string_view text) {
    return ZnString(trimmedView(text)).toLower();
}

/// Trimmed, and without a pair of quotes around it.
std::string_view parameterValue(std::string_view text) noexcept {
    text = trimmedView(text);
    const bool isQuoted = text.size() >= 2 && text.starts_with('"') && text.ends_with('"');
    return isQuoted ? text.substr(1, text.size() - 2) : text;
}

/// One pass over a complete body.
class BodyScan {
public:
    BodyScan(std::string_view body, const ZnString& boundary, const ZnHttpLimits& limits)
        : rest_(body), crlfDelimiter_("\r\n--" + boundary.str()), limits_(limits) {}

    bool run(ZnList<ZnHttpMultipartPart>& parts, ZnString* errorText) {
        const std::string_view delimiter = std::string_view(crlfDelimiter_).substr(2);
        if (rest_.starts_with("\r\n"))
            rest_.remove_prefix(2);
        for (;;) {
            if (rest_.size() < delimiter.size())
                return fail("Malformed multipart body", errorText);
            if (!rest_.starts_with(delimiter))
                return fail("Malformed multipart boundary", errorText);
            rest_.remove_prefix(delimiter.size());
            if (rest_.starts_with("--"))
                return true; // whatever follows is not read
            if (!rest_.starts_with("\r\n"))
                return fail("Malformed multipart boundary delimiter", errorText);
            rest_.remove_prefix(2);
            if (!takePart_(parts, errorText))
                return false;
            if (parts.size() > limits_.maxMultipartParts)
                return fail("Too many multipart parts", errorText);
        }
    }

private:
    /// Takes the headers and the bytes; the delimiter behind them becomes the front.
    bool takePart_(ZnList<ZnHttpMultipartPart>& parts, ZnString* errorText) {
        const std::size_t headerBytes = rest_.find("\r\n\r\n");
        if (headerBytes == std::string_view::npos)
            return fail("Malformed multipart headers", errorText);
        ZnHttpMultipartPart part;
        if (!parsePartHeaders(rest_.substr(0, headerBytes), limits_, &part.headers, errorText))
            return false;
        rest_.remove_prefix(headerBytes + 4);
        const std::size_t dataBytes = rest_.find(crlfDelimiter_);
        if (dataBytes == std::string_view::npos)
            return fail("Multipart closing boundary not found", errorText);
        part.data = ZnByteArray(rest_.substr(0, dataBytes));
        part.size = dataBytes;
        rest_.remove_prefix(dataBytes + 2);
        if (!describePart(part, errorText))
            return false;
        parts.append(std::move(part));
        return true;
    }

    std::string_view rest_;
    const std::string crlfDelimiter_;
    const ZnHttpLimits& limits_;
};

} // namespace

bool parseMultipart(ZnHttpRequest& request, const ZnHttpLimits& limits, ZnString* errorText) {
    errorText->clear();
    if (request.multipartParsed && (request.body.isEmpty() || !request.multipartParts.isEmpty()))
        return true; // read as it came
    request.multipartParsed = false;
    request.multipartParts.clear();
    request.formFields.clear();
    const auto contentType = request.headers.find("content-type");
    if (contentType == request.headers.end() || !isMultipartForm(contentType->second.view()))
        return true;
    ZnString boundary;
    if (!parseBoundary(contentType->second.view(), &boundary, errorText))
        return false;
    if (!BodyScan(request.body.view(), boundary, limits).run(request.multipartParts, errorText))
        return false;
    request.multipartParsed = true;
    for (const ZnHttpMultipartPart& part : request.multipartParts) {
        if (!part.isFile && !part.name.isEmpty())
            request.formFields.insert(part.name, part.data.toZnString());
    }
    return true;
}

bool isMultipartForm(std::string_view contentType) noexcept {
    const std::string_view type = contentType.substr(0, kFormType.size());
    return std::equal(type.begin(), type.end(), kFormType.begin(), kFormType.end(),
                      [](char a, char b) { return (a >= 'A' && a <= 'Z' ? a - 'A' + 'a' : a) == b; });
}

bool parseBoundary(std::string_view contentType, ZnString* boundary, ZnString* errorText) {
    ZnString main;
    ZnMap<ZnString, ZnString> params;
    parseHeaderValue(contentType, &main, &params);
    const ZnString text = params.value("boundary");
    if (main.view() != kFormType || text.isEmpty())
        return fail("Missing multipart boundary", errorText);
    if (text.size() > kMaxBoundaryBytes)
        return fail("Multipart boundary too long", errorText);
    *boundary = text;
    return true;
}

void parseHeaderValue(std::string_view value, ZnString* main, ZnMap<ZnString, ZnString>* params) {
    params->clear();
    *main = lowerTrimmed(takePiece(&value, ";"));
    while (!value.empty()) {
        std::string_view piece = trimmedView(takePiece(&value, ";"));
        const std::size_t equals = piece.find('=');
        if (equals == 0 || equals == std::string_view::npos)
            continue;
        params->insert(lowerTrimmed(piece.substr(0, equals)), ZnString(parameterValue(piece.substr(equals + 1))));
    }
}

bool parsePartHeaders(std::string_view block, const ZnHttpLimits& limits, ZnMap<ZnString, ZnString>* headers,
                      ZnString* errorText) {
    if (block.size() > limits.maxMultipartHeaderBytes)
        return fail("Multipart part headers too large", errorText);
    while (!block.empty()) {
        const std::string_view line = takePiece(&block, "\r\n");
        if (line.empty())
            continue;
        const std::size_t colon = line.find(':');
        const std::string_view name = trimmedView(line.substr(0, colon));
        if (colon == std::string_view::npos || name.empty())
            return fail("Malformed multipart part header", errorText);
        headers->insert(ZnString(name).toLower(), ZnString(trimmedView(line.substr(colon + 1))));
    }
    return true;
}

bool describePart(ZnHttpMultipartPart& part, ZnString* errorText) {
    part.contentType = part.headers.value("content-type");
    const auto disposition = part.headers.find("content-disposition");
    if (disposition == part.headers.end())
        return fail("Missing Content-Disposition in multipart part", errorText);
    ZnString main;
    ZnMap<ZnString, ZnString> params;
    parseHeaderValue(disposition->second.view(), &main, &params);
    if (main != "form-data")
        return fail("Unsupported multipart Content-Disposition", errorText);
    part.name = params.value("name");
    part.fileName = params.value("filename");
    part.isFile = !part.fileName.isEmpty();
    return true;
}

} // namespace zn::http

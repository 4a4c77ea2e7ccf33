#include "core/io/http/ZnHttpContext.h"

#include "core/types/ZnLogger.h"

#include <algorithm>
#include <string>
#include <utility>

namespace {

constexpr const char* kCategory = "zn.core.io.znhttpcontext";

bool hasUpperCase(std::string_view text) noexcept {
    return std::any_of(text.begin(), text.end(), [](char c) { return c >= 'A' && c <= 'Z'; });
}

const ZnString* findIn(const ZnMap<ZnString, ZnString>& map, std::string_view name) {
    const auto at = map.find(name);
    return at == map.end() ? nullptr : &at->second;
}

std::string_view withoutByteOrderMark(std::string_view text) noexcept {
    constexpr std::string_view kMark = "\xEF\xBB\xBF";
    return text.starts_with(kMark) ? text.substr(kMark.size()) : text;
}

std::string withoutNul(std::string_view text) {
    std::string rest;
    rest.reserve(text.size());
    std::copy_if(text.begin(), text.end(), std::back_inserter(rest), [](char c) { return c != '\0'; });
    return rest;
}

} // namespace

bool ZnHttpContext::setHeader(const ZnString& name, ZnString value) {
    if (name.isEmpty())
        return false;
    if (!zn::http::isToken(name.view()) || !zn::http::isSafeLineText(value.view())) {
        // Without the value, which may be a secret, and without the name when it is what is wrong.
        ZN_LOG_WARNING(kCategory, "ZnHttpContext::setHeader")
            << "[ZnHttpContext] header refused: "
            << (zn::http::isToken(name.view()) ? "control characters in the value of " + name
                                               : ZnString("the name is no token"));
        return false;
    }
    response_.headers.insert(hasUpperCase(name.view()) ? name.toLower() : name, std::move(value));
    responded_ = true;
    return true;
}

void ZnHttpContext::setStatus_(int status) {
    response_.status = status;
    response_.reason = zn::http::reasonPhrase(status);
    responded_ = true;
}

/// The whole body: what was to come from a file or in chunks is off.
void ZnHttpContext::setBody_(ZnByteArray bytes) {
    response_.body = std::move(bytes);
    response_.useFile = response_.chunked = false;
    response_.chunks.clear();
}

void ZnHttpContext::send(ZnByteArray bytes, ZnString contentType, int status) {
    setStatus_(status);
    if (!contentType.isEmpty())
        setHeader("content-type", std::move(contentType));
    setBody_(std::move(bytes));
}

void ZnHttpContext::sendString(const ZnString& text, ZnString contentType, int status) {
    send(ZnByteArray(text), std::move(contentType), status);
}

void ZnHttpContext::text(const ZnString& text, int status) {
    send(ZnByteArray(text), ZnString(zn::http::kPlainText), status);
}

void ZnHttpContext::json(const ZnJsonValue& value, int status, JsonFormat format) {
    send(ZnByteArray(value.toJson(format)), ZnString(zn::http::kJsonText), status);
}

void ZnHttpContext::sendStatus(int status) {
    setStatus_(status);
    setBody_(ZnByteArray());
    response_.headers.insert("content-length", "0");
}

const ZnString* ZnHttpContext::findRequestHeader(std::string_view name) const {
    if (hasUpperCase(name))
        return findIn(request_.headers, ZnString(name).toLower().view());
    return findIn(request_.headers, name);
}

ZnString ZnHttpContext::requestHeader(const ZnString& name, const ZnString& fallback) const {
    const ZnString* value = findRequestHeader(name.view());
    return value == nullptr ? fallback : *value;
}

const ZnString& ZnHttpContext::pathParam(std::string_view name) const {
    static const ZnString kNone;
    const ZnString* value = findIn(request_.pathParams, name);
    return value == nullptr ? kNone : *value;
}

bool ZnHttpContext::parseJsonBody(ZnJsonDocument* document, ZnString* errorText, JsonReading reading,
                                  std::size_t maxValues) const {
    const std::string_view body = request_.body.view();
    ZnString error;
    ZnJsonDocument parsed =
        body.find('\0') == std::string_view::npos // nearly always: then the body is parsed where it lies
            ? ZnJsonDocument::fromJson(withoutByteOrderMark(body), &error, reading, maxValues)
            : ZnJsonDocument::fromJson(withoutByteOrderMark(withoutNul(body)), &error, reading, maxValues);
    if (!error.isEmpty()) {
        *errorText = std::move(error);
        return false;
    }
    *document = std::move(parsed);
    return true;
}

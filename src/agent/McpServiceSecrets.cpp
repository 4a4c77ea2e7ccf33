#include "agent/McpServiceSecrets.h"

#include "agent/McpHeaders.h"
#include "agent/McpJson.h"
#include "core/io/ZnFile.h"
#include "core/io/http/ZnHttpText.h"
#include "core/platform/ZnFileIdentity.h"

#include <algorithm>
#include <cstdlib>
#include <iterator>

namespace {

constexpr const char* kMissing = "gives no secret: the service will not be called";

/// Headers that the agent sets itself, or that say how the connection is used.
bool isReserved(const ZnString& name) {
    constexpr std::string_view kNames[] = {"accept",  "connection", "content-length", "content-type",      "expect",
                                           "host",    "keep-alive", "origin",         "transfer-encoding", "te",
                                           "trailer", "upgrade"};
    const ZnString lower = name.toLower();
    return lower.view().starts_with("mcp-") ||
           std::find(std::begin(kNames), std::end(kNames), lower.view()) != std::end(kNames);
}

} // namespace

void McpServiceSecrets::read(const ZnJsonObject& entry, McpBridgeServiceRecord* record) {
    record_ = record;
    const bool hasFile = entry.contains("bearerTokenFile");
    const bool hasEnvironment = entry.contains("bearerTokenEnv");
    const int sourceCount = (hasFile ? 1 : 0) + (hasEnvironment ? 1 : 0) + (record->bearerToken.isEmpty() ? 0 : 1);
    if (sourceCount > 1)
        remarks_.push_back({hasFile ? "bearerTokenFile" : "bearerTokenEnv", "is there beside another bearer token"});
    if (hasFile)
        record->bearerToken = fromFile_("bearerTokenFile", mcp::textMember_(entry, "bearerTokenFile"));
    else if (hasEnvironment)
        record->bearerToken = fromEnvironment_("bearerTokenEnv", mcp::textMember_(entry, "bearerTokenEnv"));
    if (const ZnJsonValue& headers = entry.value("headers"); !headers.isNull())
        takeHeaders_(headers);
}

ZnString McpServiceSecrets::fromFile_(std::string_view member, const ZnString& path) {
    files_.push_back(path);
    const ZnFileIdentity identity = ZnFileIdentity::of(path);
    ZnFile file(path);
    ZnString text;
    const bool isSecretFile = identity.kind == ZnFileIdentity::Kind::File && identity.sizeBytes <= kMaxBytes;
    if (isSecretFile && file.open(ZnFile::OpenMode::Read))
        text = file.readAll().trimmed();
    if (identity.isReadableByOthers)
        remarks_.push_back({member, "names a file that can be read by other users; chmod 600 keeps them out"});
    return usable_(member, text);
}

ZnString McpServiceSecrets::fromEnvironment_(std::string_view member, const ZnString& name) {
    const char* text = std::getenv(name.str().c_str());
    return usable_(member, text == nullptr ? ZnString() : ZnString(text).trimmed());
}

ZnString McpServiceSecrets::usable_(std::string_view member, const ZnString& text) {
    if (!text.isEmpty() && text.size() <= kMaxBytes && mcp::isHeaderValue(text.view()))
        return text;
    fail_(member, kMissing);
    return {};
}

void McpServiceSecrets::takeHeaders_(const ZnJsonValue& headers) {
    if (headers.object() == nullptr)
        return fail_("headers", "must be an object of texts: the service will not be called");
    for (const auto& [nameText, value] : *headers.object()) {
        const ZnString name(nameText);
        ZnString text = valueOf_(value);
        const bool isSecondToken = name.equalsIgnoreCase("authorization") && !record_->bearerToken.isEmpty();
        if (isReserved(name) || isSecondToken || !zn::http::isToken(name.view()))
            fail_("headers", "has a name that cannot be used: the service will not be called");
        else if (!text.isEmpty())
            record_->headers.emplace_back(name, std::move(text));
    }
}

/// Empty when there is none.
ZnString McpServiceSecrets::valueOf_(const ZnJsonValue& value) {
    if (value.isString()) {
        hasTexts_ = true;
        return usable_("headers", ZnString(value.string()).trimmed());
    }
    const ZnJsonObject* source = value.object();
    if (source != nullptr && source->size() == 1 && source->value("file").isString())
        return fromFile_("headers", mcp::textMember_(*source, "file"));
    if (source != nullptr && source->size() == 1 && source->value("env").isString())
        return fromEnvironment_("headers", mcp::textMember_(*source, "env"));
    fail_("headers", R"(values must be texts, {"file": ...} or {"env": ...}: the service will not be called)");
    return {};
}

void McpServiceSecrets::fail_(std::string_view member, const char* remark) {
    remarks_.push_back({member, remark});
    if (record_->problem.isEmpty())
        record_->problem = "A secret of this service is missing: " + ZnString(member);
}

#include "agent/McpServiceFile.h"

#include "agent/McpHeaders.h"
#include "agent/McpJson.h"
#include "agent/McpJsonPlaces.h"
#include "agent/McpModernRequest.h"
#include "agent/McpServiceSecrets.h"
#include "agent/McpText.h"
#include "core/io/ZnHttpClient.h"
#include "core/types/ZnJsonDocument.h"

#include <algorithm>
#include <utility>

namespace {

const std::vector<std::string_view> kMembers = {
    "id",           "title",     "description",  "transport",       "endpoint",       "url",     "bearerToken",
    "bearer_token", "tlsCaFile", "tls_ca_file",  "enabled",         "timeoutMs",      "interop", "session",
    "allowTools",   "denyTools", "allowMethods", "bearerTokenFile", "bearerTokenEnv", "headers", "keepAlive",
    "protocol"};
constexpr std::string_view kTextMembers[] = {"id",      "title",           "description",    "transport", "endpoint",
                                             "url",     "bearerToken",     "bearer_token",   "tlsCaFile", "tls_ca_file",
                                             "session", "bearerTokenFile", "bearerTokenEnv", "protocol"};
constexpr std::string_view kPatternMembers[] = {"allowTools", "denyTools", "allowMethods"};
constexpr std::string_view kBooleanMembers[] = {"enabled", "interop", "keepAlive"};

using Entry = McpServiceFile::Entry_;

/// The parser's error without the text around it, and with line and column instead of an index.
ZnString errorWithPlace(const ZnString& error, std::string_view text) {
    constexpr std::string_view kMark = " (index ";
    const std::size_t at = error.view().find(kMark);
    if (at == std::string_view::npos)
        return error;
    bool isNumber = false;
    const std::string_view digits = error.view().substr(at + kMark.size());
    const long long index = ZnString(digits.substr(0, digits.find(')'))).toLongLong(&isNumber);
    const std::string_view before = text.substr(0, isNumber ? static_cast<std::size_t>(index) : 0);
    const long long line = 1LL + std::count(before.begin(), before.end(), '\n');
    const std::size_t lineStart = before.rfind('\n') + 1; // 0 without a line feed
    return ZnString(error.view().substr(0, at)) + " (line " + ZnString::number(line) + ", column " +
           ZnString::number(static_cast<long long>(before.size() - lineStart + 1)) + ")";
}

/// The text of the first of two members that is not empty.
ZnString eitherMember(const ZnJsonObject& object, std::string_view name, std::string_view otherName) {
    ZnString text = mcp::textMember_(object, name);
    return text.isEmpty() ? mcp::textMember_(object, otherName) : text;
}

bool isTextList(const ZnJsonValue& value) {
    const ZnJsonArray* entries = value.array();
    return entries != nullptr &&
           std::all_of(entries->begin(), entries->end(), [](const ZnJsonValue& entry) { return entry.isString(); });
}

/// Nothing without the member. What is no list of texts allows nothing, and forbids everything.
std::optional<McpServiceRules::Patterns> patternsOf(const Entry& entry, std::string_view name) {
    const ZnJsonValue& value = entry.written->value(name);
    if (value.isNull())
        return std::nullopt;
    McpServiceRules::Patterns patterns;
    if (!isTextList(value))
        patterns.push_back(name == "denyTools" ? "*" : "");
    else
        for (const ZnJsonValue& pattern : *value.array())
            patterns.emplace_back(pattern.string());
    return patterns;
}

McpBridgeServiceRecord::Era eraOf(const ZnString& protocol) {
    using Era = McpBridgeServiceRecord::Era;
    return protocol == mcp::kModernVersion ? Era::Modern : protocol == "auto" ? Era::Auto : Era::Legacy;
}

McpBridgeServiceRecord readService(const Entry& entry, bool interopDefault) {
    const ZnJsonObject& texts = *entry.texts;
    McpBridgeServiceRecord record;
    record.id = mcp::textMember_(texts, "id");
    record.title = mcp::textMember_(texts, "title");
    record.description = mcp::textMember_(texts, "description");
    if (ZnString transport = mcp::textMember_(texts, "transport"); !transport.isEmpty())
        record.transport = std::move(transport);
    record.endpoint = eitherMember(texts, "endpoint", "url");
    record.bearerToken = eitherMember(texts, "bearerToken", "bearer_token");
    record.tlsCaFile = eitherMember(texts, "tlsCaFile", "tls_ca_file");
    if (const ZnJsonValue& enabled = entry.values->value("enabled"); !enabled.isNull())
        record.enabled = enabled.toBool(false);
    const ZnJsonValue& interop = entry.values->value("interop");
    record.era = eraOf(mcp::textMember_(*entry.written, "protocol"));
    record.interop = record.era != McpBridgeServiceRecord::Era::Legacy ||
                     (interop.isNull() ? interopDefault : interop.toBool(false));
    if (const ZnJsonValue& keepAlive = entry.values->value("keepAlive"); !keepAlive.isNull())
        record.keepAlive = keepAlive.toBool(false);
    record.rules.allowMethods = patternsOf(entry, "allowMethods");
    record.rules.allowTools = patternsOf(entry, "allowTools");
    record.rules.denyTools = patternsOf(entry, "denyTools").value_or(McpServiceRules::Patterns());
    const ZnString session = mcp::textMember_(texts, "session");
    const bool mayFallBack = record.era == McpBridgeServiceRecord::Era::Auto; // nobody but the agent knows of it
    record.keepsSessions = session == "auto" || (mayFallBack && session.isEmpty());
    if (const int timeoutMs = entry.values->value("timeoutMs").toInt(0); timeoutMs >= 1)
        record.timeoutMs = timeoutMs;
    return record;
}

/// Judges one entry.
class EntryCheck {
public:
    EntryCheck(const Entry& entry, const McpBridgeServiceRecord& record, const mcp::EntryPlace& place,
               std::vector<ZnString>* remarks)
        : entry_(entry), record_(record), place_(place), remarks_(remarks) {}

    void tell(const McpServiceSecrets& secrets) {
        for (const McpServiceSecrets::Remark& remark : secrets.remarks())
            remark_(remark.member, remark.text);
    }
    void run() {
        for (const mcp::MemberPlace& member : place_.members)
            checkName_(member);
        for (const std::string_view name : kTextMembers)
            checkText_(name);
        for (const std::string_view name : kBooleanMembers) {
            if (const ZnJsonValue& value = entry_.written->value(name);
                !value.isNull() && value.type() != JsonType::Boolean)
                remark_(name, "must be true or false");
        }
        for (const std::string_view name : kPatternMembers) {
            if (const ZnJsonValue& value = entry_.written->value(name); !value.isNull() && !isTextList(value))
                remark_(name, "must be a list of texts; no tool or method counts as allowed");
        }
        const ZnJsonValue& timeoutMs = entry_.written->value("timeoutMs");
        if (!timeoutMs.isNull() && (timeoutMs.type() != JsonType::Integer || timeoutMs.toInt(0) < 1))
            remark_("timeoutMs", "must be a whole number of milliseconds above 0");
        const ZnString session = mcp::textMember_(*entry_.texts, "session");
        if (!session.isEmpty() && session != "auto" && session != "none")
            remark_("session", "must be \"auto\" or \"none\"");
        checkEra_();
        if (!record_.endpoint.isEmpty() && !ZnHttpClient::isUsableUrl(record_.endpoint))
            remark_(mcp::textMember_(*entry_.texts, "endpoint").isEmpty() ? "url" : "endpoint",
                    "is no usable URL: http:// or https://, a host, perhaps a port and a path");
        if (!mcp::isHeaderValue(record_.bearerToken.view()))
            remark_("bearerToken", "cannot be sent: it holds control characters");
    }

private:
    void checkName_(const mcp::MemberPlace& member) {
        if (std::find(kMembers.begin(), kMembers.end(), member.name) != kMembers.end())
            return;
        const std::string_view nearest = mcp::nearestName(member.name, kMembers);
        add_(member.line, nearest.empty() ? ZnString("unknown member")
                                          : "unknown member; did you mean \"" + ZnString(nearest) + "\"?");
    }
    void checkText_(std::string_view name) {
        const ZnJsonValue& value = entry_.written->value(name);
        if (value.isNull())
            return;
        if (!value.isString())
            remark_(name, "must be a text in quotes");
        else if (mcp::textMember_(*entry_.written, name) != mcp::textMember_(*entry_.texts, name))
            remark_(name, "is read as another value, since it looks like a number; --mcp_interop takes it as it is");
    }
    void checkEra_() {
        const ZnJsonValue& protocol = entry_.written->value("protocol");
        const bool isLegacy = record_.era == McpBridgeServiceRecord::Era::Legacy;
        if (isLegacy && protocol.isString())
            remark_("protocol", "must be \"2026-07-28\" or \"auto\"; it counts as absent");
        const ZnJsonValue& interop = entry_.values->value("interop");
        if (!isLegacy && !interop.isNull() && !interop.toBool(false))
            remark_("interop", "counts as true, since \"protocol\" needs it");
    }
    void remark_(std::string_view name, const char* text) {
        // Of a repeated member the last one counts.
        const auto member = std::find_if(place_.members.rbegin(), place_.members.rend(),
                                         [&](const mcp::MemberPlace& entry) { return entry.name == name; });
        add_(member == place_.members.rend() ? place_.line : member->line, "\"" + ZnString(name) + "\" " + text);
    }
    void add_(int line, const ZnString& text) { remarks_->push_back(mcp::lineText(line, record_.id) + text); }

    const Entry& entry_;
    const McpBridgeServiceRecord& record_;
    const mcp::EntryPlace& place_;
    std::vector<ZnString>* const remarks_;
};

const ZnJsonArray* servicesOf(const ZnJsonDocument& document) {
    const ZnJsonObject* root = document.root().object();
    return root == nullptr ? nullptr : root->value("services").array();
}

/// Says so when the record cannot be used.
bool isUsable(const McpBridgeServiceRecord& record, std::vector<ZnString>* skipped) {
    if (record.id.isEmpty())
        skipped->push_back("Ignoring service without id");
    else if (record.endpoint.isEmpty())
        skipped->push_back("Ignoring service " + mcp::printable(record.id.view()) + " without endpoint");
    return !record.id.isEmpty() && !record.endpoint.isEmpty();
}

} // namespace

bool McpServiceFile::read(std::string_view text, bool isExact, ZnString* errorText) {
    ZnString error;
    const ZnJsonDocument written = ZnJsonDocument::fromJson(text, &error, JsonReading::Exact);
    ZnJsonDocument inDialect;
    // The dialect refuses numbers that no 64 bits hold; its error is the one that counts for whoever reads in it.
    if (error.isEmpty())
        inDialect = ZnJsonDocument::fromJson(text, &error, JsonReading::QuietDialect);
    const ZnJsonDocument& values = error.isEmpty() ? inDialect : written;
    if (isExact && written.root().object() != nullptr)
        error.clear();
    *errorText = errorWithPlace(error, text);
    if (!error.isEmpty() || written.root().object() == nullptr)
        return false;
    const ZnJsonArray* entries = servicesOf(written);
    if (entries == nullptr) {
        remarks.push_back("there is no array \"services\"");
        return true;
    }
    std::vector<mcp::EntryPlace> places = mcp::placesOfServices(text);
    places.resize(entries->size(), {1, {}}); // a name that is written with escapes is not found
    for (std::size_t i = 0; i < entries->size(); ++i) {
        const ZnJsonObject* value = servicesOf(values)->at(i).object();
        const ZnJsonObject* asWritten = entries->at(i).object();
        if (asWritten != nullptr)
            takeEntry_({value, isExact ? asWritten : value, asWritten}, places[i], isExact);
        else
            remarks.push_back(mcp::lineText(places[i].line, ZnString()) + "not an object");
    }
    return true;
}

void McpServiceFile::takeEntry_(const Entry_& entry, const mcp::EntryPlace& place, bool interopDefault) {
    const auto record = std::make_shared<McpBridgeServiceRecord>(readService(entry, interopDefault));
    hasSecrets = hasSecrets || !record->bearerToken.isEmpty();
    McpServiceSecrets secrets;
    secrets.read(*entry.written, record.get());
    hasSecrets = hasSecrets || secrets.hasTexts();
    secretFiles.insert(secretFiles.end(), secrets.files().begin(), secrets.files().end());
    EntryCheck check(entry, *record, place, &remarks);
    check.run();
    check.tell(secrets);
    if (!isUsable(*record, &skipped))
        return;
    if (services.contains(record->id))
        remarks.push_back(mcp::lineText(place.line, record->id) + "the id is used again; the last entry counts");
    services.insert(record->id, record);
}

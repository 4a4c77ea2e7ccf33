// The allowlist: reading it, looking services up, and the one form in which they leave the agent.

#include "agent/BreltMcpBridgeAgent.h"
#include "agent/McpJson.h"
#include "core/io/ZnFile.h"
#include "core/types/ZnJsonDocument.h"

#include <iostream>
#include <utility>

namespace {

/// The text of the first of two members that is not empty.
ZnString eitherMember(const ZnJsonObject& object, std::string_view name, std::string_view otherName) {
    ZnString text = mcp::textMember_(object, name);
    return text.isEmpty() ? mcp::textMember_(object, otherName) : text;
}

McpBridgeServiceRecord readService(const ZnJsonObject& object, bool interopDefault) {
    McpBridgeServiceRecord record;
    record.id = mcp::textMember_(object, "id");
    record.title = mcp::textMember_(object, "title");
    record.description = mcp::textMember_(object, "description");
    if (ZnString transport = mcp::textMember_(object, "transport"); !transport.isEmpty())
        record.transport = std::move(transport);
    record.endpoint = eitherMember(object, "endpoint", "url");
    record.bearerToken = eitherMember(object, "bearerToken", "bearer_token");
    record.tlsCaFile = eitherMember(object, "tlsCaFile", "tls_ca_file");
    if (const ZnJsonValue& enabled = object.value("enabled"); !enabled.isNull())
        record.enabled = enabled.toBool(false);
    const ZnJsonValue& interop = object.value("interop");
    record.interop = interop.isNull() ? interopDefault : interop.toBool(false);
    if (const int timeoutMs = object.value("timeoutMs").toInt(0); timeoutMs >= 1)
        record.timeoutMs = timeoutMs;
    return record;
}

/// Says so on standard error when the record cannot be used.
bool isUsable(const McpBridgeServiceRecord& record) {
    if (record.id.isEmpty())
        std::cerr << "[McpBridge] Ignoring service without id" << std::endl;
    else if (record.endpoint.isEmpty())
        std::cerr << "[McpBridge] Ignoring service " << record.id << " without endpoint" << std::endl;
    return !record.id.isEmpty() && !record.endpoint.isEmpty();
}

} // namespace

bool BreltMcpBridgeAgent::loadServices_() {
    if (servicesFile_.isEmpty()) {
        setServices_({});
        return true;
    }
    ZnFile file(servicesFile_);
    ZnString error = "Unable to open file";
    if (file.open(ZnFile::OpenMode::Read) && parseServices_(file.readAll(), &error))
        return true;
    std::cerr << "[McpBridge] Cannot load services file " << servicesFile_ << ": " << error << std::endl;
    return false;
}

bool BreltMcpBridgeAgent::parseServices_(const ZnString& text, ZnString* errorOut) {
    errorOut->clear();
    const ZnJsonDocument document = ZnJsonDocument::fromJson(text.view(), errorOut);
    const ZnJsonObject* root = document.root().object();
    if (!errorOut->isEmpty() || root == nullptr)
        return false;
    ServiceMap_ services;
    if (const ZnJsonArray* entries = root->value("services").array()) {
        for (const ZnJsonValue& entry : *entries) {
            const ZnJsonObject* object = entry.object();
            if (object == nullptr)
                continue;
            const auto record = std::make_shared<McpBridgeServiceRecord>(readService(*object, interop_));
            if (isUsable(*record))
                services.insert(record->id, record);
        }
    }
    setServices_(std::move(services));
    return true;
}

void BreltMcpBridgeAgent::setServices_(ServiceMap_ services) {
    ZnMutexLocker locker(servicesMutex_);
    services_ = std::move(services);
}

BreltMcpBridgeAgent::ServiceRef_ BreltMcpBridgeAgent::findService_(const ZnString& id) {
    ZnMutexLocker locker(servicesMutex_);
    return services_.value(trimmedView(id.view()));
}

ZnJsonArray BreltMcpBridgeAgent::publicServiceViews_() {
    ZnMutexLocker locker(servicesMutex_);
    ZnJsonArray views;
    views.reserve(services_.size());
    for (const auto& [id, record] : services_)
        views.append(publicServiceView_(*record));
    return views;
}

ZnJsonObject BreltMcpBridgeAgent::publicServiceView_(const McpBridgeServiceRecord& record) {
    return {{"id", record.id},
            {"title", record.title},
            {"description", record.description},
            {"transport", record.transport},
            {"endpoint", record.endpoint},
            {"enabled", record.enabled},
            {"timeoutMs", record.timeoutMs},
            {"hasBearerToken", !record.bearerToken.isEmpty()},
            {"hasTlsCaFile", !record.tlsCaFile.isEmpty()}};
}

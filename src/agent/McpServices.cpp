// The allowlist: reading it, looking services up, and the one form in which they leave the agent.

#include "agent/BreltMcpBridgeAgent.h"
#include "agent/McpFailureText.h"
#include "agent/McpText.h"
#include "core/io/ZnFile.h"
#include "core/platform/ZnFileIdentity.h"
#include "core/types/ZnJsonArray.h"

#include <iostream>
#include <utility>

bool BreltMcpBridgeAgent::loadServices_() {
    remarks_.clear();
    if (servicesFile_.isEmpty()) {
        setServices_({});
        return true;
    }
    ZnFile file(servicesFile_);
    ZnString error = "Unable to open file";
    const bool isOpen = file.open(ZnFile::OpenMode::Read);
    if (isOpen && parseServices_(file.readAll(), &error))
        return true;
    std::cerr << "[McpBridge] Cannot load services file " << servicesFile_ << ": " << error << std::endl;
    if (!isOpen)
        std::cerr << "[McpBridge] " << mcp::fileProblem(servicesFile_) << std::endl;
    return false;
}

void BreltMcpBridgeAgent::warnAboutServices_() const {
    for (const ZnString& remark : remarks_)
        std::cerr << "[McpBridge] Warning: services file, " << remark << std::endl;
}

bool BreltMcpBridgeAgent::parseServices_(const ZnString& text, ZnString* errorOut) {
    McpServiceFile file;
    if (!file.read(text.view(), interop_, errorOut))
        return false;
    for (const ZnString& line : file.skipped)
        std::cerr << "[McpBridge] " << line << std::endl;
    remarks_ = std::move(file.remarks);
    if (file.hasSecrets && ZnFileIdentity::of(servicesFile_).isReadableByOthers)
        remarks_.push_back("it holds bearer tokens and can be read by other users; chmod 600 keeps them out");
    setServices_(std::move(file.services));
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
            {"endpoint", mcp::withoutUserInformation(record.endpoint)},
            {"enabled", record.enabled},
            {"timeoutMs", record.timeoutMs},
            {"hasBearerToken", !record.bearerToken.isEmpty()},
            {"hasTlsCaFile", !record.tlsCaFile.isEmpty()}};
}

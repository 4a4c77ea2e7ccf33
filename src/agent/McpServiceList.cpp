#include "agent/McpServiceList.h"

#include "agent/McpFailureText.h"
#include "agent/McpText.h"
#include "core/io/ZnFile.h"
#include "core/platform/ZnFileIdentity.h"

#include <algorithm>
#include <iostream>
#include <utility>

bool McpServiceList::load(const ZnString& path, bool isExact) {
    remarks_.clear();
    if (path.isEmpty()) {
        set_({});
        return true;
    }
    ZnFile file(path);
    ZnString error = "Unable to open file";
    const bool isOpen = file.open(ZnFile::OpenMode::Read);
    if (isOpen && read(file.readAll(), path, isExact, &error))
        return true;
    std::cerr << "[McpBridge] Cannot load services file " << path << ": " << error << std::endl;
    if (!isOpen)
        std::cerr << "[McpBridge] " << mcp::fileProblem(path) << std::endl;
    return false;
}

bool McpServiceList::read(const ZnString& text, const ZnString& path, bool isExact, ZnString* errorOut) {
    McpServiceFile file;
    if (!file.read(text.view(), isExact, errorOut))
        return false;
    for (const ZnString& line : file.skipped)
        std::cerr << "[McpBridge] " << line << std::endl;
    remarks_ = std::move(file.remarks);
    if (file.hasSecrets && ZnFileIdentity::of(path).isReadableByOthers)
        remarks_.push_back("it holds bearer tokens and can be read by other users; chmod 600 keeps them out");
    set_(std::move(file.services));
    return true;
}

void McpServiceList::set_(McpServiceFile::ServiceMap services) {
    ZnMutexLocker locker(lock_);
    services_ = std::move(services);
}

McpServiceList::Ref McpServiceList::find(const ZnString& id) {
    ZnMutexLocker locker(lock_);
    return services_.value(trimmedView(id.view()));
}

std::size_t McpServiceList::size() {
    ZnMutexLocker locker(lock_);
    return services_.size();
}

int McpServiceList::longestTimeoutMs() {
    ZnMutexLocker locker(lock_);
    int longestMs = 0;
    for (const auto& [id, record] : services_)
        longestMs = std::max(longestMs, record->timeoutMs);
    return longestMs;
}

ZnJsonArray McpServiceList::publicViews() {
    ZnMutexLocker locker(lock_);
    ZnJsonArray views;
    views.reserve(services_.size());
    for (const auto& [id, record] : services_)
        views.append(publicView(*record));
    return views;
}

ZnJsonObject McpServiceList::publicView(const McpBridgeServiceRecord& record) {
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

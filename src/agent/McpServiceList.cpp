#include "agent/McpServiceList.h"

#include "agent/McpFailureText.h"
#include "agent/McpText.h"
#include "core/io/ZnFile.h"
#include "core/platform/ZnFileIdentity.h"

#include <algorithm>
#include <iostream>
#include <utility>

namespace {

/// In one piece: other threads may write, too.
void say(const ZnString& line) {
    std::cerr << "[McpBridge] " + line + "\n" << std::flush;
}

} // namespace

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
    addSecretRemark_(path, &file);
    remarks_ = file.remarks;
    set_(std::move(file));
    return true;
}

void McpServiceList::addSecretRemark_(const ZnString& path, McpServiceFile* file) {
    if (file->hasSecrets && ZnFileIdentity::of(path).isReadableByOthers)
        file->remarks.push_back("it holds bearer tokens and can be read by other users; chmod 600 keeps them out");
}

void McpServiceList::set_(McpServiceFile file) {
    bool hasModern = false;
    serial_.fetch_add(1, std::memory_order_relaxed);
    ZnMutexLocker locker(lock_);
    for (auto& [id, record] : file.services) {
        hasModern = hasModern || record->era != McpBridgeServiceRecord::Era::Legacy;
        if (const Ref before = services_.value(id); before && *before == *record)
            record = before;
    }
    services_ = std::move(file.services);
    secretFiles_ = std::move(file.secretFiles);
    hasModern_.store(hasModern, std::memory_order_relaxed);
}

bool McpServiceList::readFile_(const ZnString& path, bool isExact, McpServiceFile* file, ZnString* errorOut) {
    ZnFile source(path);
    *errorOut = "Unable to open file";
    if (ZnFileIdentity::of(path).kind != ZnFileIdentity::Kind::File || !source.open(ZnFile::OpenMode::Read) ||
        !file->read(source.readAll().view(), isExact, errorOut))
        return false;
    addSecretRemark_(path, file);
    return true;
}

void McpServiceList::reload(const ZnString& path, Reading how) {
    McpServiceFile file;
    ZnString error;
    bool isTaken = readFile_(path, how.isExact, &file, &error);
    if (isTaken && how.isStrict && !file.remarks.empty()) {
        isTaken = false;
        error = file.remarks.front();
    }
    if (!isTaken)
        return say("services file " + path + " has changed and is not taken: " + error);
    for (const ZnString& line : file.skipped)
        say(line);
    for (const ZnString& remark : file.remarks)
        say("Warning: services file, " + remark);
    const std::size_t count = file.services.size();
    set_(std::move(file));
    say("services file " + path + " has changed: " + ZnString::number(static_cast<long long>(count)) + " services");
}

std::vector<ZnString> McpServiceList::secretFiles() {
    ZnMutexLocker locker(lock_);
    return secretFiles_;
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

#pragma once

#include "agent/McpBridgeServiceRecord.h"
#include "core/types/ZnJsonObject.h"
#include "core/types/ZnString.h"

#include <string_view>
#include <vector>

/// What one entry of the allowlist says about credentials: a bearer token and further headers, as texts, in files or
/// in the environment. A service whose secret is missing must not be called without it, so its record has a problem.
///
/// Thread: a value; it reads files.
class McpServiceSecrets {
public:
    static constexpr std::size_t kMaxBytes = 16384; // of one secret

    struct Remark {
        std::string_view member;
        const char* text;
    };

    /// Reads the members of `entry` into the record, over what it has.
    void read(const ZnJsonObject& entry, McpBridgeServiceRecord* record);
    const std::vector<Remark>& remarks() const noexcept { return remarks_; }
    /// Those that hold secrets, whether they are there or not.
    const std::vector<ZnString>& files() const noexcept { return files_; }
    /// Whether a text of the entry itself is a header's value.
    bool hasTexts() const noexcept { return hasTexts_; }

private:
    ZnString fromFile_(std::string_view member, const ZnString& path);
    ZnString fromEnvironment_(std::string_view member, const ZnString& name);
    ZnString valueOf_(const ZnJsonValue& value);
    void takeHeaders_(const ZnJsonValue& headers);
    ZnString usable_(std::string_view member, const ZnString& text);
    void fail_(std::string_view member, const char* remark);

    McpBridgeServiceRecord* record_ = nullptr;
    std::vector<Remark> remarks_;
    std::vector<ZnString> files_;
    bool hasTexts_ = false;
};

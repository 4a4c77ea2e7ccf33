#include "core/storage/embeddeddb/FileNames_.h"

#include "core/fs/ZnPath.h"

#include <algorithm>
#include <charconv>
#include <iterator>
#include <utility>

namespace znEmbeddedDbDetail {

namespace {

ZnString nameOf(std::string_view prefix, std::uint64_t id, std::string_view suffix) {
    ZnString name(prefix);
    name += ZnString::number(id);
    name.append(suffix);
    return name;
}

bool hasForm(std::string_view name, std::string_view prefix, std::string_view suffix) {
    return name.size() >= prefix.size() + suffix.size() && name.starts_with(prefix) && name.ends_with(suffix);
}

ZnString withoutTemporarySuffix(const ZnString& name) {
    constexpr std::string_view kTemporarySuffix = ".tmp";
    std::string_view bare = name.view();
    if (bare.ends_with(kTemporarySuffix))
        bare.remove_suffix(kTemporarySuffix.size());
    return ZnString(bare);
}

} // namespace

ZnString tableFileName(std::int32_t level, std::uint64_t id) {
    return "L" + ZnString::number(level) + "-" + ZnString::number(id) + ".sst";
}

ZnString blobFileName(std::uint64_t id) {
    return nameOf(kBlobPrefix, id, kBlobSuffix);
}

ZnString walFileName(std::uint64_t id) {
    return nameOf(kWalPrefix, id, kWalSuffix);
}

ZnString manifestFileName(std::uint64_t id) {
    return nameOf(kManifestPrefix, id, kManifestSuffix);
}

std::uint64_t parseFileId(const ZnString& path, std::string_view prefix, std::string_view suffix) {
    std::string_view name = path.view();
    name.remove_prefix(name.rfind('/') + 1); // npos + 1 is 0
    if (!hasForm(name, prefix, suffix))
        return 0;
    const std::string_view digits = name.substr(prefix.size(), name.size() - prefix.size() - suffix.size());
    std::uint64_t id = 0;
    const auto result = std::from_chars(digits.data(), digits.data() + digits.size(), id);
    return result.ec == std::errc() && nameOf(prefix, id, suffix) == ZnString(name) ? id : 0;
}

std::uint64_t dataFileId(const ZnString& name) {
    constexpr std::pair<std::string_view, std::string_view> kForms[] = {
        {kBlobPrefix, kBlobSuffix}, {"L0-", ".sst"}, {"L1-", ".sst"}};
    const ZnString bare = withoutTemporarySuffix(name);
    std::uint64_t id = 0;
    for (const auto& [prefix, suffix] : kForms)
        id = std::max(id, parseFileId(bare, prefix, suffix));
    return id;
}

bool isStoreFileName(const ZnString& name) {
    const ZnString bare = withoutTemporarySuffix(name);
    return bare == kCurrentFileName || bare == kLockFileName || bare == manifestFileName(0) || dataFileId(bare) != 0 ||
           parseFileId(bare, kWalPrefix, kWalSuffix) != 0 || parseFileId(bare, kManifestPrefix, kManifestSuffix) != 0;
}

std::vector<ZnString> listFiles(ZnStorageFiles& files, const ZnString& directory, std::string_view prefix,
                                std::string_view suffix) {
    std::vector<ZnString> names;
    std::vector<ZnString> paths;
    files.list(directory, &names); // a failure leaves the list empty
    for (const ZnString& name : names)
        if (hasForm(name.view(), prefix, suffix))
            paths.push_back(joinPath(directory, name));
    std::sort(paths.begin(), paths.end());
    return paths;
}

} // namespace znEmbeddedDbDetail

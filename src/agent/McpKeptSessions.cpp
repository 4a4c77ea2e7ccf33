#include "agent/McpKeptSessions.h"

#include "core/types/ZnJsonDocument.h"
#include "core/types/ZnJsonObject.h"

#include <algorithm>
#include <optional>
#include <utility>

namespace mcp {
namespace {

constexpr std::string_view kPrefix = "s/";
constexpr std::size_t kHashBytes = 64;

struct Loaded {
    McpKeptSession kept;
    long long day = 0; // of its last use
};

std::optional<Loaded> read(std::string_view key, std::string_view value) {
    ZnString error;
    const ZnJsonDocument document = ZnJsonDocument::fromJson(value, &error, JsonReading::Exact);
    const ZnJsonObject* members = document.root().object();
    if (members == nullptr || key.size() != kPrefix.size() + kHashBytes)
        return std::nullopt;
    auto session = std::make_shared<McpBridgeSession>();
    session->hash = ZnString(key.substr(kPrefix.size()));
    session->protocolVersion = ZnString(members->value("protocolVersion").string());
    session->clientName = ZnString(members->value("clientName").string());
    session->clientVersion = ZnString(members->value("clientVersion").string());
    session->createdUs = members->value("createdUs").toLongLong();
    session->initialized = true;
    Loaded loaded;
    loaded.kept = {std::move(session), members->value("isUsed").toBool(false), false};
    loaded.day = members->value("usedDay").toLongLong();
    return loaded;
}

} // namespace

std::string sessionKey(const ZnString& hash) {
    return std::string(kPrefix) + hash.str();
}

ZnString sessionText(const McpBridgeSession& session, bool isUsed, long long day) {
    return ZnJsonValue(ZnJsonObject{{"protocolVersion", session.protocolVersion},
                                    {"clientName", session.clientName},
                                    {"clientVersion", session.clientVersion},
                                    {"createdUs", session.createdUs},
                                    {"isUsed", isUsed},
                                    {"usedDay", day}})
        .toJson();
}

std::vector<McpKeptSession> loadSessions(ZnEmbeddedDb& store, long long oldestDay, long long today,
                                         std::size_t maxCount) {
    std::vector<Loaded> found;
    ZnEmbeddedDbBatch unwanted;
    ZnEmbeddedDbRange all;
    all.prefix = ZnByteArray(kPrefix);
    for (ZnEmbeddedDbIterator record = store.scan(all); record.valid(); record.next()) {
        std::optional<Loaded> loaded = read(record.key(), record.value());
        if (loaded && loaded->day >= oldestDay)
            found.push_back(*std::move(loaded));
        else
            unwanted.remove(record.key());
    }
    std::stable_sort(found.begin(), found.end(), [](const Loaded& a, const Loaded& b) { return a.day < b.day; });
    const std::size_t excess = found.size() - std::min(found.size(), maxCount);
    std::vector<McpKeptSession> sessions;
    for (std::size_t i = 0; i < found.size(); ++i) {
        McpKeptSession& kept = found[i].kept;
        kept.isOfToday = found[i].day >= today;
        if (i < excess)
            unwanted.remove(sessionKey(kept.session->hash));
        else
            sessions.push_back(std::move(kept));
    }
    static_cast<void>(store.write(unwanted)); // what stays is removed at the next start
    return sessions;
}

} // namespace mcp

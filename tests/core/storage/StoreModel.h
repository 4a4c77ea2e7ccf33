#pragma once

#include "core/storage/StoreTestSupport.h"
#include "core/storage/embeddeddb/ZnEmbeddedDb.h"

#include <algorithm>
#include <cstdlib>
#include <gtest/gtest.h>
#include <map>
#include <random>
#include <set>
#include <string>
#include <vector>

using StoreContent = std::map<std::string, std::string>;

/// Of a test with random operations, which tells it when it fails: ZN_TEST_SEED, or one by chance.
inline std::uint64_t testSeed() {
    const char* given = std::getenv("ZN_TEST_SEED");
    return given == nullptr ? std::random_device()() : std::strtoull(given, nullptr, 10);
}

/// The tag of a value is its first byte; every record has it as its secondary key.
inline ZnEmbeddedDbIndexKeys tagsOf(std::string_view value) {
    ZnEmbeddedDbIndexKeys keys;
    if (!value.empty())
        keys["tag"].append(ZnByteArray(value.substr(0, 1)));
    return keys;
}

/// Nothing happens in the background but what a test asks for, and values of more than 40 bytes go to blob files.
inline ZnEmbeddedDbOptions quietOptions(bool readOnly = false) {
    ZnEmbeddedDbOptions options;
    options.idleFlushMs = 0;
    options.blobThresholdBytes = 40;
    options.readOnly = readOnly;
    return options;
}

inline Status putTagged(ZnEmbeddedDb& store, std::string_view key, const std::string& value,
                        ZnEmbeddedDbDurability durability = ZnEmbeddedDbDurability::Default) {
    return store.put(key, value, tagsOf(value), durability);
}

/// The value, or "code 1" when there is none.
inline std::string valueOf(const ZnEmbeddedDb& store, std::string_view key,
                           const ZnEmbeddedDbSnapshotPtr& snapshot = nullptr) {
    ZnByteArray value;
    const Status status = store.get(key, &value, snapshot);
    return status.isOk() ? std::string(value.view()) : "code " + std::to_string(status.code());
}

/// What the iterator has left, which must come in the order of the keys.
inline StoreContent shown(ZnEmbeddedDbIterator records, bool isReverse = false) {
    StoreContent content;
    for (std::string last; records.valid(); records.next()) {
        EXPECT_TRUE(content.empty() || (isReverse ? records.key() < last : records.key() > last)) << last;
        last = std::string(records.key());
        content[last] = std::string(records.value());
    }
    EXPECT_EQ(records.status(), kOk);
    return content;
}

/// All that a store shows, by scan, by key and by index, which must agree. Empty, with a failure of the test, when not.
inline StoreContent contentOf(const ZnEmbeddedDb& store, bool* isReadable = nullptr) {
    StoreContent content;
    std::map<std::string, std::set<std::string>> byTag;
    Status status;
    auto records = store.scan();
    for (; status.isOk() && records.valid(); records.next()) {
        content[std::string(records.key())] = std::string(records.value());
        byTag[std::string(records.value().substr(0, 1))].insert(std::string(records.key()));
        ZnByteArray value;
        status = store.get(records.key(), &value);
        EXPECT_TRUE(!status.isOk() || value.view() == records.value());
    }
    if (status.isOk())
        status = records.status();
    std::map<std::string, std::set<std::string>> indexed;
    if (status.isOk()) {
        auto entries = store.indexScan("tag");
        for (; entries.valid(); entries.next())
            indexed[std::string(entries.secondaryKey())].insert(std::string(entries.key()));
        status = entries.status();
    }
    byTag.erase("");
    if (isReadable != nullptr)
        *isReadable = status.isOk();
    else
        EXPECT_EQ(status, kOk);
    EXPECT_TRUE(!status.isOk() || indexed == byTag) << "index and records differ";
    return content;
}

/// Follows what a store may hold: what was acknowledged, what may be there or not, and how much of it must survive.
///
/// Thread: one; so there is one order of the changes, and after a crash the store holds the first few of them.
class StoreModel {
public:
    using Change = std::vector<std::pair<std::string, std::string>>; // an empty value: removed

    void committed(const Change& change, bool isDurable) {
        for (StoreContent& state : now_)
            apply(&state, change);
        remember();
        if (isDurable)
            durable();
    }
    /// It failed: it may be there, as a whole.
    void uncertain(const Change& change) {
        std::set<StoreContent> both(now_.begin(), now_.end());
        for (StoreContent state : now_) {
            apply(&state, change);
            both.insert(std::move(state));
        }
        now_.assign(both.begin(), both.end());
        remember();
    }
    void durable() {
        possible_.clear();
        remember();
    }
    /// The store was opened and shows this: nothing else is possible any more.
    void settle(const StoreContent& content) {
        now_ = {content};
        durable();
    }
    bool isNow(const StoreContent& content) const { return std::find(now_.begin(), now_.end(), content) != now_.end(); }
    bool mayBe(const StoreContent& content) const { return possible_.count(content) != 0; }
    /// The change that the next write would have made, for a message.
    const std::set<StoreContent>& possible() const { return possible_; }

private:
    static void apply(StoreContent* state, const Change& change) {
        for (const auto& [key, value] : change) {
            if (value.empty())
                state->erase(key);
            else
                (*state)[key] = value;
        }
    }
    void remember() { possible_.insert(now_.begin(), now_.end()); }

    std::vector<StoreContent> now_ = {{}};
    std::set<StoreContent> possible_ = {{}}; // after a crash
};

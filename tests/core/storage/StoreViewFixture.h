#pragma once

#include "core/storage/StoreTestSupport.h"
#include "core/storage/embeddeddb/ReadView_.h"
#include "core/storage/embeddeddb/StorePaths_.h"
#include "core/storage/embeddeddb/TableWriter_.h"

#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

/// What a store would read from, put together by hand, and a model of what it holds.
///
/// Records have secondary keys of one index, "color". Values of more than 20 bytes go to blob files.
struct StoreViewFixture {
    using Colors = std::set<std::string>;
    struct Row {
        std::string key;
        std::string value;
        std::uint64_t sequence = 0;
        Colors colors;

        bool operator==(const Row& other) const = default;
        friend void PrintTo(const Row& row, std::ostream* out) {
            *out << testing::PrintToString(row.key) << "=" << testing::PrintToString(row.value) << "@" << row.sequence;
        }
    };

    /// With `retires`, the index is told of the colors that the record has no longer, as a writer does that sees them.
    void put(const std::string& key, const std::string& value, const Colors& colors, bool retires = true);
    void remove(const std::string& key, bool retires = true);
    void seal();
    /// Writes the oldest sealed memtable as tables of level 0.
    void flush();
    /// Makes one table of level 1 of the last `count` of a list, dropping tombstones if these are all.
    void compact(znEmbeddedDbDetail::TableList_* list, std::size_t count);
    /// Writes a table in front of its list.
    void addTable(std::int32_t kind, std::int32_t level, const std::vector<znEmbeddedDbDetail::TableRecord_>& records);
    znEmbeddedDbDetail::ReadViewPtr_ view(bool withActive = false);

    MemoryFiles files;
    znEmbeddedDbDetail::StorePaths_ paths{"/s"};
    znEmbeddedDbDetail::TableOpenOptions_ options;
    std::shared_ptr<znEmbeddedDbDetail::StoreCounters_> counters =
        std::make_shared<znEmbeddedDbDetail::StoreCounters_>();
    std::shared_ptr<znEmbeddedDbDetail::SharedMemtable_> active =
        std::make_shared<znEmbeddedDbDetail::SharedMemtable_>();
    std::vector<std::shared_ptr<znEmbeddedDbDetail::SharedMemtable_>> sealed;
    znEmbeddedDbDetail::TableViews_ tables;
    std::uint64_t lastId = 0;
    std::uint64_t lastSequence = 0;
    std::map<std::string, Row> model;

private:
    void insert_(const std::string& key, znEmbeddedDbDetail::ValueEntry_ entry, const Colors& colors, bool retires);
    std::shared_ptr<const znEmbeddedDbDetail::TableHandle_>
    writeTable_(std::int32_t kind, std::int32_t level, const std::vector<znEmbeddedDbDetail::TableRecord_>& records);
};

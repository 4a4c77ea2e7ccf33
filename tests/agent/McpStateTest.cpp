// What the agent keeps across restarts: the trail of calls with its bounds, and the sessions.

#include "agent/McpSessionTable.h"
#include "agent/McpStateDir.h"
#include "agent/McpText.h"
#include "agent/McpTime.h"
#include "agent/McpTrailRecord.h"
#include "core/fs/TemporaryDirectory.h"
#include "core/storage/embeddeddb/ZnEmbeddedDb.h"

#include <atomic>
#include <chrono>
#include <optional>
#include <thread>

namespace {

constexpr long long kDayUs = mcp::kUsPerDay;
constexpr long long kNowUs = 1795478400LL * 1000000; // 2026-11-24

TEST(McpTime, ReadsMomentsAndSpansAndNothingElse) {
    struct Row {
        const char* text;
        const char* utc; // empty: no time
    };
    for (const Row& row : {Row{"2026-11-24", "2026-11-24T00:00:00.000Z"},
                           {"2024-02-29t23:59:60.5z", "2024-03-01T00:00:00.500Z"},
                           {"2026-11-24 01:30:00.1239999+02:00", "2026-11-23T23:30:00.123Z"},
                           {"1969-12-31T23:00:00-01:00", "1970-01-01T00:00:00.000Z"},
                           {"90m", "2026-11-23T22:30:00.000Z"},
                           {"0s", "2026-11-24T00:00:00.000Z"},
                           {"1w", "2026-11-17T00:00:00.000Z"},
                           {"2026-02-29", ""},
                           {"2026-11-24T00:00:00", ""},
                           {"2026-11-24T24:00:00Z", ""},
                           {"2026-11-24T00:00:00Zx", ""},
                           {"2026-11-24T00:00Z", ""},
                           {"-1h", ""},
                           {"99999999999h", ""},
                           {"3y", ""},
                           {"2", ""},
                           {"", ""}}) {
        const std::optional<long long> us = mcp::readTime(row.text, kNowUs);
        EXPECT_EQ(us ? mcp::utcText(*us).str() : "", row.utc) << row.text;
    }
}

/// A state directory that is closed and opened anew, by a clock in the hands of the test.
class McpStateTest : public testing::Test {
protected:
    using Found = std::vector<std::string>;

    void open(int maxDays = 30, std::int64_t maxBytes = 268435456) {
        ZnString problem;
        constexpr int kStopMs = 120000; // for slow machines
        state_ = McpStateDir::open(directory_.path("state"),
                                   {maxDays, maxBytes, [this] { return nowUs_.load(); }, kStopMs}, &problem);
        ASSERT_TRUE(state_) << problem;
        table_ = McpSessionTable();
        table_.restore(state_, state_->takeSessions(), 0);
    }
    void close() {
        state_->stop();
        state_.reset();
    }
    void call(const std::string& service) {
        McpCallRecord record;
        record.service = service;
        record.status = 200;
        record.tool = "name";
        state_->onCall(record);
    }
    std::string addSession(const std::string& id) {
        auto session = std::make_shared<McpBridgeSession>();
        session->id = id;
        session->clientName = "client of " + id;
        ZnString evicted;
        EXPECT_TRUE(table_.add(std::move(session), 0, &evicted));
        return id;
    }
    /// The services of the calls, in their order; or only their number.
    Found trail() {
        Found services;
        ZnEmbeddedDb store;
        ZnEmbeddedDbOptions options;
        options.readOnly = true;
        EXPECT_TRUE(store.open(directory_.path("state"), options).isOk());
        ZnEmbeddedDbRange calls;
        calls.prefix = ZnByteArray("c/");
        for (auto record = store.scan(calls); record.valid(); record.next())
            services.push_back(record.indexKeys().value("service")[0].toZnString().str());
        return services;
    }

    const TemporaryDirectory directory_;
    std::atomic<long long> nowUs_{kNowUs};
    std::shared_ptr<McpStateDir> state_;
    McpSessionTable table_;
};

TEST_F(McpStateTest, CallsStayInTheirOrderWhateverTheClockDoesAndGoWithTheirDay) {
    open(3);
    for (const int day : {0, 1, 2, -5, 3}) {
        nowUs_ = kNowUs + day * kDayUs;
        call(std::to_string(day));
        call(std::to_string(day) + "b");
    }
    close(); // writes them
    EXPECT_EQ(trail(), (Found{"0", "0b", "1", "1b", "2", "2b", "-5", "-5b", "3", "3b"}));
    open(3); // on day 3
    while (trail().size() > 6)
        std::this_thread::sleep_for(std::chrono::milliseconds(5)); // the test's own limit of time ends it
    EXPECT_EQ(trail(), (Found{"1", "1b", "2", "2b", "3", "3b"}));
    close();
}

TEST_F(McpStateTest, TheOldestCallsGoWhenThereAreTooManyBytes) {
    constexpr std::int64_t kMaxBytes = 1048576;
    open(30, kMaxBytes);
    const auto bytesOnDisk = [this] {
        std::uintmax_t bytes = 0;
        std::error_code error;
        for (const auto& entry : std::filesystem::recursive_directory_iterator(directory_.path("state").str(), error))
            bytes += entry.is_regular_file(error) ? entry.file_size(error) : 0;
        return bytes;
    };
    std::uintmax_t mostBytes = 0;
    const auto comeInTime = [&](const std::string& service, int callCount) {
        for (int i = 0; i < callCount; ++i)
            call(service);
        std::this_thread::sleep_for(std::chrono::milliseconds(25));
        mostBytes = std::max(mostBytes, bytesOnDisk());
    };
    for (int round = 0; round < 40; ++round)
        comeInTime(std::to_string(round), 250);
    Found left;
    do { // a slow machine may have dropped the last ones, and has the first ones still; ctest's limit of time ends this
        comeInTime("last", 1);
        left = trail();
    } while (left.back() != "last" || left.front() == "0");
    close();
    EXPECT_GT(left.size(), 250U);
    EXPECT_LT(mostBytes, 6 * kMaxBytes) << "twice out of hand, once more while tables are merged, and the log";
}

TEST_F(McpStateTest, CallsThatFindNoRoomAreCounted) {
    constexpr std::size_t kCalls = 100000;
    open();
    testing::internal::CaptureStderr();
    for (std::size_t i = 0; i < kCalls; ++i)
        call("s");
    close();
    const std::string said = testing::internal::GetCapturedStderr();
    const std::string mark = "[McpBridge] Warning: state directory: ";
    const std::size_t keptCount = trail().size();
    ASSERT_EQ(said.rfind(mark, 0), 0U) << said;
    EXPECT_EQ(said.find(mark, 1), std::string::npos) << "one warning: " << said;
    EXPECT_EQ(keptCount + std::stoul(said.substr(mark.size())), kCalls);
}

TEST_F(McpStateTest, SessionsGoOnUntilTheyEndOrNobodyUsesThemForAWeek) {
    nowUs_ = mcp::wallNowUs(); // by which the table goes
    open();
    const std::string id = addSession("id");
    addSession("ended");
    EXPECT_TRUE(table_.remove("ended"));
    const auto reopen = [&] {
        close();
        open();
    };
    reopen();
    EXPECT_EQ(table_.size(), 1U);
    const auto clientOf = [this](std::string_view name) {
        const std::shared_ptr<McpBridgeSession> session = table_.find(name, 0);
        return session ? session->clientName.str() : "none";
    };
    EXPECT_EQ(clientOf("ended"), "none");
    EXPECT_EQ(clientOf(mcp::sha256Text("id").view()), "none") << "what the store shows opens nothing";
    EXPECT_EQ(clientOf(std::string(100000, 'x')), "none");
    EXPECT_EQ(clientOf(id), "client of id");
    EXPECT_EQ(clientOf(id), "client of id");
    reopen();
    EXPECT_TRUE(table_.remove(id)) << "also one that was not used since";
    EXPECT_EQ(clientOf(id), "none");
    addSession("idle");
    reopen();
    EXPECT_EQ(table_.size(), 1U);
    nowUs_ += (McpStateDir::kSessionDays + 2) * kDayUs;
    reopen();
    EXPECT_EQ(table_.size(), 0U);
    nowUs_ = mcp::wallNowUs();
    reopen();
    EXPECT_EQ(table_.size(), 0U) << "it was removed";
    close();
}

/// Notes what it is told.
class NotingKeeper final : public McpSessionKeeper {
public:
    void keep(const McpBridgeSession& /*session*/, bool isUsed, long long /*day*/) override {
        told += isUsed ? "used " : "new ";
    }
    void forget(const McpBridgeSession& session) override {
        told += "forget " + session.hash.str().substr(0, 2) + (session.id.isEmpty() ? "* " : " ");
    }
    std::string told;
};

TEST(McpSessionTable, RestoredSessionsMakeRoomWhenTheyAreIdle) {
    constexpr long long kStartNs = 100 * McpSessionTable::kIdleNs;
    const auto keeper = std::make_shared<NotingKeeper>();
    std::vector<McpKeptSession> sessions;
    for (std::size_t i = 0; i < McpSessionTable::kMaxSessions; ++i) {
        auto session = std::make_shared<McpBridgeSession>();
        session->hash = std::to_string(10000 + i) + "hash";
        sessions.push_back({std::move(session), true, i > 0}); // the first one was not used today
    }
    McpSessionTable table;
    table.restore(keeper, std::move(sessions), kStartNs);
    const auto add = [&](const char* id) {
        auto session = std::make_shared<McpBridgeSession>();
        session->id = id;
        ZnString evicted;
        return table.add(std::move(session), kStartNs, &evicted);
    };
    EXPECT_TRUE(add("a"));
    EXPECT_FALSE(add("b"));
    EXPECT_TRUE(table.find("a", kStartNs));
    EXPECT_TRUE(table.find("a", kStartNs));
    EXPECT_EQ(keeper->told, "forget 10* new used ");
    EXPECT_EQ(table.size(), McpSessionTable::kMaxSessions);
}

} // namespace

#include "agent/McpStateDir.h"

#include "agent/McpKeptSessions.h"
#include "agent/McpSessionTable.h"
#include "agent/McpStateQueue.h"
#include "agent/McpText.h"
#include "agent/McpTime.h"
#include "agent/McpTrailBounds.h"
#include "agent/McpTrailRecord.h"
#include "core/ipc/Channel.h"
#include "core/platform/ZnMonotonicClock.h"
#include "core/platform/ZnThreadControl.h"
#include "core/storage/embeddeddb/ZnEmbeddedDb.h"

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <iostream>
#include <system_error>
#include <thread>
#include <utility>

namespace {

constexpr int kTidyMs = 3600 * 1000;
constexpr int kTidyPauseMs = 250; // sessions alone may take more than the trail's room, which no tidying changes
constexpr int kUnsaidMs = 1000;   // so long is waited for more to say
constexpr int kBackground = -2;
constexpr std::int64_t kLargestMemtableBytes = 2 * 1024 * 1024; // who follows reads so much each time
constexpr std::int64_t kMemtablesInBound = 32;

/// In one piece, since several threads write.
void warn(const ZnString& text) {
    std::cerr << ("[McpBridge] Warning: state directory: " + text + "\n").str() << std::flush;
}

ZnEmbeddedDbOptions storeOptions(std::int64_t maxBytes) {
    ZnEmbeddedDbOptions options;
    options.durability = ZnEmbeddedDbDurability::Periodic;
    options.memtableSizeBytes =
        static_cast<std::uint64_t>(std::min(kLargestMemtableBytes, maxBytes / kMemtablesInBound));
    options.blobThresholdBytes = 65536; // values are smaller: there are no blob files to collect
    options.idleFlushMs = 0;            // a call now and then would make a table each
    options.maxLevel1Tables = 32;       // a merge writes all of them anew
    return options;
}

/// False, with the reason.
bool makePrivate(const ZnString& path, ZnString* problem) {
    std::error_code error;
    if (std::filesystem::create_directories(path.str(), error))
        std::filesystem::permissions(path.str(), std::filesystem::perms::owner_all, error);
    if (error)
        *problem = path + ": " + error.message();
    return !error;
}

long long lastTrailNumber(const ZnEmbeddedDb& store) {
    ZnEmbeddedDbRange last;
    last.prefix = ZnByteArray(mcp::kTrailPrefix);
    last.reverse = true;
    last.keysOnly = true;
    const ZnEmbeddedDbIterator record = store.scan(last);
    return record.valid() ? mcp::trailNumber(record.key()).value_or(0) : 0;
}

} // namespace

/// The store and the two threads that use it: one writes, the other keeps the bounds.
class McpStateDir::Core_ : public std::enable_shared_from_this<Core_> {
public:
    explicit Core_(const Settings& settings)
        : clock(settings.clock ? settings.clock : mcp::wallNowUs),
          stopMs_(settings.stopMs),
          bounds_(settings.maxDays, settings.maxBytes) {}

    bool open(const ZnString& path, std::int64_t maxBytes, ZnString* problem);
    void stop();

    const std::function<long long()> clock;
    McpStateQueue queue{kMaxQueuedCalls, kMaxQueuedSessions};
    std::vector<McpKeptSession> restored;

private:
    bool start_(ZnString* problem);
    std::thread thread_(void (Core_::*run)());
    void runWriter_();
    void runTidier_();
    void write_(const McpStateQueue::Work& work);
    ZnEmbeddedDbStatus commit_(const McpStateQueue::Work& work, std::size_t* lostCount);
    void report_(const ZnEmbeddedDbStatus& status, std::uint64_t lostCount);
    bool mayGoOn_();
    bool waitForTidying_();
    void askForTidying_();

    const int stopMs_;
    const McpTrailBounds bounds_;
    ZnEmbeddedDb store_;
    std::unique_ptr<zn::ipc::Channel> channel_; // null when nobody can be woken
    std::thread writer_;
    std::thread tidier_;

    // The writer's.
    long long lastNumber_ = 0;
    std::uint64_t lostCount_ = 0; // that were not told yet
    bool isFailing_ = false;

    ZnMutex lock_; // leaf
    std::condition_variable_any changed_;
    int threadCount_ ZN_GUARDED_BY(lock_) = 0;
    bool isStopping_ ZN_GUARDED_BY(lock_) = false;
    bool isTidyDue_ ZN_GUARDED_BY(lock_) = false;
};

// --- opening and closing

bool McpStateDir::Core_::open(const ZnString& path, std::int64_t maxBytes, ZnString* problem) {
    if (!makePrivate(path, problem))
        return false;
    if (const ZnEmbeddedDbStatus status = store_.open(path, storeOptions(maxBytes)); !status.isOk()) {
        *problem = status.message();
        return false;
    }
    const long long today = clock() / mcp::kUsPerDay;
    restored = mcp::loadSessions(store_, today - kSessionDays, today, McpSessionTable::kMaxSessions);
    lastNumber_ = lastTrailNumber(store_);
    const Signal names = signalOf(path);
    ZnString unheard; // the trail is kept all the same
    channel_ = zn::ipc::Channel::open(names.domain, names.object, names.signal, &unheard);
    return start_(problem);
}

bool McpStateDir::Core_::start_(ZnString* problem) {
    try {
        writer_ = thread_(&Core_::runWriter_);
        tidier_ = thread_(&Core_::runTidier_);
        return true;
    } catch (const std::system_error& error) {
        *problem = ZnString("no thread for it: ") + error.what();
        stop();
        return false;
    }
}

std::thread McpStateDir::Core_::thread_(void (Core_::*run)()) {
    std::thread thread([self = shared_from_this(), run] {
        ZnThreadControl::setPriority(kBackground); // those who answer go first
        (self.get()->*run)();
        const ZnMutexLocker locker(self->lock_);
        --self->threadCount_;
        self->changed_.notify_all();
    });
    const ZnMutexLocker locker(lock_);
    ++threadCount_;
    return thread;
}

void McpStateDir::Core_::stop() {
    queue.stop();
    bool haveEnded = false;
    {
        const ZnMutexLocker locker(lock_);
        if (std::exchange(isStopping_, true))
            return;
        changed_.notify_all();
        const long long deadlineNs = monotonicNowNs() + stopMs_ * 1000000LL;
        for (long long nowNs = 0; threadCount_ > 0 && (nowNs = monotonicNowNs()) < deadlineNs;)
            changed_.wait_for(lock_, std::chrono::nanoseconds(deadlineNs - nowNs));
        haveEnded = threadCount_ <= 0;
    }
    if (!haveEnded)
        warn("it does not answer; what was told last may be lost");
    for (std::thread* thread : {&writer_, &tidier_}) {
        if (!thread->joinable())
            continue;
        if (haveEnded)
            thread->join();
        else
            thread->detach();
    }
}

// --- writing

void McpStateDir::Core_::runWriter_() {
    while (!queue.hasEnded())
        write_(queue.take(lostCount_ > 0 && !isFailing_ ? kUnsaidMs : -1));
    report_(ZnEmbeddedDbStatus(), 0);
    store_.close();
}

void McpStateDir::Core_::write_(const McpStateQueue::Work& work) {
    std::size_t lostCount = 0;
    ZnEmbeddedDbStatus status;
    if (!work.isEmpty())
        status = commit_(work, &lostCount);
    else if (isFailing_)
        return;
    report_(status, work.lostCount + lostCount);
    if (bounds_.isExceeded(store_))
        askForTidying_();
    if (status.isOk() && !work.calls.empty() && channel_)
        channel_->publish(static_cast<std::uint64_t>(lastNumber_), 0);
}

ZnEmbeddedDbStatus McpStateDir::Core_::commit_(const McpStateQueue::Work& work, std::size_t* lostCount) {
    ZnEmbeddedDbBatch batch;
    for (const McpStateQueue::SessionChange& change : work.sessions) {
        if (change.value.isEmpty())
            batch.remove(change.key);
        else
            batch.put(change.key, change.value);
    }
    const bool isFull = bounds_.isOutOfHand(store_);
    for (const McpStateQueue::Call& call : work.calls) {
        if (isFull)
            break;
        lastNumber_ = std::max(call.endedUs, lastNumber_ + 1);
        batch.put(mcp::trailKey(lastNumber_), mcp::trailText(call.record, call.endedUs),
                  mcp::trailIndexKeys(call.record, call.endedUs));
    }
    ZnEmbeddedDbStatus status = store_.write(batch);
    if (!status.isOk() && store_.resume().isOk())
        status = store_.write(batch); // the same keys: it does no harm if the first one has worked
    *lostCount = (isFull ? work.calls.size() : 0) + (status.isOk() ? 0 : batch.size());
    if (status.isOk() && isFull)
        return {ZnEmbeddedDbStatus::IoError, "old calls cannot be removed as fast as new ones come"};
    return status;
}

/// One line when something begins to be lost, one with the number when that is over.
void McpStateDir::Core_::report_(const ZnEmbeddedDbStatus& status, std::uint64_t lostCount) {
    lostCount_ += lostCount;
    const bool hasFailed = !status.isOk();
    if (hasFailed && !isFailing_)
        warn(status.message() + "; not everything is kept until that is over");
    isFailing_ = hasFailed;
    if (!hasFailed && lostCount == 0 && lostCount_ > 0)
        warn(ZnString::number(std::exchange(lostCount_, 0)) + " changes could not be kept");
}

// --- bounds

void McpStateDir::Core_::runTidier_() {
    do {
        // A failure shows in writing, too, and the next round tries again.
        static_cast<void>(bounds_.enforce(store_, clock(), [this] { return mayGoOn_(); }));
    } while (waitForTidying_());
}

bool McpStateDir::Core_::mayGoOn_() {
    const ZnMutexLocker locker(lock_);
    return !isStopping_;
}

/// False when the directory is to be closed.
bool McpStateDir::Core_::waitForTidying_() {
    const ZnMutexLocker locker(lock_);
    const long long beganNs = monotonicNowNs();
    for (long long nowNs = beganNs; !isStopping_; nowNs = monotonicNowNs()) {
        const int waitMs = isTidyDue_ ? kTidyPauseMs : kTidyMs;
        const long long leftNs = beganNs + waitMs * 1000000LL - nowNs;
        if (leftNs <= 0)
            break;
        changed_.wait_for(lock_, std::chrono::nanoseconds(leftNs));
    }
    isTidyDue_ = false;
    return !isStopping_;
}

void McpStateDir::Core_::askForTidying_() {
    const ZnMutexLocker locker(lock_);
    isTidyDue_ = true;
    changed_.notify_all();
}

// --- what others see

std::shared_ptr<McpStateDir> McpStateDir::open(const ZnString& path, const Settings& settings, ZnString* problem) {
    auto core = std::make_shared<Core_>(settings);
    if (!core->open(path, settings.maxBytes, problem))
        return nullptr;
    return std::shared_ptr<McpStateDir>(new McpStateDir(std::move(core)));
}

McpStateDir::McpStateDir(std::shared_ptr<Core_> core) : core_(std::move(core)) {}

McpStateDir::~McpStateDir() {
    stop();
}

void McpStateDir::stop() {
    core_->stop();
}

std::vector<McpKeptSession> McpStateDir::takeSessions() {
    return std::exchange(core_->restored, {});
}

void McpStateDir::onCall(const McpCallRecord& record) {
    core_->queue.add(McpStateQueue::Call{record, core_->clock()});
}

void McpStateDir::keep(const McpBridgeSession& session, bool isUsed, long long day) {
    core_->queue.add(
        McpStateQueue::SessionChange{mcp::sessionKey(session.hash), mcp::sessionText(session, isUsed, day)});
}

void McpStateDir::forget(const McpBridgeSession& session) {
    core_->queue.add(McpStateQueue::SessionChange{mcp::sessionKey(session.hash), ZnString()});
}

McpStateDir::Signal McpStateDir::signalOf(const ZnString& path) {
    constexpr std::size_t kObjectBytes = 32;
    std::error_code error;
    const ZnString whole = std::filesystem::weakly_canonical(path.str(), error).string();
    return {"brelt.mcp-bridge-agent",
            ZnString(mcp::sha256Text((error ? path : whole).view()).view().substr(0, kObjectBytes)), "trail"};
}

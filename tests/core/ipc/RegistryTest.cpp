#include "core/ipc/SubscribersRegistryTable.h"

#include "core/ipc/DispatchTable.h"
#include "core/ipc/IpcFixture.h"
#include "core/ipc/Names.h"
#include "core/ipc/SignalBlock.h"
#include "core/platform/ZnMonotonicClock.h"
#include "core/platform/ZnProcess.h"
#include "support/LogCapture.h"

#include <gmock/gmock.h>
#include <memory>

namespace {

using namespace zn::ipc;
using namespace zn::ipc::detail;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

std::uint64_t nowMs() {
    return static_cast<std::uint64_t>(monotonicNowNs() / 1000000);
}

RegistryRow rowOf(std::uint32_t pid, std::uint64_t lastSeenMs, std::uint32_t refCount = 1) {
    RegistryRow row = {};
    row.id = pid;
    row.pid = pid;
    row.lastSeenMs = lastSeenMs;
    row.refCount = refCount;
    return row;
}

std::vector<std::uint32_t> pidsOf(const ZnString& domain, const ZnString& object, const ZnString& signal) {
    std::vector<std::uint32_t> pids;
    listSubscriberPids(domain, object, signal, pids);
    return pids;
}

TEST(IpcNames, DomainsAndIds) {
    const ZnString forty(std::string(40, 'a'));
    const std::pair<ZnString, ZnString> rows[] = {
        {"a/b c", "a_b_c"},
        {"///", "root"},
        {"", "root"},
        {"_x._-9_", "x._-9"},
        {ZnString(std::string(32, 'b')), ZnString(std::string(32, 'b'))},
        {forty, ZnString(std::string(32, 'a')) + "_0421b351e04b974b"},
    };
    for (const auto& [domain, name] : rows)
        EXPECT_EQ(sanitizeDomain(domain), name);
    EXPECT_EQ(subscriptionId("d", "o", "s", 7, ""), 0x1b1d2d1b2b6c7beeULL);
    EXPECT_EQ(subscriptionId("d", "o", "s", 7, "x"), 0x0c29a7872fb5f00fULL);
    EXPECT_EQ(hexText(0xAB), "00000000000000ab");
}

TEST(IpcRegistry, StandsInSharedMemoryByteForByte) {
    const ZnString domain = testDomain();
    const std::uint32_t pid = ZnProcess::currentId();
    ASSERT_EQ(registerSubscription({domain, "ob", ZnString(std::string(160, 's')), pid, "x"}), RegistryOutcome::Done);
    const RawObject raw(ZnString("/zn_ipc_subs_") + domain + "." + ZnString::number(::geteuid()));
    EXPECT_EQ(raw.byteCount(), 159760U);
    EXPECT_EQ(raw.mode() & 07777U, 0600U);
    EXPECT_EQ(raw.text(0, 16), std::string("1BUS\x01\0\0\0\x01\0\0\0"
                                           "1SMT",
                                           16));
    EXPECT_EQ(raw.at<std::uint64_t>(16), subscriptionId(domain, "ob", ZnString(std::string(160, 's')), pid, "x"));
    EXPECT_LE(nowMs() - raw.at<std::uint64_t>(24), 60000U);
    EXPECT_EQ(raw.at<std::uint32_t>(32), pid);
    EXPECT_EQ(raw.at<std::uint32_t>(36), 1U);
    EXPECT_EQ(raw.text(40, 64), domain.str() + std::string(64 - domain.size(), '\0'));
    EXPECT_EQ(raw.text(104, 64), "ob" + std::string(62, '\0'));
    EXPECT_EQ(raw.text(168, 160), std::string(160, 's'));
    const RawObject mutex(ZnString("/zn_ipc_subs_") + domain + "_mtx." + ZnString::number(::geteuid()));
    EXPECT_EQ(mutex.byteCount(), 64U);
    EXPECT_EQ(mutex.text(0, 8), std::string("1XTM\x01\0\0\0", 8));
}

TEST(IpcSignalBlock, StandsInSharedMemoryByteForByte) {
    const ZnString domain = testDomain();
    ZnString error;
    const auto block = SignalBlock::open(domain, "o", "s", &error);
    ASSERT_TRUE(block) << error.str();
    ASSERT_TRUE(block->publish(0, [] { return std::optional<SignalValue>({0, 0x1122334455667788, 9}); }));
    const RawObject raw(ZnString("/zn_ipc_sig_") + domain + "_" + hexText(fnv1a((domain + "|o|s").view())) + "." +
                        ZnString::number(::geteuid()));
    EXPECT_EQ(raw.byteCount(), 4128U);
    EXPECT_EQ(raw.text(0, 16), std::string("1GIS\x01\0\0\0\x20\x10\0\0\0\0\0\0", 16));
    EXPECT_EQ(raw.at<std::uint64_t>(16), 1U);
    EXPECT_EQ(raw.at<std::uint32_t>(24), 16U);
    EXPECT_EQ(raw.at<std::uint64_t>(28), 0x1122334455667788U);
    EXPECT_EQ(raw.at<std::uint64_t>(36), 9U);
    EXPECT_EQ(raw.at<std::int32_t>(4124), 0);
}

TEST(IpcDispatchTable, StandsInSharedMemoryAndIsMadeAnewInAChild) {
    const DispatchCallback callback = [] {};
    ASSERT_TRUE(addDispatchCallback(callback) && addDispatchCallback(callback));
    const RawObject raw(dispatchTableName());
    EXPECT_EQ(raw.byteCount(), 520U);
    EXPECT_EQ(raw.text(0, 8), std::string("1PSD\x01\0\0\0", 8));
    EXPECT_EQ(raw.at<DispatchCallback>(8), callback);
    EXPECT_EQ(raw.at<DispatchCallback>(16), nullptr); // entered once
    Child child([](const auto&) { return dispatchTable()->slots[0] == nullptr ? 0 : 1; });
    const ZnString childsTable = dispatchTablePrefix().mid(1) + ZnString::number(child.pid()) + "_";
    EXPECT_EQ(child.end(), 0);
    removeDispatchCallback(callback);
    EXPECT_EQ(raw.at<DispatchCallback>(8), nullptr);
    // The child was not given the time to tidy up. Whoever makes the next table does it.
    ZnSharedMemory::removeUnused(dispatchTablePrefix(), nameSuffix());
    EXPECT_THAT(sharedObjects(childsTable), IsEmpty());
    EXPECT_EQ(sharedObjects(dispatchTableName().mid(1)).size(), 1U);
}

TEST(IpcRegistry, PurgeDropsTheSilentAndTheGone) {
    Child gone([](const auto&) { return 0; });
    const std::uint32_t gonePid = gone.pid();
    gone.end();
    Child zombie([](const auto& tell) { return tell(), 0; });
    zombie.awaitTold();
    siginfo_t ended = {};
    ::waitid(P_PID, zombie.pid(), &ended, WEXITED | WNOWAIT); // it has ended, and nobody has collected it
    const std::uint32_t own = ZnProcess::currentId();
    const struct {
        const char* name;
        RegistryRow row;
        bool stays;
    } rows[] = {
        {"fresh", rowOf(own, 100000), true},
        {"silent for just as long as it may", rowOf(own, 85000), true},
        {"silent for too long", rowOf(own, 84999), false},
        {"ahead of the clock", rowOf(own, 200000), true},
        {"no process", rowOf(0, 100000), false},
        {"never seen", rowOf(own, 0), false},
        {"no references", rowOf(own, 100000, 0), false},
        {"gone", rowOf(gonePid, 100000), false},
        {"dead, not collected", rowOf(zombie.pid(), 100000), false},
        {"no such id can be", rowOf(0xFFFFFFFF, 100000), false},
        {"of another user", rowOf(1, 100000), true},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        const auto table = std::make_unique<RegistryTable>();
        ASSERT_TRUE(table->append(row.row) && table->append(rowOf(own, 100000)) && table->append(row.row));
        purgeStaleRows(*table, 100000);
        EXPECT_EQ(table->rowCount(), row.stays ? 3U : 1U);
        EXPECT_EQ(table->rows[row.stays ? 1 : 0].id, own);
    }
}

TEST(IpcRegistry, RowsCountTheirReferences) {
    const ZnString domain = testDomain();
    const SubscriptionKey key{domain, "o", "s", ZnProcess::currentId(), ""};
    registerSubscription(key);
    registerSubscription(key);
    const auto leave = [&] { return unregisterSubscription(domain, "o", "s", key.pid, ""), pidsOf(domain, "o", "s"); };
    EXPECT_THAT(leave(), ElementsAre(key.pid));
    EXPECT_THAT(leave(), IsEmpty());
    EXPECT_EQ(refreshSubscription(key, 2), RegistryOutcome::Done); // a lost row comes back with all its references
    EXPECT_THAT(leave(), ElementsAre(key.pid));
    EXPECT_THAT(pidsOf(domain, "o", "S"), IsEmpty());
}

TEST(IpcRegistry, AFullTableIsRefusedAndACountIsNeverBelieved) {
    const ZnString domain = testDomain();
    const std::uint32_t pid = ZnProcess::currentId();
    for (int index = 0; index < 512; ++index)
        ASSERT_EQ(registerSubscription({domain, "o", "s", pid, ZnString::number(index)}), RegistryOutcome::Done);
    EXPECT_EQ(registerSubscription({domain, "o", "s", pid, "one more"}), RegistryOutcome::Full);
    EXPECT_EQ(registerSubscription({domain, "o", "s", pid, "7"}), RegistryOutcome::Done); // it has its row
    RawObject raw(registryName(domain));
    EXPECT_EQ(raw.at<std::uint32_t>(8), 512U);
    raw.set<std::uint32_t>(8, 100000);
    EXPECT_EQ(pidsOf(domain, "o", "s").size(), 512U);
    EXPECT_EQ(raw.at<std::uint32_t>(8), 512U);
    for (const std::size_t offset :
         {std::size_t{0}, std::size_t{4}, std::size_t{12}}) { // magic, version, timestampMagic
        registerSubscription({domain, "o", "s", pid, ""});
        raw.set<char>(offset, 'x');
        EXPECT_THAT(pidsOf(domain, "o", "s"), IsEmpty());
        EXPECT_EQ(raw.text(0, 16), std::string("1BUS\x01\0\0\0\0\0\0\0"
                                               "1SMT",
                                               16));
    }
}

TEST(IpcRegistry, OneThatDiedWhileItMovedARowLeavesNoHalf) {
    const ZnString domain = testDomain();
    const std::uint32_t pid = ZnProcess::currentId();
    for (const char* object : {"a", "b", "c"})
        registerSubscription({domain, object, "s", pid, ""});
    EXPECT_EQ(Child([&](const auto&) {
                  RegistryTable::open(domain)->withTable(1000, [](RegistryTable& table) {
                      table.rows[0].id = table.rows[2].id;
                      table.rows[0].pid = 1;
                      ::kill(::getpid(), SIGKILL);
                  });
                  return 1;
              }).end(),
              -SIGKILL);
    EXPECT_THAT(pidsOf(domain, "c", "s"), ElementsAre(pid));
    EXPECT_THAT(pidsOf(domain, "a", "s"), IsEmpty());
    EXPECT_EQ(RawObject(registryName(domain)).at<std::uint32_t>(8), 2U);
}

// --- what is not ours, or not what it should be

void makeObject(const ZnString& name, mode_t mode, off_t byteCount) {
    const int descriptor = ::shm_open(name.data(), O_RDWR | O_CREAT | O_EXCL, 0600);
    ASSERT_GE(descriptor, 0);
    ASSERT_EQ(::ftruncate(descriptor, byteCount) | ::fchmod(descriptor, mode), 0);
    ::close(descriptor);
}

TEST(IpcHostileObjects, AreRefusedAndStay) {
    const auto path = [](const ZnString& name) { return "/dev/shm" + name.str(); };
    const struct {
        const char* name;
        std::function<void(const ZnString&)> make;
        const char* reason;
    } rows[] = {
        {"readable by others", [](const ZnString& name) { makeObject(name, 0644, 4128); }, "is open to other users"},
        {"another size", [](const ZnString& name) { makeObject(name, 0600, 4127); }, "has another size"},
        {"directory", [&](const ZnString& name) { ASSERT_EQ(::mkdir(path(name).c_str(), 0700), 0); },
         "cannot be opened: "},
        {"pipe", [&](const ZnString& name) { ASSERT_EQ(::mkfifo(path(name).c_str(), 0600), 0); },
         "is not a regular file"},
        {"link", [&](const ZnString& name) { ASSERT_EQ(::symlink("/dev/null", path(name).c_str()), 0); },
         "symbolic links"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        const ZnString domain = testDomain();
        const ZnString name = signalBlockName(domain, "o", "s");
        row.make(name);
        ZnString error;
        EXPECT_FALSE(SignalBlock::open(domain, "o", "s", &error));
        EXPECT_THAT(error.str(), ::testing::HasSubstr(row.reason));
        EXPECT_EQ(sharedObjects(domain).size(), 1U);
        EXPECT_EQ(std::remove(path(name).c_str()), 0);
    }
}

TEST(IpcHostileObjects, ThoseOfAnotherUserAreRefused) {
    if (::geteuid() != 0)
        GTEST_SKIP() << "only root can make an object of another user";
    const ZnString domain = testDomain();
    const ZnString name = registryName(domain);
    Child([&](const auto&) {
        EXPECT_EQ(::seteuid(65534), 0);
        makeObject(name, 0600, sizeof(RegistryTable));
        return 0;
    }).end();
    LogCapture log;
    EXPECT_FALSE(RegistryTable::open(domain));
    EXPECT_FALSE(RegistryTable::open(domain));
    EXPECT_EQ(log.countOf("belongs to another user") + log.countOf("Permission denied"),
              1); // the second: a hardened system
    EXPECT_EQ(registerSubscription({domain, "o", "s", 1, ""}), RegistryOutcome::NoRegistry);
    ::shm_unlink(name.data());
}

TEST(IpcHostileObjects, WithoutItsMutexARegistryWorksWithout) {
    const ZnString domain = testDomain();
    makeObject(registryMutexName(domain), 0644, 64);
    LogCapture log;
    EXPECT_EQ(registerSubscription({domain, "o", "s", ZnProcess::currentId(), ""}), RegistryOutcome::Done);
    EXPECT_THAT(pidsOf(domain, "o", "s"), ElementsAre(ZnProcess::currentId()));
    EXPECT_EQ(log.countOf("is open to other users"), 1);
    ::shm_unlink(registryMutexName(domain).data());
}

TEST(IpcHostileObjects, GarbageOfTheRightSizeBeginsAnew) {
    const ZnString domain = testDomain();
    for (const ZnString& name : {signalBlockName(domain, "o", "s"), signalMutexName(domain, "o", "s")}) {
        makeObject(name, 0600, name.contains("_mtx") ? 64 : 4128);
        RawObject raw(name);
        for (std::size_t offset = 0; offset < raw.byteCount(); ++offset)
            raw.set<char>(offset, '\xA5');
    }
    ZnString error;
    const auto block = SignalBlock::open(domain, "o", "s", &error);
    ASSERT_TRUE(block) << error.str();
    SignalValue value{7, 7, 7};
    EXPECT_TRUE(block->read(0, &value));
    EXPECT_EQ(value.sequence + value.first + value.second, 0U);
    // While someone uses the objects they are not made anew under his hands.
    RawObject(signalMutexName(domain, "o", "s")).set<char>(0, 'x');
    EXPECT_FALSE(SignalBlock::open(domain, "o", "s", &error));
}

} // namespace

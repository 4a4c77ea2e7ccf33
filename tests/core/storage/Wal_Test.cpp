#include "core/storage/StoreTestSupport.h"
#include "core/storage/embeddeddb/WalReader_.h"
#include "core/storage/embeddeddb/WalWriter_.h"

using namespace znEmbeddedDbDetail;

namespace {

constexpr WalHeader_ kHeader{1, 6, 0x1122334455667788};

/// Every operation of the log as a line, then how it ends.
std::string textOf(MemoryFiles& files, std::uint64_t id = 1) {
    WalReader_ reader(files);
    if (const Status status = reader.open("/w", id); !status.isOk())
        return status.message().str();
    std::string text;
    for (;;) {
        switch (reader.next()) {
        case WalReader_::Step::End: return text + "end";
        case WalReader_::Step::Failed: return text + reader.status().message().str();
        case WalReader_::Step::Invalid:
            switch (reader.classifyTail(0)) {
            case WalReader_::Tail::Covered: return text + "covered";
            case WalReader_::Tail::Torn: return text + "torn at " + std::to_string(reader.goodBytes());
            case WalReader_::Tail::Damaged: return text + "damaged at " + std::to_string(reader.goodBytes());
            case WalReader_::Tail::Failed: return text + reader.status().message().str();
            }
            break;
        case WalReader_::Step::Frame: break;
        }
        std::uint64_t sequence = reader.frame().firstSequence;
        WalOperationReader_ operations = reader.operations();
        for (WalOperation_ operation; operations.next(&operation);) {
            text += std::to_string(sequence++) + (operation.isRemove ? " remove " : " put ");
            text += operation.key;
            RetiredKeys_ retired;
            EXPECT_TRUE(decodeRetiredKeys(operation, &retired));
            for (const RetiredKey_& key : retired)
                text += " -" + key.indexName.str() + "=" + std::string(key.key.view());
            text += "\n";
        }
    }
}

const std::string kFirst = "7 put pear\n";
const std::string kSecond = "8 put apple -color=yellow\n9 remove cherry\n";
const std::string kThird = "10 remove plum\n";

TEST(Wal_, IsWrittenAndReadByteForByte) {
    MemoryFiles files;
    WalWriter_ writer(files);
    WalBatch_ first;
    WalBatch_ second;
    WalBatch_ third;
    RetiredKeys_ retired;
    retired.append({"color", ZnByteArray(std::string_view("yellow"))});
    IndexKeys_ green;
    green["color"].append(ZnByteArray(std::string_view("green")));
    first.put("pear", "green", green);
    second.put("apple", "red", {}, retired);
    second.remove("cherry");
    third.remove("plum");
    ASSERT_EQ(writer.create("/w", kHeader), kOk);
    ASSERT_EQ(writer.append({&first}, 7, 6), kOk);
    ASSERT_EQ(writer.append({&second}, 8, 7), kOk);
    ASSERT_EQ(writer.append({&third}, 10, 9), kOk);
    ASSERT_EQ(writer.sync(), kOk);
    files.cutPower();
    EXPECT_EQ(files.content("/w/WAL-1.log"), golden("WAL-1.log"));
    EXPECT_EQ(textOf(files), kFirst + kSecond + kThird + "end");
    EXPECT_EQ(writer.create("/w", kHeader).message(), "log is there already: /w/WAL-1.log");
}

TEST(Wal_, ATornTailIsToldFromDamageBeforeWhatWasSynced) {
    const std::string good = golden("WAL-1.log");
    forEachDamage(good, [&](const std::string& damaged, const std::string& what) {
        MemoryFiles files;
        files.put("/w/WAL-1.log", damaged);
        const std::string text = textOf(files);
        const std::size_t size = damaged.size();
        if (size < good.size()) { // cut
            EXPECT_EQ(text, size <= 47    ? "torn at 0"
                            : size == 48  ? "end"
                            : size < 144  ? "torn at 48"
                            : size == 144 ? kFirst + "end"
                            : size < 248  ? kFirst + "torn at 144"
                            : size == 248 ? kFirst + kSecond + "end"
                                          : kFirst + kSecond + "torn at 248")
                << what;
            return;
        }
        const std::size_t at =
            static_cast<std::size_t>(std::mismatch(good.begin(), good.end(), damaged.begin()).first - good.begin());
        EXPECT_EQ(text, at < 48    ? "damaged at 0"
                        : at < 144 ? "damaged at 48"
                        : at < 248 ? kFirst + "damaged at 144"
                                   : kFirst + kSecond + "torn at 248")
            << what;
    });
}

TEST(Wal_, FramesOfAnotherLogOrOutOfOrderAreNone) {
    const std::string good = golden("WAL-1.log");
    MemoryFiles files;
    files.put("/w/WAL-2.log", good); // under another name
    EXPECT_EQ(textOf(files, 2), "damaged at 0");
    std::string other = encodeWalHeader({1, 6, 5}) + good.substr(48); // another salt
    files.put("/w/WAL-1.log", other);
    EXPECT_EQ(textOf(files), "torn at 48");
    files.put("/w/WAL-1.log", good.substr(0, 144) + good.substr(48)); // a frame twice, and others behind it
    EXPECT_EQ(textOf(files), kFirst + "damaged at 144");
    files.put("/w/WAL-1.log", good.substr(0, 48) + good.substr(144)); // a synced frame is missing: sequences tell
    EXPECT_EQ(textOf(files), kSecond + kThird + "end");
    files.put("/w/WAL-1.log", encodeWalHeader({1, 7, kHeader.salt}) + good.substr(48)); // begins later
    EXPECT_EQ(textOf(files), "damaged at 48");
}

TEST(Wal_, ASearchThroughWhatLooksLikeFramesEnds) {
    WalBatch_ inner;
    inner.put("k", std::string(1 << 20, 'x'));
    const std::string frame(inner.seal(0, 9, 8).substr(0, kWalFrameHeaderBytes)); // valid but for its checksum
    std::string bytes = encodeWalHeader(kHeader);
    while (bytes.size() < 8 << 20)
        bytes += frame;
    MemoryFiles files;
    files.put("/w/WAL-1.log", bytes);
    EXPECT_EQ(textOf(files), "damaged at 48"); // not ruled out
}

} // namespace

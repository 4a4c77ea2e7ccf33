#include "core/io/http1/ZnHttpResponseReader_.h"
#include "support/LogCapture.h"

#include <gtest/gtest.h>

namespace {

using Outcome = ZnHttpResponseReader_::Outcome;
using Rules = ZnHttpResponseReader_::Rules;

// How the tables say it: an Outcome, or what the end of the connection does to one that wants more.
constexpr int kMore = int(Outcome::NeedMore), kDone = int(Outcome::Complete), kBadSize = int(Outcome::InvalidChunkSize),
              kBadEnd = int(Outcome::InvalidChunkEnd), kTooLarge = int(Outcome::TooLarge), kDoneAtClose = 100;
constexpr std::size_t kMaxHeadBytes = 65536;
constexpr Rules kPost{.maxHeadBytes = kMaxHeadBytes}, kHead{.isHeadRequest = true, .maxHeadBytes = kMaxHeadBytes},
    kByStatus{.statusFraming = true, .maxHeadBytes = kMaxHeadBytes};

// The coding beats the length.
#define CHUNKED "HTTP/1.1 200 OK\r\ncontent-length: 0\r\ntransfer-encoding: Chunked\r\n\r\n"
struct Row {
    const char *name, *response;
    int outcome;
    const char* body = "";
    int status = 200;
    Rules rules = kPost;
};
constexpr Row kResponses[] = {
    {"counted", "HTTP/1.1 200 OK\r\nContent-Length: 3\r\n\r\nabcSURPLUS", kDone, "abc"},
    {"empty", "HTTP/1.1 204 No Content\r\ncontent-length: 0\r\n\r\n", kDone, "", 204},
    {"204 without a length", "HTTP/1.1 204 No Content\r\n\r\n", kDoneAtClose, "", 204},
    {"HEAD", "HTTP/1.1 200 OK\r\nContent-Length: 9\r\n\r\n", kDone, "", 200, kHead},
    {"to the close", "HTTP/1.0 200 OK\r\nContent-Length: -1\r\n\r\nall of it", kDoneAtClose, "all of it"},
    {"closed early", "HTTP/1.1 200 OK\r\nContent-Length: 4\r\n\r\nabc", kMore, "abc"},
    {"closed in the head", "HTTP/1.1 200 OK\r\nContent-", kMore, "", 0},
    {"chunks", CHUNKED "3\r\nabc\r\nA ;ext=1\r\n0123456789\r\n 0 \r\n", kDone, "abc0123456789"},
    {"closed in a chunk", CHUNKED "5\r\nabc", kMore, "abc"},
    {"closed after a chunk", CHUNKED "3\r\nabc\r\n", kMore, "abc"},
    {"chunk size empty", CHUNKED ";a\r\n", kBadSize},
    {"chunk size negative", CHUNKED "-1\r\n", kBadSize},
    {"chunk size too large", CHUNKED "10000000001\r\n", kBadSize},
    {"chunk size overflows", CHUNKED "10000000000000003\r\nabc\r\n", kBadSize},
    {"chunk end missing", CHUNKED "3\r\nabcd\r\n", kBadEnd, "abc"},
    {"status line without a reason", "\r\nHTTP/1.1 404\r\ncontent-length: 1\r\n\r\nx", kDone, "x", 404},
    {"status no number", "HTTP/1.1 abc Fine\r\nno colon here\r\ncontent-length:1\r\n\r\nx", kDone, "x", 0},
    {"interim head is final", "HTTP/1.1 100 Continue\r\ncontent-length: 1\r\n\r\nHTTP/1.1", kDone, "H", 100},
    {"interim heads are passed over",
     "HTTP/1.1 103 Early\r\ncontent-length: 1\r\n\r\nHTTP/1.1 100 Continue\r\n\r\n"
     "HTTP/1.1 200 OK\r\ncontent-length: 2\r\n\r\nab",
     kDone, "ab", 200, kByStatus},
    {"304 has no body", "HTTP/1.1 304 Not Modified\r\ncontent-length: 5\r\n\r\n", kDone, "", 304, kByStatus},
    {"204 has none without a length", "HTTP/1.1 204 No Content\r\n\r\n", kDone, "", 204, kByStatus},
};

TEST(ZnHttpResponseReader, ResponsesAreTheSameInAnySplit) {
    LogCapture log;
    ZnHttpResponseReader_ reader;
    for (const Row& row : kResponses) {
        const std::string_view response = row.response;
        for (std::size_t cut = 0; cut < response.size(); ++cut) { // 0: byte by byte
            SCOPED_TRACE(row.name + (", cut at " + std::to_string(cut)));
            reader.begin(row.rules);
            Outcome outcome = Outcome::NeedMore;
            for (std::size_t at = 0; at < response.size() && outcome == Outcome::NeedMore;) {
                const std::size_t pieceBytes = cut == 0 ? 1 : at == 0 ? cut : response.size();
                outcome = reader.feed(response.substr(at, pieceBytes));
                at += pieceBytes;
            }
            const bool endsNow = outcome == Outcome::NeedMore && reader.endsWithConnection();
            EXPECT_EQ(endsNow ? kDoneAtClose : int(outcome), row.outcome);
            EXPECT_EQ(reader.response().body.view(), row.body);
            EXPECT_EQ(reader.response().statusCode, row.status);
        }
    }
}

TEST(ZnHttpResponseReader, TheLimitsCoverHeadAndBody) {
    const std::string longLine = "\r\na: " + std::string(kMaxHeadBytes, 'x');
    std::string interims;
    while (interims.size() < kMaxHeadBytes)
        interims += "\r\n\r\nHTTP/1.1 103 Early\r\na: b";
    const std::pair<std::string, int> kRows[] = {{"\r\n\r\n12345678901234567890", kMore},
                                                 {"\r\n\r\n123456789012345678901", kTooLarge},
                                                 {longLine, kTooLarge},
                                                 {longLine + "\r\n\r\n", kTooLarge},
                                                 {interims, kTooLarge},
                                                 {"\r\ncontent-length: 21\r\n\r\n", kTooLarge},
                                                 {"\r\ncontent-length: 1\r\n\r\n12345678901234567890123", kDone}};
    for (const auto& [response, outcome] : kRows) {
        SCOPED_TRACE(response.substr(0, 80));
        ZnHttpResponseReader_ reader;
        reader.begin({.statusFraming = response == interims, .maxHeadBytes = kMaxHeadBytes, .maxBodyBytes = 20});
        const std::string status = response == interims ? "100" : "200";
        EXPECT_EQ(int(reader.feed("HTTP/1.1 " + status + " OK" + response)), outcome);
    }
}

TEST(ZnHttpResponseReader, BodiesAreNotBufferedTwice) {
    LogCapture log;
    ZnHttpResponseReader_ reader;
    reader.begin(kPost);
    reader.feed(CHUNKED "100000\r\nabc");
    EXPECT_EQ(reader.bufferedBytes(), 0U);
    const std::string endless = std::string(0x100000 - 3, 'x') + "\r\n" + std::string(9000, '1');
    EXPECT_EQ(reader.feed(endless), Outcome::InvalidChunkSize) << "a size line without an end is not collected";
}

} // namespace

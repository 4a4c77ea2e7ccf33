#include "core/io/http/ZnHttpParser_.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <limits>
#include <memory>
#include <string>
#include <vector>

namespace {

using namespace std::literals;

/// Small limits, so that a table row can reach each of them.
ZnHttpLimits smallLimits() {
    return {.maxRequestLineBytes = 40,
            .maxHeaderBytes = 64,
            .maxHeaderCount = 3,
            .maxBodyBytes = 12,
            .maxChunkBytes = 8,
            .maxPipelinedRequests = 2};
}

std::string describe(const ZnHttpRequest& request) {
    std::string text = request.method.str() + " " + request.path.str();
    for (const auto& [key, value] : request.queryParams)
        text += (" ?" + key + "=" + value).str();
    text += request.keepAlive ? " keep" : " close";
    text += request.chunked ? " chunked" : "";
    for (const auto& [name, value] : request.headers)
        text += (" [" + name + "=" + value + "]").str();
    for (const ZnString& name : request.repeatedHeaders)
        text += (" twice=" + name).str();
    return text + " <" + std::string(request.body.view()) + ">\n";
}

/// What a parser makes of the pieces: the requests, then the failure.
std::string outcomeOf(const std::vector<std::string_view>& pieces) {
    ZnHttpParser_ parser(smallLimits());
    ZnList<ZnHttpParser_::RequestRef> requests;
    for (const std::string_view piece : pieces) {
        // A copy of its own: reading behind the end is a fault that the address sanitizer sees.
        const auto copy = std::make_unique<char[]>(piece.size());
        std::copy(piece.begin(), piece.end(), copy.get());
        parser.feed({copy.get(), piece.size()}, requests);
    }
    std::string text;
    for (const auto& request : requests)
        text += describe(*request);
    if (parser.state() == ZnHttpParser_::State::Failed)
        text += std::to_string(parser.errorStatus()) + " " + parser.errorText().str();
    return text;
}

struct Row {
    const char* name;
    std::string input, expected;
};

/// The outcome must not depend on where the input is cut.
void checkRows(const std::vector<Row>& rows) {
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        const std::string_view input = row.input;
        std::vector<std::string_view> bytes;
        for (std::size_t cut = 0; cut < input.size(); ++cut) {
            EXPECT_EQ(outcomeOf({input.substr(0, cut), input.substr(cut)}), row.expected) << "cut at " << cut;
            bytes.push_back(input.substr(cut, 1));
        }
        EXPECT_EQ(outcomeOf(bytes), row.expected) << "byte by byte";
    }
}

const std::string kGet = "GET / HTTP/1.1\r\n";
const std::string kPost = "POST / HTTP/1.1\r\n";
const std::string kChunked = kPost + "transfer-encoding:chunked\r\n\r\n";
const std::string kChunkedHead = "POST / keep chunked [transfer-encoding=chunked] ";

TEST(ZnHttpParser, RequestLines) {
    const std::string longest = "/" + std::string(26, 'a');
    checkRows({
        {"old version closes", "GET / HTTP/1.0\r\n\r\n", "GET / close <>\n"},
        {"lower case, empty lines in front", "\r\n\r\nget / http/1.1\r\n\r\n", "GET / keep <>\n"},
        {"two blanks", "GET  / HTTP/1.1\r\n", "400 Malformed request line"},
        {"two pieces", "GET /\r\n", "400 Malformed request line"},
        {"longest", "GET " + longest + " HTTP/1.1\r\n\r\n", "GET " + longest + " keep <>\n"},
        {"too long", "GET " + longest + "a HTTP/1.1\r\n", "414 Request line too long"},
        {"too long without an end", std::string(41, 'a'), "414 Request line too long"},
        {"a bare line feed ends nothing", "GET / HTTP/1.1\n\n", ""},
    });
}

TEST(ZnHttpParser, Targets) {
    std::vector<Row> rows = {
        {"decoded, but the plus", "/a+%2f%41", "G /a+/A keep <>\n"},
        {"slashes, also of decoding", "//a%2F//b/", "G /a/b/ keep <>\n"},
        {"no slash in front", "a", "G /a keep <>\n"},
        {"absolute", "HTTP://h/x?y=1", "G /x ?y=1 keep <>\n"},
        {"absolute without path", "https://localhost?x=1", "G / keep <>\n"},
        {"query", "/?a=1&&b&c=%20+%2B&a=2", "G / ?a=2 ?b= ?c=  + keep <>\n"},
        {"a bad piece is dropped", "/?a=%&%zz=1&b=2", "G / ?b=2 keep <>\n"},
        {"cut sequence", "/a%2", "400 Malformed target"},
        {"no sequence", "/a%2g", "400 Malformed target"},
    };
    for (Row& row : rows)
        row.input = "G " + row.input + " HTTP/1.1\r\n\r\n";
    checkRows(rows);
}

TEST(ZnHttpParser, Headers) {
    const std::string longest(58, 'b');
    checkRows({
        {"names and values", kGet + "A-b :\t c:d \r\nx:\r\n\r\n", "GET / keep [a-b=c:d] [x=] <>\n"},
        {"repeated", kGet + "a: 1\r\nA: 2\r\n\r\n", "GET / keep [a=2] twice=a <>\n"},
        {"close", kGet + "connection: x, Close\r\n\r\n", "GET / close [connection=x, Close] <>\n"},
        {"keep-alive", "GET / HTTP/1.0\r\nconnection: keep-alive\r\n\r\n", "GET / keep [connection=keep-alive] <>\n"},
        {"other word", kGet + "connection: closed\r\n\r\n", "GET / keep [connection=closed] <>\n"},
        {"no colon", kGet + "abc\r\n", "400 Malformed header"},
        {"colon first", kGet + ": abc\r\n", "400 Malformed header"},
        {"three", kGet + "a:\r\nb:\r\nc:\r\n\r\n", "GET / keep [a=] [b=] [c=] <>\n"},
        {"four", kGet + "a:\r\nb:\r\nc:\r\nd:\r\n", "431 Too many headers"},
        {"just fits", kGet + "a:" + longest + "\r\n\r\n", "GET / keep [a=" + longest + "] <>\n"},
        {"empty line does not fit", kGet + "a:" + longest + "b\r\n\r\n", "431 Headers too large"},
        {"no end", kGet + "a:" + std::string(63, 'b'), "431 Headers too large"},
    });
}

TEST(ZnHttpParser, BodiesWithALength) {
    const std::string nul("\0\r\n", 3);
    const auto sized = [](const std::string& length) { return kPost + "content-length:" + length + "\r\n\r\n"; };
    checkRows({
        {"bytes", sized("3") + nul, "POST / keep [content-length=3] <" + nul + ">\n"},
        {"none", sized("0"), "POST / keep [content-length=0] <>\n"},
        {"largest", sized("12") + "0123456789ab", "POST / keep [content-length=12] <0123456789ab>\n"},
        {"too large", sized("13"), "413 Body too large"},
        {"far too large", sized("9223372036854775807"), "413 Body too large"},
        {"overflow", sized("9223372036854775808"), "400 Invalid Content-Length"},
        {"sign", sized("+1"), "400 Invalid Content-Length"},
        {"empty", sized(""), "400 Invalid Content-Length"},
        {"list", sized("1, 1"), "400 Invalid Content-Length"},
        {"two framings", kPost + "content-length:1\r\ntransfer-encoding:chunked\r\n\r\n",
         "400 Conflicting body framing"},
        {"other coding", kPost + "transfer-encoding:gzip\r\n\r\n", "POST / keep [transfer-encoding=gzip] <>\n"},
    });
}

TEST(ZnHttpParser, ChunkedBodies) {
    std::vector<Row> rows = {
        {"chunks", "2;x=y\r\nab\r\n 0003 \r\n\r\nc\r\n0\r\n\r\n", kChunkedHead + "<ab\r\nc>\n"},
        {"largest chunk", "8\r\n12345678\r\n4\r\n1234\r\n0\r\n\r\n", kChunkedHead + "<123456781234>\n"},
        {"chunk too large", "9\r\n", "413 Chunk too large"},
        {"sum too large", "8\r\n12345678\r\n5\r\n", "413 Body too large"},
        {"empty size", ";a\r\n", "400 Invalid chunk size"},
        {"blank behind the size", "1 ;a\r\n", "400 Invalid chunk size"},
        {"largest number", "ffffffffffffffff\r\n", "413 Chunk too large"},
        {"overflow", "10000000000000000\r\n", "400 Invalid chunk size"},
        {"long size line", "0;" + std::string(38, 'x') + "\r\n\r\n", kChunkedHead + "<>\n"},
        {"size line too long", "0;" + std::string(39, 'x') + "\r\n", "400 Chunk size line too long"},
        {"no end of the size line", std::string(42, '1'), "400 Chunk size line too long"},
        {"bad delimiter", "1\r\naXY", "400 Malformed chunk delimiter"},
        {"trailers fit", "0\r\n" + std::string(31, 't') + "\r\n\r\n", kChunkedHead + "<>\n"},
        {"trailers too large", "0\r\n" + std::string(32, 't') + "\r\n\r\n", "431 Trailers too large"},
        {"no end of the trailers", "0\r\n" + std::string(37, 't'), "431 Trailers too large"},
    };
    for (Row& row : rows)
        row.input = kChunked + row.input;
    checkRows(rows);
}

TEST(ZnHttpParser, RequestsBehindEachOther) {
    const std::string post = kPost + "content-length:1\r\n\r\nx";
    const std::string posted = "POST / keep [content-length=1] <x>\n";
    const std::string gzip = kPost + "a:\r\nb:\r\ntransfer-encoding: gzip, Chunked\r\n\r\n1\r\ny\r\n0\r\n\r\n";
    checkRows({
        {"two", post + gzip, posted + "POST / keep chunked [a=] [b=] [transfer-encoding=gzip, Chunked] <y>\n"},
        {"three", post + post + post, posted + posted + posted + "400 Too many pipelined requests"},
        {"nothing after a failure", post + "x\r\n" + post, posted + "400 Malformed request line"},
    });
}

/// The bodies of the requests, then the status of the failure.
std::string framingOf(const std::vector<std::string_view>& pieces, bool isStrict) {
    ZnHttpParser_ parser({.strictGrammar = isStrict});
    ZnList<ZnHttpParser_::RequestRef> requests;
    for (const std::string_view piece : pieces)
        parser.feed(piece, requests);
    std::string text;
    for (const auto& request : requests)
        text += "<" + std::string(request->body.view()) + ">";
    return text + (parser.errorStatus() == 0 ? "" : std::to_string(parser.errorStatus()));
}

/// What stands around the text of a row.
struct Place {
    std::string before, after;
};
const std::string kHostLine = "host:h\r\n", kBlank = "\r\n\r\n", kCoding = kPost + kHostLine + "transfer-encoding:";
const Place kWhole{"", ""}, kLine{"", "\r\n" + kHostLine + "\r\n"}, kHeader{kGet + kHostLine, kBlank},
    kHost{kGet + "host: ", kBlank}, kFramed{kPost + kHostLine, ""}, kCoded{kCoding, kBlank + "0" + kBlank},
    kChunks{kCoding + " chunked" + kBlank, kBlank};

void expectFraming(const Place& place, const char* generous, const char* strict,
                   const std::vector<std::string_view>& parts) {
    for (const std::string_view part : parts) {
        const std::string message = place.before + std::string(part) + place.after;
        const std::string_view input = message;
        SCOPED_TRACE(input);
        for (std::size_t cut = 0; cut < input.size(); ++cut) {
            ASSERT_EQ(framingOf({input.substr(0, cut), input.substr(cut)}, false), generous) << "cut at " << cut;
            ASSERT_EQ(framingOf({input.substr(0, cut), input.substr(cut)}, true), strict) << "cut at " << cut;
        }
    }
}

void expectRefusal(const Place& place, const char* generous, const std::vector<std::string_view>& parts) {
    expectFraming(place, generous, "400", parts);
}

TEST(ZnHttpParser, BothGrammarsTakeWhatIsWellFormed) {
    const auto taken = [](const Place& place, const char* bodies, const std::vector<std::string_view>& parts) {
        expectFraming(place, bodies, bodies, parts);
    };
    taken(kHeader, "<>", {"a!#$%&'*+-.^_`|~9: \xC3\xA4\t:\xFF", "a: 1\r\na: 2\r\nb:", "a:"});
    taken(kLine, "<>", {"OPTIONS * HTTP/1.1"});
    taken(kHost, "<>", {"", "\t[::1]:80 \t"});
    taken(kWhole, "<>", {"M-SEARCH /a%20b?c=d;e|f HTTP/1.1\r\nHost:h\r\n\r\n", "GET / HTTP/1.0\r\n\r\n"});
    taken(kWhole, "<>", {"GET HTTP://h:1/x HTTP/1.1\r\nhost:\r\n\r\n"});
    taken(kWhole, "<><>", {"\r\nGET / HTTP/1.1\r\nhost:h\r\n\r\nGET / HTTP/1.1\r\nhost:h\r\n\r\n\r\n"});
    taken(kFramed, "<a\r\n><>", {"content-length: 3\r\n\r\na\r\nGET / HTTP/1.1\r\nhost:h\r\n\r\n"});
    taken(kFramed, "<abc>", {"content-length: 0003\r\n\r\nabc"});
    taken(kFramed, "<a>", {"transfer-encoding:\tChunked \r\n\r\n1\r\na\r\n0\r\n\r\n"});
    taken(kChunks, "<a>", {"1;a\r\na\r\n0;a; b=c ;d = \";\\\"\""});
    taken(kChunks, "<0123456789>", {"000A\r\n0123456789\r\n00\r\nx: y"});
}

// What other readers of the same bytes may understand in another way.
TEST(ZnHttpParser, TheStrictGrammarRefusesHeadsThatTheGenerousOneTakes) {
    expectRefusal(kLine, "<>",
                  {"get / HTTP/1.1",     "GET\t / HTTP/1.1",   "G@T / HTTP/1.1",        "G:T / HTTP/1.1",
                   "G\xC3T / HTTP/1.1",  "GET / HTTP/1.1 ",    "GET / HTTP/1.1 x",      "GET /\ta HTTP/1.1",
                   "GET /\0 HTTP/1.1"sv, "GET /a\rb HTTP/1.1", "GET /a\nb HTTP/1.1",    "GET /\x7F HTTP/1.1",
                   "GET a HTTP/1.1",     "GET * HTTP/1.1",     "GET ftp://h/ HTTP/1.1", "GET / HTTP/2.0",
                   "GET / HTTP/1.2",     "GET / HTTP/01.1",    "GET / http/1.1",        "GET / x",
                   "\nGET / HTTP/1.1"});
    expectRefusal(kLine, "400", {" GET / HTTP/1.1"});
    expectRefusal(
        kWhole, "",
        {"GET / HTTP/1.1\nhost:h\r\n\n", "GET / HTTP/1.1\r\nhost:h\r\na: b\n\n", "GET / HTTP/1.1\r\nhost:h\r\n\n"});
    expectRefusal(kHeader, "<>",
                  {"a : b", "a\t: b", "a b: c", "a\xC3: b", "a\0: b"sv, "(a): b", " a: b", "a: b\r\n c: d", "a: b\rc",
                   "a: b\r", "a: b\nc: d", "a: b\0"sv, "a: \x01", "a: b\x7F", "Host: other", "host:h"});
    expectRefusal(kHeader, "400", {"a: b\r\n c"});
    expectRefusal(kHost, "<>", {"a b", "a/b", "u@h", "h:8o"});
    expectRefusal(kWhole, "<>", {"GET / HTTP/1.1\r\n\r\n"});
}

TEST(ZnHttpParser, TheStrictGrammarRefusesFramingThatTheGenerousOneTakes) {
    expectRefusal(kFramed, "<ab>",
                  {"content-length: 1\r\ncontent-length: 2\r\n\r\nab", "content-length : 2\r\n\r\nab",
                   "content-length: 2\r\nContent-Length: 2\r\n\r\nab"});
    expectRefusal(kFramed, "400",
                  {"content-length: 2, 2\r\n\r\nab", "content-length: \v2\r\n\r\nab",
                   "transfer-encoding: chunked\r\ncontent-length: 5\r\n\r\n"});
    expectRefusal(kFramed, "<>",
                  {"transfer-encoding: chunked\r\ntransfer-encoding: x\r\n\r\n", "transfer-encoding: identity\r\n\r\n",
                   "transfer-encoding:\r\n\r\n"});
    expectRefusal(kCoded, "<>",
                  {" chunked\r\ntransfer-encoding: chunked", " chunked, gzip", " xchunked", " gzip, chunked",
                   " chunked, chunked", " \"chunked\"", " \vchunked"});
    expectRefusal(kWhole, "<>", {"POST / HTTP/1.0\r\nhost:h\r\ntransfer-encoding: chunked\r\n\r\n0\r\n\r\n"});
    expectRefusal(kChunks, "<a>",
                  {" 1\r\na\r\n0", "1 \r\na\r\n0", "1;\r\na\r\n0", "1;a=\r\na\r\n0", "1;a=\"\r\na\r\n0",
                   "1;a=\"\x01\"\r\na\r\n0", "1;a b\r\na\r\n0", "1;a\nb\r\na\r\n0"});
    expectRefusal(kChunks, "400", {"1 ;a\r\na\r\n0", "0x1\r\na\r\n0", "+1\r\na\r\n0", "1\na\r\n0", "1\r\na\n0"});
    expectRefusal(kChunks, "<>",
                  {"0\r\nx", "0\r\nx : y", "0\r\nx: y\r\n z", "0\r\nx: \ry", "0\r\n\nGET / HTTP/1.1\r\nhost:h"});
}

// An announced length is no reason to allocate, and a body in many small chunks is not copied again for each.
TEST(ZnHttpParser, MemoryFollowsTheBytes) {
    ZnHttpParser_ parser({.maxBodyBytes = std::numeric_limits<std::uint64_t>::max()});
    ZnList<ZnHttpParser_::RequestRef> requests;
    EXPECT_TRUE(parser.feed(kPost + "content-length:9223372036854775807\r\n\r\nabc", requests));
    EXPECT_EQ(parser.state(), ZnHttpParser_::State::FixedBody);

    ZnHttpParser_ chunks;
    EXPECT_TRUE(chunks.feed(kChunked, requests));
    for (int i = 0; i < 1'000'000; ++i)
        chunks.feed("1\r\nx\r\n", requests);
    EXPECT_TRUE(chunks.feed("0\r\n\r\n", requests));
    ASSERT_EQ(requests.size(), 1U);
    EXPECT_EQ(requests[0]->body.size(), 1'000'000U);
}

} // namespace

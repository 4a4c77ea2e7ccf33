#include "core/io/http/ZnHttpParser_.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <limits>
#include <memory>
#include <string>

namespace {

/// Small limits, so that a table row can reach each of them.
ZnHttpLimits smallLimits() {
    ZnHttpLimits limits;
    limits.maxRequestLineBytes = 40;
    limits.maxHeaderBytes = 64;
    limits.maxHeaderCount = 3;
    limits.maxBodyBytes = 12;
    limits.maxChunkBytes = 8;
    limits.maxPipelinedRequests = 2;
    return limits;
}

std::string describe(const ZnHttpRequest& request) {
    std::string text = request.method.str() + " " + request.path.str();
    for (const auto& [key, value] : request.queryParams)
        text += (" ?" + key + "=" + value).str();
    text += request.keepAlive ? " keep" : " close";
    text += request.chunked ? " chunked" : "";
    for (const auto& [name, value] : request.headers)
        text += (" [" + name + "=" + value + "]").str();
    return text + " <" + std::string(request.body.view()) + ">\n";
}

/// Everything that a parser makes of the input: the requests, then the failure.
class Outcome {
public:
    explicit Outcome(const ZnHttpLimits& limits) : parser_(limits) {}
    void feed(std::string_view bytes) {
        // A copy of its own: reading behind the end is a fault that the address sanitizer sees.
        const auto copy = std::make_unique<char[]>(bytes.size());
        std::copy(bytes.begin(), bytes.end(), copy.get());
        parser_.feed({copy.get(), bytes.size()}, requests_);
    }
    std::string text() const {
        std::string text;
        for (const auto& request : requests_)
            text += describe(*request);
        if (parser_.state() == ZnHttpParser_::State::Failed)
            text += std::to_string(parser_.errorStatus()) + " " + parser_.errorText().str();
        return text;
    }

private:
    ZnHttpParser_ parser_;
    ZnList<ZnHttpParser_::RequestRef> requests_;
};

/// The outcome, which must not depend on where the input is cut.
std::string parse(const std::string& input, const ZnHttpLimits& limits = smallLimits()) {
    Outcome whole(limits);
    whole.feed(input);
    const std::string expected = whole.text();
    for (std::size_t cut = 0; cut <= input.size(); ++cut) {
        Outcome halves(limits);
        halves.feed(std::string_view(input).substr(0, cut));
        halves.feed(std::string_view(input).substr(cut));
        EXPECT_EQ(halves.text(), expected) << "cut at " << cut;
    }
    Outcome bytes(limits);
    for (const char& byte : input)
        bytes.feed({&byte, 1});
    EXPECT_EQ(bytes.text(), expected) << "byte by byte";
    return expected;
}

struct Row {
    const char* name;
    std::string input;
    std::string expected;
};

void checkRows(const std::vector<Row>& rows) {
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        EXPECT_EQ(parse(row.input), row.expected);
    }
}

const std::string kGet = "GET / HTTP/1.1\r\n";
const std::string kPost = "POST / HTTP/1.1\r\n";
const std::string kChunked = kPost + "transfer-encoding:chunked\r\n\r\n";
const std::string kChunkedHead = "POST / keep chunked [transfer-encoding=chunked] ";
const std::string kX10(10, 'x');

TEST(ZnHttpParser, RequestLines) {
    checkRows({
        {"plain", kGet + "\r\n", "GET / keep <>\n"},
        {"old version closes", "GET / HTTP/1.0\r\n\r\n", "GET / close <>\n"},
        {"lower case", "get / http/1.1\r\n\r\n", "GET / keep <>\n"},
        {"empty lines in front", "\r\n\r\n" + kGet + "\r\n", "GET / keep <>\n"},
        {"extra pieces", "GET / HTTP/1.1 and more\r\n\r\n", "GET / keep <>\n"},
        {"blanks other than spaces", "\tGET\n /a\t HTTP/1.1\r\r\n\r\n", "GET /a keep <>\n"},
        {"two blanks", "GET  / HTTP/1.1\r\n", "400 Malformed request line"},
        {"two pieces", "GET /\r\n", "400 Malformed request line"},
        {"empty version", "GET / \r\n", "400 Malformed request line"},
        {"longest", "GET /" + std::string(26, 'a') + " HTTP/1.1\r\n\r\n",
         "GET /" + std::string(26, 'a') + " keep <>\n"},
        {"too long", "GET /" + std::string(27, 'a') + " HTTP/1.1\r\n", "414 Request line too long"},
        {"too long without an end", std::string(41, 'a'), "414 Request line too long"},
        {"incomplete", "GET / HTTP/1.1\r", ""},
        {"a bare line feed ends nothing", "GET / HTTP/1.1\n\n", ""},
    });
}

TEST(ZnHttpParser, Targets) {
    const auto pathOf = [](const std::string& target) { return parse("G " + target + " HTTP/1.1\r\n\r\n"); };
    const Row rows[] = {
        {"decoded", "/a%2f%41", "G /a/A keep <>\n"},
        {"slashes", "//a///b/", "G /a/b/ keep <>\n"},
        {"slashes that decoding makes", "/a%2F/b", "G /a/b keep <>\n"},
        {"plus stays", "/a+b", "G /a+b keep <>\n"},
        {"no slash in front", "a", "G /a keep <>\n"},
        {"absolute", "HTTP://h/x?y=1", "G /x ?y=1 keep <>\n"},
        {"absolute without path", "https://localhost?x=1", "G / keep <>\n"},
        {"only a query", "?a=1", "G / ?a=1 keep <>\n"},
        {"query", "/?a=1&&b&c=%20+%2B&a=2", "G / ?a=2 ?b= ?c=  + keep <>\n"},
        {"a bad piece is dropped", "/?a=%&%zz=1&b=2", "G / ?b=2 keep <>\n"},
        {"cut sequence", "/a%2", "400 Malformed target"},
        {"no sequence", "/a%2g", "400 Malformed target"},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        EXPECT_EQ(pathOf(row.input), row.expected);
    }
}

TEST(ZnHttpParser, KeepsTheRequestAsItCame) {
    ZnHttpParser_ parser;
    ZnList<ZnHttpParser_::RequestRef> requests;
    ASSERT_TRUE(parser.feed("POST http://localhost/a%20b?x=%41 http/1.0\r\nContent-Length: 2\r\n\r\n", requests));
    ASSERT_TRUE(parser.feed(std::string_view("\0\n", 2), requests));
    ASSERT_EQ(requests.size(), 1U);
    EXPECT_EQ(requests[0]->target, "http://localhost/a%20b?x=%41");
    EXPECT_EQ(requests[0]->queryString, "x=%41");
    EXPECT_EQ(requests[0]->httpVersion, "HTTP/1.0");
    EXPECT_EQ(requests[0]->body.view(), std::string_view("\0\n", 2));
    EXPECT_TRUE(parser.isIdle());
}

TEST(ZnHttpParser, Headers) {
    checkRows({
        {"names and values", kGet + "A-b :\t c:d \r\nx:\r\n\r\n", "GET / keep [a-b=c:d] [x=] <>\n"},
        {"repeated", kGet + "a: 1\r\nA: 2\r\n\r\n", "GET / keep [a=2] <>\n"},
        {"close", kGet + "connection: x, Close\r\n\r\n", "GET / close [connection=x, Close] <>\n"},
        {"keep-alive", "GET / HTTP/1.0\r\nconnection: keep-alive\r\n\r\n", "GET / keep [connection=keep-alive] <>\n"},
        {"other word", kGet + "connection: closed\r\n\r\n", "GET / keep [connection=closed] <>\n"},
        {"no colon", kGet + "abc\r\n", "400 Malformed header"},
        {"colon first", kGet + ": abc\r\n", "400 Malformed header"},
        {"three", kGet + "a:\r\nb:\r\nc:\r\n\r\n", "GET / keep [a=] [b=] [c=] <>\n"},
        {"four", kGet + "a:\r\nb:\r\nc:\r\nd:\r\n", "431 Too many headers"},
        {"just fits", kGet + "a:" + std::string(58, 'b') + "\r\n\r\n",
         "GET / keep [a=" + std::string(58, 'b') + "] <>\n"},
        {"empty line does not fit", kGet + "a:" + std::string(59, 'b') + "\r\n\r\n", "431 Headers too large"},
        {"line does not fit", kGet + "a:" + std::string(61, 'b') + "\r\n", "431 Headers too large"},
        {"no end", kGet + "a:" + std::string(63, 'b'), "431 Headers too large"},
    });
}

TEST(ZnHttpParser, BodiesWithALength) {
    const auto sized = [](const std::string& length) { return kPost + "content-length:" + length + "\r\n\r\n"; };
    checkRows({
        {"body", sized("3") + "a\r\n", "POST / keep [content-length=3] <a\r\n>\n"},
        {"none", sized("0"), "POST / keep [content-length=0] <>\n"},
        {"largest", sized("12") + kX10 + "xx", "POST / keep [content-length=12] <" + kX10 + "xx>\n"},
        {"too large", sized("13"), "413 Body too large"},
        {"far too large", sized("9223372036854775807"), "413 Body too large"},
        {"overflow", sized("9223372036854775808"), "400 Invalid Content-Length"},
        {"negative", sized("-1"), "400 Invalid Content-Length"},
        {"sign", sized("+1"), "400 Invalid Content-Length"},
        {"empty", sized(""), "400 Invalid Content-Length"},
        {"hexadecimal", sized("0x1"), "400 Invalid Content-Length"},
        {"list", sized("1, 1"), "400 Invalid Content-Length"},
        {"two framings", kPost + "content-length:1\r\ntransfer-encoding:chunked\r\n\r\n",
         "400 Conflicting body framing"},
        {"other coding", kPost + "transfer-encoding:gzip\r\n\r\n", "POST / keep [transfer-encoding=gzip] <>\n"},
        {"incomplete", sized("3") + "ab", ""},
    });
}

TEST(ZnHttpParser, ChunkedBodies) {
    checkRows({
        {"chunks", kChunked + "2;x=y\r\nab\r\n 0003 \r\n\r\nc\r\n0\r\n\r\n", kChunkedHead + "<ab\r\nc>\n"},
        {"trailers are dropped", kChunked + "0\r\na: b\r\nx\r\n\r\n", kChunkedHead + "<>\n"},
        {"last of several codings", kPost + "transfer-encoding: gzip, Chunked\r\n\r\n0\r\n\r\n",
         "POST / keep chunked [transfer-encoding=gzip, Chunked] <>\n"},
        {"largest chunk", kChunked + "8\r\n12345678\r\n4\r\n1234\r\n0\r\n\r\n", kChunkedHead + "<123456781234>\n"},
        {"chunk too large", kChunked + "9\r\n", "413 Chunk too large"},
        {"sum too large", kChunked + "8\r\n12345678\r\n5\r\n", "413 Body too large"},
        {"empty size", kChunked + "\r\n", "400 Invalid chunk size"},
        {"only an extension", kChunked + ";a\r\n", "400 Invalid chunk size"},
        {"no digit", kChunked + "1g\r\n", "400 Invalid chunk size"},
        {"blank behind the size", kChunked + "1 ;a\r\n", "400 Invalid chunk size"},
        {"largest number", kChunked + "ffffffffffffffff\r\n", "413 Chunk too large"},
        {"overflow", kChunked + "10000000000000000\r\n", "400 Invalid chunk size"},
        {"long size line", kChunked + "0;" + std::string(38, 'x') + "\r\n\r\n", kChunkedHead + "<>\n"},
        {"size line too long", kChunked + "0;" + std::string(39, 'x') + "\r\n", "400 Chunk size line too long"},
        {"no end of the size line", kChunked + std::string(42, '1'), "400 Chunk size line too long"},
        {"bad delimiter", kChunked + "1\r\naXY", "400 Malformed chunk delimiter"},
        {"trailers too large", kChunked + "0\r\n" + std::string(34, 't') + "\r\n", "431 Trailers too large"},
        {"trailers fit", kChunked + "0\r\n" + std::string(31, 't') + "\r\n\r\n", kChunkedHead + "<>\n"},
        {"no end of the trailers", kChunked + "0\r\n" + std::string(37, 't'), "431 Trailers too large"},
    });
}

TEST(ZnHttpParser, RequestsBehindEachOther) {
    const std::string post = kPost + "content-length:1\r\n\r\nx";
    const std::string posted = "POST / keep [content-length=1] <x>\n";
    checkRows({
        {"two", post + kChunked + "1\r\ny\r\n0\r\n\r\n", posted + kChunkedHead + "<y>\n"},
        {"three", post + post + post, posted + posted + posted + "400 Too many pipelined requests"},
        {"nothing after a failure", post + "x\r\n" + post, posted + "400 Malformed request line"},
    });
}

// An announced length is no reason to allocate, and a body in many small chunks is not copied again for each.
TEST(ZnHttpParser, MemoryFollowsTheBytes) {
    ZnHttpLimits limits;
    limits.maxBodyBytes = std::numeric_limits<std::uint64_t>::max();
    ZnHttpParser_ parser(limits);
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

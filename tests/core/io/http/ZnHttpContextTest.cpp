#include "core/io/http/ZnHttpContext.h"

#include <gtest/gtest.h>

namespace {

TEST(ZnHttpContext, AnswersInOneWord) {
    ZnHttpRequest request;
    ZnHttpContext context(request);
    EXPECT_FALSE(context.responded());
    context.json(ZnJsonObject{{"b", 1}, {"a", true}}, 201);
    EXPECT_TRUE(context.responded());
    EXPECT_EQ(context.response().head(false), "HTTP/1.1 201 Created\r\n"
                                              "content-type: application/json; charset=utf-8\r\n"
                                              "content-length: 18\r\nconnection: keep-alive\r\n\r\n");
    EXPECT_EQ(context.response().body.view(), R"({"a": true,"b": 1})");
    context.response().chunks.append(ZnByteArray());
    context.response().chunked = context.response().useFile = true;
    context.text("x", 404);
    EXPECT_EQ(context.response().head(true), "HTTP/1.1 404 Not Found\r\ncontent-type: text/plain; charset=utf-8\r\n"
                                             "content-length: 1\r\nconnection: close\r\n\r\n");
    context.sendStatus(204);
    EXPECT_EQ(context.response().status, 204);
    EXPECT_EQ(context.response().headers.value("content-length"), "0");
    EXPECT_TRUE(context.response().body.isEmpty());
}

TEST(ZnHttpContext, RefusesHeadersThatCouldBreakTheHead) {
    ZnHttpRequest request;
    ZnHttpContext context(request);
    const std::string nul("a\0b", 3);
    const struct {
        ZnString name;
        ZnString value;
    } kRows[] = {{"", "x"},     {"a b", "x"}, {"a:", "x"},      {"a\r\nb", "x"},    {"\xC3\xA4", "x"}, {" a", "x"},
                 {"a", "x\r"},  {"a", "\nx"}, {"a", "x\r\ny: z"}, {"a", ZnString(nul)}};
    for (const auto& row : kRows)
        EXPECT_FALSE(context.setHeader(row.name, row.value)) << row.name << "=" << row.value;
    EXPECT_FALSE(context.responded());
    EXPECT_TRUE(context.response().headers.isEmpty());
    EXPECT_TRUE(context.setHeader("X-A_b", "\tv:1"));
    EXPECT_TRUE(context.responded());
    EXPECT_EQ(context.response().headers.value("x-a_b"), "\tv:1");
}

// Handlers may fill the map themselves: what leaves is clean all the same.
TEST(ZnHttpResponse, HeadLeavesOutWhatCouldBreakIt) {
    ZnHttpResponse response;
    response.status = 599;
    response.reason = "Bad\r\nset-cookie: a=b";
    response.headers.insert(" Connection ", "upgrade");
    response.headers.insert("Content-Length", "7");
    response.headers.insert("a\r\nb", "1");
    response.headers.insert("c", "1\r\n\r\nHTTP/1.1 200 OK");
    response.headers.insert("d", ZnString("x\0y", 3));
    response.headers.insert("", "1");
    response.headers.insert("e f", "1");
    EXPECT_EQ(response.head(true), "HTTP/1.1 599 HTTP Response\r\nconnection: upgrade\r\ncontent-length: 7\r\n\r\n");
    response = ZnHttpResponse();
    response.status = 431;
    response.reason.clear();
    EXPECT_EQ(response.head(false), "HTTP/1.1 431 Request Header Fields Too Large\r\ncontent-length: 0\r\n"
                                    "connection: keep-alive\r\n\r\n");
}

TEST(ZnHttpContext, ReadsTheRequest) {
    ZnHttpRequest request;
    request.headers.insert("x-a", "1");
    request.pathParams.insert("id", "7");
    const ZnHttpContext context(request);
    EXPECT_EQ(context.requestHeader("X-A", "none"), "1");
    EXPECT_EQ(context.requestHeader("x-b", "none"), "none");
    EXPECT_EQ(context.findRequestHeader("x-b"), nullptr);
    EXPECT_EQ(context.pathParam("id"), "7");
    EXPECT_EQ(context.pathParam("x"), "");
}

TEST(ZnHttpContext, ParsesJsonBodies) {
    const struct {
        ZnByteArray body;
        const char* expected; // null: an error
    } kRows[] = {{ZnByteArray(std::string_view(R"({"a":1})")), R"({"a": 1})"},
                 {ZnByteArray(std::string_view("\xEF\xBB\xBF[1]")), "[1]"},
                 {ZnByteArray(std::string_view("\0\xEF\0\xBB\xBF{\0}\0", 9)), "{}"},
                 {ZnByteArray(std::string_view("{")), nullptr},
                 {ZnByteArray(), nullptr}};
    for (const auto& row : kRows) {
        ZnHttpRequest request;
        request.body = row.body;
        ZnJsonDocument document(ZnJsonValue("before"));
        ZnString errorText;
        const bool parsed = ZnHttpContext(request).parseJsonBody(&document, &errorText);
        EXPECT_EQ(parsed, row.expected != nullptr) << row.body.view();
        EXPECT_EQ(errorText.isEmpty(), parsed);
        EXPECT_EQ(document.toJson(), parsed ? row.expected : "\"before\"");
    }
}

} // namespace

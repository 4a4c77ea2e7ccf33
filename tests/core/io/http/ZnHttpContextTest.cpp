#include "core/io/http/ZnHttpContext.h"

#include <gtest/gtest.h>

namespace {

TEST(ZnHttpContext, ReadsAndAnswersInOneWord) {
    ZnHttpRequest request;
    request.body = ZnByteArray(std::string_view("\0\xEF\0\xBB\xBF{\0}\0", 9));
    ZnHttpContext context(request);
    ZnJsonDocument document(ZnJsonValue("before"));
    ZnString errorText;
    EXPECT_TRUE(context.parseJsonBody(&document, &errorText));
    EXPECT_EQ(document.toJson(), "{}");
    request.body = ZnByteArray(std::string_view("{"));
    EXPECT_FALSE(context.parseJsonBody(&document, &errorText));
    EXPECT_EQ(document.toJson(), "{}");
    EXPECT_FALSE(context.responded());
    context.json(ZnJsonObject{{"b", 1}, {"a", true}}, 201);
    EXPECT_TRUE(context.responded());
    EXPECT_EQ(context.response().head(false) + context.response().body.toZnString(),
              "HTTP/1.1 201 Created\r\ncontent-type: application/json; charset=utf-8\r\ncontent-length: 18\r\n"
              "connection: keep-alive\r\n\r\n{\"a\": true,\"b\": 1}");
    context.response().chunks.append(ZnByteArray());
    context.response().chunked = context.response().useFile = true;
    context.text("x", 404);
    EXPECT_EQ(context.response().head(true), "HTTP/1.1 404 Not Found\r\ncontent-type: text/plain; charset=utf-8\r\n"
                                             "content-length: 1\r\nconnection: close\r\n\r\n");
}

// setHeader refuses; handlers may fill the map themselves, and what leaves is clean all the same.
TEST(ZnHttpResponse, NothingBreaksTheHead) {
    ZnHttpRequest request;
    ZnHttpContext context(request);
    ZnHttpResponse response;
    const ZnString nul("a\0b", 3);
    const struct {
        ZnString name, value;
    } kRows[] = {{"", "x"},       {"a b", "x"}, {"a:", "x"},
                 {"a\r\nb", "x"}, {nul, "x"},   {"\xC3\xA4", "x"},
                 {"a", "x\r"},    {"b", "\nx"}, {"c", "x\r\n\r\nHTTP/1.1 200 OK"},
                 {"d", nul}};
    for (const auto& [name, value] : kRows) {
        EXPECT_FALSE(context.setHeader(name, value)) << name << "=" << value;
        response.headers.insert(name, value);
    }
    EXPECT_FALSE(context.responded());
    EXPECT_TRUE(context.response().headers.isEmpty());
    EXPECT_FALSE(context.setHeader(" a", "x"));
    EXPECT_TRUE(context.setHeader("X-A_b", "\tv:1"));
    EXPECT_TRUE(context.responded());
    EXPECT_EQ(context.response().headers.value("x-a_b"), "\tv:1");

    response.status = 599;
    response.reason = "Bad\r\nset-cookie: a=b";
    response.headers.insert(" Connection ", "upgrade");
    response.headers.insert("Content-Length", "7");
    response.body = ZnByteArray(std::string_view("1234567"));
    EXPECT_EQ(response.head(true), "HTTP/1.1 599 HTTP Response\r\nconnection: upgrade\r\ncontent-length: 7\r\n\r\n");
}

} // namespace

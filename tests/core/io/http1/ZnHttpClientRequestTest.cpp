#include "core/io/ZnHttpClient.h"
#include "core/io/http1/ZnHttpClientRequest_.h"

#include <gtest/gtest.h>

namespace {

std::string headOf(int method, const char* url, const char* body = "", const char* contentType = "",
                   const ZnMap<ZnString, ZnString>& headers = {}) {
    ZnHttpClientRequest_ request;
    request.method = method;
    request.headers = headers;
    request.body = ZnByteArray(body);
    request.contentType = contentType;
    return ZnHttpUrl_::parse(url, &request.url) ? request.head().str() : "refused";
}

TEST(ZnHttpClientRequest, Heads) {
    const std::string tail = "\r\nConnection: close\r\nAccept: */*\r\nUser-Agent: ZnHttpClient/1.0\r\n";
    const struct {
        int method;
        const char *url, *body, *contentType, *start, *content;
    } kRows[] = {
        {ZnHttpClient::Get, "http://host:8080/a?b=c#d", "", "", "GET /a?b=c#d HTTP/1.1\r\nHost: host:8080", ""},
        {99, "HTTPS://host:443", "", "", "GET / HTTP/1.1\r\nHost: host", ""},
        {ZnHttpClient::Get, "https://host:80/", "", "", "GET / HTTP/1.1\r\nHost: host:80", ""},
        {ZnHttpClient::Post, "hTTp://host/x", "", "", "POST /x HTTP/1.1\r\nHost: host",
         "Content-Type: application/octet-stream\r\nContent-Length: 0\r\n"},
        {ZnHttpClient::Get, "http://[::1]:8080/mcp", "", "", "GET /mcp HTTP/1.1\r\nHost: [::1]:8080", ""},
        {ZnHttpClient::Get, "https://[fe80::2]", "", "", "GET / HTTP/1.1\r\nHost: [fe80::2]", ""},
        {ZnHttpClient::Delete, "http://host:80/x", "ab", "text/plain", "DELETE /x HTTP/1.1\r\nHost: host",
         "Content-Type: text/plain\r\nContent-Length: 2\r\n"},
    };
    for (const auto& [method, url, body, contentType, start, content] : kRows)
        EXPECT_EQ(headOf(method, url, body, contentType), start + tail + content + "\r\n");
    EXPECT_EQ(headOf(ZnHttpClient::Put, "http://host/", "", "t/t",
                     {{"ACCEPT", "a/b"}, {"content-LENGTH", "7"}, {"host", "other"}}),
              "PUT / HTTP/1.1\r\nACCEPT: a/b\r\ncontent-LENGTH: 7\r\nhost: other\r\nConnection: close\r\n"
              "User-Agent: ZnHttpClient/1.0\r\nContent-Type: t/t\r\n\r\n");
}

TEST(ZnHttpClientRequest, UrlsThatAreRefused) {
    for (const char* url : {"ftp://host/", "http:/host/", "http://", "http://:80/", "http://host:0/",
                            "http://host:65536/", "http://[::1/", "http://[::1]8080/", "http://[host]/", "http://::1/",
                            "http://host a/", "http://host/a b", "http://host/\r\nX: y", "http://host\n/"})
        EXPECT_EQ(headOf(ZnHttpClient::Get, url), "refused") << url;
}

} // namespace

#include "core/io/http/ZnHttpRouter.h"

#include <gtest/gtest.h>

namespace {

ZnHttpRouter::Handler named(const char* name) {
    return [name](const ZnHttpRequest&) { return ZnHttpResponse::text(200, name); };
}

/// Status, body, the parameters and the "allow" header of what the router makes of a request.
std::string ask(const ZnHttpRouter& router, const char* method, const std::string& path) {
    ZnHttpRequest request;
    request.method = method;
    request.path = ZnString(path);
    ZnHttpResponse response;
    if (!router.dispatch(request, &response))
        return "none";
    std::string text = std::to_string(response.status) + " " + std::string(response.body.view());
    for (const auto& [name, value] : request.pathParams)
        text += (" " + name + "=" + value).str();
    if (response.headers.contains("allow"))
        text += " allow: " + response.headers.value("allow").str();
    return text;
}

TEST(ZnHttpRouter, MostSpecificRouteAnswers) {
    ZnHttpRouter router;
    EXPECT_EQ(ask(router, "GET", "/"), "none");
    const struct {
        const char *method, *pattern, *name;
    } kRoutes[] = {{"GET", "/a/:id", "plain"},
                   {"get", " a//:id(INT)/ ", "typed"},
                   {"GET", "/a/b", "literal"},
                   {"GET", "/a/b", "registered later"},
                   {"GET", "/files/*/ignored", "files"},
                   {"GET", "", "root"},
                   {"", "/any/:x/:y", "any"},
                   {"POST", "/a/b", "post"}};
    for (const auto& [method, pattern, name] : kRoutes)
        EXPECT_TRUE(router.addRoute(method, pattern, named(name), name));
    for (const char* pattern : {"/:id(foo)", "/:", "/:(int)", "/:id(int", "/:id()"})
        EXPECT_FALSE(router.addRoute("GET", pattern, named("x"), "bad")) << pattern;
    EXPECT_EQ(router.namedPattern("typed"), "/a/:id(INT)");
    router.setFallback(named("fallback"));
    const struct {
        const char *method, *path, *expected;
    } kRows[] = {
        {"GET", "/a/b", "200 literal"},
        {"HEAD", "/a/b/", "200 literal"},
        {"GET", "/A/b", "200 fallback"},
        {"GET", "/a/12", "200 typed id=12"},
        {"GET", "/a/x", "200 plain id=x"},
        {"GET", "/a", "200 fallback"},
        {"GET", "/files", "200 files wildcard="},
        {"GET", "/files/a/b/", "200 files wildcard=a/b"},
        {"GET", "/", "200 root"},
        {"PATCH", "/any/1/2", "200 any x=1 y=2"},
        {"DELETE", "/a/b", "405 Method Not Allowed allow: GET, POST"},
    };
    for (const auto& [method, path, expected] : kRows)
        EXPECT_EQ(ask(router, method, path), expected) << method << " " << path;
}

TEST(ZnHttpRouter, ParameterTypes) {
    const struct {
        std::string type, good, bad;
    } kRows[] = {{"int", "09", "-1"},
                 {"alpha", "aZ", "a1"},
                 {"alnum", "a1Z", "a-1"},
                 {"hex", "09afAF", "0g"},
                 {"slug", "a.B-_9", "a~"},
                 {"uuid", "01234567-89ab-cdef-ABCD-EF0123456789", "01234567-89ab-cdef-ABCD-EF012345678"},
                 {"uuid", "01234567-89ab-cdef-ABCD-EF0123456789", "0123456789ab-cdef-ABCD-EF0123456789-aa"}};
    for (const auto& [type, good, bad] : kRows) {
        ZnHttpRouter router;
        ASSERT_TRUE(router.addRoute("GET", ZnString("/:v(" + type + ")"), named("ok")));
        EXPECT_EQ(ask(router, "GET", "/" + good), "200 ok v=" + good);
        EXPECT_EQ(ask(router, "GET", "/" + bad), "none") << type;
    }
}

// The path was decoded, so it may hold anything that a browser or the head would read something else into.
TEST(ZnHttpRouter, TrailingSlashRedirects) {
    using Mode = ZnHttpRouter::TrailingSlash;
    const struct {
        Mode mode;
        ZnString path, query;
        const char* location;
    } kRows[] = {
        // null: none
        {Mode::Leave, "/a/", "", nullptr},
        {Mode::Strip, "/", "", nullptr},
        {Mode::Strip, "/a", "", nullptr},
        {Mode::Strip, "/a/", "x=1&y=%41", "/a?x=1&y=%41"},
        {Mode::Strip, "//evil.test/", "", "/evil.test"},
        {Mode::Strip, "/\\evil.test/", "", "/%5Cevil.test"},
        {Mode::Strip, ZnString("/a\r\nset-cookie: x\0/", 19), "", "/a%0D%0Aset-cookie:%20x%00"},
        {Mode::Strip, "/100%?#\xC3\xA4/", "x=\n\"<#", "/100%25%3F%23%C3%A4?x=%0A%22%3C%23"},
        {Mode::Strip, "//", "", "/"},
        {Mode::Add, "/", "", nullptr},
        {Mode::Add, "/a/", "", nullptr},
        {Mode::Add, "//evil.test", "q", "/evil.test/?q"},
    };
    for (const auto& [mode, path, query, location] : kRows) {
        ZnHttpRouter router;
        router.addRoute("GET", "/*", named("route"));
        router.setTrailingSlash(mode);
        ZnHttpRequest request;
        request.method = "GET";
        request.path = path;
        request.queryString = query;
        request.keepAlive = false;
        ZnHttpResponse response;
        ASSERT_TRUE(router.dispatch(request, &response));
        EXPECT_EQ(response.status, location == nullptr ? 200 : 308);
        if (location == nullptr)
            continue;
        EXPECT_TRUE(response.closeConnection);
        EXPECT_EQ(response.head(true), "HTTP/1.1 308 Permanent Redirect\r\ncontent-length: 0\r\nlocation: " +
                                           ZnString(location) + "\r\nconnection: close\r\n\r\n");
    }
}

} // namespace

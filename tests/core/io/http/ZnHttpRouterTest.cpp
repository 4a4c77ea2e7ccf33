#include "core/io/http/ZnHttpRouter.h"

#include <gtest/gtest.h>

namespace {

ZnHttpRouter::Handler named(const char* name) {
    return [name](const ZnHttpRequest&) { return ZnHttpResponse::text(200, name); };
}

/// Status, body, the parameters and the "allow" header of what the router makes of a request.
std::string ask(const ZnHttpRouter& router, const char* method, const char* path) {
    ZnHttpRequest request;
    request.method = method;
    request.path = path;
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

struct Row {
    const char* method;
    const char* path;
    const char* expected;
};

void checkRows(const ZnHttpRouter& router, const std::vector<Row>& rows) {
    for (const Row& row : rows)
        EXPECT_EQ(ask(router, row.method, row.path), row.expected) << row.method << " " << row.path;
}

TEST(ZnHttpRouter, MostSpecificRouteAnswers) {
    ZnHttpRouter router;
    EXPECT_TRUE(router.addRoute("GET", "/a/:id", named("plain")));
    EXPECT_TRUE(router.addRoute("get", " a//:id(INT)/ ", named("typed")));
    EXPECT_TRUE(router.addRoute("GET", "/a/b", named("literal")));
    EXPECT_TRUE(router.addRoute("GET", "/a/b", named("registered later")));
    EXPECT_TRUE(router.addRoute("GET", "/files/*/ignored", named("files")));
    EXPECT_TRUE(router.addRoute("GET", "/rest/*tail", named("rest")));
    EXPECT_TRUE(router.addRoute("GET", "", named("root")));
    EXPECT_TRUE(router.addRoute("", "/any/:x/:y", named("any")));
    checkRows(router, {
        {"GET", "/a/b", "200 literal"},
        {"HEAD", "/a/b", "200 literal"},
        {"GET", "/a/b/", "200 literal"},
        {"GET", "/A/b", "none"},
        {"GET", "/a/12", "200 typed id=12"},
        {"GET", "/a/x", "200 plain id=x"},
        {"GET", "/a", "none"},
        {"GET", "/a/b/c", "none"},
        {"GET", "/files", "200 files wildcard="},
        {"GET", "/files/a/b/", "200 files wildcard=a/b"},
        {"GET", "/rest/a", "200 rest tail=a"},
        {"GET", "/", "200 root"},
        {"PATCH", "/any/1/2", "200 any x=1 y=2"},
    });
}

TEST(ZnHttpRouter, ParameterTypes) {
    ZnHttpRouter router;
    for (const char* type : {"int", "alpha", "alnum", "hex", "slug", "uuid"})
        ASSERT_TRUE(router.addRoute("GET", ZnString("/") + type + "/:v(" + type + ")", named("ok")));
    const struct {
        const char* type;
        const char* good;
        const char* bad;
    } kRows[] = {{"int", "09", "-1"},      {"alpha", "aZ", "a1"},  {"alnum", "a1Z", "a-1"},
                 {"hex", "09afAF", "0g"},  {"slug", "a.B-_9", "a~"},
                 {"uuid", "01234567-89ab-cdef-ABCD-EF0123456789", "01234567-89ab-cdef-ABCD-EF012345678"}};
    for (const auto& row : kRows) {
        const std::string prefix = std::string("/") + row.type + "/";
        EXPECT_EQ(ask(router, "GET", (prefix + row.good).c_str()), std::string("200 ok v=") + row.good);
        EXPECT_EQ(ask(router, "GET", (prefix + row.bad).c_str()), "none");
    }
    EXPECT_EQ(ask(router, "GET", "/uuid/0123456789ab-cdef-ABCD-EF0123456789-aa"), "none");
}

TEST(ZnHttpRouter, RefusesWhatItCannotServe) {
    ZnHttpRouter router;
    EXPECT_FALSE(router.addRoute("GET", "/a", nullptr));
    EXPECT_FALSE(router.addAsyncRoute("GET", "/a", nullptr));
    for (const char* pattern : {"/:id(foo)", "/:", "/:(int)", "/:id(int", "/:id()"})
        EXPECT_FALSE(router.addRoute("GET", pattern, named("x"))) << pattern;
    EXPECT_EQ(ask(router, "GET", "/a"), "none");
}

TEST(ZnHttpRouter, UnknownMethodsAndPaths) {
    ZnHttpRouter router;
    router.addRoute("POST", "/a", named("post"));
    router.addRoute("GET", "/a", named("get"));
    router.addRoute("GET", "/:x", named("other"));
    router.setFallback(named("fallback"));
    checkRows(router, {
        {"DELETE", "/a", "405 Method Not Allowed allow: GET, POST"},
        {"POST", "/b", "405 Method Not Allowed allow: GET"},
        {"GET", "/a/b", "200 fallback"},
    });
}

// The path was decoded, so it may hold anything that a browser or the head would read something else into.
TEST(ZnHttpRouter, TrailingSlashRedirects) {
    using Mode = ZnHttpRouter::TrailingSlash;
    const struct {
        Mode mode;
        ZnString path;
        ZnString query;
        const char* location; // null: none
    } kRows[] = {
        {Mode::Leave, "/a/", "", nullptr},
        {Mode::Strip, "/", "", nullptr},
        {Mode::Strip, "/a", "", nullptr},
        {Mode::Strip, "/a/", "x=1&y=%41", "/a?x=1&y=%41"},
        {Mode::Strip, "//evil.test/", "", "/evil.test"},
        {Mode::Strip, "/\\evil.test/", "", "/%5Cevil.test"},
        {Mode::Strip, "/\t/evil.test/", "", "/%09/evil.test"},
        {Mode::Strip, ZnString("/a\r\nset-cookie: x\0/", 19), "", "/a%0D%0Aset-cookie:%20x%00"},
        {Mode::Strip, "/100%?#\xC3\xA4/", "", "/100%25%3F%23%C3%A4"},
        {Mode::Strip, "/a/", "x=\n\"<#", "/a?x=%0A%22%3C%23"},
        {Mode::Strip, "//", "", "/"},
        {Mode::Add, "/", "", nullptr},
        {Mode::Add, "/a/", "", nullptr},
        {Mode::Add, "/a/b c", "q", "/a/b%20c/?q"},
        {Mode::Add, "//evil.test", "", "/evil.test/"},
    };
    for (const auto& row : kRows) {
        ZnHttpRouter router;
        router.addRoute("GET", "/*", named("route"));
        router.setTrailingSlash(row.mode);
        ZnHttpRequest request;
        request.method = "GET";
        request.path = row.path;
        request.queryString = row.query;
        request.keepAlive = false;
        ZnHttpResponse response;
        ASSERT_TRUE(router.dispatch(request, &response));
        EXPECT_EQ(response.status, row.location == nullptr ? 200 : 308);
        if (row.location == nullptr)
            continue;
        EXPECT_TRUE(response.closeConnection);
        EXPECT_EQ(response.head(true), "HTTP/1.1 308 Permanent Redirect\r\ncontent-length: 0\r\nlocation: " +
                                           ZnString(row.location) + "\r\nconnection: close\r\n\r\n");
    }
}

TEST(ZnHttpRouter, NamesStandForPatterns) {
    ZnHttpRouter router;
    router.addRoute("GET", "a//:id/", named("a"), "item");
    router.addRoute("GET", "/:bad(", named("bad"), "bad");
    router.addAsyncRoute("GET", "/b", [](const auto&, const auto&) {}, "later");
    EXPECT_EQ(router.namedPattern("item"), "/a/:id");
    EXPECT_EQ(router.namedPattern("later"), "/b");
    EXPECT_EQ(router.namedPattern("bad"), "");
}

TEST(ZnHttpRouter, CallbackRoutes) {
    ZnHttpRouter router;
    router.addRoute("GET", "/now", named("now"));
    router.addAsyncRoute("GET", "/:id", [](const std::shared_ptr<const ZnHttpRequest>& request,
                                           const ZnHttpResponseCallback& answer) {
        answer(ZnHttpResponse::text(200, request->pathParams.value("id").view()));
    });
    const auto askAsync = [&router](const char* path) {
        auto request = std::make_shared<ZnHttpRequest>();
        request->method = "GET";
        request->path = path;
        std::string text = "none";
        router.dispatchAsync(request, [&text](ZnHttpResponse response) { text = response.body.view(); });
        return text;
    };
    EXPECT_EQ(askAsync("/now"), "now");
    EXPECT_EQ(askAsync("/later"), "later");
    EXPECT_EQ(askAsync("/a/b"), "none");
    EXPECT_EQ(ask(router, "GET", "/later"), "500 Async route requires async dispatch id=later");
}

// A handler may outlive its router: here it takes it down itself.
TEST(ZnHttpRouter, HandlerOutlivesTheRouter) {
    auto router = std::make_unique<ZnHttpRouter>();
    const auto suicidal = [&router, text = std::string(100, 'x')](const ZnHttpRequest&) {
        router.reset();
        return ZnHttpResponse::text(200, text);
    };
    router->addRoute("GET", "/a", suicidal);
    EXPECT_EQ(ask(*router, "GET", "/a"), "200 " + std::string(100, 'x'));
    router = std::make_unique<ZnHttpRouter>();
    router->setFallback(suicidal);
    EXPECT_EQ(ask(*router, "GET", "/a"), "200 " + std::string(100, 'x'));
}

} // namespace

#pragma once

#include "core/io/http/ZnHttpContext.h"
#include "core/io/http/ZnHttpServer.h"

#include <functional>

/// A server whose routes are written against ZnHttpContext.
///
/// A handler may park; it may be called for many requests at the same time, each on its own fiber. An exception
/// that leaves it becomes a 500 and closes the connection; a handler that does not answer is a 500, too.
/// Thread: the owning thread.
class ZnHttpApp : public ZnHttpServer {
public:
    ZN_OBJECT(ZnHttpApp, ZnHttpServer)

    using ContextHandler = std::function<void(ZnHttpContext&)>;

    explicit ZnHttpApp(ZnObject* parent = nullptr) : ZnHttpServer(parent) {}

    /// Each returns false, with nothing added, for an empty handler or a pattern that does not compile.
    bool get(const ZnString& pattern, ContextHandler handler);
    bool post(const ZnString& pattern, ContextHandler handler);
    bool del(const ZnString& pattern, ContextHandler handler);
    bool options(const ZnString& pattern, ContextHandler handler);

private:
    bool addContextRoute_(const char* method, const ZnString& pattern, ContextHandler handler);
};

#include "core/io/http/ZnHttpRouter.h"

#include <algorithm>
#include <string>
#include <utility>

namespace {

using Segment = ZnHttpRouteSegment;

/// Takes the next piece between slashes off the front of `*rest`; empty pieces do not count.
bool nextSegment(std::string_view* rest, std::string_view* segment) noexcept {
    const std::size_t begin = rest->find_first_not_of('/');
    if (begin == std::string_view::npos)
        return false;
    const std::size_t end = std::min(rest->find('/', begin), rest->size());
    *segment = rest->substr(begin, end - begin);
    rest->remove_prefix(end);
    return true;
}

bool paramTypeOf(const ZnString& name, Segment::ParamType* type) {
    static constexpr struct {
        const char* name;
        Segment::ParamType type;
    } kTypes[] = {{"int", Segment::ParamType::Int},     {"alpha", Segment::ParamType::Alpha},
                  {"alnum", Segment::ParamType::Alnum}, {"hex", Segment::ParamType::Hex},
                  {"slug", Segment::ParamType::Slug},   {"uuid", Segment::ParamType::Uuid}};
    for (const auto& known : kTypes) {
        if (name == known.name) {
            *type = known.type;
            return true;
        }
    }
    return false;
}

/// "name" or "name(type)".
bool compileParameter(std::string_view text, Segment* segment) {
    segment->kind = Segment::Kind::Parameter;
    const std::size_t open = text.find('(');
    segment->paramName = ZnString(open == std::string_view::npos ? text : trimmedView(text.substr(0, open)));
    if (segment->paramName.isEmpty())
        return false;
    if (open == std::string_view::npos)
        return true;
    if (!text.ends_with(')'))
        return false;
    const std::string_view type = text.substr(open + 1, text.size() - open - 2);
    return paramTypeOf(ZnString(trimmedView(type)).toLower(), &segment->paramType);
}

bool compileSegment(std::string_view piece, Segment* segment) {
    if (piece.front() == ':')
        return compileParameter(piece.substr(1), segment);
    if (piece.front() == '*') {
        segment->kind = Segment::Kind::Wildcard;
        segment->paramName = piece.size() > 1 ? ZnString(piece.substr(1)) : ZnString("wildcard");
    } else {
        segment->literal = ZnString(piece);
    }
    return true;
}

int scoreOf(const Segment& segment) noexcept {
    switch (segment.kind) {
    case Segment::Kind::Literal: return 100;
    case Segment::Kind::Parameter: return segment.paramType == Segment::ParamType::None ? 30 : 50;
    case Segment::Kind::Wildcard: return 1;
    }
    return 0;
}

bool compilePattern(ZnHttpRoute* route) {
    std::string_view rest = route->pattern.view();
    std::string_view piece;
    while (nextSegment(&rest, &piece)) {
        Segment segment;
        if (!compileSegment(piece, &segment))
            return false;
        route->score += scoreOf(segment);
        route->hasParams |= segment.kind != Segment::Kind::Literal;
        route->segments.push_back(std::move(segment));
        if (route->segments.back().kind == Segment::Kind::Wildcard)
            break; // it takes the rest of a path, so nothing behind it could match
    }
    return true;
}

bool isDigit(char c) noexcept {
    return c >= '0' && c <= '9';
}

bool isAlpha(char c) noexcept {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}

bool isHex(char c) noexcept {
    return isDigit(c) || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
}

bool isUuid(std::string_view text) noexcept {
    if (text.size() != 36)
        return false;
    for (std::size_t i = 0; i < text.size(); ++i) {
        const bool isDash = i == 8 || i == 13 || i == 18 || i == 23;
        if (isDash ? text[i] != '-' : !isHex(text[i]))
            return false;
    }
    return true;
}

bool passesType(Segment::ParamType type, std::string_view text) noexcept {
    const auto all = [text](auto allowed) { return std::all_of(text.begin(), text.end(), allowed); };
    switch (type) {
    case Segment::ParamType::None: return true;
    case Segment::ParamType::Int: return all(isDigit);
    case Segment::ParamType::Alpha: return all(isAlpha);
    case Segment::ParamType::Alnum: return all([](char c) { return isAlpha(c) || isDigit(c); });
    case Segment::ParamType::Hex: return all(isHex);
    case Segment::ParamType::Slug:
        return all([](char c) { return isAlpha(c) || isDigit(c) || c == '-' || c == '.' || c == '_'; });
    case Segment::ParamType::Uuid: return isUuid(text);
    }
    return false;
}

/// What is left of a path for a wildcard: its pieces with one slash between them.
ZnString wildcardText(std::string_view rest) {
    std::string text;
    std::string_view piece;
    while (nextSegment(&rest, &piece)) {
        if (!text.empty())
            text += '/';
        text += piece;
    }
    return ZnString(std::move(text));
}

/// Whether the pattern matches the path; `params`, which may be null, receives the parameters on the way.
bool matchRoute(const ZnHttpRoute& route, std::string_view path, ZnMap<ZnString, ZnString>* params) {
    std::string_view piece;
    for (const Segment& segment : route.segments) {
        if (segment.kind == Segment::Kind::Wildcard) {
            if (params != nullptr)
                params->insert(segment.paramName, wildcardText(path));
            return true;
        }
        if (!nextSegment(&path, &piece))
            return false;
        if (segment.kind == Segment::Kind::Literal ? piece != segment.literal.view()
                                                   : !passesType(segment.paramType, piece))
            return false;
        if (params != nullptr && segment.kind == Segment::Kind::Parameter)
            params->insert(segment.paramName, ZnString(piece));
    }
    return !nextSegment(&path, &piece);
}

bool passesMethod(const ZnHttpRoute& route, const ZnString& method) noexcept {
    return route.method == "*" || route.method == method || (method == "HEAD" && route.method == "GET");
}

ZnHttpResponse methodNotAllowed(const ZnHttpRequest& request, std::vector<std::string_view> methods) {
    ZnHttpResponse response = ZnHttpResponse::plain(405, "Method Not Allowed", request.keepAlive);
    std::sort(methods.begin(), methods.end());
    methods.erase(std::unique(methods.begin(), methods.end()), methods.end());
    std::string allow;
    for (const std::string_view method : methods) {
        if (!allow.empty())
            allow += ", ";
        allow += method;
    }
    response.headers.insert("allow", ZnString(std::move(allow)));
    return response;
}

} // namespace

ZnString ZnHttpRouter::normalizePattern(const ZnString& pattern) {
    std::string text = "/";
    text += trimmedView(pattern.view());
    text.erase(std::unique(text.begin(), text.end(), [](char a, char b) { return a == '/' && b == '/'; }), text.end());
    if (text.size() > 1 && text.back() == '/')
        text.pop_back();
    return ZnString(std::move(text));
}

bool ZnHttpRouter::addRoute(const ZnString& method, const ZnString& pattern, Handler handler, const ZnString& name) {
    ZnHttpRoute route;
    route.method = method;
    route.pattern = pattern;
    route.handler = std::move(handler);
    return add_(std::move(route), name);
}

bool ZnHttpRouter::addAsyncRoute(const ZnString& method, const ZnString& pattern, AsyncHandler handler,
                                 const ZnString& name) {
    ZnHttpRoute route;
    route.method = method;
    route.pattern = pattern;
    route.asyncHandler = std::move(handler);
    return add_(std::move(route), name);
}

bool ZnHttpRouter::add_(ZnHttpRoute route, const ZnString& name) {
    if (!route.handler && !route.asyncHandler)
        return false;
    route.method = route.method.trimmed().toUpper();
    if (route.method.isEmpty())
        route.method = "*";
    route.pattern = normalizePattern(route.pattern);
    if (!compilePattern(&route))
        return false;
    if (!name.isEmpty())
        namedRoutes_.insert(name, route.pattern);
    const auto at = std::find_if(routes_.begin(), routes_.end(),
                                 [&route](const RouteRef_& other) { return other->score < route.score; });
    routes_.insert(at, std::make_shared<const ZnHttpRoute>(std::move(route)));
    return true;
}

void ZnHttpRouter::setFallback(Handler fallback) {
    fallback_ = fallback ? std::make_shared<const Handler>(std::move(fallback)) : nullptr;
}

ZnHttpRouter::Target ZnHttpRouter::find(ZnHttpRequest& request) const {
    Target target;
    if (trailingSlash_ != TrailingSlash::Leave && (target.ready_ = trailingSlashRedirect_(request)))
        return target;
    for (const RouteRef_& route : routes_) {
        if (passesMethod(*route, request.method) && matchRoute(*route, request.path.view(), nullptr)) {
            if (route->hasParams)
                matchRoute(*route, request.path.view(), &request.pathParams);
            target.route_ = route;
            return target;
        }
    }
    target.ready_ = methodNotAllowed_(request);
    if (!target.ready_)
        target.fallback_ = fallback_;
    return target;
}

/// The path was decoded, so it may hold anything: it is encoded anew, and cannot break the head or lead away.
std::unique_ptr<ZnHttpResponse> ZnHttpRouter::trailingSlashRedirect_(const ZnHttpRequest& request) const {
    std::string_view path = request.path.view();
    const bool hasSlash = path.ends_with('/');
    if (path == "/" || hasSlash != (trailingSlash_ == TrailingSlash::Strip))
        return nullptr;
    if (hasSlash)
        path.remove_suffix(1);
    ZnString location = zn::http::encodedPath(path);
    if (!hasSlash)
        location += '/';
    if (!request.queryString.isEmpty())
        location += "?" + zn::http::encodedQuery(request.queryString.view());
    auto response = std::make_unique<ZnHttpResponse>();
    response->status = 308;
    response->reason = zn::http::reasonPhrase(308);
    response->headers.insert("location", std::move(location));
    response->headers.insert("content-length", "0");
    response->closeConnection = !request.keepAlive;
    return response;
}

/// For a request that no route passes: null when no route matches its path either.
std::unique_ptr<ZnHttpResponse> ZnHttpRouter::methodNotAllowed_(const ZnHttpRequest& request) const {
    std::vector<std::string_view> methods;
    for (const RouteRef_& route : routes_) {
        if (matchRoute(*route, request.path.view(), nullptr))
            methods.push_back(route->method.view()); // never "*", which passes every method
    }
    if (methods.empty())
        return nullptr;
    return std::make_unique<ZnHttpResponse>(methodNotAllowed(request, std::move(methods)));
}

ZnHttpResponse ZnHttpRouter::Target::answer(const ZnHttpRequest& request) const {
    if (route_ && route_->handler)
        return route_->handler(request);
    if (route_)
        return ZnHttpResponse::plain(500, "Async route requires async dispatch", request.keepAlive);
    if (ready_)
        return std::move(*ready_);
    return fallback_ ? (*fallback_)(request) : ZnHttpResponse::plain(404, "Not Found", request.keepAlive);
}

void ZnHttpRouter::Target::answerAsync(const std::shared_ptr<const ZnHttpRequest>& request,
                                       const ZnHttpResponseCallback& callback) const {
    if (isAsync())
        route_->asyncHandler(request, callback);
    else
        callback(answer(*request));
}

// The handlers may park, and after them the router may have been destroyed: the target keeps them.

bool ZnHttpRouter::dispatch(ZnHttpRequest& request, ZnHttpResponse* response) const {
    const Target target = find(request);
    if (!target)
        return false;
    *response = target.answer(request);
    return true;
}

bool ZnHttpRouter::dispatchAsync(const std::shared_ptr<ZnHttpRequest>& request,
                                 const ZnHttpResponseCallback& callback) const {
    const Target target = find(*request);
    if (!target)
        return false;
    target.answerAsync(request, callback);
    return true;
}

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

ZnString normalizedPattern(const ZnString& pattern) {
    std::string text = "/";
    text += trimmedView(pattern.view());
    text.erase(std::unique(text.begin(), text.end(), [](char a, char b) { return a == '/' && b == '/'; }), text.end());
    if (text.size() > 1 && text.back() == '/')
        text.pop_back();
    return ZnString(std::move(text));
}

bool paramTypeOf(const ZnString& name, Segment::ParamType* type) {
    static constexpr struct {
        const char* name;
        Segment::ParamType type;
    } kTypes[] = {
        {"int", Segment::ParamType::Int}, {"alpha", Segment::ParamType::Alpha}, {"alnum", Segment::ParamType::Alnum},
        {"hex", Segment::ParamType::Hex}, {"slug", Segment::ParamType::Slug},   {"uuid", Segment::ParamType::Uuid}};
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
    if (!allow.empty())
        response.headers.insert("allow", ZnString(std::move(allow)));
    return response;
}

} // namespace

bool ZnHttpRouter::addRoute(const ZnString& method, const ZnString& pattern, Handler handler) {
    ZnHttpRoute route;
    route.method = method;
    route.pattern = pattern;
    route.handler = std::move(handler);
    return add_(std::move(route));
}

bool ZnHttpRouter::addAsyncRoute(const ZnString& method, const ZnString& pattern, AsyncHandler handler) {
    ZnHttpRoute route;
    route.method = method;
    route.pattern = pattern;
    route.asyncHandler = std::move(handler);
    return add_(std::move(route));
}

bool ZnHttpRouter::add_(ZnHttpRoute route) {
    if (!route.handler && !route.asyncHandler)
        return false;
    route.method = route.method.trimmed().toUpper();
    if (route.method.isEmpty())
        route.method = "*";
    route.pattern = normalizedPattern(route.pattern);
    if (!compilePattern(&route))
        return false;
    const auto at = std::find_if(routes_.begin(), routes_.end(),
                                 [&route](const RouteRef_& other) { return other->score < route.score; });
    routes_.insert(at, std::make_shared<const ZnHttpRoute>(std::move(route)));
    return true;
}

void ZnHttpRouter::setFallback(Handler fallback) {
    fallback_ = fallback ? std::make_shared<const Handler>(std::move(fallback)) : nullptr;
}

ZnHttpRouter::Lookup_ ZnHttpRouter::find_(const ZnHttpRequest& request) const {
    Lookup_ lookup;
    for (const RouteRef_& route : routes_) {
        if (passesMethod(*route, request.method) && matchRoute(*route, request.path.view(), nullptr)) {
            lookup.route = route;
            return lookup;
        }
    }
    for (const RouteRef_& route : routes_) { // for the 405 alone
        if (matchRoute(*route, request.path.view(), nullptr))
            lookup.allow.push_back(route->method.view()); // never "*", which passes every method
    }
    lookup.pathMatched = !lookup.allow.empty();
    return lookup;
}

/// For a request that no route passes. `find_` has just run, so the views of the lookup are valid; the fallback, as
/// the handlers, may outlive the router.
bool ZnHttpRouter::answerWithoutRoute_(const ZnHttpRequest& request, const Lookup_& lookup,
                                       ZnHttpResponse* response) const {
    if (lookup.pathMatched) {
        *response = methodNotAllowed(request, lookup.allow);
        return true;
    }
    const std::shared_ptr<const Handler> fallback = fallback_;
    if (!fallback)
        return false;
    *response = (*fallback)(request);
    return true;
}

bool ZnHttpRouter::dispatch(ZnHttpRequest& request, ZnHttpResponse* response) const {
    const Lookup_ lookup = find_(request);
    if (!lookup.route)
        return answerWithoutRoute_(request, lookup, response);
    if (lookup.route->hasParams)
        matchRoute(*lookup.route, request.path.view(), &request.pathParams);
    // From here on `this` may go: the handler may park. lookup.route keeps the handler.
    *response = lookup.route->handler
                    ? lookup.route->handler(request)
                    : ZnHttpResponse::plain(500, "Async route requires async dispatch", request.keepAlive);
    return true;
}

bool ZnHttpRouter::dispatchAsync(const std::shared_ptr<ZnHttpRequest>& request,
                                 const ZnHttpResponseCallback& callback) const {
    const Lookup_ lookup = find_(*request);
    ZnHttpResponse response;
    if (!lookup.route) {
        if (!answerWithoutRoute_(*request, lookup, &response))
            return false;
        callback(std::move(response));
        return true;
    }
    if (lookup.route->hasParams)
        matchRoute(*lookup.route, request->path.view(), &request->pathParams);
    // From here on `this` may go, as in dispatch.
    if (lookup.route->asyncHandler)
        lookup.route->asyncHandler(request, callback);
    else
        callback(lookup.route->handler(*request));
    return true;
}

#include "agent/McpJsonPlaces.h"

#include <utility>

namespace mcp {
namespace {

/// Walks over a well-formed text. Whatever else it may be given, it ends: every step goes forward.
class PlaceWalk {
public:
    explicit PlaceWalk(std::string_view text) : text_(text) {}

    std::vector<EntryPlace> services() {
        std::vector<EntryPlace> places;
        if (!enter_('{'))
            return places;
        while (peek_() == '"') {
            const std::string_view name = takeName_();
            if (name == "services" && peek_() == '[')
                places = entries_(); // a repeated member: the last one counts
            else
                skipValue_();
            passComma_();
        }
        return places;
    }

private:
    std::vector<EntryPlace> entries_() {
        std::vector<EntryPlace> places;
        for (enter_('['); peek_() != ']' && peek_() != '\0'; passComma_()) {
            EntryPlace place{line_, {}};
            if (!enter_('{')) {
                skipValue_();
            } else {
                for (; peek_() == '"'; passComma_()) {
                    const int line = line_;
                    place.members.push_back({takeName_(), line});
                    skipValue_();
                }
                enter_('}');
            }
            places.push_back(std::move(place));
        }
        enter_(']');
        return places;
    }

    /// The next character that is not blank; 0 at the end.
    char peek_() {
        while (at_ < text_.size() &&
               std::string_view(" \t\r\n\v\f\xEF\xBB\xBF").find(text_[at_]) != std::string_view::npos)
            step_();
        return at_ < text_.size() ? text_[at_] : '\0';
    }
    void step_() {
        if (text_[at_++] == '\n')
            ++line_;
    }
    bool enter_(char bracket) {
        const bool isThere = peek_() == bracket;
        if (isThere)
            step_();
        return isThere;
    }
    void passComma_() { enter_(','); }

    std::string_view takeName_() {
        const std::size_t start = at_ + 1;
        skipString_();
        const std::string_view name = text_.substr(start, at_ - start - 1);
        enter_(':');
        return name;
    }
    void skipString_() {
        for (step_(); at_ < text_.size() && text_[at_] != '"'; step_()) {
            if (text_[at_] == '\\' && at_ + 1 < text_.size())
                step_();
        }
        if (at_ < text_.size())
            step_();
    }
    void skipValue_() {
        int depth = 0;
        do {
            const char c = peek_();
            if (c == '\0')
                return;
            if (c == '"') {
                skipString_();
                continue;
            }
            if (c == '{' || c == '[')
                ++depth;
            else if (c == '}' || c == ']')
                --depth;
            step_();
        } while (depth > 0 || !isValueEnd_());
    }
    bool isValueEnd_() {
        const char c = peek_();
        return c == ',' || c == '}' || c == ']' || c == '\0';
    }

    std::string_view text_;
    std::size_t at_ = 0;
    int line_ = 1;
};

} // namespace

std::vector<EntryPlace> placesOfServices(std::string_view text) {
    return PlaceWalk(text).services();
}

} // namespace mcp

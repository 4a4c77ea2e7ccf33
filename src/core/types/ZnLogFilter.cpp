#include "core/types/ZnLogFilter.h"

#if defined(__GNUC__) && !defined(__clang__)
// A false alarm inside the library's own code, which the sanitizers' instrumentation brings about.
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#endif
#include <regex>

namespace {

std::regex::flag_type filterFlags() {
    std::regex::flag_type flags = std::regex::ECMAScript;
#if defined(__GLIBCXX__)
    // The library's default search recurses once per character, which a long line turns into a stack overflow
    // on a fiber. This one does not.
    flags |= std::regex_constants::__polynomial;
#endif
    return flags;
}

/// An expression that, matched at the start of a text, finds `pattern` anywhere in it: the library searches
/// by matching anew at every position, while one match that may skip a prefix takes linear time.
std::regex searching(const ZnString& pattern) {
    const std::regex validated(pattern.str(),
                               filterFlags()); // on its own: the parentheses below could complete it
    return std::regex("[\\s\\S]*?(?:" + pattern.str() + ")", filterFlags());
}

} // namespace

struct ZnLogFilter::Expression_ {
    std::regex regex;
};

std::unique_ptr<const ZnLogFilter> ZnLogFilter::compile(const ZnString& pattern) {
    try {
        return std::unique_ptr<const ZnLogFilter>(new ZnLogFilter(pattern));
    } catch (const std::exception&) {
        return nullptr;
    }
}

ZnLogFilter::ZnLogFilter(const ZnString& pattern) : expression_(new Expression_{searching(pattern)}) {}

ZnLogFilter::~ZnLogFilter() = default;

bool ZnLogFilter::passes(std::string_view text) const noexcept {
    try {
        return std::regex_search(text.begin(), text.end(), expression_->regex, std::regex_constants::match_continuous);
    } catch (const std::exception&) {
        return true;
    }
}

#include "core/types/ZnNumberText.h"

#include <algorithm>
#include <charconv>
#include <limits>
#include <system_error>

namespace {

constexpr std::size_t kMaxFixedBytes = 512; // the largest double has 309 digits before the point

/// Whether a number of the JSON grammar that no double holds is too large, and not too small.
bool isHuge(std::string_view text) {
    const std::size_t exponentAt = std::min(text.find_first_of("eE"), text.size());
    const std::string_view mantissa = text.substr(0, exponentAt);
    const auto pointAt = static_cast<long long>(std::min(mantissa.find('.'), mantissa.size()));
    const auto digitAt = static_cast<long long>(mantissa.find_first_of("123456789"));
    std::string_view exponentText = text.substr(std::min(exponentAt + 1, text.size()));
    if (exponentText.starts_with('+'))
        exponentText.remove_prefix(1);
    long long exponent = 0;
    if (std::from_chars(exponentText.data(), exponentText.data() + exponentText.size(), exponent).ec ==
        std::errc::result_out_of_range)
        return !exponentText.starts_with('-');
    return exponent > digitAt - pointAt; // about where the first digit stands is enough: the exponents are far from 0
}

} // namespace

bool zn::detail::parseDecimal(std::string_view text, double* out) {
    // Excludes the words for infinity and not-a-number, which the conversion would take.
    const std::size_t first = text.find_first_not_of('-');
    if (first > 1 || !(text[first] == '.' || (text[first] >= '0' && text[first] <= '9')))
        return false;
    double value = 0;
    const auto [end, code] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (code != std::errc() || end != text.data() + text.size())
        return false;
    *out = value;
    return true;
}

double zn::detail::nearestDouble(std::string_view text) {
    double value = 0;
    if (std::from_chars(text.data(), text.data() + text.size(), value).ec == std::errc() || !isHuge(text))
        return value;
    const double infinity = std::numeric_limits<double>::infinity();
    return text.starts_with('-') ? -infinity : infinity;
}

void zn::detail::appendGeneral(std::string& out, double value) {
    char buffer[32];
    out.append(buffer, std::to_chars(buffer, buffer + sizeof(buffer), value, std::chars_format::general, 6).ptr);
}

void zn::detail::appendFixed(std::string& out, double value) {
    char buffer[kMaxFixedBytes];
    out.append(buffer, std::to_chars(buffer, buffer + sizeof(buffer), value, std::chars_format::fixed, 6).ptr);
}

void zn::detail::appendScientific(std::string& out, double value) {
    char buffer[32];
    out.append(buffer, std::to_chars(buffer, buffer + sizeof(buffer), value, std::chars_format::scientific).ptr);
}

void zn::detail::appendInteger(std::string& out, long long value) {
    char buffer[24];
    out.append(buffer, std::to_chars(buffer, buffer + sizeof(buffer), value).ptr);
}

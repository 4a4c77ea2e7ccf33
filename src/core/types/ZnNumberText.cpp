#include "core/types/ZnNumberText.h"

#include <charconv>
#include <system_error>

namespace {

constexpr std::size_t kMaxFixedBytes = 512; // the largest double has 309 digits before the point

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

void zn::detail::appendGeneral(std::string& out, double value) {
    char buffer[32];
    out.append(buffer,
               std::to_chars(buffer, buffer + sizeof(buffer), value, std::chars_format::general, 6).ptr);
}

void zn::detail::appendFixed(std::string& out, double value) {
    char buffer[kMaxFixedBytes];
    out.append(buffer,
               std::to_chars(buffer, buffer + sizeof(buffer), value, std::chars_format::fixed, 6).ptr);
}

void zn::detail::appendScientific(std::string& out, double value) {
    char buffer[32];
    out.append(buffer,
               std::to_chars(buffer, buffer + sizeof(buffer), value, std::chars_format::scientific).ptr);
}

void zn::detail::appendInteger(std::string& out, long long value) {
    char buffer[24];
    out.append(buffer, std::to_chars(buffer, buffer + sizeof(buffer), value).ptr);
}

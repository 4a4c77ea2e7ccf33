#include "core/io/http1/ZnHttpWireText_.h"

#include <algorithm>
#include <array>
#include <string>
#include <utility>

namespace zn::http::wire {
namespace {

constexpr std::array<bool, 256> tokenTable() {
    std::array<bool, 256> table{};
    for (unsigned c = '0'; c <= '9'; ++c)
        table[c] = true;
    for (unsigned c = 'a'; c <= 'z'; ++c)
        table[c] = table[c - 'a' + 'A'] = true;
    for (const char c : std::string_view("!#$%&'*+-.^_`|~"))
        table[static_cast<unsigned char>(c)] = true;
    return table;
}

constexpr std::array<bool, 256> kTokenTable = tokenTable();

char upperOf(char c) noexcept {
    return c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c;
}

template <char (*Convert)(char) noexcept>
ZnString converted(std::string_view text) {
    std::string result(text);
    std::transform(result.begin(), result.end(), result.begin(), Convert);
    return ZnString(std::move(result));
}

bool isLowerOf(char c, char lowerCase) noexcept {
    return lowerOf(c) == lowerCase;
}

} // namespace

bool isToken(std::string_view text) noexcept {
    for (const char c : text) {
        if (!kTokenTable[static_cast<unsigned char>(c)])
            return false;
    }
    return !text.empty();
}

bool isSafeLineText(std::string_view text) noexcept {
    for (const char c : text) {
        // One comparison for nearly every byte.
        if (static_cast<unsigned char>(c) <= '\r' && (c == '\r' || c == '\n' || c == '\0'))
            return false;
    }
    return true;
}

char lowerOf(char c) noexcept {
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

ZnString lowerText(std::string_view text) {
    return converted<lowerOf>(text);
}

ZnString upperText(std::string_view text) {
    return converted<upperOf>(text);
}

bool equalsLower(std::string_view text, std::string_view lowerCase) noexcept {
    return std::equal(text.begin(), text.end(), lowerCase.begin(), lowerCase.end(), isLowerOf);
}

bool containsLower(std::string_view text, std::string_view lowerCase) noexcept {
    return std::search(text.begin(), text.end(), lowerCase.begin(), lowerCase.end(), isLowerOf) != text.end();
}

int hexDigit(char c) noexcept {
    if (c >= '0' && c <= '9')
        return c - '0';
    const char lower = lowerOf(c);
    return lower >= 'a' && lower <= 'f' ? lower - 'a' + 10 : -1;
}

bool splitHeaderLine(std::string_view line, std::string_view* name, std::string_view* value) noexcept {
    const std::size_t colon = line.find(':');
    if (colon == std::string_view::npos)
        return false;
    *name = trimmedView(line.substr(0, colon));
    *value = trimmedView(line.substr(colon + 1));
    return true;
}

std::string_view cutPiece(std::string_view* rest, std::string_view separator) noexcept {
    const std::size_t end = rest->find(separator);
    const std::string_view piece = rest->substr(0, end);
    rest->remove_prefix(end == std::string_view::npos ? rest->size() : end + separator.size());
    return piece;
}

} // namespace zn::http::wire

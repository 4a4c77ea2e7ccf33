#include "core/io/http1/ZnHttpWireText_.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstring>
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

// Heads are looked through several times, so what is done with every byte is done with eight at once.
constexpr std::size_t kWordBytes = sizeof(std::uint64_t);
constexpr std::uint64_t kOnes = 0x0101010101010101;
constexpr std::uint64_t kTops = kOnes * 0x80;

std::uint64_t wordAt(const char* bytes) noexcept {
    std::uint64_t word = 0;
    std::memcpy(&word, bytes, kWordBytes);
    return word;
}

/// The top bit of each byte that is an ASCII letter from `first` to `last`.
constexpr std::uint64_t lettersIn(std::uint64_t word, char first, char last) noexcept {
    const std::uint64_t low = word & ~kTops;
    const std::uint64_t fromFirst = low + kOnes * static_cast<unsigned>(0x80 - first);
    const std::uint64_t behindLast = low + kOnes * static_cast<unsigned>(0x7F - last);
    return (fromFirst ^ behindLast) & ~word & kTops;
}

/// Turns the letters from `First` to `Last` into those of the other case.
template <char First, char Last>
constexpr std::uint64_t converted(std::uint64_t word) noexcept {
    constexpr int kCaseShift = 2; // from the top bit of a byte to the bit of the case
    return word ^ (lettersIn(word, First, Last) >> kCaseShift);
}

template <char First, char Last>
ZnString converted(std::string_view text) {
    std::string result(text);
    char* const bytes = result.data();
    const auto convertWord = [](char* at) {
        const std::uint64_t word = converted<First, Last>(wordAt(at));
        std::memcpy(at, &word, kWordBytes);
    };
    if (result.size() < kWordBytes) {
        for (char& c : result)
            c = c >= First && c <= Last ? static_cast<char>(c ^ 0x20) : c;
        return ZnString(std::move(result));
    }
    for (std::size_t at = 0; at + kWordBytes < result.size(); at += kWordBytes)
        convertWord(bytes + at);
    convertWord(bytes + result.size() - kWordBytes); // what was converted before stays as it is
    return ZnString(std::move(result));
}

/// Whether one of the bytes is at most as large as CR: there may be CR, LF or NUL among them.
bool hasControl(std::uint64_t word) noexcept {
    return ((word - kOnes * ('\r' + 1)) & ~word & kTops) != 0;
}

bool isLowerOf(char c, char lowerCase) noexcept {
    return lowerOf(c) == lowerCase;
}

} // namespace

bool isToken(std::string_view text) noexcept {
    // A number, so that four of them can be looked at in one go.
    const auto isOne = [text](std::size_t at) -> unsigned { return kTokenTable[static_cast<unsigned char>(text[at])]; };
    std::size_t at = 0;
    for (; at + 4 <= text.size(); at += 4) {
        if ((isOne(at) & isOne(at + 1) & isOne(at + 2) & isOne(at + 3)) == 0)
            return false;
    }
    for (; at < text.size(); ++at) {
        if (isOne(at) == 0)
            return false;
    }
    return !text.empty();
}

bool isSafeLineText(std::string_view text) noexcept {
    std::size_t at = 0;
    while (at + kWordBytes <= text.size() && !hasControl(wordAt(text.data() + at)))
        at += kWordBytes;
    for (; at < text.size(); ++at) { // the end, or a tab or the like was found
        const char c = text[at];
        if (static_cast<unsigned char>(c) <= '\r' && (c == '\r' || c == '\n' || c == '\0'))
            return false;
    }
    return true;
}

char lowerOf(char c) noexcept {
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

ZnString lowerText(std::string_view text) {
    return converted<'A', 'Z'>(text);
}

ZnString upperText(std::string_view text) {
    return converted<'a', 'z'>(text);
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

#include "agent/McpText.h"

#include "core/platform/ZnFileIdentity.h"
#include "core/types/ZnCrypto.h"

#include <algorithm>
#include <cctype>
#include <numeric>
#include <string>

namespace mcp {
namespace {

constexpr std::size_t kLongestName = 64;

/// The length of the UTF-8 character that `text` begins with, 0 when it begins with none.
std::size_t characterBytes(std::string_view text) {
    const auto byteAt = [&](std::size_t i) { return static_cast<unsigned char>(text[i]); };
    const unsigned char first = byteAt(0);
    const std::size_t count = first < 0x80 ? 1 : first >= 0xF0 ? 4 : first >= 0xE0 ? 3 : 2;
    if ((first >= 0x80 && first < 0xC2) || first > 0xF4 || count > text.size())
        return 0;
    for (std::size_t i = 1; i < count; ++i) {
        if ((byteAt(i) & 0xC0) != 0x80)
            return 0;
    }
    // Overlong forms, surrogates and what lies beyond the last code point.
    const bool isIllFormed = count > 2 && ((first == 0xE0 && byteAt(1) < 0xA0) || (first == 0xED && byteAt(1) > 0x9F) ||
                                           (first == 0xF0 && byteAt(1) < 0x90) || (first == 0xF4 && byteAt(1) > 0x8F));
    return isIllFormed ? 0 : count;
}

/// Up to where `text` is UTF-8, from `at` on.
std::size_t wellFormedEnd(std::string_view text, std::size_t at) {
    while (at < text.size()) {
        if (static_cast<unsigned char>(text[at]) < 0x80) { // nearly all of most texts
            ++at;
            continue;
        }
        const std::size_t byteCount = characterBytes(text.substr(at));
        if (byteCount == 0)
            break;
        at += byteCount;
    }
    return at;
}

/// Calls `take` with what is UTF-8 and with a replacement for each byte that is not.
template <typename Take>
void forEachPart(std::string_view text, Take take) {
    for (std::size_t at = 0, end = 0; at < text.size(); at = end + 1) {
        end = wellFormedEnd(text, at);
        take(text.substr(at, end - at));
        if (end < text.size())
            take(std::string_view("\xEF\xBF\xBD"));
    }
}

template <typename Text>
Text repaired(Text text) {
    const std::string_view view = text.view();
    if (wellFormedEnd(view, 0) == view.size())
        return text;
    std::size_t byteCount = 0; // it may be three times as large: one piece, of that size
    forEachPart(view, [&](std::string_view part) { byteCount += part.size(); });
    Text out;
    out.reserve(byteCount);
    forEachPart(view, [&](std::string_view part) { out.append(part); });
    return out;
}

void appendEscaped(ZnString& out, char c) {
    constexpr char kDigits[] = "0123456789ABCDEF";
    const auto byte = static_cast<unsigned char>(c);
    out += "\\x";
    out += kDigits[byte >> 4];
    out += kDigits[byte & 15];
}

std::string folded(std::string_view name) {
    std::string text;
    for (const char c : name.substr(0, kLongestName)) {
        if (c != '-' && c != '_')
            text += static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    }
    return text;
}

/// How many letters have to be changed, left out or added to make the one from the other.
std::size_t distanceOf(const std::string& left, const std::string& right) {
    std::vector<std::size_t> row(right.size() + 1);
    std::iota(row.begin(), row.end(), 0U);
    for (std::size_t i = 1; i <= left.size(); ++i) {
        std::size_t diagonal = row[0]++;
        for (std::size_t j = 1; j <= right.size(); ++j) {
            const std::size_t above = row[j];
            row[j] = std::min({above + 1, row[j - 1] + 1, diagonal + (left[i - 1] == right[j - 1] ? 0U : 1U)});
            diagonal = above;
        }
    }
    return row.back();
}

} // namespace

ZnString printable(std::string_view text, std::size_t maxBytes) {
    ZnString out;
    const std::string_view shown = text.substr(0, maxBytes);
    for (std::size_t at = 0; at < shown.size();) {
        const std::size_t byteCount = characterBytes(shown.substr(at));
        const auto first = static_cast<unsigned char>(shown[at]);
        const bool isControl = first < 0x20 || first == 0x7F ||
                               (byteCount == 2 && first == 0xC2 && static_cast<unsigned char>(shown[at + 1]) < 0xA0);
        if (byteCount == 0 || isControl || first == '"' || first == '\\')
            appendEscaped(out, shown[at++]);
        else
            out.append(shown.substr(std::exchange(at, at + byteCount), byteCount));
    }
    return text.size() > maxBytes ? std::move(out.append("...")) : out;
}

ZnString wellFormed(ZnString text) {
    return repaired(std::move(text));
}

ZnByteArray wellFormed(ZnByteArray bytes) {
    return repaired(std::move(bytes));
}

ZnString hexText(const std::vector<unsigned char>& bytes) {
    constexpr char kDigits[] = "0123456789abcdef";
    ZnString text;
    text.reserve(2 * bytes.size());
    for (const unsigned char byte : bytes) {
        text += kDigits[byte >> 4];
        text += kDigits[byte & 15];
    }
    return text;
}

ZnString sha256Text(std::string_view text) {
    return hexText(ZnCrypto::hash(ZnString(text), HashAlgorithm::Sha256));
}

ZnString lineText(int line, const ZnString& serviceId) {
    const ZnString service = serviceId.isEmpty() ? ZnString() : ", service \"" + printable(serviceId.view()) + "\"";
    return "line " + ZnString::number(static_cast<long long>(line)) + service + ": ";
}

std::string_view nearestName(std::string_view name, const std::vector<std::string_view>& known) {
    const std::string wanted = folded(name);
    std::string_view nearest;
    // More than a third of it is another name, and so is all of it.
    std::size_t leastDistance = std::min(wanted.size() / 3 + 2, wanted.size());
    for (const std::string_view candidate : known) {
        const std::size_t distance = distanceOf(wanted, folded(candidate));
        if (distance < leastDistance) {
            leastDistance = distance;
            nearest = candidate;
        }
    }
    return nearest;
}

ZnString fileProblem(const ZnString& path) {
    switch (ZnFileIdentity::of(path).kind) {
    case ZnFileIdentity::Kind::Missing: return path + ": no such file";
    case ZnFileIdentity::Kind::Directory: return path + ": is a directory";
    default: return path + ": cannot be used";
    }
}

} // namespace mcp

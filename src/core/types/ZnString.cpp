#include "core/types/ZnString.h"

#include "core/types/ZnCrypto.h"
#include "core/types/ZnList.h"
#include "core/types/ZnLogger.h"
#include "core/types/ZnNumberText.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <iterator>
#include <limits>
#include <optional>

namespace {

constexpr char kCategory[] = "zn.core.types.znstring";
constexpr std::size_t kMaxFastDigits = 18; // so many decimal digits always fit in 64 bits
constexpr std::uint64_t kMinMagnitude = std::uint64_t{1} << 63;
constexpr std::size_t kMaxQuotedBytes = 100;
constexpr char32_t kReplacement = 0xFFFD;

bool isTrimmable(char c) {
    return c == ' ' || c == '\t' || c == '\n' || c == '\r';
}

bool isSpace(char c) {
    return c == ' ' || (c >= '\t' && c <= '\r');
}

bool isDigit(char c) {
    return c >= '0' && c <= '9';
}

char lowerChar(char c) {
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c + ('a' - 'A')) : c;
}

char upperChar(char c) {
    return c >= 'a' && c <= 'z' ? static_cast<char>(c - ('a' - 'A')) : c;
}

/// The digits of a number as the conversions see them: trimmed and without underscores, with a NUL somewhere
/// after them.
class NumberText_ {
public:
    explicit NumberText_(const std::string& text) : view_(trimmedView(text)) {
        if (view_.find('_') == std::string_view::npos)
            return; // the usual case needs no copy: what stands behind the view is trailing text
        stripped_ = view_;
        std::erase(stripped_, '_');
        view_ = stripped_;
    }
    NumberText_(const NumberText_&) = delete;
    NumberText_& operator=(const NumberText_&) = delete;
    std::string_view view() const { return view_; }

private:
    std::string_view view_;
    std::string stripped_;
};

std::optional<long long> binaryValue(std::string_view digits, bool isNegative) {
    if (digits.empty())
        return std::nullopt;
    const std::uint64_t limit = isNegative ? kMinMagnitude : kMinMagnitude - 1;
    std::uint64_t magnitude = 0;
    for (char c : digits) {
        if ((c != '0' && c != '1') || magnitude > limit / 2)
            return std::nullopt;
        magnitude = magnitude * 2 + static_cast<std::uint64_t>(c - '0');
        if (magnitude > limit)
            return std::nullopt;
    }
    return static_cast<long long>(isNegative ? std::uint64_t{0} - magnitude : magnitude);
}

/// Decimal digits without a leading 0, few enough not to overflow; text behind them is ignored.
std::optional<long long> shortDecimalValue(std::string_view digits, bool isNegative) {
    if (digits.empty() || digits.front() < '1' || digits.front() > '9')
        return std::nullopt;
    long long value = 0;
    for (std::size_t index = 0; index < digits.size() && isDigit(digits[index]); ++index) {
        if (index == kMaxFastDigits)
            return std::nullopt;
        value = value * 10 + (digits[index] - '0');
    }
    return isNegative ? -value : value;
}

std::optional<long long> integerValue(std::string_view text) {
    if (text.empty())
        return std::nullopt;
    const bool isNegative = text.front() == '-';
    const std::string_view rest = text.substr(isNegative || text.front() == '+' ? 1 : 0);
    if (rest.empty())
        return std::nullopt;
    if (rest.starts_with("0b") || rest.starts_with("0B"))
        return binaryValue(rest.substr(2), isNegative);
    if (auto value = shortDecimalValue(rest, isNegative))
        return value;
    const int savedErrno = std::exchange(errno, 0);
    char* end = nullptr;
    const long long value = std::strtoll(text.data(), &end, 0);
    const bool isValid = errno == 0 && end != text.data();
    errno = savedErrno;
    return isValid ? std::optional<long long>(value) : std::nullopt;
}

/// The C rule: text behind the number is ignored. Overflow and underflow to 0 fail.
std::optional<double> floatingValue(std::string_view text) {
    double value = 0;
    if (zn::detail::parseDecimal(text, &value))
        return value;
    const int savedErrno = std::exchange(errno, 0);
    char* end = nullptr;
    value = std::strtod(text.data(), &end);
    const bool isOutOfRange = errno == ERANGE && (value == 0 || std::isinf(value));
    errno = savedErrno;
    return isOutOfRange || end == text.data() ? std::nullopt : std::optional<double>(value);
}

std::optional<double> numberValue(const std::string& string) {
    const NumberText_ number(string);
    const std::string_view text = number.view();
    if (text.empty())
        return std::nullopt;
    if (text.find_first_of(".eE") != std::string_view::npos)
        return floatingValue(text);
    if (auto value = integerValue(text))
        return static_cast<double>(*value);
    return floatingValue(text);
}

template <typename Integer>
ZnString numberText(Integer value, int base) {
    char buffer[72]; // a sign and 64 binary digits
    const char* const end = std::to_chars(buffer, std::end(buffer), value, base < 2 || base > 36 ? 10 : base).ptr;
    return ZnString(buffer, static_cast<std::size_t>(end - buffer));
}

/// For the log: a text that is no number may be anything, and of any size.
std::string quoted(const std::string& text) {
    if (text.size() <= kMaxQuotedBytes)
        return text;
    return text.substr(0, kMaxQuotedBytes) + "... (" + std::to_string(text.size()) + " bytes)";
}

void appendCodePoint(std::string& out, char32_t code) {
    if (code > 0x10FFFF || (code >= 0xD800 && code <= 0xDFFF))
        code = kReplacement;
    if (code < 0x80) {
        out += static_cast<char>(code);
        return;
    }
    const int trailCount = code < 0x800 ? 1 : code < 0x10000 ? 2 : 3;
    const unsigned lead = trailCount == 1 ? 0xC0 : trailCount == 2 ? 0xE0 : 0xF0;
    out += static_cast<char>(lead | (code >> (6 * trailCount)));
    for (int trail = trailCount - 1; trail >= 0; --trail)
        out += static_cast<char>(0x80 | ((code >> (6 * trail)) & 0x3F));
}

/// Takes one code point from `text` at `*at`; an ill-formed sequence is taken up to the byte that breaks it.
char32_t takeCodePoint(std::string_view text, std::size_t* at) {
    const auto byteAt = [&](std::size_t index) { return static_cast<unsigned char>(text[index]); };
    const unsigned lead = byteAt((*at)++);
    if (lead < 0x80)
        return lead;
    if (lead < 0xC2 || lead > 0xF4)
        return kReplacement;
    const int trailCount = lead < 0xE0 ? 1 : lead < 0xF0 ? 2 : 3;
    // The second byte's range excludes overlong forms, surrogates and values above 0x10FFFF.
    unsigned low = lead == 0xE0 ? 0xA0 : lead == 0xF0 ? 0x90 : 0x80;
    unsigned high = lead == 0xED ? 0x9F : lead == 0xF4 ? 0x8F : 0xBF;
    char32_t code = lead & (0x3Fu >> trailCount);
    for (int trail = 0; trail < trailCount; ++trail) {
        if (*at == text.size() || byteAt(*at) < low || byteAt(*at) > high)
            return kReplacement;
        code = (code << 6) | (byteAt((*at)++) & 0x3F);
        low = 0x80;
        high = 0xBF;
    }
    return code;
}

} // namespace

ZnString ZnString::mid(int position, int length) const {
    if (position < 0 || static_cast<std::size_t>(position) >= text_.size())
        return ZnString();
    const std::size_t count = length < 0 ? npos : static_cast<std::size_t>(length);
    return ZnString(view().substr(static_cast<std::size_t>(position), count));
}

bool ZnString::equalsIgnoreCase(std::string_view other) const noexcept {
    return std::equal(text_.begin(), text_.end(), other.begin(), other.end(),
                      [](char left, char right) { return lowerChar(left) == lowerChar(right); });
}

ZnString& ZnString::replace(std::string_view from, std::string_view to) {
    std::size_t found = from.empty() ? npos : text_.find(from);
    if (found == npos)
        return *this;
    // Built anew: replacing in place would move the rest of the text once per occurrence.
    std::string result;
    std::size_t copied = 0;
    for (; found != npos; found = text_.find(from, copied)) {
        result.append(text_, copied, found - copied).append(to);
        copied = found + from.size();
    }
    result.append(text_, copied);
    text_ = std::move(result);
    return *this;
}

ZnList<ZnString> ZnString::split(char separator) const {
    ZnList<ZnString> pieces;
    std::size_t start = 0;
    for (std::size_t end = text_.find(separator); end != npos; end = text_.find(separator, start)) {
        pieces.append(ZnString(view().substr(start, end - start)));
        start = end + 1;
    }
    pieces.append(ZnString(view().substr(start)));
    return pieces;
}

ZnString ZnString::trimmed() const {
    return ZnString(trimmedView(text_));
}

void ZnString::trim() {
    text_.erase(text_.begin(), std::find_if_not(text_.begin(), text_.end(), isSpace));
    text_.erase(std::find_if_not(text_.rbegin(), text_.rend(), isSpace).base(), text_.end());
}

ZnString ZnString::toLower() const {
    std::string result = text_;
    std::transform(result.begin(), result.end(), result.begin(), lowerChar);
    return result;
}

ZnString ZnString::toUpper() const {
    std::string result = text_;
    std::transform(result.begin(), result.end(), result.begin(), upperChar);
    return result;
}

int ZnString::toInt(bool* ok) const {
    const std::optional<long long> value = integerValue(NumberText_(text_).view());
    const bool isValid =
        value && *value >= std::numeric_limits<int>::min() && *value <= std::numeric_limits<int>::max();
    if (ok != nullptr)
        *ok = isValid;
    if (isValid)
        return static_cast<int>(*value);
    ZN_LOG_ERROR(kCategory, "ZnString::toInt") << "Invalid int conversion in ZnString: " << quoted(text_);
    return 0;
}

long long ZnString::toLongLong(bool* ok) const {
    const std::optional<long long> value = integerValue(NumberText_(text_).view());
    if (ok != nullptr)
        *ok = value.has_value();
    else if (!value)
        ZN_LOG_ERROR(kCategory, "ZnString::toLongLong")
            << "Invalid long long conversion in ZnString: " << quoted(text_);
    return value.value_or(0);
}

float ZnString::toFloat(bool* ok) const {
    const std::optional<double> value = numberValue(text_);
    if (ok != nullptr)
        *ok = value.has_value();
    if (value)
        return static_cast<float>(*value);
    ZN_LOG_ERROR(kCategory, "ZnString::toFloat") << "Invalid float conversion in ZnString: " << quoted(text_);
    return 0.0F;
}

bool ZnString::toDouble(double* out) const {
    const std::optional<double> value = numberValue(text_);
    if (value)
        *out = *value;
    return value.has_value();
}

std::wstring ZnString::toStdWString() const {
    std::wstring result;
    result.reserve(text_.size());
    for (std::size_t at = 0; at < text_.size();)
        result += static_cast<wchar_t>(takeCodePoint(text_, &at));
    return result;
}

ZnString ZnString::fromWCharArray(const wchar_t* text) {
    std::string result;
    for (; text != nullptr && *text != L'\0'; ++text)
        appendCodePoint(result, static_cast<char32_t>(*text));
    return result;
}

ZnString ZnString::fromWCharArray(const std::wstring& text) {
    return fromWCharArray(text.c_str());
}

ZnString ZnString::number_(long long value, int base) {
    return numberText(value, base);
}

ZnString ZnString::number_(unsigned long long value, int base) {
    return numberText(value, base);
}

ZnString ZnString::encryptAES(const ZnString& key) const {
    try {
        return ZnCrypto::encryptAES(key, *this);
    } catch (const std::exception& error) {
        ZN_LOG_ERROR(kCategory, "ZnString::encryptAES") << "Encryption error: " << error.what();
        return ZnString();
    }
}

ZnString ZnString::decryptAES(const ZnString& key) const {
    try {
        return ZnCrypto::decryptAES(key, *this);
    } catch (const std::exception& error) {
        ZN_LOG_ERROR(kCategory, "ZnString::decryptAES") << "Decryption error: " << error.what();
        return ZnString();
    }
}

bool parseBool(const ZnString& text, bool& out) {
    const std::string_view trimmed = trimmedView(text.view());
    if (trimmed.size() > 5) // longer than every word below
        return false;
    const ZnString word = ZnString(trimmed).toLower();
    if (word == "1" || word == "true" || word == "on" || word == "yes")
        out = true;
    else if (word == "0" || word == "false" || word == "off" || word == "no")
        out = false;
    else
        return false;
    return true;
}

std::string_view trimmedView(std::string_view text) noexcept {
    while (!text.empty() && isTrimmable(text.front()))
        text.remove_prefix(1);
    while (!text.empty() && isTrimmable(text.back()))
        text.remove_suffix(1);
    return text;
}

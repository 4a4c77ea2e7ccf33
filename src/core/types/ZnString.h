#pragma once

#include <compare>
#include <concepts>
#include <cstddef>
#include <functional>
#include <ostream>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>

template <typename T>
class ZnList;

/// Text as a value: one byte string, deep copies, UTF-8 where it meets the platform.
///
/// Every operation works on bytes, so lengths and positions count bytes, never code points. May hold NUL.
/// Thread: a value, not safe for concurrent mutation.
class ZnString {
public:
    static constexpr std::size_t npos = std::string::npos;

    ZnString() noexcept = default;
    ZnString(const char* text) : text_(text == nullptr ? "" : text) {} // a null pointer counts as empty
    ZnString(const char* data, std::size_t byteCount)
        : text_(byteCount == 0 ? std::string() : std::string(data, byteCount)) {}
    ZnString(std::string text) noexcept : text_(std::move(text)) {}
    explicit ZnString(std::string_view text) : text_(text) {}

    std::size_t size() const noexcept { return text_.size(); }
    bool isEmpty() const noexcept { return text_.empty(); }
    const char* data() const noexcept { return text_.c_str(); } // NUL-terminated
    const std::string& str() const noexcept { return text_; }
    std::string_view view() const noexcept { return text_; }
    std::string takeStr() && noexcept { return std::move(text_); }
    char operator[](std::size_t index) const noexcept { return text_[index]; } // index below size()
    auto begin() const noexcept { return text_.begin(); }
    auto end() const noexcept { return text_.end(); }

    void reserve(std::size_t byteCount) { text_.reserve(byteCount); }
    void clear() noexcept { text_.clear(); }
    ZnString& append(const char* data, std::size_t byteCount) { return append(std::string_view(data, byteCount)); }
    ZnString& append(std::string_view text) {
        text_.append(text);
        return *this;
    }
    ZnString& operator+=(const ZnString& other) { return append(other.view()); }
    ZnString& operator+=(const char* text) { return text == nullptr ? *this : append(std::string_view(text)); }
    ZnString& operator+=(char c) {
        text_.push_back(c);
        return *this;
    }
    friend ZnString operator+(ZnString left, const ZnString& right) { return std::move(left += right); }
    friend ZnString operator+(ZnString left, const char* right) { return std::move(left += right); }
    friend ZnString operator+(const char* left, const ZnString& right) { return std::move(ZnString(left) += right); }

    friend bool operator==(const ZnString& left, const ZnString& right) noexcept { return left.text_ == right.text_; }
    friend bool operator==(const ZnString& left, const char* right) noexcept {
        return left.text_ == (right == nullptr ? "" : right);
    }
    /// Byte order: memcmp over the shorter length, then the shorter first.
    friend std::strong_ordering operator<=>(const ZnString& left, const ZnString& right) noexcept {
        return order_(left.view(), right.view());
    }
    // Let an ordered map with std::less<> find a key by view, without making a ZnString.
    friend bool operator<(const ZnString& left, std::string_view right) noexcept {
        return order_(left.view(), right) < 0;
    }
    friend bool operator<(std::string_view left, const ZnString& right) noexcept {
        return order_(left, right.view()) < 0;
    }
    friend bool operator<(const ZnString& left, const char* right) noexcept { return left.view() < right; }
    friend bool operator<(const char* left, const ZnString& right) noexcept { return left < right.view(); }

    /// A negative or too large `position` gives an empty text; a negative or too large `length` means to the end.
    ZnString mid(int position, int length = -1) const;
    std::size_t indexOf(std::string_view needle, std::size_t from = 0) const noexcept {
        return text_.find(needle, from);
    }
    std::size_t lastIndexOf(std::string_view needle) const noexcept { return text_.rfind(needle); }
    bool contains(std::string_view needle) const noexcept { return text_.find(needle) != npos; }
    bool startsWith(std::string_view prefix) const noexcept { return text_.starts_with(prefix); }
    bool endsWith(std::string_view suffix) const noexcept { return text_.ends_with(suffix); }
    /// ASCII letters of either case count as equal.
    bool equalsIgnoreCase(std::string_view other) const noexcept;
    /// Replaces every occurrence, from the front, without looking at what it has put in. An empty `from` does nothing.
    ZnString& replace(std::string_view from, std::string_view to);
    /// The pieces between the separators, empty ones included; an empty text gives one empty piece.
    ZnList<ZnString> split(char separator) const;

    /// Without blanks, tabs, line feeds and carriage returns at both ends, and nothing else.
    ZnString trimmed() const;
    /// In place; removes what the C locale's isspace() holds to be white space.
    void trim();
    ZnString toLower() const;
    ZnString toUpper() const;

    /// Integer with optional sign, "_" ignored, 0b, 0x and leading-0 octal notations; what follows the digits is
    /// ignored. Failure: 0, *ok false, and (toLongLong: without `ok`) an error in the log, with the text's beginning.
    int toInt(bool* ok = nullptr) const;
    long long toLongLong(bool* ok = nullptr) const;
    float toFloat(bool* ok = nullptr) const;
    /// Returns false and leaves `*out` alone when the text is no number. Does not log.
    bool toDouble(double* out) const;

    /// UTF-8 to code points; ill-formed input becomes U+FFFD.
    std::wstring toStdWString() const;
    /// Code points to UTF-8; surrogates and values above 0x10FFFF become U+FFFD. Null gives an empty text.
    static ZnString fromWCharArray(const wchar_t* text);
    static ZnString fromWCharArray(const std::wstring& text);

    /// Of any integer type. Lower-case digits, with a sign in front of a negative number. A base outside 2 to 36
    /// counts as 10.
    template <std::integral Integer>
    requires(!std::is_same_v<Integer, bool>) static ZnString number(Integer value, int base = 10) {
        using Wide = std::conditional_t<std::is_signed_v<Integer>, long long, unsigned long long>;
        return number_(static_cast<Wide>(value), base);
    }

    /// Cipher text in base64, or the plain text of such; an empty text, with an error in the log, on failure.
    ZnString encryptAES(const ZnString& key) const;
    ZnString decryptAES(const ZnString& key) const;

    friend std::ostream& operator<<(std::ostream& out, const ZnString& text) { return out << text.text_; }

private:
    static ZnString number_(long long value, int base);
    static ZnString number_(unsigned long long value, int base);
    static std::strong_ordering order_(std::string_view left, std::string_view right) noexcept {
        // Keys of a map mostly differ in their first byte, which spares the call.
        if (!left.empty() && !right.empty() && left.front() != right.front())
            return static_cast<unsigned char>(left.front()) <=> static_cast<unsigned char>(right.front());
        return left.compare(right) <=> 0;
    }

    std::string text_;
};

/// 1, true, on, yes and 0, false, off, no, trimmed, in any case; false, with `out` unchanged, for anything else.
bool parseBool(const ZnString& text, bool& out);

/// Trimmed view of `text`, by the rule of ZnString::trimmed, without a copy.
std::string_view trimmedView(std::string_view text) noexcept;

template <>
struct std::hash<ZnString> {
    std::size_t operator()(const ZnString& text) const noexcept { return std::hash<std::string>()(text.str()); }
};

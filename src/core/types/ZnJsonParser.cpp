#include "core/types/ZnJsonParser.h"

#include "core/types/ZnCrypto.h"
#include "core/types/ZnJsonNames.h"
#include "core/types/ZnJsonScan.h"
#include "core/types/ZnLogger.h"
#include "core/types/ZnNumberText.h"

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <exception>

namespace {

constexpr std::string_view kByteOrderMark = "\xEF\xBB\xBF";
constexpr std::size_t kContextBytes = 20;
constexpr std::size_t kMaxFastDigits = 18;  // so many decimal digits always fit in 64 bits
constexpr std::size_t kMaxExactDigits = 15; // so many decimal digits are exact in a double
constexpr std::size_t kNearMembers = 16;    // so many are looked at when a name comes out of order
constexpr std::size_t kFirstChildren = 8;   // of a container whose count is not known

bool isDigit(char c) {
    return c >= '0' && c <= '9';
}

bool isLetter(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}

int hexValue(char c) {
    if (isDigit(c))
        return c - '0';
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    return c >= 'A' && c <= 'F' ? c - 'A' + 10 : -1;
}

void appendUtf8_(std::string& out, unsigned code) {
    const auto trail = [code](int shift) { return static_cast<char>(0x80 | ((code >> shift) & 0x3F)); };
    if (code < 0x80) {
        out += static_cast<char>(code);
    } else if (code < 0x800) {
        out += static_cast<char>(0xC0 | (code >> 6));
        out += trail(0);
    } else if (code < 0x10000) {
        out += static_cast<char>(0xE0 | (code >> 12));
        out += trail(6);
        out += trail(0);
    } else {
        out += static_cast<char>(0xF0 | (code >> 18));
        out += trail(12);
        out += trail(6);
        out += trail(0);
    }
}

enum class ScalarShape_ { Text, True, False, Null, Integer, Decimal };

/// What a string literal reads as. The first byte rules out most texts.
ScalarShape_ scalarShape(std::string_view text) {
    if (text.empty())
        return ScalarShape_::Text;
    switch (text.front()) {
    case 't': return text == "true" ? ScalarShape_::True : ScalarShape_::Text;
    case 'f': return text == "false" ? ScalarShape_::False : ScalarShape_::Text;
    case 'n': return text == "null" ? ScalarShape_::Null : ScalarShape_::Text;
    default: break;
    }
    bool hasDigit = false;
    bool hasPoint = false;
    for (char c : text.substr(text.front() == '-' ? 1 : 0)) {
        if (isDigit(c))
            hasDigit = true;
        else if (c == '.' && !hasPoint)
            hasPoint = true;
        else
            return ScalarShape_::Text;
    }
    if (!hasDigit)
        return ScalarShape_::Text;
    return hasPoint ? ScalarShape_::Decimal : ScalarShape_::Integer;
}

/// A text of a sign and digits that needs none of ZnString's rules: no leading 0, no overflow.
bool readPlainInteger(std::string_view text, std::int64_t* value) {
    const bool isNegative = text.front() == '-';
    const std::string_view digits = text.substr(isNegative ? 1 : 0);
    if (digits.front() == '0' || digits.size() > kMaxFastDigits)
        return false;
    std::int64_t magnitude = 0;
    for (char c : digits)
        magnitude = magnitude * 10 + (c - '0');
    *value = isNegative ? -magnitude : magnitude;
    return true;
}

/// A text of a sign, digits and a point, so few that both parts of the division are exact, and so its result is the
/// nearest double.
double shortDecimal(std::string_view text) {
    double digits = 0;
    double scale = 1;
    bool isBehindPoint = false;
    for (char c : text) {
        if (isDigit(c)) {
            digits = digits * 10 + (c - '0');
            scale = isBehindPoint ? scale * 10 : scale;
        }
        isBehindPoint = isBehindPoint || c == '.';
    }
    return text.front() == '-' ? -digits / scale : digits / scale;
}

/// The value of a deciphered bare token.
ZnJsonValue parseScalarText_(const ZnString& text) {
    const std::string_view view = text.view();
    if (view == "true" || view == "false")
        return ZnJsonValue(view == "true");
    if (view == "null")
        return ZnJsonValue();
    if (view.find_first_of(".eE") != std::string_view::npos) {
        double value = 0;
        if (zn::detail::parseDecimal(view, &value))
            return ZnJsonValue(value);
    } else {
        std::int64_t value = 0;
        const auto [end, code] = std::from_chars(view.data(), view.data() + view.size(), value);
        if (code == std::errc() && end == view.data() + view.size())
            return ZnJsonValue(value);
    }
    return ZnJsonValue(text);
}

/// `message` with the place and its surroundings.
ZnString parseError(std::string_view text, std::size_t index, const char* message) {
    const std::size_t from = index < kContextBytes + 1 ? 0 : index - kContextBytes;
    const std::size_t to = std::min(index + kContextBytes, text.size());
    ZnString error(message);
    error.append(" (index ").append(std::to_string(index)).append(") near \"");
    return error.append(text.substr(from, to - from)).append("\"");
}

} // namespace

bool ZnJsonParser_::parseJsonText_(ZnJsonValue& root, ZnString& error) {
    if (text_.starts_with(kByteOrderMark))
        pos_ = kByteOrderMark.size();
    counts_.count(text_.substr(pos_));
    arena_.expect(counts_.slabBytes());
    const bool isComplete = parseTree_(root);
    logBadNumbers_();
    if (!isComplete) {
        root = ZnJsonValue();
        error = std::move(error_);
        return false;
    }
    skipSpace_();
    if (atEnd_())
        return true;
    error = "Unexpected characters at the end of JSON.";
    return false;
}

bool ZnJsonParser_::parseTree_(ZnJsonValue& root) {
    for (ZnJsonCell_* slot = &root.cell_; slot != nullptr; slot = nextSlot_()) {
        if (!parseValue_(*slot))
            return false;
    }
    return error_.isEmpty();
}

/// Behind a value or an opening bracket: closes what ends here and gives the place of the next value; null
/// when the root is complete, and on failure.
ZnJsonCell_* ZnJsonParser_::nextSlot_() {
    while (depth_ > 0) {
        ZnJsonCell_& container = *open_[depth_ - 1];
        const bool isArray = !container.isObject();
        if (!isJustOpened_ && !stepOverSeparator_(isArray))
            return nullptr;
        isJustOpened_ = false;
        skipSpace_();
        if (atEnd_()) {
            fail_(isArray ? "Unterminated JSON array" : "Unterminated JSON object");
            return nullptr;
        }
        if (text_[pos_] != (isArray ? ']' : '}'))
            return isArray ? addElement_(container) : nextMember_(container);
        ++pos_;
        closeContainer_(container);
        --depth_;
    }
    return nullptr;
}

ZnJsonCell_* ZnJsonParser_::addElement_(ZnJsonCell_& array) {
    if (array.block.count >= capacity_[depth_ - 1])
        grow_(array);
    ZnJsonValue* const element = array.values() + array.block.count++;
    return &(::new (static_cast<void*>(element)) ZnJsonValue)->cell_;
}

/// For a container with more children than were counted.
void ZnJsonParser_::grow_(ZnJsonCell_& container) {
    std::uint32_t& capacity = capacity_[depth_ - 1];
    const std::size_t larger = std::max<std::size_t>(capacity * std::size_t{2}, 2 * kFirstChildren);
    zn::detail::moveToBlock(container, larger, nullptr);
    capacity = static_cast<std::uint32_t>(larger);
}

/// Steps over a comma behind a value, and stays in front of a closing bracket.
bool ZnJsonParser_::stepOverSeparator_(bool isArray) {
    skipSpace_();
    if (atEnd_())
        return fail_(isArray ? "Unterminated JSON array" : "Unterminated JSON object");
    if (text_[pos_] == ',')
        ++pos_;
    else if (text_[pos_] != (isArray ? ']' : '}'))
        return fail_(isArray ? "Expected ',' or ']' in array" : "Expected ',' or '}' in object");
    return true;
}

/// Reads a key and its colon, and gives the place of the value.
ZnJsonCell_* ZnJsonParser_::nextMember_(ZnJsonCell_& object) {
    if (text_[pos_] != '"') {
        fail_("Expected string key in object");
        return nullptr;
    }
    std::string_view name;
    if (!parseString_(&name))
        return nullptr;
    skipSpace_();
    if (atEnd_() || text_[pos_] != ':') {
        fail_("Expected ':' after object key");
        return nullptr;
    }
    ++pos_;
    return addMember_(object, name);
}

/// Keeps the members in order. A name that belongs far from the end is put there all the same, and the object sorted
/// when it closes: moving ever more members out of the way would take a quadratic time.
ZnJsonCell_* ZnJsonParser_::addMember_(ZnJsonCell_& object, std::string_view name) {
    const std::size_t count = object.block.count;
    if (2 * count >= capacity_[depth_ - 1])
        grow_(object);
    std::size_t index = count;
    for (; index > 0; --index) {
        const int difference = zn::detail::compareNames(name, object.values()[2 * (index - 1)].string());
        if (difference == 0) {
            ZnJsonValue& repeated = object.values()[2 * index - 1];
            repeated = ZnJsonValue();
            return &repeated.cell_;
        }
        if (difference > 0)
            break;
        if (count - index == kNearMembers) {
            object.block.isUnsorted = true;
            index = count;
            break;
        }
    }
    ZnJsonValue* const member = zn::detail::insertMember(object, index);
    setText_(member[0].cell_, JsonType::String, name);
    return &member[1].cell_;
}

bool ZnJsonParser_::parseValue_(ZnJsonCell_& slot) {
    skipSpace_();
    if (atEnd_())
        return fail_("Unexpected end of JSON input");
    if (valueCount_ == maxValues_)
        return fail_("JSON has too many values");
    ++valueCount_;
    const char c = text_[pos_];
    if (c == '"')
        return parseStringValue_(slot);
    if (c == '{' || c == '[')
        return openContainer_(slot, c);
    return parseLiteralOrNumber_(slot, c);
}

bool ZnJsonParser_::parseLiteralOrNumber_(ZnJsonCell_& slot, char first) {
    if (key_.isEmpty()) {
        if (!isDigit(first) && first != '-' && first != 't' && first != 'f' && first != 'n')
            return fail_("Invalid JSON token");
    } else if (parseEncryptedToken_(slot)) {
        return true;
    }
    if (first == 't' || first == 'f')
        return parseBoolean_(slot);
    return first == 'n' ? parseNull_() : parseNumber_(slot);
}

bool ZnJsonParser_::openContainer_(ZnJsonCell_& slot, char bracket) {
    if (depth_ == kMaxDepth_)
        return fail_("JSON nesting too deep");
    slot = ZnJsonCell_(bracket == '[' ? JsonType::Array : JsonType::Object);
    // No more than can still come: it need not be true what the text seems to hold.
    const std::size_t childCount = std::min(counts_.next(), maxValues_ - valueCount_);
    const std::size_t capacity = childCount * slot.valuesPerChild();
    if (capacity > 0)
        zn::detail::makeBlock(slot, capacity, &arena_);
    capacity_[depth_] = static_cast<std::uint32_t>(capacity);
    ++pos_;
    open_[depth_++] = &slot;
    isJustOpened_ = true;
    return true;
}

void ZnJsonParser_::closeContainer_(ZnJsonCell_& container) {
    if (container.isObject() && std::exchange(container.block.isUnsorted, false))
        zn::detail::sortMembers(container);
    if (container.block.slabOffset == 0 && zn::detail::blockCapacity(container) / 2 > container.valueCount())
        zn::detail::moveToBlock(container, container.valueCount(), nullptr); // most names were repeated
}

bool ZnJsonParser_::parseStringValue_(ZnJsonCell_& slot) {
    std::string_view text;
    if (!parseString_(&text))
        return false;
    if (!key_.isEmpty()) {
        try {
            unescaped_ = ZnCrypto::decryptAES(key_, ZnString(text)).takeStr();
        } catch (const std::exception&) {
            return fail_("Unable to decrypt string value");
        }
        text = unescaped_;
    }
    if (isExact_ || !readScalar_(text, slot))
        setText_(slot, JsonType::String, text);
    return true;
}

/// Sets the scalar that a string literal reads as; false when it is a plain text.
bool ZnJsonParser_::readScalar_(std::string_view text, ZnJsonCell_& slot) {
    switch (scalarShape(text)) {
    case ScalarShape_::Text: return false;
    case ScalarShape_::True:
    case ScalarShape_::False: slot = ZnJsonCell_(JsonType::Boolean, text.front() == 't' ? 1 : 0); return true;
    case ScalarShape_::Null: return true;
    case ScalarShape_::Integer: slot = ZnJsonCell_(JsonType::Integer, readInteger_(text)); return true;
    case ScalarShape_::Decimal: slot = ZnJsonCell_(readDecimal_(text)); return true;
    }
    return false;
}

/// By ZnString's rules; 0 for what does not fit.
std::int64_t ZnJsonParser_::readInteger_(std::string_view text) {
    std::int64_t plain = 0;
    if (readPlainInteger(text, &plain))
        return plain;
    const ZnString literal(text);
    bool ok = false;
    const std::int64_t value = literal.toLongLong(&ok);
    return ok || !mayLogNumber_() ? value : literal.toLongLong(); // the latter logs
}

/// As readInteger_, rounded to the precision of a float.
double ZnJsonParser_::readDecimal_(std::string_view text) {
    if (text.size() <= kMaxExactDigits)
        return static_cast<double>(static_cast<float>(shortDecimal(text)));
    const ZnString literal(text);
    double value = 0;
    if (literal.toDouble(&value))
        return static_cast<double>(static_cast<float>(value));
    return mayLogNumber_() ? static_cast<double>(literal.toFloat()) : 0.0; // the former logs
}

void ZnJsonParser_::logBadNumbers_() const {
    if (badNumberCount_ > kLoggedNumbers_ && !isQuiet_)
        ZN_LOG_ERROR("zn.core.types.znjsondocument", "ZnJsonDocument::fromJson")
            << "Invalid number conversions in one JSON text: " << badNumberCount_;
}

bool ZnJsonParser_::parseEncryptedToken_(ZnJsonCell_& slot) {
    const std::size_t end = zn::detail::tokenEnd(text_, pos_);
    if (end == pos_)
        return false;
    try {
        const ZnString plain = ZnCrypto::decryptAES(key_, ZnString(text_.substr(pos_, end - pos_)));
        slot = parseScalarText_(plain).takeCell_(JsonType::Null);
    } catch (const std::exception&) {
        return false; // not enciphered
    }
    pos_ = end;
    return true;
}

bool ZnJsonParser_::parseBoolean_(ZnJsonCell_& slot) {
    const std::string_view word = takeLetters_();
    if (word != "true" && word != "false")
        return fail_("Invalid boolean literal");
    slot = ZnJsonCell_(JsonType::Boolean, word == "true" ? 1 : 0);
    return true;
}

bool ZnJsonParser_::parseNull_() {
    return takeLetters_() == "null" || fail_("Invalid literal, expected 'null'");
}

bool ZnJsonParser_::parseNumber_(ZnJsonCell_& slot) {
    const std::size_t start = pos_;
    if (text_[pos_] == '-')
        ++pos_;
    const std::size_t firstDigit = pos_;
    if (!scanDigits_("Expected digit in number literal"))
        return false;
    if (text_[firstDigit] == '0' && pos_ > firstDigit + 1)
        return failAt_(firstDigit + 1, "Leading zeros are not allowed in JSON numbers");
    bool isFloating = false;
    if (!atEnd_() && text_[pos_] == '.') {
        isFloating = true;
        ++pos_;
        if (!scanDigits_("Expected digit after decimal point"))
            return false;
    }
    if (!atEnd_() && (text_[pos_] == 'e' || text_[pos_] == 'E')) {
        isFloating = true;
        ++pos_;
        if (!atEnd_() && (text_[pos_] == '+' || text_[pos_] == '-'))
            ++pos_;
        if (!scanDigits_("Expected digit in exponent"))
            return false;
    }
    return finishNumber_(slot, start, isFloating);
}

/// Steps over the digits; there must be one.
bool ZnJsonParser_::scanDigits_(const char* message) {
    const std::size_t start = pos_;
    while (!atEnd_() && isDigit(text_[pos_]))
        ++pos_;
    return pos_ > start || fail_(message);
}

bool ZnJsonParser_::finishNumber_(ZnJsonCell_& slot, std::size_t start, bool isFloating) {
    const std::string_view literal = text_.substr(start, pos_ - start);
    if (isExact_) {
        keepNumber_(slot, literal, isFloating);
        return true;
    }
    if (isFloating) {
        double value = 0;
        if (!zn::detail::parseDecimal(literal, &value))
            return failAt_(start, "Invalid floating-point number");
        slot = ZnJsonCell_(value);
        return true;
    }
    std::int64_t value = 0;
    if (std::from_chars(literal.data(), literal.data() + literal.size(), value).ec != std::errc())
        return failAt_(start, "Invalid integer number");
    slot = ZnJsonCell_(JsonType::Integer, value);
    return true;
}

/// An Integer that is written as `literal`, or a Double that keeps it; the grammar has been checked.
void ZnJsonParser_::keepNumber_(ZnJsonCell_& slot, std::string_view literal, bool isFloating) {
    const char* end = literal.data() + literal.size();
    const bool isPlain = !isFloating && literal != "-0";
    std::int64_t value = 0;
    if (isPlain && std::from_chars(literal.data(), end, value).ec == std::errc())
        slot = ZnJsonCell_(JsonType::Integer, value);
    else
        setText_(slot, JsonType::Double, literal);
}

/// A String, or a Double that keeps its digits.
void ZnJsonParser_::setText_(ZnJsonCell_& slot, JsonType type, std::string_view text) {
    const int flags = type == JsonType::Double ? ZnJsonCell_::kKeepsDigits : 0;
    zn::detail::setText(slot, static_cast<std::uint8_t>(static_cast<int>(type) | flags), text, &arena_);
}

/// Reads a string literal from its opening quote on. `*text` is its content: a part of the parsed text, or, when there
/// were escapes, unescaped_.
bool ZnJsonParser_::parseString_(std::string_view* text) {
    const std::size_t start = ++pos_;
    std::size_t copied = start;
    unescaped_.clear();
    for (;;) {
        pos_ = zn::detail::plainRunEnd(text_, pos_);
        if (atEnd_())
            return fail_("Unterminated string literal");
        if (text_[pos_] == '"')
            break;
        if (text_[pos_] != '\\')
            return fail_("Unescaped control character in string");
        unescaped_.append(text_, copied, pos_ - copied);
        ++pos_;
        if (!parseEscape_(unescaped_))
            return false;
        copied = pos_;
    }
    const std::string_view tail = text_.substr(copied, pos_ - copied);
    ++pos_;
    if (copied == start) {
        *text = tail;
        return true;
    }
    unescaped_.append(tail);
    *text = unescaped_;
    return true;
}

/// Behind a backslash.
bool ZnJsonParser_::parseEscape_(std::string& out) {
    static constexpr std::string_view kLetters = "\"/\\bfnrt";
    static constexpr char kMeanings[] = "\"/\\\b\f\n\r\t";
    if (atEnd_())
        return fail_("Invalid escape sequence in string");
    if (text_[pos_] == 'u') {
        ++pos_;
        return parseUnicodeEscape_(out);
    }
    const std::size_t found = kLetters.find(text_[pos_]);
    if (found == std::string_view::npos)
        return fail_("Invalid escape character in string");
    ++pos_;
    out += kMeanings[found];
    return true;
}

/// Behind a backslash and "u".
bool ZnJsonParser_::parseUnicodeEscape_(std::string& out) {
    unsigned code = 0;
    if (!parseHex4_(&code))
        return false;
    if (code >= 0xDC00 && code <= 0xDFFF)
        return fail_("Unexpected low surrogate without leading high surrogate");
    if (code >= 0xD800 && code <= 0xDBFF) {
        if (!text_.substr(pos_).starts_with("\\u"))
            return fail_("Missing low surrogate after high surrogate");
        pos_ += 2;
        unsigned low = 0;
        if (!parseHex4_(&low))
            return false;
        if (low < 0xDC00 || low > 0xDFFF)
            return fail_("Invalid low surrogate in Unicode escape");
        code = ((code - 0xD800) << 10) + (low - 0xDC00) + 0x10000;
    }
    appendUtf8_(out, code);
    return true;
}

bool ZnJsonParser_::parseHex4_(unsigned* unit) {
    if (text_.size() - pos_ < 4)
        return fail_("Incomplete Unicode escape sequence");
    *unit = 0;
    for (int digit = 0; digit < 4; ++digit, ++pos_) {
        const int value = hexValue(text_[pos_]);
        if (value < 0)
            return fail_("Invalid hex digit in Unicode escape");
        *unit = *unit << 4 | static_cast<unsigned>(value);
    }
    return true;
}

std::string_view ZnJsonParser_::takeLetters_() noexcept {
    const std::size_t start = pos_;
    while (!atEnd_() && isLetter(text_[pos_]))
        ++pos_;
    return text_.substr(start, pos_ - start);
}

void ZnJsonParser_::skipSpace_() noexcept {
    while (!atEnd_() && zn::detail::isSpace(text_[pos_]))
        ++pos_;
}

bool ZnJsonParser_::failAt_(std::size_t index, const char* message) {
    error_ = parseError(text_, index, message);
    return false;
}

#include "core/types/ZnJsonParser.h"

#include "core/types/ZnCrypto.h"
#include "core/types/ZnJsonScan.h"
#include "core/types/ZnNumberText.h"

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <exception>

namespace {

constexpr std::string_view kByteOrderMark = "\xEF\xBB\xBF";
constexpr std::size_t kContextBytes = 20;
constexpr std::size_t kMaxFastDigits = 18; // so many decimal digits always fit in 64 bits

bool isSpace(char c) {
    return c == ' ' || (c >= '\t' && c <= '\r');
}

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
    const auto trail = [code](int shift) {
        return static_cast<char>(0x80 | ((code >> shift) & 0x3F));
    };
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
    case 't':
        return text == "true" ? ScalarShape_::True : ScalarShape_::Text;
    case 'f':
        return text == "false" ? ScalarShape_::False : ScalarShape_::Text;
    case 'n':
        return text == "null" ? ScalarShape_::Null : ScalarShape_::Text;
    default:
        break;
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

/// The value of a deciphered bare token.
ZnJsonValue parseScalarText_(ZnString text) {
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
    return ZnJsonValue(std::move(text));
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
    if (!parseTree_(root)) {
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
    for (ZnJsonValue* slot = &root; slot != nullptr; slot = nextSlot_()) {
        if (!parseValue_(*slot))
            return false;
    }
    return error_.isEmpty();
}

/// Behind a value or an opening bracket: closes what ends here and gives the place of the next value; null
/// when the root is complete, and on failure.
ZnJsonValue* ZnJsonParser_::nextSlot_() {
    while (depth_ > 0) {
        ZnJsonValue& container = *open_[depth_ - 1];
        const bool isArray = container.isArray();
        if (!isJustOpened_ && !stepOverSeparator_(isArray))
            return nullptr;
        isJustOpened_ = false;
        skipSpace_();
        if (atEnd_()) {
            fail_(isArray ? "Unterminated JSON array" : "Unterminated JSON object");
            return nullptr;
        }
        if (text_[pos_] != (isArray ? ']' : '}'))
            return isArray ? &container.arrayValue_->appendNull() : nextMember_(*container.objectValue_);
        ++pos_;
        --depth_;
    }
    return nullptr;
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
ZnJsonValue* ZnJsonParser_::nextMember_(ZnJsonObject& object) {
    if (text_[pos_] != '"') {
        fail_("Expected string key in object");
        return nullptr;
    }
    std::string unescaped;
    std::string_view name;
    if (!parseString_(&unescaped, &name))
        return nullptr;
    skipSpace_();
    if (atEnd_() || text_[pos_] != ':') {
        fail_("Expected ':' after object key");
        return nullptr;
    }
    ++pos_;
    ZnJsonValue& slot =
        object.slotNearEnd(unescaped.empty() ? ZnString(name) : ZnString(std::move(unescaped)));
    if (!slot.isNull())
        slot = ZnJsonValue(); // a repeated key
    return &slot;
}

bool ZnJsonParser_::parseValue_(ZnJsonValue& slot) {
    skipSpace_();
    if (atEnd_())
        return fail_("Unexpected end of JSON input");
    const char c = text_[pos_];
    if (c == '"')
        return parseStringValue_(slot);
    if (c == '{' || c == '[')
        return openContainer_(slot, c);
    return parseLiteralOrNumber_(slot, c);
}

bool ZnJsonParser_::parseLiteralOrNumber_(ZnJsonValue& slot, char first) {
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

bool ZnJsonParser_::openContainer_(ZnJsonValue& slot, char bracket) {
    if (depth_ == kMaxDepth_)
        return fail_("JSON nesting too deep");
    if (bracket == '[') {
        slot.arrayValue_.reset(new ZnJsonArray);
        slot.type_ = JsonType::Array;
    } else {
        slot.objectValue_.reset(new ZnJsonObject);
        slot.type_ = JsonType::Object;
    }
    ++pos_;
    open_[depth_++] = &slot;
    isJustOpened_ = true;
    return true;
}

bool ZnJsonParser_::parseStringValue_(ZnJsonValue& slot) {
    std::string unescaped;
    std::string_view text;
    if (!parseString_(&unescaped, &text))
        return false;
    if (!key_.isEmpty()) {
        try {
            unescaped = ZnCrypto::decryptAES(key_, ZnString(text)).takeStr();
        } catch (const std::exception&) {
            return fail_("Unable to decrypt string value");
        }
        text = unescaped;
    }
    if (!isExact_ && readScalar_(text, slot))
        return true;
    slot.stringValue_ = unescaped.empty() ? ZnString(text) : ZnString(std::move(unescaped));
    slot.type_ = JsonType::String;
    return true;
}

/// Sets the scalar that a string literal reads as; false when it is a plain text.
bool ZnJsonParser_::readScalar_(std::string_view text, ZnJsonValue& slot) {
    switch (scalarShape(text)) {
    case ScalarShape_::Text:
        return false;
    case ScalarShape_::True:
    case ScalarShape_::False:
        slot.boolValue_ = text.front() == 't';
        slot.type_ = JsonType::Boolean;
        return true;
    case ScalarShape_::Null:
        return true;
    case ScalarShape_::Integer:
        if (!readPlainInteger(text, &slot.intValue_))
            slot.intValue_ = ZnString(text).toLongLong();
        slot.type_ = JsonType::Integer;
        return true;
    case ScalarShape_::Decimal:
        slot.doubleValue_ = static_cast<double>(ZnString(text).toFloat());
        slot.type_ = JsonType::Double;
        return true;
    }
    return false;
}

bool ZnJsonParser_::parseEncryptedToken_(ZnJsonValue& slot) {
    const auto endsToken = [](char c) {
        return c == ',' || c == ']' || c == '}' || isSpace(c);
    };
    std::size_t end = pos_;
    while (end < text_.size() && !endsToken(text_[end]))
        ++end;
    if (end == pos_)
        return false;
    try {
        slot = parseScalarText_(ZnCrypto::decryptAES(key_, ZnString(text_.substr(pos_, end - pos_))));
    } catch (const std::exception&) {
        return false; // not enciphered
    }
    pos_ = end;
    return true;
}

bool ZnJsonParser_::parseBoolean_(ZnJsonValue& slot) {
    const std::string_view word = takeLetters_();
    if (word != "true" && word != "false")
        return fail_("Invalid boolean literal");
    slot.boolValue_ = word == "true";
    slot.type_ = JsonType::Boolean;
    return true;
}

bool ZnJsonParser_::parseNull_() {
    return takeLetters_() == "null" || fail_("Invalid literal, expected 'null'");
}

bool ZnJsonParser_::parseNumber_(ZnJsonValue& slot) {
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

bool ZnJsonParser_::finishNumber_(ZnJsonValue& slot, std::size_t start, bool isFloating) {
    const std::string_view literal = text_.substr(start, pos_ - start);
    if (isExact_) {
        keepNumber_(slot, literal, isFloating);
        return true;
    }
    if (isFloating) {
        if (!zn::detail::parseDecimal(literal, &slot.doubleValue_))
            return failAt_(start, "Invalid floating-point number");
        slot.type_ = JsonType::Double;
        return true;
    }
    if (std::from_chars(literal.data(), literal.data() + literal.size(), slot.intValue_).ec != std::errc())
        return failAt_(start, "Invalid integer number");
    slot.type_ = JsonType::Integer;
    return true;
}

/// An Integer that is written as `literal`, or a Double that keeps it; the grammar has been checked.
void ZnJsonParser_::keepNumber_(ZnJsonValue& slot, std::string_view literal, bool isFloating) {
    const char* end = literal.data() + literal.size();
    const bool isPlain = !isFloating && literal != "-0";
    if (isPlain && std::from_chars(literal.data(), end, slot.intValue_).ec == std::errc()) {
        slot.type_ = JsonType::Integer;
        return;
    }
    slot.stringValue_ = ZnString(literal);
    slot.type_ = JsonType::Double;
}

/// Reads a string literal from its opening quote on. `*text` is its content: a part of the parsed text, or of
/// `*unescaped`, which is left empty when there were no escapes.
bool ZnJsonParser_::parseString_(std::string* unescaped, std::string_view* text) {
    const std::size_t start = ++pos_;
    std::size_t copied = start;
    for (;;) {
        pos_ = zn::detail::plainRunEnd(text_, pos_);
        if (atEnd_())
            return fail_("Unterminated string literal");
        if (text_[pos_] == '"')
            break;
        if (text_[pos_] != '\\')
            return fail_("Unescaped control character in string");
        unescaped->append(text_, copied, pos_ - copied);
        ++pos_;
        if (!parseEscape_(*unescaped))
            return false;
        copied = pos_;
    }
    const std::string_view tail = text_.substr(copied, pos_ - copied);
    ++pos_;
    if (unescaped->empty()) {
        *text = tail;
        return true;
    }
    unescaped->append(tail);
    *text = *unescaped;
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
    while (!atEnd_() && isSpace(text_[pos_]))
        ++pos_;
}

bool ZnJsonParser_::failAt_(std::size_t index, const char* message) {
    error_ = parseError(text_, index, message);
    return false;
}

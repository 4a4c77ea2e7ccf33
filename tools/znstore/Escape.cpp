#include "Escape.h"

namespace znstore {

namespace {

constexpr char kHexDigits[] = "0123456789abcdef";

void appendHexByte(std::string* out, char byte) {
    const auto number = static_cast<unsigned char>(byte);
    out->push_back(kHexDigits[number >> 4]);
    out->push_back(kHexDigits[number & 15]);
}

/// -1 for what is no digit.
int digitValue(char digit) {
    if (digit >= '0' && digit <= '9')
        return digit - '0';
    const char lower = static_cast<char>(digit | 0x20);
    return lower >= 'a' && lower <= 'f' ? lower - 'a' + 10 : -1;
}

} // namespace

void appendEscaped(std::string* out, std::string_view bytes) {
    for (const char byte : bytes) {
        if (byte == '\\') {
            out->append("\\\\");
        } else if (byte >= ' ' && byte <= '~') {
            out->push_back(byte);
        } else {
            out->append("\\x");
            appendHexByte(out, byte);
        }
    }
}

ZnString escaped(std::string_view bytes) {
    std::string text;
    appendEscaped(&text, bytes);
    return ZnString(std::move(text));
}

bool unescape(std::string_view text, std::string* bytes, ZnString* errorText) {
    std::string found;
    for (std::size_t at = 0; at < text.size(); ++at) {
        const std::string_view rest = text.substr(at);
        if (text[at] != '\\') {
            found.push_back(text[at]);
        } else if (rest.starts_with("\\\\")) {
            found.push_back('\\');
            ++at;
        } else if (std::string byte;
                   rest.starts_with("\\x") && rest.size() >= 4 && parseHex(rest.substr(2, 2), &byte)) {
            found += byte;
            at += 3;
        } else {
            *errorText = "a \"\\\" is written \"\\\\\", and begins nothing else but \"\\x\" and two hex digits";
            return false;
        }
    }
    *bytes = std::move(found);
    return true;
}

void appendHex(std::string* out, std::string_view bytes) {
    for (const char byte : bytes)
        appendHexByte(out, byte);
}

bool parseHex(std::string_view digits, std::string* bytes) {
    std::string found;
    if (digits.size() % 2 != 0)
        return false;
    found.reserve(digits.size() / 2);
    for (std::size_t at = 0; at < digits.size(); at += 2) {
        const int high = digitValue(digits[at]);
        const int low = digitValue(digits[at + 1]);
        if (high < 0 || low < 0)
            return false;
        found.push_back(static_cast<char>(high * 16 + low));
    }
    *bytes = std::move(found);
    return true;
}

} // namespace znstore

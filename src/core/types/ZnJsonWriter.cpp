#include "core/types/ZnJsonCursor.h"
#include "core/types/ZnJsonDocument.h"
#include "core/types/ZnJsonScan.h"
#include "core/types/ZnJsonValue.h"
#include "core/types/ZnNumberText.h"

#include <algorithm>
#include <array>
#include <cmath>

namespace {

constexpr std::size_t kFirstBytes = 256;
constexpr std::size_t kIndentBlanks = 2;

/// What follows the backslash: a letter, 'u' for the long form, or 0 when the byte needs no escape.
constexpr std::array<char, 256> kEscapes = [] {
    std::array<char, 256> escapes{};
    std::fill_n(escapes.begin(), 0x20, 'u');
    escapes['\b'] = 'b';
    escapes['\t'] = 't';
    escapes['\n'] = 'n';
    escapes['\f'] = 'f';
    escapes['\r'] = 'r';
    escapes['"'] = '"';
    escapes['\\'] = '\\';
    return escapes;
}();

void appendEscape(std::string& out, unsigned char byte, const char* hexDigits) {
    out += '\\';
    out += kEscapes[byte];
    if (kEscapes[byte] == 'u') {
        out.append("00");
        out += hexDigits[byte >> 4];
        out += hexDigits[byte & 0xF];
    }
}

/// Copies the runs between escapes whole.
void appendEscaped(std::string& out, std::string_view text, const char* hexDigits = "0123456789ABCDEF") {
    for (std::size_t at = 0;;) {
        const std::size_t runEnd = zn::detail::plainRunEnd(text, at);
        out.append(text, at, runEnd - at);
        if (runEnd == text.size())
            return;
        appendEscape(out, static_cast<unsigned char>(text[runEnd]), hexDigits);
        at = runEnd + 1;
    }
}

void appendDouble(std::string& out, double value) {
    constexpr double kIntegerEnd = 9223372036854775808.0; // 2^63
    double whole = 0;
    if (std::modf(value, &whole) != 0)
        zn::detail::appendGeneral(out, value);
    else if (whole >= -kIntegerEnd && whole < kIntegerEnd)
        zn::detail::appendInteger(out, static_cast<long long>(whole));
    else
        zn::detail::appendScientific(
            out, value); // decimal digits alone would not be read back: no integer so large
}

} // namespace

/// Appends the text of a tree to one string. Holds one cursor per open container.
class ZnJsonWriter_ {
public:
    ZnJsonWriter_(JsonFormat format, const ZnString& key)
        : isIndented_(format == JsonFormat::Indented), key_(key) {
        out_.reserve(kFirstBytes);
    }
    ZnString write(const ZnJsonValue& root);

private:
    using Cursor_ = ZnJsonCursor_<const ZnJsonValue>;

    void writeNext_(Cursor_& cursor);
    void writeValue_(const ZnJsonValue& value);
    void writeScalar_(const ZnJsonValue& value);
    void writeString_(std::string_view text);
    void open_(const ZnJsonValue& container);
    void close_();
    void breakLine_(std::size_t depth);

    const bool isIndented_;
    const ZnString& key_;
    std::string out_;
    ZnJsonPath_<Cursor_> path_;
    bool isFirst_ = true; // the next child is the first one of its container
};

ZnString ZnJsonWriter_::write(const ZnJsonValue& root) {
    writeValue_(root);
    while (!path_.isEmpty()) {
        Cursor_& cursor = path_.top();
        if (cursor.atEnd())
            close_();
        else
            writeNext_(cursor);
    }
    return ZnString(std::move(out_));
}

void ZnJsonWriter_::writeNext_(Cursor_& cursor) {
    if (!isFirst_)
        out_ += ',';
    isFirst_ = false;
    breakLine_(path_.size());
    if (!cursor.isArray()) {
        writeString_(cursor.name().view());
        out_.append(": ");
    }
    writeValue_(cursor.take()); // may push: the cursor is stale from here on
}

void ZnJsonWriter_::writeValue_(const ZnJsonValue& value) {
    switch (value.type_) {
    case JsonType::Object:
        if (value.objectValue_->isEmpty())
            out_.append("{}");
        else
            open_(value);
        return;
    case JsonType::Array:
        if (value.arrayValue_->isEmpty())
            out_.append("[]");
        else
            open_(value);
        return;
    case JsonType::String:
        if (key_.isEmpty())
            writeString_(value.stringValue_.view());
        else
            writeString_(value.stringValue_.encryptAES(key_).view());
        return;
    default:
        writeScalar_(value);
    }
}

void ZnJsonWriter_::writeScalar_(const ZnJsonValue& value) {
    // A number that keeps digits has the value 0 here.
    if (value.isNull() || (value.type_ == JsonType::Double && !std::isfinite(value.doubleValue_))) {
        out_.append("null");
        return;
    }
    const std::size_t start = out_.size();
    if (value.type_ == JsonType::Boolean)
        out_.append(value.boolValue_ ? "true" : "false");
    else if (value.type_ == JsonType::Integer)
        zn::detail::appendInteger(out_, value.intValue_);
    else if (value.keepsDigits_())
        out_.append(value.stringValue_.view());
    else
        appendDouble(out_, value.doubleValue_);
    if (!key_.isEmpty()) {
        const ZnString cipher = ZnString(std::string_view(out_).substr(start)).encryptAES(key_);
        out_.resize(start);
        out_.append(cipher.view());
    }
}

void ZnJsonWriter_::writeString_(std::string_view text) {
    out_ += '"';
    appendEscaped(out_, text);
    out_ += '"';
}

void ZnJsonWriter_::open_(const ZnJsonValue& container) {
    out_ += container.isArray() ? '[' : '{';
    path_.push(Cursor_(container));
    isFirst_ = true;
}

void ZnJsonWriter_::close_() {
    const char bracket = path_.top().isArray() ? ']' : '}';
    path_.pop();
    breakLine_(path_.size());
    out_ += bracket;
    isFirst_ = false;
}

void ZnJsonWriter_::breakLine_(std::size_t depth) {
    if (!isIndented_)
        return;
    out_ += '\n';
    out_.append(kIndentBlanks * depth, ' ');
}

ZnString ZnJsonValue::toJson(JsonFormat format, const ZnString& key) const {
    return ZnJsonWriter_(format, key).write(*this);
}

ZnString ZnJsonValue::toDisplayString() const {
    std::string text;
    switch (type_) {
    case JsonType::Object:
        return "ZnJsonValue(Object)";
    case JsonType::Array:
        return "ZnJsonValue(Array)";
    case JsonType::Double:
        if (keepsDigits_())
            return stringValue_;
        zn::detail::appendGeneral(text, doubleValue_);
        return text;
    case JsonType::String:
        text += '"';
        appendEscaped(text, stringValue_.view(), "0123456789abcdef");
        text += '"';
        return text;
    default:
        return toStringOr(ZnString());
    }
}

ZnString escapeJsonString(std::string_view text) {
    std::string escaped;
    escaped.reserve(text.size());
    appendEscaped(escaped, text);
    return escaped;
}

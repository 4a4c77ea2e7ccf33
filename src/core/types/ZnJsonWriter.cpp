#include "core/types/ZnJsonDocument.h"
#include "core/types/ZnJsonPath.h"
#include "core/types/ZnJsonScan.h"
#include "core/types/ZnJsonValue.h"
#include "core/types/ZnNumberText.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <functional>
#include <utility>

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
        zn::detail::appendScientific(out, value); // decimal digits alone would not be read back: no integer so large
}

} // namespace

/// Appends the text of a tree to one string. Holds one step per open container.
class ZnJsonWriter_ {
public:
    ZnJsonWriter_(std::string& out, JsonFormat format, const ZnString& key)
        : isIndented_(format == JsonFormat::Indented), key_(key), out_(out) {}
    void write(const ZnJsonValue& root);

private:
    struct Step_ {
        const ZnJsonValue* at;
        const ZnJsonValue* end;
        bool isObject;
    };

    void writeNext_(Step_& step);
    void writeValue_(const ZnJsonCell_& cell);
    void writeContainer_(const ZnJsonCell_& container);
    void writeScalar_(const ZnJsonCell_& cell);
    void writeString_(std::string_view text);
    void close_();
    void breakLine_(std::size_t depth);

    const bool isIndented_;
    const ZnString& key_;
    std::string& out_;
    ZnJsonPath_<Step_> path_;
    bool isFirst_ = true; // the next child is the first one of its container
};

void ZnJsonWriter_::write(const ZnJsonValue& root) {
    writeValue_(root.cell_);
    while (!path_.isEmpty()) {
        Step_& step = path_.top();
        if (step.at == step.end)
            close_();
        else
            writeNext_(step);
    }
}

void ZnJsonWriter_::writeNext_(Step_& step) {
    if (!isFirst_)
        out_ += ',';
    isFirst_ = false;
    if (isIndented_)
        breakLine_(path_.size());
    if (step.isObject) {
        out_ += '"';
        appendEscaped(out_, (step.at++)->cell_.text());
        out_.append("\": ");
    }
    writeValue_((step.at++)->cell_); // may push: the step is stale from here on
}

void ZnJsonWriter_::writeValue_(const ZnJsonCell_& cell) {
    if (cell.isContainer())
        writeContainer_(cell);
    else if (cell.type() != JsonType::String)
        writeScalar_(cell);
    else if (key_.isEmpty())
        writeString_(cell.text());
    else
        writeString_(ZnString(cell.text()).encryptAES(key_).view());
}

void ZnJsonWriter_::writeContainer_(const ZnJsonCell_& container) {
    const bool isObject = container.isObject();
    if (container.block.count == 0) {
        out_.append(isObject ? "{}" : "[]");
        return;
    }
    out_ += isObject ? '{' : '[';
    path_.push({container.values(), container.values() + container.valueCount(), isObject});
    isFirst_ = true;
}

void ZnJsonWriter_::writeScalar_(const ZnJsonCell_& cell) {
    const bool isDouble = cell.type() == JsonType::Double && !cell.keepsDigits();
    if (cell.type() == JsonType::Null || (isDouble && !std::isfinite(cell.asDouble()))) {
        out_.append("null");
        return;
    }
    const std::size_t start = out_.size();
    if (cell.type() == JsonType::Boolean)
        out_.append(cell.number.bits != 0 ? "true" : "false");
    else if (cell.type() == JsonType::Integer)
        zn::detail::appendInteger(out_, cell.number.bits);
    else if (isDouble)
        appendDouble(out_, cell.asDouble());
    else
        out_.append(cell.text());
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

void ZnJsonWriter_::close_() {
    const char bracket = path_.top().isObject ? '}' : ']';
    path_.pop();
    if (isIndented_)
        breakLine_(path_.size());
    out_ += bracket;
    isFirst_ = false;
}

void ZnJsonWriter_::breakLine_(std::size_t depth) {
    out_ += '\n';
    out_.append(kIndentBlanks * depth, ' ');
}

ZnString ZnJsonValue::toJson(JsonFormat format, const ZnString& key) const {
    std::string text;
    text.reserve(kFirstBytes);
    ZnJsonWriter_(text, format, key).write(*this);
    return text;
}

void ZnJsonValue::appendJson(ZnString* out) const {
    std::string text = std::move(*out).takeStr();
    ZnJsonWriter_(text, JsonFormat::Compact, ZnString()).write(*this);
    *out = std::move(text);
}

ZnString ZnJsonValue::toDisplayString() const {
    std::string text;
    switch (type()) {
    case JsonType::Object: return "ZnJsonValue(Object)";
    case JsonType::Array: return "ZnJsonValue(Array)";
    case JsonType::Double:
        if (cell_.keepsDigits())
            return ZnString(cell_.text());
        zn::detail::appendGeneral(text, cell_.asDouble());
        return text;
    case JsonType::String:
        text += '"';
        appendEscaped(text, string(), "0123456789abcdef");
        text += '"';
        return text;
    default: return toStringOr(ZnString());
    }
}

ZnString escapeJsonString(std::string_view text) {
    std::string escaped;
    escaped.reserve(text.size());
    appendEscaped(escaped, text);
    return escaped;
}

void appendEscapedJson(ZnString* out, std::string_view text) {
    std::string escaped = std::move(*out).takeStr();
    const std::less_equal<const char*> isNotBehind;
    if (isNotBehind(escaped.data(), text.data()) && isNotBehind(text.data(), escaped.data() + escaped.size()))
        appendEscaped(escaped, std::string(text)); // what is appended to may move
    else
        appendEscaped(escaped, text);
    *out = std::move(escaped);
}

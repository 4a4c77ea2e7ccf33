#include "agent/McpAccessLog.h"

#include "agent/McpText.h"
#include "core/types/ZnJsonDocument.h"

#include <chrono>
#include <cstdio>
#include <utility>

namespace {

constexpr std::size_t kMaxTextBytes = 256;

/// A text that others have chosen, for a line that is read in terminals, too: besides what JSON escapes, DEL and the
/// C1 controls.
ZnString escapedText(std::string_view text) {
    const ZnString escaped = escapeJsonString(mcp::wellFormed(ZnString(text.substr(0, kMaxTextBytes))).view());
    std::string shown;
    for (std::size_t at = 0; at < escaped.size(); ++at) {
        const auto byteAt = [&](std::size_t index) { return static_cast<unsigned char>(escaped[index]); };
        const bool isC1 = byteAt(at) == 0xC2 && byteAt(at + 1) < 0xA0; // well-formed: it has a second byte
        if (!isC1 && byteAt(at) != 0x7F) {
            shown += escaped[at];
            continue;
        }
        at += isC1 ? 1 : 0;
        char code[8];
        std::snprintf(code, sizeof(code), "\\u%04X", byteAt(at));
        shown += code;
    }
    return ZnString(std::move(shown));
}

ZnString timeNow() {
    const auto now = std::chrono::floor<std::chrono::milliseconds>(std::chrono::system_clock::now());
    const auto day = std::chrono::floor<std::chrono::days>(now);
    const std::chrono::year_month_day date(day);
    const std::chrono::hh_mm_ss time(now - day);
    char text[40];
    std::snprintf(text, sizeof(text), "%04d-%02u-%02uT%02d:%02d:%02d.%03dZ", static_cast<int>(date.year()),
                  static_cast<unsigned>(date.month()), static_cast<unsigned>(date.day()),
                  static_cast<int>(time.hours().count()), static_cast<int>(time.minutes().count()),
                  static_cast<int>(time.seconds().count()), static_cast<int>(time.subseconds().count()));
    return text;
}

/// One line, member by member. What there is nothing to say about is left out.
class Line {
public:
    explicit Line(const char* kind) {
        text_.reserve(320);
        text_ += "{\"time\":\"" + timeNow() + "\",\"kind\":\"" + kind + "\"";
    }
    Line& text(const char* name, std::string_view value) {
        return value.empty() ? *this : raw_(name, "\"" + escapedText(value) + "\"");
    }
    Line& number(const char* name, long long value) { return raw_(name, ZnString::number(value)); }
    Line& boolean(const char* name, bool value) { return raw_(name, value ? "true" : "false"); }
    Line& session(const std::shared_ptr<const McpBridgeSession>& session) {
        if (!session)
            return *this;
        const ZnString tag = session->tag.isEmpty() ? mcp::sessionTag(session->id) : session->tag;
        return text("client", session->clientName.view()).text("session", tag.view());
    }
    /// In milliseconds, to the microsecond.
    Line& duration(long long beganNs, long long endedNs) {
        const long long us = (endedNs - beganNs) / 1000;
        char text[40];
        std::snprintf(text, sizeof(text), "%lld.%03lld", us / 1000, us % 1000);
        return raw_("ms", text);
    }
    Line& outcome(const McpCallOutcome& outcome) {
        if (outcome.rpcCode)
            number("rpcCode", *outcome.rpcCode);
        return outcome.isToolError ? boolean("isError", *outcome.isToolError) : *this;
    }
    Line& bytes(std::size_t bytesIn, std::size_t bytesOut) {
        return number("bytesIn", static_cast<long long>(bytesIn)).number("bytesOut", static_cast<long long>(bytesOut));
    }
    std::string take() { return std::move(text_ += "}\n").takeStr(); }

private:
    Line& raw_(const char* name, const ZnString& json) {
        text_ += ",\"";
        text_ += name;
        text_ += "\":";
        text_ += json;
        return *this;
    }

    ZnString text_;
};

std::string lossLine(std::uint64_t lostCount) {
    return Line("dropped").number("lines", static_cast<long long>(lostCount)).take();
}

} // namespace

McpAccessLog::McpAccessLog(const ZnString& path, std::uint64_t maxFileBytes) : writer_(lossLine, path, maxFileBytes) {}

void McpAccessLog::onRequest(const McpRequestRecord& record) {
    writer_.append(Line("request")
                       .session(record.session)
                       .text("method", record.method.view())
                       .text("tool", record.tool.view())
                       .duration(record.beganNs, record.endedNs)
                       .number("status", record.status)
                       .outcome(record.answer)
                       .bytes(record.bytesIn, record.bytesOut)
                       .take());
}

void McpAccessLog::onCall(const McpCallRecord& record) {
    writer_.append(Line("call")
                       .session(record.session)
                       .text("service", record.service.view())
                       .text("method", record.method.view())
                       .text("tool", record.tool.view())
                       .duration(record.beganNs, record.endedNs)
                       .text("outcome", McpCallRecord::nameOf(record.outcome()))
                       .number("status", record.status)
                       .number("transportCode", record.transportCode)
                       .outcome(record.answer)
                       .bytes(record.bytesIn, record.bytesOut)
                       .take());
}

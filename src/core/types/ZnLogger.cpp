#include "core/types/ZnLogger.h"

#include "core/platform/ZnLogPeer.h"
#include "core/types/ZnLogFilter.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <optional>
#include <string_view>
#include <utility>

namespace {

constexpr std::uint8_t kAllLevels = 7;
constexpr std::size_t kStampBytes = 13;           // "hhmmss.uuuuuu"
constexpr std::size_t kKeptLineBytes = 64 * 1024; // one huge line must not keep its memory for ever

struct Sink_ {
    int id;
    std::function<void(const ZnString&)> call;
};
using SinkList_ = std::vector<Sink_>;

bool isSpace(char c) {
    return c == ' ' || (c >= '\t' && c <= '\r');
}

std::string_view withoutSpaces(std::string_view text) {
    while (!text.empty() && isSpace(text.front()))
        text.remove_prefix(1);
    while (!text.empty() && isSpace(text.back()))
        text.remove_suffix(1);
    return text;
}

/// The bit of a level in a rule's mask; levels outside the three have none.
std::uint8_t levelBit(int level) {
    return level >= ZnLogger::kDebug && level <= ZnLogger::kError ? static_cast<std::uint8_t>(1u << level)
                                                                  : std::uint8_t{0};
}

std::string_view levelName(int level) {
    switch (level) {
    case ZnLogger::kDebug: return "DEBUG";
    case ZnLogger::kWarning: return "WARNING";
    case ZnLogger::kError: return "ERROR";
    default: return "UNKNOWN";
    }
}

/// Whole-text match where "*" stands for any run of characters. Going back to the latest "*" only is enough.
bool globMatches(std::string_view pattern, std::string_view text) {
    std::size_t patternAt = 0;
    std::size_t textAt = 0;
    std::size_t starAt = std::string_view::npos;
    std::size_t starTextAt = 0;
    while (textAt < text.size()) {
        if (patternAt < pattern.size() && pattern[patternAt] == '*') {
            starAt = patternAt++;
            starTextAt = textAt;
        } else if (patternAt < pattern.size() && pattern[patternAt] == text[textAt]) {
            ++patternAt;
            ++textAt;
        } else if (starAt != std::string_view::npos) {
            patternAt = starAt + 1;
            textAt = ++starTextAt;
        } else {
            return false;
        }
    }
    while (patternAt < pattern.size() && pattern[patternAt] == '*')
        ++patternAt;
    return patternAt == pattern.size();
}

/// The mask that a key's suffix names, or none when the suffix is no level.
std::optional<std::uint8_t> maskOfSuffix(std::string_view suffix) {
    const ZnString lower = ZnString(suffix).toLower();
    if (lower == "debug")
        return levelBit(ZnLogger::kDebug);
    if (lower == "warning")
        return levelBit(ZnLogger::kWarning);
    if (lower == "error" || lower == "critical")
        return levelBit(ZnLogger::kError);
    if (lower == "all")
        return kAllLevels;
    return std::nullopt;
}

std::optional<ZnLogRule> parseRule(std::string_view piece) {
    piece = withoutSpaces(piece);
    const std::size_t equalsAt = piece.find('=');
    if (piece.empty() || piece.front() == '#' || equalsAt == std::string_view::npos)
        return std::nullopt;
    std::string_view pattern = withoutSpaces(piece.substr(0, equalsAt));
    ZnLogRule rule;
    if (pattern.empty() || !parseBool(ZnString(withoutSpaces(piece.substr(equalsAt + 1))), rule.enabled))
        return std::nullopt;
    rule.mask = levelBit(ZnLogger::kDebug);
    const std::size_t pointAt = pattern.rfind('.');
    if (pointAt != std::string_view::npos) {
        if (const auto mask = maskOfSuffix(pattern.substr(pointAt + 1))) {
            rule.mask = *mask;
            pattern = withoutSpaces(pattern.substr(0, pointAt));
        }
    }
    if (pattern.empty())
        return std::nullopt;
    rule.pattern = ZnString(pattern);
    return rule;
}

/// Whether `text` begins with six digits, a point and six digits.
bool beginsWithStamp(std::string_view text) {
    if (text.size() < kStampBytes)
        return false;
    for (std::size_t index = 0; index < kStampBytes; ++index) {
        const char c = text[index];
        if (index == 6 ? c != '.' : c < '0' || c > '9')
            return false;
    }
    return true;
}

std::string_view withoutLeading(std::string_view text, std::string_view set) {
    const std::size_t first = text.find_first_not_of(set);
    return first == std::string_view::npos ? std::string_view() : text.substr(first);
}

/// Takes off the head of a log line that the caller has handed over as part of the message, so that it is not
/// doubled.
std::string_view sanitised(std::string_view message) {
    message = withoutLeading(message, " \t\n\r");
    if (message.size() >= kStampBytes + 2 && message.front() == '[' && beginsWithStamp(message.substr(1)) &&
        message[kStampBytes + 1] == ']')
        message = withoutLeading(message.substr(kStampBytes + 2), " \t");
    else if (beginsWithStamp(message))
        message = withoutLeading(message.substr(kStampBytes), " \t");
    for (std::string_view tag : {"[DEBUG]", "[WARNING]", "[ERROR]"}) {
        if (message.starts_with(tag))
            return withoutLeading(message.substr(tag.size()), " \t");
    }
    return message;
}

void appendJsonString(std::string& out, std::string_view text) {
    static constexpr char kHex[] = "0123456789abcdef";
    static constexpr std::string_view kEscaped = "\b\t\n\f\r\"\\";
    static constexpr char kLetters[] = "btnfr\"\\";
    out += '"';
    for (char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if (const std::size_t at = kEscaped.find(c); at != std::string_view::npos) {
            out += '\\';
            out += kLetters[at];
        } else if (byte < 0x20) {
            out.append("\\u00");
            out += kHex[byte >> 4];
            out += kHex[byte & 0xF];
        } else {
            out += c;
        }
    }
    out += '"';
}

void appendJsonMember(std::string& out, std::string_view name, std::string_view value) {
    out.append(",\"").append(name).append("\":");
    appendJsonString(out, value);
}

void appendTwoDigits(char* out, int value) {
    out[0] = static_cast<char>('0' + value / 10 % 10);
    out[1] = static_cast<char>('0' + value % 10);
}

/// "hhmmss" of a second, cached per thread: the conversion to local time takes a process-wide lock.
const char* localSecondText(std::time_t second) {
    thread_local std::time_t cachedSecond = -1;
    thread_local char text[6];
    if (second != cachedSecond) {
        std::tm parts{};
        ::localtime_r(&second, &parts);
        appendTwoDigits(text, parts.tm_hour);
        appendTwoDigits(text + 2, parts.tm_min);
        appendTwoDigits(text + 4, parts.tm_sec);
        cachedSecond = second;
    }
    return text;
}

void appendTimestamp(std::string& out) {
    using namespace std::chrono;
    const auto now = duration_cast<microseconds>(system_clock::now().time_since_epoch());
    const auto second = floor<seconds>(now);
    out.append(localSecondText(static_cast<std::time_t>(second.count())), 6);
    out += '.';
    long long rest = (now - second).count();
    char digits[6];
    for (int index = 5; index >= 0; --index, rest /= 10)
        digits[index] = static_cast<char>('0' + rest % 10);
    out.append(digits, sizeof(digits));
}

} // namespace

/// What writeMutex_ guards: the settings, the sinks, and the buffers that lines are built in.
struct ZnLogger::State_ {
    ZnString appName = "UnknownApp";
    ZnString version = "0.0.1";
    bool isConsoleEnabled = true;
    ZnString filePath;                         // empty: no file sink
    std::unique_ptr<const ZnLogFilter> filter; // null: no filter
    ZnString networkHost;                      // empty: no network sink
    unsigned short networkPort = 0;
    ZnLogPeer networkPeer;
    std::shared_ptr<const SinkList_> sinks; // replaced, never changed; null without sinks
    int lastSinkId = 0;
    std::string line;
    std::string jsonLine;

    /// Builds the line and feeds console, file and network. False when the filter drops it.
    bool emit(const ZnLogRecord& record, std::string_view message);
    void buildLine(const ZnLogRecord& record, std::string_view message);
    void buildJsonLine(const ZnLogRecord& record, std::string_view message);
    void writeConsole(int level) const;
    void writeFile() const;
    void writeNetwork(const ZnLogRecord& record, std::string_view message);
};

bool ZnLogger::State_::emit(const ZnLogRecord& record, std::string_view message) {
    message = sanitised(message);
    buildLine(record, message);
    constexpr std::size_t kHeadBytes = kStampBytes + 3; // "[", the timestamp, "] "
    const std::string_view body = std::string_view(line).substr(kHeadBytes, line.size() - kHeadBytes - 1);
    if (filter && !filter->passes(body))
        return false;
    if (isConsoleEnabled)
        writeConsole(record.level);
    if (!filePath.isEmpty())
        writeFile();
    if (!networkHost.isEmpty() && networkPort != 0)
        writeNetwork(record, message);
    return true;
}

void ZnLogger::State_::buildLine(const ZnLogRecord& record, std::string_view message) {
    if (line.capacity() > kKeptLineBytes)
        std::string().swap(line);
    line.assign("[");
    appendTimestamp(line);
    line.append("] [").append(levelName(record.level)).append("] ");
    if (record.category != nullptr && *record.category != '\0')
        line.append("[").append(record.category).append("] ");
    line.append(message).append("\n");
}

void ZnLogger::State_::buildJsonLine(const ZnLogRecord& record, std::string_view message) {
    if (jsonLine.capacity() > kKeptLineBytes)
        std::string().swap(jsonLine);
    jsonLine.assign("{\"type\":\"log\"");
    appendJsonMember(jsonLine, "level", levelName(record.level));
    if (record.category != nullptr && *record.category != '\0')
        appendJsonMember(jsonLine, "category", record.category);
    appendJsonMember(jsonLine, "appName", appName.view());
    appendJsonMember(jsonLine, "version", version.view());
    appendJsonMember(jsonLine, "message", message);
    jsonLine.append("}\n");
}

void ZnLogger::State_::writeConsole(int level) const {
    std::FILE* const stream = level == kDebug ? stdout : stderr;
    std::fwrite(line.data(), 1, line.size(), stream);
    std::fflush(stream);
}

void ZnLogger::State_::writeFile() const {
    const std::string_view path = filePath.view();
    const std::size_t parentBytes = path.rfind('/');
    if (parentBytes != std::string_view::npos && parentBytes > 0) {
        std::error_code ignored; // opening the file tells whether it worked
        std::filesystem::create_directories(path.substr(0, parentBytes), ignored);
    }
    // "e": a child process must not inherit the file.
    const std::unique_ptr<std::FILE, int (*)(std::FILE*)> file(std::fopen(filePath.data(), "abe"), &std::fclose);
    if (file)
        std::fwrite(line.data(), 1, line.size(), file.get());
}

void ZnLogger::State_::writeNetwork(const ZnLogRecord& record, std::string_view message) {
    if (!networkPeer.isConnected() && !networkPeer.connect(networkHost, networkPort))
        return;
    buildJsonLine(record, message);
    networkPeer.send(jsonLine);
}

ZnLogger& ZnLogger::instance() {
    static ZnLogger* const logger = new ZnLogger;
    return *logger;
}

ZnLogger::ZnLogger() : state_(std::make_unique<State_>()) {
    for (const char* name : {"ZN_LOGGING_RULES", "ZN_DEBUG_RULES"}) {
        const char* const rules = std::getenv(name);
        if (rules != nullptr && *rules != '\0') {
            parseRules(rules);
            return;
        }
    }
}

bool ZnLogger::isEnabled(const char* category, int level) {
    if (category == nullptr || *category == '\0')
        return true;
    bool isOn = level == kDebug ? debugDefault_ : level == kWarning ? warningDefault_ : errorDefault_;
    // Pairs with the store in parseRules().
    if (!hasRules_.load(std::memory_order_acquire))
        return isOn;
    const std::uint8_t bit = levelBit(level);
    const ZnMutexLocker lock(rulesMutex_);
    for (const ZnLogRule& rule : rules_) {
        if ((rule.mask & bit) != 0 && rule.enabled != isOn && globMatches(rule.pattern.view(), category))
            isOn = rule.enabled;
    }
    return isOn;
}

void ZnLogger::write(const ZnLogRecord& record, const ZnString& message) noexcept {
    const int savedErrno = errno; // callers log before they read it
    try {
        if (!isEnabled(record.category, record.level))
            return;
        std::shared_ptr<const SinkList_> sinks;
        ZnString line;
        {
            const ZnMutexLocker lock(writeMutex_);
            if (state_->emit(record, message.view()) && state_->sinks) {
                sinks = state_->sinks;
                line = ZnString(state_->line);
            }
        }
        for (std::size_t index = 0; sinks && index < sinks->size(); ++index) {
            try {
                (*sinks)[index].call(line);
            } catch (...) { // a failing callback loses its own copy only
            }
        }
    } catch (...) { // out of memory: the line is lost
    }
    errno = savedErrno;
}

void ZnLogger::parseRules(const ZnString& text) {
    std::vector<ZnLogRule> rules;
    std::string_view rest = text.view();
    while (!rest.empty()) {
        const std::size_t pieceBytes = std::min(rest.find_first_of(";\n"), rest.size());
        if (auto rule = parseRule(rest.substr(0, pieceBytes)))
            rules.push_back(std::move(*rule));
        rest.remove_prefix(std::min(pieceBytes + 1, rest.size()));
    }
    const ZnMutexLocker lock(rulesMutex_);
    rules_ = std::move(rules);
    hasRules_.store(!rules_.empty(), std::memory_order_release);
}

void ZnLogger::setAppName(const ZnString& appName) {
    const ZnMutexLocker lock(writeMutex_);
    state_->appName = appName;
}

void ZnLogger::setVersion(const ZnString& version) {
    const ZnMutexLocker lock(writeMutex_);
    state_->version = version;
}

void ZnLogger::setConsoleEnabled(bool enabled) {
    const ZnMutexLocker lock(writeMutex_);
    state_->isConsoleEnabled = enabled;
}

void ZnLogger::setFile(const ZnString& path) {
    ZnString ownPath = path;
    ownPath.replace("\\", "/");
    const ZnMutexLocker lock(writeMutex_);
    state_->filePath = std::move(ownPath);
}

bool ZnLogger::setFilter(const ZnString& pattern) {
    std::unique_ptr<const ZnLogFilter> filter;
    if (!pattern.isEmpty()) {
        filter = ZnLogFilter::compile(pattern);
        if (!filter)
            return false;
    }
    const ZnMutexLocker lock(writeMutex_);
    state_->filter = std::move(filter);
    return true;
}

void ZnLogger::setNetwork(const ZnString& host, unsigned short port) {
    const ZnMutexLocker lock(writeMutex_);
    state_->networkPeer.close();
    state_->networkHost = host;
    state_->networkPort = port;
}

int ZnLogger::addSink(std::function<void(const ZnString&)> sink) {
    if (!sink)
        return 0;
    const ZnMutexLocker lock(writeMutex_);
    auto sinks = std::make_shared<SinkList_>(state_->sinks ? *state_->sinks : SinkList_());
    sinks->push_back(Sink_{++state_->lastSinkId, std::move(sink)});
    state_->sinks = std::move(sinks);
    return state_->lastSinkId;
}

void ZnLogger::removeSink(int id) {
    std::shared_ptr<const SinkList_> removed; // released after the lock: a capture's destructor may log
    const ZnMutexLocker lock(writeMutex_);
    if (!state_->sinks)
        return;
    auto sinks = std::make_shared<SinkList_>();
    std::copy_if(state_->sinks->begin(), state_->sinks->end(), std::back_inserter(*sinks),
                 [id](const Sink_& sink) { return sink.id != id; });
    removed = std::exchange(state_->sinks, sinks->empty() ? nullptr : std::move(sinks));
}

ZnString ZnLogger::timestampNow() {
    std::string text;
    appendTimestamp(text);
    return text;
}

ZnLogStatement::~ZnLogStatement() {
    try {
        ZnLogger::instance().write(record_, ZnString(std::move(stream_).str()));
    } catch (...) { // out of memory: the line is lost
    }
}

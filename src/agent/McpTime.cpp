#include "agent/McpTime.h"

#include <charconv>
#include <chrono>

namespace mcp {
namespace {

constexpr std::size_t kDayBytes = 10; // of "2026-11-24"
constexpr long long kMostInSpan = 1000000;

/// Takes `text`'s first digits off, exactly so many.
std::optional<int> takeNumber(std::string_view* text, std::size_t digitCount) {
    int number = 0;
    const char* const end = text->data() + digitCount;
    if (text->size() < digitCount || text->front() == '-' || std::from_chars(text->data(), end, number).ptr != end)
        return std::nullopt;
    text->remove_prefix(digitCount);
    return number;
}

bool takeChar(std::string_view* text, std::string_view anyOf) {
    if (text->empty() || anyOf.find(text->front()) == std::string_view::npos)
        return false;
    text->remove_prefix(1);
    return true;
}

std::optional<long long> takeDayUs(std::string_view* text) {
    const std::optional<int> year = takeNumber(text, 4);
    const bool hasMonth = year && takeChar(text, "-");
    const std::optional<int> month = hasMonth ? takeNumber(text, 2) : std::nullopt;
    const bool hasDay = month && takeChar(text, "-");
    const std::optional<int> day = hasDay ? takeNumber(text, 2) : std::nullopt;
    if (!day)
        return std::nullopt;
    const std::chrono::year_month_day date(std::chrono::year(*year), std::chrono::month(static_cast<unsigned>(*month)),
                                           std::chrono::day(static_cast<unsigned>(*day)));
    if (!date.ok())
        return std::nullopt;
    return std::chrono::sys_days(date).time_since_epoch().count() * kUsPerDay;
}

/// Minutes and hours; seconds too where there is a second colon.
std::optional<long long> takeClockUs(std::string_view* text, bool hasSeconds) {
    const std::optional<int> hour = takeNumber(text, 2);
    const std::optional<int> minute = hour && takeChar(text, ":") ? takeNumber(text, 2) : std::nullopt;
    const std::optional<int> second = !hasSeconds                     ? std::optional<int>(0)
                                      : minute && takeChar(text, ":") ? takeNumber(text, 2)
                                                                      : std::nullopt;
    if (!minute || !second || *hour > 23 || *minute > 59 || *second > 60)
        return std::nullopt;
    return ((*hour * 60LL + *minute) * 60 + *second) * kUsPerSecond;
}

long long takeFractionUs(std::string_view* text) {
    long long us = 0;
    for (long long unit = kUsPerSecond / 10; !text->empty() && text->front() >= '0' && text->front() <= '9'; unit /= 10)
        us += unit * (text->front() - '0'), text->remove_prefix(1);
    return us;
}

/// What lies between the text's clock and UTC.
std::optional<long long> takeOffsetUs(std::string_view* text) {
    if (takeChar(text, "Zz"))
        return 0;
    const bool isAhead = !text->empty() && text->front() == '+';
    const std::optional<long long> us = takeChar(text, "+-") ? takeClockUs(text, false) : std::nullopt;
    return us ? std::optional<long long>(isAhead ? *us : -*us) : std::nullopt;
}

std::optional<long long> readMoment(std::string_view text) {
    std::optional<long long> us = takeDayUs(&text);
    if (!us || text.empty())
        return us;
    const std::optional<long long> clockUs = takeChar(&text, "Tt ") ? takeClockUs(&text, true) : std::nullopt;
    if (!clockUs)
        return std::nullopt;
    *us += *clockUs + (takeChar(&text, ".") ? takeFractionUs(&text) : 0);
    const std::optional<long long> offsetUs = takeOffsetUs(&text);
    return offsetUs && text.empty() ? std::optional<long long>(*us - *offsetUs) : std::nullopt;
}

std::optional<long long> readSpanUs(std::string_view text) {
    long long number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    const std::string_view unit = text.substr(static_cast<std::size_t>(end - text.data()));
    if (error != std::errc() || unit.size() != 1 || number < 0 || number > kMostInSpan)
        return std::nullopt;
    switch (unit.front()) {
    case 's': return number * kUsPerSecond;
    case 'm': return number * 60 * kUsPerSecond;
    case 'h': return number * 3600 * kUsPerSecond;
    case 'd': return number * kUsPerDay;
    case 'w': return number * 7 * kUsPerDay;
    default: return std::nullopt;
    }
}

/// By hand, as every call has a time, and a format that is read at run time takes thousands of instructions.
void putDigits(char* to, int count, long long number) {
    for (int i = count - 1; i >= 0; --i, number /= 10)
        to[i] = static_cast<char>('0' + number % 10);
}

} // namespace

long long wallNowUs() {
    const auto sinceEpoch = std::chrono::system_clock::now().time_since_epoch();
    return std::chrono::duration_cast<std::chrono::microseconds>(sinceEpoch).count();
}

ZnString utcText(long long unixUs) {
    using namespace std::chrono;
    const sys_time<milliseconds> moment{floor<milliseconds>(microseconds(unixUs))};
    const auto midnight = floor<days>(moment);
    const year_month_day date(midnight);
    const hh_mm_ss clock(moment - midnight);
    char text[] = "0000-00-00T00:00:00.000Z";
    putDigits(text, 4, static_cast<int>(date.year()));
    putDigits(text + 5, 2, static_cast<int>(static_cast<unsigned>(date.month())));
    putDigits(text + 8, 2, static_cast<int>(static_cast<unsigned>(date.day())));
    putDigits(text + 11, 2, clock.hours().count());
    putDigits(text + 14, 2, clock.minutes().count());
    putDigits(text + 17, 2, clock.seconds().count());
    putDigits(text + 20, 3, clock.subseconds().count());
    return text;
}

ZnString dayText(long long unixUs) {
    return ZnString(utcText(unixUs).view().substr(0, kDayBytes));
}

std::optional<long long> readTime(std::string_view text, long long nowUs) {
    if (const std::optional<long long> spanUs = readSpanUs(text))
        return nowUs - *spanUs;
    return readMoment(text);
}

} // namespace mcp

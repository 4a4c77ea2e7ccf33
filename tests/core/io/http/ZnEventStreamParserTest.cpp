#include "core/io/http/ZnEventStreamParser.h"

#include <gtest/gtest.h>

namespace {

/// The events as "type|data;", with "!" behind them when one was too large.
std::string decoded(std::string_view head, std::string_view tail, std::size_t maxEventBytes) {
    std::string events;
    const auto note = [&](std::string_view type, std::string_view data) {
        events.append(type).append("|").append(data).append(";");
        return data != "stop";
    };
    ZnEventStreamParser parser(maxEventBytes);
    if (!parser.feed(head, note) || (!events.ends_with("|stop;") && !parser.feed(tail, note)))
        events += "!";
    return events;
}

TEST(ZnEventStreamParser, EventsAreTheSameInAnySplit) {
    const struct {
        std::string stream, events;
        std::size_t maxEventBytes = 1000;
    } kRows[] = {
        {"data:a\r\rdata:  b\r\n\r\n", "|a;| b;"},
        {"data: a\r\r", "|a;"}, // no line feed is waited for
        {"\xEF\xBB\xBF"
         "data: a\n\n\xEF\xBB\xBF"
         "data: b\n\n",
         "|a;"},
        {"\xEF\xBB"
         "data: a\n\ndata: b\n\n",
         "|b;"},
        {"data: a\r\ndata\r\ndata: b:c\r\n\r\n", "|a\n\nb:c;"},
        {": comment\nevent: message\nid: 7\nretry: 5\ndata: {}\n\ndata: x\n\n", "message|{};|x;"},
        {"event: lost\n\ndata:\n\n", "|;"},
        {"Data: a\ndata : b\n data: c\n\n\n\ndata: d\n\n", "|d;"},
        {"data: stop\n\ndata: unread\n\n", "|stop;"},
        {std::string("data: a\0b\n\ndata: x\n", 19), std::string("|a\0b;", 5)},
        {"data:12\ndata:45\n\n", "|12\n45;", 7},
        {"data:12\ndata:45\ndata:6\n\n", "!", 7}, // the lines together
        {"data: 12345678901", "!", 16},           // a line that does not end
        {"data:\n\n:2345678\n\n", "|;!", 7},
    };
    for (const auto& row : kRows) {
        SCOPED_TRACE(row.stream);
        const std::string_view stream = row.stream;
        for (std::size_t cut = 0; cut <= stream.size(); ++cut)
            EXPECT_EQ(decoded(stream.substr(0, cut), stream.substr(cut), row.maxEventBytes), row.events) << cut;
    }
}

} // namespace

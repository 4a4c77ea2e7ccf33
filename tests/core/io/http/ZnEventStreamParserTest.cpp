#include "core/io/http/ZnEventStreamParser.h"

#include <gtest/gtest.h>

namespace {

/// The events as "type|data;", with "!" behind them when one was too large.
std::string decoded(std::string_view head, std::string_view tail, std::size_t maxEventBytes = 1000) {
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
    struct Row {
        std::string stream;
        std::string events;
    };
    const Row rows[] = {
        {"data: a\n\n", "|a;"},
        {"data:a\r\rdata:  b\r\n\r\n", "|a;| b;"},
        {"\xEF\xBB\xBF" "data: a\n\n\xEF\xBB\xBF" "data: b\n\n", "|a;"},
        {"\xEF\xBB" "data: a\n\ndata: b\n\n", "|b;"},
        {"data: a\r\ndata\r\ndata: b:c\r\n\r\n", "|a\n\nb:c;"},
        {": comment\nevent: message\nid: 7\nretry: 5\ndata: {}\n\ndata: x\n\n", "message|{};|x;"},
        {"event: lost\n\ndata:\n\n", "|;"},
        {"Data: a\ndata : b\n data: c\n\n", ""},
        {"data: a\n\r\ndata: b\n", "|a;"},
        {"\n\n\r\r\n\ndata: a\n\n", "|a;"},
        {"data: stop\n\ndata: unread\n\n", "|stop;"},
        {std::string("data: a\0b\n\n", 11), std::string("|a\0b;", 5)},
        {"", ""},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.stream);
        const std::string_view stream = row.stream;
        for (std::size_t cut = 0; cut <= stream.size(); ++cut)
            EXPECT_EQ(decoded(stream.substr(0, cut), stream.substr(cut)), row.events) << cut;
    }
}

TEST(ZnEventStreamParser, AnEventComesWithItsLastLineEnd) {
    EXPECT_EQ(decoded("data: a\r\r", ""), "|a;") << "without waiting for a line feed";
    EXPECT_EQ(decoded("data: a\n\r", ""), "|a;");
}

TEST(ZnEventStreamParser, LargeEventsEndIt) {
    EXPECT_EQ(decoded("data:12\ndata:45\n", "\n", 7), "|12\n45;");
    EXPECT_EQ(decoded("data:12\ndata:456", "\n", 7), "!") << "the lines together";
    EXPECT_EQ(decoded("data: 12345678901", "", 16), "!") << "a line that does not end";
    EXPECT_EQ(decoded(":2345678\n\n", "", 7), "!");
}

} // namespace

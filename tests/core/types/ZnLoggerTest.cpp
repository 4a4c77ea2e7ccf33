#include "core/types/ZnLogger.h"

#include "core/fs/TemporaryDirectory.h"
#include "support/LogCapture.h"
#include "support/Loopback.h"
#include "support/OnThreads.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <thread>

#include <unistd.h>

namespace {

using testing::ElementsAre;
using testing::MatchesRegex;

constexpr char kCategory[] = "zn.test";
constexpr char kStamp[] = "\\[[0-9]{6}\\.[0-9]{6}\\] ";

void writeLine(int level, const char* category, const ZnString& message) {
    ZnLogger::instance().write(ZnLogRecord{__FILE__, __LINE__, "Test::member", level, category}, message);
}

/// Leaves the logger as it was found.
class ZnLoggerTest : public testing::Test {
protected:
    ~ZnLoggerTest() override {
        logger_.parseRules("");
        logger_.setFilter("");
        logger_.setFile("");
        logger_.setNetwork("", 0);
        logger_.setAppName("UnknownApp");
        logger_.setVersion("0.0.1");
    }
    ZnLogger& logger_ = ZnLogger::instance();
};

TEST_F(ZnLoggerTest, RulesDecidePerCategoryAndLevel) {
    struct Row {
        const char* rules;
        const char* category;
        const char* enabled;
    }; // the letters of the levels
    constexpr Row kRows[] = {{"", "zn.core.io.a", "WE"},
                             {"zn.core.*=true", "zn.core.io.a", "DWE"},
                             {"zn.core.*=true", "zn.core", "WE"},
                             {"zn.core.io.*.all=false", "zn.core.io.a", ""},
                             {"zn.core.io.a.Warning=off", "zn.core.io.a", "E"},
                             {"ZN.core.io.a.warning=off", "zn.core.io.a", "WE"},
                             {"*.critical=no", "zn.core.io.a", "W"},
                             {"zn.a.trace=1", "zn.a.trace", "DWE"},
                             {"*=Yes;*=false", "zn.a", "WE"},
                             {"*=false;zn.*=true", "zn.a", "DWE"},
                             {"  zn.a = TRUE \n # *.all=0\n#;junk;=1;x=maybe;*.error = 0 ", "zn.a", "DW"},
                             {".warning=0", "", "DWE"},
                             {"*a*b*=1", "xxaxbx", "DWE"},
                             {"*a*b*=1", "xxbxa", "WE"},
                             {"a*ab=1", "aaab", "DWE"},
                             {"a*ab=1", "ab", "WE"}};
    for (const Row& row : kRows) {
        logger_.parseRules(row.rules);
        std::string enabled;
        for (int level : {ZnLogger::kDebug, ZnLogger::kWarning, ZnLogger::kError})
            enabled += logger_.isEnabled(row.category, level) ? std::string(1, "DWE"[level]) : "";
        EXPECT_EQ(enabled, row.enabled) << row.rules << " on " << row.category;
    }
}

// Each row in a process of its own, since the logger reads its environment once.
TEST(ZnLoggerDeathTest, ReadsItsRulesFromTheEnvironment) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const auto report = [](const char* rules) {
        ::setenv("ZN_LOGGING_RULES", rules, 1);
        ::setenv("ZN_DEBUG_RULES", "b=1", 1);
        ZnLogger& logger = ZnLogger::instance();
        std::_Exit(40 + logger.isEnabled("a", ZnLogger::kDebug) + 2 * logger.isEnabled("b", ZnLogger::kDebug));
    };
    EXPECT_EXIT(report(""), testing::ExitedWithCode(42), "");
    EXPECT_EXIT(report("a=1"), testing::ExitedWithCode(41), "");
}

TEST(ZnLoggerDeathTest, ServesUntilTheProcessIsGone) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const auto exitWhileLogging = [] {
        std::atexit([] { ZN_LOG_ERROR(kCategory, "f") << "logged at exit"; });
        ZN_LOG_ERROR(kCategory, "f") << "first use comes after the registration";
        std::thread([] {
            for (;;)
                (void)ZnLogger::instance().isEnabled(kCategory, ZnLogger::kDebug);
        }).detach();
        std::exit(3);
    };
    EXPECT_EXIT(exitWhileLogging(), testing::ExitedWithCode(3), "logged at exit");
}

TEST_F(ZnLoggerTest, ConsoleLinesHaveTheirFormAndStream) {
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    logger_.parseRules("zn.test=1");
    writeLine(ZnLogger::kDebug, kCategory, "text");
    writeLine(ZnLogger::kError, "", "text");
    writeLine(ZnLogger::kDebug, "zn.quiet", "text");
    EXPECT_THAT(testing::internal::GetCapturedStdout(),
                MatchesRegex(std::string(kStamp) + "\\[DEBUG\\] \\[zn.test\\] text\n"));
    EXPECT_THAT(testing::internal::GetCapturedStderr(), MatchesRegex(std::string(kStamp) + "\\[ERROR\\] text\n"));
}

TEST_F(ZnLoggerTest, FilterSearchesTheBody) {
    LogCapture log;
    EXPECT_TRUE(logger_.setFilter("^\\[ERROR\\] .*kee?p$"));
    writeLine(ZnLogger::kWarning, kCategory, "keep");
    writeLine(ZnLogger::kError, kCategory, "please keep");
    for (const char* broken : {"(unclosed", "a)|(b"})
        EXPECT_FALSE(logger_.setFilter(broken));
    writeLine(ZnLogger::kError, kCategory, "drop");
    EXPECT_TRUE(logger_.setFilter("x+y")); // neither a deep stack nor quadratic time
    writeLine(ZnLogger::kError, kCategory, ZnString(std::string(100000, 'x')));
    EXPECT_TRUE(logger_.setFilter(""));
    writeLine(ZnLogger::kError, nullptr, "again");
    EXPECT_THAT(log.take(), ElementsAre("[ERROR] [zn.test] please keep\n", "[ERROR] again\n"));
}

TEST_F(ZnLoggerTest, CallbacksMayLogAndFail) {
    LogCapture log;
    bool isNested = false;
    const int throwing = logger_.addSink([](const ZnString&) { throw 1; });
    const int nesting = logger_.addSink([&](const ZnString&) {
        if (!std::exchange(isNested, true))
            ZN_LOG_ERROR(kCategory, "f") << "inner";
    });
    ZN_LOG_ERROR(kCategory, "f") << "outer";
    logger_.removeSink(throwing);
    logger_.removeSink(nesting);
    EXPECT_THAT(log.take(), ElementsAre("[ERROR] [zn.test] outer\n", "[ERROR] [zn.test] inner\n"));
}

TEST_F(ZnLoggerTest, FileSinkMakesItsFolderAndAppends) {
    const TemporaryDirectory folder;
    const LogCapture quiet;
    for (const char* path : {"a/b/test.log", "a\\b\\test.log"}) {
        logger_.setFile(folder.path(path));
        writeLine(ZnLogger::kError, nullptr, "line");
    }
    EXPECT_THAT(contentOf(folder.path("a/b/test.log")),
                MatchesRegex("(" + std::string(kStamp) + "\\[ERROR\\] line\n){2}"));
    logger_.setFile(folder.path("a")); // a folder: the line is lost, nothing else
    errno = ENOENT;
    writeLine(ZnLogger::kError, nullptr, "lost");
    EXPECT_EQ(errno, ENOENT); // the caller's, not that of the failed sink
}

TEST_F(ZnLoggerTest, LinesOfManyThreadsStayWhole) {
    LogCapture log;
    constexpr int kThreads = 4;
    constexpr int kLines = 200;
    const auto textOf = [](int index) { return std::string(100, static_cast<char>('a' + index)); };
    onThreads(kThreads, [&](int index) {
        for (int line = 0; line < kLines; ++line) {
            writeLine(ZnLogger::kError, kCategory, ZnString(textOf(index)));
            logger_.parseRules(line % 2 == 0 ? "zn.*=1" : "");
        }
    });
    for (int index = 0; index < kThreads; ++index)
        EXPECT_EQ(log.countOf("] [ERROR] [zn.test] " + textOf(index) + "\n"), kLines);
}

TEST_F(ZnLoggerTest, NetworkSinkSendsOneObjectPerLineAndConnectsAgain) {
    const LogCapture quiet;
    unsigned short port = 0;
    ::close(listenOnLoopback(&port));
    logger_.setNetwork("127.0.0.1", port);
    writeLine(ZnLogger::kError, nullptr, "refused"); // delays nobody
    const int listener = listenOnLoopback(&port);
    logger_.setAppName("an \"app\"");
    logger_.setVersion("1.2");
    logger_.setNetwork("127.0.0.1", port);
    writeLine(ZnLogger::kError, nullptr, "first");
    const int first = ::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
    char buffer[4096];
    EXPECT_GT(::recv(first, buffer, sizeof(buffer), 0), 0);
    ::close(first);
    writeLine(ZnLogger::kError, nullptr, "lost on the way");   // brings a reset
    writeLine(ZnLogger::kError, nullptr, "lost to the reset"); // without a signal
    writeLine(ZnLogger::kWarning, kCategory, "[ERROR] tab\t bell\x07 quote\" slash\\ \xC3\xA4\b\f\r\n");
    writeLine(7, nullptr, "no category");
    logger_.setNetwork("", 0); // closes
    const int second = ::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
    EXPECT_EQ(receiveAll(second),
              R"({"type":"log","level":"WARNING","category":"zn.test","appName":"an \"app\"","version":"1.2",)"
              R"("message":"tab\t bell\u0007 quote\" slash\\ )"
              "\xC3\xA4"
              R"(\b\f\r\n"})"
              "\n"
              R"({"type":"log","level":"UNKNOWN","appName":"an \"app\"","version":"1.2","message":"no category"})"
              "\n");
    ::close(second);
    ::close(listener);
}

} // namespace

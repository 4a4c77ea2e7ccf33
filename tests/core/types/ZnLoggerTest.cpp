#include "core/types/ZnLogger.h"

#include "support/LogCapture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <latch>
#include <set>
#include <thread>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::MatchesRegex;

constexpr char kCategory[] = "zn.core.test.logger";
constexpr char kStamp[] = "\\[[0-9]{6}\\.[0-9]{6}\\] ";

void writeLine(int level, const char* category, const ZnString& message) {
    ZnLogger::instance().write(ZnLogRecord{__FILE__, __LINE__, "Test::member", level, category}, message);
}

/// Leaves the logger as it was found.
class ZnLoggerTest : public testing::Test {
protected:
    ~ZnLoggerTest() override {
        ZnLogger& logger = ZnLogger::instance();
        logger.parseRules("");
        logger.setFilter("");
        logger.setFile("");
        logger.setNetwork("", 0);
        logger.setAppName("UnknownApp");
        logger.setVersion("0.0.1");
    }
    ZnLogger& logger_ = ZnLogger::instance();
};

TEST_F(ZnLoggerTest, RulesDecidePerCategoryAndLevel) {
    struct Row {
        const char* rules;
        const char* category;
        bool debug, warning, error;
    };
    constexpr Row kRows[] = {
        {"", "zn.core.io.a", false, true, true},
        {"zn.core.*=true", "zn.core.io.a", true, true, true},
        {"zn.core.*=true", "zn.agent", false, true, true},
        {"zn.core.*=true", "zn.core", false, true, true},
        {"zn.core.io.*.all=false", "zn.core.io.a", false, false, false},
        {"*.warning=0", "zn.core.io.a", false, false, true},
        {"zn.core.io.a.Warning=off", "zn.core.io.a", false, false, true},
        {"ZN.core.io.a.warning=off", "zn.core.io.a", false, true, true},
        {"*.critical=no", "zn.core.io.a", false, true, false},
        {"*.error=no", "zn.core.io.a", false, true, false},
        {"*.debug=on", "zn.core.io.a", true, true, true},
        {"zn.a.trace=1", "zn.a.trace", true, true, true},
        {"zn.a.trace=1", "zn.a", false, true, true},
        {"nodots=yes", "nodots", true, true, true},
        {"*=true;*=false", "zn.a", false, true, true},
        {"*=false;zn.*=true", "zn.a", true, true, true},
        {"  zn.a = TRUE \n # *.all=0\n#;junk;=1;x=maybe;*.error = 0 ", "zn.a", true, true, false},
        {".warning=0", "", true, true, true},
        {"*a*b*=1", "xxaxbx", true, true, true},
        {"*a*b*=1", "xxbxa", false, true, true},
        {"a*ab=1", "aab", true, true, true},
        {"a*ab=1", "aaab", true, true, true},
        {"a*ab=1", "ab", false, true, true},
        {"**=1", "zn", true, true, true},
        {"z?=1", "zn", false, true, true}};
    for (const Row& row : kRows) {
        SCOPED_TRACE(std::string(row.rules) + " on " + row.category);
        logger_.parseRules(row.rules);
        EXPECT_EQ(logger_.isEnabled(row.category, ZnLogger::kDebug), row.debug);
        EXPECT_EQ(logger_.isEnabled(row.category, ZnLogger::kWarning), row.warning);
        EXPECT_EQ(logger_.isEnabled(row.category, ZnLogger::kError), row.error);
        EXPECT_TRUE(logger_.isEnabled(nullptr, ZnLogger::kDebug));
    }
}

// Each row in a process of its own, since the logger reads its environment once.
TEST(ZnLoggerDeathTest, ReadsItsRulesFromTheEnvironment) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    struct Row {
        const char* loggingRules;
        const char* debugRules;
        int enabled; // bit 0: category "a", bit 1: category "b", at debug level
    };
    constexpr Row kRows[] = {{nullptr, nullptr, 0}, {"a=1", nullptr, 1}, {nullptr, "b=1", 2},
                             {"", "b=1", 2},        {"a=1", "b=1", 1},   {"#", "b=1", 0}};
    const auto setVariable = [](const char* name, const char* value) {
        value == nullptr ? ::unsetenv(name) : ::setenv(name, value, 1);
    };
    for (const Row& row : kRows) {
        const auto report = [&] {
            setVariable("ZN_LOGGING_RULES", row.loggingRules);
            setVariable("ZN_DEBUG_RULES", row.debugRules);
            ZnLogger& logger = ZnLogger::instance();
            std::_Exit(40 + logger.isEnabled("a", ZnLogger::kDebug) +
                       2 * logger.isEnabled("b", ZnLogger::kDebug));
        };
        EXPECT_EXIT(report(), testing::ExitedWithCode(40 + row.enabled), "");
    }
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
    struct Row {
        int level;
        const char* category;
        const char* message;
        const char* out;
        const char* err;
    };
    constexpr Row kRows[] = {
        {0, kCategory, "one", "[DEBUG] [zn.core.test.logger] one\n", ""},
        {1, kCategory, "two", "", "[WARNING] [zn.core.test.logger] two\n"},
        {2, kCategory, "three", "", "[ERROR] [zn.core.test.logger] three\n"},
        {0, nullptr, "always", "[DEBUG] always\n", ""},
        {2, "", "empty category", "", "[ERROR] empty category\n"},
        {0, "zn.quiet", "not shown", "", ""},
    };
    logger_.parseRules("zn.core.test.*=1");
    for (const Row& row : kRows) {
        SCOPED_TRACE(row.message);
        testing::internal::CaptureStdout();
        testing::internal::CaptureStderr();
        writeLine(row.level, row.category, row.message);
        const std::string out = testing::internal::GetCapturedStdout();
        const std::string err = testing::internal::GetCapturedStderr();
        constexpr std::size_t kHeadBytes = 16;
        EXPECT_EQ(out.substr(std::min(kHeadBytes, out.size())), row.out);
        EXPECT_EQ(err.substr(std::min(kHeadBytes, err.size())), row.err);
        EXPECT_THAT((out + err).substr(0, kHeadBytes), MatchesRegex("(" + std::string(kStamp) + ")?"));
    }
}

TEST_F(ZnLoggerTest, MessagesLoseAHeadOfTheirOwn) {
    struct Row {
        const char* message;
        const char* shown;
    };
    constexpr Row kRows[] = {
        {" \r\n\t text \n", "text \n"},
        {"[010203.123456] [ERROR]  text", "text"},
        {"010203.123456 \t[WARNING] text", "text"},
        {"[DEBUG]text", "text"},
        {"[010203.123456]text", "text"},
        {"[010203.12345] text", "[010203.12345] text"},
        {"[010203.1234567] text", "[010203.1234567] text"},
        {"010203,123456 text", "010203,123456 text"},
        {"[INFO] text", "[INFO] text"},
        {"[ERROR] [ERROR] text", "[ERROR] text"},
        {"[010203.123456", "[010203.123456"},
        {"", ""},
    };
    LogCapture log;
    for (const Row& row : kRows) {
        writeLine(ZnLogger::kError, nullptr, row.message);
        EXPECT_THAT(log.take(), ElementsAre(std::string("[ERROR] ") + row.shown + "\n"));
    }
}

TEST_F(ZnLoggerTest, TimestampIsLocalTime) {
    const auto secondOfDay = [](std::string_view text) {
        return std::stoi(std::string(text.substr(0, 2))) * 3600 +
               std::stoi(std::string(text.substr(2, 2))) * 60 + std::stoi(std::string(text.substr(4, 2)));
    };
    const std::time_t now = std::time(nullptr);
    const std::string stamp = ZnLogger::timestampNow().str();
    EXPECT_THAT(stamp, MatchesRegex("[0-9]{6}\\.[0-9]{6}"));
    char expected[8];
    std::strftime(expected, sizeof(expected), "%H%M%S", std::localtime(&now));
    EXPECT_LE((secondOfDay(stamp) - secondOfDay(expected) + 86400) % 86400, 5);
}

TEST_F(ZnLoggerTest, MacroEvaluatesOnlyWhatIsWritten) {
    LogCapture log;
    int evaluations = 0;
    const auto count = [&] {
        return ++evaluations;
    };
    ZN_LOG_DEBUG(kCategory, "f") << count();
    EXPECT_EQ(evaluations, 0);
    if (evaluations == 0)
        ZN_LOG_WARNING(kCategory, "f") << "count " << count();
    else
        ZN_LOG_ERROR(kCategory, "f") << "the other branch";
    EXPECT_THAT(log.take(), ElementsAre("[WARNING] [zn.core.test.logger] count 1\n"));
}

TEST_F(ZnLoggerTest, FilterSearchesTheBody) {
    LogCapture log;
    EXPECT_TRUE(logger_.setFilter("^\\[ERROR\\] .*kee?p$"));
    writeLine(ZnLogger::kError, kCategory, "drop");
    writeLine(ZnLogger::kWarning, kCategory, "keep");
    writeLine(ZnLogger::kError, kCategory, "please keep");
    for (const char* broken : {"(unclosed", "a)|(b"})
        EXPECT_FALSE(logger_.setFilter(broken));
    writeLine(ZnLogger::kError, kCategory, "drop");
    writeLine(ZnLogger::kError, kCategory, "kep");
    EXPECT_THAT(log.take(), ElementsAre("[ERROR] [zn.core.test.logger] please keep\n",
                                        "[ERROR] [zn.core.test.logger] kep\n"));
    EXPECT_TRUE(logger_.setFilter("x+y"));
    writeLine(ZnLogger::kError, kCategory, ZnString(std::string(100000, 'x')));
    EXPECT_THAT(log.take(), IsEmpty());
    EXPECT_TRUE(logger_.setFilter(""));
    writeLine(ZnLogger::kError, nullptr, "again");
    EXPECT_THAT(log.take(), ElementsAre("[ERROR] again\n"));
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
    EXPECT_THAT(log.take(), ElementsAre("[ERROR] [zn.core.test.logger] outer\n",
                                        "[ERROR] [zn.core.test.logger] inner\n"));
}

TEST_F(ZnLoggerTest, FileSinkMakesItsFolderAndAppends) {
    const std::filesystem::path folder =
        std::filesystem::temp_directory_path() / ("zn-logger-test-" + std::to_string(::getpid()));
    const LogCapture quiet;
    for (const char* separator : {"/", "\\"}) {
        logger_.setFile((folder.string() + "/a" + separator + "b" + separator + "test.log").c_str());
        writeLine(ZnLogger::kError, nullptr, "line");
    }
    std::ifstream file(folder / "a" / "b" / "test.log");
    std::string line;
    for (int index = 0; index < 2; ++index) {
        std::getline(file, line);
        EXPECT_THAT(line, MatchesRegex(std::string(kStamp) + "\\[ERROR\\] line"));
    }
    EXPECT_FALSE(std::getline(file, line));
    logger_.setFile((folder.string() + "/a").c_str()); // a folder: the line is lost, nothing else
    errno = ENOENT;
    writeLine(ZnLogger::kError, nullptr, "lost");
    EXPECT_EQ(errno, ENOENT); // the caller's, not that of the failed sink
    std::filesystem::remove_all(folder);
}

TEST_F(ZnLoggerTest, LinesOfManyThreadsStayWhole) {
    LogCapture log;
    constexpr int kThreads = 4;
    constexpr int kLines = 200;
    std::latch start(kThreads);
    std::vector<std::thread> threads;
    for (int index = 0; index < kThreads; ++index) {
        threads.emplace_back([&start, index] {
            start.arrive_and_wait();
            for (int line = 0; line < kLines; ++line) {
                writeLine(ZnLogger::kError, nullptr,
                          ZnString(std::string(100, static_cast<char>('a' + index))));
                ZnLogger::instance().parseRules(line % 2 == 0 ? "zn.*=1" : "");
            }
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    std::multiset<std::string> lines;
    for (const std::string& line : log.take())
        lines.insert(line);
    EXPECT_EQ(lines.size(), static_cast<std::size_t>(kThreads * kLines));
    for (int index = 0; index < kThreads; ++index)
        EXPECT_EQ(lines.count("[ERROR] " + std::string(100, static_cast<char>('a' + index)) + "\n"),
                  static_cast<std::size_t>(kLines));
}

/// A TCP listener on the loopback interface.
class Listener {
public:
    Listener() : socket_(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t addressBytes = sizeof(address);
        EXPECT_EQ(::bind(socket_, reinterpret_cast<sockaddr*>(&address), addressBytes), 0);
        EXPECT_EQ(::listen(socket_, 4), 0);
        EXPECT_EQ(::getsockname(socket_, reinterpret_cast<sockaddr*>(&address), &addressBytes), 0);
        port_ = ntohs(address.sin_port);
    }
    ~Listener() { ::close(socket_); }
    Listener(const Listener&) = delete;
    Listener& operator=(const Listener&) = delete;
    unsigned short port() const { return port_; }
    /// Accepts one connection and reads it to its end.
    std::string readConnection() const {
        const int peer = acceptOne();
        std::string received;
        char buffer[4096];
        for (ssize_t count = 0; (count = ::recv(peer, buffer, sizeof(buffer), 0)) > 0;)
            received.append(buffer, static_cast<std::size_t>(count));
        ::close(peer);
        return received;
    }
    int acceptOne() const {
        const timeval limit{10, 0};
        ::setsockopt(socket_, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit));
        const int peer = ::accept4(socket_, nullptr, nullptr, SOCK_CLOEXEC);
        EXPECT_GE(peer, 0);
        ::setsockopt(peer, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit));
        return peer;
    }

private:
    int socket_;
    unsigned short port_ = 0;
};

TEST_F(ZnLoggerTest, NetworkSinkSendsOneObjectPerLine) {
    const LogCapture quiet;
    const Listener listener;
    logger_.setAppName("an \"app\"");
    logger_.setVersion("1.2");
    logger_.setNetwork("127.0.0.1", listener.port());
    writeLine(ZnLogger::kWarning, kCategory, "[ERROR] tab\t bell\x07 quote\" slash\\ \xC3\xA4\b\f\r\n");
    writeLine(7, nullptr, "no category");
    logger_.setNetwork("", 0); // closes
    EXPECT_EQ(
        listener.readConnection(),
        R"({"type":"log","level":"WARNING","category":"zn.core.test.logger","appName":"an \"app\"",)"
        R"("version":"1.2","message":"tab\t bell\u0007 quote\" slash\\ )"
        "\xC3\xA4"
        R"(\b\f\r\n"})"
        "\n"
        R"({"type":"log","level":"UNKNOWN","appName":"an \"app\"","version":"1.2","message":"no category"})"
        "\n");
}

TEST_F(ZnLoggerTest, NetworkSinkConnectsAgain) {
    LogCapture log;
    unsigned short closedPort = 0;
    {
        const Listener gone;
        closedPort = gone.port();
    }
    logger_.setNetwork("127.0.0.1", closedPort);
    writeLine(ZnLogger::kError, nullptr, "lost"); // refused: the other sinks still get it
    EXPECT_THAT(log.take(), ElementsAre("[ERROR] lost\n"));

    const Listener listener;
    logger_.setNetwork("127.0.0.1", listener.port());
    writeLine(ZnLogger::kError, nullptr, "first");
    const int peer = listener.acceptOne();
    const linger reset{1, 0};
    ::setsockopt(peer, SOL_SOCKET, SO_LINGER, &reset, sizeof(reset));
    ::close(peer); // a reset: the next send fails
    writeLine(ZnLogger::kError, nullptr, "lost to the reset");
    writeLine(ZnLogger::kError, nullptr, "second");
    logger_.setNetwork("", 0);
    EXPECT_THAT(listener.readConnection(), testing::EndsWith("\"message\":\"second\"}\n"));
}

} // namespace

// Secrets outside the allowlist, and an allowlist that changes.

#include "agent/AgentFixture.h"
#include "agent/McpServiceWatch.h"
#include "agent/NotingService.h"
#include "core/fs/TemporaryDirectory.h"

#include <cstdlib>
#include <sys/stat.h>

namespace {

class McpServiceSecretsTest : public AgentFixture {
protected:
    void SetUp() override {
        AgentFixture::SetUp();
        agent_.setInterop(true);
        session_ = newSession();
        ::setenv("TEST_SECRET", " from-env ", 1);
        ::setenv("TEST_BAD_SECRET", "two\nlines", 1);
    }
    std::string services(const std::string& more, const std::string& id = "s") {
        return R"({"services":[{"id":")" + id + R"(","url":")" + service_.url() + "\"" + more + "}]}";
    }
    std::string rpc() {
        std::string answer;
        EXPECT_TRUE(application_.postEvent([&] { answer = bodyOf(post(bridgeCall("s", kPing), session_)); }));
        EXPECT_TRUE(runUntil([&] { return !answer.empty(); }));
        return answer;
    }

    const TemporaryDirectory directory_;
    NotingService service_;
    std::string session_;
};

TEST_F(McpServiceSecretsTest, SecretsAreSentOrTheServiceIsNotCalled) {
    const std::string file = directory_.file("token", " from-file\r\n").str();
    const std::string empty = directory_.file("empty", "\n").str();
    const std::string large = directory_.file("large", std::string(17000, 'x')).str();
    const struct {
        std::string more, sent, missing; // one of them
    } kRows[] = {
        {R"(,"bearerTokenFile":")" + file + "\"", "authorization: Bearer from-file\n", ""},
        {R"(,"bearerTokenEnv":"TEST_SECRET")", "authorization: Bearer from-env\n", ""},
        {R"(,"headers":{"X-Key":{"env":"TEST_SECRET"},"X-Org":"7"})", "x-key: from-env\nx-org: 7\n", ""},
        {R"(,"headers":{"Authorization":{"file":")" + file + "\"}}", "authorization: from-file\n", ""},
        {R"(,"bearerTokenFile":")" + file + ".not\"", "", "bearerTokenFile"},
        {R"(,"bearerTokenFile":")" + directory_.path().str() + "\"", "", "bearerTokenFile"},
        {R"(,"bearerTokenFile":")" + empty + "\"", "", "bearerTokenFile"},
        {R"(,"bearerTokenFile":")" + large + "\"", "", "bearerTokenFile"},
        {R"(,"bearerTokenEnv":"TEST_NO_SECRET")", "", "bearerTokenEnv"},
        {R"(,"bearerTokenEnv":"TEST_BAD_SECRET")", "", "bearerTokenEnv"},
        {R"(,"bearerToken":"inline","bearerTokenFile":")" + empty + "\"", "", "bearerTokenFile"},
        {R"(,"headers":"x")", "", "headers"},
        {R"(,"headers":{"X-Key":5})", "", "headers"},
        {R"(,"headers":{"X-Key":{"file":"a","env":"b"}})", "", "headers"},
        {R"(,"headers":{"X-Key":"a\r\nb"})", "", "headers"},
        {R"(,"headers":{"X Key":"a"})", "", "headers"},
        {R"(,"headers":{"Host":"a"})", "", "headers"},
        {R"(,"headers":{"Mcp-Session-Id":"a"})", "", "headers"},
        {R"(,"bearerToken":"t","headers":{"authorization":"a"})", "", "headers"},
    };
    for (const auto& row : kRows) {
        SCOPED_TRACE(row.more);
        setServices(services(row.more));
        service_.lastSecrets.clear();
        const std::string answer = rpc();
        EXPECT_EQ(service_.lastSecrets, row.sent);
        const std::string refusal = R"({"error": "A secret of this service is missing: )" + row.missing;
        EXPECT_EQ(holds(answer, refusal), !row.missing.empty()) << answer;
        const std::string shown = answer + bodyOf(call("GET", "/services"));
        EXPECT_FALSE(holds(shown, "from-") || holds(shown, directory_.path().str())) << shown;
    }
}

TEST_F(McpServiceSecretsTest, AChangedListIsTakenOverAndABadOneIsNot) {
    const std::string token = directory_.file("token", "one").str();
    const std::string more = R"(,"bearerTokenFile":")" + token + "\"";
    const ZnString path = directory_.file("services.json", services(more));
    ::chmod(token.c_str(), 0600);
    const auto list = std::make_shared<McpServiceList>();
    ASSERT_TRUE(list->load(path, true));
    const McpServiceList::Ref first = list->find("s");
    const auto watch = std::make_shared<McpServiceWatch>(list, std::make_shared<McpWorkers>(), path,
                                                         McpServiceList::Reading{true, true}, 20);
    watch->start();
    const auto change = [this](const std::string& name, const std::string& text) {
        testing::internal::CaptureStderr();
        ::chmod(directory_.file("new", text).str().c_str(), 0600);
        ASSERT_EQ(::rename((directory_.path().str() + "/new").c_str(), (directory_.path().str() + "/" + name).c_str()),
                  0);
    };
    const auto waitForLine = [this](const std::string& part) { // one line, however often it looks
        settle(200);
        const std::string said = testing::internal::GetCapturedStderr();
        EXPECT_TRUE(holds(said, part)) << said;
        EXPECT_EQ(std::count(said.begin(), said.end(), '\n'), 1) << said;
    };
    change("token", "two");
    waitForLine("services file " + path.str() + " has changed: 1 services");
    EXPECT_EQ(list->find("s")->bearerToken, "two");
    EXPECT_EQ(first->bearerToken, "one") << "what has begun keeps what it began with";

    const McpServiceList::Ref second = list->find("s");
    for (const std::string& bad : {std::string("{"), std::string(), services(more + R"(,"enabeld":true)")}) {
        change("services.json", bad);
        waitForLine("services file " + path.str() + " has changed and is not taken: ");
        EXPECT_EQ(list->find("s"), second);
    }
    change("services.json", " " + services(more));
    waitForLine("has changed: 1 services");
    EXPECT_EQ(list->find("s"), second) << "nothing has changed for it, so sessions with it stay";
    change("services.json", services("", "other"));
    waitForLine("has changed: 1 services");
    EXPECT_EQ(list->find("s"), nullptr);
    change("token", "three"); // which nobody names any more
    settle(200);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

} // namespace

#include <Plinth/Component.h>
#include <Plinth/Console.h>
#include <gtest/gtest.h>

#include <list>
#include <string>

#include "Plinth/LocalConsole.h"
#include "Support/Gate.h"
#include "Support/LogCapture.h"

namespace Veltro::Plinth {
namespace {

using TestSupport::CGate;
using TestSupport::CLocalConsole;
using TestSupport::CLogCapture;
using TestSupport::consolePath;
using TestSupport::CRunner;
using TestSupport::CTestOperator;

class CForeignConsole : public IConsole {
public:
    bool registerCommand(const std::string&, const std::string&, CommandHandler) override { return false; }
    void unregisterCommand(const std::string&) override {}
};

class ConsoleHost : public testing::Test {
protected:
    ConsoleHost() {
        console.add("say", [](int argc, char** argv) {
            for (int i = 0; i < argc; ++i) logInfo("%s\n", argv[i]);
            return 0;
        });
        // 16 MiB in lines of 64 bytes.
        console.add("flood", [](int, char**) {
            for (int i = 0; i < (16 << 20) / 64; ++i) logInfo("%s\n", std::string(63, 'x').c_str());
            return 0;
        });
    }

    CLocalConsole console;
    CLogCapture quiet;
};

TEST(ConsoleHostOff, NothingIsThereUntilItIsStarted) {
    EXPECT_EQ(CConsoleHost::path(), "");
    EXPECT_EQ(CComponentRegistry::getConsole("Local"), nullptr);
    CConsoleHost::stop();
}

TEST(ConsoleHostOff, NobodyAttachesToWhatIsNotThere) {
    CConsoleClient client;
    EXPECT_FALSE(client.attach(consolePath("nobody").c_str()));
    EXPECT_NE(client.reason(), "");
    EXPECT_FALSE(client.attach(nullptr));
    EXPECT_FALSE(client.send("x", 1));
    char byte;
    EXPECT_EQ(client.receive(&byte, 1, 0), -1);
}

TEST(ConsoleHostOff, StartsAtTheDefaultPlaceOfTheProcess) {
    ASSERT_TRUE(CConsoleHost::start());
    EXPECT_TRUE(CConsoleHost::path().starts_with(CConsoleHost::defaultFolder())) << CConsoleHost::path();
    CTestOperator one(CConsoleHost::path());
    EXPECT_TRUE(one.type("exit\n"));
    EXPECT_TRUE(one.isSentAway());
    CConsoleHost::stop();
    EXPECT_EQ(CConsoleHost::path(), "");
}

TEST(ConsoleHostOff, DoesNotStartWhereItCannotBe) {
    CLogCapture log;
    EXPECT_FALSE(CConsoleHost::start("/no/such/folder/console"));
    EXPECT_EQ(log.count(LOG_LEVEL_WARNING, "console not started at /no/such/folder/console: error "), 1);
    EXPECT_FALSE(CConsoleHost::start(""));
    EXPECT_FALSE(CConsoleHost::start(std::string(5'000, 'x').c_str()));
    EXPECT_EQ(log.lines().size(), 3U);
    EXPECT_EQ(CComponentRegistry::getConsole("Local"), nullptr);
}

TEST(ConsoleHostOff, DoesNotTakeAnotherConsolesPlace) {
    const auto foreign = std::make_shared<CForeignConsole>();
    CComponentRegistry::setConsole(foreign);
    CLogCapture log;
    EXPECT_FALSE(CConsoleHost::start(consolePath().c_str()));
    EXPECT_EQ(log.count(LOG_LEVEL_WARNING, "there is another console"), 1);
    EXPECT_EQ(CComponentRegistry::getConsole("Local"), foreign);
    CComponentRegistry::setConsole(nullptr);
}

TEST_F(ConsoleHost, AnswersAnOperator) {
    CTestOperator one(console.path);
    EXPECT_TRUE(one.type("say hello\n"));
    EXPECT_EQ(one.readUntil("\n"), "hello\n");
}

TEST_F(ConsoleHost, AnswersEachOperatorForHimself) {
    CTestOperator one(console.path);
    CTestOperator two(console.path);
    EXPECT_TRUE(one.type("say one\n"));
    EXPECT_EQ(one.readUntil("\n"), "one\n");
    EXPECT_TRUE(two.type("say two\n"));
    EXPECT_EQ(two.readUntil("\n"), "two\n");
}

TEST_F(ConsoleHost, RunsAsOneOnly) {
    CLogCapture log;
    EXPECT_FALSE(CConsoleHost::start(consolePath("other").c_str()));
    EXPECT_EQ(log.count(LOG_LEVEL_WARNING, "it runs already"), 1);
    EXPECT_EQ(CConsoleHost::path(), console.path);
}

TEST_F(ConsoleHost, KeepsItsCommandsFromOneStartToTheNext) {
    CConsoleHost::stop();
    ASSERT_TRUE(CConsoleHost::start(console.path.c_str()));
    CTestOperator one(console.path);
    EXPECT_TRUE(one.type("say again\n"));
    EXPECT_EQ(one.readUntil("\n"), "again\n");
}

TEST_F(ConsoleHost, SendsItsOperatorsAwayWhenItEnds) {
    CTestOperator one(console.path);
    EXPECT_TRUE(one.type("say hello\n"));
    EXPECT_EQ(one.readUntil("\n"), "hello\n");
    CConsoleHost::stop();
    EXPECT_TRUE(one.isSentAway());
    CConsoleClient late;
    EXPECT_FALSE(late.attach(console.path.c_str()));
}

TEST_F(ConsoleHost, MayBeEndedByACommand) {
    console.add("end", [](int, char**) {
        CConsoleHost::stop();
        return 0;
    });
    CTestOperator one(console.path);
    EXPECT_TRUE(one.type("end\n"));
    EXPECT_TRUE(one.isSentAway());
    // The former thread may still be on its way out.
    EXPECT_TRUE(TestSupport::waitUntil([this] { return CConsoleHost::start(console.path.c_str()); }));
}

TEST_F(ConsoleHost, SendsWhoSaysExitAway) {
    CTestOperator one(console.path);
    EXPECT_TRUE(one.type("say last\nexit\nsay never\n"));
    EXPECT_TRUE(one.isSentAway());
    EXPECT_EQ(one.said, "last\n");
}

TEST_F(ConsoleHost, RefusesALineOfAMegabyteAndGoesOn) {
    CTestOperator one(console.path);
    EXPECT_TRUE(one.type(std::string(1 << 20, 'x') + "\nsay on\n"));
    EXPECT_EQ(one.readUntil("on\n"), "line too long: at most 4096 bytes\non\n");
}

TEST_F(ConsoleHost, ServesAHundredOperatorsAndTellsTheNextOne) {
    std::list<CTestOperator> crowd;
    for (int i = 0; i < CConsoleHost::MAX_OPERATORS; ++i) {
        CTestOperator& one = crowd.emplace_back(console.path);
        EXPECT_TRUE(one.type("say " + std::to_string(i) + "\n"));
        EXPECT_EQ(one.readUntil("\n"), std::to_string(i) + "\n");
    }
    {
        CTestOperator too_many(console.path);
        EXPECT_TRUE(too_many.isSentAway());
        EXPECT_EQ(too_many.said, "too many operators\n");
    }
    EXPECT_TRUE(crowd.front().type("say still\n"));
    EXPECT_EQ(crowd.front().readUntil("\n"), "still\n");
    crowd.pop_front();
    // His place becomes free.
    EXPECT_TRUE(TestSupport::waitUntil([this] {
        CTestOperator next(console.path);
        next.type("say next\n");
        return next.readUntil("\n") == "next\n";
    }));
}

TEST_F(ConsoleHost, OneWhoNeverReadsDisturbsNobody) {
    CTestOperator silent(console.path);
    EXPECT_TRUE(silent.type("flood\nflood\n"));
    CTestOperator polite(console.path);
    for (int i = 0; i < 10; ++i) {
        EXPECT_TRUE(polite.type("say hello\n"));
        EXPECT_EQ(polite.readUntil("\n"), "hello\n");
    }
}

TEST_F(ConsoleHost, AnAnswerBeyondTheBoundIsCutAndSaysSo) {
    CTestOperator late(console.path);
    EXPECT_TRUE(late.type("flood\nsay on\n"));
    const std::string read = late.readUntil("\non\n");
    EXPECT_NE(read.find("\nthe answer was too long: "), std::string::npos);
    EXPECT_NE(read.find(" bytes left out\non\n"), std::string::npos);
    EXPECT_LE(read.size(), (8U << 20) + 200);
    EXPECT_GE(read.size(), 8U << 20);
}

TEST_F(ConsoleHost, AnOperatorWhoVanishesLeavesNothingBehind) {
    for (int i = 0; i < 300; ++i) {
        CTestOperator one(console.path);
        EXPECT_TRUE(one.type("say half a li"));
    }
    CTestOperator two(console.path);
    EXPECT_TRUE(two.type("say hello\n"));
    EXPECT_EQ(two.readUntil("\n"), "hello\n");
}

TEST_F(ConsoleHost, ASlowCommandKeepsNobodyElseThanOperatorsWaiting) {
    CGate entered;
    CGate leave;
    console.add("slow", [&](int, char**) {
        entered.open();
        EXPECT_TRUE(leave.pass());
        return 0;
    });
    CTestOperator one(console.path);
    EXPECT_TRUE(one.type("slow\n"));
    ASSERT_TRUE(entered.pass());
    logInfo("from elsewhere\n");
    EXPECT_EQ(quiet.count(LOG_LEVEL_PLAIN, "from elsewhere\n"), 1);
    EXPECT_EQ(CConsoleHost::path(), console.path);
    leave.open();
    EXPECT_TRUE(one.type("say done\n"));
    EXPECT_EQ(one.readUntil("\n"), "done\n");
}

}  // namespace
}  // namespace Veltro::Plinth

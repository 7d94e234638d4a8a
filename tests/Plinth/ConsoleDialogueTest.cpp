#include <Plinth/Component.h>
#include <Plinth/Console.h>
#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <vector>

#include "Plinth/LocalConsole.h"
#include "Support/Gate.h"
#include "Support/LogCapture.h"

namespace Veltro::Plinth {
namespace {

using TestSupport::CGate;
using TestSupport::CLocalConsole;
using TestSupport::CLogCapture;
using TestSupport::CRunner;

const std::string TOO_LONG = "line too long: at most 4096 bytes\n";
const std::string CONTROL = "control character in the line: not run\n";

class ConsoleDialogue : public testing::Test {
protected:
    ConsoleDialogue() {
        console.add("say", [](int argc, char** argv) {
            for (int i = 0; i < argc; ++i) logInfo("%s\n", argv[i]);
            return argc;
        });
    }
    /// What the operator sees when he has typed this.
    std::string answerTo(const std::string& typed) {
        answer.clear();
        dialogue.receive(typed.data(), typed.size());
        while (dialogue.runNext()) {
        }
        return answer;
    }

    CLocalConsole console;
    std::string answer;
    CConsoleDialogue dialogue{
        [this](const char* bytes, std::size_t length) { answer.append(bytes, length); }};
    CLogCapture log;
};

TEST_F(ConsoleDialogue, RunsACommandWithItsWords) {
    EXPECT_EQ(answerTo("say one two\n"), "one\ntwo\n");
    EXPECT_EQ(answerTo("  say \t three  \n"), "three\n");
    EXPECT_EQ(answerTo("say\n"), "");
}

TEST_F(ConsoleDialogue, RunsNothingBeforeTheLineIsFinished) {
    EXPECT_EQ(answerTo("say o"), "");
    EXPECT_EQ(answerTo("ne\nsay t"), "one\n");
    EXPECT_EQ(answerTo("wo\n"), "two\n");
}

TEST_F(ConsoleDialogue, RunsOneLineAtATime) {
    const std::string typed = "say one\nsay two\n";
    dialogue.receive(typed.data(), typed.size());
    EXPECT_TRUE(dialogue.runNext());
    EXPECT_EQ(answer, "one\n");
    EXPECT_TRUE(dialogue.runNext());
    EXPECT_EQ(answer, "one\ntwo\n");
    EXPECT_FALSE(dialogue.runNext());
}

TEST_F(ConsoleDialogue, TakesLinesOfEveryKindOfTerminal) {
    EXPECT_EQ(answerTo("say one\r\nsay two\n\n\r\n"), "one\ntwo\n");
}

TEST_F(ConsoleDialogue, AnswersAtWhateverLevelAndLogsAsBefore) {
    console.add("levels", [](int, char**) {
        for (int level = LOG_LEVEL_FATAL; level <= LOG_LEVEL_TRACE; ++level) {
            logFilter(level, nullptr, nullptr, nullptr, 0, nullptr, "level %d\n", level);
        }
        return 0;
    });
    setLogLevel(LOG_LEVEL_ERROR);
    EXPECT_EQ(answerTo("levels\n"), "level 1\nlevel 2\nlevel 3\nlevel 4\n");
    ASSERT_EQ(log.lines().size(), 2U);
    EXPECT_EQ(log.lines()[1].text, "level 2\n");
}

TEST_F(ConsoleDialogue, ALevelIsEnabledForACommandOnly) {
    setLogLevel(LOG_LEVEL_ERROR);
    bool inside = false;
    console.add("ask", [&inside](int, char**) {
        inside = isLogEnabled(LOG_LEVEL_TRACE) && !isLogEnabled(LOG_LEVEL_TRACE + 1);
        return 0;
    });
    answerTo("ask\n");
    EXPECT_TRUE(inside);
    EXPECT_FALSE(isLogEnabled(LOG_LEVEL_TRACE));
}

TEST_F(ConsoleDialogue, LeavesOutWhatOtherThreadsLog) {
    console.add("quiet", [](int, char**) {
        CRunner other([] { logInfo("not an answer\n"); });
        return 0;
    });
    EXPECT_EQ(answerTo("quiet\n"), "");
    EXPECT_EQ(log.count(LOG_LEVEL_PLAIN, "not an answer\n"), 1);
}

TEST_F(ConsoleDialogue, EndsEveryMessageWithALine) {
    console.add("bare", [](int, char**) {
        logInfo("no end");
        logInfo("%s", "");
        return 0;
    });
    EXPECT_EQ(answerTo("bare\n"), "no end\n\n");
}

TEST_F(ConsoleDialogue, KeepsWhatATerminalWouldObeyToItself) {
    console.add("evil", [](int, char**) {
        logInfo("\x1B[2J\a\tfine\x7F\n");
        return 0;
    });
    EXPECT_EQ(answerTo("evil\n"), "?[2J?\tfine?\n");
}

TEST_F(ConsoleDialogue, RefusesALineThatIsTooLongAndGoesOn) {
    EXPECT_EQ(answerTo(std::string(1 << 20, 'x') + "\nsay on\n"), TOO_LONG + "on\n");
}

TEST_F(ConsoleDialogue, RefusesALongLineThatComesInPieces) {
    const std::string piece(1'000, 'x');
    for (int i = 0; i < 1'000; ++i) EXPECT_EQ(answerTo(piece), "");
    EXPECT_EQ(answerTo("\nsay on\n"), TOO_LONG + "on\n");
}

TEST_F(ConsoleDialogue, TakesALineOf4096BytesAndNotOneMore) {
    const std::string text(4096 - 4, 'x');
    EXPECT_EQ(answerTo("say " + text + "\n"), text + "\n");
    EXPECT_EQ(answerTo("say " + text + "\r\n"), text + "\n");
    EXPECT_EQ(answerTo("say " + text + "x\n"), TOO_LONG);
    EXPECT_EQ(answerTo("say " + text + "x\r\n"), TOO_LONG);
}

TEST_F(ConsoleDialogue, RefusesControlCharacters) {
    for (const char c : {'\0', '\x01', '\a', '\x1B', '\x7F', '\r'}) {
        EXPECT_EQ(answerTo(std::string("say a") + c + "b\n"), CONTROL) << static_cast<int>(c);
    }
    EXPECT_EQ(answerTo("say \xC3\xA4\n"), "\xC3\xA4\n");
}

TEST_F(ConsoleDialogue, SaysWhichWordItDoesNotKnow) {
    EXPECT_EQ(answerTo("sya one\n"), "unknown command: sya (help lists the commands)\n");
    EXPECT_EQ(answerTo(std::string(4'000, 'y') + "\n"),
              "unknown command: " + std::string(60, 'y') + " (help lists the commands)\n");
}

TEST_F(ConsoleDialogue, MarksTheEndOfEveryAnswerWithItsResult) {
    EXPECT_EQ(answerTo("mark =\n"), "");
    EXPECT_EQ(answerTo("say one two\n"), "one\ntwo\n= 2\n");
    EXPECT_EQ(answerTo("nothing\n"), "unknown command: nothing (help lists the commands)\n= 127\n");
    EXPECT_EQ(answerTo("a\ab\n"), CONTROL + "= 126\n");
    EXPECT_EQ(answerTo(std::string(5'000, 'x') + "\n"), TOO_LONG + "= 126\n");
    EXPECT_EQ(answerTo("\n"), "= 0\n");
    EXPECT_EQ(answerTo("mark a b\n"), "one word at most\n= 126\n");
    EXPECT_EQ(answerTo("mark\n"), "= 0\n");
    EXPECT_EQ(answerTo("say\n"), "");
}

TEST_F(ConsoleDialogue, ListsItsCommands) {
    console.add("other", [](int, char**) { return 0; });
    EXPECT_EQ(answerTo("commands\n"), "other\nsay\n");
    const std::string help = answerTo("help\n");
    EXPECT_NE(help.find("\nsay [...]\n"), std::string::npos) << help;
    EXPECT_NE(help.find("exit "), std::string::npos);
}

TEST_F(ConsoleDialogue, EndsWithExitAndRunsNothingMore) {
    EXPECT_FALSE(dialogue.isOver());
    EXPECT_EQ(answerTo("exit\nsay more\n"), "");
    EXPECT_TRUE(dialogue.isOver());
}

TEST_F(ConsoleDialogue, SurvivesACommandThatThrows) {
    console.add("throw", [](int, char**) -> int { throw std::runtime_error("no"); });
    EXPECT_EQ(answerTo("mark =\nthrow\nsay on\n"), "= -1\non\n= 1\n");
}

TEST_F(ConsoleDialogue, TheWordsOfTheDialogueAreTaken) {
    auto handler = [](int, char**) { return 0; };
    const auto commands = CComponentRegistry::getConsole(COMPONENT_SERVER_LOCAL);
    for (const char* name : {"help", "commands", "mark", "exit", "say", "", "two words", "a\tb", "a\nb"}) {
        EXPECT_FALSE(commands->registerCommand(name, "", handler)) << name;
    }
    EXPECT_FALSE(commands->registerCommand("empty", "", {}));
}

TEST_F(ConsoleDialogue, TakingACommandAwayWaitsForItsEnd) {
    CGate entered;
    CGate leave;
    std::atomic<bool> ended{false};
    console.add("slow", [&](int, char**) {
        entered.open();
        EXPECT_TRUE(leave.pass());
        ended.store(true);
        return 0;
    });
    CRunner running([this] { answerTo("slow\n"); });
    ASSERT_TRUE(entered.pass());
    bool had_ended = false;
    CRunner removing([&] {
        CComponentRegistry::getConsole(COMPONENT_SERVER_LOCAL)->unregisterCommand("slow");
        had_ended = ended.load();
    });
    leave.open();
    removing.join();
    running.join();
    EXPECT_TRUE(had_ended);
    EXPECT_NE(answerTo("slow\n"), "");
}

TEST_F(ConsoleDialogue, ACommandMayTakeItselfAway) {
    console.add("once", [](int, char**) {
        CComponentRegistry::getConsole(COMPONENT_SERVER_LOCAL)->unregisterCommand("once");
        logInfo("once\n");
        return 0;
    });
    EXPECT_EQ(answerTo("once\n"), "once\n");
    EXPECT_EQ(answerTo("once\n"), "unknown command: once (help lists the commands)\n");
}

TEST_F(ConsoleDialogue, ACommandMayRunAnotherDialogue) {
    std::string inner_answer;
    CConsoleDialogue inner(
        [&](const char* bytes, std::size_t length) { inner_answer.append(bytes, length); });
    console.add("nest", [&](int, char**) {
        logInfo("before\n");
        inner.receive("say inside\n", 11);
        inner.runNext();
        logInfo("after\n");
        return 0;
    });
    EXPECT_EQ(answerTo("nest\n"), "before\nafter\n");
    EXPECT_EQ(inner_answer, "inside\n");
}

}  // namespace
}  // namespace Veltro::Plinth

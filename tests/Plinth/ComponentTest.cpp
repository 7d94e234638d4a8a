#include <Plinth/Component.h>
#include <Plinth/Thread.h>
#include <gtest/gtest.h>

#include <atomic>
#include <map>
#include <memory>
#include <string>
#include <utility>

namespace Veltro::Plinth {
namespace {

/// The least that a host does.
class CTestConsole : public IConsole {
public:
    bool registerCommand(const std::string& name, const std::string& help, CommandHandler handler) override {
        if (name.empty() || !handler) return false;
        return m_commands.try_emplace(name, help, std::move(handler)).second;
    }
    void unregisterCommand(const std::string& name) override { m_commands.erase(name); }

    int run(const std::string& name, int argc, char** argv) { return m_commands.at(name).second(argc, argv); }
    std::string help(const std::string& name) { return m_commands.at(name).first; }

private:
    std::map<std::string, std::pair<std::string, CommandHandler>> m_commands;
};

/// Asks the registry while it goes.
class CAskingConsole : public CTestConsole {
public:
    explicit CAskingConsole(bool& asked) : m_asked(asked) {}
    ~CAskingConsole() override {
        m_asked = CComponentRegistry::getConsole(COMPONENT_SERVER_LOCAL) == nullptr;
    }

private:
    bool& m_asked;
};

TEST(Component, ThereIsNoConsoleUntilAHostIsSet) {
    EXPECT_EQ(CComponentRegistry::getConsole("Local"), nullptr);
}

TEST(Component, TheHostIsFoundUnderTheServerNameLocalOnly) {
    const auto host = std::make_shared<CTestConsole>();
    CComponentRegistry::setConsole(host);
    EXPECT_EQ(CComponentRegistry::getConsole("Local"), host);
    EXPECT_EQ(CComponentRegistry::getConsole("local"), nullptr);
    EXPECT_EQ(CComponentRegistry::getConsole(""), nullptr);
    EXPECT_EQ(CComponentRegistry::getConsole(nullptr), nullptr);
    CComponentRegistry::setConsole(nullptr);
    EXPECT_EQ(CComponentRegistry::getConsole("Local"), nullptr);
}

TEST(Component, ACommandReachesItsHandlerThroughTheRegistry) {
    const auto host = std::make_shared<CTestConsole>();
    CComponentRegistry::setConsole(host);
    std::string word;
    const auto handler = [&](int argc, char** argv) {
        if (argc == 1) word = argv[0];
        return 0;
    };
    const auto console = CComponentRegistry::getConsole(COMPONENT_SERVER_LOCAL);
    ASSERT_NE(console, nullptr);
    EXPECT_TRUE(console->registerCommand("cmd", "cmd [-h]", handler));
    EXPECT_FALSE(console->registerCommand("cmd", "twice", handler));
    EXPECT_FALSE(console->registerCommand("", "nameless", handler));
    EXPECT_FALSE(console->registerCommand("empty", "no handler", {}));
    char text[] = "-h";
    char* words[] = {text};
    EXPECT_EQ(host->run("cmd", 1, words), 0);
    EXPECT_EQ(word, "-h");
    EXPECT_EQ(host->help("cmd"), "cmd [-h]");
    console->unregisterCommand("cmd");
    EXPECT_TRUE(console->registerCommand("cmd", "again", handler));
    CComponentRegistry::setConsole(nullptr);
}

TEST(Component, AHostLivesUntilItsLastUserLetsItGo) {
    auto host = std::make_shared<CTestConsole>();
    const std::weak_ptr<IConsole> watch = host;
    CComponentRegistry::setConsole(std::move(host));
    auto user = CComponentRegistry::getConsole(COMPONENT_SERVER_LOCAL);
    CComponentRegistry::setConsole(nullptr);
    EXPECT_FALSE(watch.expired());
    user.reset();
    EXPECT_TRUE(watch.expired());
}

TEST(Component, AHostMayAskTheRegistryWhileItGoes) {
    bool asked = false;
    CComponentRegistry::setConsole(std::make_shared<CAskingConsole>(asked));
    CComponentRegistry::setConsole(nullptr);
    EXPECT_TRUE(asked);
}

TEST(Component, HostsMayBeReplacedWhileOthersAsk) {
    std::atomic<int> found{0};
    CComponentRegistry::setConsole(std::make_shared<CTestConsole>());
    CThreadLite asker(
        [&](CThreadLite& self) {
            while (self.looping()) {
                if (CComponentRegistry::getConsole(COMPONENT_SERVER_LOCAL)) found.fetch_add(1);
            }
        },
        "asker");
    ASSERT_TRUE(asker.createThread());
    while (found.load() == 0) yieldThread();
    for (int i = 0; i < 1000; ++i) CComponentRegistry::setConsole(std::make_shared<CTestConsole>());
    asker.destroyThread();
    CComponentRegistry::setConsole(nullptr);
    EXPECT_GT(found.load(), 0);
}

}  // namespace
}  // namespace Veltro::Plinth

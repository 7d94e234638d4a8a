// The console host of the test's process, and operators that attach to it.
#pragma once

#include <Plinth/Component.h>
#include <Plinth/Console.h>
#include <Plinth/Thread.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <memory>
#include <string>
#include <vector>

namespace Veltro::TestSupport {

/// A path of this test's own for a console.
inline std::string consolePath(const std::string& name = "console") {
    const auto folder =
        std::filesystem::temp_directory_path() / ("plinth-" + std::to_string(Plinth::getCurrentThreadId()));
    std::filesystem::create_directories(folder);
    return (folder / name).string();
}

/// The host from construction to destruction, and commands that go with it.
class CLocalConsole {
public:
    CLocalConsole() {
        EXPECT_TRUE(Plinth::CConsoleHost::start(path.c_str()));
        m_commands = Plinth::CComponentRegistry::getConsole("Local");
    }
    ~CLocalConsole() {
        for (const std::string& name : m_names) m_commands->unregisterCommand(name);
        Plinth::CConsoleHost::stop();
        std::filesystem::remove_all(std::filesystem::path(path).parent_path());
    }
    CLocalConsole(const CLocalConsole&) = delete;
    CLocalConsole& operator=(const CLocalConsole&) = delete;

    void add(const std::string& name, Plinth::IConsole::CommandHandler handler) {
        EXPECT_TRUE(m_commands->registerCommand(name, name + " [...]", std::move(handler)));
        m_names.push_back(name);
    }

    const std::string path = consolePath();

private:
    std::shared_ptr<Plinth::IConsole> m_commands;
    std::vector<std::string> m_names;
};

/// An operator who waits for his answers.
class CTestOperator {
public:
    explicit CTestOperator(const std::string& path) {
        EXPECT_TRUE(client.attach(path.c_str())) << client.reason();
    }

    bool type(const std::string& text) { return client.send(text.data(), text.size()); }
    /// Reads until a text has come; whatever came until the end, or until patience ran out.
    std::string readUntil(const std::string& text) {
        while (m_read.find(text) == std::string::npos) {
            char bytes[65536];
            const int length = client.receive(bytes, sizeof bytes, 20'000);
            if (length <= 0) break;
            m_read.append(bytes, static_cast<std::size_t>(length));
        }
        const std::size_t found = m_read.find(text);
        const std::size_t end = found != std::string::npos ? found + text.size() : m_read.size();
        std::string piece = m_read.substr(0, end);
        m_read.erase(0, end);
        return piece;
    }
    /// Whether the host sends him away within patience, whatever it says before.
    bool isSentAway() {
        char bytes[65536];
        for (;;) {
            const int length = client.receive(bytes, sizeof bytes, 20'000);
            if (length <= 0) return length < 0;
            said.append(bytes, static_cast<std::size_t>(length));
        }
    }

    Plinth::CConsoleClient client;
    std::string said;

private:
    std::string m_read;
};

}  // namespace Veltro::TestSupport

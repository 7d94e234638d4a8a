#include "ConsoleCommands.h"

#include <Plinth/Thread.h>

#include <algorithm>
#include <new>

#include "Immortal.h"

namespace Veltro::Plinth {

namespace {

/// The words of the dialogue itself.
const char* const OWN_WORDS[] = {"help", "commands", "exit", "mark"};

bool mayBeNamed(const std::string& name) {
    const auto is_no_word = [](unsigned char c) { return c <= ' ' || c == 0x7F; };
    return !name.empty() && std::none_of(name.begin(), name.end(), is_no_word) &&
           std::find(std::begin(OWN_WORDS), std::end(OWN_WORDS), name) == std::end(OWN_WORDS);
}

/// Whose handler the calling thread is inside of; null outside.
thread_local const void* t_running = nullptr;

}  // namespace

const std::shared_ptr<CConsoleCommands>& CConsoleCommands::get() {
    static TImmortal<std::shared_ptr<CConsoleCommands>> instance;
    static const bool made = [] {
        instance.get() = std::make_shared<CConsoleCommands>();
        return true;
    }();
    static_cast<void>(made);
    return instance.get();
}

bool CConsoleCommands::registerCommand(const std::string& name, const std::string& help,
                                       CommandHandler handler) {
    if (!mayBeNamed(name) || !handler) return false;
    try {
        auto command = std::make_shared<SCommand>();
        command->help = help;
        command->handler = std::move(handler);
        CLockGuard guard(m_mutex);
        return m_commands.try_emplace(name, std::move(command)).second;
    } catch (const std::bad_alloc&) {
        return false;
    }
}

void CConsoleCommands::unregisterCommand(const std::string& name) {
    std::shared_ptr<SCommand> command;
    {
        CLockGuard guard(m_mutex);
        const auto found = m_commands.find(name);
        if (found == m_commands.end()) return;
        command = std::move(found->second);
        m_commands.erase(found);
    }
    // Inside of the handler the wait would be for the caller itself.
    if (t_running == command.get()) return;
    while (command->calls.load() > 0) sleepMilliSecond(1);
}

std::vector<std::pair<std::string, std::string>> CConsoleCommands::list() {
    std::vector<std::pair<std::string, std::string>> commands;
    CLockGuard guard(m_mutex);
    for (const auto& [name, command] : m_commands) commands.emplace_back(name, command->help);
    return commands;
}

std::shared_ptr<CConsoleCommands::SCommand> CConsoleCommands::enter(const std::string& name) {
    CLockGuard guard(m_mutex);
    const auto found = m_commands.find(name);
    if (found == m_commands.end()) return nullptr;
    found->second->calls.fetch_add(1);
    return found->second;
}

bool CConsoleCommands::run(std::vector<std::string>& words, int& result) {
    std::vector<char*> argv;
    for (std::size_t i = 1; i < words.size(); ++i) argv.push_back(words[i].data());
    const int argc = static_cast<int>(argv.size());
    argv.push_back(nullptr);
    const auto command = enter(words[0]);
    if (!command) return false;
    const void* outer = t_running;
    t_running = command.get();
    try {
        result = command->handler(argc, argv.data());
    } catch (...) {
        result = -1;
    }
    t_running = outer;
    command->calls.fetch_sub(1);
    return true;
}

}  // namespace Veltro::Plinth

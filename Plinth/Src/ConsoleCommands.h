#pragma once

#include <Plinth/Component.h>
#include <Plinth/Mutex.h>

#include <atomic>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace Veltro::Plinth {

/// The commands of this process, whatever host runs them. Never destroyed. Any thread may call.
class CConsoleCommands : public IConsole {
public:
    /// The one of this process.
    static const std::shared_ptr<CConsoleCommands>& get();

    bool registerCommand(const std::string& name, const std::string& help, CommandHandler handler) override;
    void unregisterCommand(const std::string& name) override;

    /// Names and help lines, in the order of the names. May throw std::bad_alloc.
    std::vector<std::pair<std::string, std::string>> list();
    /// Runs a command on the calling thread: what it returned; an exception that leaves it counts as -1.
    /// @param words of the line; the first is the command's name.
    /// @return false when there is no such command.
    bool run(std::vector<std::string>& words, int& result);

private:
    /// A command and the number of calls in progress, which whoever takes it away waits for.
    struct SCommand {
        std::string help;
        CommandHandler handler;
        std::atomic<int> calls{0};
    };

    std::shared_ptr<SCommand> enter(const std::string& name);

    CMutex m_mutex;
    std::map<std::string, std::shared_ptr<SCommand>> m_commands PLINTH_GUARDED_BY(m_mutex);
};

}  // namespace Veltro::Plinth

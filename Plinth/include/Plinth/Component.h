#pragma once

#include <Plinth/Defs.h>

#include <functional>
#include <memory>
#include <string>

namespace Veltro::Plinth {

/// The name of the registry of this process.
inline constexpr const char* COMPONENT_SERVER_LOCAL = "Local";

/// A console that operators type commands into; the host behind it is the application's choice.
///
/// Every operation may be called from any thread, and may be called by a command's handler. No operation
/// throws.
class PLINTH_API IConsole {
public:
    /// Runs one command, on a thread of the host: the number of words after the command's name, and the
    /// words, which live until it returns. Returns 0; any other value tells the host that the command failed.
    using CommandHandler = std::function<int(int argc, char** argv)>;

    virtual ~IConsole();
    /// Registers a command.
    /// @param name what the operator types, one word.
    /// @param help the line that the console's help shows for it.
    /// @param handler copied; kept until the command is taken away or the host goes.
    /// @return whether it was registered: false when the name is empty or taken, or the handler is empty.
    virtual bool registerCommand(const std::string& name, const std::string& help,
                                 CommandHandler handler) = 0;
    /// Takes a command away; harmless when it is not registered. When it returns, the handler is not running
    /// and is not called again, unless it was called by that handler itself.
    virtual void unregisterCommand(const std::string& name) = 0;
};

/// The component registry, as much of it as the console needs. Any thread may call; nothing blocks.
class PLINTH_API CComponentRegistry {
public:
    /// The console of a server; the caller shares its ownership.
    /// @param server COMPONENT_SERVER_LOCAL; no other server is known.
    /// @return null when no host has been set, or for any other name or null.
    static std::shared_ptr<IConsole> getConsole(const char* server);
    /// Sets the console host of this process ("Local"), or takes it away with null. The former host goes with
    /// its last owner. The registry never destroys a host at the process's end: an application whose host has
    /// threads takes it away before it returns from main().
    static void setConsole(std::shared_ptr<IConsole> console);
};

}  // namespace Veltro::Plinth

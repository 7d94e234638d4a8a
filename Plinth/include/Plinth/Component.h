#pragma once

#include <Plinth/Defs.h>
#include <Plinth/Function.h>

#include <memory>
#include <string>

namespace Veltro::Plinth {

/// The name of the registry of this process.
inline constexpr const char* COMPONENT_SERVER_LOCAL = "Local";

/// A console that operators type commands into; the host behind it is the application's choice.
class IConsole {
public:
    /// Runs one command: the number of words after the command's name and the words. Returns 0.
    using CommandHandler = std::function<int(int argc, char** argv)>;

    virtual ~IConsole() = default;
    /// Registers a command with the line that the console's help shows for it.
    /// @return whether it was registered: false when the name is empty or taken.
    virtual bool registerCommand(const std::string& name, const std::string& help,
                                 CommandHandler handler) = 0;
    /// Takes a command away; harmless when it is not registered.
    virtual void unregisterCommand(const std::string& name) = 0;
};

/// The component registry, as much of it as the console needs. Any thread may call.
class PLINTH_API CComponentRegistry {
public:
    /// The console of a server, or null when no host has been set for it.
    static std::shared_ptr<IConsole> getConsole(const char* server);
    /// Sets or, with null, takes away the console host of this process ("Local").
    static void setConsole(std::shared_ptr<IConsole> console);
};

}  // namespace Veltro::Plinth

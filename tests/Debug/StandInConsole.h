// A console without operators: keeps what was registered.
#pragma once

#include <Plinth/Component.h>

#include <string>

namespace Veltro::TestSupport {

class CStandInConsole : public Plinth::IConsole {
public:
    bool registerCommand(const std::string& name, const std::string& help, CommandHandler handler) override {
        ++registered;
        last_name = name;
        last_help = help;
        last_handler = std::move(handler);
        return accepts;
    }
    void unregisterCommand(const std::string&) override {}

    bool accepts = true;
    int registered = 0;
    std::string last_name;
    std::string last_help;
    CommandHandler last_handler;
};

}  // namespace Veltro::TestSupport

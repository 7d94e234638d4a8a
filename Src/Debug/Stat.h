// The operator's command "stat": figures of the running reactor, for persons and for programs.
#pragma once

namespace Veltro::Ravelo::Stat {

/// Registers the command with the console component, if there is one that takes it.
void registerCommand();

/// The command's handler: logs the figures at level 4. Any thread may call.
/// @param argc, argv the words: which figures ("pools", "threads", "handlers", "sockets", "timers",
/// "messages",
///        "times"; all of them without), and "-json" or "-metrics" for programs. "times on" and "times off"
///        switch the timing of callbacks.
/// @return 0, or 2 when it does not know a word.
int OnStat(int argc, char** argv);

}  // namespace Veltro::Ravelo::Stat

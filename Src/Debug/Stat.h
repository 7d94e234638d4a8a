// The operator's command "stat": figures of the running reactor, for persons and for programs.
#pragma once

namespace Veltro::Ravelo::Stat {

/// Registers the command with the console component, if there is one that takes it.
void registerCommand();

/// The command's handler: logs the figures at level 4. Any thread may call.
/// @param argc, argv the words: which figures ("pools", "threads", "handlers", "sockets", "timers",
/// "messages", "memory", "senders", "buffers", "times"; all of them without), and "-json" or "-metrics" for
/// programs. "times on" and "times off" switch the timing of callbacks.
///        Of senders and buffers there are the sums; besides the worst few, or, where they are asked for by
///        their word, all up to StatTools::MANY. Metrics have the sums only, so that their number does not
///        depend on how many there are.
/// @return 0, or 2 when it does not know a word.
int OnStat(int argc, char** argv);

}  // namespace Veltro::Ravelo::Stat

// What the reactor needs of the operator console and the dumps.
#pragma once

namespace Veltro::Ravelo::Debug {

/// Registers the console command unless that was done, or given up, before: five attempts per process. Called
/// by the pools' daemons at each of their passes.
void registerConsoleOnce();

/// Logs which callback every reactor thread is in.
void dumpThreads();

/// Registers the command with the console component; false as long as the library has no console command.
bool InitConsoleDebug();

}  // namespace Veltro::Ravelo::Debug

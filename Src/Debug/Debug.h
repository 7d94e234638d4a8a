// The operator's console command, "rvl".
#pragma once

namespace Veltro::Ravelo {

/// Registers the command with the console component of this process. Returns false, with one line logged at
/// level 3, when there is no console or it does not take the command. Any thread may call.
bool InitConsoleDebug();

/// The command's handler: runs one command and logs its answer, most of it at level 4. Any thread may call,
/// one at a time.
/// @param argc how many words came after "rvl"; @param argv the words; a null one counts as empty.
/// @return always 0: a wrong command is answered, not an error.
int OnConsole(int argc, char** argv);

/// Logs the banner with the library's build and version, at level 4.
void Version();

}  // namespace Veltro::Ravelo

// Socket options whose value is an int, with the log line of a failure.
#pragma once

namespace Veltro::Ravelo {

class CSock;

/// Sets an option. @param function the public operation's name for the log. @return 0 or -1.
int setIntOption(const CSock& sock, const char* function, int level, int name, int value);

/// The value of an option, or -1.
int getIntOption(const CSock& sock, const char* function, int level, int name);

}  // namespace Veltro::Ravelo

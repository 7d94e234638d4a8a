// The remote command server's functions, by plain names. In this build the server is switched off: commands
// can be registered and text can be printed, but no operator is ever connected.
#pragma once

#include <Plinth/Defs.h>
#include <Ravelo/Defs.h>

extern "C" {

/// Would start the server; logs one line (level 4) and starts nothing, whatever the arguments. Any thread may
/// call.
/// @param port, text, flag without a meaning in this build.
/// @return -1.
RAVELO_API int R3ServerStart(unsigned short port, const char* text, bool flag);

/// Ends the server, if there is one, and forgets every registered function. Waits for R3Printf() calls in
/// progress. Any thread may call.
/// @return 0.
RAVELO_API int R3ServerExit();

/// Registers a function that a remote operator could call by its name; nothing calls it in this build. At
/// most 1024. Any thread may call.
/// @param func the function; not null.
/// @param name what it is called by; not null. Kept as the pointer it is, so the text must live until
/// R3ServerExit().
/// @param help a line about it, or null; kept in the same way.
/// @return 0, or -1: an argument is null, the name is taken, all places are, or memory is short.
RAVELO_API int R3Register(void* func, const char* name, const char* help);

/// Prints to the connected operator; without a server, which is always so in this build, it does nothing.
/// Text of 4096 characters or more is dropped. Any thread may call.
/// @param fmt, ... as of printf.
RAVELO_API void R3Printf(const char* fmt, ...) PLINTH_PRINTF(1, 2);
}

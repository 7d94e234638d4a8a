// How the console command writes its answers.
#pragma once

#include <Plinth/Defs.h>

namespace Veltro::Ravelo::ConsoleText {

/// Logs one line of an answer at level 4, in the command's name and without place and thread in front.
void line(const char* format, ...) PLINTH_PRINTF(1, 2);

/// Logs a line within a frame: separator, banner, separator, the line, separator.
void tip(const char* format, ...) PLINTH_PRINTF(1, 2);

/// The separator of the frame, a line of 79 dashes.
void separator();

/// The help, line by line, through the plain log.
void help();

}  // namespace Veltro::Ravelo::ConsoleText

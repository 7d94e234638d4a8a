#include "Debug/ConsoleText.h"

#include <Plinth/Log.h>

#include <cstdarg>
#include <cstdio>

#include "Log.h"

namespace Veltro::Ravelo::ConsoleText {

namespace {

constexpr int TRACE = Plinth::LOG_LEVEL_TRACE;
/// Longer than the longest answer with the longest line that the console takes.
constexpr std::size_t TEXT_SIZE = 8192;

const char* const SEPARATOR =
    "-------------------------------------------------------------------------------\n";
const char* const HELP_SEPARATOR =
    "-------------------------------------------------------------------------------------\n";

const char* const HELP_LINES[] = {
    HELP_SEPARATOR,
    "-                           Ravelo Debug help                                 -\n",
    HELP_SEPARATOR,
    "- rvl  -v                           Display version iformation.                     -\n",
    "- rvl  -h                           Display help iformation.                        -\n",
    "- rvl  -sock  on/off                Turn on/off socket event flow dump.             -\n",
    "- rvl  -sock  more/mid/less         Dump socket event flow more/mid/less[default].  -\n",
    "- rvl  -sock  -fd  <all>|<fd-list>  Dump socket event flow (all) or (fd in fd-list).-\n",
    "- rvl  -sock  dump                  Display socket event flow filer condition.      -\n",
    "- rvl  -dump  -fd  [all]            Dump SEvent all (all fd Sevent).                -\n",
    "- rvl  -dump  -fd  <fd-list>        Dump SEvent that fd in fd-list                  -\n",
    "- rvl  -dump  -obj [all]            Dump SEvent all, (obj-id, obj-type) only.       -\n",
    "- rvl  -dump  -obj <obj-id>         Dump SEvent that id = obj-id                    -\n",
    "- rvl  -thd   [all]                 Dump Ravelo thread info all               -\n",
    "- rvl  -thd   <thread-id>           Dump Ravelo thread(thread-id)             -\n",
    "- rvl  -man   mask [all]|<value>    Display the meaning of mask [all] or <value>    -\n",
    "- rvl  -man   revents [all]|<value> Display the meaning of revents [all] or <value> -\n",
    HELP_SEPARATOR};

void logLine(const char* text) {
    static constexpr auto file = sourceName("Src/Debug/Debug.cpp");
    Plinth::logFilter(TRACE, "Unknown", file.text.data(), "OnConsole", __LINE__, "Unknown", "%s", text);
}

}  // namespace

void line(const char* format, ...) {
    if (!Plinth::isLogEnabled(TRACE)) return;
    char text[TEXT_SIZE];
    std::va_list values;
    va_start(values, format);
    std::vsnprintf(text, sizeof text, format, values);
    va_end(values);
    logLine(text);
}

void tip(const char* format, ...) {
    if (!Plinth::isLogEnabled(TRACE)) return;
    char text[TEXT_SIZE];
    std::va_list values;
    va_start(values, format);
    std::vsnprintf(text, sizeof text, format, values);
    va_end(values);
    for (const char* part :
         {SEPARATOR, "-                             Ravelo tips                               -\n", SEPARATOR,
          static_cast<const char*>(text), SEPARATOR}) {
        logLine(part);
    }
}

void separator() {
    if (Plinth::isLogEnabled(TRACE)) logLine(SEPARATOR);
}

void help() {
    for (const char* text : HELP_LINES) Plinth::logInfo("%s", text);
}

}  // namespace Veltro::Ravelo::ConsoleText

#include <Ravelo/R3Server.h>

#include <cstdarg>
#include <cstdio>

#include "Log.h"
#include "R3/R3Daemon.h"
#include "R3/R3Quiet.h"

using namespace Veltro;
using namespace Veltro::Ravelo;

int R3ServerStart(unsigned short, const char*, bool) {
    RAVELO_LOG_BARE(Plinth::LOG_LEVEL_TRACE, "R3 has been disable.\n");
    return -1;
}

int R3ServerExit() {
    return R3Server::exit();
}

int R3Register(void* func, const char* name, const char* help) {
    return R3Server::registerFunction(func, name, help);
}

void R3Printf(const char* fmt, ...) {
    if (!R3Server::isRunning() || CR3Quiet::isOn() || fmt == nullptr) return;
    char text[4096];
    std::va_list values;
    va_start(values, fmt);
    const int length = std::vsnprintf(text, sizeof text, fmt, values);
    va_end(values);
    if (length > 0 && length < static_cast<int>(sizeof text)) R3Server::print(text);
}

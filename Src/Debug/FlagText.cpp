#include "Debug/FlagText.h"

#include <Ravelo/Defs.h>

#include <cstdio>
#include <cstring>

namespace Veltro::Ravelo {

namespace {

constexpr SFlagName MASK_NAMES[] = {{EventMask::None, "None"},       {EventMask::Read, "Read"},
                                    {EventMask::Write, "Write"},     {EventMask::Except, "Except"},
                                    {EventMask::Timeout, "Timeout"}, {EventMask::Dealing, "Dealing"},
                                    {EventMask::Delete, "Delete"},   {EventMask::Protect, "Protect"}};
constexpr SFlagName REVENT_NAMES[] = {{VL_NOPOLL, "VL_NOPOLL"},
                                      {VL_POLLIN, "VL_POLLIN"},
                                      {VL_POLLPRI, "VL_POLLPRI"},
                                      {VL_POLLOUT, "VL_POLLOUT"},
                                      {VL_POLLERR, "VL_POLLERR"},
                                      {VL_POLLHUP, "VL_POLLHUP"},
                                      {VL_POLLIN_TIMEOUT, "VL_POLLIN_TIMEOUT"},
                                      {VL_POLLOUT_TIMEOUT, "VL_POLLOUT_TIMEOUT"},
                                      {VL_POLLDEL, "VL_POLLDEL"}};

/// Appends as much of "text|" as there is room for.
void append(char* buf, std::size_t size, const char* text) {
    const std::size_t used = std::strlen(buf);
    std::snprintf(buf + used, size - used, "%s|", text);
}

char* flagsToString(std::span<const SFlagName> names, unsigned flags, int size, char* buf) {
    if (size < 1 || buf == nullptr) return buf;
    const auto room = static_cast<std::size_t>(size);
    std::memset(buf, 0, room);
    std::snprintf(buf, room, "%u|", flags);
    if (flags == 0) append(buf, room, names.front().name);
    for (const SFlagName& flag : names) {
        if (flags & flag.value) append(buf, room, flag.name);
    }
    return buf;
}

}  // namespace

std::span<const SFlagName> maskNames() {
    return MASK_NAMES;
}

std::span<const SFlagName> reventsNames() {
    return REVENT_NAMES;
}

char* MaskToString(unsigned mask, int size, char* buf) {
    return flagsToString(MASK_NAMES, mask, size, buf);
}

char* ReventsToString(unsigned revents, int size, char* buf) {
    return flagsToString(REVENT_NAMES, revents, size, buf);
}

}  // namespace Veltro::Ravelo

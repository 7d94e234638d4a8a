// Event masks and received events as text.
#pragma once

#include <span>

namespace Veltro::Ravelo {

/// One bit and its name; in each list the first stands for no bit at all.
struct SFlagName {
    unsigned value;
    const char* name;
};

/// The bits of event masks, in the order of their texts.
std::span<const SFlagName> maskNames();
/// The same for received events.
std::span<const SFlagName> reventsNames();

/// Explains an event mask: the number and the names of its bits, each followed by "|", as "3|Read|Write|".
/// @param size bytes that buf has room for; a longer text is cut.
/// @return buf, which stays untouched when it is null or size is below 1.
char* MaskToString(unsigned mask, int size, char* buf);

/// The same for received events, as "1|VL_POLLIN|".
char* ReventsToString(unsigned revents, int size, char* buf);

}  // namespace Veltro::Ravelo

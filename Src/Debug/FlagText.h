// Event masks and received events as text.
#pragma once

namespace Veltro::Ravelo {

/// Explains an event mask: the number and the names of its bits, each followed by "|", as "3|Read|Write|".
/// @param size bytes that buf has room for; a longer text is cut.
/// @return buf, which stays untouched when it is null or size is below 1.
char* MaskToString(unsigned mask, int size, char* buf);

/// The same for received events, as "1|VL_POLLIN|".
char* ReventsToString(unsigned revents, int size, char* buf);

}  // namespace Veltro::Ravelo

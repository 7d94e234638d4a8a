// What the library says of its own build; the build defines both texts, or neither.
#pragma once

namespace Veltro::Ravelo {

#if defined(RAVELO_BUILD_TEXT)
inline constexpr const char* BUILD_TEXT = RAVELO_BUILD_TEXT;
#else
inline constexpr const char* BUILD_TEXT = "";
#endif

#if defined(RAVELO_VERSION_TEXT)
inline constexpr const char* VERSION_TEXT = RAVELO_VERSION_TEXT;
#else
inline constexpr const char* VERSION_TEXT = "Unknown";
#endif

}  // namespace Veltro::Ravelo

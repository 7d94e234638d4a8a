// Export macro and compiler helpers of the base services.
#pragma once

#if defined(_WIN32)
#if defined(PLINTH_BUILDING)
#define PLINTH_API __declspec(dllexport)
#else
#define PLINTH_API __declspec(dllimport)
#endif
#else
#define PLINTH_API __attribute__((visibility("default")))
#endif

// Asks the compiler to check a printf format: the numbers of the format argument and of the first value.
// A member function counts `this` as argument 1.
#if defined(__MINGW32__)
#define PLINTH_PRINTF(format_index, first_value) \
    __attribute__((format(gnu_printf, format_index, first_value)))
#elif defined(__GNUC__)
#define PLINTH_PRINTF(format_index, first_value) __attribute__((format(printf, format_index, first_value)))
#else
#define PLINTH_PRINTF(format_index, first_value)
#endif

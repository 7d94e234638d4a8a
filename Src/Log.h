// Log lines in the library's form, and assertions that stay active in release builds.
#pragma once

#include <Plinth/Log.h>
#include <Plinth/Thread.h>

#include <array>
#include <cstddef>
#include <string_view>

namespace Veltro::Ravelo {

/// A text made at compile time.
template <std::size_t Size>
struct SFixedText {
    std::array<char, Size> text{};
};

/// A source file's name as the log shows it on every platform: ".\Src\Core\NetSock.cpp".
template <std::size_t Size>
consteval SFixedText<Size + 2> sourceName(const char (&path)[Size]) {
    SFixedText<Size + 2> name;
    const std::string_view whole(path, Size - 1);
    std::size_t start = whole.rfind("Src/");
    if (start == std::string_view::npos) start = whole.rfind("Src\\");
    if (start == std::string_view::npos) start = 0;
    name.text[0] = '.';
    name.text[1] = '\\';
    std::size_t length = 2;
    for (const char c : whole.substr(start)) name.text[length++] = c == '/' ? '\\' : c;
    return name;
}

/// "CSockStream::Send" out of the compiler's full description of a function.
consteval SFixedText<96> qualifiedName(const char* description) {
    SFixedText<96> name;
    std::string_view whole(description);
    // Compilers spell the unnamed namespace in different ways.
    for (const std::string_view unnamed : {"{anonymous}::", "(anonymous namespace)::"}) {
        const std::size_t start = whole.find(unnamed);
        if (start != std::string_view::npos) whole = whole.substr(start + unnamed.size());
    }
    whole = whole.substr(0, whole.find('('));
    const std::size_t blank = whole.rfind(' ');
    if (blank != std::string_view::npos) whole = whole.substr(blank + 1);
    while (!whole.empty() && (whole.front() == '*' || whole.front() == '&')) whole.remove_prefix(1);
    constexpr std::string_view outer = "Veltro::Ravelo::";
    if (whole.starts_with(outer)) whole.remove_prefix(outer.size());
    std::size_t length = 0;
    for (const char c : whole) {
        if (length + 1 < name.text.size()) name.text[length++] = c;
    }
    return name;
}

/// The calling thread's id as log lines print it.
inline int logThreadId() {
    return static_cast<int>(Plinth::getCurrentThreadId());
}

/// Logs a broken assertion at level 1 and aborts the process.
[[noreturn]] void assertFailed(const char* expression, const char* file, const char* function, int line);

}  // namespace Veltro::Ravelo

// The full description of the function around it. Not std::source_location, which clang 14 lacks.
#if defined(_MSC_VER)
#define RAVELO_FUNCTION_DESCRIPTION __FUNCSIG__
#else
#define RAVELO_FUNCTION_DESCRIPTION __PRETTY_FUNCTION__
#endif

// The two forms of a log line; the prefixes are part of the format.
#define RAVELO_LOG_WITH(level, prefix_format, prefix_value, format, ...)                                     \
    do {                                                                                                     \
        if (::Veltro::Plinth::isLogEnabled(level)) {                                                         \
            static constexpr auto ravelo_file = ::Veltro::Ravelo::sourceName(__FILE__);                      \
            static constexpr auto ravelo_function =                                                          \
                ::Veltro::Ravelo::qualifiedName(RAVELO_FUNCTION_DESCRIPTION);                                \
            ::Veltro::Plinth::logFilter(                                                                     \
                level, "Unknown", ravelo_file.text.data(), ravelo_function.text.data(), __LINE__, "Unknown", \
                "[%s:%d] " prefix_format "tid:%d, " format, ravelo_file.text.data(), __LINE__ prefix_value,  \
                ::Veltro::Ravelo::logThreadId() __VA_OPT__(, ) __VA_ARGS__);                                 \
        }                                                                                                    \
    } while (false)

#define RAVELO_COMMA(object) , static_cast<const void*>(object)
#define RAVELO_NOTHING

// A line of a static or free function: "[file:line] tid:N, " and the format.
#define RAVELO_LOG(level, format, ...) \
    RAVELO_LOG_WITH(level, "", RAVELO_NOTHING, format __VA_OPT__(, ) __VA_ARGS__)

// A line about an object: "[file:line] this:P tid:N, " and the format.
#define RAVELO_LOG_OF(object, level, format, ...) \
    RAVELO_LOG_WITH(level, "this:%p ", RAVELO_COMMA(object), format __VA_OPT__(, ) __VA_ARGS__)

// The same in a member function.
#define RAVELO_LOG_THIS(level, format, ...) RAVELO_LOG_OF(this, level, format __VA_OPT__(, ) __VA_ARGS__)

// A line that stands as it is, without place and thread in front of it: what operators read.
#define RAVELO_LOG_BARE(level, format, ...)                                               \
    do {                                                                                  \
        if (::Veltro::Plinth::isLogEnabled(level)) {                                      \
            static constexpr auto ravelo_file = ::Veltro::Ravelo::sourceName(__FILE__);   \
            static constexpr auto ravelo_function =                                       \
                ::Veltro::Ravelo::qualifiedName(RAVELO_FUNCTION_DESCRIPTION);             \
            ::Veltro::Plinth::logFilter(level, "Unknown", ravelo_file.text.data(),        \
                                        ravelo_function.text.data(), __LINE__, "Unknown", \
                                        format __VA_OPT__(, ) __VA_ARGS__);               \
        }                                                                                 \
    } while (false)

#define RAVELO_ASSERT(expression)                                                       \
    do {                                                                                \
        if (!(expression)) {                                                            \
            static constexpr auto ravelo_file = ::Veltro::Ravelo::sourceName(__FILE__); \
            static constexpr auto ravelo_function =                                     \
                ::Veltro::Ravelo::qualifiedName(RAVELO_FUNCTION_DESCRIPTION);           \
            ::Veltro::Ravelo::assertFailed(#expression, ravelo_file.text.data(),        \
                                           ravelo_function.text.data(), __LINE__);      \
        }                                                                               \
    } while (false)

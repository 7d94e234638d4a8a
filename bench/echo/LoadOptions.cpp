#include "echo/LoadOptions.h"

#include <cstdio>
#include <cstdlib>
#include <string_view>

namespace Bench {
namespace {

[[noreturn]] void usage() {
    std::fprintf(
        stderr,
        "usage: echo_load --port N --pid SERVER [--mode pingpong|churn] [--connections N] [--idle N]\n"
        "                 [--size BYTES] [--warmup SECONDS] [--seconds SECONDS]\n");
    std::exit(2);
}

/// @return false if there is no such option.
bool set_option(SLoadOptions& options, std::string_view name, const char* value) {
    const double number = std::atof(value);
    if (name == "--mode")
        options.churn = std::string_view(value) == "churn";
    else if (name == "--port")
        options.port = static_cast<std::uint16_t>(number);
    else if (name == "--pid")
        options.server = static_cast<pid_t>(number);
    else if (name == "--connections")
        options.connections = static_cast<unsigned>(number);
    else if (name == "--idle")
        options.idle = static_cast<unsigned>(number);
    else if (name == "--size")
        options.size_bytes = static_cast<std::size_t>(number);
    else if (name == "--warmup")
        options.warmup_seconds = number;
    else if (name == "--seconds")
        options.measure_seconds = number;
    else
        return false;
    return true;
}

}  // namespace

SLoadOptions parse_load_options(int argc, char** argv) {
    SLoadOptions options;
    for (int i = 1; i < argc; i += 2) {
        if (i + 1 == argc || !set_option(options, argv[i], argv[i + 1])) usage();
    }
    if (options.port == 0 || options.server == 0 || options.connections == 0 || options.size_bytes == 0)
        usage();
    return options;
}

}  // namespace Bench

// Command line of the load generator.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>

namespace Bench {

struct SLoadOptions {
    bool churn = false;            ///< --mode churn: connect, echo, close; else --mode pingpong
    std::uint16_t port = 0;        ///< --port, on 127.0.0.1
    pid_t server = 0;              ///< --pid of the server, for its processor time
    unsigned connections = 1;      ///< --connections that have one request under way each
    unsigned idle = 0;             ///< --idle connections beside them that say nothing
    std::size_t size_bytes = 64;   ///< --size of a message
    double warmup_seconds = 0.3;   ///< --warmup before the measured window
    double measure_seconds = 1.0;  ///< --seconds of the measured window
};

/// Reads the command line; prints the usage and ends the process with 2 if it makes no sense.
SLoadOptions parse_load_options(int argc, char** argv);

}  // namespace Bench

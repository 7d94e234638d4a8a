// What the benchmark of files needs of a system.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "file/Hold.h"

namespace Bench {

/// Bytes of one request: a buffer of this library.
inline constexpr std::size_t PIECE = 131'072;
/// Requests that a file of an event loop may have under way.
inline constexpr std::size_t DEPTH = 4;

/// What is to be done with files.
struct SFileTask {
    bool write = false;  ///< else read
    std::vector<std::string> paths;
    std::size_t pieces = 0;  ///< of each file
};

/// Writes or reads all files from start to end, all at once, and closes them. Ends the process when anything
/// fails. Defined by each system's file.
/// @param piece PIECE bytes to write.
/// @param hold is told of each callback of the loop's threads.
void run_files(const SFileTask& task, const std::string& piece, CHold& hold);

/// Whether the system works here; else it prints why. Defined by each system's file.
bool file_system_works();

/// The name that the results carry. Defined by each system's file.
const char* file_system_name();

}  // namespace Bench

// The C library's streams, called in turn: what holds the calling thread is every single call.
#include <cstdio>
#include <cstdlib>

#include "file/FileSystem.h"

namespace Bench {

void run_files(const SFileTask& task, const std::string& piece, CHold& hold) {
    std::vector<std::FILE*> files;
    for (const auto& path : task.paths) {
        files.push_back(std::fopen(path.c_str(), task.write ? "wb" : "rb"));
        if (files.back() == nullptr) std::abort();
    }
    std::string buffer(PIECE, '\0');
    for (std::size_t i = 0; i < task.pieces; ++i) {
        for (std::FILE* file : files) {
            const CHold::CScope scope(hold);
            const std::size_t moved = task.write ? std::fwrite(piece.data(), 1, PIECE, file)
                                                 : std::fread(buffer.data(), 1, PIECE, file);
            if (moved != PIECE) std::abort();
        }
    }
    for (std::FILE* file : files) std::fclose(file);
}

bool file_system_works() {
    return true;
}

const char* file_system_name() {
    return "plain";
}

}  // namespace Bench

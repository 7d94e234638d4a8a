// Writes or reads files: `file_<system> write|read <files> <MiB in all> <folder>`; one line of JSON.
#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "common/Clock.h"
#include "common/Placement.h"
#include "file/FileSystem.h"

namespace {

using namespace Bench;

[[noreturn]] void fail(const char* what, const std::string& path) {
    std::fprintf(stderr, "%s %s: %s\n", what, path.c_str(), std::strerror(errno));
    std::exit(1);
}

/// A file for the contestants to read; the system has it in memory then.
void make_file(const std::string& path, const std::string& piece, std::size_t pieces) {
    std::FILE* file = std::fopen(path.c_str(), "wb");
    if (file == nullptr) fail("fopen", path);
    for (std::size_t i = 0; i < pieces; ++i) {
        if (std::fwrite(piece.data(), 1, piece.size(), file) != piece.size()) fail("fwrite", path);
    }
    if (std::fclose(file) != 0) fail("fclose", path);
}

}  // namespace

int main(int argc, char** argv) {
    const std::size_t files = argc > 2 ? std::strtoull(argv[2], nullptr, 10) : 0;
    const std::size_t mib = argc > 3 ? std::strtoull(argv[3], nullptr, 10) : 0;
    if (files == 0 || mib < files || argc < 5) {
        std::fprintf(stderr, "usage: %s write|read FILES MIB FOLDER\n", argv[0]);
        return 2;
    }
    unpin();
    if (!file_system_works()) return 3;
    SFileTask task;
    task.write = std::strcmp(argv[1], "write") == 0;
    task.pieces = mib * 1024 * 1024 / files / PIECE;
    for (std::size_t i = 0; i < files; ++i) {
        task.paths.push_back(std::string(argv[4]) + "/bench_file_" + std::to_string(i));
        std::remove(task.paths.back().c_str());
    }
    std::string piece(PIECE, '\0');
    for (std::size_t i = 0; i < PIECE; ++i) piece[i] = static_cast<char>(i * 31 >> 3);
    if (!task.write) {
        for (const auto& path : task.paths) make_file(path, piece, task.pieces);
    }
    CHold hold;
    const std::int64_t stolen_before_ms = stolen_ms();
    const std::int64_t start_ns = now_ns();
    run_files(task, piece, hold);
    const double seconds = static_cast<double>(now_ns() - start_ns) / 1e9;
    for (const auto& path : task.paths) {
        struct stat found {};
        if (stat(path.c_str(), &found) != 0) fail("stat", path);
        if (static_cast<std::size_t>(found.st_size) != task.pieces * PIECE) {
            std::fprintf(stderr, "%s has %lld bytes\n", path.c_str(), static_cast<long long>(found.st_size));
            return 1;
        }
        std::remove(path.c_str());
    }
    const double bytes = static_cast<double>(task.pieces * PIECE * files);
    std::printf("{\"system\":\"%s\",\"mb_per_second\":%.1f,", file_system_name(), bytes / 1e6 / seconds);
    hold.print();
    std::printf(",\"stolen_ms\":%lld}\n", static_cast<long long>(stolen_ms() - stolen_before_ms));
    return 0;
}

// io_uring: one ring, waited for by one thread.
#include <fcntl.h>
#include <liburing.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "file/FileSystem.h"

namespace {

using namespace Bench;

struct SRingFile {
    int file = -1;
    std::size_t next = 0;  // piece
};

struct SRequest {
    SRingFile* file = nullptr;
    std::string buffer;
};

/// Puts a request's next piece into the ring; false when its file has none left.
bool prepare(io_uring& ring, SRequest& of, const SFileTask& task, const std::string& piece) {
    SRingFile& file = *of.file;
    if (file.next == task.pieces) return false;
    const auto offset = static_cast<std::uint64_t>(file.next++ * PIECE);
    io_uring_sqe* entry = io_uring_get_sqe(&ring);
    if (entry == nullptr) std::abort();
    if (task.write) {
        io_uring_prep_write(entry, file.file, piece.data(), PIECE, offset);
    } else {
        io_uring_prep_read(entry, file.file, of.buffer.data(), PIECE, offset);
    }
    io_uring_sqe_set_data(entry, &of);
    return true;
}

}  // namespace

namespace Bench {

void run_files(const SFileTask& task, const std::string& piece, CHold& hold) {
    io_uring ring{};
    if (io_uring_queue_init(256, &ring, 0) != 0) std::abort();
    std::vector<std::unique_ptr<SRingFile>> files;
    std::vector<std::unique_ptr<SRequest>> requests;
    for (const auto& path : task.paths) {
        files.push_back(std::make_unique<SRingFile>());
        files.back()->file = open(path.c_str(), task.write ? O_WRONLY | O_CREAT | O_TRUNC : O_RDONLY, 0644);
        if (files.back()->file < 0) std::abort();
        for (std::size_t i = 0; i < DEPTH; ++i) {
            requests.push_back(std::make_unique<SRequest>());
            requests.back()->file = files.back().get();
            requests.back()->buffer.resize(PIECE);
        }
    }
    std::size_t under_way = 0;
    for (auto& request : requests) under_way += prepare(ring, *request, task, piece) ? 1 : 0;
    // To submit is part of what holds the thread: the system may do the work there and then.
    while (under_way > 0) {
        {
            const CHold::CScope scope(hold);
            if (io_uring_submit(&ring) < 0) std::abort();
        }
        io_uring_cqe* done = nullptr;
        if (io_uring_wait_cqe(&ring, &done) != 0) std::abort();
        const CHold::CScope scope(hold);
        do {
            if (done->res != static_cast<int>(PIECE)) std::abort();
            auto& request = *static_cast<SRequest*>(io_uring_cqe_get_data(done));
            io_uring_cqe_seen(&ring, done);
            if (!prepare(ring, request, task, piece)) under_way -= 1;
        } while (io_uring_peek_cqe(&ring, &done) == 0);
    }
    for (auto& file : files) close(file->file);
    io_uring_queue_exit(&ring);
}

bool file_system_works() {
    io_uring ring{};
    const int result = io_uring_queue_init(8, &ring, 0);
    if (result == 0) {
        io_uring_queue_exit(&ring);
        return true;
    }
    std::fprintf(stderr, "io_uring is not there: %s\n", std::strerror(-result));
    return false;
}

const char* file_system_name() {
    return "iouring";
}

}  // namespace Bench

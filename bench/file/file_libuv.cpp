// libuv's uv_fs: requests on its pool of four threads.
#include <fcntl.h>
#include <uv.h>

#include <cstdlib>
#include <memory>

#include "file/FileSystem.h"

namespace {

using namespace Bench;

struct SUvFile {
    const SFileTask& task;
    const std::string& piece;
    CHold& hold;
    uv_file file = -1;
    std::size_t next = 0;  // piece
};

struct SRequest {
    uv_fs_t request{};
    SUvFile* file = nullptr;
    std::string buffer;
};

void start(SRequest& of);

void on_done(uv_fs_t* request) {
    auto& of = *static_cast<SRequest*>(request->data);
    const CHold::CScope scope(of.file->hold);
    if (request->result != static_cast<ssize_t>(PIECE)) std::abort();
    uv_fs_req_cleanup(request);
    start(of);
}

void start(SRequest& of) {
    SUvFile& file = *of.file;
    if (file.next == file.task.pieces) return;
    const auto offset = static_cast<std::int64_t>(file.next++ * PIECE);
    // The library takes no const bytes, and only reads what is to be written.
    char* bytes = file.task.write ? const_cast<char*>(file.piece.data()) : of.buffer.data();
    const uv_buf_t buffer = uv_buf_init(bytes, PIECE);
    of.request.data = &of;
    const auto call = file.task.write ? &uv_fs_write : &uv_fs_read;
    if (call(uv_default_loop(), &of.request, file.file, &buffer, 1, offset, on_done) != 0) std::abort();
}

}  // namespace

namespace Bench {

void run_files(const SFileTask& task, const std::string& piece, CHold& hold) {
    std::vector<std::unique_ptr<SUvFile>> files;
    std::vector<std::unique_ptr<SRequest>> requests;
    for (const auto& path : task.paths) {
        files.push_back(std::make_unique<SUvFile>(SUvFile{task, piece, hold}));
        uv_fs_t open{};
        files.back()->file = uv_fs_open(nullptr, &open, path.c_str(),
                                        task.write ? O_WRONLY | O_CREAT | O_TRUNC : O_RDONLY, 0644, nullptr);
        uv_fs_req_cleanup(&open);
        if (files.back()->file < 0) std::abort();
        for (std::size_t i = 0; i < DEPTH; ++i) {
            requests.push_back(std::make_unique<SRequest>());
            requests.back()->file = files.back().get();
            requests.back()->buffer.resize(PIECE);
        }
    }
    for (auto& request : requests) start(*request);
    uv_run(uv_default_loop(), UV_RUN_DEFAULT);
    for (auto& file : files) {
        uv_fs_t close{};
        uv_fs_close(nullptr, &close, file->file, nullptr);
        uv_fs_req_cleanup(&close);
    }
}

bool file_system_works() {
    return true;
}

const char* file_system_name() {
    return "libuv";
}

}  // namespace Bench

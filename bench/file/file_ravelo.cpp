// CNFile over the default device, driven by the messages of one worker.
#include <Plinth/Log.h>
#include <Ravelo/NFile.h>
#include <Ravelo/NetThread.h>

#include <cstdlib>
#include <semaphore>

#include "file/FileSystem.h"

namespace {

using namespace Bench;
using namespace Veltro::Ravelo;

/// So much a callback moves at most before it lets others go first.
constexpr std::size_t SHARE = 2 * PIECE;
constexpr unsigned GO_ON = 100;

class CDriver : public CNetHandler {
public:
    CDriver(const SFileTask& task, const std::string& piece, CHold& hold, std::counting_semaphore<>& done)
        : m_task(task), m_piece(piece), m_hold(hold), m_done(done), m_buffer(PIECE, '\0') {}

    void start(const std::string& path) {
        m_file = CNFile::Open(GetID(), path.c_str(), m_task.write ? "w" : "r", nullptr);
        if (m_file == nullptr) std::abort();
        Notify(GetID(), GO_ON, 0);
    }
    int handle_message(long, unsigned type, long) override {
        if (type == NOTIFY_FILE_ERROR) std::abort();
        const CHold::CScope scope(m_hold);
        pump();
        return 0;
    }
    int handle_close(CNetHandler*) override {
        delete this;
        return 0;
    }

private:
    void pump() {
        const std::size_t all = m_task.pieces * PIECE;
        for (std::size_t moved = 0; m_at < all;) {
            if (moved >= SHARE) {
                Notify(GetID(), GO_ON, 0);
                return;
            }
            const std::size_t within = m_at % PIECE;
            bool eof = false;
            const int count =
                m_task.write ? m_file->Write(m_piece.data() + within, static_cast<unsigned>(PIECE - within))
                             : m_file->Read(m_buffer.data(), PIECE, eof);
            if (count <= 0) return;
            m_at += static_cast<std::size_t>(count);
            moved += static_cast<std::size_t>(count);
        }
        m_file->Close();
        Close();
        m_done.release();
    }

    const SFileTask& m_task;
    const std::string& m_piece;
    CHold& m_hold;
    std::counting_semaphore<>& m_done;
    std::string m_buffer;
    CNFile* m_file = nullptr;
    std::size_t m_at = 0;
};

}  // namespace

namespace Bench {

void run_files(const SFileTask& task, const std::string& piece, CHold& hold) {
    Veltro::Plinth::setLogLevel(Veltro::Plinth::LOG_LEVEL_FATAL);
    if (CNetThread::CreateThreadPool(1, true) != 0) std::abort();
    std::counting_semaphore<> done{0};
    for (const auto& path : task.paths) (new CDriver(task, piece, hold, done))->start(path);
    for (std::size_t i = 0; i < task.paths.size(); ++i) done.acquire();
    CNetThread::DestroyThreadPool();  // waits until all is written
}

bool file_system_works() {
    return true;
}

const char* file_system_name() {
    return "ravelo";
}

}  // namespace Bench

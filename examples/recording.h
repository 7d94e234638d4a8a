// A stream on its way to the disk.
#pragma once

#include <Plinth/Plinth.h>
#include <Ravelo/Ravelo.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <string>

#include "live_handlers.h"

/// What is known of a recording; outlives everybody who asks.
struct SRecording {
    std::string path;
    std::atomic<std::uint64_t> bytes{0};  ///< taken of the source; on the disk, or on their way there
    std::atomic<bool> is_over{false};     ///< no more come
    CLiveHandlers live;                   ///< the recording and its readers
};

/// Takes a stream from a source and writes it to a file: at every tick of its pacing thread as much as the
/// rate allows. What the disk does not take yet is kept, and the source waits meanwhile. Over when the source
/// ends, or when it is told to; until then it wakes the readers of its file.
class CRecorder : public Veltro::Ravelo::CMediaStreamReceiver {
public:
    /// What readers get now and then: the file may have grown.
    static constexpr unsigned MESSAGE_LOOK = 101;

    /// @param bytes_per_second most that is taken of the source.
    CRecorder(SRecording& recording, unsigned bytes_per_second)
        : m_recording(recording), m_bytes_per_tick(bytes_per_second / TICKS_PER_SECOND + 1) {
        m_recording.live.Add(GetID());
    }
    /// Connects to the source, makes the file and begins. @return null, or what went wrong.
    const char* Start(const Veltro::Ravelo::CSockAddrIPv4& source) {
        Veltro::Plinth::CLockGuard guard(m_mutex);
        m_source.SetBlockOpt(true);
        if (m_source.Connect(source) != 0) return "cannot connect to the source";
        m_source.SetBlockOpt(false);
        m_file = Veltro::Ravelo::CNFile::Open(GetID(), m_recording.path.c_str(), "wb", nullptr);
        if (m_file == nullptr) return "cannot write the file";
        StartReceive(0, 1.0F);
        return nullptr;
    }

private:
    static constexpr unsigned TICKS_PER_SECOND = 50;
    static constexpr unsigned TICKS_PER_LOOK = 10;

    int handle_stream_input() override {
        Veltro::Plinth::CLockGuard guard(m_mutex);
        if (m_file != nullptr) record();
        if (++m_tick % TICKS_PER_LOOK == 0) {
            if (m_file != nullptr) m_file->Seek(0, 1);  // lets what was written go to the disk
            for (const long id : m_recording.live.GetIds()) Notify(id, MESSAGE_LOOK, 0);
        }
        if (m_stopping && m_file == nullptr) Close();
        return 0;
    }
    int handle_message(long, unsigned int type, long) override {
        Veltro::Plinth::CLockGuard guard(m_mutex);
        if (type == MESSAGE_STOP) m_stopping = true;
        if (type == Veltro::Ravelo::NOTIFY_FILE_ERROR) {
            if (!m_told)
                std::fprintf(stderr, "the disk does not take %s; trying again\n", m_recording.path.c_str());
            m_told = m_failing = true;
        }
        return 0;
    }
    int handle_close(CNetHandler*) override {
        m_recording.live.Remove(GetID());
        delete this;
        return 0;
    }

    void record() PLINTH_REQUIRES(m_mutex) {
        for (unsigned allowed = m_bytes_per_tick; write() && !m_stopping && allowed > 0; allowed -= m_end) {
            const int received = m_source.Recv(m_block, std::min<unsigned>(allowed, sizeof m_block));
            if (received == 0) return;
            if (received < 0) return finish();
            m_begin = 0;
            m_end = static_cast<unsigned>(received);
            m_recording.bytes += m_end;
        }
        if (m_stopping && (m_failing || m_begin == m_end)) finish();
    }
    /// Whether the file has taken the whole block. If not, the next tick tries again, whatever message comes.
    bool write() PLINTH_REQUIRES(m_mutex) {
        if (m_begin == m_end) return true;
        const int taken = m_file->Write(m_block + m_begin, m_end - m_begin);
        if (taken > 0) m_failing = false;
        m_begin += static_cast<unsigned>(taken);
        return m_begin == m_end;
    }
    /// Closing writes what the file still has.
    void finish() PLINTH_REQUIRES(m_mutex) {
        m_file->Close();
        m_file = nullptr;
        m_source.Close();
        m_recording.is_over = true;
    }

    SRecording& m_recording;
    const unsigned m_bytes_per_tick;
    Veltro::Plinth::CMutex m_mutex;  ///< the pacing thread and a worker
    Veltro::Ravelo::CSockStream m_source PLINTH_GUARDED_BY(m_mutex);
    Veltro::Ravelo::CNFile* m_file PLINTH_GUARDED_BY(m_mutex) = nullptr;  ///< until the recording is over
    unsigned m_tick PLINTH_GUARDED_BY(m_mutex) = 0;
    bool m_stopping PLINTH_GUARDED_BY(m_mutex) = false;
    bool m_failing PLINTH_GUARDED_BY(m_mutex) = false;  ///< the file, and it has taken nothing since
    bool m_told PLINTH_GUARDED_BY(m_mutex) = false;
    unsigned m_begin PLINTH_GUARDED_BY(m_mutex) = 0;  ///< of what the block holds
    unsigned m_end PLINTH_GUARDED_BY(m_mutex) = 0;
    char m_block[32 * 1024] PLINTH_GUARDED_BY(m_mutex);
};

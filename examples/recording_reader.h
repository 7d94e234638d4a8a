// One HTTP client that reads a recording.
#pragma once

#include <algorithm>
#include <array>
#include <cstdio>
#include <string>
#include <string_view>
#include <utility>

#include "client_handler.h"
#include "file_requests.h"
#include "http_answer.h"
#include "recording.h"

/// Answers a request, whatever its target, with the recording from its start: in chunks, of which the last
/// follows when the recording is over. What is not there yet is waited for.
class CRecordingReader : public CClientHandler {
public:
    CRecordingReader(CClientStream stream, SRecording& recording)
        : CClientHandler(0, std::move(stream), recording.live, TIMEOUT_US), m_recording(recording) {}

private:
    static constexpr int TIMEOUT_US = 10'000'000;
    static constexpr unsigned MESSAGE_OPEN = 102;
    static constexpr unsigned SIZE_LINE = 10;  ///< eight digits and a line's end, before each chunk

    int handle_message(long sender, unsigned int type, long info) override {
        return type == MESSAGE_OPEN ? open_file() : CClientHandler::handle_message(sender, type, info);
    }
    void take_message(long, unsigned type) override PLINTH_REQUIRES(m_mutex) {
        using namespace Veltro::Ravelo;
        if (type == NOTIFY_FILE_ERROR || (type == NOTIFY_SEND_FINISH && m_is_last)) return hang_up();
        if (type == CRecorder::MESSAGE_LOOK && std::exchange(m_at_end, false)) m_file->Seek(0, 1);
        if (m_file != nullptr) pump();
    }
    /// A reader that is up with the recording waits for that.
    std::uint64_t progress() override PLINTH_REQUIRES(m_mutex) {
        const auto sender = m_sender->GetCounters();
        if (m_is_asked && !m_recording.is_over && sender.bytes_queued == 0) m_waits += 1;
        return sender.bytes_sent + m_waits;
    }
    void release() override PLINTH_REQUIRES(m_mutex) {
        if (m_file != nullptr) std::exchange(m_file, nullptr)->Close();
    }

    void receive() override PLINTH_REQUIRES(m_mutex) {
        while (!m_is_asked) {
            const int received = m_requests.Receive(m_stream);
            if (received < 0) return hang_up();
            if (received == 0) return;
            take_request();
        }
    }
    void take_request() PLINTH_REQUIRES(m_mutex) {
        const int status = m_requests.Next(m_request);
        if (status == CHttpRequest::INCOMPLETE) return;
        m_is_asked = true;
        ignore_input();
        if (status == CHttpRequest::OK) return NotifyIO(GetID(), MESSAGE_OPEN, 0);
        std::string answer;
        CHttpAnswers().AppendStatus(answer, status, false, false);
        send(answer, true);
    }
    /// On a file thread, which may block.
    int open_file() {
        auto* file = Veltro::Ravelo::CNFile::Open(GetID(), m_recording.path.c_str(), "rb", nullptr);
        Veltro::Plinth::CLockGuard guard(m_mutex);
        if (is_closed() || file == nullptr) {
            if (file != nullptr) file->Close();
            hang_up();
            return 0;
        }
        m_file = file;
        send(
            "HTTP/1.1 200 OK\r\nServer: ravelo\r\nContent-Type: application/octet-stream\r\n"
            "Transfer-Encoding: chunked\r\nConnection: close\r\n\r\n",
            m_request.head_only);
        return 0;
    }

    void send(std::string_view text, bool is_last) PLINTH_REQUIRES(m_mutex) {
        m_filled = static_cast<unsigned>(text.copy(m_chunk.data(), m_chunk.size()));
        m_is_last = is_last;
        pump();
    }
    /// Sends until something has to be waited for.
    void pump() PLINTH_REQUIRES(m_mutex) {
        while (m_filled > 0 || fill()) {
            if (m_sender->Put(m_chunk.data(), m_filled) != 0) {
                return m_sender->WaitBufferSize(GetID(), m_filled);
            }
            m_filled = 0;
        }
        if (m_is_last) m_sender->WaitSendFinish(GetID());
    }
    /// Makes the next chunk of what there is; false if there is nothing.
    bool fill() PLINTH_REQUIRES(m_mutex) {
        if (m_is_last || m_at_end) return false;
        const bool was_over = m_recording.is_over;
        const auto room = static_cast<unsigned>(m_chunk.size()) - SIZE_LINE - 2;
        const int got = m_file->Read(m_chunk.data() + SIZE_LINE, room, m_at_end);
        m_position += static_cast<unsigned>(got);
        m_is_last = got == 0 && m_at_end && was_over && m_position == m_recording.bytes;
        if (got == 0 && !m_is_last) return false;
        m_at_end = false;
        std::array<char, SIZE_LINE + 1> line;
        std::snprintf(line.data(), line.size(), "%08x\r\n", static_cast<unsigned>(got));
        std::copy_n(line.data(), SIZE_LINE, m_chunk.data());
        std::copy_n("\r\n", 2, m_chunk.data() + SIZE_LINE + got);
        m_filled = SIZE_LINE + static_cast<unsigned>(got) + 2;
        return true;
    }

    SRecording& m_recording;
    CFileRequests m_requests PLINTH_GUARDED_BY(m_mutex);
    SFileRequest m_request PLINTH_GUARDED_BY(m_mutex);
    bool m_is_asked PLINTH_GUARDED_BY(m_mutex) = false;
    Veltro::Ravelo::CNFile* m_file PLINTH_GUARDED_BY(m_mutex) = nullptr;
    std::uint64_t m_position PLINTH_GUARDED_BY(m_mutex) = 0;  ///< in the file
    bool m_at_end PLINTH_GUARDED_BY(m_mutex) = false;         ///< of the file, as it was
    bool m_is_last PLINTH_GUARDED_BY(m_mutex) = false;        ///< what the chunk holds
    unsigned m_filled PLINTH_GUARDED_BY(m_mutex) = 0;         ///< of the chunk
    std::uint64_t m_waits PLINTH_GUARDED_BY(m_mutex) = 0;
    std::array<char, 32 * 1024> m_chunk PLINTH_GUARDED_BY(m_mutex);
};

// One answer of the file server.
#pragma once

#include <Ravelo/Ravelo.h>

#include <algorithm>
#include <cstdio>
#include <string>
#include <utility>

#include "file_range.h"
#include "file_requests.h"
#include "http_answer.h"

/// An answer under way: its head, then bytes of a file, which it owns meanwhile. Used by one thread at a
/// time.
class CFileAnswer {
public:
    /// How far Pump() came.
    enum class EProgress {
        ALL,     ///< the sender has all of it
        WAITS,   ///< for a message of the file or of the sender
        MORE,    ///< there is more to do at once; others go first
        TOO_FEW  ///< the file is shorter than was promised, by now
    };

    ~CFileAnswer() { Close(); }

    /// Answers a request. @param file null when there is none.
    void Begin(Veltro::Ravelo::CNFile* file, const SFileRequest& request, CHttpAnswers& answers) {
        Veltro::Ravelo::NFile_Info info;
        m_file = file;
        if (file == nullptr || file->Stat(&info) != 0) return BeginStatus(404, request, answers);
        char tag[64];
        std::snprintf(tag, sizeof tag, "\"%llx-%llx\"", static_cast<unsigned long long>(info.size),
                      static_cast<unsigned long long>(info.modify_time));
        const bool part = !request.head_only && (request.if_range.empty() || request.if_range == tag);
        const SFileRange range = SFileRange::Of(part ? request.range : "", info.size);
        const std::string fields = std::string("Accept-Ranges: bytes\r\nETag: ") + tag + "\r\n";
        std::string head;
        answers.AppendHead(head, range.Status(), range.length, fields + range.ContentRange(info.size),
                           request.keep_alive);
        if (range.begin > 0) file->Seek(static_cast<std::int64_t>(range.begin), 0);
        begin(head, request.head_only ? 0 : range.length);
    }
    /// Answers a request with a status.
    void BeginStatus(int status, const SFileRequest& request, CHttpAnswers& answers) {
        std::string answer;
        answers.AppendStatus(answer, status, request.head_only, request.keep_alive);
        begin(answer, 0);
    }
    /// Moves bytes to a sender until one of them has to be waited for. @param owner who gets the messages.
    EProgress Pump(Veltro::Ravelo::CStreamSender& sender, long owner) {
        for (unsigned moved = 0; m_ready || m_left > 0; moved += std::exchange(m_filled, 0U)) {
            if (moved >= SHARE) return EProgress::MORE;
            bool eof = false;
            if (!m_ready && !fill(eof)) return eof ? EProgress::TOO_FEW : EProgress::WAITS;
            if (sender.Put(m_block, m_filled) != 0) {
                // Answered by message when there is room; a socket that failed is told, too.
                sender.WaitBufferSize(owner, m_filled);
                return EProgress::WAITS;
            }
            m_ready = false;
        }
        Close();
        return EProgress::ALL;
    }
    /// Whether a message comes from the file.
    bool IsOfFile(long sender) const { return m_file != nullptr && sender == m_file->GetID(); }
    void Close() {
        if (m_file != nullptr) std::exchange(m_file, nullptr)->Close();
    }

private:
    /// So much a call moves at most before it lets others go first.
    static constexpr unsigned SHARE = 512 * 1024;

    void begin(const std::string& head, std::uint64_t file_bytes) {
        head.copy(m_block, sizeof m_block);
        m_filled = static_cast<unsigned>(head.size());
        m_left = file_bytes;
        m_ready = m_left == 0;  // else the head leaves together with the first bytes
    }
    /// Adds bytes of the file to the block; false when there are none yet.
    bool fill(bool& eof) {
        const auto wanted = static_cast<unsigned>(std::min<std::uint64_t>(m_left, sizeof m_block - m_filled));
        const auto got = static_cast<unsigned>(m_file->Read(m_block + m_filled, wanted, eof));
        m_filled += got;
        m_left -= got;
        m_ready = got > 0;
        return m_ready;
    }

    Veltro::Ravelo::CNFile* m_file = nullptr;
    std::uint64_t m_left = 0;  ///< of the file, to be read
    bool m_ready = false;      ///< whether the block is to be sent
    unsigned m_filled = 0;     ///< of the block
    char m_block[32 * 1024];
};

// The output of one remote operator's session.
#pragma once

#include <Plinth/Mutex.h>

#include <cstddef>
#include <functional>

namespace Veltro::Ravelo {

/// Turns printed text into what a terminal takes, chunk by chunk, and puts the chunks into the session's
/// sender. Any thread may call.
class CR3Session {
public:
    /// At most so many bytes go to the sender at a time.
    static constexpr std::size_t CHUNK_SIZE = 4096;

    /// What takes a chunk: its bytes, which live until it returns, and how many. Negative when it failed.
    using Put = std::function<int(const char* bytes, unsigned length)>;

    /// Sets what takes the chunks, the session's sender, or takes it away with an empty one.
    void setSender(Put put);
    /// Puts a text, with every CR and every LF as the pair CR LF. Waits while another text is being put.
    /// @return the last put's result; -1 as soon as a put fails; 0 for an empty text and without a sender.
    int output(const char* text);

private:
    int put(const char* bytes, std::size_t length);

    Plinth::CMutex m_mutex;
    Put m_put PLINTH_GUARDED_BY(m_mutex);
};

}  // namespace Veltro::Ravelo

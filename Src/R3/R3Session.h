// The output of one remote operator's session.
#pragma once

#include <Plinth/Mutex.h>

#include <cstddef>
#include <functional>

namespace Veltro::Ravelo {

class CNetHandler;
class CSock;
class CStreamSender;

/// Turns printed text into what a terminal takes, chunk by chunk, and puts the chunks into the session's
/// sender. Any thread may call.
///
/// What the session's own output brings about is not printed: a thread that is in output() or handle_output()
/// prints nothing, whatever it traces or logs meanwhile. Else each line would bring about the next one, and
/// wait for the lock that its own thread holds.
class CR3Session {
public:
    /// At most so many bytes go to the sender at a time.
    static constexpr std::size_t CHUNK_SIZE = 4096;

    /// What takes a chunk: its bytes, which live until it returns, and how many. Negative when it failed.
    using Put = std::function<int(const char* bytes, unsigned length)>;

    CR3Session() = default;
    /// As unbind().
    ~CR3Session();
    CR3Session(const CR3Session&) = delete;
    CR3Session& operator=(const CR3Session&) = delete;

    /// Sends to a connection from now on, through a stream sender of the session's own. It keeps what the
    /// socket does not take, up to the sender's capacity; beyond that texts are refused. The public pool must
    /// exist.
    /// @param owner forwards its handle_output() to the session's, and is told by NOTIFY_STREAM_EXCEPTION
    /// when the socket fails, from when on nothing is sent. Must live until unbind(), as must the stream.
    /// @return 0; -1 without memory, or when the session is bound already.
    int bind(CNetHandler& owner, CSock& stream);
    /// Withdraws the socket and ends the sender; what it still keeps is lost. Call it in the owner's
    /// handle_close() at the latest. @return the stream; null if the session was not bound.
    CSock* unbind();
    /// Sends what is kept; the owner's handle_output() calls it. @return as CStreamSender::handle_output();
    /// -1 if the session is not bound.
    int handle_output(int fd);

    /// Sets what takes the chunks in place of a sender, or takes it away with an empty one.
    void setSender(Put put);
    /// Puts a text, with every CR and every LF as the pair CR LF. Waits while another text is being put.
    /// @return the last put's result; -1 as soon as a put fails; 0 for an empty text and without a sender.
    int output(const char* text);

private:
    int put(const char* bytes, std::size_t length);
    int send(const char* bytes, unsigned length) PLINTH_REQUIRES(m_mutex);

    Plinth::CMutex m_mutex;  ///< held while the sender is called
    Put m_put PLINTH_GUARDED_BY(m_mutex);
    CStreamSender* m_sender PLINTH_GUARDED_BY(m_mutex) = nullptr;
    CNetHandler* m_owner PLINTH_GUARDED_BY(m_mutex) = nullptr;
    bool m_failed PLINTH_GUARDED_BY(m_mutex) = false;  ///< the sender's socket has
};

}  // namespace Veltro::Ravelo

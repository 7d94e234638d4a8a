// A socket that takes what a test says. Needs the program to be linked by ravelo_script_sends().
#pragma once

#include <Plinth/Mutex.h>

#include <cstddef>
#include <string>
#include <string_view>

namespace Veltro::TestSupport {

/// While it lives, what is sent on one descriptor comes here and not to the system. One at a time.
class CScriptedSend {
public:
    /// Takes nothing at first: "try again later".
    explicit CScriptedSend(int fd);
    ~CScriptedSend();
    CScriptedSend(const CScriptedSend&) = delete;
    CScriptedSend& operator=(const CScriptedSend&) = delete;

    static constexpr std::size_t EVERYTHING = ~std::size_t{0};

    /// How many bytes it takes from now on, over all calls.
    void setRoom(std::size_t room_bytes);
    /// Whether every call fails as after a reset.
    void setFailing(bool failing);
    /// The bytes that it has taken since the last call.
    std::string take();
    /// Forgets the bytes that it has taken since the last call. @param as receives whether a text begins with
    /// them.
    /// @return how many they were.
    std::size_t takeAs(std::string_view text, bool* as);
    /// How many calls there were since it was made: single ones, gathered ones.
    int sends() const;
    int gatheredSends() const;
    /// The elements of the last gathered call.
    int elements() const;

    /// What the library's calls come to. @return bytes taken; -1 with a socket error.
    int send(const char* data, std::size_t length_bytes);
    void countSend();
    void countGathered(int elements);

private:
    mutable Plinth::CMutex m_mutex;
    std::size_t m_room PLINTH_GUARDED_BY(m_mutex) = 0;
    bool m_failing PLINTH_GUARDED_BY(m_mutex) = false;
    std::string m_taken PLINTH_GUARDED_BY(m_mutex);
    int m_sends PLINTH_GUARDED_BY(m_mutex) = 0;
    int m_gathered PLINTH_GUARDED_BY(m_mutex) = 0;
    int m_elements PLINTH_GUARDED_BY(m_mutex) = 0;
};

}  // namespace Veltro::TestSupport

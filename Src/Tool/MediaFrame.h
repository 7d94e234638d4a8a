// One frame of a media buffer: its packets, and what the buffer and the senders keep of it.
#pragma once

#include <Ravelo/Defs.h>

#include <array>
#include <atomic>
#include <cstdint>
#include <memory>

namespace Veltro::Ravelo {

class CMediaPacket;

/// How many channels there are, and a value for each.
inline constexpr int CHANNEL_COUNT = 8;
template <typename T>
using SChannels = std::array<T, CHANNEL_COUNT>;

/// The worst level; the best is 1.
inline constexpr std::int32_t WORST_LEVEL = 10;

/// A frame is filled, completed once, and from then on its packets do not change: any number of senders may
/// read them, each at its own place, also after the buffer has given the frame up.
///
/// It lives as long as the buffer's list has it or a sender is at it. What is not atomic is guarded by the
/// buffer's lock, but for the packets of a complete frame.
class CFrame {
public:
    static constexpr std::uint32_t BUFFER_INCREMENT = 32;

    /// @param start_bytes where its first byte stands in the stream.
    /// @return a frame that the list has; null without memory.
    static CFrame* create(std::uint64_t start_bytes);
    CFrame(const CFrame&) = delete;
    CFrame& operator=(const CFrame&) = delete;

    /// Stores a packet at the end. @param mark 1 completes the frame. @return false without memory: the
    /// packet is not taken.
    bool Put(CMediaPacket* packet, std::uint32_t len, int mark, std::uint32_t level_word);
    /// Stores the information, in place of an earlier one, which is released.
    void putInfo(CMediaPacket* info, int value);
    /// Empties a frame that no sender has; releases everything that was stored.
    void reset();

    /// A sender comes to this frame, or goes on; with the last one goes a frame that is in no list.
    void addSender() { m_sender_refs.fetch_add(1); }
    void dropSender();
    /// The list gives the frame up.
    void leaveList();

    /// The frame has its last packet. One without bytes is never complete: the buffer empties it instead.
    bool isComplete() const { return m_mark == 1; }
    std::uint32_t senders() const { return m_sender_refs.load() & ~LISTED; }
    std::int32_t level() const { return static_cast<std::int32_t>(m_level & 0x00FF'FFFFU); }
    std::uint32_t channel() const { return m_level >> 24; }
    /// The channel's bit in a mask.
    std::uint32_t bit() const { return 1U << channel(); }
    std::uint64_t end() const { return m_start + static_cast<std::uint64_t>(m_byte_len); }

    std::unique_ptr<iovec[]> m_packet_info;
    std::unique_ptr<CMediaPacket*[]> m_packet;
    std::int64_t m_byte_len = 0;                   ///< the packets' bytes
    std::atomic<std::int64_t> m_sending_bytes{0};  ///< written by senders that have not finished the frame
    std::uint32_t m_capacity = BUFFER_INCREMENT;   ///< elements of both arrays
    std::uint32_t m_packet_num = 0;
    std::uint32_t m_mark = 0;      ///< of the last packet
    std::uint32_t m_level = 1;     ///< of the last packet: the level, and the channel in the highest byte
    std::uint32_t m_valid = 0;     ///< complete, and worth sending still
    std::int32_t m_age = -1;       ///< steps since it was completed, less one
    std::uint32_t m_key_mask = 0;  ///< the channel's bit, if this is a key frame
    CFrame* m_next = nullptr;      ///< null in a frame that is in no list
    CMediaPacket* m_frame_info = nullptr;
    int m_frame_info_value = 0;

    std::uint64_t m_sequence = 0;  ///< of complete frames, from 1
    std::uint64_t m_start;         ///< where its first byte stands in the stream
    SChannels<std::uint64_t> m_lost =
        {};  ///< the last frame of each channel that was lost just before this one

private:
    static constexpr std::uint32_t LISTED = 0x8000'0000U;

    explicit CFrame(std::uint64_t start_bytes) : m_start(start_bytes) {}
    virtual ~CFrame();
    bool grow();
    void release_packets();

    /// How many senders have it as their current frame; and whether the list has it.
    std::atomic<std::uint32_t> m_sender_refs{LISTED};
};

}  // namespace Veltro::Ravelo

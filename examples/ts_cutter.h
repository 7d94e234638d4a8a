// Cuts an MPEG transport stream into frames.
#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <string>
#include <utility>

/// Takes the bytes of a transport stream as they come and gives whole frames: what lies between the
/// beginnings of two pictures of the first video stream. A key frame, by the random access indicator of its
/// first packet, has the two tables before it that a decoder needs to begin there.
class CTsCutter {
public:
    static constexpr std::size_t PACKET_BYTES = 188;

    using FrameProc = std::function<void(std::string&& frame, bool is_key)>;

    explicit CTsCutter(FrameProc proc) : m_proc(std::move(proc)) {}

    void Take(const char* data, std::size_t length_bytes) {
        m_pending.append(data, length_bytes);
        std::size_t at = 0;
        while (m_pending.size() - at >= PACKET_BYTES) {
            if (m_pending[at] != SYNC) {
                at += 1;  // out of step: looks for the next packet
                continue;
            }
            take_packet(m_pending.substr(at, PACKET_BYTES));
            at += PACKET_BYTES;
        }
        m_pending.erase(0, at);
    }
    /// Gives the last frame.
    void End() { give_frame(); }
    /// The stream's own time in microseconds since its beginning; by the last clock reference.
    std::int64_t TimeUs() const { return m_clock_us; }

private:
    static constexpr char SYNC = 0x47;
    static constexpr int NONE = -1;
    static constexpr int TABLE_PID = 0;

    static std::uint8_t byte(const std::string& packet, std::size_t at) {
        return at < packet.size() ? static_cast<std::uint8_t>(packet[at]) : 0;
    }
    static int word13(const std::string& packet, std::size_t at) {
        return (byte(packet, at) & 0x1F) << 8 | byte(packet, at + 1);
    }

    void take_packet(std::string packet) {
        const int pid = word13(packet, 1);
        const bool begins = (byte(packet, 1) & 0x40) != 0;
        const bool has_field = (byte(packet, 3) & 0x20) != 0 && byte(packet, 4) > 0;
        const std::uint8_t flags = has_field ? byte(packet, 5) : 0;
        if ((flags & 0x10) != 0) read_clock(packet, pid);
        if (pid == TABLE_PID && begins) read_program(packet);
        if (pid == m_map_pid && begins) read_map(packet);
        if (pid == m_video_pid && begins) {
            give_frame();
            m_is_key = (flags & 0x40) != 0;
            if (m_is_key) m_frame = m_program + m_map;
            m_has_picture = true;
        }
        if (m_has_picture) m_frame += packet;
    }
    void give_frame() {
        if (m_has_picture) m_proc(std::move(m_frame), m_is_key);
        m_frame.clear();
        m_has_picture = false;
    }

    /// Where a section's bytes begin in a packet that begins one.
    static std::size_t section(const std::string& packet) {
        const std::size_t payload = (byte(packet, 3) & 0x20) != 0 ? 5U + byte(packet, 4) : 4U;
        return payload + 1 + byte(packet, payload);
    }
    /// The first program of the stream.
    void read_program(const std::string& packet) {
        m_program = packet;
        const std::size_t entry = section(packet) + 8;
        const int number = byte(packet, entry) << 8 | byte(packet, entry + 1);
        m_map_pid = word13(packet, entry + (number == 0 ? 6 : 2));
    }
    /// The first video stream of the program.
    void read_map(const std::string& packet) {
        m_map = packet;
        const std::size_t start = section(packet);
        const std::size_t end = start + 3 + (word13(packet, start + 1) & 0xFFF) - 4;
        std::size_t at = start + 12 + (word13(packet, start + 10) & 0xFFF);
        for (; at + 5 <= end && at + 5 <= packet.size(); at += 5 + (word13(packet, at + 3) & 0xFFF)) {
            const std::uint8_t type = byte(packet, at);
            if (type == 0x01 || type == 0x02 || type == 0x10 || type == 0x1B || type == 0x24) {
                m_video_pid = word13(packet, at + 1);
                return;
            }
        }
    }
    void read_clock(const std::string& packet, int pid) {
        if (m_clock_pid == NONE) m_clock_pid = pid;
        if (pid != m_clock_pid) return;
        std::int64_t ticks = 0;  // 33 bits, 90 kHz
        for (std::size_t i = 6; i < 10; ++i) ticks = ticks << 8 | byte(packet, i);
        ticks = ticks << 1 | byte(packet, 10) >> 7;
        const std::int64_t step = m_last_ticks == NONE ? 0 : ticks - m_last_ticks;
        if (step > 0 && step < 90'000 * 10) m_clock_us += step * 100 / 9;  // not a jump
        m_last_ticks = ticks;
    }

    FrameProc m_proc;
    std::string m_pending;
    std::string m_frame;
    std::string m_program;
    std::string m_map;
    int m_map_pid = NONE;
    int m_video_pid = NONE;
    int m_clock_pid = NONE;
    bool m_has_picture = false;
    bool m_is_key = false;
    std::int64_t m_last_ticks = NONE;
    std::int64_t m_clock_us = 0;
};

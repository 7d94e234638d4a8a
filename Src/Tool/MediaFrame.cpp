#include "Tool/MediaFrame.h"

#include <Ravelo/MediaBuffer.h>

#include <algorithm>
#include <new>

#include "Log.h"
#include "R3/R3MediaTrace.h"

namespace Veltro::Ravelo {

CFrame* CFrame::create(std::uint64_t start_bytes) {
    std::unique_ptr<iovec[]> info(new (std::nothrow) iovec[BUFFER_INCREMENT]);
    std::unique_ptr<CMediaPacket*[]> packets(new (std::nothrow) CMediaPacket*[BUFFER_INCREMENT]);
    CFrame* frame = info && packets ? new (std::nothrow) CFrame(start_bytes) : nullptr;
    if (frame == nullptr) return nullptr;
    frame->m_packet_info = std::move(info);
    frame->m_packet = std::move(packets);
    return frame;
}

CFrame::~CFrame() {
    release_packets();
}

bool CFrame::Put(CMediaPacket* packet, std::uint32_t len, int mark, std::uint32_t level_word) {
    R3MediaTrace::framePut(*this, packet, static_cast<int>(len), mark, level_word);
    if (m_packet_num == m_capacity && !grow()) return false;
    m_packet[m_packet_num] = packet;
    m_packet_info[m_packet_num] = {len, packet->GetBuffer()};
    m_packet_num += 1;
    m_byte_len += len;
    m_mark = static_cast<std::uint32_t>(mark);
    m_level = level_word;
    if (mark != 1) return true;
    m_sending_bytes = 0;
    m_valid = 1;
    m_age = -1;
    return true;
}

bool CFrame::grow() {
    RAVELO_ASSERT(m_packet_num % BUFFER_INCREMENT == 0);
    R3MediaTrace::frameGrows(*this, m_byte_len, m_packet_num);
    const std::uint32_t capacity = m_capacity + BUFFER_INCREMENT;
    std::unique_ptr<iovec[]> info(new (std::nothrow) iovec[capacity]);
    std::unique_ptr<CMediaPacket*[]> packets(new (std::nothrow) CMediaPacket*[capacity]);
    if (!info || !packets) return false;
    std::copy_n(m_packet_info.get(), m_packet_num, info.get());
    std::copy_n(m_packet.get(), m_packet_num, packets.get());
    m_packet_info = std::move(info);
    m_packet = std::move(packets);
    m_capacity = capacity;
    return true;
}

void CFrame::putInfo(CMediaPacket* info, int value) {
    if (m_frame_info != nullptr) m_frame_info->Release();
    m_frame_info = info;
    m_frame_info_value = value;
}

void CFrame::reset() {
    release_packets();
    m_byte_len = 0;
    m_mark = 0;
    m_level = 1;
    m_valid = 0;
    m_age = -1;
}

void CFrame::release_packets() {
    // What is released is forgotten first: a packet may look at anything but the buffer.
    const std::uint32_t count = m_packet_num;
    m_packet_num = 0;
    for (std::uint32_t i = 0; i < count; ++i) m_packet[i]->Release();
    putInfo(nullptr, 0);
}

void CFrame::dropSender() {
    if (m_sender_refs.fetch_sub(1) == 1) delete this;
}

void CFrame::leaveList() {
    m_next = nullptr;
    if (m_sender_refs.fetch_and(~LISTED) == LISTED) delete this;
}

}  // namespace Veltro::Ravelo

#include "R3/R3Trace.h"

#include <Plinth/Time.h>
#include <Ravelo/R3Server.h>
#include <Ravelo/Sock.h>

#include "Core/NetHandlerRecord.h"
#include "Log.h"

namespace Veltro::Ravelo::R3Trace {

std::atomic<bool> sm_events{false};
std::atomic<bool> sm_tools{false};
std::atomic<bool> sm_receivers{false};

namespace Line {

namespace {
std::uintmax_t nowUs() {
    return Plinth::CTime::getCurrentMicroSecond();
}
}  // namespace

void message(const char* when, const CNetHandler& handler, std::uint32_t type, std::int64_t info) {
    R3Printf("thread:%d, object:%p,class:%s, handle message %s at %ju us,msg:%d,attach:%d\n", logThreadId(),
             static_cast<const void*>(&handler), SNetHandlerRecord::className(&handler).c_str(), when,
             nowUs(), static_cast<int>(type), static_cast<int>(info));
}

void timer(const char* when, const CNetHandler& handler) {
    R3Printf("thread:%d, object:%p,class:%s, handle message %s at %ju us\n", logThreadId(),
             static_cast<const void*>(&handler), SNetHandlerRecord::className(&handler).c_str(), when,
             nowUs());
}

void receiver(const char* when, const CNetHandler& handler) {
    R3Printf("%s, object:%p, class:%s handle_stream_input %s at %ju us\n",
             "Veltro::Ravelo::CMediaStreamReceiver::do_receive", static_cast<const void*>(&handler),
             SNetHandlerRecord::className(&handler).c_str(), when, nowUs());
}

void senderPut(const CNetHandler& sender, std::uint32_t length_bytes, const CSock& stream) {
    R3Printf("%s, object:%p, class:%s, put len:%d, strem:%p, fd:%d\n", "Veltro::Ravelo::CStreamSender::Put",
             static_cast<const void*>(&sender), SNetHandlerRecord::className(&sender).c_str(),
             static_cast<int>(length_bytes), static_cast<const void*>(&stream), stream.GetHandle());
}

void senderOutput(const CNetHandler& sender, const CSock& stream) {
    R3Printf("%s, object:%p, class:%s, strem:%p, fd:%d\n", "Veltro::Ravelo::CStreamSender::handle_output",
             static_cast<const void*>(&sender), SNetHandlerRecord::className(&sender).c_str(),
             static_cast<const void*>(&stream), stream.GetHandle());
}

}  // namespace Line

}  // namespace Veltro::Ravelo::R3Trace

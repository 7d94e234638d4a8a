#include "R3/R3Trace.h"

#include <Plinth/Time.h>
#include <Ravelo/R3Server.h>

#include "Core/NetHandlerRecord.h"
#include "Log.h"

namespace Veltro::Ravelo::R3Trace {

std::atomic<bool> sm_events{false};
std::atomic<bool> sm_tools{false};

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

}  // namespace Line

}  // namespace Veltro::Ravelo::R3Trace

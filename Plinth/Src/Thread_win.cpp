#include <Plinth/Thread.h>
#include <Plinth/Time.h>

#include <process.h>
#include <windows.h>

#include <algorithm>
#include <bit>
#include <cstdint>
#include <new>

#include "LastErrorKeeper.h"
#include "ThreadSystem.h"
#include "Utf8_win.h"

namespace Veltro::Plinth {

namespace ThreadSystem {

struct SHandle {
    HANDLE thread = nullptr;
    Entry entry = nullptr;
    void* argument = nullptr;
};

namespace {
unsigned __stdcall trampoline(void* opaque) {
    const auto* handle = static_cast<const SHandle*>(opaque);
    handle->entry(handle->argument);
    return 0;
}

/// 1..127 with 64 normal, to the system's steps of one around 0.
int stepOf(int priority, int policy) {
    const int realtime = policy == POLICY_REALTIME ? 1 : 0;
    if (priority <= PRIORITY_LOWEST) return THREAD_PRIORITY_LOWEST + realtime;
    if (priority < PRIORITY_NORMAL) return THREAD_PRIORITY_BELOW_NORMAL + realtime;
    if (priority == PRIORITY_NORMAL) return THREAD_PRIORITY_NORMAL + realtime;
    if (priority < PRIORITY_HIGHEST) return THREAD_PRIORITY_ABOVE_NORMAL + realtime;
    return THREAD_PRIORITY_HIGHEST;
}

DWORD_PTR readProcessors() {
    DWORD_PTR process_mask = 0;
    DWORD_PTR system_mask = 0;
    GetProcessAffinityMask(GetCurrentProcess(), &process_mask, &system_mask);
    return process_mask != 0 ? process_mask : 1;
}

/// Read once, as on the other platform.
DWORD_PTR processors() {
    static const DWORD_PTR allowed = readProcessors();
    return allowed;
}
}  // namespace

SHandle* start(Entry entry, void* argument, std::size_t stack_bytes) {
    auto* handle = new (std::nothrow) SHandle;
    if (handle == nullptr) return nullptr;
    handle->entry = entry;
    handle->argument = argument;
    // Without the reservation flag the whole stack would be committed at once.
    const auto thread = _beginthreadex(nullptr, static_cast<unsigned>(stack_bytes), &trampoline, handle,
                                       STACK_SIZE_PARAM_IS_A_RESERVATION, nullptr);
    handle->thread = reinterpret_cast<HANDLE>(thread);
    if (handle->thread != nullptr) return handle;
    delete handle;
    return nullptr;
}

void join(SHandle* handle) {
    WaitForSingleObject(handle->thread, INFINITE);
    CloseHandle(handle->thread);
    delete handle;
}

void setCurrentName(const char* name) {
    using SetDescription = HRESULT(WINAPI*)(HANDLE, PCWSTR);
    // Windows 10 and later only.
    static const auto set_description = std::bit_cast<SetDescription>(
        GetProcAddress(GetModuleHandleW(L"kernel32.dll"), "SetThreadDescription"));
    if (set_description == nullptr) return;
    if (const auto wide = toWide(name)) set_description(GetCurrentThread(), wide.get());
}

void setCurrentPriority(int priority, int policy) {
    SetThreadPriority(GetCurrentThread(), stepOf(priority, policy));
}

}  // namespace ThreadSystem

unsigned long getCurrentThreadId() {
    return GetCurrentThreadId();
}

unsigned getProcessorCount() {
    return static_cast<unsigned>(std::popcount(static_cast<unsigned long long>(ThreadSystem::processors())));
}

bool pinCurrentThread(unsigned processor) {
    const DWORD_PTR allowed = ThreadSystem::processors();
    for (DWORD_PTR bit = 1; bit != 0; bit <<= 1) {
        if ((allowed & bit) == 0 || processor-- > 0) continue;
        return SetThreadAffinityMask(GetCurrentThread(), bit) != 0;
    }
    return false;
}

void yieldThread() {
    SwitchToThread();
}

void sleepMilliSecond(std::int64_t time_ms) {
    if (time_ms <= 0) return;
    const CLastErrorKeeper keeper;
    const std::uint64_t start_us = CTime::getCurrentMicroSecond();
    const auto wanted_ms = static_cast<std::uint64_t>(time_ms);
    // The system's sleeps end on its own coarse tick, which may lie before the deadline.
    for (std::uint64_t gone_ms = 0; gone_ms < wanted_ms;
         gone_ms = (CTime::getCurrentMicroSecond() - start_us) / 1000) {
        Sleep(static_cast<DWORD>(std::min<std::uint64_t>(wanted_ms - gone_ms, INFINITE - 1)));
    }
}

}  // namespace Veltro::Plinth

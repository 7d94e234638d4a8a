#include <Plinth/Thread.h>

#include <process.h>
#include <windows.h>

#include <bit>
#include <memory>
#include <string>

#include "ThreadSystem.h"

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
    if (priority <= 1) return THREAD_PRIORITY_LOWEST + realtime;
    if (priority < PRIORITY_NORMAL) return THREAD_PRIORITY_BELOW_NORMAL + realtime;
    if (priority == PRIORITY_NORMAL) return 0 + realtime;
    if (priority < PRIORITY_HIGHEST) return THREAD_PRIORITY_ABOVE_NORMAL + realtime;
    return THREAD_PRIORITY_HIGHEST;
}
}  // namespace

SHandle* start(Entry entry, void* argument, std::size_t stack_bytes) {
    auto handle = std::make_unique<SHandle>();
    handle->entry = entry;
    handle->argument = argument;
    // Suspended until the handle is stored, which the new thread may read.
    const auto thread = _beginthreadex(nullptr, static_cast<unsigned>(stack_bytes), &trampoline, handle.get(),
                                       CREATE_SUSPENDED, nullptr);
    if (thread == 0) return nullptr;
    handle->thread = reinterpret_cast<HANDLE>(thread);
    ResumeThread(handle->thread);
    return handle.release();
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
    const std::string narrow(name);
    set_description(GetCurrentThread(), std::wstring(narrow.begin(), narrow.end()).c_str());
}

void setCurrentPriority(int priority, int policy) {
    SetThreadPriority(GetCurrentThread(), stepOf(priority, policy));
}

}  // namespace ThreadSystem

unsigned long getCurrentThreadId() {
    return GetCurrentThreadId();
}

unsigned getProcessorCount() {
    DWORD_PTR process_mask = 0;
    DWORD_PTR system_mask = 0;
    if (GetProcessAffinityMask(GetCurrentProcess(), &process_mask, &system_mask) && process_mask != 0) {
        return static_cast<unsigned>(std::popcount(static_cast<unsigned long long>(process_mask)));
    }
    SYSTEM_INFO info;
    GetSystemInfo(&info);
    return info.dwNumberOfProcessors > 0 ? info.dwNumberOfProcessors : 1;
}

bool pinCurrentThread(unsigned processor) {
    if (processor >= sizeof(DWORD_PTR) * 8) return false;
    return SetThreadAffinityMask(GetCurrentThread(), DWORD_PTR{1} << processor) != 0;
}

void yieldThread() {
    SwitchToThread();
}

void sleepMilliSecond(std::int64_t time_ms) {
    Sleep(time_ms > 0 ? static_cast<DWORD>(time_ms) : 0);
}

}  // namespace Veltro::Plinth

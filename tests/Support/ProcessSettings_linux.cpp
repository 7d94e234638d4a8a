#include "Support/ProcessSettings.h"

#include <sys/resource.h>
#include <sys/time.h>

#include <atomic>
#include <csignal>

namespace Veltro::TestSupport {

namespace {

std::atomic<int> g_pipe_signals{0};
std::atomic<int> g_interruptions{0};
std::atomic<int> g_interruptions_wanted{0};
void (*g_action)() = nullptr;

void onPipe(int) {
    ++g_pipe_signals;
}

void setTimer(int interval_us) {
    itimerval timer{};
    timer.it_interval.tv_usec = interval_us;
    timer.it_value.tv_usec = interval_us;
    ::setitimer(ITIMER_REAL, &timer, nullptr);
}

void onAlarm(int) {
    if (++g_interruptions >= g_interruptions_wanted) setTimer(0);
    if (g_action != nullptr) g_action();
}

void handle(int signal_number, void (*handler)(int)) {
    struct sigaction action {};
    action.sa_handler = handler;
    ::sigaction(signal_number, &action, nullptr);
}

}  // namespace

bool setDescriptorLimit(int descriptors) {
    rlimit limit{};
    ::getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = static_cast<rlim_t>(descriptors);
    return ::setrlimit(RLIMIT_NOFILE, &limit) == 0;
}

void watchPipeSignal() {
    handle(SIGPIPE, onPipe);
}

int pipeSignalCount() {
    return g_pipe_signals;
}

bool interruptMainThread(int times, void (*action)()) {
    g_action = action;
    g_interruptions = 0;
    g_interruptions_wanted = times;
    handle(SIGALRM, onAlarm);
    setTimer(20'000);
    return true;
}

int interruptionCount() {
    return g_interruptions;
}

}  // namespace Veltro::TestSupport

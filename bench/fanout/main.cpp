// Sends one stream to many connections: `fanout_<library> <receivers> <Mbit/s> <seconds>`; one line of JSON.
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "common/Clock.h"
#include "common/Net.h"
#include "common/Placement.h"
#include "fanout/FanoutSystem.h"
#include "fanout/Receivers.h"

namespace {

using namespace Bench;

constexpr double WARM_UP_S = 0.3;

/// A connection: its far end goes to the receivers, its near end to the system.
void connect_one(int listener, CReceivers& receivers, CFanoutSystem& system) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(local_port(listener));
    const int far = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (far < 0 || connect(far, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
        die("connect");
    int near = -1;
    while ((near = accept4(listener, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC)) < 0) {
        if (errno != EAGAIN) die("accept");
    }
    set_no_delay(near);
    receivers.Add(far);
    system.Add(near);
}

/// Kilobytes that are the process's own, without its sockets' buffers.
long resident_kib() {
    long total = 0;
    long resident = 0;
    std::FILE* file = std::fopen("/proc/self/statm", "r");
    if (file == nullptr || std::fscanf(file, "%ld %ld", &total, &resident) != 2) die("statm");
    std::fclose(file);
    return resident * (sysconf(_SC_PAGESIZE) / 1024);
}

std::int64_t thread_cpu_ns() {
    timespec used{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &used);
    return static_cast<std::int64_t>(used.tv_sec) * 1'000'000'000 + used.tv_nsec;
}

/// Gives packets to the system at a pace, for some time; one that is late is not left out.
class CProducer {
public:
    CProducer(CFanoutSystem& system, double mbit) : m_system(system) {
        m_step_ns = static_cast<std::int64_t>(static_cast<double>(PACKET_BYTES) * 8e3 / mbit);
        m_due_ns = now_ns();
    }
    void Run(double seconds) {
        const std::int64_t end_ns = now_ns() + static_cast<std::int64_t>(seconds * 1e9);
        for (std::int64_t now = now_ns(); now < end_ns; now = now_ns()) {
            if (now < m_due_ns) {
                const std::int64_t wait_ns = m_due_ns - now;
                const timespec pause{0, static_cast<long>(wait_ns % 1'000'000'000)};
                nanosleep(&pause, nullptr);
                continue;
            }
            const std::int64_t sent_ns = now_ns();
            std::memcpy(m_packet, &sent_ns, sizeof sent_ns);
            std::memcpy(m_packet + sizeof sent_ns, &m_number, sizeof m_number);
            m_number += 1;
            m_system.Send(m_packet, sizeof m_packet);
            m_due_ns += m_step_ns;
        }
    }

private:
    CFanoutSystem& m_system;
    std::int64_t m_step_ns;
    std::int64_t m_due_ns;
    std::uint64_t m_number = 0;
    char m_packet[PACKET_BYTES] = {};
};

}  // namespace

int main(int argc, char** argv) {
    const std::size_t count = argc > 1 ? std::strtoull(argv[1], nullptr, 10) : 0;
    const double mbit = argc > 2 ? std::strtod(argv[2], nullptr) : 0;
    const double seconds = argc > 3 ? std::strtod(argv[3], nullptr) : 0;
    if (count == 0 || mbit <= 0 || seconds <= 0) {
        std::fprintf(stderr, "usage: %s RECEIVERS MBIT SECONDS\n", argv[0]);
        return 2;
    }
    std::signal(SIGPIPE, SIG_IGN);
    raise_descriptor_limit();
    pin_to(0);
    CReceivers receivers;
    auto system = make_fanout_system();
    const int listener = listen_on(0, false);
    const long before_kib = resident_kib();
    for (std::size_t i = 0; i < count; ++i) connect_one(listener, receivers, *system);
    const long connected_kib = resident_kib();
    receivers.Start();
    CProducer producer(*system, mbit);
    producer.Run(WARM_UP_S);
    receivers.Measure();
    const std::uint64_t packets = receivers.Packets();
    const std::int64_t cpu_ns = thread_cpu_ns();
    const std::int64_t start_ns = now_ns();
    producer.Run(seconds);
    const double gone_s = static_cast<double>(now_ns() - start_ns) / 1e9;
    const double used_s = static_cast<double>(thread_cpu_ns() - cpu_ns) / 1e9;
    const double delivered = static_cast<double>(receivers.Packets() - packets);
    const long running_kib = resident_kib();
    receivers.Stop();
    std::printf(
        "{\"library\":\"%s\",\"receivers\":%zu,\"per_second\":%.0f,\"cpu_s_per_gib\":%.3f,\"busy\":%.3f,"
        "\"p50_us\":%.1f,\"p99_us\":%.1f,\"receivers_kib\":%ld,\"stream_kib\":%ld}\n",
        fanout_system_name(), count, delivered / gone_s,
        used_s / (delivered * static_cast<double>(PACKET_BYTES) / (1 << 30)), used_s / gone_s,
        receivers.Delays().PercentileUs(0.5), receivers.Delays().PercentileUs(0.99),
        connected_kib - before_kib, running_kib - connected_kib);
    std::fflush(stdout);
    std::_Exit(0);  // thousands of connections are not closed one by one
}

// Runs one message benchmark of one library: `message_<library> <scenario> [messages]`; one line of JSON.
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <string_view>

#include "message/MessageSystem.h"
#include "message/Scenarios.h"

namespace {

using namespace Bench;

struct SScenario {
    std::string_view name;
    SMessageResult (*run)(std::uint64_t messages);
    std::uint64_t messages;
};

constexpr SScenario kScenarios[] = {
    {"post", run_post, 1'000'000},         {"chain", run_chain, 1'000'000},
    {"pairs", run_pairs, 1'000'000},       {"roundtrip", run_roundtrip, 100'000},
    {"crosstrip", run_crosstrip, 100'000},
};

void print(std::string_view scenario, const SMessageResult& result) {
    const auto messages = static_cast<double>(result.messages);
    const auto wall_ns = static_cast<double>(result.wall_ns);
    std::printf("{\"library\":\"%s\",\"scenario\":\"%s\",\"messages\":%" PRIu64
                ",\"per_second\":%.0f,\"ns\":%.1f,\"cpu_ns\":%.1f,\"p50_us\":%.2f,\"p99_us\":%.2f}\n",
                message_system_name(), scenario.data(), result.messages, messages * 1e9 / wall_ns,
                wall_ns / messages, static_cast<double>(result.cpu_ns) / messages, result.p50_us,
                result.p99_us);
}

}  // namespace

int main(int argc, char** argv) {
    const std::string_view wanted = argc > 1 ? argv[1] : "";
    for (const SScenario& scenario : kScenarios) {
        if (scenario.name != wanted) continue;
        const std::uint64_t messages = argc > 2 ? std::strtoull(argv[2], nullptr, 10) : scenario.messages;
        print(scenario.name, scenario.run(messages));
        return 0;
    }
    std::fprintf(stderr, "usage: %s post|chain|pairs|roundtrip|crosstrip [messages]\n", argv[0]);
    return 2;
}

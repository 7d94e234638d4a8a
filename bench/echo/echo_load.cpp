// Load generator for the echo servers: prints one line of JSON per run; ends with 1 if a byte was lost.
#include <deque>

#include "common/Clock.h"
#include "common/Net.h"
#include "echo/LoadClient.h"
#include "echo/LoadLoop.h"
#include "echo/LoadOptions.h"
#include "echo/LoadWindow.h"

namespace {

using namespace Bench;

/// Longest wait for all idle connections together.
constexpr std::int64_t kPatienceNs = 20'000'000'000;

/// One echo over each connection, in turn. @return how many failed.
unsigned echo_once(std::deque<CLoadClient>& clients) {
    unsigned failed = 0;
    std::uint64_t number = 0;
    const std::int64_t until_ns = now_ns() + kPatienceNs;
    for (CLoadClient& client : clients) {
        if (client.Request(++number) == CLoadClient::State::Failed ||
            client.Finish(until_ns) != CLoadClient::State::Answered)
            failed++;
    }
    return failed;
}

/// Opens the idle connections; each is served once, so that the server is known to hold it.
unsigned open_idle(std::deque<CLoadClient>& idle, const SLoadOptions& options, const CPayload& payload) {
    unsigned failed = 0;
    const std::int64_t until_ns = now_ns() + kPatienceNs;
    for (unsigned i = 0; i < options.idle; ++i) {
        CLoadClient& client = idle.emplace_back(payload);
        if (!client.Connect(options.port) || client.Request(i) == CLoadClient::State::Failed ||
            client.Finish(until_ns) != CLoadClient::State::Answered)
            failed++;
    }
    return failed;
}

}  // namespace

int main(int argc, char** argv) {
    const SLoadOptions options = parse_load_options(argc, argv);
    raise_descriptor_limit();
    const CPayload payload(options.size_bytes);
    std::deque<CLoadClient> idle;
    unsigned failed = open_idle(idle, options, payload);

    CLoadWindow window(options);
    CLoadLoop(options, window, payload).Run();

    failed += echo_once(idle);
    for (; failed != 0; --failed) window.Failed();
    window.Print();
    return window.Errors() == 0 ? 0 : 1;
}

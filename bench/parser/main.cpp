// Parses a text over and over: `parser_<contestant> http|sdp [seconds]`; one line of JSON.
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

#include "common/Clock.h"
#include "common/Placement.h"
#include "parser/ParserSystem.h"
#include "parser/Texts.h"

namespace {

using namespace Bench;

constexpr int kTextsPerSlice = 100;
constexpr double kDefaultSeconds = 0.3;

using Parse = bool(std::string_view text, SFound* found);

/// @return nanoseconds per text: the median of many slices of some microseconds, so that a slice in which the
/// thread was interrupted does not count.
double measure(Parse* parse, std::string_view text, double seconds) {
    std::vector<std::int64_t> slices_ns;
    SFound found;
    const std::int64_t until_ns = now_ns() + static_cast<std::int64_t>(seconds * 1e9);
    for (std::int64_t start_ns = now_ns(); start_ns < until_ns; start_ns = now_ns()) {
        for (int i = 0; i < kTextsPerSlice; ++i) parse(text, &found);
        slices_ns.push_back(now_ns() - start_ns);
    }
    const auto middle = slices_ns.begin() + static_cast<std::ptrdiff_t>(slices_ns.size() / 2);
    std::nth_element(slices_ns.begin(), middle, slices_ns.end());
    return static_cast<double>(*middle) / kTextsPerSlice;
}

}  // namespace

int main(int argc, char** argv) {
    const std::string_view kind = argc > 1 ? argv[1] : "";
    const double seconds = argc > 2 ? std::atof(argv[2]) : kDefaultSeconds;
    if (kind != "http" && kind != "sdp") {
        std::fprintf(stderr, "usage: %s http|sdp [SECONDS]\n", argv[0]);
        return 2;
    }
    pin_to(0);
    Parse* parse = kind == "http" ? parse_http : parse_sdp;
    const std::string& text = kind == "http" ? http_request() : session_description();
    const SFound expected = kind == "http" ? SFound{14, 962, 1234} : SFound{46, 1815, 98342};
    SFound found;
    if (!parse(text, &found) || !(found == expected)) {
        std::fprintf(stderr, "%s parsed the text wrong: %llu fields, %llu bytes, numbers %llu\n", argv[0],
                     static_cast<unsigned long long>(found.fields),
                     static_cast<unsigned long long>(found.bytes),
                     static_cast<unsigned long long>(found.numbers));
        return 1;
    }
    measure(parse, text, seconds / 3);  // warm-up
    std::printf("{\"parser\":\"%s\",\"text\":\"%s\",\"ns\":%.1f}\n", parser_name(), kind.data(),
                measure(parse, text, seconds));
    return 0;
}

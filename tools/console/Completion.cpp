#include "console/Completion.h"

#include <algorithm>
#include <map>
#include <sstream>

namespace Veltro::Console {

namespace {

using Words = std::vector<std::string>;

/// What may follow the words that stand before.
const std::map<std::string, Words>& grammar() {
    static const std::map<std::string, Words> words = {
        {"rvl", {"-dump", "-h", "-man", "-sock", "-thd", "-v"}},
        {"rvl -sock", {"-fd", "dump", "less", "mid", "more", "off", "on"}},
        {"rvl -sock -fd", {"all"}},
        {"rvl -dump", {"-fd", "-obj"}},
        {"rvl -dump -fd", {"all"}},
        {"rvl -dump -obj", {"all"}},
        {"rvl -thd", {"all"}},
        {"rvl -man", {"mask", "revents"}},
        {"rvl -man mask", {"all"}},
        {"rvl -man revents", {"all"}},
        {"stat",
         {"-json", "-metrics", "buffers", "handlers", "memory", "messages", "pools", "senders", "sockets",
          "threads", "timers", "times"}},
        {"stat times", {"-json", "-metrics", "off", "on"}},
    };
    return words;
}

}  // namespace

std::vector<std::string> complete(const std::vector<std::string>& commands, const std::string& line) {
    std::istringstream stream(line);
    Words words;
    for (std::string word; stream >> word;) words.push_back(word);
    std::string last;
    if (!line.empty() && line.back() != ' ' && !words.empty()) {
        last = words.back();
        words.pop_back();
    }
    std::string before;
    for (const std::string& word : words) before += (before.empty() ? "" : " ") + word;

    Words candidates = commands;
    if (!words.empty()) {
        const auto found = grammar().find(before);
        candidates = found != grammar().end() ? found->second : Words{};
    }
    std::erase_if(candidates, [&last](const std::string& word) { return !word.starts_with(last); });
    std::sort(candidates.begin(), candidates.end());
    return candidates;
}

std::string commonStart(const std::vector<std::string>& words) {
    if (words.empty()) return {};
    std::string start = words.front();
    for (const std::string& word : words) {
        const auto ends = std::mismatch(start.begin(), start.end(), word.begin(), word.end());
        start.erase(ends.first, start.end());
    }
    return start;
}

}  // namespace Veltro::Console

#include "Debug/Stat.h"

#include <Plinth/Component.h>

#include <new>
#include <span>
#include <string>
#include <string_view>

#include "Debug/CallbackTimes.h"
#include "Debug/StatReactor.h"
#include "Debug/StatTable.h"
#include "Debug/StatTools.h"
#include "Log.h"

namespace Veltro::Ravelo::Stat {

namespace {

constexpr int WRONG_WORD = 2;

using Tables = std::vector<SStatTable>;

/// Adds a topic's tables. @param at_most how many single things may be shown.
using Read = void (*)(Tables& tables, std::size_t at_most);

template <SStatTable (*READ)()>
void one(Tables& tables, std::size_t) {
    tables.push_back(READ());
}

struct STopic {
    const char* word;
    Read read;
};

constexpr STopic TOPICS[] = {
    {"pools", &one<&StatReactor::pools>},       {"threads", &one<&StatReactor::threads>},
    {"handlers", &one<&StatReactor::handlers>}, {"sockets", &one<&StatReactor::sockets>},
    {"timers", &one<&StatReactor::timers>},     {"messages", &one<&StatReactor::messages>},
    {"memory", &one<&StatReactor::memory>},     {"senders", &StatTools::addSenders},
    {"buffers", &StatTools::addBuffers},        {"times", &one<&StatReactor::times>}};

/// Logged as the command's own, like the answers of its neighbour.
void answer(const std::string& line) {
    RAVELO_LOG_BARE(Plinth::LOG_LEVEL_TRACE, "%s\n", line.c_str());
}

int refuse(const std::string& word) {
    answer("unknown word: " + word.substr(0, 40));
    answer("stat [pools|threads|handlers|sockets|timers|messages|memory|");
    answer("      senders|buffers|times] [-json|-metrics]");
    answer("stat times on|off");
    return WRONG_WORD;
}

int switchTimes(bool on) {
    CallbackTimes::switchOn(on);
    answer(on ? "callbacks are timed from now on" : "callbacks are timed no more");
    return 0;
}

const STopic* topicOf(std::string_view word) {
    for (const STopic& topic : TOPICS) {
        if (word == topic.word) return &topic;
    }
    return nullptr;
}

int run(std::span<char* const> words) {
    std::vector<const STopic*> topics;
    EStatForm form = EStatForm::Text;
    bool about_times = false;
    for (const char* given : words) {
        const std::string word = given != nullptr ? given : "";
        if (word == "-json") {
            form = EStatForm::Json;
        } else if (word == "-metrics") {
            form = EStatForm::Metrics;
        } else if (about_times && (word == "on" || word == "off")) {
            return switchTimes(word == "on");
        } else if (const STopic* topic = topicOf(word)) {
            topics.push_back(topic);
        } else {
            return refuse(word);
        }
        about_times = word == "times";
    }
    std::size_t at_most = StatTools::MANY;
    if (topics.empty()) {
        for (const STopic& topic : TOPICS) topics.push_back(&topic);
        at_most = StatTools::FEW;
    }
    if (form == EStatForm::Metrics) at_most = 0;
    Tables tables;
    for (const STopic* topic : topics) topic->read(tables, at_most);
    for (const std::string& line : statLines(tables, form)) answer(line);
    return 0;
}

}  // namespace

void registerCommand() {
    const auto console = Plinth::CComponentRegistry::getConsole(Plinth::COMPONENT_SERVER_LOCAL);
    if (console) console->registerCommand("stat", "stat [pools|threads|...] [-json|-metrics]", &OnStat);
}

int OnStat(int argc, char** argv) {
    try {
        return run({argv, argc > 0 && argv != nullptr ? static_cast<std::size_t>(argc) : 0});
    } catch (const std::bad_alloc&) {
        RAVELO_LOG(Plinth::LOG_LEVEL_ERROR, "no memory for a console command\n");
        return 0;
    }
}

}  // namespace Veltro::Ravelo::Stat

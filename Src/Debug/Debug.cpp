#include "Debug/Debug.h"

#include <Plinth/Component.h>
#include <Plinth/Error.h>
#include <Ravelo/NetThread.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>
#include <set>
#include <span>
#include <vector>

#include "Debug/ConsoleText.h"
#include "Debug/DebugControl.h"
#include "Debug/FlagText.h"
#include "Debug/VersionText.h"
#include "Log.h"

namespace Veltro::Ravelo {

namespace {

constexpr auto relaxed = std::memory_order_relaxed;
using ConsoleText::tip;

/// The words of a command that are still to be read.
using Words = std::span<char* const>;

const char* textOf(const char* word) {
    return word != nullptr ? word : "";
}

/// Whether the next word begins with a keyword; what follows the keyword in it does not matter.
bool begins(Words words, const char* keyword) {
    return !words.empty() && std::strncmp(textOf(words[0]), keyword, std::strlen(keyword)) == 0;
}

/// Whether nothing is left to read, or "all".
bool isAll(Words words) {
    return words.empty() || begins(words, "all");
}

int numberOf(const char* word) {
    return std::atoi(textOf(word));
}

/// A keyword and what it does with the words after it.
struct SKeyword {
    const char* word;
    void (*run)(Words words);
};

/// Runs the first keyword that the next word begins with; false when there is none.
bool runKeyword(std::span<const SKeyword> keywords, Words words) {
    for (const SKeyword& keyword : keywords) {
        if (!begins(words, keyword.word)) continue;
        keyword.run(words.subspan(1));
        return true;
    }
    return false;
}

/// The words, each followed by a blank; what goes beyond 127 bytes is cut.
template <std::size_t Size>
const char* join(Words words, char (&text)[Size]) {
    std::size_t used = 0;
    text[0] = '\0';
    for (const char* word : words) {
        used += static_cast<std::size_t>(std::snprintf(text + used, Size - used, "%s ", textOf(word)));
        if (used >= Size) break;
    }
    return text;
}

void refuseWord(const char* word) {
    tip("command error, unknow param[%s], reinput it! (rvl -h for help)\n", textOf(word));
}

void setTraceLevel(unsigned level, const char* name) {
    CDebugControl::sm_sock_level.store(level, relaxed);
    tip("Display socket event flow level %u[%s]\n", level, name);
}

void traceSocks(Words words) {
    if (words.empty()) {
        tip("command error: rvl -dump -fd <all|fd-list>, reinput it! (rvl -h for help)\n");
        return;
    }
    if (begins(words, "all")) {
        CDebugControl::sm_sock_fd_all.store(true, relaxed);
        tip("Display socket event flow. [ALL]\n");
        return;
    }
    std::set<int> fds;
    for (const char* word : words) fds.insert(numberOf(word));
    CDebugControl::selectSocks(std::move(fds));
    char text[128];
    tip("Display socket event flow, fd: %s\n", join(words, text));
}

constexpr SKeyword SOCK_KEYWORDS[] = {
    {"on",
     [](Words) {
         CDebugControl::sm_sock_on.store(true, relaxed);
         tip("Turn on socket event flow dump, please run 'rvl -sock -fd <all>|<fd-list>' to set sock event "
             "dump\n");
     }},
    {"off",
     [](Words) {
         CDebugControl::ResetSockDumpRule();
         tip("Turn off socket event flow dump, reset dump rule to default\n");
     }},
    {"dump", [](Words) { CDebugControl::ShowSockDumpRule(); }},
    {"more", [](Words) { setTraceLevel(CDebugControl::LEVEL_MORE, "more"); }},
    {"mid", [](Words) { setTraceLevel(CDebugControl::LEVEL_MID, "middle"); }},
    {"less", [](Words) { setTraceLevel(CDebugControl::LEVEL_LESS, "less"); }},
    {"-fd", &traceSocks}};

void sock(Words words) {
    if (words.empty()) {
        tip("command error: rvl -sock <on|off|more|less|dump|-fd <value>>, reinput it! (rvl -h for help)\n");
    } else if (!runKeyword(SOCK_KEYWORDS, words)) {
        refuseWord(words[0]);
    }
}

void dumpSocks(Words words) {
    if (isAll(words)) {
        tip("Display all fd info\n");
        CNetThread::DumpSockEvent(0);
        return;
    }
    char text[128];
    tip("Display Sevent info socket: %s\n", join(words, text));
    std::vector<int> fds;
    for (const char* word : words) fds.push_back(numberOf(word));
    CNetThread::DumpSockArrayEvent(fds.data(), static_cast<int>(fds.size()));
}

void dumpHandler(Words words) {
    if (isAll(words)) {
        tip("Display all obj info\n");
        CNetThread::DumpNethandlerEvent(0);
        return;
    }
    const int id = numberOf(words[0]);
    tip("Display obj[%d] info\n", id);
    CNetThread::DumpNethandlerEvent(id);
}

constexpr SKeyword DUMP_KEYWORDS[] = {{"-fd", &dumpSocks}, {"-obj", &dumpHandler}};

void dump(Words words) {
    if (words.empty()) {
        tip("command error: rvl -dump <-fd|-obj <value>>, reinput it! (rvl -h for help)\n");
    } else if (!runKeyword(DUMP_KEYWORDS, words)) {
        refuseWord(words[0]);
    }
}

void threads(Words words) {
    if (isAll(words)) {
        tip("Display all thread info\n");
        CDebugControl::DumpThreadModALL();
        return;
    }
    const int id = numberOf(words[0]);
    tip("Display thread[%d] info\n", id);
    CDebugControl::DumpThreadModInfo(id);
}

void explainMask(Words words) {
    if (isAll(words)) {
        tip("Display all mask info\n");
        for (const SFlagName& flag : maskNames()) ConsoleText::line("mask[%u] = %s\n", flag.value, flag.name);
        return;
    }
    char text[128];
    tip("event mask type[%s] = %s\n", textOf(words[0]),
        MaskToString(static_cast<unsigned>(numberOf(words[0])), sizeof text, text));
}

void explainRevents(Words words) {
    if (isAll(words)) {
        tip("Display all revents info\n");
        for (const SFlagName& flag : reventsNames()) {
            ConsoleText::line("revents[%u] = %s\n", flag.value, flag.name);
        }
        return;
    }
    char text[128];
    tip("revents type[%s] = %s\n", textOf(words[0]),
        ReventsToString(static_cast<unsigned>(numberOf(words[0])), sizeof text, text));
}

constexpr SKeyword MAN_KEYWORDS[] = {{"mask", &explainMask}, {"revents", &explainRevents}};

void man(Words words) {
    if (words.empty()) {
        tip("command error: rvl -man mask|revents, reinput it! (rvl -h for help)\n");
    } else if (!runKeyword(MAN_KEYWORDS, words)) {
        tip("Please reinput rvl -man mask|revents value for help\n");
    }
}

constexpr SKeyword KEYWORDS[] = {{"-h", [](Words) { ConsoleText::help(); }},
                                 {"-v", [](Words) { Version(); }},
                                 {"-sock", &sock},
                                 {"-dump", &dump},
                                 {"-thd", &threads},
                                 {"-man", &man}};

void runCommand(Words words) {
    if (words.empty()) {
        ConsoleText::help();
    } else if (!runKeyword(KEYWORDS, words)) {
        tip("command error, Please refer to the help manual to reinput it! ( rvl -h )\n");
    }
}

}  // namespace

bool InitConsoleDebug() {
    const auto console = Plinth::CComponentRegistry::getConsole(Plinth::COMPONENT_SERVER_LOCAL);
    if (!console) {
        RAVELO_LOG_BARE(Plinth::LOG_LEVEL_WARNING, "Get IConsole component failed. 0x%X\n",
                        static_cast<unsigned>(Plinth::getLastError()));
        return false;
    }
    if (!console->registerCommand("rvl", "rvl [-h]", &OnConsole)) {
        RAVELO_LOG_BARE(Plinth::LOG_LEVEL_WARNING, "Register IConsole command failed. 0x%X\n",
                        static_cast<unsigned>(Plinth::getLastError()));
        return false;
    }
    return true;
}

int OnConsole(int argc, char** argv) {
    const std::size_t count = argc > 0 && argv != nullptr ? static_cast<std::size_t>(argc) : 0;
    try {
        runCommand(Words(argv, count));
    } catch (const std::bad_alloc&) {
        RAVELO_LOG(Plinth::LOG_LEVEL_ERROR, "no memory for a console command\n");
    }
    return 0;
}

void Version() {
    ConsoleText::separator();
    ConsoleText::line("-           Ravelo Build:%s, Version:%-7s           -\n", BUILD_TEXT, VERSION_TEXT);
    ConsoleText::separator();
}

}  // namespace Veltro::Ravelo

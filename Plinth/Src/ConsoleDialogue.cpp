#include <Plinth/Console.h>

#include <algorithm>
#include <cstring>
#include <deque>
#include <new>
#include <string_view>
#include <utility>
#include <vector>

#include "ConsoleCommands.h"
#include "LogTap.h"

namespace Veltro::Plinth {

namespace {

constexpr int REFUSED = 126;
constexpr int NO_SUCH_COMMAND = 127;
/// Of a word that is shown back no more than this.
constexpr std::size_t SHOWN = 60;

bool isBlank(char c) {
    return c == ' ' || c == '\t';
}

bool isControl(char c) {
    return (static_cast<unsigned char>(c) < ' ' && c != '\t') || c == 0x7F;
}

std::vector<std::string> wordsOf(std::string_view line) {
    std::vector<std::string> words;
    while (!line.empty()) {
        const auto end = std::find_if(line.begin(), line.end(), &isBlank);
        const auto length = static_cast<std::size_t>(end - line.begin());
        if (length > 0) words.emplace_back(line.substr(0, length));
        line.remove_prefix(std::min(length + 1, line.size()));
    }
    return words;
}

}  // namespace

/// A finished line; one that was too long has lost its text.
struct SLine {
    std::string text;
    bool too_long;
};

struct CConsoleDialogue::SImpl {
    Output output;
    std::deque<SLine> lines;
    std::string unfinished;
    bool too_long = false;  // the unfinished line
    bool over = false;
    std::string mark;  // what every answer ends with; empty for nothing

    void say(const std::string& text) { output(text.data(), text.size()); }
    void sayLogged(const char* message);
    void finishLine();
    int run(const SLine& line);
    int runWords(std::vector<std::string>& words);
    int help();
    int names();
    int setMark(const std::vector<std::string>& words);
};

/// A log message as a line of the answer. What a terminal would obey stays out of it: messages may hold what
/// strangers have sent.
void CConsoleDialogue::SImpl::sayLogged(const char* message) {
    try {
        std::string text = message;
        std::replace_if(
            text.begin(), text.end(), [](char c) { return isControl(c) && c != '\n'; }, '?');
        if (text.empty() || text.back() != '\n') text += '\n';
        say(text);
    } catch (const std::bad_alloc&) {
        // The log has it.
    }
}

void CConsoleDialogue::SImpl::finishLine() {
    if (!unfinished.empty() && unfinished.back() == '\r') unfinished.pop_back();
    too_long = too_long || unfinished.size() > MAX_LINE;
    lines.push_back({std::move(unfinished), too_long});
    unfinished.clear();
    too_long = false;
}

int CConsoleDialogue::SImpl::help() {
    say("help                            this list\n"
        "commands                        the names of the commands\n"
        "mark <word>                     ends every answer with a line: word, result\n"
        "exit                            ends the dialogue\n");
    for (const auto& [name, help] : CConsoleCommands::get()->list()) say((help.empty() ? name : help) + "\n");
    return 0;
}

int CConsoleDialogue::SImpl::names() {
    for (const auto& [name, help] : CConsoleCommands::get()->list()) say(name + "\n");
    return 0;
}

int CConsoleDialogue::SImpl::setMark(const std::vector<std::string>& words) {
    if (words.size() > 2) {
        say("one word at most\n");
        return REFUSED;
    }
    mark = words.size() == 2 ? words[1] : "";
    return 0;
}

int CConsoleDialogue::SImpl::runWords(std::vector<std::string>& words) {
    if (words.empty()) return 0;
    if (words[0] == "help") return help();
    if (words[0] == "commands") return names();
    if (words[0] == "mark") return setMark(words);
    if (words[0] == "exit") {
        over = true;
        return 0;
    }
    int result = 0;
    const CLogTap tap([](void* self, const char* message) { static_cast<SImpl*>(self)->sayLogged(message); },
                      this);
    if (CConsoleCommands::get()->run(words, result)) return result;
    say("unknown command: " + words[0].substr(0, SHOWN) + " (help lists the commands)\n");
    return NO_SUCH_COMMAND;
}

int CConsoleDialogue::SImpl::run(const SLine& line) {
    if (line.too_long) {
        say("line too long: at most " + std::to_string(MAX_LINE) + " bytes\n");
        return REFUSED;
    }
    if (std::any_of(line.text.begin(), line.text.end(), &isControl)) {
        say("control character in the line: not run\n");
        return REFUSED;
    }
    auto words = wordsOf(line.text);
    return runWords(words);
}

CConsoleDialogue::CConsoleDialogue(Output output) : m_impl(std::make_unique<SImpl>()) {
    m_impl->output = std::move(output);
}

CConsoleDialogue::~CConsoleDialogue() = default;

void CConsoleDialogue::receive(const char* bytes, std::size_t length) {
    SImpl& impl = *m_impl;
    try {
        while (length > 0) {
            const auto* end = static_cast<const char*>(std::memchr(bytes, '\n', length));
            const std::size_t piece = end != nullptr ? static_cast<std::size_t>(end - bytes) : length;
            // One more for a CR.
            impl.too_long = impl.too_long || impl.unfinished.size() + piece > MAX_LINE + 1;
            if (impl.too_long) {
                impl.unfinished.clear();
            } else {
                impl.unfinished.append(bytes, piece);
            }
            if (end == nullptr) return;
            impl.finishLine();
            bytes += piece + 1;
            length -= piece + 1;
        }
    } catch (const std::bad_alloc&) {
        impl.over = true;
    }
}

bool CConsoleDialogue::runNext() {
    SImpl& impl = *m_impl;
    if (impl.lines.empty() || impl.over) return false;
    try {
        const SLine line = std::move(impl.lines.front());
        impl.lines.pop_front();
        const std::string mark = impl.mark;
        const int result = impl.run(line);
        if (!mark.empty()) impl.say(mark + " " + std::to_string(result) + "\n");
    } catch (const std::bad_alloc&) {
        impl.over = true;
    }
    return true;
}

bool CConsoleDialogue::isOver() const {
    return m_impl->over;
}

}  // namespace Veltro::Plinth

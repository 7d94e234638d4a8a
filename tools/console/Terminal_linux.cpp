#include <histedit.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <utility>

#include "console/Completion.h"
#include "console/Terminal.h"

namespace Veltro::Console {

namespace {
constexpr int HISTORY_SIZE = 500;
}  // namespace

struct CTerminal::SImpl {
    std::string prompt;
    Complete complete;
    EditLine* edit = nullptr;
    History* history = nullptr;
    std::string history_path;

    static SImpl& of(EditLine* edit) {
        void* self = nullptr;
        el_get(edit, EL_CLIENTDATA, &self);
        return *static_cast<SImpl*>(self);
    }
    static char* showPrompt(EditLine* edit) { return of(edit).prompt.data(); }
    static unsigned char completeWord(EditLine* edit, int);
};

/// Writes what all candidates have in common; lists them when that is nothing new.
unsigned char CTerminal::SImpl::completeWord(EditLine* edit, int) {
    const LineInfo* info = el_line(edit);
    const std::string line(info->buffer, info->cursor);
    const auto words = of(edit).complete(line);
    if (words.empty()) return CC_REFRESH_BEEP;
    const std::size_t blank = line.rfind(' ');
    const std::string typed = blank == std::string::npos ? line : line.substr(blank + 1);
    std::string rest = commonStart(words).substr(typed.size());
    if (words.size() == 1) rest += " ";
    if (!rest.empty()) {
        el_insertstr(edit, rest.c_str());
        return CC_REFRESH;
    }
    std::string list = "\n";
    for (const std::string& word : words) list += word + "  ";
    std::printf("%s\n", list.c_str());
    return CC_REDISPLAY;
}

CTerminal::CTerminal(const std::string& prompt, Complete complete) : m_impl(std::make_unique<SImpl>()) {
    SImpl& impl = *m_impl;
    impl.prompt = prompt;
    impl.complete = std::move(complete);
    impl.edit = el_init("ravelo-console", stdin, stdout, stderr);
    impl.history = history_init();
    HistEvent event;
    history(impl.history, &event, H_SETSIZE, HISTORY_SIZE);
    history(impl.history, &event, H_SETUNIQUE, 1);
    const char* home = std::getenv("HOME");
    if (home != nullptr) impl.history_path = std::string(home) + "/.ravelo_console_history";
    if (home != nullptr) history(impl.history, &event, H_LOAD, impl.history_path.c_str());
    el_set(impl.edit, EL_CLIENTDATA, &impl);
    el_set(impl.edit, EL_PROMPT, &SImpl::showPrompt);
    el_set(impl.edit, EL_EDITOR, "emacs");
    el_set(impl.edit, EL_SIGNAL, 1);
    el_set(impl.edit, EL_HIST, &::history, impl.history);
    el_set(impl.edit, EL_ADDFN, "complete-word", "completes the word", &SImpl::completeWord);
    el_set(impl.edit, EL_BIND, "^I", "complete-word", nullptr);
    el_source(impl.edit, nullptr);
}

CTerminal::~CTerminal() {
    HistEvent event;
    if (!m_impl->history_path.empty()) history(m_impl->history, &event, H_SAVE, m_impl->history_path.c_str());
    history_end(m_impl->history);
    el_end(m_impl->edit);
}

bool CTerminal::read(std::string& line) {
    int length = 0;
    const char* text = el_gets(m_impl->edit, &length);
    if (text == nullptr || length <= 0) return false;
    line.assign(text, static_cast<std::size_t>(length));
    while (!line.empty() && (line.back() == '\n' || line.back() == '\r')) line.pop_back();
    HistEvent event;
    if (!line.empty()) history(m_impl->history, &event, H_ENTER, line.c_str());
    return true;
}

bool isInputTerminal() {
    return ::isatty(STDIN_FILENO) != 0;
}

bool isOutputTerminal() {
    return ::isatty(STDOUT_FILENO) != 0;
}

std::size_t terminalColumns() {
    winsize size{};
    return ::ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0 ? size.ws_col : 80;
}

}  // namespace Veltro::Console

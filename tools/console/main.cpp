// ravelo-console: attaches to the operator console of a running process.
#include <CLI/CLI.hpp>

#include <cstdio>
#include <iostream>
#include <string>
#include <vector>

#include "console/Attachment.h"
#include "console/Completion.h"
#include "console/Fold.h"
#include "console/Places.h"
#include "console/Terminal.h"

namespace {

using namespace Veltro::Console;
using Veltro::Plinth::CConsoleHost;

/// How the program ends, as its help says.
enum EExit : int { EXIT_DONE, EXIT_COMMAND_FAILED, EXIT_USAGE, EXIT_NOBODY, EXIT_NOT_RUN, EXIT_LOST };

struct SOptions {
    std::string path;
    unsigned long pid = 0;
    bool list = false;
    std::vector<std::string> commands;
    int columns = -1;
    int timeout_s = 60;
};

void define(CLI::App& app, SOptions& options) {
    app.get_formatter()->column_width(24);
    auto* path =
        app.add_option("--path", options.path, "Attach to the console at this path")->type_name("PATH");
    app.add_option("--pid", options.pid, "Attach to the console of this process")
        ->type_name("N")
        ->excludes(path);
    app.add_flag("--list", options.list, "Show the consoles of this user and end");
    app.add_option("-c,--command", options.commands, "Run this command and end; several in their order")
        ->type_name("TEXT")
        ->take_all();
    app.add_option("--columns", options.columns, "Fold lines to N columns, 0 not; else as the terminal")
        ->type_name("N")
        ->check(CLI::Range(0, 1000).description(""));
    app.add_option("--timeout", options.timeout_s, "Give up after N seconds without a word (60)")
        ->type_name("N")
        ->check(CLI::Range(1, 86'400).description(""));
    app.footer(
        "Without --command it reads commands line by line; \"help\" lists them.\n"
        "Ends with 0 when all went well, 1 when a command failed, 2 for a wrong call,\n"
        "3 when there is no console, 4 when a command is unknown or was refused,\n"
        "5 when the connection was lost or nothing came in time.");
}

int fail(EExit code, const std::string& reason) {
    std::fprintf(stderr, "ravelo-console: %s\n", reason.c_str());
    return code;
}

/// The path to attach to; empty, with the reason told, when it is not clear which.
std::string choosePath(const SOptions& options) {
    if (!options.path.empty()) return options.path;
    if (options.pid != 0) return CConsoleHost::defaultPath(options.pid);
    const std::string folder = CConsoleHost::defaultFolder();
    const auto found = consolesIn(folder);
    if (found.size() == 1) return found.front();
    if (found.empty()) {
        fail(EXIT_NOBODY, "no console in " + folder);
    } else {
        fail(EXIT_NOBODY, "several consoles, choose one with --path:");
        for (const std::string& path : found) std::fprintf(stderr, "    %s\n", path.c_str());
    }
    return {};
}

/// Runs commands and keeps the worst of what became of them.
class CSession {
public:
    CSession(CAttachment& attachment, const SOptions& options)
        : m_attachment(attachment), m_timeout_ms(options.timeout_s * 1000) {
        if (options.columns >= 0) m_columns = static_cast<std::size_t>(options.columns);
        if (options.columns < 0 && isOutputTerminal()) m_columns = terminalColumns();
    }

    /// False when there is no use in going on.
    bool run(const std::string& command) {
        // One command, one line: a second one would be answered as the next command.
        if (command.find_first_of("\r\n") != std::string::npos) {
            m_worst = fail(EXIT_NOT_RUN, "a command is one line");
            return true;
        }
        int result = 0;
        const auto show = [this](const std::string& line) {
            std::fputs(fold(line, m_columns).c_str(), stdout);
        };
        if (!m_attachment.run(command, m_timeout_ms, show, result)) {
            m_worst = fail(EXIT_LOST, m_attachment.error());
            return false;
        }
        std::fflush(stdout);
        const bool not_run = result == RESULT_REFUSED || result == RESULT_UNKNOWN;
        if (result != 0 && !not_run)
            std::fprintf(stderr, "ravelo-console: the command returned %d\n", result);
        if (result != 0) m_worst = std::max<int>(m_worst, not_run ? EXIT_NOT_RUN : EXIT_COMMAND_FAILED);
        return true;
    }
    int worst() const { return m_worst; }

private:
    CAttachment& m_attachment;
    int m_timeout_ms;
    std::size_t m_columns = 0;
    int m_worst = EXIT_DONE;
};

bool isExit(const std::string& line) {
    return line == "exit" || line == "quit";
}

/// A person's dialogue ends well whatever became of his commands, unless the connection was lost.
int talk(CAttachment& attachment, CSession& session) {
    const auto commands = [&attachment] {
        auto names = attachment.commands();
        names.insert(names.end(), {"commands", "exit", "help"});
        return names;
    }();
    CTerminal terminal("ravelo> ", [&commands](const std::string& line) { return complete(commands, line); });
    for (std::string line; terminal.read(line) && !isExit(line);) {
        if (!session.run(line)) return session.worst();
    }
    return EXIT_DONE;
}

int runAll(const SOptions& options, CSession& session) {
    for (const std::string& command : options.commands) {
        if (!session.run(command)) break;
    }
    return session.worst();
}

int runInput(CSession& session) {
    for (std::string line; std::getline(std::cin, line) && !isExit(line);) {
        if (!session.run(line)) break;
    }
    return session.worst();
}

int list() {
    for (const std::string& path : consolesIn(CConsoleHost::defaultFolder()))
        std::printf("%s\n", path.c_str());
    return EXIT_DONE;
}

}  // namespace

int main(int argc, char** argv) {
    CLI::App app("Attaches to the operator console of a process that uses Ravelo.", "ravelo-console");
    SOptions options;
    define(app, options);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? EXIT_DONE : EXIT_USAGE;
    }
    if (options.list) return list();
    const std::string path = choosePath(options);
    if (path.empty()) return EXIT_NOBODY;
    CAttachment attachment;
    if (!attachment.open(path)) return fail(EXIT_NOBODY, attachment.error());
    CSession session(attachment, options);
    if (!options.commands.empty()) return runAll(options, session);
    return isInputTerminal() ? talk(attachment, session) : runInput(session);
}

// Drives an operator's dialogue, with the command rvl, through whatever may come over a connection. The input
// is the size of the pieces that arrive (one byte; 0 for all at once) and what the operator types.
#include <Plinth/Component.h>
#include <Plinth/Console.h>
#include <Plinth/Log.h>
#include <Ravelo/NetHandler.h>
#include <Ravelo/NetThread.h>
#include <Ravelo/SockAcceptor.h>
#include <Ravelo/SockAddrIPv4.h>

#include <algorithm>
#include <filesystem>
#include <string>

#include "Debug/Debug.h"
#include "Debug/DebugControl.h"
#include "Debug/Stat.h"
#include "FuzzBytes.h"

namespace {

using namespace Veltro;
using Fuzz::require;

/// Has a socket to look at.
class COwner : public Ravelo::CNetHandler {
public:
    using CNetHandler::RegisterSock;
};

/// A reactor with a socket to dump, and the command; for the whole run.
void setUp() {
    const auto path = std::filesystem::temp_directory_path() / "ravelo-console-fuzz";
    require(Plinth::CConsoleHost::start(path.c_str()));
    require(Ravelo::InitConsoleDebug());
    Ravelo::Stat::registerCommand();
    Plinth::CConsoleHost::stop();
    // Commands stay; only their answers are heard.
    Plinth::setLogLevel(-1);
    require(Ravelo::CNetThread::CreateThreadPool(1, false) == 0);
    static auto* handler = new COwner;
    static Ravelo::CSockAcceptor acceptor;
    require(acceptor.Open(Ravelo::CSockAddrIPv4("127.0.0.1", 0)) == 0);
    require(handler->RegisterSock(acceptor, Ravelo::EventMask::Read, 0) == 0);
}

bool mayStand(char c) {
    return c == '\n' || c == '\t' || (static_cast<unsigned char>(c) >= ' ' && c != 0x7F);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const bool is_set_up = [] {
        setUp();
        return true;
    }();
    static_cast<void>(is_set_up);
    Fuzz::CFuzzBytes input(data, size);
    const std::size_t piece_size = input.byte();
    std::string answer;
    Plinth::CConsoleDialogue dialogue([&answer](const char* bytes, std::size_t length) {
        require(length > 0 && bytes[length - 1] == '\n');
        answer.append(bytes, length);
    });
    while (!input.empty()) {
        const std::string piece = input.bytes(piece_size == 0 ? size : piece_size);
        dialogue.receive(piece.data(), piece.size());
        while (dialogue.runNext()) {
            require(std::all_of(answer.begin(), answer.end(), &mayStand));
            // The longest: every socket of the one pool, or the help.
            require(answer.size() < 64 * 1024);
            answer.clear();
        }
        require(answer.empty());
    }
    Ravelo::CDebugControl::ResetSockDumpRule();
    return 0;
}

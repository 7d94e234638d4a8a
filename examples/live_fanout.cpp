// A live stream for any number of HTTP clients: reads MPEG-TS and sends it to all who ask for /live.ts.
//
//   ffmpeg -v error -re -f lavfi -i testsrc2 -f mpegts - | live_fanout - 8080
//   ffplay http://127.0.0.1:8080/live.ts
//
//   live_fanout file|- [port]
//
// file  what to send, at the pace of its clock references; - is the standard input
// port  where to listen on 127.0.0.1; 0, the default, takes any free port
//
// Clients begin with a key frame, and one that is too slow skips to a later one. /live.ts?mbit=1 asks for a
// connection that is limited to so many times 2^20 bits a second. It ends with its input, or by Ctrl-C or
// SIGTERM (where the input is a pipe: with the next bytes).
#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <utility>

#include "live_client.h"
#include "server_program.h"
#include "ts_cutter.h"

using namespace Veltro;
using namespace Veltro::Ravelo;

namespace {

/// A piece of the stream, which goes when the buffer needs it no more.
class CPiece : public CMediaPacket {
public:
    static void Put(CMediaBuffer& buffer, std::string&& bytes, int mark, int level) {
        auto* piece = new CPiece(std::move(bytes));
        buffer.Put(piece, static_cast<int>(piece->m_bytes.size()), mark, level);
    }

private:
    explicit CPiece(std::string&& bytes) : m_bytes(std::move(bytes)) {}
    void Release() override { delete this; }
    char* GetBuffer() override { return m_bytes.data(); }

    std::string m_bytes;
};

/// Puts a frame as what HTTP calls a chunk. Frames are sent whole, so that chunks are.
void put_chunk(CMediaBuffer& buffer, std::string&& frame, int level) {
    std::array<char, 16> head{};
    std::snprintf(head.data(), head.size(), "%zx\r\n", frame.size());
    CPiece::Put(buffer, head.data(), 0, level);
    CPiece::Put(buffer, std::move(frame), 0, level);
    CPiece::Put(buffer, "\r\n", 1, level);
}

std::int64_t now_us() {
    return static_cast<std::int64_t>(Plinth::CTime::getCurrentMicroSecond());
}

/// Puts the input into the buffer, frame by frame, at the stream's own pace.
void play(std::FILE* input, CMediaBuffer& buffer) {
    constexpr int KEY_LEVEL = 1;
    constexpr int OTHER_LEVEL = 6;
    CTsCutter cutter([&buffer](std::string&& frame, bool is_key) {
        put_chunk(buffer, std::move(frame), is_key ? KEY_LEVEL : OTHER_LEVEL);
    });
    const std::int64_t start_us = now_us();
    std::array<char, 7 * CTsCutter::PACKET_BYTES> bytes;
    while (stop_requested == 0) {
        const std::size_t length = std::fread(bytes.data(), 1, bytes.size(), input);
        if (length == 0) break;
        cutter.Take(bytes.data(), length);
        while (stop_requested == 0 && cutter.TimeUs() > now_us() - start_us) Plinth::sleepMilliSecond(1);
    }
    cutter.End();
    // Those who are behind get the rest, or what of it has not aged out until then.
    for (int i = 0; i < 1000 && stop_requested == 0 && buffer.GetBufferSize() > 0; ++i) {
        Plinth::sleepMilliSecond(10);
    }
}

}  // namespace

int main(int argc, char** argv) {
    stop_on_signals();
    const bool is_pipe = argc > 1 && std::strcmp(argv[1], "-") == 0;
    std::FILE* input = argc < 2 ? nullptr : is_pipe ? stdin : std::fopen(argv[1], "rb");
    if (input == nullptr) return std::fprintf(stderr, "usage: live_fanout file|- [port]\n"), EXIT_FAILURE;
    if (CNetThread::CreateThreadPool(1, false) != 0) return EXIT_FAILURE;
    int result = EXIT_FAILURE;
    {
        SLiveServer server;
        server.buffer.EnableAutoSend();
        CPlainClients<CLiveClient, SLiveServer> clients(server);
        const auto port = static_cast<unsigned short>(argument(argc, argv, 2, 0));
        result = serve(port, server.live, clients, [&] { play(input, server.buffer); });
    }
    CNetThread::DestroyThreadPool();
    if (!is_pipe) std::fclose(input);
    return result;
}

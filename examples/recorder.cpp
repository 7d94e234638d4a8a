// Records a stream: takes it from a source at a steady pace and writes it to a file, which HTTP clients may
// read from its start while it grows.
//
//   recorder file source_port [rate [port]]
//
// file         what to write; a file of that name is replaced
// source_port  where on 127.0.0.1 the stream comes from; it ends when the source closes the connection
// rate         most KiB that are taken of it in a second; 10,000 by default
// port         where to listen for readers on 127.0.0.1; 0, the default, takes any free port
//
// For example, at three terminals:
//
//   ffmpeg -re -i film.mp4 -c copy -f mpegts tcp://127.0.0.1:9000?listen=1
//   recorder film.ts 9000 1000 8080
//   curl http://127.0.0.1:8080/ | ffplay -
//
// Ctrl-C and SIGTERM end it cleanly: all that was taken of the source is on the disk then, or it says how
// much is not and fails.
#include <filesystem>

#include "recording_reader.h"
#include "server_program.h"

using namespace Veltro::Ravelo;

namespace {

int record(SRecording& recording, int argc, char** argv) {
    const CPools pools(1, 0, true);
    if (!pools.AreThere()) return EXIT_FAILURE;
    const CSockAddrIPv4 source("127.0.0.1", static_cast<unsigned short>(argument(argc, argv, 2, 0)));
    auto* recorder = new CRecorder(recording, argument(argc, argv, 3, 10'000) * 1024);
    if (const char* problem = recorder->Start(source); problem != nullptr) {
        std::fprintf(stderr, "%s: %s\n", recording.path.c_str(), problem);
        recorder->Close();
        return EXIT_FAILURE;
    }
    CPlainClients<CRecordingReader, SRecording> readers(recording);
    return serve(static_cast<unsigned short>(argument(argc, argv, 4, 0)), recording.live, readers);
}

/// Whether the disk has all that was taken, once nothing is on its way any more.
bool is_whole(const SRecording& recording) {
    std::error_code error;
    const std::uintmax_t bytes = std::filesystem::file_size(recording.path, error);
    const std::uintmax_t written = error ? 0 : bytes;
    if (written == recording.bytes) return true;
    std::fprintf(stderr, "%s: of %ju bytes that were taken, %ju are lost\n", recording.path.c_str(),
                 static_cast<std::uintmax_t>(recording.bytes), recording.bytes - written);
    return false;
}

}  // namespace

int main(int argc, char** argv) {
    log_to_stderr();
    stop_on_signals();
    if (argc < 3) {
        std::fprintf(stderr, "usage: %s file source_port [rate [port]]\n", argv[0]);
        return EXIT_FAILURE;
    }
    SRecording recording;  // outlives the pool, whose threads use it
    recording.path = argv[1];
    const int result = record(recording, argc, argv);
    return result == EXIT_SUCCESS && is_whole(recording) ? EXIT_SUCCESS : EXIT_FAILURE;
}

// libevent's evbuffer, used as our sender works: each block is added and written at once; while the socket is
// full, blocks are only added, and an event writes them.
#include <event2/buffer.h>
#include <event2/event.h>

#include <cerrno>

#include "common/Net.h"
#include "sender/SenderSystem.h"

namespace Bench {

namespace {

struct SRun {
    SLoad& load;
    event_base* base = event_base_new();
    evbuffer* kept = evbuffer_new();
    event* writable = nullptr;
};

void write_kept(SRun& run) {
    if (evbuffer_get_length(run.kept) == 0) return;
    if (evbuffer_write(run.kept, run.load.fd) < 0 && errno != EAGAIN) die("evbuffer_write");
}

/// Adds blocks until there is no room for one.
void fill(SRun& run) {
    SLoad& load = run.load;
    while (!load.is_over() && evbuffer_get_length(run.kept) + load.size <= kKeptBytes) {
        const bool was_empty = evbuffer_get_length(run.kept) == 0;
        evbuffer_add(run.kept, load.block, load.size);
        if (was_empty) write_kept(run);
        load.count();
    }
}

void on_writable(evutil_socket_t, short, void* context) {
    SRun& run = *static_cast<SRun*>(context);
    write_kept(run);
    if (evbuffer_get_length(run.kept) <= kKeptBytes - kFreeBytes) fill(run);
    if (run.load.is_over() && evbuffer_get_length(run.kept) == 0) event_base_loopbreak(run.base);
}

}  // namespace

void run_sender(SLoad& load) {
    SRun run{load};
    run.writable = event_new(run.base, load.fd, EV_WRITE | EV_PERSIST, &on_writable, &run);
    event_add(run.writable, nullptr);
    event_base_dispatch(run.base);
    event_free(run.writable);
    evbuffer_free(run.kept);
    event_base_free(run.base);
}

const char* sender_name() {
    return "evbuffer";
}

}  // namespace Bench

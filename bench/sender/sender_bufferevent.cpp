// libevent's bufferevent, which sends nothing at once: it collects blocks until its loop turns.
#include <event2/buffer.h>
#include <event2/bufferevent.h>
#include <event2/event.h>

#include "common/Net.h"
#include "sender/SenderSystem.h"

namespace Bench {

namespace {

/// The kept bytes have sunk to the low-water mark.
void on_room(bufferevent* stream, void* context) {
    SLoad& load = *static_cast<SLoad*>(context);
    evbuffer* kept = bufferevent_get_output(stream);
    while (!load.is_over() && evbuffer_get_length(kept) + load.size <= kKeptBytes) {
        bufferevent_write(stream, load.block, load.size);
        load.count();
    }
    if (!load.is_over()) return;
    if (evbuffer_get_length(kept) == 0) event_base_loopbreak(bufferevent_get_base(stream));
    bufferevent_setwatermark(stream, EV_WRITE, 0, 0);
}

void on_event(bufferevent*, short, void*) {
    die("bufferevent");
}

}  // namespace

void run_sender(SLoad& load) {
    event_base* base = event_base_new();
    bufferevent* stream = bufferevent_socket_new(base, load.fd, 0);
    bufferevent_setcb(stream, nullptr, &on_room, &on_event, &load);
    bufferevent_setwatermark(stream, EV_WRITE, kKeptBytes - kFreeBytes, 0);
    bufferevent_enable(stream, EV_WRITE);
    on_room(stream, &load);
    event_base_dispatch(base);
    bufferevent_free(stream);
    event_base_free(base);
}

const char* sender_name() {
    return "bufferevent";
}

}  // namespace Bench

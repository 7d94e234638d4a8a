#include "Debug/StatTools.h"

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <tuple>

#include "Tool/MediaBufferRecord.h"
#include "Tool/MediaStreamSenderRecord.h"
#include "Tool/StreamSenderRecord.h"

namespace Veltro::Ravelo::StatTools {

namespace {

constexpr EStatKind COUNTER = EStatKind::Counter;
using Values = std::vector<std::int64_t>;
using Labels = std::vector<std::pair<std::string, std::string>>;
using SStream = SStreamSenderRecord::SFigures;
using SMedia = SMediaStreamSenderRecord::SFigures;
using SBuffer = SMediaBufferRecord::SFigures;

std::atomic<std::uint64_t> s_stream_stalled_us{0};
std::atomic<std::uint64_t> s_media_stalled_us{0};

std::int64_t number(std::uint64_t value) {
    return static_cast<std::int64_t>(value);
}

template <typename Figures, typename Member>
std::int64_t sumOf(const std::vector<Figures>& living, Member member) {
    std::uint64_t sum = 0;
    for (const Figures& one : living) sum += member(one);
    return number(sum);
}

/// A sum of times that never runs backwards: who ends a stall has looked at the clock a moment before the
/// stall is seen to end.
std::int64_t notLess(std::uint64_t sum_us, std::atomic<std::uint64_t>& last_us) {
    std::uint64_t last = last_us;
    while (last < sum_us && !last_us.compare_exchange_weak(last, sum_us)) {
    }
    return number(std::max(sum_us, last));
}

/// How many are stalled at present, and for how long the first of them.
template <typename Figures, typename Member>
std::pair<std::int64_t, std::int64_t> stalls(const std::vector<Figures>& living, Member now_us) {
    std::int64_t count = 0;
    std::uint64_t longest_us = 0;
    for (const Figures& one : living) {
        count += now_us(one) != 0;
        longest_us = std::max(longest_us, now_us(one));
    }
    return {count, number(longest_us)};
}

/// A row for each of the first ones.
/// @param rank what puts one before another, greater first; all zero keeps it out, unless all are wanted.
template <typename Figures, typename Rank, typename Row>
void addRows(SStatTable table, std::vector<Figures>& living, std::size_t at_most, const char* order,
             Rank rank, Row row, std::vector<SStatTable>& tables) {
    if (at_most == 0) return;
    const std::size_t all = living.size();
    if (at_most == FEW)
        std::erase_if(living, [&](const Figures& one) { return rank(one) == decltype(rank(one)){}; });
    const auto shown = static_cast<std::ptrdiff_t>(std::min(at_most, living.size()));
    std::partial_sort(living.begin(), living.begin() + shown, living.end(),
                      [&rank](const Figures& a, const Figures& b) { return rank(a) > rank(b); });
    for (auto one = living.begin(); one != living.begin() + shown; ++one) table.rows.push_back(row(*one));
    table.layout = EStatLayout::Columns;
    table.title = table.name + ": " + std::to_string(shown) + " of " + std::to_string(all) + ", " + order;
    tables.push_back(std::move(table));
}

Labels senderLabels(std::int64_t id, int fd) {
    return {{"id", std::to_string(id)}, {"fd", std::to_string(fd)}};
}

std::string addressOf(const void* object) {
    char text[32];
    std::snprintf(text, sizeof text, "%p", object);
    return text;
}

void addStreamSenders(std::vector<SStatTable>& tables, std::size_t at_most) {
    auto [all, gone_count, living] = SStreamSenderRecord::living().snapshot();
    const auto now_us = [](const SStream& one) { return one.stall.now_us; };
    const auto [stalled, longest_us] = stalls(living, now_us);
    const std::int64_t queued = sumOf(living, [](const SStream& one) { return one.bytes_queued; });
    std::uint64_t cleared = all.bytes_cleared;
    for (const SStream& one : living) {
        all.add(one);
        cleared += one.bytes_cleared;  // what is queued now is not lost yet
    }
    tables.push_back({"stream_senders",
                      {{"living", "Stream senders that exist"},
                       {"gone", "Stream senders that have gone", COUNTER},
                       {"stalled", "Stream senders with bytes that their sockets do not take"},
                       {"longest_stall_us", "For how long the longest stall of a stream sender lasts"},
                       {"puts", "Blocks taken by stream senders", COUNTER},
                       {"refused", "Blocks refused for want of room", COUNTER},
                       {"bytes_sent", "Bytes given to sockets by stream senders", COUNTER},
                       {"bytes_queued", "Bytes that wait in stream senders"},
                       {"bytes_dropped", "Bytes cleared, or queued in a stream sender when it went", COUNTER},
                       {"stalled_us", "For how long stream senders had bytes queued, in sum", COUNTER}},
                      {{{},
                        {number(living.size()), number(gone_count), stalled, longest_us, number(all.puts),
                         number(all.refused_puts), number(all.bytes_sent), queued, number(cleared),
                         notLess(all.stall.all_us, s_stream_stalled_us)}}}});
    addRows<SStream>(
        {"stream_sender",
         {{"puts", ""},
          {"refused", ""},
          {"bytes_sent", ""},
          {"queued", ""},
          {"stalled_us", ""},
          {"now_us", ""}},
         {}},
        living, at_most, "longest stall first",
        [](const SStream& one) { return std::tuple(one.stall.now_us, one.stall.all_us); },
        [](const SStream& one) -> SStatRow {
            return {senderLabels(one.id, one.fd),
                    {number(one.puts), number(one.refused_puts), number(one.bytes_sent),
                     number(one.bytes_queued), number(one.stall.all_us), number(one.stall.now_us)}};
        },
        tables);
}

void addMediaSenders(std::vector<SStatTable>& tables, std::size_t at_most) {
    auto [all, gone_count, living] = SMediaStreamSenderRecord::living().snapshot();
    for (const SMedia& one : living) all.add(one);
    const auto [stalled, longest_us] = stalls(living, [](const SMedia& one) { return one.stalled_now_us; });
    const CMediaStreamSender::SCounters& sum = all.counters;
    tables.push_back(
        {"media_senders",
         {{"living", "Media senders that exist"},
          {"gone", "Media senders that have gone", COUNTER},
          {"stalled", "Media senders whose last write took nothing"},
          {"longest_stall_us", "For how long the longest stall of a media sender lasts"},
          {"frames_sent", "Whole frames sent by media senders", COUNTER},
          {"bytes_sent", "Bytes of frames sent by media senders", COUNTER},
          {"skipped_late", "Frames that had been discarded before their turn", COUNTER},
          {"skipped_to_key", "Frames left out up to the key frame after such a loss", COUNTER},
          {"skipped_channel", "Frames of channels that are switched off", COUNTER},
          {"stalled_us", "For how long writes of media senders took nothing, in sum", COUNTER}},
         {{{},
           {number(living.size()), number(gone_count), stalled, longest_us, number(sum.frames_sent),
            number(sum.bytes_sent), number(sum.skipped_late), number(sum.skipped_to_key),
            number(sum.skipped_channel), notLess(sum.stalled_us, s_media_stalled_us)}}}});
    addRows<SMedia>(
        {"media_sender",
         {{"frames", ""},
          {"bytes", ""},
          {"late", ""},
          {"to_key", ""},
          {"channel", ""},
          {"stalled_us", ""},
          {"now_us", ""}},
         {}},
        living, at_most, "longest stall first",
        [](const SMedia& one) { return std::tuple(one.stalled_now_us, one.counters.stalled_us); },
        [](const SMedia& one) -> SStatRow {
            const CMediaStreamSender::SCounters& its = one.counters;
            return {senderLabels(one.id, one.fd),
                    {number(its.frames_sent), number(its.bytes_sent), number(its.skipped_late),
                     number(its.skipped_to_key), number(its.skipped_channel), number(its.stalled_us),
                     number(one.stalled_now_us)}};
        },
        tables);
}

}  // namespace

void addSenders(std::vector<SStatTable>& tables, std::size_t at_most) {
    addStreamSenders(tables, at_most);
    addMediaSenders(tables, at_most);
}

void addBuffers(std::vector<SStatTable>& tables, std::size_t at_most) {
    auto [all, gone_count, living] = SMediaBufferRecord::living().snapshot();
    for (const SBuffer& one : living) all.add(one);
    const CMediaBuffer::SCounters& sum = all.counters;
    tables.push_back(
        {"media_buffers",
         {{"living", "Media buffers that exist"},
          {"gone", "Media buffers that have gone", COUNTER},
          {"senders", "Media senders that are in a buffer"},
          {"frames", "Frames in media buffers, those being filled included"},
          {"valid_frames", "Frames worth sending, or half sent"},
          {"bytes", "Bytes of all frames in media buffers"},
          {"frames_put", "Frames completed in media buffers", COUNTER},
          {"discarded", "Frames that have aged out", COUNTER},
          {"discarded_bytes", "Bytes of frames that have aged out", COUNTER},
          {"dropped", "Frames too large, or without memory", COUNTER}},
         {{{},
           {number(living.size()), number(gone_count),
            sumOf(living, [](const SBuffer& one) { return one.senders; }),
            sumOf(living, [](const SBuffer& one) { return one.counters.frames; }),
            sumOf(living, [](const SBuffer& one) { return one.counters.valid_frames; }),
            sumOf(living, [](const SBuffer& one) { return one.counters.bytes; }), number(sum.frames_put),
            number(sum.discarded), number(sum.discarded_bytes), number(sum.dropped)}}}});
    addRows<SBuffer>(
        {"media_buffer",
         {{"senders", ""},
          {"frames", ""},
          {"valid", ""},
          {"bytes", ""},
          {"put", ""},
          {"discarded", ""},
          {"dropped", ""}},
         {}},
        living, at_most, "most bytes first",
        [](const SBuffer& one) { return std::tuple(one.counters.bytes); },
        [](const SBuffer& one) -> SStatRow {
            const CMediaBuffer::SCounters& its = one.counters;
            return {{{"buffer", addressOf(one.buffer)}},
                    {number(one.senders), its.frames, its.valid_frames, number(its.bytes),
                     number(its.frames_put), number(its.discarded), number(its.dropped)}};
        },
        tables);
}

}  // namespace Veltro::Ravelo::StatTools

// Cutting alone, from memory: bytes a second for literal and pattern delimiters.
//
//   literal   "<newline>" over lines of 40, 120 and 1,000 bytes
//   word      a literal of several bytes ("-- end --\n")
//   date_end  a date-like pattern at the end of an event, matched by PCRE's compiled code
//   date_start  the same at the start of an event
#include <benchmark/benchmark.h>

#include <string>

#include "filetail/cutter.h"
#include "filetail/delimiter.h"

namespace {

constexpr size_t kBufferBytes = 1 << 20;
constexpr const char *kDate = R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d,\d{3})";

std::string repeat(const std::string &line) {
    std::string text;
    while (text.size() + line.size() <= kBufferBytes) {
        text += line;
    }
    return text;
}

/// Cuts the whole text in batches, as the reader does.
size_t cut_all(const delimiter *delim, int at_end, const std::string &text) {
    static event_span events[kBatchEvents];
    size_t position = 0;
    size_t count = 0;
    for (;;) {
        cut_progress progress = {};
        const cut_request request = {
            delim, at_end, text.data() + position, text.size() - position, false, kBatchEvents};
        const cut_result result = cut_events(request, &progress, events);
        if (result.count <= 0) {
            return count;
        }
        count += static_cast<size_t>(result.count);
        position += events[result.count - 1].end;
    }
}

void run(benchmark::State &state, const char *word, int at_end, const std::string &text) {
    std::string reason;
    const delimiter_ptr delim = delimiter_compile(translate_delim(word), &reason);
    if (!delim) {
        state.SkipWithError(reason.c_str());
        return;
    }
    size_t events = 0;
    for (auto _ : state) {
        events += cut_all(delim.get(), at_end, text);
    }
    state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(text.size()));
    state.SetItemsProcessed(static_cast<int64_t>(events));
}

void literal(benchmark::State &state) {
    const size_t width = static_cast<size_t>(state.range(0));
    run(state, "<newline>", 1, repeat(std::string(width - 1, 'x') + "\n"));
}
BENCHMARK(literal)->Arg(40)->Arg(120)->Arg(1000);

void word(benchmark::State &state) {
    run(state, "-- end --\n", 1, repeat(std::string(110, 'x') + "-- end --\n"));
}
BENCHMARK(word);

void date_end(benchmark::State &state) {
    run(state, kDate, 1, repeat(std::string(96, 'x') + " 2026-11-21 10:00:00,123"));
}
BENCHMARK(date_end);

void date_start(benchmark::State &state) {
    run(state, kDate, 0, repeat("2026-11-21 10:00:00,123 " + std::string(95, 'x') + "\n"));
}
BENCHMARK(date_start);

}  // namespace

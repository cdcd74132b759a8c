// Cutting: any bytes at any delimiter, in any pieces. The first byte chooses the delimiter, the
// second how the text arrives, and a zero byte ends a delimiter of the input's own.

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "filetail/cutter.h"
#include "filetail/delimiter.h"

namespace {

const char *const kDelimiters[] = {
    "\n",        "\\t",         " ",  "\r\n", "-- end --", "\\d{4}-\\d{2}-\\d{2}",
    "\n(?=\\d)", "(?=<entry>)", "x*", "^",    "$",         "(a+)+b",
    "\\n\\n",    "[;|]",        ".",  "\\b",  "(?<=;)",    "<\\?xml",
};
constexpr size_t kFixed = sizeof kDelimiters / sizeof *kDelimiters;

// All events of a text that arrives in pieces, as the tailer would cut it; the rest stays.
std::vector<std::string> cut_all(const delimiter *pattern, const std::string &text, int at_end,
                                 size_t piece) {
    std::vector<std::string> events;
    std::string buffer;
    size_t given = 0;
    event_span spans[kBatchEvents];
    cut_progress progress{};
    while (true) {
        const bool more = given < text.size();
        const cut_result cut = cut_events(
            {pattern, at_end, buffer.data(), buffer.size(), more, kBatchEvents}, &progress, spans);
        if (cut.count < 0 || cut.count > kBatchEvents) abort();
        size_t end = 0;
        for (int i = 0; i < cut.count; i++) {
            if (spans[i].begin != end || spans[i].end < end || spans[i].end > buffer.size())
                abort();
            if (spans[i].end == spans[i].begin) abort();  // an empty event would never move on
            events.push_back(buffer.substr(spans[i].begin, spans[i].end - spans[i].begin));
            end = spans[i].end;
        }
        if (cut.count > 0) {
            buffer.erase(0, end);
            progress = {};
            continue;
        }
        if (cut.error != 0 || !more) return events;
        const size_t take = std::min(piece, text.size() - given);
        buffer.append(text, given, take);
        given += take;
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size < 2) return 0;
    std::string text(reinterpret_cast<const char *>(data) + 2, size - 2);
    std::string word;
    if (data[0] < 128) {
        word = kDelimiters[data[0] % kFixed];
    } else {
        const size_t end = std::min(text.find('\0'), text.size());
        word = text.substr(0, end);
        text.erase(0, std::min(end + 1, text.size()));
    }
    std::string reason;
    const delimiter_ptr pattern = delimiter_compile(translate_delim(word.c_str()), &reason);
    if (pattern == nullptr) return 0;
    const int at_end = data[1] & 1;
    const size_t piece = 1 + (data[1] >> 1);
    const std::vector<std::string> pieces = cut_all(pattern.get(), text, at_end, piece);
    std::string joined;
    for (const std::string &event : pieces) joined += event;
    // Nothing is lost, doubled or moved: the events are the front of the text.
    if (text.compare(0, joined.size(), joined) != 0) abort();
    return 0;
}

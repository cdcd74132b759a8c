#include "filetail/cutter.h"

#include <string.h>

#include <algorithm>
#include <new>

#include "core/siemcollector_log.h"

namespace {

constexpr char kBlank = ' ';

/// Finds the next delimiter, never an empty one at the end of the text: the end of what has been
/// written so far is not a place where anything was delimited.
int next_delimiter(const cut_request &request, size_t from, bool move_on, delimiter_hit *hit) {
    const delimiter_search how{from, request.more_to_come, move_on};
    const int found = delimiter_find(request.delim, request.text, request.length, how, hit);
    if (found != kDelimiterFound) return found;
    hit->begin = std::min(hit->begin, hit->end);
    if (hit->begin != request.length) return found;
    hit->begin = from;
    return kDelimiterNone;
}

struct word_row {
    const char *word;
    const char *pattern;
};
constexpr word_row kDelimiterWords[] = {
    {"<newline>", "\n"}, {"[newline]", "\n"}, {"<tab>", "\\t"},
    {"[tab]", "\\t"},    {"<space>", " "},    {"[space]", " "},
};

}  // namespace

cut_result cut_events(const cut_request &request, cut_progress *progress, event_span *events) {
    cut_result result{0, 0};
    size_t start = 0;
    cut_progress at = *progress;
    // With the delimiter in front, the first one belongs to the first event and ends nothing.
    if (request.delim_at_end) at.opened = true;
    while (result.count < request.max_events) {
        delimiter_hit hit{0, 0};
        // An empty match where the last delimiter ended would be met again and again.
        const bool move_on = at.opened && at.searched == at.matched;
        const int found = next_delimiter(request, at.searched, move_on, &hit);
        if (found != kDelimiterFound) {
            if (found < 0) result.error = found;
            at.searched = hit.begin;
            if (result.count == 0 && found >= 0) *progress = at;
            break;
        }
        const size_t cut = request.delim_at_end ? hit.end : hit.begin;
        if (at.opened && cut > start) {
            events[result.count++] = {start, cut};
            start = cut;
        }
        // A match can also lie in front of the place that was searched from ("\\K").
        at.matched = move_on ? std::max(hit.end, at.searched + 1) : std::max(hit.end, at.searched);
        at.searched = at.matched;
        at.opened = true;
    }
    return result;
}

const char *translate_delim(const char *delim) {
    for (const word_row &row : kDelimiterWords) {
        if (strcmp(delim, row.word) == 0) return row.pattern;
    }
    return delim;
}

void replace_newlines(char *event) {
    for (char *at = event; *at != '\0'; ++at) {
        if (*at == '\n') *at = kBlank;
    }
    for (char *at = event; *at != '\0'; ++at) {
        if (*at == '\r') *at = kBlank;
    }
}

namespace {

/// Sixteen bytes at a time: every byte of every event goes through here.
using block = unsigned char __attribute__((vector_size(16)));
constexpr size_t kStrideBytes = 4 * sizeof(block);

bool is_cleaned(char byte) {
    return byte == '\n' || byte == '\r' || byte == '\0';
}

block block_at(const char *text) {
    block bytes;
    memcpy(&bytes, text, sizeof bytes);
    return bytes;
}

block smaller_of(block a, block b) {
    return a < b ? a : b;
}

void clean_block(char *text) {
    block bytes = block_at(text);
    const auto ends = (bytes == '\n') | (bytes == '\r') | (bytes == '\0');
    bytes = ends ? block{} + static_cast<unsigned char>(kBlank) : bytes;
    memcpy(text, &bytes, sizeof bytes);
}

/// Events hold few control bytes: a look at the smallest bytes of four blocks passes most of them.
void clean_stride(char *text) {
    const block smallest = smaller_of(
        smaller_of(block_at(text), block_at(text + sizeof(block))),
        smaller_of(block_at(text + 2 * sizeof(block)), block_at(text + 3 * sizeof(block))));
    const auto low = smallest <= '\r';
    uint64_t halves[2];
    memcpy(halves, &low, sizeof halves);
    if ((halves[0] | halves[1]) == 0) return;
    for (size_t i = 0; i < kStrideBytes; i += sizeof(block)) clean_block(text + i);
}

}  // namespace

void clean_text(char *text, size_t length) {
    // The end of a line is cleaned for itself, so that it does not cost its stride.
    while (length > 0 && is_cleaned(text[length - 1])) text[--length] = kBlank;
    if (length < sizeof(block)) {
        for (size_t i = 0; i < length; ++i) {
            if (is_cleaned(text[i])) text[i] = kBlank;
        }
        return;
    }
    size_t done = 0;
    for (; length - done >= kStrideBytes; done += kStrideBytes) clean_stride(text + done);
    // The last block or stride may overlap the one before it: cleaning twice changes nothing.
    if (done > 0 && done < length) return clean_stride(text + length - kStrideBytes);
    for (; done + sizeof(block) < length; done += sizeof(block)) clean_block(text + done);
    if (done < length) clean_block(text + length - sizeof(block));
}

size_t leading_nuls(const char *text, size_t length) {
    size_t count = 0;
    while (count < length && text[count] == '\0') ++count;
    return count;
}

namespace {

/// Reads up to `wanted` bytes from a stream; -1 on an error.
ssize_t read_stream(FILE *fd, std::unique_ptr<char[]> *buffer, size_t wanted) {
    buffer->reset(new (std::nothrow) char[wanted]);
    if (!*buffer) return -1;
    const size_t got = fread(buffer->get(), 1, wanted, fd);
    return ferror(fd) ? -1 : static_cast<ssize_t>(got);
}

}  // namespace

int xread(char **events, FILE *fd, const char *delim, int delim_position) {
    std::string reason;
    const delimiter_ptr compiled = delimiter_compile(delim, &reason);
    if (!compiled) return -1;
    clearerr(fd);
    const long position = ftell(fd);
    std::unique_ptr<char[]> buffer;
    event_span spans[kBatchEvents];
    cut_progress progress{};
    for (size_t wanted = kFirstBufferBytes;; wanted *= 2) {
        const ssize_t got = read_stream(fd, &buffer, wanted);
        if (got < 1) return -1;
        const auto length = static_cast<size_t>(got);
        const bool more = length == wanted;
        const cut_request request{compiled.get(), delim_position, buffer.get(),
                                  length,         more,           kBatchEvents};
        cut_result result = cut_events(request, &progress, spans);
        if (result.error != 0) logger(kLogError, "Error in matching event: %d", result.error);
        if (result.count == 0 && more && result.error == 0 && length >= kLongestEventBytes) {
            spans[result.count++] = {0, length};
        }
        for (int i = 0; i < result.count; ++i) {
            events[i] = strndup(buffer.get() + spans[i].begin, spans[i].end - spans[i].begin);
            if (events[i] == nullptr) return i;
        }
        if (result.count > 0 || result.error != 0 || !more) return result.count;
        if (fseek(fd, position, SEEK_SET) != 0) return -1;
    }
}

#include "filetail/delimiter.h"

#include <pcre.h>
#include <string.h>

#include <new>

namespace {

constexpr int kVectorEntries = 30;
/// Steps of one match before the matcher gives up: more than any sane pattern needs.
constexpr unsigned long kMatchLimit = 10'000'000;
/// Depth of one match without the just-in-time compiler, about 500 bytes of stack each: a worker's
/// stack holds this many with room to spare.
constexpr unsigned long kMatchDepth = 2'000;
constexpr int kJitStackFirstBytes = 32 * 1024;
constexpr int kJitStackMostBytes = 4 * 1024 * 1024;

struct pcre_deleter {
    void operator()(pcre *p) const { pcre_free(p); }
    void operator()(pcre_extra *p) const { pcre_free_study(p); }
    void operator()(pcre_jit_stack *p) const { pcre_jit_stack_free(p); }
};

}  // namespace

struct delimiter {
    bool is_literal = false;
    std::string literal;
    std::unique_ptr<pcre, pcre_deleter> code;
    std::unique_ptr<pcre_extra, pcre_deleter> study;
    std::unique_ptr<pcre_jit_stack, pcre_deleter> stack;
};

void delimiter_free::operator()(delimiter *d) const {
    delete d;
}

namespace {

/// The byte that a letter after a backslash stands for, or -1 when it is not a single byte.
int escaped_byte(char letter) {
    switch (letter) {
        case 'a':
            return '\a';
        case 'e':
            return 27;
        case 'f':
            return '\f';
        case 'n':
            return '\n';
        case 'r':
            return '\r';
        case 't':
            return '\t';
    }
    const bool word = (letter >= '0' && letter <= '9') || (letter >= 'A' && letter <= 'Z') ||
                      (letter >= 'a' && letter <= 'z');
    const bool ascii = static_cast<unsigned char>(letter) < 128;
    return word || !ascii ? -1 : static_cast<unsigned char>(letter);
}

/// Turns a pattern that can only match one text into that text.
bool plain_text(const std::string &pattern, std::string *text) {
    for (size_t i = 0; i < pattern.size(); ++i) {
        if (pattern[i] == '\\') {
            if (++i == pattern.size()) return false;
            const int byte = escaped_byte(pattern[i]);
            if (byte < 0) return false;
            text->push_back(static_cast<char>(byte));
        } else if (strchr("^$.[|()?*+{", pattern[i]) != nullptr) {
            return false;  // also for a NUL byte, which ends the table
        } else {
            text->push_back(pattern[i]);
        }
    }
    return !text->empty();
}

std::unique_ptr<pcre, pcre_deleter> compile(const std::string &pattern, int options,
                                            std::string *reason) {
    const char *error = nullptr;
    int place = 0;
    std::unique_ptr<pcre, pcre_deleter> code(
        pcre_compile(pattern.c_str(), options, &error, &place, nullptr));
    if (!code && reason != nullptr) *reason = std::string(error) + " at " + std::to_string(place);
    return code;
}

bool is_anchored(const pcre *code) {
    unsigned long options = 0;
    return pcre_fullinfo(code, nullptr, PCRE_INFO_OPTIONS, &options) == 0 &&
           (options & PCRE_ANCHORED) != 0;
}

/// Lets the matcher prepare itself; without the just-in-time compiler it interprets the pattern.
bool study(delimiter *d) {
    const char *error = nullptr;
    const int options =
        PCRE_STUDY_JIT_COMPILE | PCRE_STUDY_JIT_PARTIAL_HARD_COMPILE | PCRE_STUDY_EXTRA_NEEDED;
    d->study.reset(pcre_study(d->code.get(), options, &error));
    if (!d->study) return false;
    d->study->flags |= PCRE_EXTRA_MATCH_LIMIT | PCRE_EXTRA_MATCH_LIMIT_RECURSION;
    d->study->match_limit = kMatchLimit;
    d->study->match_limit_recursion = kMatchDepth;
    d->stack.reset(pcre_jit_stack_alloc(kJitStackFirstBytes, kJitStackMostBytes));
    if (d->stack) pcre_assign_jit_stack(d->study.get(), nullptr, d->stack.get());
    return true;
}

int find_literal(const std::string &literal, const char *text, size_t length, size_t from,
                 delimiter_hit *hit) {
    const char *start = text + from;
    const void *found = literal.size() == 1
                            ? memchr(start, literal[0], length - from)
                            : memmem(start, length - from, literal.data(), literal.size());
    if (found == nullptr) return kDelimiterNone;
    hit->begin = static_cast<size_t>(static_cast<const char *>(found) - text);
    hit->end = hit->begin + literal.size();
    return kDelimiterFound;
}

}  // namespace

delimiter_ptr delimiter_compile(const std::string &pattern, std::string *reason) {
    delimiter_ptr d(new (std::nothrow) delimiter);
    if (!d) return d;
    d->is_literal = plain_text(pattern, &d->literal);
    if (d->is_literal) return d;
    d->code = compile(pattern, 0, reason);
    if (d->code && is_anchored(d->code.get())) d->code = compile(pattern, PCRE_MULTILINE, reason);
    if (!d->code) return nullptr;
    if (!study(d.get())) {
        if (reason != nullptr) *reason = "out of memory";
        return nullptr;
    }
    return d;
}

bool delimiter_is_literal(const delimiter *d) {
    return d->is_literal;
}

int delimiter_find(const delimiter *d, const char *text, size_t length, const delimiter_search &how,
                   delimiter_hit *hit) {
    if (how.from > length) return kDelimiterNone;
    if (d->is_literal) {
        const int found = find_literal(d->literal, text, length, how.from, hit);
        // The last bytes may be the first ones of a delimiter.
        if (found == kDelimiterNone) {
            const size_t kept = d->literal.size() - 1;
            hit->begin = length - how.from > kept ? length - kept : how.from;
        }
        return found;
    }
    int vector[kVectorEntries];
    const int options =
        (how.move_on ? PCRE_NOTEMPTY_ATSTART : 0) | (how.more_to_come ? PCRE_PARTIAL_HARD : 0);
    const int result = pcre_exec(d->code.get(), d->study.get(), text, static_cast<int>(length),
                                 static_cast<int>(how.from), options, vector, kVectorEntries);
    if (result == PCRE_ERROR_NOMATCH) {
        // With more to come the matcher has ruled every byte out; at the end of the text it has
        // only seen that there is no delimiter yet.
        hit->begin = how.more_to_come ? length : how.from;
        return kDelimiterNone;
    }
    if (result == PCRE_ERROR_PARTIAL) {
        hit->begin =
            static_cast<size_t>(vector[0]) > how.from ? static_cast<size_t>(vector[0]) : how.from;
        return kDelimiterUndecided;
    }
    if (result < 0) return result;
    hit->begin = static_cast<size_t>(vector[0]);
    hit->end = static_cast<size_t>(vector[1]);
    return kDelimiterFound;
}

/**
 * A delimiter, compiled once and searched for many times.
 *
 * This is the seam to the pattern matcher: no other module of the daemon knows which library does
 * the work. A delimiter that is plain text ("\n", "\t", "-- end --") never reaches the matcher; it
 * is searched for directly, which is what makes cutting at line ends as fast as memory. Anything
 * else is compiled with the matcher's just-in-time compiler where that is available.
 *
 * Threads: a delimiter belongs to the thread that made it (it owns the matcher's stack). Nothing
 * here locks, logs or throws.
 */
#pragma once

#include <cstddef>
#include <memory>
#include <string>

struct delimiter;

struct delimiter_free {
    void operator()(delimiter *d) const;
};
using delimiter_ptr = std::unique_ptr<delimiter, delimiter_free>;

/** Where a delimiter was found: offsets of its first byte and of the byte behind its last. */
struct delimiter_hit {
    size_t begin;
    size_t end;
};

/** Answers of `delimiter_find` that are not codes of the matcher. */
enum : int {
    kDelimiterFound = 1,
    kDelimiterNone = 0,
    /** The end of the text was reached inside what may become a delimiter: more bytes decide. */
    kDelimiterUndecided = 2,
};

/** How to search. */
struct delimiter_search {
    size_t from;       /**< offset of the first byte where a delimiter may begin */
    bool more_to_come; /**< the text goes on behind its last byte: do not decide at the edge */
    bool move_on;      /**< an empty match at `from` does not count, so that a search can proceed */
};

/**
 * Compiles a pattern without options. One that could only match at the very first byte of a text
 * ("^...") is compiled so that "^" means the start of a line: where a buffer happens to begin is
 * not a place in the file. Returns null when the pattern does not compile and says why in
 * `reason`.
 */
delimiter_ptr delimiter_compile(const std::string &pattern, std::string *reason);

/** True when the delimiter is plain text that is found without the matcher. */
bool delimiter_is_literal(const delimiter *d);

/**
 * Finds the next delimiter of `text` at or after `how.from`. Returns one of the answers above, or
 * the matcher's own negative code on an error (time and depth of a match are limited). Without a
 * find, `hit->begin` is where a search may go on once more of the text is there: no delimiter
 * begins in front of it.
 */
int delimiter_find(const delimiter *d, const char *text, size_t length, const delimiter_search &how,
                   delimiter_hit *hit);

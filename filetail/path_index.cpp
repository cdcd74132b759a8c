#include "filetail/path_index.h"

#include <cstdlib>
#include <functional>
#include <string_view>

namespace {

constexpr uint32_t kFirstPlaces = 64;

uint32_t mark_of(uint64_t hash) {
    return static_cast<uint32_t>(hash >> 32);
}

// The place where an entry belongs follows from its mark alone, so that growing and closing holes
// need no paths.
uint32_t home_of(const path_index *index, uint32_t mark) {
    return (mark * 0x9E3779B1u) & (index->places - 1);
}

void put(path_index *index, uint32_t mark, int32_t number) {
    uint32_t at = home_of(index, mark);
    while (index->entries[at].number >= 0) at = (at + 1) & (index->places - 1);
    index->entries[at] = {mark, number};
    ++index->used;
}

bool grow(path_index *index, uint32_t places) {
    auto *fresh = static_cast<path_index_entry *>(std::malloc(places * sizeof(path_index_entry)));
    if (!fresh) return false;
    const path_index old = *index;
    *index = {fresh, places, 0};
    for (uint32_t i = 0; i < places; ++i) fresh[i].number = -1;
    for (uint32_t i = 0; i < old.places; ++i) {
        if (old.entries[i].number >= 0) put(index, old.entries[i].mark, old.entries[i].number);
    }
    std::free(old.entries);
    return true;
}

}  // namespace

uint64_t path_hash(const char *path, size_t length) {
    return std::hash<std::string_view>{}(std::string_view(path, length));
}

bool path_index_reserve(path_index *index, uint32_t count) {
    uint32_t places = index->places ? index->places : kFirstPlaces;
    while (places / 4 * 3 < count && places < 1u << 31) places *= 2;
    return places == index->places || grow(index, places);
}

bool path_index_add(path_index *index, uint64_t hash, int32_t number) {
    if (!path_index_reserve(index, index->used + 1)) return false;
    put(index, mark_of(hash), number);
    return true;
}

int32_t path_index_next(const path_index *index, uint64_t hash, uint32_t *cursor) {
    if (index->used == 0) return -1;
    const uint32_t mark = mark_of(hash);
    uint32_t at = (home_of(index, mark) + *cursor) & (index->places - 1);
    for (;;) {
        const path_index_entry &entry = index->entries[at];
        if (entry.number < 0) return -1;
        ++*cursor;
        at = (at + 1) & (index->places - 1);
        if (entry.mark == mark) return entry.number;
    }
}

bool path_index_remove(path_index *index, uint64_t hash, int32_t number) {
    if (index->used == 0) return false;
    const uint32_t mask = index->places - 1;
    const uint32_t mark = mark_of(hash);
    uint32_t at = home_of(index, mark);
    while (index->entries[at].mark != mark || index->entries[at].number != number) {
        if (index->entries[at].number < 0) return false;
        at = (at + 1) & mask;
    }
    // Entries behind the hole that could not stand at home move up, or they would not be found.
    uint32_t hole = at;
    for (uint32_t next = (at + 1) & mask; index->entries[next].number >= 0;
         next = (next + 1) & mask) {
        const uint32_t home = home_of(index, index->entries[next].mark);
        if (((next - home) & mask) >= ((next - hole) & mask)) {
            index->entries[hole] = index->entries[next];
            hole = next;
        }
    }
    index->entries[hole].number = -1;
    --index->used;
    return true;
}

void path_index_close_gap(path_index *index, int32_t number) {
    for (uint32_t i = 0; i < index->places; ++i) {
        if (index->entries[i].number > number) --index->entries[i].number;
    }
}

void path_index_clear(path_index *index) {
    for (uint32_t i = 0; i < index->places; ++i) index->entries[i].number = -1;
    index->used = 0;
}

void path_index_free(path_index *index) {
    std::free(index->entries);
    *index = {nullptr, 0, 0};
}

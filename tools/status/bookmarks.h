// The bookmark file as a bystander reads it: once, from the first byte to the last, never written.
#pragma once

#include <cstdint>
#include <string>
#include <unordered_map>
#include <vector>

/// One stored position.
struct stored_position {
    uint64_t location;
    uint32_t head;
    uint32_t tail;
};

/// Something that a bookmark file should not hold.
struct bookmark_problem {
    size_t record;     ///< number of the record, from 0
    std::string what;  ///< "damaged", "double" or "short"
    std::string path;  ///< as far as it can be read
};

struct bookmark_image {
    bool readable = false;
    bool absent = false;  ///< there is no such file, which is no fault
    std::string reason;   ///< why it is not
    size_t records = 0;   ///< whole records
    std::unordered_map<std::string, stored_position> positions;  ///< the first record of a path
    std::vector<bookmark_problem> problems;
};

/// Reads a bookmark file. A file that does not exist is unreadable with the reason "no such file".
bookmark_image read_bookmarks(const std::string &path);

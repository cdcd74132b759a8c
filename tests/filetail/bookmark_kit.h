// What the tests of the bookmark store and of the directory scan share: a directory of their own,
// whole files in and out, what was logged, and tailed files without a plugin.

#pragma once

#include <gtest/gtest.h>
#include <sys/resource.h>

#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <string>
#include <vector>

#include "config/plugin_record.h"
#include "config/siem_config.h"
#include "core/siemcollector_log.h"
#include "core/utils.h"
#include "filetail/bookmark.h"
#include "filetail/discovery.h"

namespace bookmark_kit {

std::string read_file(const std::string &path);

/// Like an editor that writes in place: the inode stays.
void write_file(const std::string &path, const std::string &bytes);
void append_file(const std::string &path, const std::string &bytes);

/// Renames the file and puts an empty one in its place, so that the name is never without a file.
void replace_by_empty(const std::string &path, const std::string &renamed);

/// The record as the format prescribes it, made by the C library and not by the code under test.
std::string record(unsigned long long location, unsigned long long head, unsigned long long tail,
                   const std::string &path);

/// CRC-32 of 256 bytes, bit by bit; shorter text is padded with zeros.
uint32_t crc256(std::string bytes);

/// The checksums of a file of at least 257 bytes.
uint32_t head_of(const std::string &content);
uint32_t tail_of(const std::string &content);

/// `count` numbered lines.
std::string lines(int count, const std::string &text = "a line of the log");

/// How often `what` stands in `text`.
size_t count_of(const std::string &text, const std::string &what);

/// Standard output, where the log goes in these tests, is kept in a file meanwhile.
class Capture {
  public:
    explicit Capture(uint64_t mask = 31);
    ~Capture();
    Capture(const Capture &) = delete;
    Capture &operator=(const Capture &) = delete;
    /// Ends the capture and returns what was written.
    std::string text();

  private:
    void restore();
    FILE *file_;
    int saved_ = -1;
    bool done_ = false;
};

/// While it lives the process can open one more file and no second one.
class OneDescriptor {
  public:
    OneDescriptor();
    ~OneDescriptor();
    OneDescriptor(const OneDescriptor &) = delete;
    OneDescriptor &operator=(const OneDescriptor &) = delete;

  private:
    rlimit before_;
};

/// A directory of its own with a bookmark file and a place for logs.
class StoreTest : public ::testing::Test {
  protected:
    void SetUp() override;
    void TearDown() override;
    static void use_directory(const std::string &directory);
    /// As after a restart of the daemon: nothing in memory.
    void forget();
    /// A tailed file as discovery makes it, owned by the test.
    fdesc *track(const std::string &path);
    fdesc *track_at(const std::string &path, uint64_t location);
    /// Writes its bookmark through a stream at position 0.
    static int update(fdesc *file);
    std::string image() const { return read_file(bookmarks); }

    std::string root, logs, bookmarks;
    std::vector<fdesc *> files;
};

}  // namespace bookmark_kit

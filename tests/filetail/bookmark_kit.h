// What the tests of the bookmark store and of the directory scan share: a directory of their own,
// whole files in and out, what was logged, and a plugin to scan for.

#pragma once

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "config/plugin_record.h"
#include "config/siem_config.h"
#include "core/siemcollector_log.h"
#include "core/utils.h"
#include "filetail/bookmark.h"
#include "filetail/discovery.h"

namespace bookmark_kit {

inline std::string read_file(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

// Like an editor that writes in place: the inode stays.
inline void write_file(const std::string &path, const std::string &bytes) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << bytes;
    ASSERT_TRUE(out.flush().good()) << path;
}

inline void append_file(const std::string &path, const std::string &bytes) {
    std::ofstream out(path, std::ios::binary | std::ios::app);
    out << bytes;
    ASSERT_TRUE(out.flush().good()) << path;
}

// The record as the format prescribes it, made by the C library and not by the code under test.
inline std::string record(unsigned long long location, unsigned long long head,
                          unsigned long long tail, const std::string &path) {
    char text[512];
    snprintf(text, sizeof(text), "%015llu|%015llu|%015llu|%-150s\n", location, head, tail,
             path.c_str());
    return text;
}

// CRC-32 of 256 bytes, bit by bit; shorter text is padded with zeros.
inline uint32_t crc256(std::string bytes) {
    bytes.resize(256, '\0');
    uint32_t crc = 0xFFFFFFFFu;
    for (const char c : bytes) {
        crc ^= static_cast<unsigned char>(c);
        for (int bit = 0; bit < 8; ++bit) crc = (crc >> 1) ^ ((crc & 1) ? 0xEDB88320u : 0);
    }
    return ~crc;
}

inline uint32_t head_of(const std::string &content) {
    return crc256(content.substr(0, 256));
}
inline uint32_t tail_of(const std::string &content) {
    return crc256(content.substr(content.size() - 257, 256));
}

inline std::string lines(int count, const std::string &text = "a line of the log") {
    std::string all;
    for (int i = 0; i < count; ++i) all += text + " " + std::to_string(i) + "\n";
    return all;
}

// Standard output, where the log goes in these tests, is kept in a file meanwhile.
class Capture {
  public:
    explicit Capture(uint64_t mask = 31) : file_(tmpfile()) {
        logger_init(mask, nullptr, 0);
        fflush(stdout);
        saved_ = dup(STDOUT_FILENO);
        dup2(fileno(file_), STDOUT_FILENO);
    }
    ~Capture() {
        restore();
        fclose(file_);
        logger_init(0, nullptr, 0);
    }
    std::string text() {
        restore();
        std::string all(static_cast<size_t>(lseek(fileno(file_), 0, SEEK_END)), '\0');
        EXPECT_EQ(pread(fileno(file_), all.data(), all.size(), 0),
                  static_cast<ssize_t>(all.size()));
        return all;
    }

  private:
    void restore() {
        if (saved_ < 0) return;
        fflush(stdout);
        dup2(saved_, STDOUT_FILENO);
        close(saved_);
        saved_ = -1;
    }
    FILE *file_;
    int saved_ = -1;
};

inline size_t count_of(const std::string &text, const std::string &what) {
    size_t count = 0;
    for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) {
        ++count;
    }
    return count;
}

// A short directory name keeps every path well under the limit of a record.
class StoreTest : public ::testing::Test {
  protected:
    void SetUp() override {
        char name[] = "/tmp/bm.XXXXXX";
        ASSERT_NE(mkdtemp(name), nullptr);
        root = name;
        logs = root + "/logs/";
        std::filesystem::create_directory(logs);
        bookmarks = root + "/ft_bookmark";
        logger_init(0, nullptr, 0);
        use_directory(root);
    }
    void TearDown() override {
        for (fdesc *file : files) free_fdesc(file);
        bookmark_teardown();
        bookmark_guard_small_files(false);
        std::filesystem::remove_all(root);
    }
    static void use_directory(const std::string &directory) {
        wchar_t *wide = strtowstr(directory.c_str(), static_cast<int>(directory.size()));
        bookmark_set_directory(wide);
        free(wide);
    }
    // As after a restart of the daemon: nothing in memory.
    void forget() {
        for (fdesc *file : files) free_fdesc(file);
        files.clear();
        bookmark_teardown();
    }
    fdesc *track(const std::string &path) {
        auto *file = static_cast<fdesc *>(calloc(1, sizeof(fdesc)));
        file->n = strdup(path.c_str());
        files.push_back(file);
        return file;
    }
    fdesc *track_at(const std::string &path, uint64_t location) {
        fdesc *file = track(path);
        file->l = location;
        return file;
    }
    static int update(fdesc *file) {
        FILE *stream = fopen(file->n, "r");
        if (!stream) return -2;
        const int result = update_bookmark(stream, file);
        fclose(stream);
        return result;
    }
    std::string image() const { return read_file(bookmarks); }

    std::string root, logs, bookmarks;
    std::vector<fdesc *> files;
};

}  // namespace bookmark_kit

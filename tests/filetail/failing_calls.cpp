// The bookmark file and a tailed one when a call of the system fails, every one in its turn: the
// operation says so, nothing but whole records is left in the file, no position is forgotten, and
// the next operation does what it should.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <string>

#include "filetail/bookmark.h"
#include "filetail/bookmark_file.h"

namespace {

// The call that fails, counted from 1 over all kinds; 0: none.
int countdown = 0;
int error = 0;
bool struck = false, half = false;

bool strikes() {
    if (countdown == 0 || --countdown != 0) return false;
    errno = error;
    return struck = true;
}

}  // namespace

// The linker sends this program's own calls here (see its --wrap options).
extern "C" {
void *__real_malloc(size_t size);
void *__wrap_malloc(size_t size) {
    return strikes() ? nullptr : __real_malloc(size);
}
void *__real_calloc(size_t count, size_t size);
void *__wrap_calloc(size_t count, size_t size) {
    return strikes() ? nullptr : __real_calloc(count, size);
}
int __real_fstat(int fd, struct stat *status);
int __wrap_fstat(int fd, struct stat *status) {
    return strikes() ? -1 : __real_fstat(fd, status);
}
ssize_t __real_pread(int fd, void *bytes, size_t size, off_t offset);
ssize_t __wrap_pread(int fd, void *bytes, size_t size, off_t offset) {
    if (!strikes()) return __real_pread(fd, bytes, size, offset);
    return half ? __real_pread(fd, bytes, size / 2, offset) : -1;
}
ssize_t __real_pwrite(int fd, const void *bytes, size_t size, off_t offset);
ssize_t __wrap_pwrite(int fd, const void *bytes, size_t size, off_t offset) {
    if (!strikes()) return __real_pwrite(fd, bytes, size, offset);
    return half ? __real_pwrite(fd, bytes, size / 2, offset) : -1;
}
long __real_syscall(long number, ...);
long __wrap_syscall(long number, ...) {
    va_list rest;
    va_start(rest, number);
    const long a = va_arg(rest, long), b = va_arg(rest, long), c = va_arg(rest, long),
               d = va_arg(rest, long);
    va_end(rest);
    return number == SYS_pread64 && strikes() ? -1 : __real_syscall(number, a, b, c, d);
}
int __real_ftruncate(int fd, off_t size);
int __wrap_ftruncate(int fd, off_t size) {
    return strikes() ? -1 : __real_ftruncate(fd, size);
}
}

namespace {

std::string record_of(const std::string &path, uint64_t location) {
    char bytes[kBookmarkRecord];
    EXPECT_TRUE(bookmark_format(bytes, location, 1, 2, path.c_str(), path.size()));
    return std::string(bytes, sizeof bytes);
}

class FailingCalls : public testing::Test {
  protected:
    void SetUp() override {
        char name[] = "/tmp/failing_calls_XXXXXX";
        folder = mkdtemp(name);
        path = folder + "/bookmarks";
    }
    void TearDown() override {
        countdown = 0;
        half = false;
        bookmark_file_close(&file);
        std::error_code ignored;
        std::filesystem::remove_all(folder, ignored);
    }
    // Three records, "a", "b" and "c", at 10, 20 and 30.
    void fresh() {
        bookmark_file_close(&file);
        FILE *out = fopen(path.c_str(), "w");
        ASSERT_NE(out, nullptr);
        const std::string all = record_of("a", 10) + record_of("b", 20) + record_of("c", 30);
        ASSERT_EQ(fwrite(all.data(), 1, all.size(), out), all.size());
        fclose(out);
    }
    std::string text() const {
        std::string bytes(10'000, 0);
        FILE *in = fopen(path.c_str(), "r");
        if (!in) return "";
        bytes.resize(fread(bytes.data(), 1, bytes.size(), in));
        fclose(in);
        return bytes;
    }
    // The location of a record, or 0.
    uint64_t location(const char *name) {
        bookmark_hit hit;
        if (bookmark_file_open(&file, path.c_str()) != 0) return 0;
        if (bookmark_file_find(&file, name, strlen(name), &hit) != 1) return 0;
        return hit.record.location;
    }
    int put(const char *name, uint64_t place) {
        bookmark_hit hit;
        if (bookmark_file_open(&file, path.c_str()) != 0) return -1;
        const int found = bookmark_file_find(&file, name, strlen(name), &hit);
        if (found < 0) return -1;
        const std::string bytes = record_of(name, place);
        return bookmark_file_write(&file, found == 1 ? hit.slot : -1, bytes.data());
    }
    int drop(const char *name) {
        bookmark_hit hit;
        if (bookmark_file_open(&file, path.c_str()) != 0) return -1;
        const int found = bookmark_file_find(&file, name, strlen(name), &hit);
        return found < 1 ? -1 : bookmark_file_remove(&file, &hit);
    }
    // Lets each call of `act` on a fresh file fail in its turn, then looks at what `after` it. The
    // file is opened before when `warm`.
    void fail_each(int reason, bool warm, const std::function<int()> &act,
                   const std::function<void(int, int)> &after) {
        for (int k = 1; k < 100; ++k) {
            fresh();
            if (warm) ASSERT_EQ(location("a"), 10u);
            error = reason;
            struck = false;
            countdown = k;
            const int result = act();
            countdown = 0;
            if (!struck) {
                EXPECT_GT(k, 1);
                EXPECT_EQ(result, 0);
                return;
            }
            after(k, result);
        }
        ADD_FAILURE() << "more calls than any operation makes";
    }

    std::string folder, path;
    bookmark_file file;
};

TEST_F(FailingCalls, ARecordIsReplacedOrStays) {
    for (const bool warm : {false, true})
        fail_each(
            EIO, warm, [this] { return put("b", 21); },
            [this](int k, int result) {
                EXPECT_EQ(location("b"), result == 0 ? 21u : 20u) << k;
                EXPECT_EQ(location("a"), 10u) << k;
                EXPECT_EQ(location("c"), 30u) << k;
                EXPECT_EQ(text().size(), 3 * kBookmarkRecord) << k;
            });
}

TEST_F(FailingCalls, ARecordIsAppendedOrNot) {
    for (const bool warm : {false, true})
        fail_each(
            ENOSPC, warm, [this] { return put("d", 40); },
            [this](int k, int result) {
                EXPECT_EQ(location("d"), result == 0 ? 40u : 0u) << k;
                EXPECT_EQ(text().size(), (result == 0 ? 4 : 3) * kBookmarkRecord) << k;
                EXPECT_EQ(put("d", 41), 0) << k;
                EXPECT_EQ(location("d"), 41u) << k;
            });
}

TEST_F(FailingCalls, ARecordIsRemovedOrStays) {
    for (const bool warm : {false, true})
        fail_each(
            EIO, warm, [this] { return drop("b"); },
            [this](int k, int) {
                EXPECT_EQ(location("a"), 10u) << k;
                EXPECT_EQ(location("c"), 30u) << k;
                // Once more: what was half done is finished.
                while (location("b") != 0) ASSERT_EQ(drop("b"), 0) << k;
                EXPECT_EQ(location("c"), 30u) << k;
            });
}

TEST_F(FailingCalls, TransfersThatStopHalfWayAreContinued) {
    half = true;
    for (const bool warm : {false, true}) {
        fail_each(
            EINTR, warm, [this] { return put("b", 21); },
            [this](int k, int result) {
                EXPECT_EQ(location("b"), result == 0 ? 21u : 20u) << k;
                EXPECT_EQ(location("c"), 30u) << k;
            });
    }
}

TEST_F(FailingCalls, ACallThatASignalInterruptedIsRepeated) {
    fresh();
    ASSERT_EQ(location("a"), 10u);
    error = EINTR;
    // Of an open file the transfers are the only calls: a look at the record, the write.
    for (int k = 1; k <= 2; ++k) {
        const uint64_t place = 20 + static_cast<uint64_t>(k);
        struck = false;
        countdown = k;
        EXPECT_EQ(put("b", place), 0) << k;
        countdown = 0;
        EXPECT_TRUE(struck) << k;
        EXPECT_EQ(location("b"), place) << k;
    }
}

TEST_F(FailingCalls, ARecordThatWasCutWhileItIsMovedIsReported) {
    fresh();
    ASSERT_EQ(location("a"), 10u);
    bookmark_hit hit;
    ASSERT_EQ(bookmark_file_find(&file, "a", 1, &hit), 1);
    ASSERT_EQ(truncate(path.c_str(), 2 * kBookmarkRecord), 0);
    EXPECT_EQ(bookmark_file_remove(&file, &hit), -1);
    EXPECT_EQ(errno, EIO);
    EXPECT_EQ(location("a"), 10u);
}

// A tailed file whose record says 500 of its 1000 bytes.
class FailingLook : public FailingCalls {
  protected:
    void SetUp() override {
        FailingCalls::SetUp();
        name = folder + "/a";
        FILE *out = fopen(name.c_str(), "w");
        ASSERT_NE(out, nullptr);
        for (int i = 0; i < 100; ++i) fprintf(out, "%09d\n", i);
        fclose(out);
        const std::wstring wide(folder.begin(), folder.end());
        bookmark_set_directory(wide.c_str());
        tailed = known(500);
        ASSERT_EQ(update(), 0);
    }
    void TearDown() override {
        countdown = 0;
        bookmark_teardown();
        FailingCalls::TearDown();
    }
    fdesc known(uint64_t location) {
        fdesc bm = {};
        bm.n = name.data();
        bm.l = location;
        return bm;
    }
    int update() {
        const int fd = open(name.c_str(), O_RDONLY | O_CLOEXEC);
        const int result = update_bookmark_at(fd, &tailed, 0);
        close(fd);
        return result;
    }
    std::string name;
    fdesc tailed = {};
};

TEST_F(FailingLook, ForgetsNoPosition) {
    for (const int reason : {EIO, ENOMEM, ESTALE}) {
        for (int k = 1; k < 100; ++k) {
            bookmark_teardown();
            fdesc fresh = known(0);
            error = reason;
            struck = false;
            countdown = k;
            const int found = get_bookmark(&fresh);
            countdown = 0;
            EXPECT_NE(found, 0) << "call " << k << ": there is a record";
            if (found == 1) EXPECT_EQ(fresh.l, 500u) << "call " << k;
            if (struck) continue;
            EXPECT_GT(k, 4);
            break;
        }
    }
    EXPECT_FALSE(struck);
}

TEST_F(FailingLook, AFailedUpdateCountsInMemory) {
    tailed.l = 600;
    for (int k = 1; k < 100; ++k) {
        error = EIO;
        struck = false;
        countdown = k;
        const int result = update();
        countdown = 0;
        const fdesc before = tailed;
        EXPECT_EQ(get_bookmark(&tailed), 1) << "call " << k;
        EXPECT_EQ(tailed.l, 600u) << "call " << k;
        EXPECT_EQ(before.unsaved, result != 0) << "call " << k;
        if (struck) continue;
        EXPECT_EQ(result, 0);
        EXPECT_GT(k, 1);
        break;
    }
    EXPECT_FALSE(struck);
}

}  // namespace

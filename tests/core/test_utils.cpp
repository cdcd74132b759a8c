#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <memory>
#include <string>

#include "core/utils.h"
#include "tests/core/sandbox.h"

namespace {

// The definition of the checksum, bit by bit.
uint32_t reference_crc(const std::string &bytes) {
    uint32_t value = 0xFFFFFFFF;
    for (const unsigned char byte : bytes) {
        value ^= byte;
        for (int bit = 0; bit < 8; ++bit)
            value = value & 1 ? (value >> 1) ^ 0xEDB88320 : value >> 1;
    }
    return ~value;
}

std::string sample(size_t size) {
    std::string bytes(size, '\0');
    uint32_t seed = 12345;
    for (char &byte : bytes) {
        seed = seed * 1103515245 + 12345;
        byte = static_cast<char>(seed >> 16);
    }
    return bytes;
}

TEST(Crc, KnownValues) {
    EXPECT_EQ(checksum_bytes("123456789", 9), 0xCBF43926u);
    EXPECT_EQ(checksum_bytes("", 0), 0u);
    EXPECT_EQ(computeChecksum(std::string(256, '\0').data()), 0x0D968558u);
    EXPECT_EQ(computeChecksum(std::string(256, '\xff').data()), 0xFEA8A821u);
}

TEST(Crc, EveryLengthAgreesWithTheDefinition) {
    const std::string bytes = sample(600);
    crc_init();
    crc_init();
    for (size_t size = 0; size <= bytes.size(); ++size) {
        ASSERT_EQ(checksum_bytes(bytes.data(), size), reference_crc(bytes.substr(0, size))) << size;
    }
}

TEST(Crc, TheBlockIsExactly256Bytes) {
    const std::string bytes = sample(300);
    EXPECT_EQ(computeChecksum(bytes.data()), reference_crc(bytes.substr(0, 256)));
}

struct CrcOfFile : testing::Test {
    temp_dir dir;
    std::unique_ptr<FILE, int (*)(FILE *)> file{nullptr, fclose};
    void open_with(const std::string &bytes) {
        write_file(dir / "f", bytes);
        file.reset(fopen((dir / "f").c_str(), "r"));
        ASSERT_TRUE(file);
    }
};

TEST_F(CrcOfFile, HeadAndTailOfALongFile) {
    const std::string bytes = sample(1000);
    open_with(bytes);
    ASSERT_EQ(fseek(file.get(), 77, SEEK_SET), 0);
    EXPECT_EQ(calculateCRC(file.get(), 0), reference_crc(bytes.substr(0, 256)));
    EXPECT_EQ(ftell(file.get()), 77);
    // The 256 bytes that end one byte before the end of the file.
    EXPECT_EQ(calculateCRC(file.get(), 1000), reference_crc(bytes.substr(743, 256)));
    EXPECT_EQ(ftell(file.get()), 77);
}

TEST_F(CrcOfFile, MissingBytesCountAsZeros) {
    open_with("abc");
    std::string padded = "abc";
    padded.resize(256);
    EXPECT_EQ(calculateCRC(file.get(), 0), reference_crc(padded));
    EXPECT_EQ(ftell(file.get()), 0);
    EXPECT_FALSE(feof(file.get()));
}

TEST_F(CrcOfFile, ANegativeOffsetReadsAtTheCurrentPosition) {
    const std::string bytes = sample(200);
    open_with(bytes);
    ASSERT_EQ(fseek(file.get(), 50, SEEK_SET), 0);
    std::string rest = bytes.substr(50);
    rest.resize(256);
    EXPECT_EQ(calculateCRC(file.get(), 200), reference_crc(rest));
    EXPECT_EQ(ftell(file.get()), 50);
}

TEST_F(CrcOfFile, TheShortestFileWithARealTail) {
    const std::string bytes = sample(257);
    open_with(bytes);
    EXPECT_EQ(calculateCRC(file.get(), 257), reference_crc(bytes.substr(0, 256)));
}

TEST(CreateDir, MakesAllParents) {
    const temp_dir dir;
    const mode_t before = umask(022);
    EXPECT_EQ(create_dirx((dir / "a/b/c").c_str()), 0);
    umask(before);
    for (const char *made : {"a", "a/b", "a/b/c"}) {
        struct stat info;
        ASSERT_EQ(stat((dir / made).c_str(), &info), 0) << made;
        EXPECT_TRUE(S_ISDIR(info.st_mode)) << made;
        EXPECT_EQ(info.st_mode & 07777, 0755u) << made;
    }
}

TEST(CreateDir, WhateverExistsIsASuccess) {
    const temp_dir dir;
    write_file(dir / "file", "x");
    EXPECT_EQ(create_dirx(dir.path().c_str()), 0);
    EXPECT_EQ(create_dirx((dir / "file").c_str()), 0);
    EXPECT_EQ(create_dirx("/"), 0);
}

TEST(CreateDir, ATrailingSlashFailsTheFirstTimeOnly) {
    const temp_dir dir;
    EXPECT_EQ(create_dirx((dir / "new/").c_str()), -1);
    EXPECT_TRUE(std::filesystem::is_directory(dir / "new"));
    EXPECT_EQ(create_dirx((dir / "new/").c_str()), 0);
}

TEST(CreateDir, WhatCannotBeMadeIsAFailureAndAnEnd) {
    const temp_dir dir;
    write_file(dir / "file", "x");
    EXPECT_EQ(create_dirx((dir / "file/below").c_str()), -1);
    EXPECT_EQ(create_dirx("/proc/none/such"), -1);
    EXPECT_EQ(create_dirx(""), -1);
}

TEST(CreateDir, ANameWithoutSlashIsMadeWhereWeAre) {
    const temp_dir dir;
    const child_result child = run_in_child([&] {
        if (chdir(dir.path().c_str()) != 0) _exit(2);
        _exit(create_dirx("plain") == 0 && create_dirx("more/less") == 0 ? 0 : 1);
    });
    EXPECT_EQ(child.status, 0);
    EXPECT_TRUE(std::filesystem::is_directory(dir / "plain"));
    EXPECT_TRUE(std::filesystem::is_directory(dir / "more/less"));
}

TEST(CreateDir, WideNames) {
    const temp_dir dir;
    const std::wstring wide(dir.path().begin(), dir.path().end());
    EXPECT_EQ(create_dir((wide + L"/x/y").c_str()), 0);
    EXPECT_TRUE(std::filesystem::is_directory(dir / "x/y"));
    EXPECT_EQ(create_dir(nullptr), -1);
}

struct LockFile : testing::Test {
    temp_dir dir;
    std::string path = dir / "lock";
    child_result take() {
        return run_in_child([this] { obtain_lockfile_at(path.c_str()); });
    }
    void expect_refusal(const std::string &message) {
        const child_result child = take();
        EXPECT_EQ(child.status, 1);
        EXPECT_EQ(child.err, message);
        EXPECT_EQ(child.out, "");
    }
};

TEST_F(LockFile, IsMadeForUsAloneAndStaysEmpty) {
    EXPECT_EQ(take().status, 0);
    struct stat info;
    ASSERT_EQ(stat(path.c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 0777, 0600u);
    write_file(path, "left over");
    EXPECT_EQ(take().status, 0);
    EXPECT_EQ(read_file(path), "");
}

TEST_F(LockFile, ASecondHolderIsRefused) {
    const int holder = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    for (const int kind : {LOCK_EX, LOCK_SH}) {
        ASSERT_EQ(flock(holder, kind | LOCK_NB), 0);
        expect_refusal("Lock File is Locked\n");
    }
    ASSERT_EQ(flock(holder, LOCK_UN), 0);
    EXPECT_EQ(take().status, 0);
    close(holder);
}

TEST_F(LockFile, ReleasingLetsTheNextOneIn) {
    const child_result child = run_in_child([this] {
        release_lockfile();  // nothing held yet
        obtain_lockfile_at(path.c_str());
        release_lockfile();
        const int next = open(path.c_str(), O_WRONLY);
        _exit(next >= 0 && flock(next, LOCK_EX | LOCK_NB) == 0 ? 0 : 1);
    });
    EXPECT_EQ(child.status, 0);
    EXPECT_TRUE(std::filesystem::exists(path));
}

TEST_F(LockFile, IsClosedOnExec) {
    const child_result child = run_in_child([this] {
        const int next = open("/dev/null", O_RDONLY);  // the lock file will get its number
        close(next);
        obtain_lockfile_at(path.c_str());
        _exit((fcntl(next, F_GETFD) & FD_CLOEXEC) != 0 ? 0 : 1);
    });
    EXPECT_EQ(child.status, 0);
}

TEST_F(LockFile, AFailedOpenSaysWhy) {
    path = dir / "none/lock";
    expect_refusal("Failed to obtain file lock: -1 - No such file or directory\n");
}

TEST_F(LockFile, ALinkIsNotFollowed) {
    write_file(dir / "target", "precious");
    ASSERT_EQ(symlink((dir / "target").c_str(), path.c_str()), 0);
    expect_refusal("Failed to obtain file lock: -1 - Too many levels of symbolic links\n");
    EXPECT_EQ(read_file(dir / "target"), "precious");
}

TEST_F(LockFile, ASecondNameOfAFileIsNotEmptied) {
    write_file(dir / "target", "precious");
    ASSERT_EQ(link((dir / "target").c_str(), path.c_str()), 0);
    expect_refusal("Error Getting Lock File\n");
    EXPECT_EQ(read_file(dir / "target"), "precious");
}

TEST_F(LockFile, AFifoDoesNotBlock) {
    ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
    expect_refusal("Failed to obtain file lock: -1 - No such device or address\n");
}

}  // namespace

// The check of all positions before a pass, and the opt-in that recognises small files.

#include <fcntl.h>
#include <unistd.h>

#include "filetail/bookmark.h"
#include "tests/filetail/bookmark_kit.h"

namespace {

using namespace bookmark_kit;

class SmallFileGuardTest : public StoreTest {
  protected:
    void SetUp() override {
        StoreTest::SetUp();
        bookmark_guard_small_files(true);
        path = logs + "a";
    }
    uint64_t location_after_look_up() {
        forget();
        fdesc *file = track(path);
        EXPECT_EQ(get_bookmark(file), 1);
        return file->l;
    }
    std::string path;
};

TEST_F(SmallFileGuardTest, ResumesWhatOnlyGrew) {
    write_file(path, "one\n");
    update(track_at(path, 4));
    append_file(path, "two\n");
    EXPECT_EQ(location_after_look_up(), 4u);
    append_file(path, lines(500));
    EXPECT_EQ(location_after_look_up(), 4u);
}

TEST_F(SmallFileGuardTest, AnUnfinishedLineBehindTheLocationBelongsToTheStart) {
    write_file(path, "one\nunfin");
    update(track_at(path, 4));
    append_file(path, "ished\n");
    EXPECT_EQ(location_after_look_up(), 4u);
}

TEST_F(SmallFileGuardTest, OtherTextStartsOver) {
    write_file(path, "one\n");
    update(track_at(path, 4));
    write_file(path, "uno\ndue\n");
    EXPECT_EQ(location_after_look_up(), 0u);
}

TEST_F(SmallFileGuardTest, CutFileStartsOver) {
    write_file(path, "one\ntwo\n");
    update(track_at(path, 8));
    write_file(path, "one\n");
    EXPECT_EQ(location_after_look_up(), 0u);
}

// The file was emptied after its events were read but before the bookmark was written: what came
// then was never sent, although the record's checksum is that of an empty beginning.
TEST_F(SmallFileGuardTest, EmptiedBeforeTheBookmarkStartsOver) {
    write_file(path, "");
    write_file(bookmarks, record(8, crc256(""), crc256(""), path));
    write_file(path, "new text that was never sent\n");
    EXPECT_EQ(location_after_look_up(), 0u);
}

TEST_F(SmallFileGuardTest, Between255And256Bytes) {
    write_file(path, std::string(255, 'x'));
    update(track_at(path, 255));
    append_file(path, std::string(100, 'y'));
    EXPECT_EQ(location_after_look_up(), 255u);
    write_file(path, std::string(256, 'x'));
    forget();
    std::filesystem::remove(bookmarks);
    update(track_at(path, 256));
    append_file(path, std::string(100, 'y'));
    EXPECT_EQ(location_after_look_up(), 256u);
    write_file(path, std::string(255, 'x') + std::string(100, 'y'));
    EXPECT_EQ(location_after_look_up(), 0u);
}

// The record's checksum covers what the file had when it was written: never less than the location,
// unless the file was emptied in between, and then nothing of its new text was sent.
TEST_F(SmallFileGuardTest, EveryLocationAgainstEverySizeAtTheRecord) {
    std::string text;
    for (int i = 0; i < 600; ++i) text += static_cast<char>('!' + i * i % 90);
    for (const size_t grown : {size_t{3}, size_t{256}, text.size()}) {
        write_file(path, text.substr(0, grown));
        for (size_t size = 0; size < 256 && size < grown; size += size < 4 ? 1 : 28) {
            for (size_t location = 0; location <= 256; location += location < 4 ? 1 : 28) {
                write_file(bookmarks, record(location, crc256(text.substr(0, size)), 0, path));
                const bool same = location <= size;
                EXPECT_EQ(location_after_look_up(), same ? location : 0u)
                    << size << " bytes at the record, location " << location << ", now " << grown;
            }
        }
    }
}

TEST_F(SmallFileGuardTest, TruncatedAndWrittenAnew) {
    write_file(path, "one\ntwo\n");
    update(track_at(path, 8));
    for (const std::string text :
         {"", "one", "one\n", "one\ntwo", "one\ntWo\n", "three\nfour\nfive\n"}) {
        write_file(path, text);
        EXPECT_EQ(location_after_look_up(), 0u) << text;
    }
    write_file(path, "one\ntwo\n");
    EXPECT_EQ(location_after_look_up(), 8u) << "equal, byte for byte: it cannot be told apart";
}

TEST_F(SmallFileGuardTest, WithoutItWhatHasGrownStartsOver) {
    bookmark_guard_small_files(false);
    write_file(path, "one\n");
    update(track_at(path, 4));
    EXPECT_EQ(location_after_look_up(), 4u);
    append_file(path, "two\n");
    EXPECT_EQ(location_after_look_up(), 0u);
}

class VerifyTest : public StoreTest {
  protected:
    ft_bm group = {};
    void verify() {
        group.f = files.data();
        group.fc = static_cast<int32_t>(files.size());
        verify_bookmark_file(&group);
    }
};

TEST_F(VerifyTest, SetsEveryPositionFromItsRecord) {
    for (const char *name : {"a", "b", "c"}) {
        write_file(logs + name, lines(100, name));
        update(track_at(logs + name, 100));
    }
    write_file(bookmarks, image().replace(0, 15, "000000000000050"));
    files[2]->l = 12345;
    verify();
    EXPECT_EQ(files[0]->l, 50u);
    EXPECT_EQ(files[1]->l, 100u);
    EXPECT_EQ(files[2]->l, 100u);
}

TEST_F(VerifyTest, VanishedFileLosesItsRecord) {
    for (const char *name : {"a", "b", "c"}) {
        write_file(logs + name, lines(100, name));
        update(track_at(logs + name, 100));
    }
    const std::string before = image();
    std::filesystem::remove(logs + "b");
    verify();
    EXPECT_EQ(image(), before.substr(0, 199) + before.substr(398));
    EXPECT_EQ(files[1]->l, 100u) << "the position in memory stays";
}

TEST_F(VerifyTest, RecordRemovedByHandKeepsThePositionInMemory) {
    write_file(logs + "a", lines(100));
    update(track_at(logs + "a", 100));
    write_file(bookmarks, "");
    verify();
    EXPECT_EQ(files[0]->l, 100u);
    EXPECT_EQ(image(), "");
}

TEST_F(VerifyTest, FileWithoutARecordThatWasCutStartsOver) {
    const std::string path = logs + "a b";
    write_file(path, lines(100));
    update(track_at(path, 500));
    verify();
    EXPECT_EQ(files[0]->l, 500u);
    write_file(path, lines(1));
    verify();
    EXPECT_EQ(files[0]->l, 0u);
}

// Renamed between the scan and the look-up, and made anew before the next scan: the record is gone,
// and the position belongs to another file.
TEST_F(VerifyTest, FileMadeAnewAfterItsRecordWasDroppedStartsOver) {
    const std::string path = logs + "a";
    write_file(path, lines(100));
    update(track_at(path, 500));
    verify();
    std::filesystem::rename(path, path + ".1");
    verify();
    EXPECT_EQ(image(), "");
    EXPECT_EQ(files[0]->l, 500u);
    write_file(path, lines(1000, "another log"));
    verify();
    EXPECT_EQ(files[0]->l, 0u);
}

TEST_F(VerifyTest, FileThatCameBackUnderItsNameGoesOn) {
    const std::string path = logs + "a";
    write_file(path, lines(100));
    update(track_at(path, 500));
    verify();
    std::filesystem::rename(path, path + ".1");
    verify();
    std::filesystem::rename(path + ".1", path);
    append_file(path, lines(100));
    verify();
    EXPECT_EQ(files[0]->l, 500u);
}

TEST_F(VerifyTest, ChangedFileIsLookedAtAgainAndUnchangedOneLogsTheSame) {
    const std::string path = logs + "a";
    write_file(path, lines(100));
    update(track_at(path, 100));
    // Old enough for its checksums to be kept.
    std::string first, second;
    {
        Capture log(15);
        verify();
        first = log.text().substr(20);
    }
    files[0]->settled = 1;
    {
        Capture log(15);
        verify();
        second = log.text().substr(20);
    }
    EXPECT_EQ(count_of(first, "Resume reading file: " + path + " starting at: 100\n"), 1u);
    EXPECT_EQ(count_of(first, "\n"), count_of(second, "\n"));
    EXPECT_EQ(count_of(second, "Resume reading file: " + path + " starting at: 100\n"), 1u);
    write_file(path, lines(100, "quite another log"));
    verify();
    EXPECT_EQ(files[0]->l, 0u);
}

TEST_F(VerifyTest, EqualSizeAndAnotherHeadIsNoticed) {
    const std::string path = logs + "a";
    write_file(path, std::string(5000, 'a'));
    update(track_at(path, 100));
    verify();
    EXPECT_EQ(files[0]->settled, 0) << "changed a moment ago: not to be trusted yet";
    const int fd = open(path.c_str(), O_WRONLY);
    ASSERT_EQ(pwrite(fd, "b", 1, 0), 1);
    close(fd);
    verify();
    EXPECT_EQ(files[0]->l, 0u);
}

}  // namespace

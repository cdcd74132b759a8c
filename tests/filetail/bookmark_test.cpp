// The rules of the bookmark store, one after another, with the bytes of the file and of the log.

#include "filetail/bookmark.h"

#include <fcntl.h>
#include <unistd.h>

#include "filetail/bookmark_format.h"
#include "tests/filetail/bookmark_kit.h"

namespace {

using namespace bookmark_kit;

class BookmarkTest : public StoreTest {};

TEST_F(BookmarkTest, FirstUpdateCreatesTheFileWithOneRecord) {
    const std::string content = lines(100);
    const std::string path = logs + "a.log";
    write_file(path, content);
    fdesc *file = track_at(path, 77);
    umask(022);
    ASSERT_EQ(update(file), 0);
    EXPECT_EQ(image(), record(77, head_of(content), tail_of(content), path));
    EXPECT_EQ(file->h, head_of(content));
    EXPECT_EQ(file->t, tail_of(content));
    struct stat st;
    ASSERT_EQ(stat(bookmarks.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0644u);
}

TEST_F(BookmarkTest, UpdateOverwritesItsOwnRecordOnly) {
    std::string expected;
    for (const char *name : {"a", "b", "c"}) {
        write_file(logs + name, lines(100, name));
        ASSERT_EQ(update(track_at(logs + name, 10)), 0);
        const std::string content = lines(100, name);
        expected += record(10, head_of(content), tail_of(content), logs + name);
    }
    EXPECT_EQ(image(), expected);
    files[1]->l = 999;
    ASSERT_EQ(update(files[1]), 0);
    const std::string content = lines(100, "b");
    expected.replace(199, 199, record(999, head_of(content), tail_of(content), logs + "b"));
    EXPECT_EQ(image(), expected);
}

TEST_F(BookmarkTest, TailRangeEndsOneByteBeforeTheEnd) {
    std::string content(1000, 'x');
    for (size_t i = 0; i < content.size(); ++i) content[i] = static_cast<char>('a' + i % 23);
    write_file(logs + "a", content);
    ASSERT_EQ(update(track_at(logs + "a", 0)), 0);
    EXPECT_EQ(image(), record(0, crc256(content.substr(0, 256)), crc256(content.substr(743, 256)),
                              logs + "a"));
}

TEST_F(BookmarkTest, FileOf257BytesHasItsFirst256AsTail) {
    const std::string content(257, 'q');
    write_file(logs + "a", content);
    ASSERT_EQ(update(track_at(logs + "a", 0)), 0);
    EXPECT_EQ(image(), record(0, head_of(content), crc256(std::string(256, 'q')), logs + "a"));
}

// With fewer than 257 bytes the tail is read at the stream's position, missing bytes being zero.
TEST_F(BookmarkTest, SmallFileTakesItsTailFromTheStreamsPosition) {
    const std::string content = "first line\nsecond line\nthird\n";
    write_file(logs + "a", content);
    fdesc *file = track_at(logs + "a", 11);
    FILE *stream = fopen(file->n, "r");
    ASSERT_NE(stream, nullptr);
    for (const long position : {0L, 11L, 23L, static_cast<long>(content.size())}) {
        ASSERT_EQ(fseek(stream, position, SEEK_SET), 0);
        ASSERT_EQ(update_bookmark(stream, file), 0);
        EXPECT_EQ(ftell(stream), position);
        const std::string rest = content.substr(static_cast<size_t>(position));
        EXPECT_EQ(image(), record(11, head_of(content), crc256(rest), logs + "a"));
    }
    fclose(stream);
}

TEST_F(BookmarkTest, DescriptorFormsAgreeWithTheStream) {
    const std::string content = "first line\nsecond line\n";
    write_file(logs + "a", content);
    fdesc *file = track_at(logs + "a", 11);
    const int fd = open(file->n, O_RDONLY);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(lseek(fd, 11, SEEK_SET), 11);
    ASSERT_EQ(update_bookmark_fd(fd, file), 0);
    const std::string by_descriptor = image();
    EXPECT_EQ(lseek(fd, 0, SEEK_CUR), 11);
    EXPECT_EQ(by_descriptor, record(11, head_of(content), crc256(content.substr(11)), logs + "a"));
    ASSERT_EQ(update_bookmark_at(fd, file, content.size()), 0);
    EXPECT_EQ(image(), record(11, head_of(content), crc256(""), logs + "a"));
    EXPECT_EQ(lseek(fd, 0, SEEK_CUR), 11);
    close(fd);
}

TEST_F(BookmarkTest, EmptyFileHasTheChecksumOf256Zeros) {
    write_file(logs + "a", "");
    ASSERT_EQ(update(track_at(logs + "a", 0)), 0);
    EXPECT_EQ(image(), record(0, 0x0D968558, 0x0D968558, logs + "a"));
}

TEST_F(BookmarkTest, LocationKeepsMoreThan32Bits) {
    const std::string path = logs + "big";
    write_file(path, lines(100));
    ASSERT_EQ(truncate(path.c_str(), 6'000'000'000), 0);
    ASSERT_EQ(update(track_at(path, 5'000'000'000)), 0);
    EXPECT_EQ(image().substr(0, 16), "000005000000000|");
    forget();
    fdesc *file = track(path);
    EXPECT_EQ(get_bookmark(file), 1);
    EXPECT_EQ(file->l, 5'000'000'000u);
}

TEST_F(BookmarkTest, LookUpResumesAtTheStoredLocation) {
    const std::string path = logs + "a";
    const std::string content = lines(100);
    write_file(path, content);
    update(track_at(path, 120));
    forget();
    append_file(path, "more\n");
    const std::string now = content + "more\n";
    fdesc *file = track(path);
    Capture log;
    EXPECT_EQ(get_bookmark(file), 1);
    EXPECT_EQ(file->l, 120u);
    const std::string text = log.text();
    const auto has = [&](const std::string &line) {
        EXPECT_EQ(count_of(text, line + "\n"), 1u) << line << "\nin\n" << text;
    };
    has(":(DEBUG) Found file info in bookmark for: " + path);
    has(":(DEBUG) \tFile location: bookmark - 120, file size - " + std::to_string(now.size()));
    has(":(DEBUG) \tFile head: bookmark - " + std::to_string(head_of(content)) + ", file - " +
        std::to_string(head_of(now)));
    has(":(DEBUG) \tFile tail: bookmark - " + std::to_string(tail_of(content)) + ", file - " +
        std::to_string(tail_of(now)));
    has(":(INFO) Resume reading file: " + path + " starting at: 120");
    has(":(DEBUG) \tFile location set to: 120");
}

TEST_F(BookmarkTest, LookUpWithoutARecordLeavesTheLocationAlone) {
    write_file(logs + "a", lines(100));
    update(track_at(logs + "a", 5));
    write_file(logs + "b", lines(100));
    fdesc *file = track_at(logs + "b", 33);
    EXPECT_EQ(get_bookmark(file), 0);
    EXPECT_EQ(file->l, 33u);
}

TEST_F(BookmarkTest, FileCutBelowItsLocationStartsOver) {
    const std::string path = logs + "a";
    const std::string content = lines(100);
    write_file(path, content);
    update(track_at(path, content.size()));
    forget();
    ASSERT_EQ(truncate(path.c_str(), 300), 0);
    fdesc *file = track(path);
    Capture log;
    EXPECT_EQ(get_bookmark(file), 1);
    EXPECT_EQ(file->l, 0u);
    const std::string text = log.text();
    EXPECT_EQ(count_of(text,
                       ":(INFO) Started reading file over cause the start of the file didn't "
                       "match: " +
                           path + "\n"),
              1u)
        << text;
    EXPECT_EQ(count_of(text, "\tFile location set to: 0\n"), 1u);
    EXPECT_EQ(count_of(text, "Resume reading"), 0u);
}

TEST_F(BookmarkTest, AnotherHeadStartsOverEvenWhenLarger) {
    const std::string path = logs + "a";
    write_file(path, lines(20));
    update(track_at(path, 40));
    forget();
    write_file(path, lines(2000, "rotated"));
    fdesc *file = track(path);
    EXPECT_EQ(get_bookmark(file), 1);
    EXPECT_EQ(file->l, 0u);
}

TEST_F(BookmarkTest, FileAtExactlyItsLocationResumes) {
    const std::string path = logs + "a";
    write_file(path, lines(50));
    update(track_at(path, lines(50).size()));
    forget();
    fdesc *file = track(path);
    EXPECT_EQ(get_bookmark(file), 1);
    EXPECT_EQ(file->l, lines(50).size());
}

TEST_F(BookmarkTest, TailTakesNoPartInTheDecision) {
    const std::string path = logs + "a";
    const std::string content = lines(100);
    write_file(path, content);
    write_file(bookmarks, record(64, head_of(content), 12345, path));
    fdesc *file = track(path);
    EXPECT_EQ(get_bookmark(file), 1);
    EXPECT_EQ(file->l, 64u);
    EXPECT_EQ(file->t, 12345u);
}

TEST_F(BookmarkTest, SmallFileThatGrewStartsOver) {
    const std::string path = logs + "a";
    write_file(path, "one\n");
    update(track_at(path, 4));
    forget();
    append_file(path, "two\n");
    fdesc *file = track(path);
    EXPECT_EQ(get_bookmark(file), 1);
    EXPECT_EQ(file->l, 0u);
}

TEST_F(BookmarkTest, DeletingTheOnlyRecordLeavesAnEmptyFile) {
    write_file(logs + "a", lines(50));
    update(track_at(logs + "a", 5));
    EXPECT_EQ(delete_bookmark((logs + "a").c_str()), 0);
    EXPECT_TRUE(std::filesystem::exists(bookmarks));
    EXPECT_EQ(image(), "");
}

TEST_F(BookmarkTest, DeletingAMiddleRecordKeepsTheOrder) {
    std::string all[5];
    for (int i = 0; i < 5; ++i) {
        const std::string path = logs + static_cast<char>('a' + i);
        write_file(path, lines(50 + i));
        update(track_at(path, 1 + i));
        all[i] = image().substr(199 * i);
    }
    Capture log;
    EXPECT_EQ(delete_bookmark((logs + "b").c_str()), 0);
    EXPECT_EQ(image(), all[0] + all[2] + all[3] + all[4]);
    EXPECT_EQ(delete_bookmark((logs + "e").c_str()), 0);
    EXPECT_EQ(image(), all[0] + all[2] + all[3]);
    EXPECT_EQ(delete_bookmark((logs + "a").c_str()), 0);
    EXPECT_EQ(delete_bookmark((logs + "a").c_str()), 0);
    EXPECT_EQ(delete_bookmark((logs + "never").c_str()), 0);
    EXPECT_EQ(image(), all[2] + all[3]);
    const std::string text = log.text();
    EXPECT_EQ(count_of(text, ":(DEBUG) Delete '" + logs + "b' from bookmark file\n"), 1u);
    EXPECT_EQ(count_of(text, "Delete '"), 3u) << text;
    // The moved records are still found where they stand now.
    files[3]->l = 4711;
    EXPECT_EQ(update(files[3]), 0);
    EXPECT_EQ(image().substr(0, 199), all[2]);
    EXPECT_EQ(image().substr(199, 16), "000000000004711|");
    EXPECT_EQ(image().size(), 398u);
}

TEST_F(BookmarkTest, UpdateIsLoggedWithTheRecord) {
    write_file(logs + "a", lines(50));
    fdesc *file = track_at(logs + "a", 5);
    Capture log;
    update(file);
    EXPECT_EQ(
        count_of(log.text(), ":(DEBUG) Wrote '" + image().substr(0, 198) + "' to bookmark file\n"),
        1u);
}

TEST_F(BookmarkTest, PathWithABlankNeverFindsItsRecord) {
    const std::string path = logs + "a b";
    write_file(path, lines(50));
    fdesc *file = track_at(path, 10);
    EXPECT_EQ(update(file), 0);
    EXPECT_EQ(update(file), 0);
    EXPECT_EQ(image().size(), 2 * 199u) << "a further record on each update";
    EXPECT_EQ(get_bookmark(file), 0);
    EXPECT_EQ(file->l, 10u);
    EXPECT_EQ(delete_bookmark(path.c_str()), 0);
    EXPECT_EQ(image().size(), 2 * 199u);
}

TEST_F(BookmarkTest, RecordOfAPathWithABlankIsNotThatOfItsBeginning) {
    write_file(logs + "a b", lines(50));
    update(track_at(logs + "a b", 10));
    write_file(logs + "a", lines(50));
    fdesc *file = track(logs + "a");
    EXPECT_EQ(get_bookmark(file), 0);
    EXPECT_EQ(delete_bookmark(file->n), 0);
    EXPECT_EQ(image().size(), 199u);
}

TEST_F(BookmarkTest, PathOf150BytesWorksAndOf151IsRefusedOnce) {
    const std::string longest = logs + std::string(150 - logs.size(), 'p');
    write_file(longest, lines(50));
    EXPECT_EQ(update(track_at(longest, 7)), 0);
    EXPECT_EQ(image().substr(48), longest + "\n");
    fdesc *found = track(longest);
    EXPECT_EQ(get_bookmark(found), 1);
    EXPECT_EQ(found->l, 7u);

    const std::string before = image();
    const std::string too_long = longest + "p";
    write_file(too_long, lines(50));
    fdesc *file = track_at(too_long, 7);
    Capture log;
    EXPECT_EQ(update(file), -1);
    EXPECT_EQ(update(file), -1);
    EXPECT_EQ(image(), before);
    EXPECT_EQ(count_of(log.text(), ":(ERROR) "), 1u);
}

TEST_F(BookmarkTest, FirstOfSeveralRecordsOfAPathCounts) {
    const std::string path = logs + "a";
    const std::string content = lines(50);
    write_file(path, content);
    const uint32_t head = head_of(content);
    const std::string other = record(1, 2, 3, logs + "x");
    write_file(bookmarks, other + record(10, head, 0, path) + other + record(20, head, 0, path));
    fdesc *file = track(path);
    EXPECT_EQ(get_bookmark(file), 1);
    EXPECT_EQ(file->l, 10u);
    file->l = 30;
    update(file);
    EXPECT_EQ(image().substr(199, 15), "000000000000030");
    EXPECT_EQ(image().substr(3 * 199, 15), "000000000000020");
    delete_bookmark(file->n);
    EXPECT_EQ(get_bookmark(file), 1);
    EXPECT_EQ(file->l, 20u);
}

}  // namespace

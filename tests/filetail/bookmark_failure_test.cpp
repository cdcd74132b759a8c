// What the bookmark store does when its file, or a tailed file, is not what it should be: missing,
// unusable, cut, damaged, changed or replaced by hand, or full.

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "filetail/bookmark.h"
#include "filetail/bookmark_file.h"
#include "tests/filetail/bookmark_kit.h"

namespace {

using namespace bookmark_kit;

class BookmarkFailureTest : public StoreTest {
  protected:
    // Three files of 100 lines with a record each, locations 10, 20, 30.
    void three() {
        for (const char *name : {"a", "b", "c"}) {
            write_file(logs + name, lines(100, name));
            fdesc *file = track_at(logs + name, 10 * files.size() + 10);
            ASSERT_EQ(update(file), 0);
        }
    }
    std::string three_records() const {
        std::string all;
        int location = 10;
        for (const char *name : {"a", "b", "c"}) {
            const std::string content = lines(100, name);
            all += record(location, head_of(content), tail_of(content), logs + name);
            location += 10;
        }
        return all;
    }
    void verify() {
        group.f = files.data();
        group.fc = static_cast<int32_t>(files.size());
        verify_bookmark_file(&group);
    }
    ft_bm group = {};
};

TEST_F(BookmarkFailureTest, UnusableBookmarkFileIsReportedByEveryOperation) {
    write_file(logs + "a", lines(100));
    std::filesystem::create_directory(bookmarks);
    fdesc *file = track_at(logs + "a", 10);
    Capture log;
    EXPECT_EQ(update(file), -1);
    EXPECT_EQ(get_bookmark(file), -1);
    EXPECT_EQ(delete_bookmark(file->n), -1);
    EXPECT_EQ(file->l, 10u);
    const std::string text = log.text();
    const std::string reason = strerror(EISDIR);
    EXPECT_EQ(count_of(text, ":(ERROR) Error opening bookmark file (" + bookmarks +
                                 ") for update: " + reason + "\n"),
              2u)
        << text;
    EXPECT_EQ(count_of(text, ":(ERROR) Error opening bookmark file (" + bookmarks +
                                 ") for reading: (" + std::to_string(EISDIR) + ")" + reason + "\n"),
              1u)
        << text;
}

TEST_F(BookmarkFailureTest, MissingDirectoryIsAnOpenError) {
    write_file(logs + "a", lines(100));
    use_directory(root + "/none");
    fdesc *file = track_at(logs + "a", 10);
    Capture log;
    EXPECT_EQ(update(file), -1);
    EXPECT_NE(log.text().find("for update: No such file or directory\n"), std::string::npos);
    std::filesystem::create_directory(root + "/none");
    EXPECT_EQ(update(file), 0);
    EXPECT_EQ(read_file(root + "/none/ft_bookmark").size(), 199u);
}

TEST_F(BookmarkFailureTest, LinksAreNotFollowed) {
    write_file(root + "/victim", "precious\n");
    ASSERT_EQ(symlink((root + "/victim").c_str(), bookmarks.c_str()), 0);
    write_file(logs + "a", lines(100));
    fdesc *file = track_at(logs + "a", 10);
    EXPECT_EQ(update(file), -1);
    EXPECT_EQ(get_bookmark(file), -1);
    EXPECT_EQ(read_file(root + "/victim"), "precious\n");
}

TEST_F(BookmarkFailureTest, LinkPutInPlaceOfTheOpenFileIsNotFollowed) {
    three();
    std::filesystem::rename(bookmarks, root + "/victim");
    ASSERT_EQ(symlink((root + "/victim").c_str(), bookmarks.c_str()), 0);
    EXPECT_EQ(update(files[0]), -1);
    EXPECT_EQ(read_file(root + "/victim"), three_records());
}

TEST_F(BookmarkFailureTest, FifoInPlaceOfTheBookmarkFileDoesNotBlock) {
    ASSERT_EQ(mkfifo(bookmarks.c_str(), 0644), 0);
    write_file(logs + "a", lines(100));
    EXPECT_EQ(update(track_at(logs + "a", 10)), -1);
}

TEST_F(BookmarkFailureTest, PathOver255BytesIsNeverCut) {
    std::string deep = root;
    while (deep.size() < 250) {
        deep += "/" + std::string(std::min<size_t>(60, 252 - deep.size()), 'd');
        std::filesystem::create_directory(deep);
    }
    write_file(logs + "a", lines(100));
    fdesc *file = track_at(logs + "a", 10);
    use_directory(deep);
    Capture log;
    EXPECT_EQ(update(file), -1);
    EXPECT_NE(log.text().find("for update: File name too long\n"), std::string::npos);
    EXPECT_TRUE(std::filesystem::is_empty(deep));
    use_directory(root);
    EXPECT_EQ(update(file), 0);
}

TEST_F(BookmarkFailureTest, PathOfExactly255BytesWorks) {
    std::string deep = root;
    const size_t wanted = 255 - strlen("/ft_bookmark");
    while (deep.size() < wanted) {
        const size_t left = wanted - deep.size() - 1;
        deep += "/" + std::string(left > 100 ? 60 : left, 'd');
        std::filesystem::create_directory(deep);
    }
    write_file(logs + "a", lines(100));
    use_directory(deep);
    EXPECT_EQ(strlen(bm_filename), 255u);
    EXPECT_EQ(update(track_at(logs + "a", 10)), 0);
    EXPECT_EQ(read_file(deep + "/ft_bookmark").size(), 199u);
}

TEST_F(BookmarkFailureTest, AfterAFailedUpdateThePositionInMemoryWins) {
    three();
    const std::string saved = image();
    std::filesystem::rename(bookmarks, root + "/aside");
    std::filesystem::create_directory(bookmarks);
    files[0]->l = 77;
    EXPECT_EQ(update(files[0]), -1);
    std::filesystem::remove(bookmarks);
    std::filesystem::rename(root + "/aside", bookmarks);
    EXPECT_EQ(get_bookmark(files[0]), 1);
    EXPECT_EQ(files[0]->l, 77u) << "the file still says 10";
    EXPECT_EQ(image(), saved);
    verify();
    EXPECT_EQ(image().substr(0, 16), "000000000000077|") << "written as soon as that is possible";
    EXPECT_EQ(image().substr(199), saved.substr(199));
    EXPECT_EQ(files[0]->unsaved, 0);
    write_file(bookmarks, image().replace(0, 15, "000000000000033"));
    verify();
    EXPECT_EQ(files[0]->l, 33u) << "and from then on the file is the truth again";
}

TEST_F(BookmarkFailureTest, UnsavedFileThatWasCutStillStartsOver) {
    three();
    std::filesystem::remove(bookmarks);
    std::filesystem::create_directory(bookmarks);
    files[0]->l = 200;
    EXPECT_EQ(update(files[0]), -1);
    write_file(files[0]->n, "new\n");
    verify();
    EXPECT_EQ(files[0]->l, 0u);
}

TEST_F(BookmarkFailureTest, WithoutAStoreAFileThatGrowsGoesOn) {
    std::filesystem::create_directory(bookmarks);
    fdesc *small = track_at(logs + "small", 4), *large = track_at(logs + "large", 300);
    write_file(small->n, "one\n");
    write_file(large->n, std::string(299, 'x') + "\n");
    EXPECT_EQ(update(small), -1);
    EXPECT_EQ(update(large), -1);
    EXPECT_EQ(get_bookmark(small), -1);
    EXPECT_EQ(get_bookmark(large), -1);
    append_file(small->n, "two\n");
    append_file(large->n, "two\n");
    Capture log;
    EXPECT_EQ(get_bookmark(small), -1);
    EXPECT_EQ(get_bookmark(large), -1);
    EXPECT_EQ(small->l, 4u) << "no record says that its head was another one";
    EXPECT_EQ(large->l, 300u);
    write_file(large->n, std::string(400, 'y') + "\n");
    EXPECT_EQ(get_bookmark(large), -1);
    EXPECT_EQ(large->l, 0u) << "written anew in its place";
    const std::string text = log.text();
    EXPECT_EQ(count_of(text, "Found file info"), 0u);
    EXPECT_EQ(count_of(text, "Started reading file over"), 1u);
    EXPECT_EQ(count_of(text, "for reading: (21)Is a directory\n"), 3u);
}

TEST_F(BookmarkFailureTest, WhileTheStoreCannotBeOpenedPositionsStay) {
    three();
    const std::string saved = image();
    std::filesystem::rename(bookmarks, root + "/aside");
    std::filesystem::create_directory(bookmarks);
    files[1]->l = 55;
    verify();
    EXPECT_EQ(files[0]->l, 10u);
    EXPECT_EQ(files[1]->l, 55u);
    std::filesystem::remove(bookmarks);
    std::filesystem::rename(root + "/aside", bookmarks);
    verify();
    EXPECT_EQ(image(), saved) << "no record was dropped for a file that was only not looked up";
    EXPECT_EQ(files[1]->l, 20u);
}

TEST_F(BookmarkFailureTest, TailedFileThatCannotBeOpenedKeepsItsRecord) {
    three();
    const std::string saved = image();
    std::filesystem::rename(logs + "b", root + "/b");
    ASSERT_EQ(symlink("b", (logs + "b").c_str()), 0);  // ELOOP
    files[1]->l = 55;
    EXPECT_EQ(get_bookmark(files[1]), -1);
    verify();
    EXPECT_EQ(image(), saved);
    EXPECT_EQ(files[1]->l, 55u);
    std::filesystem::remove(logs + "b");
    std::filesystem::rename(root + "/b", logs + "b");
    verify();
    EXPECT_EQ(files[1]->l, 20u);
}

TEST_F(BookmarkFailureTest, NoDescriptorsLeftKeepsRecordsAndPositions) {
    three();
    const std::string saved = image();
    rlimit before;
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &before), 0);
    rlimit low = before;
    const int probe = open("/dev/null", O_RDONLY);
    ASSERT_GE(probe, 0);
    low.rlim_cur = static_cast<rlim_t>(probe) + 1;  // no number below is free
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &low), 0);
    for (fdesc *file : files) {
        file->settled = 0;
        file->l += 5;
        EXPECT_EQ(get_bookmark(file), -1);
        EXPECT_EQ(errno, EMFILE);
    }
    verify();
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &before), 0);
    close(probe);
    EXPECT_EQ(image(), saved);
    EXPECT_EQ(files[2]->l, 35u);
    verify();
    EXPECT_EQ(files[2]->l, 30u);
}

TEST_F(BookmarkFailureTest, FifoInPlaceOfATailedFileCountsAsMissing) {
    three();
    std::filesystem::remove(logs + "b");
    ASSERT_EQ(mkfifo((logs + "b").c_str(), 0644), 0);
    EXPECT_EQ(get_bookmark(files[1]), 0);
}

TEST_F(BookmarkFailureTest, FileReplacedByHandIsNoticed) {
    three();
    const std::string content = lines(100, "b");
    write_file(root + "/new",
               record(1, 2, 3, logs + "x") + record(44, head_of(content), 0, logs + "b"));
    std::filesystem::rename(root + "/new", bookmarks);
    EXPECT_EQ(get_bookmark(files[1]), 1);
    EXPECT_EQ(files[1]->l, 44u);
    EXPECT_EQ(get_bookmark(files[0]), 0);
    files[1]->l = 45;
    EXPECT_EQ(update(files[1]), 0);
    EXPECT_EQ(image(), record(1, 2, 3, logs + "x") +
                           record(45, head_of(content), tail_of(content), logs + "b"));
}

TEST_F(BookmarkFailureTest, FileDeletedByHandIsMadeAgain) {
    three();
    std::filesystem::remove(bookmarks);
    files[2]->l = 5;
    EXPECT_EQ(update(files[2]), 0);
    const std::string content = lines(100, "c");
    EXPECT_EQ(image(), record(5, head_of(content), tail_of(content), logs + "c"));
}

TEST_F(BookmarkFailureTest, FileCutByHandIsNoticed) {
    three();
    const std::string saved = image();
    ASSERT_EQ(truncate(bookmarks.c_str(), 199), 0);
    EXPECT_EQ(get_bookmark(files[1]), 0);
    files[1]->l = 20;
    EXPECT_EQ(update(files[1]), 0);
    EXPECT_EQ(image(), saved.substr(0, 398));
    ASSERT_EQ(truncate(bookmarks.c_str(), 0), 0);
    EXPECT_EQ(update(files[1]), 0);
    EXPECT_EQ(image(), saved.substr(199, 199));
}

// Same inode, same size, and perhaps the same time stamp: what counts is the record in its slot.
TEST_F(BookmarkFailureTest, RecordsExchangedInPlaceAreNoticed) {
    three();
    const std::string saved = image();
    const int fd = open(bookmarks.c_str(), O_WRONLY);
    ASSERT_GE(fd, 0);
    const std::string swapped = saved.substr(199, 199) + saved.substr(0, 199);
    ASSERT_EQ(pwrite(fd, swapped.data(), swapped.size(), 0), 398);
    files[0]->l = 11;
    EXPECT_EQ(update(files[0]), 0);
    EXPECT_EQ(image().substr(0, 199), saved.substr(199, 199));
    EXPECT_EQ(image().substr(199, 16), "000000000000011|");
    EXPECT_EQ(image().substr(398), saved.substr(398));
    const std::string numbers = "000000000000099";
    ASSERT_EQ(pwrite(fd, numbers.data(), 15, 398), 15);
    close(fd);
    EXPECT_EQ(get_bookmark(files[2]), 1);
    EXPECT_EQ(files[2]->l, 99u);
}

// Neither the size nor a slot that is looked at tells that this record has come: only the time
// does.
TEST_F(BookmarkFailureTest, RecordThatAppearedInPlaceIsFound) {
    three();
    write_file(logs + "d", lines(100, "d"));
    write_file(logs + "e f", lines(100, "e"));
    fdesc *d = track(logs + "d");
    fdesc *blank = track_at(logs + "e f", 1);
    for (const bool with_own_writes : {false, true}) {
        EXPECT_EQ(get_bookmark(d), 0);
        const int fd = open(bookmarks.c_str(), O_WRONLY);
        const std::string other = record(50, head_of(lines(100, "d")), 3, logs + "d");
        ASSERT_EQ(pwrite(fd, other.data(), 199, 199), 199);
        if (with_own_writes) {
            EXPECT_EQ(update(files[0]), 0);
            EXPECT_EQ(update(blank), 0);
        }
        EXPECT_EQ(get_bookmark(d), 1) << with_own_writes;
        EXPECT_EQ(d->l, 50u);
        EXPECT_EQ(get_bookmark(files[1]), 0);
        const std::string back = record(20, 0, 3, logs + "b");
        ASSERT_EQ(pwrite(fd, back.data(), 199, 199), 199);
        close(fd);
    }
}

TEST_F(BookmarkFailureTest, RecordRenamedInPlaceIsNotOverwritten) {
    three();
    const int fd = open(bookmarks.c_str(), O_WRONLY);
    const std::string other = record(1, 2, 3, "/another/path");
    ASSERT_EQ(pwrite(fd, other.data(), 199, 199), 199);
    close(fd);
    files[1]->l = 21;
    EXPECT_EQ(update(files[1]), 0);
    EXPECT_EQ(image().substr(199, 199), other);
    EXPECT_EQ(image().size(), 4 * 199u);
    EXPECT_EQ(image().substr(3 * 199, 16), "000000000000021|");
}

TEST_F(BookmarkFailureTest, ShortLastRecordShiftsNothing) {
    three();
    const std::string saved = image();
    forget();
    const std::string cut = saved.substr(0, 398) + "000000000000030|0000";
    write_file(bookmarks, cut);
    write_file(logs + "d", lines(100, "d"));
    fdesc *d = track_at(logs + "d", 40);
    EXPECT_EQ(update(d), 0);
    std::string hole = cut;
    hole.resize(3 * 199, '\0');
    const std::string content = lines(100, "d");
    EXPECT_EQ(image(), hole + record(40, head_of(content), tail_of(content), logs + "d"));
    fdesc *b = track(logs + "b");
    EXPECT_EQ(get_bookmark(b), 1);
    EXPECT_EQ(b->l, 20u);
    EXPECT_EQ(get_bookmark(d), 1);
    EXPECT_EQ(d->l, 40u);
    EXPECT_EQ(get_bookmark(track(logs + "c")), 0);
    EXPECT_EQ(delete_bookmark((logs + "a").c_str()), 0);
    EXPECT_EQ(image(),
              (hole + record(40, head_of(content), tail_of(content), logs + "d")).substr(199));
}

TEST_F(BookmarkFailureTest, ShortLastRecordWithItsPathIsUsedAndMadeWhole) {
    write_file(logs + "a", lines(100));
    const std::string content = lines(100);
    const std::string whole = record(10, head_of(content), tail_of(content), logs + "a");
    const std::string shortened = whole.substr(0, 48) + logs + "a\n";
    write_file(bookmarks, record(1, 2, 3, "/x") + shortened);
    fdesc *file = track(logs + "a");
    EXPECT_EQ(get_bookmark(file), 1);
    EXPECT_EQ(file->l, 10u);
    EXPECT_EQ(update(file), 0);
    EXPECT_EQ(image(), record(1, 2, 3, "/x") + whole);
}

TEST_F(BookmarkFailureTest, DeletingAShortLastRecordSparesTheOneBefore) {
    const std::string first = record(1, 2, 3, "/x");
    write_file(bookmarks, first + record(4, 5, 6, "/y").substr(0, 60));
    EXPECT_EQ(delete_bookmark("/y"), 0);
    EXPECT_EQ(image(), first);
    write_file(bookmarks, first + record(4, 5, 6, "/y").substr(0, 60));
    EXPECT_EQ(delete_bookmark("/x"), 0);
    EXPECT_EQ(image(), record(4, 5, 6, "/y").substr(0, 60));
    EXPECT_EQ(delete_bookmark("/y"), 0);
    EXPECT_EQ(image(), "");
}

TEST_F(BookmarkFailureTest, GarbageIsKeptAndWorkedAround) {
    std::string garbage(199 * 3 + 17, '\0');
    for (size_t i = 0; i < garbage.size(); ++i) garbage[i] = static_cast<char>(i * 131 + i / 7);
    write_file(bookmarks, garbage);
    write_file(logs + "a", lines(100));
    fdesc *file = track_at(logs + "a", 10);
    EXPECT_EQ(get_bookmark(file), 0);
    EXPECT_EQ(update(file), 0);
    EXPECT_EQ(image().substr(0, garbage.size()), garbage);
    EXPECT_EQ(image().size(), 5 * 199u);
    EXPECT_EQ(get_bookmark(file), 1);
}

}  // namespace

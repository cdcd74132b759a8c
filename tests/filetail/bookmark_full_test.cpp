// A bookmark file that cannot grow or must not be written: what was there stays as it was.

#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include "filetail/bookmark.h"
#include "tests/filetail/bookmark_kit.h"

namespace {

using namespace bookmark_kit;

class FullDiskTest : public StoreTest {
  protected:
    void SetUp() override {
        StoreTest::SetUp();
        for (const char *name : {"a", "b", "c"}) {
            write_file(logs + name, lines(100, name));
            ASSERT_EQ(update(track_at(logs + name, 10)), 0);
        }
    }
    // A limit on the size of files stands for a full disk.
    void limit_to(rlim_t bytes) {
        signal(SIGXFSZ, SIG_IGN);
        getrlimit(RLIMIT_FSIZE, &before_);
        rlimit low = before_;
        low.rlim_cur = bytes;
        ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &low), 0);
    }
    void unlimit() { ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &before_), 0); }
    rlimit before_ = {};
};

TEST_F(FullDiskTest, RecordThatDoesNotFitLeavesTheFileAsItWas) {
    const std::string saved = image();
    write_file(logs + "d", lines(100, "d"));
    fdesc *d = track_at(logs + "d", 40);
    for (const rlim_t room : {0, 1, 100, 198}) {
        Capture log;
        limit_to(3 * 199 + room);
        EXPECT_EQ(update(d), -1);
        unlimit();
        EXPECT_EQ(image(), saved) << room;
        EXPECT_EQ(count_of(log.text(), ":(ERROR) Error writing bookmark file (" + bookmarks + ")"),
                  1u);
    }
    EXPECT_EQ(d->unsaved, 1);
    EXPECT_EQ(get_bookmark(d), 1) << "memory wins";
    EXPECT_EQ(d->l, 40u);
    limit_to(3 * 199);
    files[0]->l = 99;
    EXPECT_EQ(update(files[0]), 0) << "an own record needs no room";
    unlimit();
    EXPECT_EQ(update(d), 0);
    EXPECT_EQ(image().size(), 4 * 199u);
}

// Nothing is forbidden to root, so the test goes on as somebody else.
class ForbiddenTest : public StoreTest {
  protected:
    void SetUp() override {
        StoreTest::SetUp();
        write_file(logs + "a", lines(100));
        ASSERT_EQ(update(track_at(logs + "a", 10)), 0);
        if (geteuid() != 0) return;
        for (const std::string &path : {root, logs, logs + "a", bookmarks}) {
            ASSERT_EQ(chown(path.c_str(), kNobody, kNobody), 0);
        }
        ASSERT_EQ(seteuid(kNobody), 0);
    }
    void TearDown() override {
        if (getuid() == 0) {
            EXPECT_EQ(seteuid(0), 0);
        }
        StoreTest::TearDown();
    }
    static constexpr uid_t kNobody = 65534;
};

TEST_F(ForbiddenTest, ReadOnlyFileIsAnOpenErrorAlsoWhenItWasOpenBefore) {
    const std::string saved = image();
    for (const bool fresh : {false, true}) {
        ASSERT_EQ(chmod(bookmarks.c_str(), 0444), 0);
        if (fresh) bookmark_teardown();
        files[0]->l = 20;
        Capture log;
        EXPECT_EQ(update(files[0]), -1);
        EXPECT_EQ(get_bookmark(files[0]), -1);
        EXPECT_EQ(delete_bookmark(files[0]->n), -1);
        EXPECT_EQ(files[0]->l, 20u);
        EXPECT_EQ(image(), saved);
        EXPECT_EQ(count_of(log.text(), ") for reading: (13)Permission denied\n"), 1u);
        ASSERT_EQ(chmod(bookmarks.c_str(), 0644), 0);
    }
    EXPECT_EQ(update(files[0]), 0);
    EXPECT_EQ(image().substr(0, 16), "000000000000020|");
}

TEST_F(ForbiddenTest, UnreadableTailedFileKeepsItsRecordAndPosition) {
    const std::string saved = image();
    ASSERT_EQ(chmod(files[0]->n, 0), 0);
    files[0]->l = 15;
    ft_bm group = {};
    group.f = files.data();
    group.fc = 1;
    verify_bookmark_file(&group);
    EXPECT_EQ(files[0]->l, 15u);
    EXPECT_EQ(image(), saved);
    ASSERT_EQ(chmod(files[0]->n, 0644), 0);
    verify_bookmark_file(&group);
    EXPECT_EQ(files[0]->l, 10u);
}

}  // namespace

// A bookmark file that cannot grow: no half record may stay behind, and what was there stays.

#include <signal.h>
#include <sys/resource.h>

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

}  // namespace

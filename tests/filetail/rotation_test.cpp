// Opt-in rotation_drain: the unread rest of a file that was renamed is read before the new one.

#include "filetail/rotation.h"

#include <unistd.h>

#include "filetail/reader.h"
#include "tests/filetail/discovery_kit.h"

namespace {

using namespace bookmark_kit;

class RotationTest : public ScanTest {
  protected:
    void SetUp() override {
        ScanTest::SetUp();
        conf.rotation_drain = 1;
        path = logs + "a.log";
        owner.ft.ft_start_top = 1;
        write_file(path, old_text);
        update_file_list(group);
        ASSERT_EQ(group->fc, 1);
        file = group->f[0];
        read_all(0);
        update_file_list(group);
        append_file(path, rest);
    }
    void rename_to(const std::string &name) { std::filesystem::rename(path, logs + name); }
    void pass() {
        update_file_list(group);
        for (int i = 0; i < group->fc; ++i) read_all(i);
    }
    void passes_until_gone() {
        for (int i = 0; i < 5 && group->fc > 0; ++i) pass();
        ASSERT_EQ(group->fc, 0);
    }
    const std::string old_text = lines(100, "old");
    const std::string rest = lines(10, "rest");
    const std::string fresh = lines(300, "fresh");
    std::string path;
    fdesc *file = nullptr;
};

TEST_F(RotationTest, RestOfARenamedFileComesFirst) {
    rename_to("a.log.1");
    write_file(path, fresh);
    Capture log;
    update_file_list(group);
    ASSERT_NE(file->drain, nullptr);
    EXPECT_EQ(tail_path(file), logs + "a.log.1");
    EXPECT_EQ(file->l, old_text.size());
    EXPECT_EQ(
        count_of(log.text(), ":(INFO) Reading the rest of renamed file: " + logs + "a.log.1\n"),
        1u);
    for (int i = 0; i < 3; ++i) pass();
    EXPECT_EQ(received, old_text + rest + fresh);
    EXPECT_EQ(file->drain, nullptr);
    EXPECT_EQ(tail_path(file), path);
    EXPECT_EQ(image().size(), 199u);
    EXPECT_EQ(image().substr(0, 15), record(fresh.size(), 0, 0, "").substr(0, 15));
}

// A deleted file whose descriptor somebody holds keeps its room on the disk.
TEST_F(RotationTest, NoDescriptorIsHeldBetweenPasses) {
    const auto is_held = [&] {
        for (const auto &entry : std::filesystem::directory_iterator("/proc/self/fd")) {
            std::error_code gone;
            const std::string name = std::filesystem::read_symlink(entry.path(), gone).string();
            if (name.starts_with(logs + "a.log")) return true;
        }
        return false;
    };
    EXPECT_FALSE(is_held());
    rename_to("a.log.1");
    update_file_list(group);
    ASSERT_NE(file->drain, nullptr);
    EXPECT_FALSE(is_held());
    read_all(0);
    EXPECT_EQ(received, old_text + rest);
    ASSERT_NE(file->drain, nullptr);
    EXPECT_FALSE(is_held());
}

TEST_F(RotationTest, BookmarkOfTheRestStandsUnderTheOldName) {
    rename_to("a.log.1");
    write_file(path, fresh);
    pass();
    const std::string all = old_text + rest;
    EXPECT_EQ(image(), record(all.size(), head_of(all), tail_of(all), path));
}

TEST_F(RotationTest, WithoutTheOptInTheRestIsLost) {
    conf.rotation_drain = 0;
    rename_to("a.log.1");
    write_file(path, fresh);
    for (int i = 0; i < 3; ++i) pass();
    EXPECT_EQ(received, old_text + fresh);
}

TEST_F(RotationTest, NewFileMayComeLater) {
    rename_to("a.log.1");
    pass();
    EXPECT_EQ(received, old_text + rest);
    pass();
    write_file(path, fresh);
    for (int i = 0; i < 3; ++i) pass();
    EXPECT_EQ(received, old_text + rest + fresh);
}

// The writer may still have the renamed file open while nothing stands under the old name, but not
// for ever.
TEST_F(RotationTest, FileThatNeverComesBackIsForgotten) {
    rename_to("a.log.1");
    for (int i = 0; i < 600 && group->fc > 0; ++i) {
        pass();
        usleep(50'000);
    }
    EXPECT_EQ(group->fc, 0);
    EXPECT_EQ(image(), "");
    write_file(path, fresh);
    for (int i = 0; i < 3; ++i) pass();
    EXPECT_EQ(received, old_text + rest + fresh);
}

TEST_F(RotationTest, RestIsNotGivenUpWhileItCouldNotBeSent) {
    rename_to("a.log.1");
    write_file(path, fresh);
    for (int i = 0; i < 5; ++i) update_file_list(group);
    EXPECT_NE(file->drain, nullptr);
    for (int i = 0; i < 3; ++i) pass();
    EXPECT_EQ(received, old_text + rest + fresh);
}

TEST_F(RotationTest, RenamedAgainWhileItIsRead) {
    rename_to("a.log.1");
    write_file(path, fresh);
    update_file_list(group);
    std::filesystem::rename(logs + "a.log.1", logs + "a.log.2");
    update_file_list(group);
    EXPECT_EQ(tail_path(file), logs + "a.log.2");
    for (int i = 0; i < 3; ++i) pass();
    EXPECT_EQ(received, old_text + rest + fresh);
}

TEST_F(RotationTest, DeletedWhileItIsRead) {
    rename_to("a.log.1");
    write_file(path, fresh);
    update_file_list(group);
    std::filesystem::remove(logs + "a.log.1");
    for (int i = 0; i < 3; ++i) pass();
    EXPECT_EQ(received, old_text + fresh);
    EXPECT_EQ(file->drain, nullptr);
}

TEST_F(RotationTest, NameThatThePatternMatchesIsAFileOfItsOwn) {
    rename_to("b.log");
    write_file(path, fresh);
    update_file_list(group);
    EXPECT_EQ(file->drain, nullptr);
    EXPECT_EQ(group->fc, 2);
}

TEST_F(RotationTest, NothingLeftToReadIsNoDrain) {
    read_all(0);
    rename_to("a.log.1");
    write_file(path, fresh);
    update_file_list(group);
    EXPECT_EQ(file->drain, nullptr);
    EXPECT_EQ(file->l, 0u);
    for (int i = 0; i < 2; ++i) pass();
    EXPECT_EQ(received, old_text + rest + fresh);
}

// A rename finds the writer with the old file open: it goes on there until it is told.
TEST_F(RotationTest, WriterThatIsLateIsWaitedFor) {
    for (const bool read_before : {false, true}) {
        SCOPED_TRACE(read_before);
        if (read_before) pass();
        const std::string renamed = logs + (read_before ? "a.log.1" : "a.log.2");
        replace_by_empty(path, renamed);
        for (int i = 0; i < 3; ++i) pass();
        append_file(renamed, "late\n");
        for (int i = 0; i < 3; ++i) pass();
        append_file(renamed, "later\n");
        write_file(path, fresh);
        for (int i = 0; i < 3; ++i) pass();
    }
    EXPECT_EQ(received, old_text + rest + "late\nlater\n" + fresh + "late\nlater\n" + fresh);
}

TEST_F(RotationTest, RenamedBetweenTheScanAndTheLookUp) {
    for (const std::string &head : {std::string("another head\n"), old_text}) {
        SCOPED_TRACE(head);
        received.clear();
        rename_to("a.log.1");
        write_file(path, head + fresh);
        const uint64_t location = file->l;
        verify_bookmark_file(group);
        EXPECT_EQ(file->moved, 1);
        EXPECT_EQ(file->l, location);
        EXPECT_EQ(read_events(file, 1000), 0) << "nothing is known of it yet";
        EXPECT_EQ(file->l, location);
        for (int i = 0; i < 3; ++i) pass();
        EXPECT_EQ(received, rest + head + fresh);
        received.clear();
        append_file(path, rest);
    }
}

TEST_F(RotationTest, RenamedBetweenTheScanAndTheLookUpWithNothingInItsPlace) {
    const std::string before = image();
    rename_to("a.log.1");
    verify_bookmark_file(group);
    EXPECT_EQ(image(), before) << "the record says where the rest begins";
    write_file(path, fresh);
    for (int i = 0; i < 3; ++i) pass();
    EXPECT_EQ(received, old_text + rest + fresh);
}

TEST_F(RotationTest, LinkThatMovesOnWithinTheDirectory) {
    std::filesystem::remove(path);
    passes_until_gone();
    write_file(logs + "one", old_text);
    std::filesystem::create_symlink("one", path);
    received.clear();
    for (int i = 0; i < 2; ++i) pass();
    append_file(logs + "one", rest);
    write_file(logs + "two", fresh);
    std::filesystem::create_symlink("two", logs + "link");
    std::filesystem::rename(logs + "link", path);
    for (int i = 0; i < 4; ++i) pass();
    EXPECT_EQ(received, old_text + rest + fresh);
}

TEST_F(RotationTest, ReplacedByAnEditorStartsOver) {
    pass();
    write_file(logs + "new", fresh);
    std::filesystem::rename(logs + "new", path);
    for (int i = 0; i < 2; ++i) pass();
    EXPECT_EQ(received, old_text + rest + fresh);
    EXPECT_EQ(file->drain, nullptr);
}

TEST_F(RotationTest, RestThatIsDeletedIsReported) {
    rename_to("a.log.1");
    write_file(path, fresh);
    update_file_list(group);
    std::filesystem::remove(logs + "a.log.1");
    Capture log;
    update_file_list(group);
    EXPECT_EQ(count_of(log.text(), ":(WARN) Lost the unread rest of renamed file: " + logs +
                                       "a.log.1: " + std::to_string(rest.size()) + " byte(s)\n"),
              1u);
}

// A read that fails is no end of the file.
TEST_F(RotationTest, TroubleWithTheRestDoesNotEndIt) {
    rename_to("a.log.1");
    write_file(path, fresh);
    update_file_list(group);
    file->at_end = 0;
    file->failed = 1;
    for (int i = 0; i < 5; ++i) update_file_list(group);
    EXPECT_NE(file->drain, nullptr);
    for (int i = 0; i < 3; ++i) {
        file->failed = 0;
        pass();
    }
    EXPECT_EQ(received, old_text + rest + fresh);
}

TEST_F(RotationTest, TroubleThatLastsIsReportedAndGivenUp) {
    rename_to("a.log.1");
    write_file(path, fresh);
    update_file_list(group);
    file->failed = 1;
    update_file_list(group);
    ASSERT_NE(file->drain, nullptr);
    file->failing_since -= 61;
    Capture log;
    update_file_list(group);
    EXPECT_EQ(file->drain, nullptr);
    EXPECT_EQ(count_of(log.text(), ":(WARN) Lost the unread rest of renamed file: "), 1u);
    for (int i = 0; i < 2; ++i) pass();
    EXPECT_EQ(received, old_text + fresh);
}

// The directory can be read, the renamed file cannot: after a minute it is no longer waited for,
// and found by its content if it can be opened then.
TEST_F(RotationTest, RenamedFileThatCannotBeOpened) {
    for (const bool for_long : {false, true}) {
        const std::string next = (for_long ? "last " : "next ") + fresh;
        received.clear();
        rename_to("a.log.1");
        write_file(path, next);
        std::string text;
        uint8_t moved;
        {
            Capture log(4);
            const OneDescriptor few;
            update_file_list(group);
            moved = file->moved;
            if (for_long) {
                file->failing_since -= 61;
                update_file_list(group);
            }
            text = log.text();
        }
        EXPECT_EQ(moved, 1);
        for (int i = 0; i < 4; ++i) pass();
        EXPECT_EQ(received, rest + next);
        EXPECT_EQ(
            count_of(text, "(WARN) Cannot read the file that was renamed from: " + path + ": (24)"),
            for_long ? 1u : 0u);
        append_file(path, rest);
    }
}

TEST_F(RotationTest, AnotherFileWithTheInodeIsNotTaken) {
    rename_to("a.log.1");
    write_file(logs + "a.log.1", lines(500, "quite another text"));
    write_file(path, fresh);
    for (int i = 0; i < 3; ++i) pass();
    EXPECT_EQ(received, old_text + fresh);
}

TEST_F(RotationTest, SameBeginningIsToldApartByTheInode) {
    rename_to("a.log.1");
    const std::string similar = old_text + lines(300, "similar");
    write_file(path, similar);
    for (int i = 0; i < 4; ++i) pass();
    EXPECT_EQ(received, old_text + rest + similar);
}

TEST_F(RotationTest, SmallFileThatGrewBeforeItWasRenamed) {
    write_file(path, "");
    update_file_list(group);
    append_file(path, "one\n");
    update_file_list(group);
    received.clear();
    read_all(0);
    update_file_list(group);
    append_file(path, "two\n");
    rename_to("a.log.1");
    write_file(path, "three\n");
    for (int i = 0; i < 4; ++i) pass();
    EXPECT_EQ(received, "one\ntwo\nthree\n");
}

// Nothing of it was read, so that nothing tells what it was: its name is all that is left of it.
TEST_F(RotationTest, WholeFileBetweenTwoRotationsIsNotSent) {
    for (const bool seen_empty : {false, true}) {
        SCOPED_TRACE(seen_empty);
        received.clear();
        rename_to(seen_empty ? "a.log.3" : "a.log.1");
        write_file(path, "");
        for (int i = 0; seen_empty && i < 3; ++i) pass();
        append_file(path, "in between\n");
        rename_to(seen_empty ? "a.log.4" : "a.log.2");
        write_file(path, fresh);
        for (int i = 0; i < 4; ++i) pass();
        EXPECT_EQ(received, rest + fresh);
        EXPECT_EQ(file->drain, nullptr);
        append_file(path, rest);
    }
}

// Renamed and made anew between the scan and the reading: the position belongs to the old file.
TEST_F(RotationTest, FileReplacedAfterTheScanIsNotReadFromTheMiddle) {
    owner.ft.ft_delim = const_cast<wchar_t *>(L"<newline>");
    update_file_list(group);
    const std::string saved = image();
    rename_to("a.log.1");
    write_file(path, old_text + fresh);
    const uint64_t location = file->l;
    EXPECT_EQ(read_events(file, 1000), 0);
    EXPECT_EQ(file->l, location);
    EXPECT_EQ(image(), saved);
    EXPECT_EQ(_connected, 1) << "nothing was sent, or it would have failed";
    for (int i = 0; i < 4; ++i) pass();
    EXPECT_EQ(received, old_text + rest + old_text + fresh);
}

TEST_F(RotationTest, ManyFilesInOneRotation) {
    for (int i = 0; i < 200; ++i) write_file(logs + std::to_string(i) + ".log", old_text);
    for (int i = 0; i < 2; ++i) pass();
    for (int i = 0; i < 200; ++i) {
        const std::string name = logs + std::to_string(i) + ".log";
        append_file(name, "rest " + std::to_string(i) + "\n");
        std::filesystem::rename(name, name + ".1");
        write_file(name, "fresh " + std::to_string(i) + "\n");
    }
    received.clear();
    for (int i = 0; i < 4; ++i) pass();
    for (int i = 0; i < 200; ++i) {
        const size_t rest_at = received.find("rest " + std::to_string(i) + "\n");
        const size_t fresh_at = received.find("fresh " + std::to_string(i) + "\n");
        ASSERT_NE(rest_at, std::string::npos) << i;
        ASSERT_NE(fresh_at, std::string::npos) << i;
        EXPECT_LT(rest_at, fresh_at);
        EXPECT_EQ(count_of(received, "fresh " + std::to_string(i) + "\n"), 1u);
    }
}

}  // namespace

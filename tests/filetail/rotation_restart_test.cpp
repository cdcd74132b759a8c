// Opt-in rotation_drain across the daemon's end: what was renamed is known again by its content.

#include <sys/stat.h>
#include <unistd.h>

#include "core/execution.h"
#include "tests/filetail/discovery_kit.h"

namespace {

using namespace bookmark_kit;

class RotationRestartTest : public ScanTest {
  protected:
    void SetUp() override {
        ScanTest::SetUp();
        conf.rotation_drain = 1;
        path = logs + "a.log";
        owner.ft.ft_start_top = 1;
    }
    void passes(int count = 4) {
        for (int turn = 0; turn < count; ++turn) {
            update_file_list(group);
            for (int i = 0; i < group->fc; ++i) read_all(i);
        }
    }
    // A file that was sent as far as `text`, and got `more` before the daemon ended.
    void sent(const std::string &text, const std::string &more) {
        write_file(path, text);
        passes(2);
        append_file(path, more);
        restart();
        received.clear();
    }
    void rename_to(const std::string &name) { std::filesystem::rename(path, logs + name); }
    const std::string old_text = lines(100, "old");
    const std::string rest = lines(10, "rest");
    const std::string fresh = lines(300, "fresh");
    std::string path;
};

TEST_F(RotationRestartTest, RenamedWhileNobodyWatched) {
    sent(old_text, rest);
    rename_to("a.log.1");
    write_file(path, fresh);
    Capture log;
    passes();
    const std::string text = log.text();
    EXPECT_EQ(received, rest + fresh);
    EXPECT_EQ(count_of(text, "Reading the rest of renamed file: " + logs + "a.log.1\n"), 1u);
    EXPECT_EQ(count_of(text, "Loaded file for tailing: " + path + " starting at byte: 0\n"), 1u);
    EXPECT_EQ(image().size(), 199u);
}

TEST_F(RotationRestartTest, WithoutTheOptInTheRestIsLost) {
    conf.rotation_drain = 0;
    sent(old_text, rest);
    rename_to("a.log.1");
    write_file(path, fresh);
    passes();
    EXPECT_EQ(received, fresh);
}

// Ended after every number of bytes, and once more right behind the end.
TEST_F(RotationRestartTest, EndedInTheMiddleOfTheRest) {
    sent(old_text, rest);
    rename_to("a.log.1");
    write_file(path, fresh);
    for (size_t bytes = 0; bytes < rest.size(); bytes += 7) {
        update_file_list(group);
        read_some(0, 7);
        restart();
    }
    passes();
    EXPECT_EQ(received, rest + fresh);
}

TEST_F(RotationRestartTest, EndedBetweenTheRestAndTheSuccessor) {
    for (const std::string &next : {fresh, std::string("short\n")}) {
        std::filesystem::remove(logs + "a.log.1");
        sent(old_text, rest);
        rename_to("a.log.1");
        write_file(path, next);
        passes(1);
        ASSERT_EQ(received, rest);
        update_file_list(group);
        EXPECT_EQ(group->f[0]->drain, nullptr);
        for (int i = 0; i < 3; ++i) {
            restart();
            update_file_list(group);
        }
        passes();
        EXPECT_EQ(received, rest + next);
    }
}

// The successor is renamed too before its first event was sent: its record is still the one before.
TEST_F(RotationRestartTest, SuccessorThatWasNotBegunIsAFileInBetween) {
    sent(old_text, rest);
    rename_to("a.log.2");
    write_file(logs + "a.log.1", lines(50, "in between"));
    write_file(path, fresh);
    passes();
    EXPECT_EQ(received, rest + fresh) << "nobody has ever seen what is now a.log.1";
}

TEST_F(RotationRestartTest, SuccessorWithTheSameBeginning) {
    sent(old_text, rest);
    rename_to("a.log.1");
    write_file(path, old_text.substr(0, 300) + "other\n");
    passes(3);
    restart();
    passes(1);
    EXPECT_EQ(received, rest + old_text.substr(0, 300) + "other\n");
}

TEST_F(RotationRestartTest, CompressedFileIsNotTheSame) {
    sent(old_text, rest);
    std::filesystem::remove(path);
    write_file(logs + "a.log.1.gz", "\x1f\x8b\x08" + std::string(5000, '\x77'));
    write_file(path, fresh);
    passes();
    EXPECT_EQ(received, fresh);
}

TEST_F(RotationRestartTest, FilesThatBeginAlikeAreToldApartBehindTheBeginning) {
    const std::string banner(400, '#');
    for (int i = 3; i <= 5; ++i) {
        write_file(logs + "a.log." + std::to_string(i), banner + lines(1000, "sent long ago"));
    }
    sent(banner + old_text, rest);
    rename_to("a.log.2");
    write_file(logs + "a.log.1", banner + lines(1000, "in between"));
    write_file(path, "x" + fresh);
    passes();
    EXPECT_EQ(received, rest + "x" + fresh);
}

TEST_F(RotationRestartTest, FileThatBeginsAlikeIsNotTakenForOneThatIsGone) {
    const std::string banner(400, '#');
    write_file(logs + "a.log.1", banner + lines(1000, "sent long ago"));
    sent(banner + old_text, rest);
    write_file(path, fresh);
    passes();
    EXPECT_EQ(received, fresh);
}

// Behind its last bookmark the file had grown by any amount when that was written.
TEST_F(RotationRestartTest, RecordThatWasWrittenInTheMiddleOfTheFile) {
    const std::string text = lines(9000, "a log of some length");
    ASSERT_GT(text.size(), size_t{3 * 64 * 1024});
    for (const size_t known : {text.size() - 1, text.size() / 2, size_t{70'000}, size_t{1001}}) {
        SCOPED_TRACE(known);
        std::filesystem::remove(logs + "a.log.1");
        std::filesystem::remove(bookmarks);
        write_file(path, text.substr(0, known));
        restart();
        received.clear();
        update_file_list(group);
        read_some(0, 1000);
        append_file(path, text.substr(known));
        restart();
        rename_to("a.log.1");
        write_file(path, fresh);
        passes();
        EXPECT_EQ(received, text + fresh);
    }
}

TEST_F(RotationRestartTest, LongestCopyIsTaken) {
    sent(old_text, rest);
    write_file(logs + "a.log.bak", old_text + rest.substr(0, 20));
    write_file(logs + "a.log.early", old_text.substr(0, 1000));
    rename_to("a.log.1");
    write_file(logs + "a.log.old", old_text);
    write_file(path, fresh);
    passes();
    EXPECT_EQ(received, rest + fresh);
}

TEST_F(RotationRestartTest, CopyThatWasMadeBeforeATruncationHoldsTheRest) {
    for (const bool running : {false, true}) {
        SCOPED_TRACE(running);
        std::filesystem::remove(logs + "a.log.1");
        sent(old_text, "");
        if (running) passes(1);
        append_file(path, rest);
        std::filesystem::copy_file(path, logs + "a.log.1");
        write_file(path, "");
        passes(2);
        append_file(path, "after\n");
        passes();
        EXPECT_EQ(received, rest + "after\n");
    }
}

TEST_F(RotationRestartTest, TwoFilesOfOneDirectory) {
    const std::string other = logs + "b.log";
    const std::string other_old = lines(50, "other"), other_rest = lines(5, "other rest");
    write_file(other, other_old);
    sent(old_text, rest);
    append_file(other, other_rest);
    rename_to("a.log.1");
    std::filesystem::rename(other, other + ".1");
    write_file(path, "a\n");
    write_file(other, "b\n");
    passes();
    for (const std::string &text : {rest, other_rest, std::string("a\n"), std::string("b\n")}) {
        EXPECT_EQ(count_of(received, text), 1u) << text;
    }
    EXPECT_EQ(received.size(), rest.size() + other_rest.size() + 4);
    EXPECT_LT(received.find(rest), received.find("a\n"));
}

TEST_F(RotationRestartTest, NothingUnderTheOldNameYet) {
    sent(old_text, rest);
    rename_to("a.log.1");
    passes(1);
    EXPECT_EQ(received, rest);
    restart();
    write_file(path, fresh);
    passes();
    EXPECT_EQ(received, rest + fresh);
}

TEST_F(RotationRestartTest, RecordWithoutAnyFileIsLeftAlone) {
    sent(old_text, rest);
    const std::string before = image();
    std::filesystem::remove(path);
    passes();
    EXPECT_EQ(group->fc, 0);
    EXPECT_EQ(image(), before);
    write_file(logs + "a.log.1", old_text);  // its text comes back, with nothing unread
    restart();
    passes();
    EXPECT_EQ(image(), before);
    EXPECT_EQ(received, "");
}

TEST_F(RotationRestartTest, RecordsOfOthersAreNotAdopted) {
    sent(old_text, rest);
    const std::string others =
        record(5, head_of(old_text), tail_of(old_text), root + "/elsewhere/a.log") +
        record(5, head_of(old_text), tail_of(old_text), logs + "deeper/a.log") +
        record(5, head_of(old_text), tail_of(old_text), logs + "a.txt");
    write_file(bookmarks, others + image());
    write_file(logs + "a.log.1", old_text);
    update_file_list(group);
    EXPECT_EQ(group->fc, 1);
    EXPECT_EQ(image().substr(0, others.size()), others);
}

TEST_F(RotationRestartTest, WhatIsNoPlainFileIsNotTouched) {
    sent(old_text, rest);
    rename_to("keep");
    std::filesystem::rename(logs + "keep", root + "/outside");
    std::filesystem::create_symlink(root + "/outside", logs + "a.log.1");
    ASSERT_EQ(mkfifo((logs + "a.log.2").c_str(), 0600), 0);
    std::filesystem::create_directory(logs + "a.log.3");
    write_file(path, fresh);
    passes();
    EXPECT_EQ(received, fresh);
}

TEST_F(RotationRestartTest, StopDuringTheSearchDecidesNothing) {
    sent(old_text, rest);
    rename_to("a.log.1");
    write_file(path, fresh);
    const std::string before = image();
    execution_reset_for_start();
    update_file_list(group);
    ASSERT_NE(group->f[0]->drain, nullptr);
    restart();
    stop_execution();
    update_file_list(group);
    execution_reset_for_start();
    EXPECT_EQ(image(), before);
    restart();
    passes();
    EXPECT_EQ(received, rest + fresh);
}

// Out of descriptors nothing is decided either: the copy is found as soon as it can be opened.
TEST_F(RotationRestartTest, SearchThatCannotOpenCandidatesIsMadeAgain) {
    sent(old_text, "");
    passes(1);
    append_file(path, rest);
    std::filesystem::copy_file(path, logs + "a.log.1");
    write_file(path, "after\n");
    {
        const OneDescriptor few;
        for (int i = 0; i < 2; ++i) update_file_list(group);
    }
    ASSERT_EQ(group->fc, 1);
    EXPECT_EQ(group->f[0]->moved, 1);
    EXPECT_EQ(group->f[0]->drain, nullptr);
    passes();
    EXPECT_EQ(received, rest + "after\n");
}

// Positions that cannot be saved count in memory; they must not be taken for the file before.
TEST_F(RotationRestartTest, BookmarksThatCannotBeWritten) {
    sent(old_text, rest);
    passes(1);
    received.clear();
    append_file(path, rest);
    std::filesystem::rename(bookmarks, root + "/kept");
    std::filesystem::create_directory(bookmarks);
    for (int i = 0; i < group->fc; ++i) EXPECT_EQ(update(group->f[i]), -1);
    rename_to("a.log.1");
    write_file(path, fresh);
    for (int turn = 0; turn < 5; ++turn) {
        update_file_list(group);
        fdesc *file = group->f[0];
        if (file->moved) continue;
        const std::string all = read_file(tail_path(file));
        received += all.substr(file->l);
        file->l = all.size();
        update(file);
        file->at_end = 1;
    }
    EXPECT_EQ(received, rest + fresh);
    std::filesystem::remove(bookmarks);
}

// --- beginnings that are too short to tell
// ----------------------------------------------------------

class SmallRotationTest : public RotationRestartTest, public ::testing::WithParamInterface<int> {
  protected:
    void SetUp() override {
        RotationRestartTest::SetUp();
        conf.small_file_guard = GetParam();
    }
};
INSTANTIATE_TEST_SUITE_P(Guard, SmallRotationTest, ::testing::Values(0, 1));

TEST_P(SmallRotationTest, SmallFileThatIsWhatItWasIsKnown) {
    write_file(path, "one\ntwo\nthree\n");
    update_file_list(group);
    read_some(0, 4);
    restart();
    rename_to("a.log.1");
    write_file(path, "four\n");
    passes();
    EXPECT_EQ(received, "one\ntwo\nthree\nfour\n");
}

TEST_P(SmallRotationTest, SmallFileThatHasGrownIsNotKnownByItsBeginning) {
    write_file(logs + "a.log.2", "start\nsent long ago\n");
    write_file(logs + "b.txt", "start\nno log at all\n");
    sent("start\n", "unread\n");
    rename_to("a.log.1");
    write_file(path, "another\n");
    passes();
    EXPECT_EQ(received, "another\n");
}

TEST_P(SmallRotationTest, EmptyBeginningProvesNothing) {
    write_file(logs + "a.log.1", "sent long ago\n");
    write_file(logs + "a.log.2", "");
    sent("", "");
    write_file(path, "new\n");
    passes();
    EXPECT_EQ(received, "new\n");
}

TEST_P(SmallRotationTest, FileThatOnlyGrewIsItself) {
    const std::string before = "start\nfoo\n";
    write_file(logs + "a.log.1", before);  // a file of other days that was just the same
    write_file(path, before);
    update_file_list(group);
    read_some(0, 6);
    restart();
    append_file(path, "bar\n");
    passes();
    EXPECT_EQ(received, GetParam() ? "start\nfoo\nbar\n" : "start\nstart\nfoo\nbar\n");
}

TEST_P(SmallRotationTest, GrownSmallFileIsFoundByARunningDaemon) {
    write_file(path, "one\n");
    passes(2);
    append_file(path, "two\n");
    rename_to("a.log.1");
    write_file(path, "three\n");
    passes();
    EXPECT_EQ(received, "one\ntwo\nthree\n");
}

}  // namespace

// The scan of a directory: which files are added and where they begin, which are dropped, and what
// never becomes a tailed file.

#include "filetail/discovery.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include "core/execution.h"
#include "filetail/ruv.h"
#include "tests/filetail/bookmark_kit.h"
#include "tests/filetail/discovery_kit.h"

namespace {

using namespace bookmark_kit;

class DiscoveryTest : public ScanTest {};

TEST_F(DiscoveryTest, NewFileBeginsAtItsEnd) {
    write_file(logs + "a.log", lines(100));
    Capture log;
    EXPECT_EQ(update_file_list(group), 1);
    ASSERT_EQ(group->fc, 1);
    EXPECT_EQ(group->f[0]->n, logs + "a.log");
    EXPECT_EQ(group->f[0]->p, group);
    EXPECT_EQ(group->f[0]->l, lines(100).size());
    EXPECT_EQ(group->f[0]->d, 0);
    const std::string content = lines(100);
    EXPECT_EQ(image(), record(content.size(), head_of(content), tail_of(content), logs + "a.log"));
    const std::string text = log.text();
    EXPECT_EQ(count_of(text, ":(DEBUG) Getting files from dir " + logs + " with filter *.log\n"),
              1u);
    EXPECT_EQ(count_of(text, ")a.log because it did match the filter: *.log\n"), 1u);
    EXPECT_EQ(
        count_of(text, ":(INFO) Loaded file for tailing: " + logs +
                           "a.log starting at byte: " + std::to_string(content.size()) + "\n"),
        1u);
    EXPECT_EQ(count_of(text, ":(DIAG) Did not add file: ("), 2u) << "\".\" and \"..\"";
    EXPECT_EQ(count_of(text, ". because it did not match the filter: *.log\n"), 2u);
}

TEST_F(DiscoveryTest, NewFileBeginsAtTheTopWhenAsked) {
    owner.ft.ft_start_top = 1;
    write_file(logs + "a.log", lines(100));
    EXPECT_EQ(update_file_list(group), 1);
    ASSERT_EQ(group->fc, 1);
    EXPECT_EQ(group->f[0]->l, 0u);
    EXPECT_EQ(image().substr(0, 16), "000000000000000|");
}

TEST_F(DiscoveryTest, KnownFileBeginsAtItsBookmark) {
    const std::string content = lines(100);
    write_file(logs + "a.log", content);
    write_file(bookmarks, record(60, head_of(content), 0, logs + "a.log"));
    EXPECT_EQ(update_file_list(group), 1);
    ASSERT_EQ(group->fc, 1);
    EXPECT_EQ(group->f[0]->l, 60u);
    EXPECT_EQ(image(), record(60, head_of(content), tail_of(content), logs + "a.log"));
}

TEST_F(DiscoveryTest, EntriesThatAreNoFilesAreCountedButNeverTailed) {
    set_filter(L"*");
    std::filesystem::create_directory(logs + "dir");
    ASSERT_EQ(mkfifo((logs + "fifo").c_str(), 0644), 0);
    ASSERT_EQ(symlink("fifo", (logs + "link_to_fifo").c_str()), 0);
    ASSERT_EQ(symlink("dir", (logs + "link_to_dir").c_str()), 0);
    ASSERT_EQ(symlink("/dev/zero", (logs + "link_to_device").c_str()), 0);
    const int sock = socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    snprintf(address.sun_path, sizeof(address.sun_path), "%ssocket", logs.c_str());
    ASSERT_EQ(bind(sock, reinterpret_cast<sockaddr *>(&address), sizeof(address)), 0);
    write_file(logs + "file", lines(10));
    Capture log;
    EXPECT_EQ(update_file_list(group), 9) << "with \".\" and \"..\"";
    EXPECT_EQ(count_of(log.text(), ":(DEBUG) Adding file: ("), 9u);
    ASSERT_EQ(group->fc, 1);
    EXPECT_EQ(group->f[0]->n, logs + "file");
    EXPECT_EQ(image().size(), 199u);
    close(sock);
}

TEST_F(DiscoveryTest, LinkToAFileIsTailedUnderItsOwnName) {
    write_file(root + "/real", lines(100));
    ASSERT_EQ(symlink((root + "/real").c_str(), (logs + "a.log").c_str()), 0);
    EXPECT_EQ(update_file_list(group), 1);
    ASSERT_EQ(group->fc, 1);
    EXPECT_EQ(group->f[0]->n, logs + "a.log");
}

TEST_F(DiscoveryTest, DanglingLinkIsReportedAndTriedAgain) {
    ASSERT_EQ(symlink((root + "/real").c_str(), (logs + "a.log").c_str()), 0);
    {
        Capture log;
        EXPECT_EQ(update_file_list(group), 1);
        const std::string text = log.text();
        EXPECT_EQ(count_of(text, ":(ERROR) Error: unable to get file length. Invalid file " + logs +
                                     "a.log\n"),
                  1u);
        EXPECT_EQ(
            count_of(text, "Loaded file for tailing: " + logs + "a.log starting at byte: 0\n"), 1u);
        EXPECT_EQ(count_of(text, ":(ERROR) Error: unable to read from file. Invalid file " + logs +
                                     "a.log\n"),
                  1u);
    }
    EXPECT_EQ(group->fc, 0);
    EXPECT_EQ(image(), "");
    write_file(root + "/real", lines(100));
    EXPECT_EQ(update_file_list(group), 1);
    EXPECT_EQ(group->fc, 1);
}

TEST_F(DiscoveryTest, WhileTheReceiverIsDownNothingIsAdded) {
    write_file(logs + "a.log", lines(100));
    _connected = 0;
    {
        Capture log;
        EXPECT_EQ(update_file_list(group), 1);
        const std::string text = log.text();
        EXPECT_EQ(count_of(text, "a.log"), 1u) << text;
        EXPECT_EQ(count_of(text, "a.log because it did match the filter"), 1u);
    }
    EXPECT_EQ(group->fc, 0);
    _connected = 1;
    EXPECT_EQ(update_file_list(group), 1);
    EXPECT_EQ(group->fc, 1);
}

TEST_F(DiscoveryTest, KnownFilesStayWhileTheReceiverIsDown) {
    write_file(logs + "a.log", lines(100));
    update_file_list(group);
    _connected = 0;
    EXPECT_EQ(update_file_list(group), 1);
    EXPECT_EQ(group->fc, 1);
}

TEST_F(DiscoveryTest, UnreadableDirectoryIsAWarningAndChangesNothing) {
    write_file(logs + "a.log", lines(100));
    update_file_list(group);
    const std::string saved = image();
    std::filesystem::rename(root + "/logs", root + "/away");
    Capture log;
    EXPECT_EQ(update_file_list(group), -1);
    EXPECT_EQ(update_file_list(group), -1);
    EXPECT_EQ(count_of(log.text(), ":(WARN) Failed to get list of files for: " + logs + "\n"), 2u);
    EXPECT_EQ(group->fc, 1);
    EXPECT_EQ(image(), saved);
}

TEST_F(DiscoveryTest, VanishedFileLosesItsBookmarkAndComesBackAsNew) {
    write_file(logs + "a.log", lines(100));
    update_file_list(group);
    std::filesystem::remove(logs + "a.log");
    {
        Capture log;
        EXPECT_EQ(update_file_list(group), 0);
        const std::string text = log.text();
        EXPECT_EQ(count_of(text, ":(DEBUG) Removing " + logs +
                                     "a.log because it was not detected in the directory\n"),
                  1u);
        EXPECT_EQ(count_of(text, "Delete '" + logs + "a.log' from bookmark file\n"), 1u);
    }
    EXPECT_EQ(group->fc, 0);
    EXPECT_EQ(image(), "");
    write_file(logs + "a.log", lines(200));
    EXPECT_EQ(update_file_list(group), 1);
    EXPECT_EQ(group->f[0]->l, lines(200).size());
}

TEST_F(DiscoveryTest, SecondOfTwoNeighboursGoesWithTheNextScan) {
    for (int i = 0; i < 7; ++i) write_file(logs + std::to_string(i) + ".log", lines(100));
    update_file_list(group);
    ASSERT_EQ(group->fc, 7);
    std::vector<std::string> order;
    for (int i = 0; i < 7; ++i) order.push_back(group->f[i]->n);
    for (const int i : {1, 2, 3, 6}) std::filesystem::remove(order[static_cast<size_t>(i)]);
    const auto names = [this] {
        std::vector<std::string> all;
        for (int i = 0; i < group->fc; ++i) all.push_back(group->f[i]->n);
        return all;
    };
    EXPECT_EQ(update_file_list(group), 3);
    EXPECT_EQ(names(), (std::vector<std::string>{order[0], order[2], order[4], order[5]}));
    EXPECT_EQ(update_file_list(group), 3);
    EXPECT_EQ(names(), (std::vector<std::string>{order[0], order[4], order[5]}));
    EXPECT_EQ(image().size(), 3 * 199u);
    write_file(order[2], lines(100));
    EXPECT_EQ(update_file_list(group), 4);
    EXPECT_EQ(names(), (std::vector<std::string>{order[0], order[4], order[5], order[2]}));
}

// Between a rotation's rename and its new file, or while a large directory is read, a name may be
// missed. What stands there when the file is to be dropped counts. A file outside the directory is
// never met by the scan, as if it had been missed.
TEST_F(DiscoveryTest, FileThatTheScanMissedKeepsItsBookmark) {
    const std::string content = lines(100);
    write_file(root + "/missed.log", content);
    ASSERT_NE(add_new_file(group, (root + "/missed.log").c_str()), nullptr);
    const std::string saved = image();
    EXPECT_EQ(update_file_list(group), 0);
    ASSERT_EQ(group->fc, 1);
    EXPECT_EQ(image(), saved);
    std::filesystem::remove(root + "/missed.log");
    std::filesystem::create_directory(root + "/missed.log");
    EXPECT_EQ(update_file_list(group), 0);
    EXPECT_EQ(group->fc, 0);
    EXPECT_EQ(image(), "");
}

// The first look at many files takes seconds; a stop does not wait for it, and half a list drops
// nothing.
TEST_F(DiscoveryTest, AStopEndsTheScan) {
    write_file(logs + "a.log", lines(100));
    write_file(logs + "b.log", lines(100));
    update_file_list(group);
    ASSERT_EQ(group->fc, 2);
    const std::string saved = image();
    write_file(logs + "c.log", lines(100));
    std::filesystem::remove(logs + "a.log");
    stop_execution();
    Capture log;
    EXPECT_EQ(update_file_list(group), 0);
    const std::string text = log.text();
    execution_reset_for_start();
    EXPECT_EQ(count_of(text, "\n"), 1u) << text;
    EXPECT_EQ(count_of(text, "Getting files from dir"), 1u);
    EXPECT_EQ(group->fc, 2);
    EXPECT_EQ(image(), saved);
    pause_execution();
    EXPECT_EQ(update_file_list(group), 2) << "a restart scans while the state is paused";
    resume_execution();
    EXPECT_EQ(group->fc, 2);
}

TEST_F(DiscoveryTest, TrackedFileReplacedByADirectoryIsDropped) {
    write_file(logs + "a.log", lines(100));
    update_file_list(group);
    std::filesystem::remove(logs + "a.log");
    std::filesystem::create_directory(logs + "a.log");
    update_file_list(group);
    EXPECT_EQ(group->fc, 0);
    EXPECT_EQ(image(), "");
}

TEST_F(DiscoveryTest, EachScanVerifiesThePositions) {
    write_file(logs + "a.log", lines(100));
    update_file_list(group);
    write_file(logs + "a.log", lines(2));
    update_file_list(group);
    EXPECT_EQ(group->f[0]->l, 0u);
}

TEST_F(DiscoveryTest, AddingAKnownPathReturnsItsRecord) {
    write_file(logs + "a.log", lines(100));
    fdesc *first = add_new_file(group, (logs + "a.log").c_str());
    ASSERT_NE(first, nullptr);
    first->d = 1;
    EXPECT_EQ(add_new_file(group, (logs + "a.log").c_str()), first);
    EXPECT_EQ(first->d, 0);
    EXPECT_EQ(group->fc, 1);
}

TEST_F(DiscoveryTest, LongPathIsRefusedWithOneErrorOverAllScans) {
    const std::string name = std::string(151 - logs.size() - 4, 'x') + ".log";
    write_file(logs + name, lines(100));
    write_file(logs + "y" + name, lines(100));
    std::filesystem::rename(logs + "y" + name, logs + name.substr(1));
    Capture log;
    EXPECT_EQ(update_file_list(group), 2);
    EXPECT_EQ(update_file_list(group), 2);
    EXPECT_EQ(update_file_list(group), 2);
    EXPECT_EQ(group->fc, 1);
    EXPECT_EQ(image().size(), 199u);
    EXPECT_EQ(count_of(log.text(), ":(ERROR) "), 1u);
}

TEST_F(DiscoveryTest, FileWithABlankAlwaysBeginsAsNew) {
    write_file(logs + "a b.log", lines(100));
    update_file_list(group);
    ASSERT_EQ(group->fc, 1);
    group->f[0]->l = 20;
    update_file_list(group);
    EXPECT_EQ(group->f[0]->l, 20u) << "the position in memory stands";
    restart();
    update_file_list(group);
    EXPECT_EQ(group->f[0]->l, lines(100).size());
    EXPECT_EQ(image().size(), 2 * 199u);
}

TEST_F(DiscoveryTest, TheBookmarkFileIsNotTailed) {
    use_directory(root + "/logs");
    bookmarks = logs + "ft_bookmark";
    set_filter(L"*");
    write_file(logs + "a", lines(100));
    EXPECT_EQ(update_file_list(group), 3);
    update_file_list(group);
    ASSERT_EQ(group->fc, 1);
    EXPECT_EQ(group->f[0]->n, logs + "a");
    ASSERT_EQ(link(bookmarks.c_str(), (logs + "second_name").c_str()), 0);
    update_file_list(group);
    EXPECT_EQ(group->fc, 1);
}

TEST_F(DiscoveryTest, TheOwnLogIsNotTailed) {
    write_file(logs + "a.log", lines(100));
    write_file(logs + "own.log", lines(100));
    write_file(logs + "own.log.tmp", lines(100));
    write_file(logs + "own.log.old", lines(100));
    set_filter(L"*");
    std::wstring own(logs.begin(), logs.end());
    own += L"own.log";
    conf.log = own.data();
    update_file_list(group);
    conf.log = nullptr;
    EXPECT_EQ(group->fc, 2);
}

TEST_F(DiscoveryTest, FileThatStandardErrorGoesToIsNotTailed) {
    write_file(logs + "a.log", "");
    write_file(logs + "b.log", "");
    fflush(stderr);
    const int saved = dup(STDERR_FILENO);
    const int log = open((logs + "a.log").c_str(), O_WRONLY | O_APPEND);
    dup2(log, STDERR_FILENO);
    update_file_list(group);
    dup2(saved, STDERR_FILENO);
    close(saved);
    close(log);
    ASSERT_EQ(group->fc, 1);
    EXPECT_EQ(group->f[0]->n, logs + "b.log");
}

TEST_F(DiscoveryTest, UnusableBookmarkFileDoesNotKeepFilesBack) {
    std::filesystem::create_directory(bookmarks);
    write_file(logs + "a.log", lines(100));
    EXPECT_EQ(update_file_list(group), 1);
    ASSERT_EQ(group->fc, 1);
    EXPECT_EQ(group->f[0]->l, lines(100).size());
    append_file(logs + "a.log", "more\n");
    update_file_list(group);
    EXPECT_EQ(group->f[0]->l, lines(100).size());
    std::filesystem::remove(bookmarks);
    update_file_list(group);
    EXPECT_EQ(image().size(), 199u) << "saved once that was possible";
}

TEST_F(DiscoveryTest, FileNamesMayHoldAnyByte) {
    set_filter(L"*");
    const std::string name = "a\xff\x01\\'\"$;\xc3\xa4";
    write_file(logs + name, lines(100));
    update_file_list(group);
    ASSERT_EQ(group->fc, 1);
    EXPECT_EQ(group->f[0]->n, logs + name);
    restart();
    update_file_list(group);
    EXPECT_EQ(group->f[0]->l, lines(100).size());
    EXPECT_EQ(image().size(), 199u);
}

TEST_F(DiscoveryTest, ThousandsOfFilesComeAndGo) {
    constexpr int kFiles = 3000;
    for (int i = 0; i < kFiles; ++i) write_file(logs + std::to_string(i) + ".log", lines(20));
    EXPECT_EQ(update_file_list(group), kFiles);
    EXPECT_EQ(group->fc, kFiles);
    EXPECT_EQ(image().size(), 199u * kFiles);
    for (int i = 0; i < kFiles; i += 2) std::filesystem::remove(logs + std::to_string(i) + ".log");
    for (int pass = 0; pass < 40 && group->fc != kFiles / 2; ++pass) update_file_list(group);
    EXPECT_EQ(group->fc, kFiles / 2);
    EXPECT_EQ(image().size(), 199u * (kFiles / 2));
    for (int i = 0; i < group->fc; ++i) {
        EXPECT_EQ(add_new_file(group, group->f[i]->n), group->f[i]);
        EXPECT_EQ(get_bookmark(group->f[i]), 1);
    }
}

}  // namespace

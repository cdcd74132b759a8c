// The replacement of the configuration file.
#include "lpc_interface/config_rewrite.h"

#include <gtest/gtest.h>
#include <sys/inotify.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <ctime>
#include <filesystem>
#include <fstream>

#include "tests/lpc_interface/kit.h"

namespace {

TEST(ConfigRewrite, TheNewFileStandsAlone) {
    const ConfigFile file("old=1\n");
    std::string why;
    EXPECT_TRUE(replace_config_file(file.path(), {"new=1", "", "type=x"}, &why)) << why;
    EXPECT_EQ(file.text(), "new=1\n\ntype=x\n");
    EXPECT_EQ(file.others(), "");
}

// What has happened to the names of a folder, in order: +made, -removed, <moved from, >moved to.
std::string steps_in(int watch) {
    alignas(inotify_event) char buffer[16384];
    const ssize_t size = read(watch, buffer, sizeof(buffer));
    std::string steps;
    for (ssize_t at = 0; at < size;) {
        const auto *event = reinterpret_cast<const inotify_event *>(buffer + at);
        const char sign = event->mask & IN_CREATE       ? '+'
                          : event->mask & IN_DELETE     ? '-'
                          : event->mask & IN_MOVED_FROM ? '<'
                                                        : '>';
        steps += sign + std::string(event->name) + " ";
        at += static_cast<ssize_t>(sizeof(inotify_event) + event->len);
    }
    return steps;
}

TEST(ConfigRewrite, TheBackupStandsWhileTheFileIsReplaced) {
    const ConfigFile file("old=1\n");
    const int watch = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
    if (watch < 0) GTEST_SKIP() << "no inotify instance to be had";
    ASSERT_GE(inotify_add_watch(watch, file.folder().c_str(), IN_CREATE | IN_DELETE | IN_MOVE), 0);
    const time_t before = time(nullptr);
    std::string why;
    EXPECT_TRUE(replace_config_file(file.path(), {"new=1"}, &why)) << why;
    const time_t after = time(nullptr);
    const std::string steps = steps_in(watch);
    close(watch);
    const std::string name = "collector.conf", fresh = name + ".new ";
    const size_t at = fresh.size() + name.size() + 3;
    const std::string seconds = steps.substr(at, steps.find(' ', at) - at);
    EXPECT_EQ(steps, "+" + fresh + "+" + name + "." + seconds + " <" + fresh + ">" + name + " -" +
                         name + "." + seconds + " ");
    EXPECT_GE(std::stol(seconds), before);
    EXPECT_LE(std::stol(seconds), after);
}

TEST(ConfigRewrite, OwnerAndModeStay) {
    const ConfigFile file("old=1\n");
    for (const mode_t mode : {0600u, 0640u, 0444u, 0777u}) {
        ASSERT_EQ(chmod(file.path().c_str(), mode), 0);
        if (geteuid() == 0) {
            ASSERT_EQ(chown(file.path().c_str(), 1234, 1235), 0);
        }
        std::string why;
        ASSERT_TRUE(replace_config_file(file.path(), {"new=1"}, &why)) << why;
        struct stat status;
        ASSERT_EQ(stat(file.path().c_str(), &status), 0);
        EXPECT_EQ(status.st_mode & 07777, mode);
        EXPECT_EQ(status.st_uid, geteuid() == 0 ? 1234u : geteuid());
        EXPECT_EQ(status.st_gid, geteuid() == 0 ? 1235u : getegid());
    }
}

TEST(ConfigRewrite, AFileThatIsMissingIsMade) {
    const ConfigFile file("old=1\n");
    ASSERT_EQ(unlink(file.path().c_str()), 0);
    std::string why;
    EXPECT_TRUE(replace_config_file(file.path(), {"new=1"}, &why)) << why;
    EXPECT_EQ(file.text(), "new=1\n");
    EXPECT_EQ(file.others(), "");
}

TEST(ConfigRewrite, ALinkStaysALink) {
    const ConfigFile file("");
    const std::string real = file.folder() + "/real";
    std::ofstream(real) << "old=1\n";
    std::filesystem::remove(file.path());
    std::filesystem::create_symlink("real", file.path());
    std::string why;
    EXPECT_TRUE(replace_config_file(file.path(), {"new=1"}, &why)) << why;
    EXPECT_TRUE(std::filesystem::is_symlink(file.path()));
    EXPECT_EQ(file.text(), "new=1\n");
    EXPECT_EQ(file.others(), "real ");
}

TEST(ConfigRewrite, LeftoversAreNoHindrance) {
    const ConfigFile file("old=1\n");
    std::ofstream(file.folder() + "/victim") << "untouched";
    std::filesystem::create_symlink("victim", file.path() + ".new");
    for (time_t second = time(nullptr), i = 0; i < 60; i++)
        std::ofstream(file.path() + "." + std::to_string(second + i)) << "stale";
    std::string why;
    EXPECT_TRUE(replace_config_file(file.path(), {"new=1"}, &why)) << why;
    EXPECT_EQ(file.text(), "new=1\n");
    EXPECT_EQ(std::filesystem::file_size(file.folder() + "/victim"), 9u);
    EXPECT_EQ(count_of(file.others(), "collector.conf."), 59);  // the one of this second is gone
}

TEST(ConfigRewrite, AFullDiskLeavesTheOldFile) {
    const ConfigFile file("old=1\n");
    std::vector<std::string> lines(1000, std::string(100, 'x'));
    rlimit before;
    ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &before), 0);
    const auto handler = signal(SIGXFSZ, SIG_IGN);
    const rlimit small = {4096, before.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &small), 0);
    std::string why;
    const bool replaced = replace_config_file(file.path(), lines, &why);
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &before), 0);
    signal(SIGXFSZ, handler);
    EXPECT_FALSE(replaced);
    EXPECT_EQ(why.substr(0, 6), "write ");
    EXPECT_EQ(file.text(), "old=1\n");
    EXPECT_EQ(file.others(), "");
}

TEST(ConfigRewrite, OtherThingsAreNotReplaced) {
    const ConfigFile file("old=1\n");
    std::string why;
    EXPECT_FALSE(replace_config_file(file.folder(), {"new=1"}, &why));
    EXPECT_EQ(why, file.folder() + " is no regular file");
    EXPECT_FALSE(replace_config_file(file.folder() + "/none/file", {"new=1"}, &why));
    EXPECT_FALSE(replace_config_file(file.path() + "/file", {"new=1"}, &why));
    ASSERT_TRUE(std::filesystem::create_directory(file.path() + ".new"));
    EXPECT_FALSE(replace_config_file(file.path(), {"new=1"}, &why));
    EXPECT_EQ(file.text(), "old=1\n");
}

}  // namespace

// The plugin's start and its worker's loop.

#include <fcntl.h>
#include <sys/resource.h>

#include <chrono>
#include <thread>

#include "filetail/filetail.h"
#include "filetail/wake.h"
#include "tests/filetail/reader_kit.h"

namespace {

using namespace reader_kit;

class Process : public ReaderTest {
  protected:
    void SetUp() override {
        ReaderTest::SetUp();
        p.sleep = 300;
        conf.connected = 0;
    }
    void TearDown() override {
        stop();
        for (int32_t i = 0; i < p.bm_count; ++i) free_tail_group(p.ft.bm[i]);
        free(p.ft.bm);
        p.ft.bm = nullptr;
        p.bm_count = 0;
        ReaderTest::TearDown();
    }
    int start(int8_t connected) {
        const owned directory(wide(root));
        return ft_init(&p, directory.get(), connected);
    }
    // Starts the plugin on an open connection.
    void start_connected() {
        ASSERT_EQ(ruv_init(&conf), 0);
        ASSERT_EQ(start(1), 0);
    }
    // Joins the worker, as the plugin's shutdown does.
    void stop() {
        stop_execution();
        for (int32_t i = 0; i < p.bm_count; ++i) {
            if (p.ft.bm[i]->t == nullptr) continue;
            pthread_join(*p.ft.bm[i]->t, nullptr);
            free(p.ft.bm[i]->t);
            p.ft.bm[i]->t = nullptr;
        }
    }
    bool logged(const std::string &file, const std::string &what) const {
        return bookmark_kit::read_file(file).find(what) != std::string::npos;
    }

    struct free_wide {
        void operator()(wchar_t *text) const { free(text); }
    };
    using owned = std::unique_ptr<wchar_t, free_wide>;
};

// Standard output goes to a file that may be read while the worker runs.
class LiveLog {
  public:
    LiveLog(const std::string &path, uint64_t mask) : path_(path) {
        fflush(stdout);
        saved_ = dup(STDOUT_FILENO);
        const int fd = open(path.c_str(), O_CREAT | O_WRONLY | O_APPEND | O_CLOEXEC, 0600);
        dup2(fd, STDOUT_FILENO);
        close(fd);
        logger_init(mask, nullptr, 0);
    }
    ~LiveLog() {
        fflush(stdout);
        dup2(saved_, STDOUT_FILENO);
        close(saved_);
        logger_init(0, nullptr, 0);
    }
    std::string text() const {
        fflush(stdout);
        return bookmark_kit::read_file(path_);
    }
    bool waits_for(const std::string &what, size_t times = 1) const {
        return wait_until([&] { return count_of(text(), what) >= times; });
    }

  private:
    std::string path_;
    int saved_;
};

TEST_F(Process, DeliversWhatIsThere) {
    serve({fake::serve()});
    bookmark_kit::write_file(logs + "a", "one\ntwo\n");
    bookmark_kit::write_file(logs + "b", "three\n");
    start_connected();
    strings got = arrived(3);
    std::sort(got.begin(), got.end());
    EXPECT_EQ(got, (strings{"one ", "three ", "two "}));
    ASSERT_EQ(p.bm_count, 1);
    EXPECT_NE(p.ft.bm[0]->t, nullptr);
    EXPECT_EQ(p.ft.bm[0]->p, &p);
    ASSERT_NE(p.ft.bm_file, nullptr);
    const std::wstring file = p.ft.bm_file;
    EXPECT_EQ(std::string(file.begin(), file.end()), bm_filename);
    EXPECT_EQ(bm_filename, root + "/ft_bookmark");
}

TEST_F(Process, APassThatSentIsFollowedByTheNextAtOnce) {
    serve({fake::serve()});
    p.throttle = 1;
    bookmark_kit::write_file(logs + "a", bookmark_kit::lines(3000));
    start_connected();
    EXPECT_EQ(arrived(3000).size(), 3000u) << "the pause of 300 s comes only at the end";
}

TEST_F(Process, AnEmptyDirectoryIsReportedAndSlept) {
    serve({fake::serve()});
    LiveLog log(root + "/log", 15);
    start_connected();
    EXPECT_TRUE(log.waits_for("No events to read, sleeping 300 second(s)\n"));
    const std::string text = log.text();
    const size_t sent = text.find(":(DEBUG) Sent 0 event(s) to SIEM\n");
    const size_t sleeping = text.find(":(DEBUG) No events to read, sleeping 300 second(s)\n");
    EXPECT_NE(sleeping, std::string::npos) << text;
    EXPECT_LT(sent, sleeping);
    EXPECT_EQ(count_of(text, "from " + logs), 0u);
}

TEST_F(Process, EachFileIsReported) {
    serve({fake::serve()});
    bookmark_kit::write_file(logs + "a", "one\ntwo\n");
    LiveLog log(root + "/log", 15);
    start_connected();
    EXPECT_TRUE(log.waits_for("No events to read"));
    const std::string text = log.text();
    const size_t first = text.find(":(DEBUG) Sent 2 event(s) to SIEM from " + logs + "a\n");
    const size_t total = text.find(":(DEBUG) Sent 2 event(s) to SIEM\n");
    const size_t nothing = text.find(":(DEBUG) Sent 0 event(s) to SIEM from " + logs + "a\n");
    EXPECT_LT(first, total);
    EXPECT_LT(total, nothing);
    EXPECT_NE(nothing, std::string::npos);
}

TEST_F(Process, PausesBetweenTwoFiles) {
    constexpr int kFiles = 400;
    serve({fake::serve()});
    for (int i = 0; i < kFiles; ++i) bookmark_kit::write_file(logs + std::to_string(i), "");
    LiveLog log(root + "/log", 15);
    const auto begin = std::chrono::steady_clock::now();
    start_connected();
    EXPECT_TRUE(log.waits_for("No events to read"));
    EXPECT_GE(std::chrono::steady_clock::now() - begin,
              std::chrono::microseconds(300) * (kFiles - 1));
}

TEST_F(Process, StartsNothingForADirectoryThatIsNotThere) {
    std::filesystem::remove_all(logs);
    Capture log(4);
    EXPECT_EQ(start(0), 1);
    EXPECT_NE(log.text().find(":(WARN) Failed to update file list from: " + logs + "\n"),
              std::string::npos);
    ASSERT_EQ(p.bm_count, 1);
    EXPECT_EQ(p.ft.bm[0]->t, nullptr);
}

TEST_F(Process, StartsNothingWithoutARecord) {
    fake::version6 no_syslog;
    no_syslog.versions = {{6, 0, 0}, {6, 1, 0}};
    serve({fake::serve(no_syslog)});
    ASSERT_EQ(ruv_init(&conf), 0);
    Capture log(1);
    EXPECT_EQ(start(1), 1);
    EXPECT_EQ(p.bm_count, 0);
    EXPECT_EQ(is_executing(), 1) << "the daemon goes on";
    EXPECT_NE(log.text().find("RUVAllocData failed (Server: 127.0.0.1, Version: 0, Subversion: "
                              "0)! (15)\n"),
              std::string::npos);
}

TEST_F(Process, TakesTheFlagFromTheCaller) {
    std::filesystem::remove_all(logs);
    _connected = 1;
    start(0);
    EXPECT_EQ(_connected, 0);
}

TEST_F(Process, AReceiverThatIsDownIsTriedOnceIn300Seconds) {
    quiet_port quiet;
    address_is(quiet.port());
    EXPECT_EQ(ruv_init(&conf), 1);
    LiveLog log(root + "/log", 1);
    ASSERT_EQ(start(0), 0);
    EXPECT_TRUE(log.waits_for("Error connecting to the Receiver: "));
    usleep(300'000);
    stop();
    EXPECT_EQ(count_of(log.text(), "Error connecting to the Receiver: "), 1u);
}

TEST_F(Process, ConnectsWhenTheReceiverComes) {
    quiet_port quiet;
    address_is(quiet.port());
    EXPECT_EQ(ruv_init(&conf), 1);
    conf.reconnect_wait = 1;
    bookmark_kit::write_file(logs + "a", "one\n");
    LiveLog log(root + "/log", 15);
    ASSERT_EQ(start(0), 0);
    EXPECT_TRUE(log.waits_for("Error connecting to the Receiver: "));
    receiver = std::make_unique<fake::receiver>(fake::serve());
    {
        const spinlock_guard hold(ruv_lock);
        conf.ruv.port = receiver->port();
    }
    EXPECT_EQ(arrived(1), (strings{"one "}));
    EXPECT_EQ(count_of(log.text(), ":(DEBUG) Successfully re-established connection.\n"), 1u);
}

TEST_F(Process, AWorkerStartedDuringARestartWaitsForItsEnd) {
    serve({fake::serve()});
    bookmark_kit::write_file(logs + "a", "one\n");
    pause_execution();
    start_connected();
    usleep(100'000);
    EXPECT_TRUE(messages().empty());
    resume_execution();
    EXPECT_EQ(arrived(1), (strings{"one "}));
}

TEST_F(Process, APauseEndsTheWorker) {
    serve({fake::serve()});
    start_connected();
    pause_execution();
    begin_joining_workers();
    pthread_join(*p.ft.bm[0]->t, nullptr);
    end_joining_workers();
    free(p.ft.bm[0]->t);
    p.ft.bm[0]->t = nullptr;
    EXPECT_EQ(is_running(), 1);
}

TEST_F(Process, AFileThatCannotBeOpenedIsNoHotLoop) {
    serve({fake::serve()});
    p.sleep = 0;
    bookmark_kit::write_file(logs + "a", "one\n");
    LiveLog log(root + "/log", 1);
    start_connected();
    ASSERT_EQ(arrived(1).size(), 1u);
    // The name is still there and matches, but leads nowhere.
    std::filesystem::create_symlink(root + "/nowhere", root + "/link");
    const auto begin = std::chrono::steady_clock::now();
    std::filesystem::rename(root + "/link", logs + "a");
    EXPECT_TRUE(log.waits_for("Error: Reading file " + logs + "a : (2)", 2));
    stop();
    const auto seconds =
        std::chrono::duration_cast<std::chrono::seconds>(std::chrono::steady_clock::now() - begin);
    EXPECT_LE(count_of(log.text(), "Error: Reading file "),
              static_cast<size_t>(seconds.count()) + 2);
}

// The Receiver refuses what every send needs: attempts a second apart, not thousands.
TEST_F(Process, AReceiverThatRefusesEverythingIsNotHammered) {
    const auto refuse_channels = [](fake::peer &peer) {
        for (int i = 0; i < 2 && fake::serve_one(peer, {}); ++i) {
        }
        peer.read(16 + 4 + 4);
        peer.send(fake::kNotOkay);
        peer.drain();
    };
    serve({refuse_channels});
    p.dsinfo = RUVAllocDSInfo(3, "host");
    p.sleep = 0;
    bookmark_kit::write_file(logs + "a", "one\n");
    LiveLog log(root + "/log", 1);
    const auto begin = std::chrono::steady_clock::now();
    start_connected();
    EXPECT_TRUE(log.waits_for("Error in ruv send, ", 3));
    stop();
    const auto seconds =
        std::chrono::duration_cast<std::chrono::seconds>(std::chrono::steady_clock::now() - begin);
    // The first attempt is repeated at once, later ones after a second.
    EXPECT_LE(receiver->connections(), seconds.count() + 4);
    EXPECT_LE(count_of(log.text(), "(ERROR)"), static_cast<size_t>(seconds.count()) + 4);
}

// ---- Waking early.

TEST_F(Process, AChangeEndsThePause) {
    serve({fake::serve()});
    conf.wake_on_change = 1;
    // More than the part that a file is recognised by, so that growing does not make it new.
    bookmark_kit::write_file(logs + "a", std::string(300, 'x') + "\n");
    LiveLog log(root + "/log", 15);
    start_connected();
    ASSERT_TRUE(log.waits_for("No events to read, sleeping 300 second(s)"));
    for (int i = 0; i < 20; ++i) {
        bookmark_kit::append_file(logs + "a", std::to_string(i) + "\n");
        ASSERT_EQ(arrived(static_cast<size_t>(i) + 2).back(), std::to_string(i) + " ");
    }
    // A new file, one that is begun anew, and one that goes.
    bookmark_kit::write_file(logs + "b", "new\n");
    ASSERT_EQ(arrived(22).back(), "new ");
    bookmark_kit::write_file(logs + "b", "n\n");
    ASSERT_EQ(arrived(23).back(), "n ");
    std::filesystem::remove(logs + "b");
    EXPECT_TRUE(log.waits_for("Removing " + logs + "b "));
}

TEST_F(Process, WithoutTheSettingThePauseIsSleptOut) {
    serve({fake::serve()});
    LiveLog log(root + "/log", 15);
    start_connected();
    ASSERT_TRUE(log.waits_for("No events to read, sleeping 300 second(s)"));
    bookmark_kit::write_file(logs + "a", "one\n");
    usleep(300'000);
    EXPECT_TRUE(messages().empty());
}

class Wake : public ReaderTest {
  protected:
    static void collect(void *names, const char *name) {
        static_cast<strings *>(names)->push_back(name);
    }
    wake_reason wait(int milliseconds) {
        names.clear();
        return wake_wait(&watch, milliseconds, collect, &names);
    }
    wake_watch watch;
    strings names;
};

TEST_F(Wake, NamesWhatWasWritten) {
    bookmark_kit::write_file(logs + "a", "one\n");
    wake_start(&watch, logs.c_str());
    ASSERT_GE(watch.fd, 0);
    EXPECT_EQ(wait(0), wake_reason::timeout);
    bookmark_kit::append_file(logs + "a", "two\n");
    EXPECT_EQ(wait(30'000), wake_reason::written);
    EXPECT_EQ(names, (strings{"a"}));
    std::filesystem::rename(logs + "a", logs + "b");
    EXPECT_EQ(wait(30'000), wake_reason::directory);
    std::filesystem::remove(logs + "b");
    EXPECT_EQ(wait(30'000), wake_reason::directory);
}

TEST_F(Wake, ADirectoryThatGoesIsWatchedAnew) {
    wake_start(&watch, logs.c_str());
    ASSERT_GE(watch.fd, 0);
    std::filesystem::remove_all(logs);
    EXPECT_EQ(wait(30'000), wake_reason::directory);
    EXPECT_LT(watch.fd, 0);
    Capture log(4);
    wake_start(&watch, logs.c_str());
    EXPECT_LT(watch.fd, 0);
    std::filesystem::create_directory(logs);
    wake_start(&watch, logs.c_str());
    EXPECT_GE(watch.fd, 0);
    EXPECT_EQ(log.text(), "") << "a directory may come and go";
}

TEST_F(Wake, FallsBackWhenNoWatchIsLeft) {
    rlimit old;
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &old), 0);
    Capture log(4);
    const rlimit none = {0, old.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
    for (int i = 0; i < 3; ++i) wake_start(&watch, logs.c_str());
    setrlimit(RLIMIT_NOFILE, &old);
    EXPECT_LT(watch.fd, 0);
    EXPECT_TRUE(watch.failed);
    EXPECT_EQ(count_of(log.text(), ":(WARN) Cannot watch " + logs + " for changes: (24)"), 1u);
    wake_start(&watch, logs.c_str());
    EXPECT_LT(watch.fd, 0) << "it is not tried again";
}

}  // namespace

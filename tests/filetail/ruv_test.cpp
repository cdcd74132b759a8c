// The shared connection: opening, sending, failing, connecting again, and ending when told to.

#include "filetail/ruv.h"

#include <thread>

#include "filetail/ruv_link.h"
#include "ruv/conn.h"
#include "ruv/trace.h"
#include "tests/filetail/reader_kit.h"

namespace {

using namespace reader_kit;

class Ruv : public ReaderTest {
  protected:
    int send(const std::string &event) { return send_event(&p, event.data(), event.size()); }
    // Runs in another thread what blocks, stops, and expects the end within the 30 s of patience.
    template <class Function>
    int stopped_while(Function function, const std::function<bool()> &blocked) {
        std::atomic<bool> ended{false};
        int result = -99;
        std::thread worker([&] {
            result = function();
            ended = true;
        });
        EXPECT_TRUE(wait_until(blocked));
        EXPECT_FALSE(ended);
        stop_execution();
        EXPECT_TRUE(wait_until([&] { return ended.load(); }));
        worker.join();
        return result;
    }
    quiet_port quiet;
};

TEST_F(Ruv, OpensTheSharedConnection) {
    serve({fake::serve()});
    conf.debug = wide("info");
    Capture log(31);
    EXPECT_EQ(ruv_init(&conf), 0);
    EXPECT_EQ(conf.connected, 1);
    ASSERT_NE(conf.ruvconn, nullptr);
    EXPECT_EQ(conf.ruvconn->allow_to_auto_learn, 0);
    EXPECT_EQ(conf.ruvconn->ipv4_or_v6, 0) << "either";
    const std::string text = log.text();
    EXPECT_NE(text.find(":(INFO) Attempting connection to Server: 127.0.0.1 -- Port: " +
                        std::to_string(receiver->port()) + " -- Encrypt: 0\n"),
              std::string::npos)
        << text;
    EXPECT_EQ(count_of(text, "\n"), 1u) << text;
    ruv_teardown(&conf);
    EXPECT_EQ(conf.ruvconn, nullptr);
    ruv_teardown(&conf);
}

TEST_F(Ruv, SaysThatItLearnsSources) {
    serve({fake::serve()});
    g_args.autolearn = 1;
    Capture log(2);
    EXPECT_EQ(ruv_init(&conf), 0);
    g_args.autolearn = 0;
    EXPECT_EQ(conf.ruvconn->allow_to_auto_learn, 1);
    EXPECT_EQ(count_of(log.text(), ":(INFO) Enabling auto learning on client\n"), 1u);
}

TEST_F(Ruv, TheLibrarySpeaksAtItsOwnLevel) {
    const struct {
        const char *word;
        int calls, dumps;
    } rows[] = {{"diag", 1, 1},  {"debug", 1, 0}, {"warn", 1, 0},
                {"error", 0, 0}, {"WARN", 1, 0},  {"nonsense", 0, 0}};
    for (const auto &row : rows) {
        free(conf.debug);
        conf.debug = wide(row.word);
        testing::internal::CaptureStderr();
        EXPECT_EQ(ruv_init(&conf), 1) << "there is no address";
        ruv_teardown(&conf);
        testing::internal::GetCapturedStderr();
        EXPECT_EQ(debug_fn_call, row.calls) << row.word;
        for (const auto *dump : {&debug_send, &debug_recv, &debug_trace}) {
            EXPECT_EQ(*dump, row.dumps) << row.word;
        }
        EXPECT_EQ(debug_data, 0) << row.word;
    }
    RUVSetLogging(0);
}

TEST_F(Ruv, TheLinesOfTheLibraryDoNotLetTheLogOutgrowItsLimit) {
    conf.debug = wide("warn");
    testing::internal::CaptureStderr();
    const std::string path = logs + "daemon.log";
    wchar_t *wide_path = wide(path);
    logger_init(translate_level(conf.debug), wide_path, 1);
    free(wide_path);
    connect_to();
    EXPECT_EQ(truncate(path.c_str(), 10'485'760), 0) << "as if the library had written so much";
    EXPECT_EQ(send("event"), 1);
    struct stat info = {};
    EXPECT_EQ(stat(path.c_str(), &info), 0);
    EXPECT_LT(info.st_size, 100'000);
    logger_teardown();
    logger_init(0, nullptr, 0);
    RUVSetLogging(0);
    testing::internal::GetCapturedStderr();
}

TEST_F(Ruv, AReceiverThatIsDownIsReported) {
    address_is(quiet.port());
    Capture log(1);
    EXPECT_EQ(ruv_init(&conf), 1);
    EXPECT_EQ(conf.connected, 0);
    EXPECT_NE(log.text().find(":(ERROR) Error connecting to the Receiver: A system library call "
                              "returned an error (errno = 111 [Connection refused])\n"),
              std::string::npos);
}

TEST_F(Ruv, AMissingServerIsReported) {
    Capture log(1);
    EXPECT_EQ(ruv_init(&conf), 1);
    EXPECT_EQ(conf.ruvconn, nullptr);
    EXPECT_NE(log.text().find("Error connecting to the Receiver: The provided arguemnt was "
                              "invalid (arg #1)\n"),
              std::string::npos);
}

TEST_F(Ruv, WithoutAHandleTheWorkerMakesOne) {
    EXPECT_EQ(ruv_init(&conf), 1);
    serve({fake::serve()});
    EXPECT_EQ(ruv_ensure_connected(&p), 0);
    EXPECT_EQ(_connected, 1);
    EXPECT_NE(p.data, nullptr) << "a worker without a record gets one";
    EXPECT_EQ(send("late"), 1);
    EXPECT_EQ(arrived(1), (strings{"late"}));
}

// A plugin that starts sets the flag to what the start of the daemon found; a worker may have lost
// the connection since. That must not look like a Receiver that takes no records.
TEST_F(Ruv, AFlagThatIsTooOldDoesNotEndTheDaemon) {
    serve({fake::serve(), fake::serve()});
    for (const bool has_handle : {false, true}) {
        _connected = 1;
        std::thread([&] {
            EXPECT_EQ(ruv_ensure_connected(&p), -1) << has_handle;
            EXPECT_EQ(is_running(), 1);
            EXPECT_EQ(_connected, 0);
            EXPECT_EQ(ruv_ensure_connected(&p), 0);
        }).join();
        RUVClose(conf.ruvconn);
    }
}

TEST_F(Ruv, SendsTheTextAndTheTime) {
    connect_to();
    const auto before = static_cast<uint32_t>(time(nullptr));
    EXPECT_EQ(send(std::string("some text")), 1);
    ASSERT_EQ(arrived(1), (strings{"some text"}));
    const std::string stream = receiver->received();
    uint32_t stamp = 0;
    memcpy(&stamp, &stream[stream.size() - 17], 4);
    EXPECT_GE(stamp, before);
    EXPECT_LE(stamp, static_cast<uint32_t>(time(nullptr)));
}

TEST_F(Ruv, SendsByLengthAndNotByTerminator) {
    connect_to();
    EXPECT_EQ(send_event(&p, "abcdef", 3), 1);
    EXPECT_EQ(send_event(&p, "abcdef", 0), 1) << "nothing to send is no failure";
    EXPECT_EQ(send_event(&p, "xyz", 1), 1);
    EXPECT_EQ(arrived(2), (strings{"abc", "x"}));
}

TEST_F(Ruv, SplitsAtTheLongestRecord) {
    connect_to();
    EXPECT_EQ(send(std::string(65535, 'a')), 1);
    EXPECT_EQ(send(std::string(65536, 'b')), 1);
    const strings got = arrived(3);
    ASSERT_EQ(got.size(), 3u);
    EXPECT_EQ(got[0].size(), 65535u);
    EXPECT_EQ(got[1].size(), 65535u);
    EXPECT_EQ(got[2], "b");
}

// A Receiver that ended the connection while it was idle is noticed before a send: no event is
// written into a closed connection, where it would be lost without an error.
TEST_F(Ruv, ARestartedReceiverCostsNoEvent) {
    connect_to({serve_then_close(3), fake::serve()});
    ASSERT_EQ(send("first"), 1);
    ASSERT_TRUE(wait_until([&] { return RUVCheckPeer(conf.ruvconn) != 0; }));
    usleep(1000);  // a connection that was used this instant is trusted
    Capture log(9);
    EXPECT_EQ(send("second"), 0) << "it is to be read again";
    EXPECT_EQ(_connected, 1) << "the connection was opened again at once";
    EXPECT_EQ(send("second"), 1);
    EXPECT_EQ(arrived(2), (strings{"first", "second"}));
    const std::string text = log.text();
    const size_t error = text.find(":(ERROR) Error in ruv send, ");
    const size_t again = text.find(":(DEBUG) Successfully re-established connection.\n");
    const size_t released = text.find(":(DEBUG) released ruv spin lock\n");
    EXPECT_NE(text.find(" - 3 - A system library call returned an error"), std::string::npos);
    EXPECT_LT(text.find(":(DEBUG) engage ruv spin lock\n"), error);
    EXPECT_LT(error, again);
    EXPECT_LT(again, released);
    EXPECT_NE(released, std::string::npos);
}

TEST_F(Ruv, AReceiverThatStaysDownClearsTheFlag) {
    connect_to();
    ASSERT_EQ(send("first"), 1);
    ASSERT_EQ(arrived(1).size(), 1u);
    receiver->stop();
    Capture log(1);
    ASSERT_TRUE(wait_until([&] { return send("lost?") == 0; }));
    EXPECT_EQ(_connected, 0);
    const std::string text = log.text();
    EXPECT_EQ(count_of(text, "Error in ruv send, "), 1u);
    EXPECT_EQ(count_of(text, "Error connecting to the Receiver: "), 1u);
    // The flag is clear: nobody tries and nobody complains until a worker has connected again.
    Capture quiet(1);
    EXPECT_EQ(send("later"), 0);
    EXPECT_EQ(quiet.text(), "");
}

// A refusal by the Receiver is not the connection's fault: only the flag is cleared.
TEST_F(Ruv, AnotherFailureOnlyClearsTheFlag) {
    const auto refuse_channels = [](fake::peer &peer) {
        for (int i = 0; i < 2 && fake::serve_one(peer, {}); ++i) {
        }
        peer.read(16 + 4 + 4);
        peer.send(fake::kNotOkay);
        peer.drain();
    };
    connect_to({refuse_channels});
    p.dsinfo = RUVAllocDSInfo(3, "host");
    Capture log(9);
    EXPECT_EQ(send("event"), 0);
    EXPECT_EQ(_connected, 0);
    EXPECT_EQ(receiver->connections(), 1);
    const std::string text = log.text();
    EXPECT_EQ(count_of(text, "- 13 - Requested operation returned 'NOTOKAY'\n"), 1u) << text;
    EXPECT_EQ(count_of(text, "Error connecting"), 0u);
    EXPECT_EQ(count_of(text, "re-established"), 0u);
}

TEST(RuvLink, TellsALostConnectionFromOtherFailures) {
    const struct {
        int code, system_error;
        bool lost;
    } rows[] = {{3, 0, true},    {3, 32, true},    {22, 0, true},   {22, 9, true},
                {12, 110, true}, {14, 111, true},  {0, 110, true},  {12, 0, false},
                {14, 32, false}, {21, 104, false}, {4, 109, false}, {2, 112, false}};
    for (const auto &row : rows) {
        EXPECT_EQ(link_was_lost(row.code, row.system_error), row.lost)
            << row.code << " " << row.system_error;
    }
}

TEST_F(Ruv, AHandleThatIsStillOpenIsClosedFirst) {
    connect_to();
    _connected = 0;
    EXPECT_EQ(ruv_ensure_connected(&p), 0);
    EXPECT_EQ(send("event"), 1);
    EXPECT_EQ(arrived(1), (strings{"event"}));
    EXPECT_EQ(receiver->connections(), 2);
}

TEST_F(Ruv, TheFlagIsLookedAtAgainUnderTheLock) {
    connect_to();
    _connected = 0;
    std::atomic<int> connected{0};
    std::vector<std::thread> workers;
    std::vector<plugin> plugins(8);
    spinlock_engage(&ruv_lock);
    for (plugin &one : plugins) {
        workers.emplace_back([&connected, &one] { connected += ruv_ensure_connected(&one) == 0; });
    }
    spinlock_release(&ruv_lock);
    for (std::thread &worker : workers) worker.join();
    EXPECT_EQ(connected, 8);
    EXPECT_EQ(receiver->connections(), 2) << "one of them connects, for all";
    for (plugin &one : plugins) RUVFreeData(one.data);
}

TEST_F(Ruv, AWrongGuessOfGeneration5IsForgotten) {
    // Refuses the NOP, is silent to a TLS hello, ends the third connection: a Receiver that is
    // just coming up. Then it is there and speaks version 6.
    const auto refuse = [](fake::peer &peer) {
        peer.read(16);
        peer.send(fake::kNotOkay);
        peer.drain();
    };
    const auto silent = [](fake::peer &peer) { peer.drain(); };
    const auto close = [](fake::peer &) {};
    connect_to({refuse, silent, close, fake::serve()});
    ASSERT_TRUE(wait_until([&] { return RUVCheckPeer(conf.ruvconn) != 0; }));
    usleep(1000);
    EXPECT_EQ(send("event"), 0);
    EXPECT_EQ(_connected, 1);
    EXPECT_EQ(send("event"), 1);
    EXPECT_EQ(arrived(1), (strings{"event"})) << "as a version-6 record";
}

// The record of the plugin's start was made for a connection that another worker has replaced
// since.
TEST_F(Ruv, TheFirstRecordIsNotSentOverANewerConnection) {
    const auto refuse = [](fake::peer &peer) {
        peer.read(16);
        peer.send(fake::kNotOkay);
        peer.drain();
    };
    const auto silent = [](fake::peer &peer) { peer.drain(); };
    const auto close = [](fake::peer &) {};
    connect_to({refuse, silent, close, fake::serve()});  // with a record of version 5
    _connected = 0;
    plugin other = {};
    std::thread([&] { EXPECT_EQ(ruv_ensure_connected(&other), 0); }).join();
    EXPECT_EQ(_connected, 1);
    std::thread([&] { EXPECT_EQ(send("event"), 1); }).join();
    EXPECT_EQ(arrived(1), (strings{"event"})) << "as a version-6 record";
    RUVFreeData(other.data);
}

TEST_F(Ruv, WithoutARecordTheDaemonEnds) {
    fake::version6 no_syslog;
    no_syslog.versions = {{6, 0, 0}, {6, 1, 0}};
    serve({fake::serve(no_syslog)});
    Capture log(1);
    EXPECT_EQ(ruv_ensure_connected(&p), -1);
    EXPECT_EQ(is_running(), 0);
    EXPECT_NE(log.text().find("RUVAllocData failed (Server: 127.0.0.1, Version: 0, Subversion: "
                              "0)! (15)\n\n"),
              std::string::npos);
}

TEST_F(Ruv, ADaemonThatIsRestartingMayConnect) {
    serve({fake::serve()});
    pause_execution();
    EXPECT_EQ(ruv_init(&conf), 0) << "only a stop ends the waits of a restart";
    resume_execution();
}

// ---- Stopping while blocked.

TEST_F(Ruv, StopsWhileTheReceiverIsSilent) {
    serve({[](fake::peer &peer) { peer.drain(); }});
    EXPECT_EQ(stopped_while([&] { return ruv_init(&conf); },
                            [&] { return receiver->received().size() >= 16; }),
              1);
}

TEST_F(Ruv, StopsWhileTheVersionListDoesNotCome) {
    serve({[](fake::peer &peer) {
        fake::serve_one(peer, {});
        peer.drain();
    }});
    Capture log(1);
    EXPECT_EQ(stopped_while([&] { return ruv_ensure_connected(&p); },
                            [&] { return receiver->received().size() >= 32; }),
              -1);
    EXPECT_EQ(log.text(), "") << "a stop is no failure";
}

TEST_F(Ruv, StopsWhileTheReceiverDoesNotRead) {
    const auto over = std::make_shared<std::atomic<bool>>(false);
    connect_to({[over](fake::peer &peer) {
        for (int i = 0; i < 2 && fake::serve_one(peer, {}); ++i) {
        }
        while (!*over) usleep(1000);
    }});
    std::atomic<int> sent{0};
    const std::string big(65535, 'x');
    int last = -1;
    const auto grown = [&] {
        const int now = sent;
        const bool stuck = now > 0 && now == last;
        last = now;
        if (!stuck) usleep(200'000);
        return stuck;
    };
    Capture log(1);
    const int result = stopped_while(
        [&] {
            while (send(big) == 1) ++sent;
            return 7;
        },
        grown);
    EXPECT_EQ(result, 7);
    EXPECT_EQ(log.text(), "");
    *over = true;
    receiver->stop();
}

TEST_F(Ruv, StopsInThePauseBeforeAnotherAttempt) {
    address_is(quiet.port());
    Capture log(1);
    std::atomic<bool> tried{false};
    EXPECT_EQ(stopped_while(
                  [&] {
                      tried = true;
                      return ruv_ensure_connected(&p);
                  },
                  [&] { return tried.load(); }),
              -1);
    EXPECT_LE(count_of(log.text(), "Error connecting to the Receiver: "), 1u)
        << "once in 300 seconds";
}

TEST_F(Ruv, ReconnectWaitShortensThePause) {
    conf.reconnect_wait = 1;
    address_is(quiet.port());
    std::thread worker([&] { EXPECT_EQ(ruv_ensure_connected(&p), 0); });
    // The first attempts fail; then a Receiver comes up and is found within the pause.
    usleep(50'000);
    std::unique_ptr<fake::receiver> late = std::make_unique<fake::receiver>(fake::serve());
    {
        const spinlock_guard hold(ruv_lock);
        conf.ruv.port = late->port();
    }
    worker.join();
    EXPECT_EQ(_connected, 1);
    receiver = std::move(late);
    EXPECT_EQ(send("event"), 1);
    EXPECT_EQ(arrived(1), (strings{"event"}));
}

TEST_F(Ruv, LegacyTlsIsWarnedOfOnce) {
    // Nobody answers: what counts is the line at the start.
    address_is(quiet.port());
    conf.ruv.encrypt = 1;
    {
        Capture log(4);
        ruv_init(&conf);
        ruv_teardown(&conf);
        ruv_init(&conf);
        static bool said = false;  // once in the life of the process, also when tests are repeated
        EXPECT_EQ(count_of(log.text(), ":(WARN) Legacy TLS is in use"), said ? 0u : 1u);
        said = true;
    }
    ruv_teardown(&conf);
    conf.rec_tls_min = wide("1.2");
    {
        Capture log(4);
        ruv_init(&conf);
        EXPECT_EQ(log.text(), "");
    }
    ruv_teardown(&conf);
    free(conf.rec_tls_min);
    conf.rec_tls_min = nullptr;
}

TEST_F(Ruv, TlsOptionsThatCannotBeMetConnectNothing) {
    serve({fake::serve()});
    conf.rec_tls_ca = wide(root + "/no-such-file.pem");
    Capture log(1);
    EXPECT_EQ(ruv_init(&conf), 1);
    EXPECT_EQ(conf.ruvconn, nullptr) << "a handle with less than was asked for must not be used";
    EXPECT_EQ(receiver->connections(), 0);
    EXPECT_EQ(count_of(log.text(), "Error connecting to the Receiver: "), 1u);
    free(conf.rec_tls_ca);
    conf.rec_tls_ca = nullptr;
}

TEST_F(Ruv, TlsOptionsMeanTlsAlsoWithEncryptionOff) {
    serve({[](fake::peer &peer) {
        peer.read(16);
        peer.send("not a TLS server");
    }});
    conf.rec_tls_min = wide("1.2");
    EXPECT_EQ(ruv_init(&conf), 1);
    EXPECT_EQ(receiver->received().find(fake::kMagic), std::string::npos)
        << "nothing goes out in plain text";
    free(conf.rec_tls_min);
    conf.rec_tls_min = nullptr;
}

}  // namespace

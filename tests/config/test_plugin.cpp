#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "config/conf.h"
#include "config/plugin.h"
#include "config/plugin_record.h"
#include "config/siem_config.h"
#include "core/execution.h"
#include "core/siemcollector_log.h"
#include "filetail/big_fix.h"
#include "tests/config/fake_tailer.h"
#include "tests/core/sandbox.h"

namespace {

using testing::ElementsAre;
using testing::HasSubstr;

constexpr char kSection[] = "type=filetail\nft_dir=/var/log\nft_filter=*.log\nft_delim=<newline>\n";

std::wstring text(const wchar_t *value) {
    return value ? value : L"(null)";
}

struct Registry : testing::Test {
    temp_dir dir;
    config found = {};

    void SetUp() override {
        execution_reset_for_start();
        fake_reset(false);
    }
    void TearDown() override {
        pause_execution();
        plugin_shutdown_all(&found, 15);
        config_teardown(&found);
        execution_reset_for_start();
    }
    void configure(const std::string &lines) {
        write_file(dir / "conf", lines);
        key_value_pair_spec *spec = nullptr;
        ASSERT_EQ(conf_parse_key_value_pair((dir / "conf").c_str(), &spec, 0), 0);
        plugin_config(config_init(spec, &found), spec, &found);
        conf_teardown_key_value_pair(spec);
    }
    // The log of configuring `lines` and shutting down again, without time stamps.
    std::string log_of(const std::string &lines, uint64_t mask = kLogError | kLogWarn) {
        const child_result child = run_in_child([&] {
            logger_init(mask, nullptr, 0);
            configure(lines);
            pause_execution();
            plugin_shutdown_all(&found, 15);
            config_teardown(&found);
        });
        EXPECT_EQ(child.status, 0);
        return without_stamps(child.out);
    }
    const plugin &only() {
        EXPECT_EQ(found.p_count, 1);
        return *found.p_list[0];
    }
};

TEST_F(Registry, ASectionBecomesAPlugin) {
    RUVConn *const connection = reinterpret_cast<RUVConn *>(&found);  // never looked into
    found.ruvconn = connection;
    configure("sleep=5\nthrottle=100\nbookmark_dir=/bm\n" + std::string(kSection) +
              "ft_start_top=1\nft_delim_end_of_event=0\nhostid=host-1\n");
    const plugin &p = only();
    EXPECT_EQ(p.conn, &found.ruv);
    EXPECT_EQ(p.ruvconn, connection);
    EXPECT_EQ(p.bm_dir, found.bm_dir);
    EXPECT_EQ(p.flags, uint64_t{1} << 32);
    EXPECT_EQ(p.sleep, 5);
    EXPECT_EQ(p.throttle, 100);
    EXPECT_EQ(text(p.ft.ft_dir), L"/var/log/");
    EXPECT_EQ(text(p.ft.ft_filter), L"*.log");
    EXPECT_EQ(text(p.ft.ft_delim), L"<newline>");
    EXPECT_EQ(p.ft.ft_start_top, 1);
    EXPECT_EQ(p.ft.ft_delim_end, 0);
    EXPECT_STREQ(p.hostid, "host-1");
    EXPECT_THAT(fake_events(), ElementsAre("source 3 host-1", "init /var/log/"));
}

TEST_F(Registry, DefaultsOfASection) {
    configure(kSection);
    const plugin &p = only();
    EXPECT_EQ(p.ft.ft_start_top, 0);
    EXPECT_EQ(p.ft.ft_delim_end, 1);
    EXPECT_EQ(p.hostid, nullptr);
    EXPECT_EQ(p.dsinfo, nullptr);
    EXPECT_EQ(p.process_event, nullptr);
    EXPECT_EQ(is_executing(), 1);
}

TEST_F(Registry, TheDirectoryEndsInOneSlash) {
    for (const char *directory : {"/var/log", "/var/log/"}) {
        configure("type=filetail\nft_dir=" + std::string(directory) +
                  "\nft_filter=*\nft_delim=x\n");
        EXPECT_EQ(text(only().ft.ft_dir), L"/var/log/");
        plugin_shutdown_all(&found, 15);
    }
    configure("type=filetail\nft_dir=\nft_filter=*\nft_delim=x\n");
    EXPECT_EQ(text(only().ft.ft_dir), L"/");
    plugin_shutdown_all(&found, 15);
    configure("type=filetail\nft_dir=/var/log" + std::string(1, '\0') +
              "rest\nft_filter=*\nft_delim=x\n");
    EXPECT_EQ(text(only().ft.ft_dir), L"/var/log/");
}

TEST_F(Registry, TheLinesInFrontOfTheFirstTypeBelongToNoPlugin) {
    EXPECT_EQ(log_of("ft_dir=/early\nwrong=1\n" + std::string(kSection)), "");
    configure("ft_start_top=1\n" + std::string(kSection));
    EXPECT_EQ(only().ft.ft_start_top, 0);
}

TEST_F(Registry, AFirstLineWithTypeIsTheFirstSection) {
    key_value_pair_spec *spec = nullptr;
    write_file(dir / "conf", kSection);
    ASSERT_EQ(conf_parse_key_value_pair((dir / "conf").c_str(), &spec, 0), 0);
    plugin_config(-1, spec, &found);
    conf_teardown_key_value_pair(spec);
    EXPECT_EQ(text(only().ft.ft_filter), L"*.log");
}

TEST_F(Registry, APluginIsToldWhatTheConnectionIs) {
    for (const int connected : {0, 1}) {
        found.connected = static_cast<uint8_t>(connected);
        configure("bookmark_dir=/bm\n" + std::string(kSection));
        EXPECT_EQ(fake_started_with(), "/bm " + std::to_string(connected));
        plugin_shutdown_all(&found, 15);
    }
}

TEST_F(Registry, TwoSectionsGiveTwoPluginsWithTheirIndexes) {
    const std::string log = log_of(std::string(kSection) + kSection, kLogError | kLogInfo);
    EXPECT_EQ(log,
              "(INFO) Calling shutdown on plugin: 0\n"
              "(INFO) Filetail shutdown called: /var/log/\n"
              "(INFO) Shutdown bookmark for /logs/a.log\n"
              "(INFO) Shutdown bookmark for /logs/b.log\n"
              "(INFO) Calling shutdown on plugin: 1\n"
              "(INFO) Filetail shutdown called: /var/log/\n"
              "(INFO) Shutdown bookmark for /logs/a.log\n"
              "(INFO) Shutdown bookmark for /logs/b.log\n");
}

TEST_F(Registry, AnUnknownTypeIsLoggedAndItsKeysReachNobody) {
    const std::string lines =
        std::string(kSection) + "type=syslog\nft_dir=/other\nnonsense=1\n" + kSection;
    EXPECT_EQ(log_of(lines), "(ERROR) Error: Unknown type in configuration file: syslog\n");
    configure(lines);
    ASSERT_EQ(found.p_count, 2);
    EXPECT_EQ(text(found.p_list[0]->ft.ft_dir), L"/var/log/");
    EXPECT_EQ(text(found.p_list[1]->ft.ft_dir), L"/var/log/");
}

TEST_F(Registry, TheTypeIsComparedWhole) {
    for (const char *type : {"file", "filetails", "Filetail", "", "filetail "}) {
        EXPECT_THAT(log_of(std::string("type=") + type + "\nft_dir=/x\n"),
                    HasSubstr(std::string("Unknown type in configuration file: ") + type + "\n"));
    }
}

TEST_F(Registry, WithoutAnyPluginTheProcessIsPaused) {
    for (const char *lines : {"", "rec_port=1\n", "type=syslog\n"}) {
        execution_reset_for_start();
        EXPECT_THAT(log_of(lines),
                    testing::EndsWith("(ERROR) Error: not a valid config. No plugins defined.\n"));
        configure(lines);
        EXPECT_EQ(exec_status(), 5);
        EXPECT_EQ(found.p_count, 0);
    }
}

TEST_F(Registry, AStopEndsTheConfiguration) {
    stop_execution();
    configure(kSection);
    EXPECT_EQ(found.p_count, 0);
    EXPECT_EQ(is_running(), 0);
    EXPECT_THAT(fake_events(), ElementsAre());
}

TEST_F(Registry, ASectionThatAStopCutsShortIsNotBlamed) {
    const std::string lines =
        "type=filetail\nft_dir=/stops\nft_filter=*\nft_delim=<newline>\n" + std::string(kSection);
    EXPECT_EQ(log_of(lines), "");
    configure(lines);
    EXPECT_EQ(found.p_count, 2);
    EXPECT_THAT(fake_events(), ElementsAre("init /stops/"));
}

TEST_F(Registry, Switches) {
    const struct {
        const char *value;
        int start_top, delimiter_end;
    } rows[] = {{"", 1, 1}, {"0", 0, 0}, {"1", 1, 1}, {"yes", 0, 1}, {"00", 0, 1}, {" 1", 0, 1}};
    for (const auto &row : rows) {
        const std::string value = std::string(row.value) + "\n";
        configure(kSection + ("ft_start_top=" + value) + "ft_delim_end_of_event=" + value);
        EXPECT_EQ(only().ft.ft_start_top, row.start_top) << row.value;
        EXPECT_EQ(only().ft.ft_delim_end, row.delimiter_end) << row.value;
        plugin_shutdown_all(&found, 15);
    }
    EXPECT_EQ(log_of(kSection + std::string("ft_start_top=yes\nft_delim_end_of_event=no\n")),
              "(ERROR) Invalid ft_start_top value for /var/log/\n"
              "(ERROR) Invalid ft_delim_end_of_event value for /var/log/\n");
}

TEST_F(Registry, AnInvalidSwitchLeavesTheField) {
    configure(kSection + std::string("ft_start_top=1\nft_start_top=yes\n"));
    EXPECT_EQ(only().ft.ft_start_top, 1);
}

TEST_F(Registry, TheSubtypeMayBeShortened) {
    const struct {
        const char *line;
        bool cutter;
    } rows[] = {{"subtype=big_fix", true},
                {"subtype=b", true},
                {"subtype=", false},
                {"subtype=big_fixx", false},
                {"subtype=Big_fix", false},
                {"subtype=x", false},
                {"s=big", true},
                {"=big_fix", true}};
    for (const auto &row : rows) {
        configure(kSection + std::string(row.line) + "\n");
        EXPECT_EQ(only().process_event, row.cutter ? big_fix_process_event : nullptr) << row.line;
        plugin_shutdown_all(&found, 15);
    }
}

TEST_F(Registry, AShortenedKeyIsTheFirstThatItBegins) {
    configure("type=filetail\nf=/logs\nft_f=*.x\nft_de=|\nft_s=1\nft_delim_=0\nh=name\n");
    const plugin &p = only();
    EXPECT_EQ(text(p.ft.ft_dir), L"/logs/");
    EXPECT_EQ(text(p.ft.ft_filter), L"*.x");
    EXPECT_EQ(text(p.ft.ft_delim), L"|");
    EXPECT_EQ(p.ft.ft_start_top, 1);
    EXPECT_EQ(p.ft.ft_delim_end, 0);
    EXPECT_STREQ(p.hostid, "name");
}

TEST_F(Registry, OtherKeysAreReported) {
    EXPECT_EQ(log_of(kSection + std::string("ft_dirs=/x\nft_dir =/y\nrec_port=1\nline\n")),
              "(ERROR) Error: invalid key value pair in config file: ft_dirs=/x\n"
              "(ERROR) Error: invalid key value pair in config file: ft_dir =/y\n"
              "(ERROR) Error: invalid key value pair in config file: rec_port=1\n"
              "(ERROR) Error: invalid key value pair in config file: line=line\n");
}

TEST_F(Registry, ARecordThatIsNoFileTailTakesNoKeys) {
    plugin other = {};
    wchar_t key[] = L"ft_dir", value[] = L"/x";
    key_value_pair pair = {key, 6, value, 2};
    plugin_add_kv(&other, &pair);
    EXPECT_EQ(other.ft.ft_dir, nullptr);
    plugin_init(&other, L"/bm", 1);
    plugin_shutdown(&other, 15);
    EXPECT_THAT(fake_events(), ElementsAre());
}

TEST_F(Registry, HostIds) {
    configure(kSection + std::string("hostid=a\nhostid=b\n"));
    EXPECT_STREQ(only().hostid, "b");
    EXPECT_THAT(fake_events(),
                ElementsAre("source 3 a", "free source a", "source 3 b", "init /var/log/"));
    plugin_shutdown_all(&found, 15);
    fake_reset(false);
    configure(kSection + std::string("hostid=a\nhostid=\n"));
    EXPECT_EQ(only().dsinfo, nullptr);
    EXPECT_THAT(fake_events(), ElementsAre("source 3 a", "free source a", "init /var/log/"));
}

TEST_F(Registry, AnIncompleteSectionIsReportedAndNotStarted) {
    const struct {
        const char *lines, *message;
    } rows[] = {
        {"type=filetail\nft_filter=*\nft_delim=x\n", "no ft_dir: "},
        {"type=filetail\nft_dir=/x\nft_delim=x\n", "no ft_filter: /x/"},
        {"type=filetail\nft_dir=/x\nft_filter=*\n", "no ft_delim: /x/"},
    };
    for (const auto &row : rows) {
        EXPECT_EQ(log_of(row.lines),
                  std::string("(ERROR) Error: plugin not started, its section has ") + row.message +
                      "\n");
        configure(row.lines);
        EXPECT_THAT(fake_events(), ElementsAre());
        EXPECT_EQ(found.p_count, 1) << "it keeps its place in the list";
        plugin_shutdown_all(&found, 15);
    }
}

TEST_F(Registry, TheWorkerHasEndedBeforeItsRecordAndSourceAreFreed) {
    fake_reset(true);
    configure(kSection + std::string("hostid=a\nsubtype=big_fix\n"));
    pause_execution();
    plugin_shutdown_all(&found, 15);
    EXPECT_THAT(fake_events(),
                ElementsAre("source 3 a", "init /var/log/", "worker ends", "free record",
                            "free source a", "free group", "teardown cutter"));
    EXPECT_EQ(found.p_count, 0);
    EXPECT_EQ(found.p_list, nullptr);
}

TEST_F(Registry, AStoppedPluginHasNothingLeft) {
    configure(kSection + std::string("hostid=a\nsubtype=b\n"));
    plugin *p = found.p_list[0];
    for (int i = 0; i < 2; ++i) {
        plugin_shutdown(p, 15);
        EXPECT_EQ(p->bm_count, 0);
        EXPECT_EQ(p->hostid, nullptr);
        EXPECT_EQ(p->dsinfo, nullptr);
        EXPECT_EQ(p->data, nullptr);
        EXPECT_EQ(p->ft.bm, nullptr);
        EXPECT_EQ(text(p->ft.ft_dir), L"(null)");
        EXPECT_EQ(text(p->ft.ft_filter), L"(null)");
        EXPECT_EQ(text(p->ft.ft_delim), L"(null)");
    }
}

TEST_F(Registry, AWorkerThatStillWaitsForTheResumeCanBeJoined) {
    fake_reset(true);
    pause_execution();
    configure(kSection);
    plugin_shutdown_all(&found, 15);  // would hang if the worker waited on
    EXPECT_THAT(fake_events(), testing::Contains("worker ends"));
}

TEST_F(Registry, WorkersStartedDuringAPauseWorkAfterIt) {
    fake_reset(true);
    pause_execution();
    configure(kSection);
    resume_execution();
    usleep(30'000);
    EXPECT_THAT(fake_events(), testing::Not(testing::Contains("worker ends")));
    stop_execution();
    plugin_shutdown_all(&found, 15);
    EXPECT_THAT(fake_events(), testing::Contains("worker ends"));
}

}  // namespace

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "config/conf.h"
#include "config/siem_config.h"
#include "core/args.h"
#include "core/siemcollector_log.h"
#include "tests/core/sandbox.h"

namespace {

std::wstring text(const wchar_t *value) {
    return value ? value : L"(null)";
}

struct SiemConfig : testing::Test {
    temp_dir dir;
    config found = {};

    void SetUp() override { g_args.daemon = 0; }
    void TearDown() override {
        config_teardown(&found);
        g_args.daemon = 0;
    }
    key_value_pair_spec *parse(const std::string &lines) {
        write_file(dir / "conf", lines);
        key_value_pair_spec *spec = nullptr;
        EXPECT_EQ(conf_parse_key_value_pair((dir / "conf").c_str(), &spec, 0), 0);
        return spec;
    }
    int init(const std::string &lines) {
        key_value_pair_spec *spec = parse(lines);
        const int start = config_init(spec, &found);
        conf_teardown_key_value_pair(spec);
        return start;
    }
    // The warnings about `lines`, without time stamps.
    std::string warnings(const std::string &lines) {
        const child_result child = run_in_child([&] {
            logger_init(31, nullptr, 0);
            key_value_pair_spec *spec = parse(lines);
            config_init(spec, &found);
            config_check(spec, &found);
            conf_teardown_key_value_pair(spec);
        });
        EXPECT_EQ(child.status, 0);
        return without_stamps(child.out);
    }
};

TEST_F(SiemConfig, EveryKeyFillsItsField) {
    EXPECT_EQ(init("rec_ip=192.0.2.10\nrec_port=8082\nrec_encrypt=1\nbookmark_dir=/bm\n"
                   "debug_level=info\nlog_path=/log\nsleep=5\nthrottle=100\ndaemonize=1\n"
                   "type=filetail\nft_dir=/x\n"),
              8);
    EXPECT_EQ(text(found.ruv.server), L"192.0.2.10");
    EXPECT_EQ(found.ruv.port, 8082);
    EXPECT_EQ(found.ruv.encrypt, 1);
    EXPECT_EQ(text(found.bm_dir), L"/bm");
    EXPECT_EQ(text(found.debug), L"info");
    EXPECT_EQ(text(found.log), L"/log");
    EXPECT_EQ(found.sleep_time, 5);
    EXPECT_EQ(found.throttle, 100);
    EXPECT_EQ(g_args.daemon, 1);
}

TEST_F(SiemConfig, AbsentKeysHaveNoDefaults) {
    EXPECT_EQ(init("type=filetail\n"), -1);
    EXPECT_EQ(found.ruv.server, nullptr);
    EXPECT_EQ(found.bm_dir, nullptr);
    EXPECT_EQ(found.debug, nullptr);
    EXPECT_EQ(found.log, nullptr);
    EXPECT_EQ(found.ruv.port, 0);
    EXPECT_EQ(found.sleep_time, 0);
    EXPECT_EQ(found.throttle, 0);
    EXPECT_EQ(found.rec_confirm, 0);
    EXPECT_EQ(found.rec_tls_min, nullptr);
    EXPECT_EQ(found.reconnect_wait, 0);
    EXPECT_EQ(found.small_file_guard, 0);
    EXPECT_EQ(found.rotation_drain, 0);
    EXPECT_EQ(found.wake_on_change, 0);
}

TEST_F(SiemConfig, AnAbsentKeyLeavesTheRecordAsItWas) {
    init("rec_port=1\nrec_ip=a\n");
    init("rec_ip=b\n");
    EXPECT_EQ(found.ruv.port, 1);
    EXPECT_EQ(text(found.ruv.server), L"b");
}

TEST_F(SiemConfig, TheStartOfThePluginsIsOneBeforeTheFirstType) {
    EXPECT_EQ(init("a=1\nb=2\ntype=filetail\ntype=filetail\n"), 1);
    EXPECT_EQ(init("a=1\nb=2\n"), 2);
    EXPECT_EQ(init(""), 0);
    EXPECT_EQ(config_init(nullptr, &found), 0);
}

TEST_F(SiemConfig, KeysAreComparedWhole) {
    init("rec_port =1\nrec_por=2\nrec_ports=3\nREC_PORT=4\n rec_port=5\n=6\nsleep\n");
    EXPECT_EQ(found.ruv.port, 0);
    EXPECT_EQ(found.sleep_time, 0);
    EXPECT_EQ(init("type =filetail\ntyp=x\n"), 2);
}

TEST_F(SiemConfig, KeysBehindTheFirstTypeDoNotCount) {
    init("rec_port=1\ntype=filetail\nrec_port=2\nrec_confirm=3\n");
    EXPECT_EQ(found.ruv.port, 1);
    EXPECT_EQ(found.rec_confirm, 0);
}

TEST_F(SiemConfig, NumbersAreReadFromTheirBeginning) {
    const struct {
        const char *value;
        int32_t number;
    } rows[] = {{"8082", 8082},
                {" 7", 7},
                {"12abc", 12},
                {"abc", 0},
                {"", 0},
                {"-3", -3},
                {"0x10", 0},
                {"010", 10},
                {"1.9", 1},
                {"+4", 4},
                {"99999999999", INT32_MAX}};
    for (const auto &row : rows) {
        init(std::string("rec_port=") + row.value + "\n");
        EXPECT_EQ(found.ruv.port, row.number) << row.value;
    }
}

TEST_F(SiemConfig, TheLastOfSeveralEqualKeysCounts) {
    init("rec_ip=a\nrec_ip=b\n");
    EXPECT_EQ(text(found.ruv.server), L"b");
}

TEST_F(SiemConfig, DaemonizeReplacesTheArgumentInBothDirections) {
    g_args.daemon = 1;
    init("daemonize=0\n");
    EXPECT_EQ(g_args.daemon, 0);
    init("daemonize=1\n");
    EXPECT_EQ(g_args.daemon, 1);
    init("sleep=1\n");
    EXPECT_EQ(g_args.daemon, 1);
}

TEST_F(SiemConfig, OptInKeysFillTheirFields) {
    init(
        "rec_confirm=500\nrec_tls_min=1.2\nrec_tls_ca=/ca\nrec_tls_name=r.example\n"
        "rec_tls_cert=/cert\nrec_tls_key=/key\nreconnect_wait=30\nsmall_file_guard=1\n"
        "rotation_drain=1\nwake_on_change=1\n");
    EXPECT_EQ(found.rec_confirm, 500);
    EXPECT_EQ(text(found.rec_tls_min), L"1.2");
    EXPECT_EQ(text(found.rec_tls_ca), L"/ca");
    EXPECT_EQ(text(found.rec_tls_name), L"r.example");
    EXPECT_EQ(text(found.rec_tls_cert), L"/cert");
    EXPECT_EQ(text(found.rec_tls_key), L"/key");
    EXPECT_EQ(found.reconnect_wait, 30);
    EXPECT_EQ(found.small_file_guard, 1);
    EXPECT_EQ(found.rotation_drain, 1);
    EXPECT_EQ(found.wake_on_change, 1);
}

TEST_F(SiemConfig, OptInKeysAreComparedWhole) {
    const std::string value = "=1.2";  // a number and a text that each of them would take
    for (const std::string key :
         {"rec_confirm", "rec_tls_min", "rec_tls_ca", "rec_tls_name", "rec_tls_cert", "rec_tls_key",
          "reconnect_wait", "small_file_guard", "rotation_drain", "wake_on_change"}) {
        std::string upper = key;
        for (char &c : upper) c = static_cast<char>(toupper(c));
        for (const std::string &other :
             {key.substr(0, key.size() - 1), key + "s", key + " ", " " + key, upper}) {
            init(other + value + "\n");
            const int32_t numbers = found.rec_confirm | found.reconnect_wait |
                                    found.small_file_guard | found.rotation_drain |
                                    found.wake_on_change;
            EXPECT_EQ(numbers, 0) << other;
            for (const wchar_t *text : {found.rec_tls_min, found.rec_tls_ca, found.rec_tls_name,
                                        found.rec_tls_cert, found.rec_tls_key}) {
                EXPECT_EQ(text, nullptr) << other;
            }
        }
    }
}

TEST_F(SiemConfig, OptInNumbersOutOfRangeAreReportedAndHarmless) {
    const struct {
        const char *line;
        int32_t config::*field;
        int32_t used;
        const char *warning;
    } rows[] = {
        {"reconnect_wait=1", &config::reconnect_wait, 1, ""},
        {"reconnect_wait=300", &config::reconnect_wait, 300, ""},
        {"reconnect_wait=301", &config::reconnect_wait, 300,
         "(WARN) Warning: value of reconnect_wait is too large, using 300: 301\n"},
        {"reconnect_wait=0", &config::reconnect_wait, 0,
         "(WARN) Warning: value of reconnect_wait is not in effect, it must be 1 to 300: 0\n"},
        {"reconnect_wait=soon", &config::reconnect_wait, 0,
         "(WARN) Warning: value of reconnect_wait is not in effect, it must be 1 to 300: soon\n"},
        {"reconnect_wait=10s", &config::reconnect_wait, 0,
         "(WARN) Warning: value of reconnect_wait is not in effect, it must be 1 to 300: 10s\n"},
        {"rec_confirm=0", &config::rec_confirm, 0, ""},
        {"rec_confirm=-1", &config::rec_confirm, 0,
         "(WARN) Warning: value of rec_confirm is not in effect, it must be 0 to 2147483647: -1\n"},
        {"small_file_guard=0", &config::small_file_guard, 0, ""},
        {"small_file_guard=yes", &config::small_file_guard, 0,
         "(WARN) Warning: value of small_file_guard is not in effect, it must be 0 to 1: yes\n"},
        {"rotation_drain=2", &config::rotation_drain, 1,
         "(WARN) Warning: value of rotation_drain is too large, using 1: 2\n"},
        {"wake_on_change=", &config::wake_on_change, 0,
         "(WARN) Warning: value of wake_on_change is not in effect, it must be 0 to 1: \n"},
    };
    for (const auto &row : rows) {
        const std::string line = std::string(row.line) + "\n";
        init(line);
        EXPECT_EQ(found.*row.field, row.used) << row.line;
        EXPECT_EQ(warnings(line), row.warning) << row.line;
    }
}

TEST_F(SiemConfig, DocumentedKeysAreNeverReported) {
    EXPECT_EQ(warnings("rec_port=abc\nsleep=\nthrottle=-1\nrec_encrypt=x\nunknown=1\n"), "");
}

TEST_F(SiemConfig, TlsKeysThatMakeNoSenseAreReported) {
    EXPECT_EQ(warnings("rec_tls_min=1.3\nrec_tls_cert=/c\nrec_tls_key=/k\n"), "");
    EXPECT_EQ(warnings("rec_tls_min=1.1\n"),
              "(WARN) Warning: value of rec_tls_min must be 1.2 or 1.3: 1.1\n");
    EXPECT_EQ(warnings("rec_tls_cert=/c\n"),
              "(WARN) Warning: rec_tls_cert and rec_tls_key must be set together\n");
    EXPECT_EQ(warnings("rec_tls_key=/k\n"),
              "(WARN) Warning: rec_tls_cert and rec_tls_key must be set together\n");
}

TEST_F(SiemConfig, TheTeardownLeavesNothingOfTheOldFile) {
    init(
        "rec_ip=a\nrec_port=1\nrec_encrypt=1\nbookmark_dir=/b\ndebug_level=info\nlog_path=/l\n"
        "sleep=1\nthrottle=1\nrec_confirm=1\nrec_tls_min=1.2\nrotation_drain=1\ndaemonize=1\n");
    config_teardown(&found);
    EXPECT_EQ(found.ruv.server, nullptr);
    EXPECT_EQ(found.ruv.port, 0);
    EXPECT_EQ(found.ruv.encrypt, 0);
    EXPECT_EQ(found.bm_dir, nullptr);
    EXPECT_EQ(found.debug, nullptr);
    EXPECT_EQ(found.log, nullptr);
    EXPECT_EQ(found.sleep_time, 0);
    EXPECT_EQ(found.throttle, 0);
    EXPECT_EQ(found.rec_confirm, 0);
    EXPECT_EQ(found.rec_tls_min, nullptr);
    EXPECT_EQ(found.rotation_drain, 0);
    EXPECT_EQ(g_args.daemon, 1) << "the command line's record is not part of the configuration";
}

TEST_F(SiemConfig, NoKeyIsTheBeginningOfAnother) {
    const std::vector<std::string> documented = {
        "rec_ip",   "rec_port", "rec_encrypt", "bookmark_dir", "debug_level",
        "log_path", "sleep",    "throttle",    "daemonize",    "type"};
    const std::vector<std::string> opt_in = {
        "rec_confirm", "rec_tls_min",    "rec_tls_ca",       "rec_tls_name",   "rec_tls_cert",
        "rec_tls_key", "reconnect_wait", "small_file_guard", "rotation_drain", "wake_on_change"};
    for (const std::string &fresh : opt_in) {
        for (const std::vector<std::string> &others : {documented, opt_in}) {
            for (const std::string &other : others) {
                if (fresh == other) continue;
                EXPECT_FALSE(fresh.starts_with(other) || other.starts_with(fresh))
                    << fresh << ' ' << other;
            }
        }
    }
}

}  // namespace

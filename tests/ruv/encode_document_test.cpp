// The dumps of docs/wire-format.md are what the library sends, byte for byte.
#include <gtest/gtest.h>

#include <fstream>
#include <map>
#include <sstream>

#include "ruv/request.h"
#include "tests/ruv/record_kit.h"

namespace {

const uint8_t kSrcMac[6] = {0x02, 0x00, 0x5E, 0x10, 0x00, 0x01};
const uint8_t kDstMac[6] = {0x02, 0x00, 0x5E, 0x10, 0x00, 0x02};
constexpr uint32_t kTime = 1609459200;  // 2021-01-01 00:00:00 UTC
constexpr uint32_t kSource = 0xC0000201, kDestination = 0xC6336402;
constexpr int kChannel = 7;

void fill_alert(void *r) {
    RUVAlertSet_session_id(r, 0x0102030405060708u);
    RUVAlertSet_src_mac(r, kSrcMac);
    RUVAlertSet_dst_mac(r, kDstMac);
    RUVAlertSet_sigid(r, 2001219);
    RUVAlertSet_norm_sigid(r, 4026531840u);
    RUVAlertSet_event_count(r, 3);
    RUVAlertSet_src_ipv4(r, kSource);
    RUVAlertSet_dst_ipv4(r, kDestination);
    RUVAlertSet_first_time(r, kTime);
    RUVAlertSet_last_time(r, kTime + 2);
    RUVAlertSet_last_time_usec(r, 500000);
    RUVAlertSet_src_port(r, 52144);
    RUVAlertSet_dst_port(r, 22);
    RUVAlertSet_vlan(r, 12);
    RUVAlertSet_sequence(r, 1);
    RUVAlertSet_protocol(r, 6);
    RUVAlertSet_flow(r, 1);
    RUVAlertSet_action(r, 2);
    RUVAlertSet_severity(r, 70);
    RUVAlertSet_trusted(r, 1);
    RUVAlertSet_sig_generator(r, 1);
    RUVAlertSet_message(r, "SSH scan", 0);
    RUVAlertSet_src_user(r, "root", 0);
    RUVAlertSet_application(r, "ssh", 0);
    RUVAlertSet_hostname(r, "web1", 0);
    RUVAlertSet_packet(r, "\x45\x00", 2);
}

void fill_flow(void *r) {
    RUVFlowSet_src_mac(r, kSrcMac);
    RUVFlowSet_dst_mac(r, kDstMac);
    RUVFlowSet_dst_bytes(r, 90210);
    RUVFlowSet_src_bytes(r, 4711);
    RUVFlowSet_dst_packets(r, 80);
    RUVFlowSet_src_packets(r, 40);
    RUVFlowSet_dst_asn_geo(r, 64500);
    RUVFlowSet_src_asn_geo(r, 64501);
    RUVFlowSet_src_ipv4(r, kSource);
    RUVFlowSet_dst_ipv4(r, kDestination);
    RUVFlowSet_duration(r, 12);
    RUVFlowSet_duration_usec(r, 250000);
    RUVFlowSet_flow_count(r, 1);
    RUVFlowSet_first_time(r, kTime);
    RUVFlowSet_last_time(r, kTime + 12);
    RUVFlowSet_last_time_usec(r, 500000);
    RUVFlowSet_src_port(r, 52144);
    RUVFlowSet_dst_port(r, 443);
    RUVFlowSet_vlan(r, 12);
    RUVFlowSet_iface_in(r, 1);
    RUVFlowSet_iface_out(r, 2);
    RUVFlowSet_protocol(r, 6);
    RUVFlowSet_dir(r, 1);
    RUVFlowSet_conn_state(r, 4);
    RUVFlowSet_tos_src(r, 16);
    RUVFlowSet_tcp_flags(r, 0x1B);
}

void fill_syslog(void *r) {
    RUVSyslogSet_message(r, "<13>disk full", 0);
    RUVSyslogSet_collect_time(r, kTime);
}

void fill_windows(void *r) {
    RUVWinEventLogSet_log_file(r, "Security", 0);
    RUVWinEventLogSet_record_num(r, 991);
    RUVWinEventLogSet_source_name(r, "Auditing", 0);
    RUVWinEventLogSet_event_id(r, 4624);
    RUVWinEventLogSet_windows_ver(r, 6, 1);
    RUVWinEventLogSet_gen_time(r, kTime);
    RUVWinEventLogSet_event_type(r, 4);
    RUVWinEventLogSet_hostname(r, "dc01", 0);
    RUVWinEventLogSet_user(r, "alice", 0);
    RUVWinEventLogSet_category(r, "Logon", 0);
    RUVWinEventLogSet_insertion_string(r, "S-1-5-18", 0);
    RUVWinEventLogSet_insertion_string(r, "tty", 0);
    RUVWinEventLogSet_message(r, "Logged on", 0);
}

std::string example(int type, int ver, int subver, void (*fill)(void *)) {
    const auto record = kit::make(type, ver, subver);
    fill(record.get());
    const RUVDSInfo source = kit::ipv4_source();
    return kit::encoded(record, &source, kChannel);
}

std::string header(int code, int channel) {
    RUVv6_Header_t header;
    libruv_set_hdrv6(&header, 6, kRequest, code, 0, channel);
    return kit::kMagicBytes + std::string(reinterpret_cast<const char *>(&header), sizeof header);
}

std::map<std::string, std::string> examples() {
    const RUV_ReqInfo_GetChanID_t ask = {kDsIPv4, 4};
    const uint32_t address = kit::ipv4_source().ipv4;
    return {
        {"nop", header(kNop, 0)},
        {"get-channel", header(kGetChanID, 0) +
                            std::string(reinterpret_cast<const char *>(&ask), sizeof ask) +
                            std::string(reinterpret_cast<const char *>(&address), sizeof address)},
        {"alert-5", example(1, 5, 1, fill_alert)},
        {"alert-6.1", example(1, 6, 1, fill_alert)},
        {"alert-6.2", example(1, 6, 2, fill_alert)},
        {"flow-5", example(2, 5, 1, fill_flow)},
        {"flow-6.1", example(2, 6, 1, fill_flow)},
        {"flow-6.2", example(2, 6, 2, fill_flow)},
        {"flow-6.3", example(2, 6, 3, fill_flow)},
        {"syslog-5", example(3, 5, 1, fill_syslog)},
        {"syslog-6", example(3, 6, 2, fill_syslog)},
        {"windows-5", example(4, 5, 1, fill_windows)},
        {"windows-6", example(4, 6, 1, fill_windows)},
    };
}

struct dump {
    std::string bytes;
    std::string mistakes;  // lines whose offset is not where the dump has got to
};

// Reads one line "0010  06 31 00 00  field" into `into`.
void read_line(const std::string &line, dump *into) {
    std::istringstream words(line.substr(0, 31));
    size_t offset = 0;
    if (!(words >> std::hex >> offset) || offset != into->bytes.size())
        into->mistakes += line + "\n";
    unsigned byte = 0;
    while (words >> std::hex >> byte) into->bytes += static_cast<char>(byte);
}

// The dumps of the document: fenced blocks that open with "```ruv NAME".
std::map<std::string, dump> dumps_of(const char *path) {
    std::map<std::string, dump> dumps;
    std::ifstream file(path);
    dump *current = nullptr;
    for (std::string line; std::getline(file, line);) {
        if (line.rfind("```ruv ", 0) == 0)
            current = &dumps[line.substr(7)];
        else if (line == "```")
            current = nullptr;
        else if (current != nullptr)
            read_line(line, current);
    }
    return dumps;
}

TEST(EncodeDocument, DumpsAreWhatTheLibrarySends) {
    const auto dumps = dumps_of(WIRE_DOCUMENT);
    const auto sent = examples();
    for (const auto &[name, bytes] : sent) {
        ASSERT_EQ(1u, dumps.count(name)) << "the document does not show " << name;
        EXPECT_EQ("", dumps.at(name).mistakes) << name;
        EXPECT_EQ(bytes, dumps.at(name).bytes) << name;
    }
    EXPECT_EQ(sent.size(), dumps.size()) << "every dump of the document is checked";
}

}  // namespace

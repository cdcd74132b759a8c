// The dumps of records, line by line.
#include <gtest/gtest.h>

#include <vector>

#include "ruv/custom_print.h"
#include "ruv/record_print.h"
#include "tests/ruv/record_kit.h"

namespace {

const uint8_t kSrcMac[6] = {0x0a, 0x02, 0x03, 0x04, 0x05, 0xff};
const uint8_t kDstMac[6] = {0x11, 0x12, 0x13, 0x14, 0x15, 0x16};
// 2001:db8::1 as its 16 bytes.
const uint32_t kSrc6[4] = {0xb80d0120, 0, 0, 0x01000000};

std::string dump(RUVConn *conn, const RUVData_t *record, const RUVDSInfo *source = nullptr) {
    encoded_unit unit;
    EXPECT_EQ(0, libruv_encode(record, source, 0, "192.0.2.77", &unit));
    testing::internal::CaptureStderr();
    libruv_print_record(conn, record, unit);
    return testing::internal::GetCapturedStderr();
}

std::string dump(const kit::record_ptr &record) {
    kit::connection any;
    return dump(&any.conn, record.get());
}

std::string start(const std::string &title, int version, int subversion, int third_party) {
    return title + " Data - Ctl:\n\tVersion: " + std::to_string(version) +
           ", Subversion: " + std::to_string(subversion) +
           "\n\tThird Party Type: " + std::to_string(third_party) + "\n\tOkay to Send: Y\n" +
           title + " Data - Data:\n";
}

void fill_alert(RUVData_t *r) {
    RUVAlertSet_session_id(r, 18446744073709551615u);
    RUVAlertSet_src_mac(r, kSrcMac);
    RUVAlertSet_dst_mac(r, kDstMac);
    RUVAlertSet_sigid(r, 4294967295u);
    RUVAlertSet_norm_sigid(r, 22);
    RUVAlertSet_event_count(r, 23);
    RUVAlertSet_src_ipv4(r, 0xC0A80102);
    RUVAlertSet_dst_ipv4(r, 0x0A000001);
    RUVAlertSet_first_time(r, 24);
    RUVAlertSet_last_time(r, 25);
    RUVAlertSet_last_time_usec(r, 26);
    RUVAlertSet_src_port(r, 65535);
    RUVAlertSet_dst_port(r, 28);
    RUVAlertSet_vlan(r, 29);
    RUVAlertSet_sequence(r, 30);
    RUVAlertSet_protocol(r, 31);
    RUVAlertSet_flow(r, 1);
    RUVAlertSet_action(r, 33);
    RUVAlertSet_severity(r, 34);
    RUVAlertSet_trusted(r, 255);
    RUVAlertSet_sig_generator(r, 36);
    RUVAlertSet_message(r, "the message and more", 11);
    RUVAlertSet_src_user(r, "alice", 0);
    RUVAlertSet_dst_user(r, "bob", 0);
    RUVAlertSet_application(r, "app", 0);
    RUVAlertSet_hostname(r, "host", 0);
    RUVAlertSet_domain(r, "domain", 0);
    RUVAlertSet_command(r, "cmd", 0);
    RUVAlertSet_object(r, "obj", 0);
    RUVAlertSet_packet(r, "pktbytes", 3);
}

const std::string kAlertHead =
    "\tSession ID = 18446744073709551615\n\tDst Mac = 11:12:13:14:15:16\n"
    "\tSrc Mac = 0a:02:03:04:05:ff\n\tSigID = -1\n\tNorm SigID = 22\n\tEvent Count = 23\n"
    "\tIPv6 SIP[0] = 0, IPv6 SIP[1] = 0, IPv6 SIP[2] = 0\n\tSIP = 192.168.1.2\n"
    "\tIPv6 DIP[0] = 0, IPv6 DIP[1] = 0, IPv6 DIP[2] = 0\n\tDIP = 10.0.0.1\n"
    "\tFirst Time = 24\n\tLast Time = 25\n\tLast Time Usec = 26\n\tSrc Port = 65535\n"
    "\tDst Port = 28\n\tVLAN = 29\n\tSequence = 30\n\tPacket Len = 3\n\tProtocol = 31\n"
    "\tFlow = 1\n\tAction = 33\n\tSeverity = 34\n\tTrusted = 255\n\tSigGen = 36\n"
    "\tMessage Len = 11\n";
const std::string kAlertTexts =
    "\tSrc User Len = 5\n\tDst User Len = 3\n\tApplication Len = 3\n\tHost Name Len = 4\n"
    "\tDomain Name Len = 6\n\tCommand Len = 3\n\tObject Len = 3\n"
    "\tMessage = the message\n\tSrc User = alice\n\tDst User = bob\n\tApplication = app\n"
    "\tHost Name = host\n\tDomain Name = domain\n\tCommand = cmd\n\tObject = obj\n"
    "\tPacket = pkt\n\n";

TEST(PrintAlert, Version6Subversion1) {
    const auto record = kit::make(1, 6, 1);
    fill_alert(record.get());
    RUVAlertSet_3rd_party_type(record.get(), 99);
    EXPECT_EQ(start("Alert", 6, 1, 99) + kAlertHead + kAlertTexts, dump(record));
}

TEST(PrintAlert, Version5) {
    const auto record = kit::make(1, 5);
    fill_alert(record.get());
    EXPECT_EQ(start("Alert", 5, 1, 0) + kAlertHead + kAlertTexts, dump(record));
}

// Version 1 has no place for what came later: it is not encoded, and not shown.
TEST(PrintAlert, Version1ShowsWhatItEncodes) {
    const auto record = kit::make(1, 1);
    fill_alert(record.get());
    const std::string lines = dump(record);
    EXPECT_NE(std::string::npos, lines.find("\tSession ID = 0\n"));
    EXPECT_NE(std::string::npos, lines.find("\tSigGen = 0\n"));
    EXPECT_NE(std::string::npos, lines.find("\tSrc User Len = 0\n"));
    EXPECT_EQ(std::string::npos, lines.find("alice"));
    EXPECT_NE(std::string::npos, lines.find("\tMessage = the message\n\tPacket = pkt\n\n"));
}

std::string unused_rows(int first, int last) {
    std::string lines;
    for (int row = first; row <= last; ++row)
        lines += "\tcustom field[" + std::to_string(row) + "] : unused\n";
    return lines;
}

TEST(PrintAlert, Version6Subversions2And3) {
    for (const int subversion : {2, 3}) {
        const auto record = kit::make(1, 6, subversion);
        fill_alert(record.get());
        std::string expected = start("Alert", 6, subversion, 0);
        if (subversion == 3) expected += "\tFlow ID = 0\n";
        expected += kAlertHead + "\tMessage = the message\n\tPacket = pkt\n";
        for (int row = 0; row <= 6; ++row)
            expected += "\tcustom field[" + std::to_string(row) + "] : " + std::to_string(row + 1) +
                        " : A-S- : ***Lookup Failed***\n";
        EXPECT_EQ(expected + unused_rows(7, 9) + "\n", dump(record));
    }
}

TEST(PrintAlert, EmptyTextsHaveNoLine) {
    const auto record = kit::make(1, 6, 1);
    RUVAlertSet_sigid(record.get(), 1);
    const std::string lines = dump(record);
    EXPECT_NE(std::string::npos, lines.find("\tObject Len = 0\n\n"));
    EXPECT_EQ(std::string::npos, lines.find("\tMessage = "));
    EXPECT_EQ(std::string::npos, lines.find("\tPacket = "));
}

TEST(PrintAlert, IPv6AddressesOfEveryForm) {
    for (const auto &[version, subversion] : {std::pair{3, 1}, {6, 1}, {6, 2}, {6, 3}}) {
        const auto record = kit::make(1, version, subversion);
        RUVAlertSet_src_ipv6(record.get(), kSrc6);
        const uint32_t late[4] = {0, 0, 0x01000000, 0};
        RUVAlertSet_dst_ipv6(record.get(), late);
        const std::string lines = dump(record);
        EXPECT_NE(std::string::npos, lines.find("\tSIPv6 = 2001:db8::1\n\tDIPv6 = ::1:0:0\n"))
            << lines;
        // With nothing but a last word it counts as an IPv4 address in every block.
        const uint32_t last[4] = {0, 0, 0, 0x0A010203};
        RUVAlertSet_dst_ipv6(record.get(), last);
        EXPECT_NE(std::string::npos, dump(record).find(" IPv6 DIP[2] = 0\n\tDIP = 10.1.2.3\n"));
    }
}

void fill_flow(RUVData_t *r) {
    RUVFlowSet_dst_bytes(r, 1);
    RUVFlowSet_src_bytes(r, 18446744073709551614u);
    RUVFlowSet_dst_packets(r, 3);
    RUVFlowSet_src_packets(r, 4);
    RUVFlowSet_dst_asn_geo(r, 5);
    RUVFlowSet_src_asn_geo(r, 6);
    RUVFlowSet_src_mac(r, kSrcMac);
    RUVFlowSet_dst_mac(r, kDstMac);
    RUVFlowSet_src_ipv4(r, 0xC0A80102);
    RUVFlowSet_dst_ipv4(r, 0x0A000001);
    RUVFlowSet_duration(r, 10);
    RUVFlowSet_duration_usec(r, 11);
    RUVFlowSet_flow_count(r, 12);
    RUVFlowSet_first_time(r, 13);
    RUVFlowSet_last_time(r, 14);
    RUVFlowSet_last_time_usec(r, 15);
    RUVFlowSet_src_port(r, 16);
    RUVFlowSet_dst_port(r, 17);
    RUVFlowSet_vlan(r, 18);
    RUVFlowSet_iface_in(r, 19);
    RUVFlowSet_iface_out(r, 20);
    RUVFlowSet_protocol(r, 21);
    RUVFlowSet_dir(r, 22);
    RUVFlowSet_session_id(r, 23);
    RUVFlowSet_conn_state(r, 24);
    RUVFlowSet_tos_src(r, 25);
    RUVFlowSet_tcp_flags(r, 26);
}

std::string flow_lines(int dir) {
    return "\tDest Bytes = 1\n\tSource Bytes = 18446744073709551614\n\tDest Packets = 3\n"
           "\tSource Packets = 4\n\tDest ASN/GEO = 5\n\tSourc ASN/GEO = 6\n"
           "\tDst Mac = 11:12:13:14:15:16\n\tSrc Mac = 0a:02:03:04:05:ff\n"
           "\tIPv6 SIP[0] = 0, IPv6 SIP[1] = 0, IPv6 SIP[2] = 0\n\tSIP = 192.168.1.2\n"
           "\tIPv6 DIP[0] = 0, IPv6 DIP[1] = 0, IPv6 DIP[2] = 0\n\tDIP = 10.0.0.1\n"
           "\tDuration Time = 10\n\tDuration Time Usec = 11\n\tFlow Count = 12\n"
           "\tFirst Time = 13\n\tLast Time = 14\n\tLast Time Usec = 15\n\tSrc Port = 16\n"
           "\tDst Port = 17\n\tVLAN = 18\n\tIface In = 19\n\tIface Out = 20\n\tProtocol = 21\n"
           "\tDir = " +
           std::to_string(dir) + "\n";
}

TEST(PrintFlow, LegacyAndVersion6Subversion1) {
    for (const auto &[version, subversion] : {std::pair{3, 1}, {4, 1}, {5, 2}, {6, 1}}) {
        const auto record = kit::make(2, version, subversion);
        fill_flow(record.get());
        EXPECT_EQ(start("Flow", version, subversion, 0) + flow_lines(22) + "\n", dump(record));
    }
}

TEST(PrintFlow, Version6Subversion2IsNotPrinted) {
    const auto record = kit::make(2, 6, 2);
    fill_flow(record.get());
    EXPECT_EQ("", dump(record));
}

// The block is shown, and the block has neither session id nor direction.
TEST(PrintFlow, Version6Subversion3) {
    const auto record = kit::make(2, 6, 3);
    fill_flow(record.get());
    EXPECT_EQ(start("Flow", 6, 3, 0) + "\tSession ID = 0\n" + flow_lines(0) +
                  "\tConn State = 24\n\tTos Src = 25\n\tTCP Flags = 26\n" + unused_rows(0, 6) +
                  "\n",
              dump(record));
}

TEST(PrintSyslog, BothForms) {
    const auto legacy = kit::make(3, 4);
    RUVSyslogSet_message(legacy.get(), "message text", 7);
    EXPECT_EQ(start("Syslog", 4, 1, 0) + "\tMessage (7): message\n\n", dump(legacy));
    const auto current = kit::make(3, 6, 2);
    RUVSyslogSet_message(current.get(), "message text", 7);
    RUVSyslogSet_collect_time(current.get(), 1234567890);
    EXPECT_EQ(
        start("Syslog", 6, 2, 0) + "\tTime: 1234567890\n\tData Length: 7\n\tMsg (7): message\n\n",
        dump(current));
}

void fill_windows(RUVData_t *r) {
    RUVWinEventLogSet_source_name(r, "Source", 0);
    RUVWinEventLogSet_event_id(r, 4624);
    RUVWinEventLogSet_windows_ver(r, 6, 1);
    RUVWinEventLogSet_gen_time(r, 77);
    RUVWinEventLogSet_event_type(r, 4);
    RUVWinEventLogSet_insertion_string(r, "one", 0);
    RUVWinEventLogSet_insertion_string(r, "twofold", 3);
    RUVWinEventLogSet_message(r, "text", 0);
}

TEST(PrintWindows, Legacy) {
    const auto record = kit::make(4, 5);
    fill_windows(record.get());
    EXPECT_EQ(start("Windows Event", 5, 1, 43) +
                  "\tWin Version: 262\n\tEvent ID: 4624\n\tEvent Type: 4\n\tWrite Time: 0\n"
                  "\tSource (6): Source\n\tHost (0): \n\tMessage (4): text\n\tString Len: 6\n"
                  "\tString 1: one\n\tString 2: two\n\n",
              dump(record));
}

TEST(PrintWindows, Version6) {
    const auto record = kit::make(4, 6, 1);
    fill_windows(record.get());
    const std::string text = "192.0.2.77||||0||Source||4624||61||0||4||||||||2||one||two||text";
    EXPECT_EQ(start("Windows Event", 6, 1, 43) + "\tData Length: " + std::to_string(text.size()) +
                  "\n\tEvent Data: " + text + "\n\n",
              dump(record));
}

TEST(Print, UnitWithoutBodyPrintsNothing) {
    const auto record = kit::make(1, 6, 1);
    RUVAlertSet_sigid(record.get(), 1);
    record->ctl.sver = 3;
    EXPECT_EQ("", dump(record));
}

// Sending stops ahead of the dump of such a record; the line is for who calls a printer directly.
TEST(Print, AnIncompleteRecordIsNotOkayToSend) {
    const auto record = kit::make(3, 6, 1);
    const uint8_t block[8] = {};
    testing::internal::CaptureStderr();
    libruv_print_syslogv6v1(nullptr, record.get(), block, nullptr, 0);
    EXPECT_EQ(
        "Syslog Data - Ctl:\n\tVersion: 6, Subversion: 1\n\tThird Party Type: 0\n"
        "\tOkay to Send: N\nSyslog Data - Data:\n\tTime: 0\n\tData Length: 0\n\tMsg (0): \n\n",
        testing::internal::GetCapturedStderr());
}

// Texts end where their length says: the bytes behind belong to somebody else.
TEST(Print, NothingIsReadBehindASegment) {
    const std::vector<char> tight(200, 'x');  // no terminator; the sanitizer watches its end
    const char *text = tight.data() + 100;
    const auto alert = kit::make(1, 6, 1);
    RUVAlertSet_sigid(alert.get(), 1);
    RUVAlertSet_message(alert.get(), text, 100);
    RUVAlertSet_object(alert.get(), text, 100);
    RUVAlertSet_packet(alert.get(), text, 100);
    const std::string hundred(100, 'x');
    EXPECT_NE(std::string::npos, dump(alert).find("\tPacket = " + hundred + "\n\n"));
    const auto event = kit::make(4, 6, 1);
    RUVWinEventLogSet_source_name(event.get(), text, 100);
    RUVWinEventLogSet_insertion_string(event.get(), text, 100);
    RUVWinEventLogSet_message(event.get(), text, 100);
    EXPECT_NE(std::string::npos, dump(event).find("||1||" + hundred + "||" + hundred + "\n\n"));
}

}  // namespace

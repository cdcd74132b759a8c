// What a record costs before it is written: filling it through its setters, and encoding it.
//
//   encode_*   from a filled record to its segments, nothing copied
//   fill_*     reset and every setter that the form has a place for
//
// The largest of each form is meant: every field, every text at its longest, every row taken.
#include <benchmark/benchmark.h>

#include <cstring>
#include <memory>
#include <string>

#include "ruv/encode.h"
#include "ruv/ruvlib.h"
#include "ruv/ruvlibsetters.h"

namespace {

const std::string kText(8000, 't');
const uint8_t kMac[6] = {1, 2, 3, 4, 5, 6};

struct free_record {
    void operator()(void *record) const { RUVFreeData(record); }
};
using record_ptr = std::unique_ptr<void, free_record>;

record_ptr make(int type, int ver, int subver) {
    RUVConn any;
    memset(static_cast<void *>(&any), 0, sizeof any);
    any.data_types = 0x1F;
    for (auto &row : any.data_versions)
        for (uint16_t &cell : row) cell = 7;
    return record_ptr(RUVAllocData(&any, type, ver, subver));
}

void fill_alert(void *r) {
    RUVAlertSet_session_id(r, 1);
    RUVAlertSet_src_mac(r, kMac);
    RUVAlertSet_dst_mac(r, kMac);
    RUVAlertSet_sigid(r, 2);
    RUVAlertSet_norm_sigid(r, 3);
    RUVAlertSet_event_count(r, 4);
    RUVAlertSet_src_ipv4(r, 5);
    RUVAlertSet_dst_ipv4(r, 6);
    RUVAlertSet_first_time(r, 7);
    RUVAlertSet_last_time(r, 8);
    RUVAlertSet_last_time_usec(r, 9);
    RUVAlertSet_src_port(r, 10);
    RUVAlertSet_dst_port(r, 11);
    RUVAlertSet_vlan(r, 12);
    RUVAlertSet_sequence(r, 13);
    RUVAlertSet_protocol(r, 14);
    RUVAlertSet_flow(r, 1);
    RUVAlertSet_action(r, 16);
    RUVAlertSet_severity(r, 17);
    RUVAlertSet_trusted(r, 18);
    RUVAlertSet_sig_generator(r, 19);
    RUVAlertSet_message(r, kText.data(), 255);
    RUVAlertSet_src_user(r, kText.data(), 255);
    RUVAlertSet_dst_user(r, kText.data(), 255);
    RUVAlertSet_application(r, kText.data(), 255);
    RUVAlertSet_hostname(r, kText.data(), 255);
    RUVAlertSet_domain(r, kText.data(), 255);
    RUVAlertSet_command(r, kText.data(), 255);
    RUVAlertSet_object(r, kText.data(), 255);
    RUVAlertSet_packet(r, kText.data(), 8000);
    auto *data = static_cast<RUVData_t *>(r);
    if (data->ctl.ver < 6 || data->ctl.sver == 0) return;
    for (int row = 7; row < kCustomRows; ++row) {
        data->data.cfdata.id[row] = 99;
        data->data.cfdata.len[row] = 255;
        data->data.cfdata.data[row] = reinterpret_cast<const uint8_t *>(kText.data());
    }
}

void fill_flow(void *r) {
    RUVFlowSet_src_mac(r, kMac);
    RUVFlowSet_dst_mac(r, kMac);
    RUVFlowSet_src_asn_geo(r, 1);
    RUVFlowSet_dst_asn_geo(r, 2);
    RUVFlowSet_flow_count(r, 3);
    RUVFlowSet_src_ipv4(r, 4);
    RUVFlowSet_dst_ipv4(r, 5);
    RUVFlowSet_first_time(r, 6);
    RUVFlowSet_last_time(r, 7);
    RUVFlowSet_last_time_usec(r, 8);
    RUVFlowSet_src_port(r, 9);
    RUVFlowSet_dst_port(r, 10);
    RUVFlowSet_vlan(r, 11);
    RUVFlowSet_dir(r, 12);
    RUVFlowSet_protocol(r, 13);
    RUVFlowSet_dst_bytes(r, 14);
    RUVFlowSet_src_bytes(r, 15);
    RUVFlowSet_dst_packets(r, 16);
    RUVFlowSet_src_packets(r, 17);
    RUVFlowSet_conn_state(r, 18);
    RUVFlowSet_tcp_flags(r, 19);
    RUVFlowSet_tos_src(r, 20);
    RUVFlowSet_duration(r, 21);
    RUVFlowSet_duration_usec(r, 22);
    RUVFlowSet_iface_in(r, 23);
    RUVFlowSet_iface_out(r, 24);
}

void fill_syslog(void *r) {
    RUVSyslogSet_message(r, kText.data(), 200);
    RUVSyslogSet_collect_time(r, 1'600'000'000);
}

void fill_windows(void *r) {
    RUVWinEventLogSet_log_file(r, "Security", 8);
    RUVWinEventLogSet_record_num(r, 4'294'967'295u);
    RUVWinEventLogSet_source_name(r, "Microsoft-Windows-Security-Auditing", 35);
    RUVWinEventLogSet_event_id(r, 4624);
    RUVWinEventLogSet_windows_ver(r, 6, 1);
    RUVWinEventLogSet_gen_time(r, 1'600'000'000);
    RUVWinEventLogSet_event_type(r, 4);
    RUVWinEventLogSet_hostname(r, "dc01.example.org", 16);
    RUVWinEventLogSet_user(r, "EXAMPLE\\alice", 13);
    RUVWinEventLogSet_category(r, "Logon", 5);
    for (int i = 0; i < 20; ++i) RUVWinEventLogSet_insertion_string(r, kText.data(), 20);
    RUVWinEventLogSet_message(r, kText.data(), 1000);
}

void fill(void *record) {
    switch (static_cast<RUVData_t *>(record)->ctl.type) {
        case kAlert:
            return fill_alert(record);
        case kFlow:
            return fill_flow(record);
        case kSyslog:
            return fill_syslog(record);
        default:
            return fill_windows(record);
    }
}

void encode(benchmark::State &state, int type, int ver, int subver) {
    const record_ptr record = make(type, ver, subver);
    fill(record.get());
    const auto *data = static_cast<const RUVData_t *>(record.get());
    encoded_unit unit;
    for (auto step : state) {
        if (libruv_encode(data, nullptr, 7, "192.0.2.77", &unit) != 0) {
            state.SkipWithError("not encoded");
            break;
        }
        benchmark::DoNotOptimize(unit.segments);
        benchmark::ClobberMemory();
    }
}

void refill(benchmark::State &state, int type, int ver, int subver) {
    const record_ptr record = make(type, ver, subver);
    for (auto step : state) {
        RUVResetData(record.get());
        fill(record.get());
        benchmark::ClobberMemory();
    }
}

BENCHMARK_CAPTURE(encode, syslog_v6, 3, 6, 2);
BENCHMARK_CAPTURE(encode, syslog_v5, 3, 5, 1);
BENCHMARK_CAPTURE(encode, alert_v5, 1, 5, 1);
BENCHMARK_CAPTURE(encode, alert_v6_1, 1, 6, 1);
BENCHMARK_CAPTURE(encode, alert_v6_2, 1, 6, 2);
BENCHMARK_CAPTURE(encode, alert_v6_3, 1, 6, 3);
BENCHMARK_CAPTURE(encode, flow_v5, 2, 5, 1);
BENCHMARK_CAPTURE(encode, flow_v6_1, 2, 6, 1);
BENCHMARK_CAPTURE(encode, flow_v6_2, 2, 6, 2);
BENCHMARK_CAPTURE(encode, flow_v6_3, 2, 6, 3);
BENCHMARK_CAPTURE(encode, windows_v5, 4, 5, 1);
BENCHMARK_CAPTURE(encode, windows_v6, 4, 6, 1);
BENCHMARK_CAPTURE(refill, syslog_v6, 3, 6, 2);
BENCHMARK_CAPTURE(refill, alert_v6_3, 1, 6, 3);
BENCHMARK_CAPTURE(refill, flow_v6_3, 2, 6, 3);
BENCHMARK_CAPTURE(refill, windows_v6, 4, 6, 1);

}  // namespace

#include "ruv/bodies_alert.h"

#include <cstring>

#include "ruv/bodies_address.h"
#include "ruv/bodies_layout.h"
#include "ruv/conn.h"
#include "ruv/record.h"

static_assert(sizeof(RUVv5_Alert_t) == 128);
AT(RUVv5_Alert_t, nadver, 0);
AT(RUVv5_Alert_t, severity, 1);
AT(RUVv5_Alert_t, action, 2);
AT(RUVv5_Alert_t, protocol, 3);
AT(RUVv5_Alert_t, dst_mac, 4);
AT(RUVv5_Alert_t, src_mac, 10);
AT(RUVv5_Alert_t, flow, 16);
AT(RUVv5_Alert_t, message_len, 17);
AT(RUVv5_Alert_t, vlan, 18);
AT(RUVv5_Alert_t, src_port, 20);
AT(RUVv5_Alert_t, dst_port, 22);
AT(RUVv5_Alert_t, ipv6_sip, 24);
AT(RUVv5_Alert_t, sip, 36);
AT(RUVv5_Alert_t, ipv6_dip, 40);
AT(RUVv5_Alert_t, dip, 52);
AT(RUVv5_Alert_t, sig_id, 56);
AT(RUVv5_Alert_t, firsttime, 60);
AT(RUVv5_Alert_t, lasttime, 64);
AT(RUVv5_Alert_t, lasttime_usec, 68);
AT(RUVv5_Alert_t, eventcount, 72);
AT(RUVv5_Alert_t, packet_len, 76);
AT(RUVv5_Alert_t, src_usrname_len, 78);
AT(RUVv5_Alert_t, dst_usrname_len, 79);
AT(RUVv5_Alert_t, appname_len, 80);
AT(RUVv5_Alert_t, hostname_len, 81);
AT(RUVv5_Alert_t, domainname_len, 82);
AT(RUVv5_Alert_t, rsrvd_chara, 83);
AT(RUVv5_Alert_t, ipv6_dsip, 84);
AT(RUVv5_Alert_t, dsip, 96);
AT(RUVv5_Alert_t, rsvd64, 100);
AT(RUVv5_Alert_t, session_id, 108);
AT(RUVv5_Alert_t, norm_sigid, 116);
AT(RUVv5_Alert_t, sequence, 120);
AT(RUVv5_Alert_t, trusted, 122);
AT(RUVv5_Alert_t, sig_generator, 123);
AT(RUVv5_Alert_t, commandname_len, 124);
AT(RUVv5_Alert_t, objectname_len, 125);
AT(RUVv5_Alert_t, rsrvd_charb, 126);

static_assert(sizeof(RUVv6_Alert_v1_t) == 100);
AT(RUVv6_Alert_v1_t, session_id, 0);
AT(RUVv6_Alert_v1_t, src_mac, 8);
AT(RUVv6_Alert_v1_t, dst_mac, 14);
AT(RUVv6_Alert_v1_t, sigid, 20);
AT(RUVv6_Alert_v1_t, norm_sigid, 24);
AT(RUVv6_Alert_v1_t, evntcnt, 28);
AT(RUVv6_Alert_v1_t, sip, 32);
AT(RUVv6_Alert_v1_t, dip, 48);
AT(RUVv6_Alert_v1_t, ftime, 64);
AT(RUVv6_Alert_v1_t, ltime, 68);
AT(RUVv6_Alert_v1_t, ltime_usec, 72);
AT(RUVv6_Alert_v1_t, sport, 76);
AT(RUVv6_Alert_v1_t, dport, 78);
AT(RUVv6_Alert_v1_t, vlan, 80);
AT(RUVv6_Alert_v1_t, sequence, 82);
AT(RUVv6_Alert_v1_t, packet_len, 84);
AT(RUVv6_Alert_v1_t, protocol, 86);
AT(RUVv6_Alert_v1_t, flow, 87);
AT(RUVv6_Alert_v1_t, action, 88);
AT(RUVv6_Alert_v1_t, severity, 89);
AT(RUVv6_Alert_v1_t, trusted, 90);
AT(RUVv6_Alert_v1_t, sig_generator, 91);
AT(RUVv6_Alert_v1_t, message_len, 92);
AT(RUVv6_Alert_v1_t, src_usrname_len, 93);
AT(RUVv6_Alert_v1_t, dst_usrname_len, 94);
AT(RUVv6_Alert_v1_t, appname_len, 95);
AT(RUVv6_Alert_v1_t, hostname_len, 96);
AT(RUVv6_Alert_v1_t, domainname_len, 97);
AT(RUVv6_Alert_v1_t, commandname_len, 98);
AT(RUVv6_Alert_v1_t, objectname_len, 99);

static_assert(sizeof(RUVv6_Alert_v2_t) == 216);
AT(RUVv6_Alert_v2_t, session_id, 0);
AT(RUVv6_Alert_v2_t, userdatabin, 8);
AT(RUVv6_Alert_v2_t, src_mac, 88);
AT(RUVv6_Alert_v2_t, dst_mac, 94);
AT(RUVv6_Alert_v2_t, sigid, 100);
AT(RUVv6_Alert_v2_t, norm_sigid, 104);
AT(RUVv6_Alert_v2_t, evntcnt, 108);
AT(RUVv6_Alert_v2_t, sip6, 112);
AT(RUVv6_Alert_v2_t, dip6, 128);
AT(RUVv6_Alert_v2_t, sip4, 144);
AT(RUVv6_Alert_v2_t, dip4, 148);
AT(RUVv6_Alert_v2_t, ftime, 152);
AT(RUVv6_Alert_v2_t, ltime, 156);
AT(RUVv6_Alert_v2_t, ltime_usec, 160);
AT(RUVv6_Alert_v2_t, sport, 164);
AT(RUVv6_Alert_v2_t, dport, 166);
AT(RUVv6_Alert_v2_t, vlan, 168);
AT(RUVv6_Alert_v2_t, sequence, 170);
AT(RUVv6_Alert_v2_t, packet_len, 172);
AT(RUVv6_Alert_v2_t, userdataid, 174);
AT(RUVv6_Alert_v2_t, userdatalen, 194);
AT(RUVv6_Alert_v2_t, protocol, 204);
AT(RUVv6_Alert_v2_t, flow, 205);
AT(RUVv6_Alert_v2_t, action, 206);
AT(RUVv6_Alert_v2_t, severity, 207);
AT(RUVv6_Alert_v2_t, trusted, 208);
AT(RUVv6_Alert_v2_t, sig_generator, 209);
AT(RUVv6_Alert_v2_t, message_len, 210);
AT(RUVv6_Alert_v2_t, pad, 211);

// Sub-version 3 shifts all of sub-version 2 by 8 bytes.
static_assert(sizeof(RUVv6_Alert_v3_t) == 224);
AT(RUVv6_Alert_v3_t, flow_id, 0);
AT(RUVv6_Alert_v3_t, v2, 8);

namespace {

// The fields that both version-6 forms name alike.
template <class Body>
void fill_common(const RUVDataValues &values, Body &body) {
    body.session_id = values.session_id;
    memcpy(body.src_mac, values.src_mac, sizeof body.src_mac);
    memcpy(body.dst_mac, values.dst_mac, sizeof body.dst_mac);
    body.sigid = values.sigid;
    body.norm_sigid = values.norm_sigid;
    body.evntcnt = values.cnt;
    body.ftime = values.ftime;
    body.ltime = values.ltime;
    body.ltime_usec = values.ltime_usec;
    body.sport = values.sport;
    body.dport = values.dport;
    body.vlan = values.vlan;
    body.sequence = values.sequence;
    body.packet_len = values.pkt_len;
    body.protocol = values.protocol;
    body.flow = values.flow;
    body.action = values.action;
    body.severity = values.severity;
    body.trusted = values.trusted;
    body.sig_generator = values.sig_gen;
    body.message_len = values.msg_len;
}

// The lengths of the texts that came with version 2, and in version 6 have kept their names.
template <class Body>
void fill_text_lengths(const RUVCustomRows &rows, Body &body) {
    body.src_usrname_len = rows.len[kAlertSrcUser];
    body.dst_usrname_len = rows.len[kAlertDstUser];
    body.appname_len = rows.len[kAlertApplication];
    body.hostname_len = rows.len[kAlertHostname];
    body.domainname_len = rows.len[kAlertDomain];
}

void fill_v2(const RUVData_t &record, RUVv6_Alert_v2_t &body) {
    const RUVDataValues &values = record.data.data;
    fill_common(values, body);
    put_address_pair(body.sip6, &body.sip4, values.sip4, values.sip6);
    put_address_pair(body.dip6, &body.dip4, values.dip4, values.dip6);
    memcpy(body.userdatabin, record.data.cfdata.bin, sizeof body.userdatabin);
    memcpy(body.userdataid, record.data.cfdata.id, sizeof body.userdataid);
    memcpy(body.userdatalen, record.data.cfdata.len, sizeof body.userdatalen);
}

}  // namespace

void libruv_fill_alertv5(const RUVData_t &record, const RUVDSInfo *dsinfo, void *block) {
    auto &body = *static_cast<RUVv5_Alert_t *>(block);
    const RUVDataValues &values = record.data.data;
    body.nadver = static_cast<uint8_t>(record.ctl.ver);
    body.severity = values.severity;
    body.action = values.action;
    body.protocol = values.protocol;
    memcpy(body.dst_mac, values.dst_mac, sizeof body.dst_mac);
    memcpy(body.src_mac, values.src_mac, sizeof body.src_mac);
    body.flow = values.flow;
    body.message_len = values.msg_len;
    body.vlan = values.vlan;
    body.src_port = values.sport;
    body.dst_port = values.dport;
    put_address(body.ipv6_sip, &body.sip, values.sip4, values.sip6);
    put_address(body.ipv6_dip, &body.dip, values.dip4, values.dip6);
    body.sig_id = values.sigid;
    body.firsttime = values.ftime;
    body.lasttime = values.ltime;
    body.lasttime_usec = values.ltime_usec;
    body.eventcount = values.cnt;
    body.packet_len = values.pkt_len;
    if (record.ctl.ver >= 2) fill_text_lengths(record.data.cfdata, body);
    if (record.ctl.ver >= 3) put_source(body.ipv6_dsip, &body.dsip, dsinfo);
    if (record.ctl.ver < 4) return;
    body.session_id = values.session_id;
    body.norm_sigid = values.norm_sigid;
    body.sequence = values.sequence;
    body.trusted = values.trusted;
    body.sig_generator = values.sig_gen;
    body.commandname_len = record.data.cfdata.len[kAlertCommand];
    body.objectname_len = record.data.cfdata.len[kAlertObject];
}

void libruv_fill_alertv6v1(const RUVData_t &record, const RUVDSInfo *, void *block) {
    auto &body = *static_cast<RUVv6_Alert_v1_t *>(block);
    const RUVDataValues &values = record.data.data;
    fill_common(values, body);
    put_address(body.sip, body.sip + 12, values.sip4, values.sip6);
    put_address(body.dip, body.dip + 12, values.dip4, values.dip6);
    fill_text_lengths(record.data.cfdata, body);
    body.commandname_len = record.data.cfdata.len[kAlertCommand];
    body.objectname_len = record.data.cfdata.len[kAlertObject];
}

void libruv_fill_alertv6v2(const RUVData_t &record, const RUVDSInfo *, void *block) {
    fill_v2(record, *static_cast<RUVv6_Alert_v2_t *>(block));
}

void libruv_fill_alertv6v3(const RUVData_t &record, const RUVDSInfo *, void *block) {
    auto &body = *static_cast<RUVv6_Alert_v3_t *>(block);
    body.flow_id = record.data.data.flow_id;
    fill_v2(record, body.v2);
}

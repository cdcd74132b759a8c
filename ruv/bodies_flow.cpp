#include "ruv/bodies_flow.h"

#include <cstring>

#include "ruv/bodies_address.h"
#include "ruv/bodies_layout.h"
#include "ruv/conn.h"
#include "ruv/record.h"

static_assert(sizeof(RUVv5_Flow_t) == 148);
AT(RUVv5_Flow_t, nadver, 0);
AT(RUVv5_Flow_t, nadtype, 1);
AT(RUVv5_Flow_t, pad, 2);
AT(RUVv5_Flow_t, destbytes, 4);
AT(RUVv5_Flow_t, sourcebytes, 12);
AT(RUVv5_Flow_t, destpackets, 20);
AT(RUVv5_Flow_t, sourcepackets, 28);
AT(RUVv5_Flow_t, destasngeo, 36);
AT(RUVv5_Flow_t, sourceasngeo, 44);
AT(RUVv5_Flow_t, dst_mac, 52);
AT(RUVv5_Flow_t, src_mac, 58);
AT(RUVv5_Flow_t, ipv6_sip, 64);
AT(RUVv5_Flow_t, sip, 76);
AT(RUVv5_Flow_t, ipv6_dip, 80);
AT(RUVv5_Flow_t, dip, 92);
AT(RUVv5_Flow_t, duration, 96);
AT(RUVv5_Flow_t, duration_usec, 100);
AT(RUVv5_Flow_t, count, 104);
AT(RUVv5_Flow_t, firsttime, 108);
AT(RUVv5_Flow_t, lasttime, 112);
AT(RUVv5_Flow_t, lasttime_usec, 116);
AT(RUVv5_Flow_t, ipv6_dsip, 120);
AT(RUVv5_Flow_t, dsip, 132);
AT(RUVv5_Flow_t, sport, 136);
AT(RUVv5_Flow_t, dport, 138);
AT(RUVv5_Flow_t, vlan, 140);
AT(RUVv5_Flow_t, iface_in, 142);
AT(RUVv5_Flow_t, iface_out, 144);
AT(RUVv5_Flow_t, protocol, 146);
AT(RUVv5_Flow_t, dir, 147);

static_assert(sizeof(RUVv6_Flow_v1_t) == 128);
AT(RUVv6_Flow_v1_t, dstbytes, 0);
AT(RUVv6_Flow_v1_t, srcbytes, 8);
AT(RUVv6_Flow_v1_t, dstpackets, 16);
AT(RUVv6_Flow_v1_t, srcpackets, 24);
AT(RUVv6_Flow_v1_t, dstasngeo, 32);
AT(RUVv6_Flow_v1_t, srcasngeo, 40);
AT(RUVv6_Flow_v1_t, dst_mac, 48);
AT(RUVv6_Flow_v1_t, src_mac, 54);
AT(RUVv6_Flow_v1_t, sip, 60);
AT(RUVv6_Flow_v1_t, dip, 76);
AT(RUVv6_Flow_v1_t, duration, 92);
AT(RUVv6_Flow_v1_t, duration_usec, 96);
AT(RUVv6_Flow_v1_t, cnt, 100);
AT(RUVv6_Flow_v1_t, ftime, 104);
AT(RUVv6_Flow_v1_t, ltime, 108);
AT(RUVv6_Flow_v1_t, ltime_usec, 112);
AT(RUVv6_Flow_v1_t, sport, 116);
AT(RUVv6_Flow_v1_t, dport, 118);
AT(RUVv6_Flow_v1_t, vlan, 120);
AT(RUVv6_Flow_v1_t, iface_in, 122);
AT(RUVv6_Flow_v1_t, iface_out, 124);
AT(RUVv6_Flow_v1_t, protocol, 126);
AT(RUVv6_Flow_v1_t, dir, 127);

// One row a field: its offset with five custom-field rows and with seven.
#define AT_BOTH(field, offset5, offset7) \
    AT(RUVv6_Flow_v2_t, field, offset5); \
    AT(RUVv6_Flow_v3_t, field, offset7)

static_assert(sizeof(RUVv6_Flow_v2_t) == 204);
static_assert(sizeof(RUVv6_Flow_v3_t) == 232);
AT_BOTH(session_id, 0, 0);
AT_BOTH(dstbytes, 8, 8);
AT_BOTH(srcbytes, 16, 16);
AT_BOTH(dstpackets, 24, 24);
AT_BOTH(srcpackets, 32, 32);
AT_BOTH(dstasngeo, 40, 40);
AT_BOTH(srcasngeo, 48, 48);
AT_BOTH(userdatabin, 56, 56);
AT_BOTH(dst_mac, 96, 112);
AT_BOTH(src_mac, 102, 118);
AT_BOTH(sip6, 108, 124);
AT_BOTH(dip6, 124, 140);
AT_BOTH(sip4, 140, 156);
AT_BOTH(dip4, 144, 160);
AT_BOTH(duration, 148, 164);
AT_BOTH(duration_usec, 152, 168);
AT_BOTH(cnt, 156, 172);
AT_BOTH(ftime, 160, 176);
AT_BOTH(ltime, 164, 180);
AT_BOTH(ltime_usec, 168, 184);
AT_BOTH(sport, 172, 188);
AT_BOTH(dport, 174, 190);
AT_BOTH(vlan, 176, 192);
AT_BOTH(iface_in, 178, 194);
AT_BOTH(iface_out, 180, 196);
AT_BOTH(userdataid, 182, 198);
AT_BOTH(userdatalen, 192, 212);
AT_BOTH(protocol, 197, 219);
AT_BOTH(dir, 198, 220);
AT_BOTH(connstate, 199, 221);
AT_BOTH(tos_src, 200, 222);
AT_BOTH(tcp_flags, 201, 223);
AT_BOTH(pad, 202, 224);

namespace {

// The fields that all version-6 forms name alike.
template <class Body>
void fill_common(const RUVDataValues &values, Body &body) {
    body.dstbytes = values.dstbytes;
    body.srcbytes = values.srcbytes;
    body.dstpackets = values.dstpackets;
    body.srcpackets = values.srcpackets;
    body.dstasngeo = values.dstasngeo;
    body.srcasngeo = values.srcasngeo;
    memcpy(body.dst_mac, values.dst_mac, sizeof body.dst_mac);
    memcpy(body.src_mac, values.src_mac, sizeof body.src_mac);
    body.duration = values.duration;
    body.duration_usec = values.duration_usec;
    body.cnt = values.cnt;
    body.ftime = values.ftime;
    body.ltime = values.ltime;
    body.ltime_usec = values.ltime_usec;
    body.sport = values.sport;
    body.dport = values.dport;
    body.vlan = values.vlan;
    body.iface_in = values.iface_in;
    body.iface_out = values.iface_out;
    body.protocol = values.protocol;
}

// Kept: session_id and dir stay 0 although their setters accept values, Receivers take a Flow of
// these sub-versions as having no session and no direction.
template <class Body>
void fill_with_rows(const RUVData_t &record, void *block) {
    auto &body = *static_cast<Body *>(block);
    const RUVDataValues &values = record.data.data;
    fill_common(values, body);
    put_address_pair(body.sip6, &body.sip4, values.sip4, values.sip6);
    put_address_pair(body.dip6, &body.dip4, values.dip4, values.dip6);
    memcpy(body.userdatabin, record.data.cfdata.bin, sizeof body.userdatabin);
    memcpy(body.userdataid, record.data.cfdata.id, sizeof body.userdataid);
    memcpy(body.userdatalen, record.data.cfdata.len, sizeof body.userdatalen);
    body.connstate = values.connstate;
    body.tos_src = values.tos_src;
    body.tcp_flags = values.tcp_flags;
}

}  // namespace

void libruv_fill_flowv5(const RUVData_t &record, const RUVDSInfo *dsinfo, void *block) {
    auto &body = *static_cast<RUVv5_Flow_t *>(block);
    const RUVDataValues &values = record.data.data;
    body.nadver = static_cast<uint8_t>(record.ctl.ver);
    body.nadtype = 4;
    body.destbytes = values.dstbytes;
    body.sourcebytes = values.srcbytes;
    body.destpackets = values.dstpackets;
    body.sourcepackets = values.srcpackets;
    body.destasngeo = values.dstasngeo;
    body.sourceasngeo = values.srcasngeo;
    memcpy(body.dst_mac, values.dst_mac, sizeof body.dst_mac);
    memcpy(body.src_mac, values.src_mac, sizeof body.src_mac);
    put_address(body.ipv6_sip, &body.sip, values.sip4, values.sip6);
    put_address(body.ipv6_dip, &body.dip, values.dip4, values.dip6);
    body.duration = values.duration;
    body.duration_usec = values.duration_usec;
    body.count = values.cnt;
    body.firsttime = values.ftime;
    body.lasttime = values.ltime;
    body.lasttime_usec = values.ltime_usec;
    put_source(body.ipv6_dsip, &body.dsip, dsinfo);
    body.sport = values.sport;
    body.dport = values.dport;
    body.vlan = values.vlan;
    body.iface_in = values.iface_in;
    body.iface_out = values.iface_out;
    body.protocol = values.protocol;
    body.dir = values.dir;
}

void libruv_fill_flowv6v1(const RUVData_t &record, const RUVDSInfo *, void *block) {
    auto &body = *static_cast<RUVv6_Flow_v1_t *>(block);
    const RUVDataValues &values = record.data.data;
    fill_common(values, body);
    put_address(body.sip, body.sip + 12, values.sip4, values.sip6);
    put_address(body.dip, body.dip + 12, values.dip4, values.dip6);
    body.dir = values.dir;
}

void libruv_fill_flowv6v2(const RUVData_t &record, const RUVDSInfo *, void *block) {
    fill_with_rows<RUVv6_Flow_v2_t>(record, block);
}

void libruv_fill_flowv6v3(const RUVData_t &record, const RUVDSInfo *, void *block) {
    fill_with_rows<RUVv6_Flow_v3_t>(record, block);
}

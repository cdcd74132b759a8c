#include "ruv/bodies_syslog.h"

#include "ruv/bodies_layout.h"
#include "ruv/conn.h"
#include "ruv/record.h"

static_assert(sizeof(RUVv5_Syslog_t) == 12);
AT(RUVv5_Syslog_t, nadver, 0);
AT(RUVv5_Syslog_t, nadtype, 1);
AT(RUVv5_Syslog_t, third_party_type, 2);
AT(RUVv5_Syslog_t, ipv4_src, 4);
AT(RUVv5_Syslog_t, message_len, 8);

static_assert(sizeof(RUVv6_Syslog_v1_t) == 8);
AT(RUVv6_Syslog_v1_t, data_time, 0);
AT(RUVv6_Syslog_v1_t, rsrvd, 4);
AT(RUVv6_Syslog_v1_t, data_len, 6);

void libruv_fill_syslogv5(const RUVData_t &record, const RUVDSInfo *dsinfo, void *block) {
    auto &body = *static_cast<RUVv5_Syslog_t *>(block);
    body.nadver = static_cast<uint8_t>(record.ctl.ver);
    body.nadtype = 5;
    body.third_party_type = static_cast<uint16_t>(record.ctl.tpt);
    if (dsinfo != nullptr && dsinfo->type == kDsIPv4) body.ipv4_src = dsinfo->ipv4;
    body.message_len = record.data.data.pkt_len;
}

void libruv_fill_syslogv6(const RUVData_t &record, const RUVDSInfo *, void *block) {
    auto &body = *static_cast<RUVv6_Syslog_v1_t *>(block);
    body.data_time = record.data.data.colltime;
    body.data_len = record.data.data.pkt_len;
}

#include "ruv/bodies_windows.h"

#include <arpa/inet.h>

#include <cstdio>
#include <cstring>

#include "ruv/bodies_address.h"
#include "ruv/bodies_layout.h"
#include "ruv/conn.h"
#include "ruv/record.h"

static_assert(sizeof(RUVv5_WinEvntLog_t) == 64);
AT(RUVv5_WinEvntLog_t, nadver, 0);
AT(RUVv5_WinEvntLog_t, nadtype, 1);
AT(RUVv5_WinEvntLog_t, unfilled_pad, 2);
AT(RUVv5_WinEvntLog_t, win_ver, 4);
AT(RUVv5_WinEvntLog_t, ipv6_sip, 8);
AT(RUVv5_WinEvntLog_t, sip, 20);
AT(RUVv5_WinEvntLog_t, eventid, 24);
AT(RUVv5_WinEvntLog_t, eventtype, 28);
AT(RUVv5_WinEvntLog_t, category, 30);
AT(RUVv5_WinEvntLog_t, source_len, 32);
AT(RUVv5_WinEvntLog_t, create_time, 36);
AT(RUVv5_WinEvntLog_t, write_time, 40);
AT(RUVv5_WinEvntLog_t, host_len, 44);
AT(RUVv5_WinEvntLog_t, usersid_len, 48);
AT(RUVv5_WinEvntLog_t, message_len, 52);
AT(RUVv5_WinEvntLog_t, strings_len, 56);
AT(RUVv5_WinEvntLog_t, data_len, 60);
static_assert(sizeof(RUVv6_WinEventLog_v1_t) == 4);

void libruv_fill_winevntv5(const RUVData_t &record, const RUVDSInfo *dsinfo, void *block) {
    auto &body = *static_cast<RUVv5_WinEvntLog_t *>(block);
    const RUVDataValues &values = record.data.data;
    body.nadver = static_cast<uint8_t>(record.ctl.ver);
    body.nadtype = 1;
    body.win_ver = static_cast<uint32_t>(values.win_ver % 10) << 8 | values.win_ver / 10;
    put_source(body.ipv6_sip, &body.sip, dsinfo);
    body.eventid = values.eventid;
    body.eventtype = values.eventtype;
    body.source_len = record.data.cfdata.len[kWinSourceName];
    body.create_time = values.create_time;
    body.host_len = record.data.cfdata.len[kWinHostname];
    body.message_len = values.pkt_len;
    for (int i = 0; i < values.num_istrings; ++i) body.strings_len += values.istringslen[i];
}

// The length is that of the text behind it, which only the encoder knows.
void libruv_fill_winevntv6(const RUVData_t &, const RUVDSInfo *, void *) {
}

void libruv_fill_win_texts(const RUVData_t &record, const RUVDSInfo *dsinfo,
                           const char *local_address, win_texts *texts) {
    const RUVDataValues &values = record.data.data;
    if (dsinfo == nullptr || dsinfo->type == kDsHostID) {
        snprintf(texts->address, sizeof texts->address, "%s", local_address ? local_address : "");
    } else {
        // Kept: an IPv6 source shows as an IPv4 address made of its first four bytes, Receivers
        // know the sources of these texts in that form.
        uint32_t word = 0;
        memcpy(&word, dsinfo->ipv6, sizeof word);
        const in_addr address = {htonl(word)};
        inet_ntop(AF_INET, &address, texts->address, sizeof texts->address);
    }
    snprintf(texts->record_number, sizeof texts->record_number, "||%u||", values.rec_num);
    // Kept: the third number is the collection time, which no Windows event setter writes, so it
    // is 0; the number of fields in the text must stay.
    snprintf(texts->numbers, sizeof texts->numbers, "||%u||%u||%u||%u||", values.eventid,
             values.win_ver, values.colltime, values.eventtype);
    snprintf(texts->count, sizeof texts->count, "||%u||",
             static_cast<unsigned>(values.num_istrings));
}

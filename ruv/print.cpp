// The dumps of a connection and of a data source on standard error.
#include <arpa/inet.h>

#include <cstdio>
#include <cstring>

#include "ruv/conn.h"
#include "ruv/trace.h"
#include "ruv/wire.h"

namespace {

using ruv::fail;

constexpr const char *kRequestNames[] = {
    "NOP",       "ReqSSL",     "ReqDataVers",        "GetChanID", "AmKnown",
    "CloseConn", "GetRcvrVer", "GetCustomFieldFile", "AmKnown2",
};
constexpr int kNamedRequests = sizeof kRequestNames / sizeof *kRequestNames;
constexpr int kMaskBits = 16;

// Address in host order as text; `text` holds INET6_ADDRSTRLEN bytes and is returned.
const char *ipv4_text(uint32_t address, char *text) {
    const in_addr network = {htonl(address)};
    return inet_ntop(AF_INET, &network, text, INET6_ADDRSTRLEN);
}

const char *ipv6_text(const uint32_t *address, char *text) {
    uint32_t network[4];
    for (int i = 0; i < 4; ++i) network[i] = htonl(address[i]);
    return inet_ntop(AF_INET6, network, text, INET6_ADDRSTRLEN);
}

const char *receiver_text(const RUVConn *conn, char *text) {
    const void *address = &conn->conn_ai_addr.sin6_addr;
    if (conn->conninfo.ai_family == AF_INET)
        address = &reinterpret_cast<const sockaddr_in *>(&conn->conn_ai_addr)->sin_addr;
    return inet_ntop(conn->conninfo.ai_family, address, text, INET6_ADDRSTRLEN) ? text : "";
}

// ---- Supported data types.

void print_requests(uint16_t mask) {
    const char *separator = "";
    for (int bit = 0; bit < kMaskBits; ++bit) {
        if (!(mask >> bit & 1)) continue;
        fputs(separator, stderr);
        if (bit < kNamedRequests)
            fputs(kRequestNames[bit], stderr);
        else
            fprintf(stderr, "Unknown[%d]", bit);
        separator = ", ";
    }
}

void print_versions(const uint16_t (&row)[kProtocolVersions]) {
    for (int version = 1; version <= kProtocolVersions; ++version)
        for (int bit = 0; bit < kMaskBits; ++bit)
            if (row[version - 1] >> bit & 1) fprintf(stderr, "v%d:%d, ", version, bit + 1);
}

void print_data_types(const RUVConn *conn) {
    static constexpr const char *kLabels[kDataTypes] = {
        "\t\tRequest/Information:\t", "\t\tAlert:\t\t\t", "\t\tFlow:\t\t\t", "\t\tSyslog:\t\t\t",
        "\t\tWindows Events:\t\t"};
    fprintf(stderr, "\tSupported Data Types:\n");
    for (int type = 0; type < kDataTypes; ++type) {
        if (!(conn->data_types >> type & 1)) continue;
        fputs(kLabels[type], stderr);
        if (type == kRequest)
            print_requests(conn->data_versions[kRequest][kProtocolVersions - 1]);
        else
            print_versions(conn->data_versions[type]);
        fputs("\n", stderr);
    }
}

// ---- Channels.

void print_channels(const channel_id_info_t &cache) {
    char text[INET6_ADDRSTRLEN];
    fprintf(stderr, "\tChannel ID Info:\n");
    fprintf(stderr, "\t\tIPv4 Address -- Channel ID\n");
    for (int i = 0; i < cache.ipv4_cnt; ++i)
        fprintf(stderr, "\t\t%s -- %d\n", ipv4_text(cache.ipv4_ipv4[i], text), cache.ipv4_cid[i]);
    fprintf(stderr, "\t\tIPv6 Address -- Channel ID\n");
    for (int i = 0; i < cache.ipv6_cnt; ++i)
        fprintf(stderr, "\t\t%s -- %d\n", ipv6_text(cache.ipv6_ipv6[i], text), cache.ipv6_cid[i]);
    fprintf(stderr, "\t\tHost ID -- Channel ID\n");
    for (int i = 0; i < cache.hostid_cnt; ++i)
        fprintf(stderr, "\t\t%s -- %d\n", cache.hostid_hostid[i], cache.hostid_cid[i]);
}

int print_conn(const RUVConn *conn) {
    static constexpr const char *kIpModes[] = {"IPv4/6", "IPv4", "IPv6"};
    static constexpr const char *kSslModes[] = {"none", "required", "request"};
    static constexpr const char *kRequested[] = {"any", "<= 5", "6"};
    char receiver[INET6_ADDRSTRLEN];
    fprintf(stderr, "RUVConn Struct Info:\n");
    fprintf(stderr, "\tDest: %s (%s), Source IP: %s, Port: %d\n", conn->host,
            receiver_text(conn, receiver), conn->ip_addr, conn->port);
    fprintf(stderr, "\tConnected: %s, SSL: %s\n", conn->skt != -1 ? "Yes" : "No",
            conn->ssl_conn ? "SSL" : "No SSL");
    fprintf(stderr, "\tRUV Version: %s, RUV Version Reqested: %s\n",
            conn->ruv_ver == kUpTo5 ? "<= 5" : "6", kRequested[conn->ruv_ver_req]);
    fprintf(stderr, "\tIP Mode: %s, SSL Mode: %s\n", kIpModes[conn->ipv4_or_v6],
            kSslModes[conn->force_ssl]);
    fprintf(stderr, "\tData Source Auto-Learning: %s\n",
            conn->allow_to_auto_learn ? "enabled" : "disabled");
    print_data_types(conn);
    // Kept: the detected generation is held as 0, 1 or 2, so the tables never show; readers of
    // these dumps do not expect them.
    if (conn->ruv_ver > 5) print_channels(conn->cid);
    return 0;
}

int print_ds_info(const RUVDSInfo *ds) {
    char text[INET6_ADDRSTRLEN];
    fprintf(stderr, "Data Source Info:\n\tType: ");
    switch (ds->type) {
        case kDsIPv4:
            fprintf(stderr, "IPv4, %s\n", ipv4_text(ds->ipv4, text));
            break;
        case kDsIPv6:
            fprintf(stderr, "IPv6, %s\n", ipv6_text(ds->ipv6, text));
            break;
        case kDsHostID:
            fprintf(stderr, "HostID, %s\n", ds->hostid);
            break;
    }
    return 0;
}

}  // namespace

int RUVPrintConn(RUVConn *conn) {
    return ruv::traced("RUVPrintConn", [&] { return conn ? print_conn(conn) : fail(2, 1); });
}

int RUVPrintDSInfo(RUVDSInfo *ds) {
    return ruv::traced("RUVPrintDSInfo", [&] { return ds ? print_ds_info(ds) : fail(2, 1); });
}

#include "ruv/channel.h"

#include <cstdlib>
#include <cstring>

#include "ruv/record.h"
#include "ruv/request.h"
#include "ruv/trace.h"
#include "ruv/transport.h"

namespace {

using ruv::fail;

constexpr int kLargestChannel = 0xFFFF;    // the header's field has 16 bits
constexpr size_t kLongestHostId = 0xFFFF;  // so has the request's length field
constexpr int kChannelsPerWord = 8;        // 4 bits each
constexpr size_t kIPv6Size = 16;

// ---- The three kinds of source, as the search and the insertion see them.

// Binary search of `count` keys; `compare(i)` is the sign of (wanted - key i).
template <class Compare>
int search(int count, const int *cids, Compare compare) {
    int low = 0;
    int high = count - 1;
    while (low <= high) {
        const int middle = (low + high) / 2;
        const int order = compare(middle);
        if (order == 0) return cids[middle];
        if (order < 0)
            high = middle - 1;
        else
            low = middle + 1;
    }
    return fail(14);
}

template <class T>
bool grow(T **array, size_t count) {
    void *grown = realloc(*array, count * sizeof(T));
    if (grown) *array = static_cast<T *>(grown);
    return grown != nullptr;
}

// Inserts (key, cid) before the first key for which `is_behind(key)` holds. Nothing is counted or
// moved before both arrays have their room. @return false without memory.
template <class Key, class Behind>
bool insert(int *count, int **cids, Key **keys, Key key, int cid, Behind is_behind) {
    const auto old_count = static_cast<size_t>(*count);
    if (!grow(cids, old_count + 1) || !grow(keys, old_count + 1)) return false;
    size_t at = 0;
    while (at < old_count && !is_behind((*keys)[at])) ++at;
    memmove(*keys + at + 1, *keys + at, (old_count - at) * sizeof(Key));
    memmove(*cids + at + 1, *cids + at, (old_count - at) * sizeof(int));
    (*keys)[at] = key;
    (*cids)[at] = cid;
    ++*count;
    return true;
}

// Gives the known array the word of channel `cid`; new words are zero. @return false: no memory.
bool reach_known(channel_id_info_t *cache, int cid) {
    const size_t wanted = static_cast<size_t>(cid / kChannelsPerWord) + 1;
    if (wanted <= cache->known_words) return true;
    if (!grow(&cache->known, wanted)) return false;
    memset(cache->known + cache->known_words, 0,
           (wanted - cache->known_words) * sizeof *cache->known);
    cache->known_words = wanted;
    return true;
}

uint32_t known_mask(int cid, int data_type) {
    return 1u << (cid % kChannelsPerWord * 4 + data_type - 1);
}

bool save_ipv4(channel_id_info_t *cache, uint32_t address, int cid) {
    return insert(&cache->ipv4_cnt, &cache->ipv4_cid, &cache->ipv4_ipv4, address, cid,
                  [&](uint32_t key) { return key >= address; });
}

bool save_ipv6(channel_id_info_t *cache, const uint32_t *address, int cid) {
    auto *copy = static_cast<uint32_t *>(malloc(kIPv6Size));
    if (!copy) return false;
    memcpy(copy, address, kIPv6Size);
    if (insert(&cache->ipv6_cnt, &cache->ipv6_cid, &cache->ipv6_ipv6, copy, cid,
               [&](const uint32_t *key) { return memcmp(key, address, kIPv6Size) > 0; }))
        return true;
    free(copy);
    return false;
}

bool save_hostid(channel_id_info_t *cache, const char *hostid, int cid) {
    char *copy = strdup(hostid);
    if (!copy) return false;
    if (insert(&cache->hostid_cnt, &cache->hostid_cid, &cache->hostid_hostid, copy, cid,
               [&](const char *key) { return strcmp(key, hostid) > 0; }))
        return true;
    free(copy);
    return false;
}

// ---- Requests.

// Body head and data of GetChanID. @return 0, or -1 with error 2.
int describe_source(const RUVDSInfo *ds, RUV_ReqInfo_GetChanID_t *head, iovec *data) {
    size_t length;
    const void *bytes;
    switch (ds->type) {
        case kDsIPv4:
            bytes = &ds->ipv4;
            length = sizeof ds->ipv4;
            break;
        case kDsIPv6:
            bytes = ds->ipv6;
            length = kIPv6Size;
            break;
        case kDsHostID:
            bytes = ds->hostid;
            length = strlen(ds->hostid);
            if (length > kLongestHostId) return fail(2, 2);
            break;
        default:
            return fail(2, 2);
    }
    *head = {static_cast<uint16_t>(ds->type), static_cast<uint16_t>(length)};
    *data = {const_cast<void *>(bytes), length};
    return 0;
}

// ---- The public calls.

RUVDSInfo *alloc_ds_info(int type, const void *data) {
    if (type < kDsIPv4 || type > kDsHostID) return ruv::fail_null(2, 1);
    if (!data) return ruv::fail_null(2, 2);
    auto *ds = static_cast<RUVDSInfo *>(calloc(1, sizeof(RUVDSInfo)));
    if (!ds) return ruv::fail_null(1);
    ds->type = type;
    if (type == kDsIPv4) {
        memcpy(&ds->ipv4, data, sizeof ds->ipv4);
    } else if (type == kDsIPv6) {
        memcpy(ds->ipv6, data, kIPv6Size);
    } else if (!(ds->hostid = strdup(static_cast<const char *>(data)))) {
        free(ds);
        return ruv::fail_null(1);
    }
    return ds;
}

int is_ds_known(RUVConn *conn, const RUVData_t *data, const RUVDSInfo *ds) {
    if (!conn) return fail(2, 1);
    if (conn->skt == -1) return fail(22);
    if (conn->ruv_ver != kVersion6) return fail(12);
    int channel = 0;
    if (ds) {
        channel = libruv_lookup_channel_id(conn, ds);
        // Kept: a channel that the Receiver has only now assigned counts as unknown unless it is
        // channel 0; callers ask once more when they want the Receiver's own word.
        if (channel < 0 && (channel = libruv_request_channel_id(conn, ds)) != 0) return -1;
    }
    return libruv_am_known(conn, data, channel);
}

int set_auto_learn(RUVConn *conn, int allow) {
    if (!conn) return fail(2, 1);
    conn->allow_to_auto_learn = allow;
    return 0;
}

}  // namespace

int libruv_lookup_channel_id(RUVConn *conn, const RUVDSInfo *ds) {
    ruv::trace_point();
    const channel_id_info_t &cache = conn->cid;
    switch (ds->type) {
        case kDsIPv4:
            return search(cache.ipv4_cnt, cache.ipv4_cid, [&](int i) {
                return (ds->ipv4 > cache.ipv4_ipv4[i]) - (ds->ipv4 < cache.ipv4_ipv4[i]);
            });
        case kDsIPv6:
            return search(cache.ipv6_cnt, cache.ipv6_cid,
                          [&](int i) { return memcmp(ds->ipv6, cache.ipv6_ipv6[i], kIPv6Size); });
        case kDsHostID:
            return search(cache.hostid_cnt, cache.hostid_cid,
                          [&](int i) { return strcmp(ds->hostid, cache.hostid_hostid[i]); });
        default:
            return fail(2, 2);
    }
}

int libruv_request_channel_id(RUVConn *conn, const RUVDSInfo *ds) {
    ruv::trace_point();
    RUV_ReqInfo_GetChanID_t head;
    iovec body[2] = {{&head, sizeof head}, {}};
    if (describe_source(ds, &head, &body[1]) != 0) return -1;
    int32_t cid = -1;
    if (libruv_send_rqstinfo(conn, kGetChanID, 0, 0) < 0 || libruv_write(conn, 2, body) < 0 ||
        libruv_rqstinfo_check_result(conn) != 0 || libruv_read_exact(conn, &cid, sizeof cid) != 0)
        return -1;
    return libruv_save_channel_id(conn, ds, cid) == 0 ? cid : -1;
}

int libruv_save_channel_id(RUVConn *conn, const RUVDSInfo *ds, int cid) {
    ruv::trace_point();
    if (cid < 0 || cid > kLargestChannel) return fail(14);
    channel_id_info_t *cache = &conn->cid;
    bool saved = reach_known(cache, cid);
    switch (ds->type) {
        case kDsIPv4:
            saved = saved && save_ipv4(cache, ds->ipv4, cid);
            break;
        case kDsIPv6:
            saved = saved && save_ipv6(cache, ds->ipv6, cid);
            break;
        case kDsHostID:
            saved = saved && save_hostid(cache, ds->hostid, cid);
            break;
        default:
            return fail(2, 2);
    }
    return saved ? 0 : fail(1);
}

int libruv_am_known(RUVConn *conn, const RUVData_t *data, int cid) {
    ruv::trace_point();
    const bool second_form = libruv_understands(conn, kAmKnown2);
    const int tpt = data ? data->ctl.tpt : 0;
    if (libruv_send_rqstinfo(conn, second_form ? kAmKnown2 : kAmKnown, cid, tpt) < 0) return -1;
    if (second_form) {
        uint32_t type = data ? data->ctl.type : 0;
        iovec body = {&type, sizeof type};
        if (libruv_write(conn, 1, &body) < 0) return -1;
    }
    if (libruv_rqstinfo_check_result(conn) != 0) return -1;
    if (!data || data->ctl.type < kAlert || data->ctl.type > kWinEvent) return 0;
    if (!reach_known(&conn->cid, cid)) return fail(1);
    conn->cid.known[cid / kChannelsPerWord] |= known_mask(cid, static_cast<int>(data->ctl.type));
    return 0;
}

bool libruv_known_bit(const RUVConn *conn, int cid, int data_type) {
    const auto word = static_cast<size_t>(cid / kChannelsPerWord);
    return word < conn->cid.known_words &&
           (conn->cid.known[word] & known_mask(cid, data_type)) != 0;
}

void libruv_clear_channels(RUVConn *conn) {
    ruv::trace_point();
    channel_id_info_t *cache = &conn->cid;
    for (int i = 0; i < cache->ipv6_cnt; ++i) free(cache->ipv6_ipv6[i]);
    for (int i = 0; i < cache->hostid_cnt; ++i) free(cache->hostid_hostid[i]);
    free(cache->ipv4_cid);
    free(cache->ipv6_cid);
    free(cache->hostid_cid);
    free(cache->ipv4_ipv4);
    free(cache->ipv6_ipv6);
    free(cache->hostid_hostid);
    uint32_t *known = cache->known;
    const size_t known_words = cache->known_words;
    *cache = {};
    cache->known = known;
    cache->known_words = known_words;
    // Kept: only the first word forgets; what it says beyond channel 7 outlives the open, and a
    // Receiver keeps its channel ids.
    if (known_words > 0) known[0] = 0;
}

void libruv_free_channels(RUVConn *conn) {
    libruv_clear_channels(conn);
    free(conn->cid.known);
    conn->cid = {};
}

RUVDSInfo *RUVAllocDSInfo(int type, const void *data) {
    return ruv::traced("RUVAllocDSInfo", [&] { return alloc_ds_info(type, data); });
}

void RUVFreeDSInfo(RUVDSInfo *ds) {
    ruv::traced("RUVFreeDSInfo", [&] {
        if (ds->type == kDsHostID) free(ds->hostid);
        free(ds);
        return 0;
    });
}

int RUVEnableAutoLearn(RUVConn *conn) {
    return ruv::traced("RUVEnableAutoLearn", [&] { return set_auto_learn(conn, 1); });
}

int RUVDisableAutoLearn(RUVConn *conn) {
    return ruv::traced("RUVDisableAutoLearn", [&] { return set_auto_learn(conn, 0); });
}

int RUVIsDSKnown(RUVConn *conn, void *record, RUVDSInfo *ds) {
    return ruv::traced("RUVIsDSKnown", [&] {
        return is_ds_known(conn, static_cast<const RUVData_t *>(record), ds);
    });
}

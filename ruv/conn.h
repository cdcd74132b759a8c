#pragma once
/// The data of a connection handle. It belongs to one thread at a time; nothing in it is locked.
/// It owns what its pointers point at, unless a comment says otherwise, until RUVFreeConn.
#include <netdb.h>
#include <netinet/in.h>

#include <cstdint>

struct ssl_st;
struct ssl_ctx_st;

enum ruv_ds_kind : int { kDsIPv4 = 1, kDsIPv6 = 2, kDsHostID = 3 };
enum ruv_generation : int { kUnknownGeneration = 0, kUpTo5 = 1, kVersion6 = 2 };
enum ruv_ssl_mode : int { kSslNone = 0, kSslRequired = 1, kSslRequest = 2 };

/// A data source as the caller describes it.
struct RUVDSInfo {
    int type;  ///< ruv_ds_kind
    union {
        uint32_t ipv4;     ///< host order: the first octet in the most significant byte
        uint32_t ipv6[4];  ///< each word in host order
        char *hostid;      ///< owned copy
    };
};

/// Channel ids that the Receiver has handed out, per kind of data source, in ascending order.
struct channel_id_info_t {
    int ipv4_cnt, ipv6_cnt, hostid_cnt;
    int *ipv4_cid, *ipv6_cid, *hostid_cid;  ///< channel ids, parallel to the three below
    uint32_t *known;       ///< 4 bits per channel id, one per record data type 1 to 4
    uint32_t *ipv4_ipv4;   ///< ascending as unsigned numbers
    uint32_t **ipv6_ipv6;  ///< 16 bytes each, ascending by memcmp
    char **hostid_hostid;  ///< ascending by strcmp
    size_t known_words;    ///< length of `known`
};

/// One custom field: a section of the Receiver's field-definition file.
struct custom_field_info_t {
    char name[82];
    int id;
    int type;        ///< code of the value's type, an index of cftype_to_string
    int rowa, rowf;  ///< row in an Alert, 0 to 9, and in a Flow, 0 to 6; or -1
    int off;         ///< bit offset in the row's word, 0 to 63
    int size_of;     ///< bytes of the value; 0 for strings and unknown types
};

/// All fields that share an id, ascending by offset.
struct cfid_to_cfi_t {
    custom_field_info_t *cfi[64];  ///< point into custom_fields_info_t::cfi
    int cnt;
    uint16_t id;
};

/// The catalogue with its two indexes. The pointers point into `cfi`.
struct custom_fields_info_t {
    int cfid_to_cfis_cnt;                  ///< used groups of id_to_userfields
    int custom_fields_cnt;                 ///< entries of cfi, name_name and name_cfi
    char **name_name;                      ///< ascending by strcmp
    custom_field_info_t *cfi, **name_cfi;  ///< in file order, and parallel to name_name
    cfid_to_cfi_t *id_to_userfields;       ///< ascending by id
};

/// Records that wait for a group's commit, encoded (group.h).
struct group_queue_t {
    uint8_t *bytes;
    size_t used, size;
    int open;  ///< 1 between RUVGroupBegin and the commit or drop
};

/// See RUVAllocConn for the meaning of the numbers. Data type 0 being the requests,
/// data_versions[0][5] is the mask of those that the Receiver understands.
struct RUVConn {
    int skt;  ///< -1 when not connected
    int port, ipv4_or_v6;
    int force_ssl;  ///< ruv_ssl_mode
    int ruv_ver_req;
    int ruv_ver;  ///< ruv_generation, detected by RUVOpen and kept over RUVClose
    int allow_to_auto_learn;
    uint16_t data_types;           ///< bit n: data type n is accepted
    uint16_t data_versions[5][6];  ///< [type][protocol version - 1]: mask of type versions
    char *host;
    ssl_st *ssl_conn;  ///< null when the stream is plain
    char ip_addr[46];  ///< local address of the socket as text
    channel_id_info_t cid;
    custom_fields_info_t cfi;
    addrinfo conninfo;  ///< its address pointer points at conn_ai_addr
    sockaddr_in6 conn_ai_addr;
    // What follows is all zero unless it is used.
    int (*stopping)(void *);  ///< RUVSetInterrupt
    void *stopping_arg;
    int64_t asked_ms;        ///< when a wait last asked the callback
    int64_t io_deadline_ms;  ///< monotonic end of a bounded transfer, 0: unbounded
    int64_t io_stall_ms;     ///< longest wait of a write without progress, 0: unbounded
    int tls_opted;           ///< RUVSetTLSOptions was called: modern TLS or no connection
    ssl_ctx_st *tls_ctx;     ///< own context; null with tls_opted set: never connect
    char *tls_name;          ///< name or address that the certificate must carry
    int tls_cert_wanted;     ///< the peer asked for a client certificate and none is set
    char tls_reason[352];    ///< why the last TLS operation failed, for RUVStrError
    group_queue_t group;
};

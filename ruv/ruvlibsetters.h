#ifndef RUVLIBSETTERS_H
#define RUVLIBSETTERS_H
/**
 * @file ruvlibsetters.h
 * Setters of the RUV data records: one call per field and data type.
 *
 * Every setter takes the record that RUVAllocData returned, checks that it is of the setter's data
 * type and that the field exists in the record's version, stores the value and marks the field as
 * set. A failed setter leaves the record as it was. A record is used by one thread at a time; no
 * setter blocks, locks or allocates.
 *
 * Memory: texts, packets and custom-field strings are NOT copied. The record keeps the caller's
 * pointer, so the bytes must stay valid and unchanged until the record has been sent or reset.
 * MAC addresses (6 bytes), IPv6 addresses (16 bytes) and binary custom-field values are copied.
 *
 * Text setters take `len` bytes of `text`; with `len` 0 the length is strlen(text). A null text
 * with length 0 means "no value": the call returns 0 and changes nothing.
 *
 * Returns: value setters 0, text setters the length that was stored; -1 on failure with
 * `ruverrno` set: 2 null record, 50 record of another data type, 51 no such field in the record's
 * version, 52 negative length or null data, 57 value out of range, and for text that lives in a
 * custom-field row 53 when another custom field owns that row.
 */
#include <stdint.h>

#include "ruvlib.h"

#pragma GCC visibility push(default)
#ifdef __cplusplus
extern "C" {
#endif

/** @name Alert records (versions 1 to 6 unless noted)
 * @{ */
int RUVAlertSet_session_id(void *record, uint64_t session_id);   /**< versions 4 to 6 */
int RUVAlertSet_flow_id(void *record, uint64_t flow_id);         /**< always fails with error 51 */
int RUVAlertSet_src_mac(void *record, const uint8_t *mac);       /**< 6 bytes */
int RUVAlertSet_dst_mac(void *record, const uint8_t *mac);       /**< 6 bytes */
int RUVAlertSet_sigid(void *record, uint32_t sigid);             /**< signature id */
int RUVAlertSet_norm_sigid(void *record, uint32_t norm_sigid);   /**< versions 4 to 6 */
int RUVAlertSet_event_count(void *record, uint32_t count);       /**< events behind this record */
int RUVAlertSet_src_ipv4(void *record, uint32_t address);        /**< host byte order */
int RUVAlertSet_dst_ipv4(void *record, uint32_t address);        /**< host byte order */
int RUVAlertSet_src_ipv6(void *record, const uint32_t *address); /**< network byte order */
int RUVAlertSet_dst_ipv6(void *record, const uint32_t *address); /**< network byte order */
int RUVAlertSet_first_time(void *record, uint32_t seconds);      /**< seconds since 1970 */
int RUVAlertSet_last_time(void *record, uint32_t seconds);       /**< seconds since 1970 */
int RUVAlertSet_last_time_usec(void *record, uint32_t microseconds); /**< 0 to 999999 */
int RUVAlertSet_src_port(void *record, uint16_t port);               /**< host byte order */
int RUVAlertSet_dst_port(void *record, uint16_t port);               /**< host byte order */
int RUVAlertSet_vlan(void *record, uint16_t vlan);                   /**< VLAN id */
int RUVAlertSet_sequence(void *record, uint16_t sequence);           /**< versions 4 to 6 */
int RUVAlertSet_protocol(void *record, uint8_t protocol);            /**< IP protocol number */
int RUVAlertSet_flow(void *record, uint8_t flow);                    /**< 0 or 1 */
int RUVAlertSet_action(void *record, uint8_t action);               /**< the sensor's action code */
int RUVAlertSet_severity(void *record, uint8_t severity);           /**< 0 to 100 */
int RUVAlertSet_trusted(void *record, uint8_t trusted);             /**< all versions but 4 */
int RUVAlertSet_sig_generator(void *record, uint8_t sig_generator); /**< all versions but 4 */
int RUVAlertSet_message(void *record, const char *text, int len);   /**< cut at 255 bytes */

/** The next seven texts are cut at 255 bytes and live in custom-field rows 6, 5, 0, 3, 2, 1, 4;
 * the first five exist in all versions but 2. */
int RUVAlertSet_src_user(void *record, const char *text, int len);    /**< who acted */
int RUVAlertSet_dst_user(void *record, const char *text, int len);    /**< who was acted upon */
int RUVAlertSet_application(void *record, const char *text, int len); /**< name of the program */
int RUVAlertSet_hostname(void *record, const char *text, int len);    /**< name of the host */
int RUVAlertSet_domain(void *record, const char *text, int len);      /**< name of the domain */
int RUVAlertSet_command(void *record, const char *text, int len);     /**< all versions but 4 */
int RUVAlertSet_object(void *record, const char *text, int len);      /**< versions 4 to 6 */

/** Packet bytes, cut at 8000. A `len` of 0 means, as for texts, the bytes up to the first zero, so
 * leave the call out for an empty packet. */
int RUVAlertSet_packet(void *record, const void *bytes, int len);
int RUVAlertSet_3rd_party_type(void *record, uint16_t type); /**< version 6; survives a reset */

/** A custom field of the Receiver's catalogue by its name, in version 6 sub-versions 2 and 3.
 * A string field takes a text as above and returns its length (cut at 255). Any other field copies
 * exactly the bytes of its type from `data` and returns 0. Further errors: 59 other sub-version,
 * 56 the catalogue has no such field (or no row for it in this type of record), 53 its row is taken
 * by another field, 54 `len` is not the size of the type, 55 type that cannot be written, 2 arg #1
 * null connection. */
int RUVAlertSet_custom_field(RUVConn *conn, void *record, const char *name, const void *data,
                             int len);
/** @} */

/** @name Flow records (versions 3 to 6 unless noted)
 * @{ */
int RUVFlowSet_session_id(void *record, uint64_t session_id); /**< version 6, travels as 0 */
int RUVFlowSet_src_mac(void *record, const uint8_t *mac);     /**< 6 bytes */
int RUVFlowSet_dst_mac(void *record, const uint8_t *mac);     /**< 6 bytes */
int RUVFlowSet_src_asn_geo(void *record, uint64_t asn_geo);   /**< source AS and place */
int RUVFlowSet_dst_asn_geo(void *record, uint64_t asn_geo);   /**< destination AS and place */
int RUVFlowSet_flow_count(void *record, uint32_t count); /**< flows that this record stands for */
int RUVFlowSet_src_ipv4(void *record, uint32_t address); /**< host byte order */
int RUVFlowSet_dst_ipv4(void *record, uint32_t address); /**< host byte order */
int RUVFlowSet_src_ipv6(void *record, const uint32_t *address);     /**< network byte order */
int RUVFlowSet_dst_ipv6(void *record, const uint32_t *address);     /**< network byte order */
int RUVFlowSet_first_time(void *record, uint32_t seconds);          /**< seconds since 1970 */
int RUVFlowSet_last_time(void *record, uint32_t seconds);           /**< seconds since 1970 */
int RUVFlowSet_last_time_usec(void *record, uint32_t microseconds); /**< 0 to 999999 */
int RUVFlowSet_src_port(void *record, uint16_t port);               /**< host byte order */
int RUVFlowSet_dst_port(void *record, uint16_t port);               /**< host byte order */
int RUVFlowSet_vlan(void *record, uint16_t vlan);                   /**< VLAN id */
int RUVFlowSet_dir(void *record, uint8_t dir); /**< direction code; sub-versions 2, 3 send 0 */
int RUVFlowSet_protocol(void *record, uint8_t protocol);           /**< IP protocol number */
int RUVFlowSet_dst_bytes(void *record, uint64_t bytes);            /**< bytes to the destination */
int RUVFlowSet_src_bytes(void *record, uint64_t bytes);            /**< bytes from the source */
int RUVFlowSet_dst_packets(void *record, uint64_t packets);        /**< packets */
int RUVFlowSet_src_packets(void *record, uint64_t packets);        /**< packets */
int RUVFlowSet_conn_state(void *record, uint8_t state);            /**< version 6 */
int RUVFlowSet_tcp_flags(void *record, uint8_t flags);             /**< version 6 */
int RUVFlowSet_tos_src(void *record, uint8_t tos);                 /**< version 6 */
int RUVFlowSet_duration(void *record, uint32_t seconds);           /**< whole seconds */
int RUVFlowSet_duration_usec(void *record, uint32_t microseconds); /**< rest of the duration */
int RUVFlowSet_iface_in(void *record, uint16_t interface_index);   /**< index of the interface */
int RUVFlowSet_iface_out(void *record, uint16_t interface_index);  /**< index of the interface */

/** As RUVAlertSet_custom_field; string fields only in sub-version 3 and up to row 5 (else 59). */
int RUVFlowSet_custom_field(RUVConn *conn, void *record, const char *name, const void *data,
                            int len);
/** @} */

/** @name Syslog records
 * @{ */
int RUVSyslogSet_message(void *record, const char *text, int len); /**< 3 to 6; cut at 65535 */
int RUVSyslogSet_collect_time(void *record, uint32_t seconds);     /**< version 6 */
int RUVSyslogSet_3rd_party_type(void *record, uint16_t type);      /**< survives a reset */
/** @} */

/** @name Windows event log records (versions 3 to 6 unless noted)
 * The length of the five row texts (log file, source name, host name, user, category) keeps only
 * its low 8 bits, and that is what their setters return.
 * @{ */
int RUVWinEventLogSet_log_file(void *record, const char *text, int len);    /**< version 6 */
int RUVWinEventLogSet_record_num(void *record, uint32_t number);            /**< version 6 */
int RUVWinEventLogSet_source_name(void *record, const char *text, int len); /**< row text */
int RUVWinEventLogSet_event_id(void *record, uint16_t id);               /**< the event's number */
int RUVWinEventLogSet_windows_ver(void *record, int major, int minor);   /**< 5.0-5.2, 6.0-6.1 */
int RUVWinEventLogSet_gen_time(void *record, uint32_t seconds);          /**< seconds since 1970 */
int RUVWinEventLogSet_event_type(void *record, uint8_t type);            /**< 0 to 5 */
int RUVWinEventLogSet_hostname(void *record, const char *text, int len); /**< row text */
int RUVWinEventLogSet_user(void *record, const char *text, int len);     /**< version 6 */
int RUVWinEventLogSet_category(void *record, const char *text, int len); /**< version 6 */

/** Appends one insertion string; error 58 once the record holds its 33. */
int RUVWinEventLogSet_insertion_string(void *record, const char *text, int len);
int RUVWinEventLogSet_message(void *record, const char *text, int len); /**< cut at 65535 */
/** @} */

#ifdef __cplusplus
}
#endif
#pragma GCC visibility pop

#endif

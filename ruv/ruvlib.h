/** @file ruvlib.h
 * The RUV client library: connections to a Receiver, data sources, records, sending, dumps and
 * errors. The setters that fill a record stand in ruvlibsetters.h. C99 and C++.
 *
 * Failure: calls return -1 or NULL and leave a code in the calling thread's #ruverrno, with up
 * to three arguments beside it; RUVStrError() turns it into text. After a success they mean
 * nothing. "Error n (arg #k)" below means code n with k in #ruverrno2.
 *
 * Threads: a connection, a record and a data source belong to one thread at a time; the library
 * takes no lock. Different threads may use different connections at once.
 *
 * Waiting: calls that talk to the Receiver block; each says for how long. RUVSetInterrupt()
 * makes every wait abortable. No call raises SIGPIPE.
 */
#ifndef RUV_RUVLIB_H
#define RUV_RUVLIB_H

#include <stdint.h>

#pragma GCC visibility push(default)
#ifdef __cplusplus
extern "C" {
#endif

/** One Receiver. Opaque; made by RUVAllocConn(), released by RUVFreeConn(). */
typedef struct RUVConn RUVConn;

/** One source of events. Opaque; made by RUVAllocDSInfo(), released by RUVFreeDSInfo(). */
typedef struct RUVDSInfo RUVDSInfo;

/** The calling thread's last error code, 0 before the first failure. */
__extension__ extern __thread int ruverrno;
/** First argument of the error: argument number, errno, resolver code, TLS result, type. */
__extension__ extern __thread int ruverrno2;
/** Second argument: SSL_get_error's value, for code 6. */
__extension__ extern __thread int ruverrno3;
/** Third argument: ERR_get_error's value, for code 6. */
__extension__ extern __thread int ruverrno4;

/** @name Connection @{ */

/** Allocates a handle and resolves `host`; connects nothing yet.
 * @param host         name or address of the Receiver; copied
 * @param port         TCP port, 1 to 65535
 * @param ipv4_or_v6   0 any, 1 IPv4 only, 2 IPv6 only
 * @param force_ssl    0 no TLS, 1 TLS from the first byte required, 2 TLS on request
 * @param ruv_ver_req  protocol generation: 0 any, 1 up to 5, 2 version 6
 * @return the handle, which the caller frees with RUVFreeConn(), or NULL: error 2 (arg #1 to #5),
 *         1 no memory, 5 library not initialised, 10 resolver, 4 no answer from the resolver.
 * Blocks for the resolver, and up to about 25 s more while it asks to try again. */
RUVConn *RUVAllocConn(const char *host, int port, int ipv4_or_v6, int force_ssl, int ruv_ver_req);

/** Connects, finds out what the Receiver speaks, and learns its data types and custom fields.
 * @return 0, or -1 with the connection closed: error 2 (arg #1), 21 already connected (which then
 *         stays open), 3 system, 4 timed out, 6/19/20 TLS, 7 encryption mismatch, 8 version
 *         mismatch, 13 refused, 1 no memory.
 * Blocks as long as the kernel tries to connect, at most 10 s for the first answer, and without
 * limit for later answers of a Receiver that has fallen silent (see RUVSetInterrupt()). */
int RUVOpen(RUVConn *conn);

/** Turns TLS on in an open, plain version-6 connection.
 * @return 0, or -1: error 2 (arg #1), 22 not connected, 9 already encrypted, 8 not version 6, 13
 *         refused, or a TLS error. Blocks for the answer and the handshake. */
int RUVEnableSSL(RUVConn *conn);

/** Closes the connection, if open; the handle and what it has learned stay for the next open.
 * Records queued in a group are dropped. NULL: error 2 (arg #1). Does not block. */
void RUVClose(RUVConn *conn);

/** Closes and frees the handle with all that it holds. NULL: error 2 (arg #1). */
void RUVFreeConn(RUVConn *conn);

/** Asks the Receiver for its version.
 * @param patch  receives exactly two characters, not terminated
 * @return 0 with all values stored, or -1: error 2 (arg #1), 22, 3, 6, 13. A Receiver that cannot
 *         be asked counts as 8.4.0 (generation up to 5) or 8.5.0, patch "?", build stamp 0.
 * Blocks for the answer. */
int RUVGetReceiverVer(RUVConn *conn, uint16_t *major, uint16_t *minor, uint16_t *dot, char *patch,
                      uint64_t *buildstamp);

/** @return 0 while an idle connection is still usable, or -1 when the peer has closed it: error 3
 * (EPIPE or ECONNRESET), 6; 2 (arg #1); 22. The connection is left as it is. Does not block. */
int RUVCheckPeer(RUVConn *conn);

/** Prints what is known about the connection on standard error.
 * @return 0, or -1 with error 2 (arg #1). */
int RUVPrintConn(RUVConn *conn);

/** Has `stopping(arg)` asked at least four times a second during every wait on this handle; a
 * non-zero answer ends the waiting call with error 3, errno (and #ruverrno2) EINTR, and the
 * connection is then to be closed. NULL for `stopping` removes it. With NULL for `conn` it is set
 * for the calling thread's later RUVAllocConn() calls, whose handles inherit it; the resolver then
 * has a thread of its own, which an ended call leaves behind until the resolver gives up.
 * @return 0 */
int RUVSetInterrupt(RUVConn *conn, int (*stopping)(void *arg), void *arg);

/** Demands authenticated TLS on this handle, from its next open on, with a context of its own.
 * There is no way back and no fall-back: a peer that does not satisfy it, or a call that fails
 * here, leaves a handle that cannot be opened. A handle without TLS (mode 0) changes to mode 1.
 * @param min_version  "1.2" or "1.3"; NULL or "" for "1.2"
 * @param ca_file      PEM file of trusted certificates; NULL or "" for the system's
 * @param peer_name    host name or IP address that the certificate must carry; NULL or "" for
 *                     the host of the handle
 * @param cert_file    PEM file of the client certificate (chain), or NULL
 * @param key_file     PEM file of its private key, without a pass phrase; NULL: in cert_file
 * @return 0, or -1: error 2 (arg #k), 6 with the reason in RUVStrError()'s text, 1, 20. Reads
 *         the files now. */
int RUVSetTLSOptions(RUVConn *conn, const char *min_version, const char *ca_file,
                     const char *peer_name, const char *cert_file, const char *key_file);

/** @} @name Data sources @{ */

/** Describes a source of events.
 * @param type  1 IPv4: `data` is a uint32_t in host order; 2 IPv6: uint32_t[4], each in host
 *              order; 3 HostID: a string, copied
 * @return the description, which the caller frees with RUVFreeDSInfo(), or NULL: error 2 (arg #1,
 *         #2), 1. */
RUVDSInfo *RUVAllocDSInfo(int type, const void *data);

/** Frees a description. NULL is not accepted. */
void RUVFreeDSInfo(RUVDSInfo *ds);

/** Prints a data source on standard error. @return 0, or -1 with error 2 (arg #1). */
int RUVPrintDSInfo(RUVDSInfo *ds);

/** Lets the Receiver learn unknown sources from the records. @return 0, or -1 with error 2. */
int RUVEnableAutoLearn(RUVConn *conn);

/** The opposite, and the state after RUVAllocConn(). @return 0, or -1 with error 2 (arg #1). */
int RUVDisableAutoLearn(RUVConn *conn);

/** Asks whether the Receiver knows a source for the record's data type. A source without a cached
 * channel id is requested first and counts as unknown unless the Receiver assigns channel 0.
 * @param record  may be NULL   @param ds  may be NULL: channel 0
 * @return 0 when known, -1 when not: error 2 (arg #1), 22, 12 not version 6, 13, 14, 3, 6.
 * Blocks for the answers. */
int RUVIsDSKnown(RUVConn *conn, void *record, RUVDSInfo *ds);

/** @} @name Records @{ */

/** Allocates an empty record.
 * @param conn    a connection that has been opened
 * @param type    1 Alert, 2 Flow, 3 Syslog, 4 Windows event
 * @param ver     1 to 6, or 0 for the highest that the Receiver takes
 * @param subver  1 to 3, or 0 for 2 when offered, else 1
 * @return the record, which the caller frees with RUVFreeData(), or NULL: error 2 (arg #1 to #4),
 *         15, 16, 17, 1. */
void *RUVAllocData(RUVConn *conn, int type, int ver, int subver);

/** Empties a record for its next use; it forgets all pointers. NULL: error 2 (arg #1). */
void RUVResetData(void *record);

/** Frees a record; what it points at is the caller's. NULL: error 2 (arg #1). */
void RUVFreeData(void *record);

/** Sends a record. When a write fails the connection is opened anew and the record sent again, up
 * to 7 times, 5 s apart. Pointers in the record must be valid until this returns.
 * @param ds  source of the event, or NULL
 * @return bytes written, or negative: error 2 (arg #1, #2), 22, 15, 12, 14, 18, 1, 3, 6 or what
 *         opening failed with. In an open group (RUVGroupBegin()) version-6 records are copied
 *         into the queue and nothing is written.
 * Blocks while the Receiver does not read, and for the repeated tries. */
int RUVSendData(RUVConn *conn, void *record, RUVDSInfo *ds);

/** @} @name Groups
 * Sends many records with one write and one confirmation. @{ */

/** Starts a group: following RUVSendData() calls queue version-6 records. A group that is open
 * already is dropped. @return 0, or -1: error 2 (arg #1), 22, 12 not version 6. */
int RUVGroupBegin(RUVConn *conn);

/** Writes the queued records and a NOP and waits for its answer: a Receiver that answers has read
 * everything before it. An empty group writes nothing. Either way the group is over.
 * @param timeout_seconds  1 to 86400: longest wait for progress of the write, then for the answer
 * @return 0, or -1 with the connection closed and the records dropped: error 2 (arg #1: NULL or
 *         no group, connection untouched; #2), 22, 3, 4 timed out, 6, 13. */
int RUVGroupCommit(RUVConn *conn, int timeout_seconds);

/** Ends the group without sending. NULL: error 2 (arg #1). */
void RUVGroupDrop(RUVConn *conn);

/** @} @name Errors and diagnostics @{ */

/** Writes the text of `err` with the calling thread's arguments into `errstr`.
 * @param conn    read for code 12, and for the reason of a TLS failure; may be NULL
 * @param errstr  512 bytes are ample
 * @return errstr, or NULL for an unassigned code: errstr then says so and #ruverrno becomes 99
 *         with the code in #ruverrno2. */
char *RUVStrError(RUVConn *conn, int err, char *errstr);

/** Sets the diagnostics on standard error, for the whole process: 0x01 function lines, 0x02 dump
 * of writes, 0x04 dump of reads, 0x08 trace points, 0x10 data.
 * @return 0, or -1 with error 23 for any other bit, changing nothing. */
int RUVSetLogging(uint64_t logging);

/** @} */

#ifdef __cplusplus
}
#endif
#pragma GCC visibility pop

#endif

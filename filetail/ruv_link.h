/**
 * The handle behind the shared connection: made from the configuration, opened, opened again and
 * described when it fails.
 *
 * Everything here runs under `ruv_lock`, except where noted. The handle itself is `conf.ruvconn`.
 */
#pragma once

#include <string>

struct config;
struct plugin;

/** Codes of the library's errors that leave no connection behind. */
enum : int { kSystemError = 3, kNotConnected = 22 };

/** The library's text for one of its error codes, with the calling thread's arguments. */
std::string link_error_text(int code);

/** Makes and opens the first handle of a configuration; only a stop ends its waits early. Returns
 *  whether the connection is open; if not, `reason` tells why. */
bool link_start(config *c, std::string *reason);

/** Closes the connection and frees the handle, if there is one. */
void link_free(config *c);

/** Whether this configuration encrypts without authenticating the Receiver. */
bool link_legacy_tls(const config *c);

/** Closes the connection, if there is one; the handle stays. */
void link_close();

/**
 * Closes what is still open and opens the connection again. The handle is made anew when there is
 * none, and when the last one is not known to speak version 6: its probe may have guessed wrong
 * because the Receiver was just starting. Returns whether the connection is open; if not, `reason`
 * tells why.
 */
bool link_reopen(std::string *reason);

/** Whether a send that failed with this code of the library, or with this system error, lost the
 *  connection itself, so that it is to be opened again at once. Any thread, without the lock. */
bool link_was_lost(int code, int system_error);

/** Gives the plugin a new record. Returns false after logging that the library refused. */
bool link_alloc_record(plugin *p);

/** The same, unless the plugin's record was made for the open connection. For its worker. */
bool link_fit_record(plugin *p);

/** Whether the plugin's record is known to fit. For its worker, without the lock. */
bool link_record_fits(const plugin *p);

/** Notes that the open connection cannot confirm groups; says so once. */
void link_confirm_unavailable();

/** Whether the open connection may confirm groups. Any thread, without the lock. */
bool link_can_confirm();

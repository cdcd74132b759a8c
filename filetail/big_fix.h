/**
 * The BigFix cutter: for logs in which only some lines carry a date.
 *
 * An event without a date gets the date text of the latest dated event put in front of it. The
 * remembered text lives in the plugin's private hook state and is freed by the teardown.
 *
 * Thread: the plugin's worker, one plugin's state at a time.
 */
#pragma once

#include <cstdio>

struct fdesc;

/**
 * Event hook. `*event` is a malloc'd string of `*event_len` bytes (0: take its string length) and
 * may be replaced by another one, which the caller then owns. `*event_data` is the remembered
 * text. `fd` is the tailed file; its position is left as it was. Returns 1 to send the event, 0 to
 * drop it.
 */
int big_fix_process_event(char **event, int *event_len, void **event_data, fdesc *bm, FILE *fd);

/** Copies the remembered text, so that events that must be read again find it as it was. The copy
 *  is freed by the teardown; null for null. */
void *big_fix_copy_state(const void *event_data);

/** Frees the remembered text and clears the pointer. */
void big_fix_teardown_event(void **event_data);

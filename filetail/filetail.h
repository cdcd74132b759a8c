/**
 * The file-tail plugin: its start and the loop of its worker thread.
 *
 * One worker per plugin rescans the plugin's directory, reads every file's new events and sends
 * them; a pass that sent nothing is followed by a pause.
 */
#pragma once

#include <cstdint>

struct plugin;

/**
 * Starts one plugin: its record, its group with the first scan, and its worker thread (joined by
 * the plugin's shutdown). `connected` tells whether the shared connection is open. Returns 0, or 1
 * when no worker was started; the reason was logged. Called on the thread that configures plugins.
 */
int ft_init(plugin *p, const wchar_t *bm_dir, int8_t connected);

/** The worker's body; `group` is its ft_bm. A worker that was started during a restart waits for
 *  the restart's end. Returns null when execution ends. */
void *process(void *group);

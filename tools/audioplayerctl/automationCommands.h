#pragma once

/**
 * The commands that automation has too: upload, delete, play, stop, as-played, now-playing, and what status tells of
 * the log.
 *
 * Without --host each works through the database and the control datagrams, and leaves the automation seat alone. With
 * --host it takes the seat and sends transactions. Failures are thrown as Failure.
 */

#include "options.h"

void uploadPlaylist(const Options& options);
void deletePlaylistWithLog(const Options& options);
void playPlaylist(const Options& options);
void stopOverTcp(const Options& options);
void showAsPlayed(const Options& options);
void showNowPlaying(const Options& options);

/** "Running", and what went on air last, as far as the database tells. Throws as hearsHeartbeat does. */
void showStatus(const Options& options);

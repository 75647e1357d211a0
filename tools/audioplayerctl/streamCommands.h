#pragma once

/**
 * The commands that have to do with streams, and with the list of sources, where they stand beside the playlists.
 *
 * Rows go through the library. A probe runs the player's source block in a process of its own. Failures are thrown as
 * Failure.
 */

#include "library.h"
#include "options.h"

void listSources(const Options& options);

void addStream(const Options& options);
void listStreams(const Options& options);
void editStream(const Options& options);
void removeStream(const Options& options);

/** Tells what the player would make of the URL, or of the stream of that id or name. Throws, EXIT_REFUSED, if nothing. */
void probeStreamOrUrl(const Options& options);

/** Says what a start of this source costs, if it is an internet stream. */
void tellOfStreamStart(Library& library, int sourceId);

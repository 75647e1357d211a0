#pragma once

/**
 * What a station's text says: URLs taken apart, and the three kinds of playlist as functions from text to entries.
 *
 *   reply of the server, headers included --parsePls(), parseM3u(), parseXspf()--> CShoutcastPlaylistItem, ...
 *
 * No socket, no state. The texts come from strangers: any bytes are taken, and every walk ends. The lines that a parser
 * prints show an engineer at the console how far it got.
 *
 * Threads: all of it on the thread that services the stream's block.
 */

#include "audioLibrary/audioTypes.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace audioLibrarySpace
{

/** One server that a playlist names. */
class CShoutcastPlaylistItem
{
public:
    std::string file;   ///< the URL to connect to
    std::string title;  ///< as the playlist has it; of a stream without a playlist the URL
    std::string length; ///< as the playlist has it, from a .pls only

    /** Three lines of status text. */
    operator std::string() const;
};

/** The entries of a playlist; whoever holds the vector owns them: clearPlaylist(). */
using shoutcastPlaylist = std::vector<CShoutcastPlaylistItem*>;

/** Deletes the entries and empties the list. */
void clearPlaylist(shoutcastPlaylist& playlist);

/**
 * The index of the first `sought` within `text`, without regard to the case of ASCII letters, or std::string::npos.
 * The last start position that is tried is one short of the end: what ends with the text is not found.
 */
size_t findStr(const std::string& text, const char* sought);

/** Lower-cases the ASCII letters of `url` in place. Always STREAM_OK. */
streamStatus formatUrl(std::string& url);

// The parts of a URL, in lower case. The search for what ends the host begins, in the text behind "://", at the index
// where "://" stood: a host name shorter than the scheme is not cut at its colon or slash.

std::string extractHostname(std::string url); ///< up to the first colon or slash
/** The port behind the first colon, 80 without one; a number that does not fit keeps its low 16 bits. */
uint16_t extractPort(std::string url);
/** From the first slash on; "/" without one, and for a URL without a scheme. */
std::string extractPath(std::string url);

/**
 * Reads a .pls: at most 100 entries, each of a file, a title and a length. The first that lacks one of them is dropped
 * and ends the walk.
 *
 * @param text         the reply; left cut to where the walk ended
 * @param playlist     replaced; unchanged on failure
 * @param pTraceLevel  the caller's trace level
 * @return whether the text is a .pls at all; why not is told on the standard error stream
 */
bool parsePls(std::string& text, shoutcastPlaylist& playlist, int* pTraceLevel);

/**
 * Reads an M3U: each "http://" and what follows it up to the line's end, wherever it stands in the reply. A URL without
 * a line end is the last.
 *
 * @param text      the reply; left cut to what follows the last entry
 * @param playlist  replaced; empty if there is no entry
 */
void parseM3u(std::string& text, shoutcastPlaylist& playlist);

/**
 * Reads an XSPF: each <location>, all under the first <title>, which is empty unless it has both its tags.
 *
 * @param text      the reply; left cut to where the walk ended
 * @param playlist  replaced; empty if there is no entry
 */
void parseXspf(std::string& text, shoutcastPlaylist& playlist);

} // namespace audioLibrarySpace

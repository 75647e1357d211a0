#pragma once

/**
 * The files that an upload names: from the command line, or from an M3U list on standard input.
 */

#include <istream>
#include <string>
#include <vector>

/**
 * The entries of an M3U list: comments, #EXTINF lines and empty lines are skipped; line ends of any system, blanks
 * around a line and a byte order mark go. Throws Failure, EXIT_REFUSED, for an entry that is a URL.
 */
std::vector<std::string> readM3u(std::istream& list);

/** The files of a command line, where "-" stands for the M3U list on `list`; relative ones begin at `base`. */
std::vector<std::string> expandFiles(const std::vector<std::string>& given, std::istream& list,
                                     const std::string& base);

/**
 * The name by which the player takes a file over the automation connection: what follows "/mnt/usb/", which it puts in
 * front again. Throws Failure, EXIT_REFUSED, for a file anywhere else.
 */
std::string usbName(const std::string& file);

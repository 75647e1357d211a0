#pragma once

/**
 * Whether the player can read a URL: it takes URLs apart in a way of its own, which this asks rather than repeats.
 */

#include <string>
#include <vector>

/** Why the player would not come to the server that the URL means; empty if it would. One sentence without an end. */
std::string urlFault(const std::string& url);

/** What is still to be known about a URL without a fault. */
std::vector<std::string> urlWarnings(const std::string& url);

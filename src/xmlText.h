#pragma once

/**
 * What everything that reads transactions shares: names without regard to case, and a parse that no text can harm.
 *
 * Thread: any; no state.
 */

#include <cstddef>
#include <string>

class TiXmlDocument;
class TiXmlElement;

/** 0 if both have the same length and are equal after `tolower` on each byte, otherwise -1. */
int cmpIStr(std::string text, const char* other);

/** Index of the first occurrence of `sought`, compared as cmpIStr does; -1 as unsigned if there is none. */
size_t findIStr(std::string text, const char* sought);

/** As findIStr, beginning at `from`: for a text that grows and must not be searched twice. */
size_t findIStrFrom(const std::string& text, const char* sought, size_t from);

/**
 * Parses `text` into `document`, and refuses before the parser sees it what would harm the process: elements nested
 * deeper than 200 (each costs the parser's stack) and more than 256 attributes in one element (their cost is
 * quadratic).
 *
 * @return true if the text parsed; false where TiXmlDocument::Parse answers null, and for what is refused
 */
bool parseXml(TiXmlDocument& document, const std::string& text);

/**
 * Adds `log` to `element` line by line, one text node each: a log that ends in a newline gives a last, empty node.
 * @return what stands behind the last newline: empty if the log ended in one
 */
std::string linkLines(TiXmlElement& element, std::string log);

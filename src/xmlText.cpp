#include "xmlText.h"

#include <algorithm>
#include <cctype>
#include <cstring>
#include <tinyxml.h>
#include <utility>

namespace
{

/** The byte as `tolower` has it. Bytes above 127 are themselves: the process stays in the "C" locale. */
int lower(char c)
{
    return tolower(static_cast<unsigned char>(c));
}

/** Whether `text` holds `sought` at `at`, without regard to case; both are long enough. */
bool matchesAt(const char* text, const char* sought, size_t soughtLength)
{
    for (size_t i = 0; i < soughtLength; i++) {
        if (lower(text[i]) != lower(sought[i])) {
            return false;
        }
    }
    return true;
}

constexpr int maxDepth = 200;      ///< 12 kB of nested elements use up the audio manager's 400000 bytes of stack
constexpr int maxAttributes = 256; ///< the parser compares each attribute's name with all those before it

/**
 * Walks through a text as the parser will, without its recursion and without storing anything, and judges whether the
 * parser may have it.
 *
 * Each step takes exactly what TinyXML 2.6's does, in its laxness too: a value without quotes, an entity that swallows
 * tags up to its ';', a text that ends within a comment. A step answers where the next begins, or null where the
 * parser gives up: what stands behind that is never seen by it. What can only make the parser give up is not looked
 * at, for then it does not matter whether this refuses the text or the parser: the names of closing tags, and
 * attributes that come twice.
 *
 * The text must be followed by four zero bytes: the character that its last byte seems to begin may be taken whole.
 */
class ParserWalk
{
public:
    explicit ParserWalk(const char* text) : textBegin(text), utf8(startsWith(text, "\xEF\xBB\xBF")) {}

    /** False if the parser would go deeper than maxDepth or meet more than maxAttributes in one element. */
    bool isHarmless()
    {
        const char* p = skipSpace(textBegin);
        while (p != nullptr && *p != '\0') {
            if (*p != '<' && depth == 0) {
                return true; // the document ends here for the parser, and well
            }
            p = *p == '<' ? markup(p) : text(p);
            if (tooMuch) {
                return false;
            }
            p = skipSpace(p);
        }
        return true;
    }

private:
    static bool startsWith(const char* p, const char* prefix) { return strncmp(p, prefix, strlen(prefix)) == 0; }

    static bool isSpace(char c) { return isspace(static_cast<unsigned char>(c)) != 0; }

    /** Any byte above ASCII counts as a letter. */
    static bool isLetter(char c)
    {
        const auto byte = static_cast<unsigned char>(c);
        return byte >= 127 || isalpha(byte) != 0;
    }

    static bool isNamePart(char c) { return isLetter(c) || isdigit(static_cast<unsigned char>(c)) != 0; }

    /** Behind the next `closing`; the text's end if there is none. */
    static const char* behind(const char* p, const char* closing)
    {
        const char* found = strstr(p, closing);
        return found != nullptr ? found + strlen(closing) : p + strlen(p);
    }

    /** To the next character that is not white space; in UTF-8 byte order marks count as such. Null at the end. */
    const char* skipSpace(const char* p) const
    {
        if (p == nullptr || *p == '\0') {
            return nullptr;
        }
        while (*p != '\0') {
            if (utf8 &&
                (startsWith(p, "\xEF\xBB\xBF") || startsWith(p, "\xEF\xBF\xBE") || startsWith(p, "\xEF\xBF\xBF"))) {
                p += 3;
            } else if (isSpace(*p)) {
                p++;
            } else {
                break;
            }
        }
        return p;
    }

    /** Anything that begins with '<'. */
    const char* markup(const char* p)
    {
        if (depth > 0 && startsWith(p, "</")) {
            return closingTag(p);
        }
        if (strncasecmp(p, "<?xml", 5) == 0) {
            return declaration(p);
        }
        if (startsWith(p, "<!--")) {
            return behind(p + 4, "-->");
        }
        if (startsWith(p, "<![CDATA[")) {
            return cdata(p);
        }
        return isLetter(p[1]) || p[1] == '_' ? element(p) : behind(p, ">");
    }

    /** The parser reads a declaration by itself, so it may say what encoding the document goes on in. */
    const char* declaration(const char* p)
    {
        TiXmlDeclaration parsed;
        p = parsed.Parse(p, nullptr, encoding());
        if (depth == 0 && !encodingKnown) {
            const char* name = parsed.Encoding();
            utf8 = utf8 || *name == '\0' || strncasecmp(name, "UTF-8", 5) == 0 || strncasecmp(name, "UTF8", 4) == 0;
            encodingKnown = true;
        }
        return p;
    }

    TiXmlEncoding encoding() const
    {
        if (utf8) {
            return TIXML_ENCODING_UTF8;
        }
        return encodingKnown ? TIXML_ENCODING_LEGACY : TIXML_ENCODING_UNKNOWN;
    }

    /** Null too if nothing follows. */
    static const char* cdata(const char* p)
    {
        p = behind(p + strlen("<![CDATA["), "]]>");
        return *p != '\0' ? p : nullptr;
    }

    const char* closingTag(const char* p)
    {
        depth--;
        return behind(p, ">");
    }

    /** An opening tag, or a whole element that closes itself. */
    const char* element(const char* p)
    {
        int attributes = 0;
        tooMuch = depth == maxDepth;
        p = name(skipSpace(p + 1));
        while (p != nullptr && !tooMuch) {
            p = skipSpace(p);
            if (p == nullptr || *p == '\0') {
                return nullptr;
            }
            if (*p == '/') {
                return p[1] == '>' ? p + 2 : nullptr;
            }
            if (*p == '>') {
                depth++;
                return p + 1;
            }
            tooMuch = ++attributes > maxAttributes;
            p = attribute(p);
        }
        return p;
    }

    static const char* name(const char* p)
    {
        if (p == nullptr || !(isLetter(*p) || *p == '_')) {
            return nullptr;
        }
        while (*p != '\0' && (isNamePart(*p) || strchr("_-.:", *p) != nullptr)) {
            p++;
        }
        return p;
    }

    const char* attribute(const char* p)
    {
        p = skipSpace(name(p));
        if (p == nullptr || *p != '=') {
            return nullptr;
        }
        p = skipSpace(p + 1);
        if (p == nullptr || *p == '\0') {
            return nullptr;
        }
        return *p == '\'' || *p == '"' ? characters(p + 1, *p, 1) : bareValue(p);
    }

    static const char* bareValue(const char* p)
    {
        while (*p != '\0' && !isSpace(*p) && *p != '/' && *p != '>') {
            if (*p == '\'' || *p == '"') {
                return nullptr;
            }
            p++;
        }
        return p;
    }

    /** Text between elements; the '<' that ends it comes next. */
    const char* text(const char* p) { return characters(p, '<', 0); }

    /** Characters up to `end`, and `taken` more. Null if nothing stands behind `end`. */
    const char* characters(const char* p, char end, int taken) const
    {
        while (p != nullptr && *p != '\0' && *p != end) {
            p = character(p);
        }
        if (p == nullptr || *p == '\0' || p[1] == '\0') {
            return nullptr;
        }
        return p + taken;
    }

    /** One character, or one entity. */
    const char* character(const char* p) const
    {
        const int bytes = utf8 ? TiXmlBase::utf8ByteTable[static_cast<unsigned char>(*p)] : 1;
        if (bytes > 1) {
            return p + bytes; // past the text's end by three bytes at most
        }
        return p[0] == '&' && p[1] == '#' && p[2] != '\0' ? numericEntity(p) : p + 1;
    }

    /** An entity reaches to the next ';', however far, as long as it is digits from there back to its last mark. */
    static const char* numericEntity(const char* p)
    {
        const bool hexadecimal = p[2] == 'x';
        const char* digits = hexadecimal ? p + 3 : p + 2;
        const char* end = *digits != '\0' ? strchr(digits, ';') : nullptr;
        if (end == nullptr) {
            return nullptr;
        }
        for (const char* q = end - 1; *q != (hexadecimal ? 'x' : '#'); q--) {
            const auto digit = static_cast<unsigned char>(*q);
            if (hexadecimal ? isxdigit(digit) == 0 : isdigit(digit) == 0) {
                return nullptr;
            }
        }
        return end + 1;
    }

    const char* textBegin;
    bool utf8;                 ///< known to be UTF-8; anything else is read byte by byte
    bool encodingKnown = utf8; ///< a document's first declaration decides, unless a byte order mark has
    int depth = 0;             ///< elements open
    bool tooMuch = false;      ///< a limit was passed
};

} // namespace

int cmpIStr(std::string text, const char* other)
{
    return text.size() == strlen(other) && matchesAt(text.data(), other, text.size()) ? 0 : -1;
}

size_t findIStr(std::string text, const char* sought)
{
    return findIStrFrom(text, sought, 0);
}

size_t findIStrFrom(const std::string& text, const char* sought, size_t from)
{
    const size_t soughtLength = strlen(sought);
    for (size_t at = from; at <= text.size() && soughtLength <= text.size() - at; at++) {
        if (matchesAt(text.data() + at, sought, soughtLength)) {
            return at;
        }
    }
    return std::string::npos;
}

bool parseXml(TiXmlDocument& document, const std::string& text)
{
    // Zeroes enough for the longest character that the last byte can seem to begin; the text ends at its first zero.
    constexpr size_t zeroes = 4;
    std::string padded;
    padded.reserve(text.size() + zeroes);
    padded = text.c_str();
    padded.append(zeroes, '\0');
    if (!ParserWalk(padded.c_str()).isHarmless()) {
        return false;
    }
    return document.Parse(padded.c_str(), nullptr, TIXML_ENCODING_UNKNOWN) != nullptr;
}

std::string linkLines(TiXmlElement& element, std::string log)
{
    size_t lineBegin = 0;
    for (;;) {
        const size_t lineEnd = log.find('\n', lineBegin);
        const std::string line = log.substr(lineBegin, lineEnd == std::string::npos ? lineEnd : lineEnd - lineBegin);
        element.LinkEndChild(new TiXmlText(line));
        if (lineEnd == std::string::npos) {
            return line;
        }
        lineBegin = lineEnd + 1;
    }
}

/**
 * Any text given to the parser, on the audio manager's stack, beside the parser alone on a stack that is large enough.
 *
 *   input: the text; as in the daemon a line end follows it, without which no text parses, unless a zero byte ends it
 *
 * What is parsed is what the parser alone makes of the text. What is refused unseen would have gone too deep, or have
 * had too many attributes, or would not have parsed anyway. The parser never reads behind the zeroes that end a text:
 * it is given a copy that ends where the memory does.
 */

#include "smallStack.h"

#include "xmlText.h"

#include <cctype>
#include <cstring>
#include <tinyxml.h>

namespace
{

constexpr int maxDepth = 200;
constexpr int maxAttributes = 256;
constexpr size_t endZeroes = 5; ///< four, and the one that ends any text

/** Memory whose last byte is followed by a page that can't be touched. */
class GuardedText
{
public:
    explicit GuardedText(const char* text, size_t numBytes)
    {
        const auto page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
        const size_t usedBytes = (numBytes + page - 1) / page * page;
        mappedBytes = usedBytes + page;
        void* mapped = mmap(nullptr, mappedBytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        MUST_HOLD(mapped != MAP_FAILED);
        begin = static_cast<char*>(mapped);
        MUST_HOLD(mprotect(begin + usedBytes, page, PROT_NONE) == 0);
        copy = begin + usedBytes - numBytes;
        memcpy(copy, text, numBytes);
    }
    ~GuardedText() { munmap(begin, mappedBytes); }
    GuardedText(const GuardedText&) = delete;
    GuardedText& operator=(const GuardedText&) = delete;

    const char* text() const { return copy; }

private:
    size_t mappedBytes;
    char* begin;
    char* copy;
};

/** A document that parses a guarded copy, and knows whether it was asked to. */
class GuardedDocument : public TiXmlDocument
{
public:
    bool asked = false;

    const char* Parse(const char* text, TiXmlParsingData* data, TiXmlEncoding encoding) override
    {
        asked = true;
        const size_t length = strlen(text);
        for (size_t i = 0; i < endZeroes; i++) {
            MUST_HOLD(text[length + i] == '\0');
        }
        const GuardedText guarded(text, length + endZeroes);
        const char* end = TiXmlDocument::Parse(guarded.text(), data, encoding);
        return end == nullptr ? nullptr : text + (end - guarded.text());
    }
};

struct Shape {
    int depth = 0;
    int attributes = 0; ///< most in one element
};

int attributesOf(const TiXmlNode& node)
{
    int count = 0;
    const TiXmlElement* element = node.ToElement();
    for (auto* a = element == nullptr ? nullptr : element->FirstAttribute(); a != nullptr; a = a->Next()) {
        count++;
    }
    return count;
}

/** What the parser has built, also where it gave up in the end. */
Shape shapeOf(const TiXmlDocument& document)
{
    Shape shape;
    int depth = 0;
    const TiXmlNode* node = document.FirstChild();
    while (node != nullptr) {
        shape.depth = std::max(shape.depth, depth + (node->ToElement() != nullptr ? 1 : 0));
        shape.attributes = std::max(shape.attributes, attributesOf(*node));
        if (node->FirstChild() != nullptr) {
            node = node->FirstChild();
            depth++;
            continue;
        }
        while (node != nullptr && node->NextSibling() == nullptr) {
            node = node->Parent() == &document ? nullptr : node->Parent();
            depth--;
        }
        node = node == nullptr ? nullptr : node->NextSibling();
    }
    return shape;
}

std::string printed(const TiXmlDocument& document)
{
    TiXmlPrinter printer;
    document.Accept(&printer);
    return printer.Str();
}

void parse(const std::string& text)
{
    bool parsed = false;
    bool asked = false;
    std::string result;
    fuzz::onSmallStack([&] {
        GuardedDocument document;
        parsed = parseXml(document, text);
        asked = document.asked;
        const Shape shape = shapeOf(document);
        MUST_HOLD(shape.depth <= maxDepth && shape.attributes <= maxAttributes);
        result = printed(document);
    });
    GuardedDocument alone;
    const std::string padded = std::string(text.c_str()) + std::string(endZeroes, '\0');
    const bool parsedAlone = alone.Parse(padded.c_str(), nullptr, TIXML_ENCODING_UNKNOWN) != nullptr;
    if (asked) {
        MUST_HOLD(parsed == parsedAlone);
        MUST_HOLD(result == printed(alone));
        return;
    }
    MUST_HOLD(!parsed);
    const Shape shape = shapeOf(alone);
    MUST_HOLD(!parsedAlone || shape.depth > maxDepth || shape.attributes > maxAttributes);
}

std::string lowered(std::string text)
{
    for (char& c : text) {
        c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
    }
    return text;
}

void compare(const std::string& text, const std::string& other)
{
    const std::string sought = lowered(other);
    const std::string within = lowered(text);
    MUST_HOLD(cmpIStr(text, other.c_str()) == (within == sought ? 0 : -1));
    MUST_HOLD(findIStr(text, other.c_str()) == within.find(sought));
    const size_t from = other.size() % (text.size() + 2);
    MUST_HOLD(findIStrFrom(text, other.c_str(), from) == within.find(sought, from));
}

/** The lines that are linked are the text, and the answer is the last of them. */
void link(const std::string& text)
{
    TiXmlElement element("TransactionLog");
    const std::string last = linkLines(element, text);
    std::string joined;
    for (const TiXmlNode* line = element.FirstChild(); line != nullptr; line = line->NextSibling()) {
        MUST_HOLD(line->ToText() != nullptr);
        joined += line->ValueStr();
        if (line->NextSibling() == nullptr) {
            MUST_HOLD(line->ValueStr() == last);
        } else {
            joined += '\n';
        }
    }
    MUST_HOLD(joined == text);
}

} // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const std::string text = fuzz::Input(data, size).rest();
    parse(!text.empty() && text.back() == '\0' ? text : text + "\n");
    const size_t lineEnd = std::min(text.find('\n'), text.size());
    compare(text.substr(std::min(lineEnd + 1, text.size())), std::string(text.substr(0, lineEnd).c_str()));
    link(std::string(text.c_str()));
    return 0;
}

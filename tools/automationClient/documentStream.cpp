#include "documentStream.h"

bool DocumentStream::append(std::string_view bytes)
{
    for (const char byte : bytes) {
        if (isRefused)
            return false;
        take(byte);
        isRefused = current.text.size() > maxBytes;
    }
    return !isRefused;
}

bool DocumentStream::take(Document& document)
{
    if (whole.empty())
        return false;
    document = std::move(whole.front());
    whole.pop_front();
    return true;
}

void DocumentStream::take(char byte)
{
    if (state == OUTSIDE && byte != '<')
        return; // the line end behind a document, or noise
    current.text += byte;
    switch (state) {
    case OUTSIDE:
    case PROLOG:
    case TEXT:
        if (byte == '<')
            open();
        return;
    case OPENED:
        opened(byte);
        return;
    case DECLARATION:
        if (endsWith("?>"))
            state = depth > 0 ? TEXT : PROLOG;
        else if (byte == '<')
            open();
        return;
    case MARKUP:
        markup();
        return;
    case START_TAG:
        startTag(byte);
        return;
    case QUOTED:
        if (byte == quote)
            state = START_TAG;
        else if (byte == '<') // never in a value: the document was cut inside it
            open();
        return;
    case END_TAG:
        if (byte == '>')
            endOfTag(-1);
        else if (byte == '<')
            open();
        return;
    }
}

void DocumentStream::open()
{
    opening = current.text.size() - 1;
    state = OPENED;
}

void DocumentStream::opened(char byte)
{
    switch (byte) {
    case '?':
        if (opening > 0)
            cutBefore(opening);
        state = DECLARATION;
        return;
    case '!':
        state = MARKUP;
        return;
    case '/':
        state = END_TAG;
        return;
    case '<':
        open();
        return;
    default:
        if (!isRootFound) {
            isRootFound = true;
            current.rootOffset = opening;
        }
        state = START_TAG;
        startTag(byte);
        return;
    }
}

void DocumentStream::markup()
{
    const std::string_view begun = std::string_view(current.text).substr(opening);
    const bool isComment = begun.starts_with("<!--");
    const bool isData = begun.starts_with("<![CDATA[");
    const bool isEnd = isComment ? begun.size() >= 7 && endsWith("-->") : isData ? endsWith("]]>") : endsWith(">");
    if (isEnd)
        state = depth > 0 ? TEXT : PROLOG;
}

void DocumentStream::startTag(char byte)
{
    switch (byte) {
    case '"':
    case '\'':
        quote = byte;
        state = QUOTED;
        return;
    case '<':
        open();
        return;
    case '>':
        endOfTag(endsWith("/>") ? 0 : 1);
        return;
    default:
        return;
    }
}

void DocumentStream::endOfTag(int depthChange)
{
    depth += depthChange;
    if (depth <= 0)
        finish(depth < 0); // an end without a beginning is a piece of something
    else
        state = TEXT;
}

void DocumentStream::cutBefore(size_t offset)
{
    std::string next = current.text.substr(offset);
    current.text.resize(offset);
    finish(true);
    current.text = std::move(next);
    opening = 0;
}

void DocumentStream::finish(bool isCut)
{
    current.isCut = isCut;
    whole.push_back(std::move(current));
    current = Document();
    state = OUTSIDE;
    depth = 0;
    isRootFound = false;
}

bool DocumentStream::endsWith(std::string_view end) const
{
    return std::string_view(current.text).ends_with(end);
}

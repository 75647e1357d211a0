#pragma once

/**
 * Finds the documents in the bytes that the player sends: one XML document after the other, with nothing to tell their
 * lengths.
 *
 *   in:  bytes as they come, in any portions
 *   out: whole documents, from the `<` they begin with to the `>` of the root's end; what stands between is dropped
 *
 * It follows tags, quotes and depth and understands no content. The player sends an answer in one write and drops what
 * the connection doesn't take at once, so an answer may stop in its midst. A declaration inside a document can only be
 * the head of the next one: the cut piece is handed out as such, and reading goes on from there.
 *
 * Each byte is looked at once. Thread: any, one at a time.
 */

#include <cstddef>
#include <deque>
#include <string>
#include <string_view>

class DocumentStream
{
public:
    struct Document {
        std::string text;
        size_t rootOffset = 0; ///< where the root element begins, behind the declaration
        bool isCut = false;    ///< the rest was lost: the next document's head came first
    };

    /** @param maxDocumentBytes  a longer document is not collected: append() refuses */
    explicit DocumentStream(size_t maxDocumentBytes) : maxBytes(maxDocumentBytes) {}

    /** Takes bytes in. Answers false for good once a document is longer than the bound. */
    bool append(std::string_view bytes);

    /** Moves the oldest whole or cut document out; false if there is none. */
    bool take(Document& document);

    /** Bytes of a document that has begun and not ended. */
    size_t pendingBytes() const { return current.text.size(); }

private:
    enum state_e {
        OUTSIDE,     ///< before a document's first `<`
        PROLOG,      ///< behind the declaration, before the root
        OPENED,      ///< behind a `<`
        DECLARATION, ///< behind `<?`
        MARKUP,      ///< behind `<!`: a comment, a CDATA section, or what ends at its first `>`
        START_TAG,
        QUOTED, ///< an attribute's value
        END_TAG,
        TEXT, ///< between the tags of an element
    };

    void take(char byte);
    void open();
    void opened(char byte);
    void markup();
    void startTag(char byte);
    void endOfTag(int depthChange);
    void cutBefore(size_t offset);
    void finish(bool isCut);
    bool endsWith(std::string_view end) const;

    const size_t maxBytes;
    Document current;           ///< the document being collected
    std::deque<Document> whole; ///< done, not taken yet
    state_e state = OUTSIDE;
    int depth = 0;          ///< elements open
    size_t opening = 0;     ///< offset of the last `<`
    char quote = 0;         ///< that the value began with
    bool isRefused = false; ///< the bound was passed
    bool isRootFound = false;
};

#pragma once

/**
 * Finds the transactions in the bytes that a peer of studio automation has sent.
 *
 *   in:  the text received so far, which grows at its end and loses what has been handled
 *   out: where the first whole transaction stands
 *
 * A text that grows piece by piece is searched once: the search goes on where it ended. What it finds is what a search
 * of the whole text from its beginning would find, whatever order the bytes come in.
 * Thread: audio_manager. No lock.
 */

#include <cstddef>
#include <optional>
#include <string>

/** Where a transaction stands in the text received. */
struct TransactionPlace {
    size_t begin = 0;    ///< index of its first byte
    size_t length = 0;   ///< bytes of its text; can reach past the end of what was received
    size_t consumed = 0; ///< bytes that go with it, counted from the beginning of the text received
    enum : int {
        WITH_CLOSING_TAG,
        SELF_CLOSED,
        CLOSED_BEFORE_OPENED, ///< the first closing tag stands ahead of the opening one: there is no such text
    } kind = WITH_CLOSING_TAG;
};

class TransactionSearch
{
public:
    /**
     * The first transaction that is whole, if there is one.
     *
     * @param received  the text of the call before with more at its end, or what consume() left of it
     */
    std::optional<TransactionPlace> find(const std::string& received);

    /**
     * Takes `consumed` bytes out of `received`, beginning with its SECOND one. The first always stays, and the byte
     * behind what was consumed goes in its place: the line end behind a transaction, or the '<' of the next one, for
     * which the '<' of the first then stands.
     *
     * @param received  not empty
     */
    void consume(std::string& received, size_t consumed);

private:
    /** The first occurrence of one tag, without regard to case. */
    class TagSearch
    {
    public:
        explicit TagSearch(const char* aTag) : tag(aTag) {}
        size_t length() const { return tag.size(); }
        size_t find(const std::string& received); ///< npos if there is none yet
        void consumed(size_t numBytes);

    private:
        std::string tag;
        bool headChecked = false; ///< none begins at index 0
        size_t from = 1;          ///< none begins at an index below this, other than 0
    };

    bool isSelfClosed(const std::string& received, size_t begin, size_t& bracket);

    TagSearch opening{"<Transaction"};
    TagSearch closing{"</Transaction>"};
    size_t bracketFrom = 0; ///< no '>' stands between the opening tag and this index
};

#include "TransactionSearch.h"

#include "xmlText.h"

#include <algorithm>

std::optional<TransactionPlace> TransactionSearch::find(const std::string& received)
{
    const size_t begin = opening.find(received);
    const size_t end = closing.find(received);
    if (begin == std::string::npos) {
        return std::nullopt;
    }
    if (end != std::string::npos) {
        const size_t behind = end + closing.length();
        if (behind < begin) {
            return TransactionPlace{begin, 0, behind, TransactionPlace::CLOSED_BEFORE_OPENED};
        }
        return TransactionPlace{begin, behind - begin, behind, TransactionPlace::WITH_CLOSING_TAG};
    }
    size_t bracket = 0;
    if (!isSelfClosed(received, begin, bracket)) {
        return std::nullopt;
    }
    // sic: as many bytes as stand ahead of the tag's end, counted from the tag's beginning. What stands ahead of the
    // tag is thus matched by as much behind it, which the parser passes over or stumbles on.
    const size_t behind = bracket + 1;
    return TransactionPlace{begin, behind, behind, TransactionPlace::SELF_CLOSED};
}

/** Whether the first '>' of the text from `begin` on belongs to a "/>"; where it stands. */
bool TransactionSearch::isSelfClosed(const std::string& received, size_t begin, size_t& bracket)
{
    bracket = received.find('>', std::max(bracketFrom, begin));
    bracketFrom = std::min(bracket, received.size());
    return bracket != std::string::npos && received[bracket - 1] == '/';
}

void TransactionSearch::consume(std::string& received, size_t consumed)
{
    received.erase(1, consumed);
    opening.consumed(consumed);
    closing.consumed(consumed);
    bracketFrom = 0;
}

size_t TransactionSearch::TagSearch::find(const std::string& received)
{
    if (received.size() < tag.size()) {
        return std::string::npos;
    }
    if (!headChecked && cmpIStr(received.substr(0, tag.size()), tag.c_str()) == 0) {
        return 0;
    }
    headChecked = true;
    const size_t at = findIStrFrom(received, tag.c_str(), from);
    // None begins so near the end that it would not fit; more bytes may complete one behind that.
    from = at != std::string::npos ? at : std::max(from, received.size() - tag.size() + 1);
    return at;
}

/** What stood behind the bytes consumed moved forward, but the first byte now has another neighbour. */
void TransactionSearch::TagSearch::consumed(size_t numBytes)
{
    headChecked = false;
    from = from > numBytes ? std::max<size_t>(from - numBytes, 1) : 1;
}

#include "automationClientC.h"

#include "AutomationClient.h"

#include <deque>

struct AutomationPeer {
    AutomationClient client;
    AutomationDocument document;          ///< the last one received
    std::deque<AutomationDocument> other; ///< came while an answer was awaited
    std::string number;                   ///< of the last request sent
    std::string log;                      ///< lent by automationPeerLog
};

/** Elements in a flat list until the request is sent: indices stay while it grows. */
struct AutomationPeerRequest {
    struct Node {
        int parent;
        AutomationElement element;
    };
    AutomationRequest root;
    std::vector<Node> nodes;

    AutomationElement withChildren(int index) const
    {
        AutomationElement element = nodes[static_cast<size_t>(index)].element;
        element.children = childrenOf(index);
        return element;
    }
    std::vector<AutomationElement> childrenOf(int parent) const
    {
        std::vector<AutomationElement> children;
        for (size_t index = 0; index < nodes.size(); ++index)
            if (nodes[index].parent == parent)
                children.push_back(withChildren(static_cast<int>(index)));
        return children;
    }
    AutomationRequest whole() const
    {
        AutomationRequest request = root;
        request.children = childrenOf(-1);
        return request;
    }
    bool has(int index) const { return index >= -1 && index < static_cast<int>(nodes.size()); }
};

namespace
{

void keepOther(AutomationPeer& peer)
{
    const auto keep = [&peer](AutomationDocument&& document) { peer.other.push_back(std::move(document)); };
    peer.client.onInfo = keep;
    peer.client.onStray = keep;
}

} // namespace

AutomationPeer* automationPeerAdopt(int descriptor)
{
    auto* peer = new AutomationPeer;
    keepOther(*peer);
    peer->client.adopt(descriptor);
    return peer;
}

AutomationPeer* automationPeerConnect(const char* host, unsigned short port, int timeoutMs)
{
    auto* peer = new AutomationPeer;
    keepOther(*peer);
    if (peer->client.connect(host, port, timeoutMs) == AutomationResult::OK)
        return peer;
    delete peer;
    return nullptr;
}

void automationPeerFree(AutomationPeer* peer)
{
    delete peer;
}

int automationPeerSendRaw(AutomationPeer* peer, const char* bytes, size_t numBytes, int timeoutMs)
{
    return static_cast<int>(peer->client.sendRaw({bytes, numBytes}, timeoutMs));
}

int automationPeerNext(AutomationPeer* peer, int timeoutMs)
{
    return static_cast<int>(peer->client.next(peer->document, timeoutMs));
}

int automationPeerSend(AutomationPeer* peer, const AutomationPeerRequest* request, int isFlushed, int timeoutMs)
{
    peer->client.setFlushFirst(isFlushed != 0);
    return static_cast<int>(peer->client.send(request->whole(), peer->number, timeoutMs));
}

int automationPeerTransact(AutomationPeer* peer, const AutomationPeerRequest* request, int isFlushed, int timeoutMs)
{
    peer->client.setFlushFirst(isFlushed != 0);
    const AutomationResult result = peer->client.request(request->whole(), peer->document, timeoutMs);
    if (result == AutomationResult::OK)
        peer->number = peer->document.number;
    return static_cast<int>(result);
}

const char* automationPeerDocument(AutomationPeer* peer, size_t* numBytes, int* isCut)
{
    *numBytes = peer->document.text.size();
    *isCut = peer->document.isCut ? 1 : 0;
    return peer->document.text.c_str();
}

const char* automationPeerNumber(AutomationPeer* peer)
{
    return peer->number.c_str();
}

int automationPeerTakeOther(AutomationPeer* peer)
{
    if (peer->other.empty())
        return 0;
    peer->document = std::move(peer->other.front());
    peer->other.pop_front();
    return 1;
}

size_t automationPeerPending(AutomationPeer* peer)
{
    return peer->client.pendingBytes();
}

const char* automationPeerError(AutomationPeer* peer)
{
    return peer->client.errorText().c_str();
}

const char* automationPeerLog(AutomationPeer* peer, size_t* numBytes)
{
    peer->log.clear();
    for (const std::string& line : peer->document.log())
        peer->log += line + "\n";
    *numBytes = peer->log.size();
    return peer->log.c_str();
}

AutomationPeerRequest* automationPeerRequestNew(const char* type, const char* command, const char* number)
{
    auto* request = new AutomationPeerRequest;
    request->root.type = type;
    request->root.command = command;
    request->root.number = number == nullptr ? "" : number;
    return request;
}

void automationPeerRequestFree(AutomationPeerRequest* request)
{
    delete request;
}

int automationPeerRequestElement(AutomationPeerRequest* request, int parent, const char* name)
{
    if (!request->has(parent))
        return -1;
    request->nodes.push_back({parent, {name, {}, {}}});
    return static_cast<int>(request->nodes.size()) - 1;
}

int automationPeerRequestAttribute(AutomationPeerRequest* request, int element, const char* name, const char* value)
{
    if (!request->has(element))
        return -1;
    auto& attributes =
        element < 0 ? request->root.attributes : request->nodes[static_cast<size_t>(element)].element.attributes;
    attributes.emplace_back(name, value);
    return 0;
}

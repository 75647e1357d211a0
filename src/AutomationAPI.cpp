/**
 * The transaction server: from the peer's bytes to a parsed transaction, and from the verdict to the answer. The bodies
 * of the commands are in AutomationCommands.cpp and AsPlayedLog.cpp.
 */

#include "AutomationAPI.h"

#include "AsPlayedLog.h"
#include "AudioService.h"
#include "globals.h"
#include "xmlText.h"

#include <cstdio>
#include <tinyxml.h>
#include <utility>

namespace
{

constexpr unsigned short AUTOMATION_PORT = 8500;
constexpr unsigned int RECEIVE_BYTES = 4095; ///< the most that is taken in one step; the buffer has room for a zero too

} // namespace

AutomationAPI::AutomationAPI(AudioDatabase* database)
    : db(database), sock(new sockObject{}), buffer(new char[RECEIVE_BYTES + 1])
{
}

AutomationAPI::~AutomationAPI() = default;

int AutomationAPI::init()
{
    *sock = sockObject{};
    sock->rxPort = AUTOMATION_PORT;
    sock->blocking = 0;
    sock->type = SOCKTYPE_TCP_SINGLE_SERVER;
    return openSocket();
}

int AutomationAPI::openSocket()
{
    const osaStatus status = osaSockOpen(sock);
    if (status != OSA_OK) {
        printf("Unable to open socket (%d)\n", static_cast<int>(status));
        return -1;
    }
    return 0;
}

int AutomationAPI::service()
{
    if (sock->open == 0)
        return openSocket();
    receive();
    if (takeTransaction())
        handleTransaction();
    return 0;
}

/** Adds what the peer has sent to `allxml`. A zero byte cuts off the rest of the read. */
void AutomationAPI::receive()
{
    const int numBytes = osaSockRead(sock, buffer, RECEIVE_BYTES);
    if (numBytes > 0) {
        buffer[numBytes] = '\0';
        allxml += buffer;
    }
}

/** Moves the first transaction of `allxml` to `transaction`, if there is a whole one. */
bool AutomationAPI::takeTransaction()
{
    const std::optional<TransactionPlace> place = search.find(allxml);
    if (!place.has_value())
        return false;
    transaction = allxml.substr(place->begin, place->length);
    if (place->kind == TransactionPlace::WITH_CLOSING_TAG)
        transaction += '\n';
    search.consume(allxml, place->consumed);
    return true;
}

/** Parses `transaction`, carries it out, and answers it if it is a request. */
void AutomationAPI::handleTransaction()
{
    TiXmlDocument request;
    TiXmlDocument answer;
    answer.LinkEndChild(new TiXmlDeclaration("1.0", "", ""));
    auto* root = new TiXmlElement("Transaction"); // goes to the document, which deletes it
    answer.LinkEndChild(root);

    // Empty where the closing tag came ahead of the opening one.
    if (!transaction.empty())
        transaction += '\n';
    if (!parseXml(request, transaction)) {
        noteParseError();
    } else {
        responseStatus = RESPONSE_ERROR;
        responseLog.clear();
        (void)parseTransaction(&request, root); // the verdict is in responseStatus
    }
    if (cmpIStr(transType, "request") == 0)
        sendAnswer(answer, *root);
}

/** Makes the answer to a text that is no XML. The log is added to: what the answer before left of its own stays. */
void AutomationAPI::noteParseError()
{
    responseLog += "Error parsing the XML message\n(";
    responseLog += transaction;
    responseLog += ")";
    transaction.clear();
    printf("ERROR: %s\n", responseLog.c_str());
    transType = "request";
    transNum = "-1";
    transCmd = "unknown";
    responseStatus = RESPONSE_ERROR;
}

/** Completes the answer that the command has begun, and sends it. */
void AutomationAPI::sendAnswer(TiXmlDocument& answer, TiXmlElement& root)
{
    root.SetAttribute("type", "response");
    root.SetAttribute("command", transCmd.c_str());
    root.SetAttribute("transactionNumber", transNum.c_str());
    root.SetAttribute("status", responseStatus == RESPONSE_SUCCESS ? "success" : "ERROR");
    if (!responseLog.empty()) {
        auto* log = new TiXmlElement("TransactionLog"); // goes to the root, which deletes it
        responseLog = linkLines(*log, std::move(responseLog));
        root.LinkEndChild(log);
    }

    TiXmlPrinter printer;
    printer.SetIndent("  ");
    answer.Accept(&printer);
    std::string text = printer.Str();
    // A peer that is gone or does not read misses its answer, and nothing else.
    (void)osaSockWrite(sock, text.data(), static_cast<unsigned int>(text.size()));
    transaction.clear();
}

int AutomationAPI::parseTransaction(TiXmlNode* pParent, TiXmlElement* response)
{
    if (pParent->ToDocument() != nullptr) {
        int result = 0;
        for (TiXmlNode* child = pParent->FirstChild(); child != nullptr && result == 0; child = child->NextSibling())
            result = parseTransaction(child, response);
        return result;
    }
    const TiXmlElement* element = pParent->ToElement();
    if (element == nullptr)
        return -1;
    if (cmpIStr(element->Value(), "Transaction") != 0) {
        printf("Invalid element (%s) looking for Transaction %d\n", element->Value(), 0);
        return -1;
    }
    readAttributes(*element);
    runCommand(*pParent, response);
    return 1;
}

/** An attribute that is missing keeps the value that the transaction before gave it. */
void AutomationAPI::readAttributes(const TiXmlElement& element)
{
    for (const TiXmlAttribute* one = element.FirstAttribute(); one != nullptr; one = one->Next()) {
        if (cmpIStr(one->Name(), "command") == 0)
            transCmd = one->Value();
        else if (cmpIStr(one->Name(), "type") == 0)
            transType = one->Value();
        else if (cmpIStr(one->Name(), "transactionNumber") == 0)
            transNum = one->Value();
    }
}

// clang-format off
const AutomationAPI::Command AutomationAPI::commands[] = {
    {"uploadPlaylist",  &AutomationAPI::uploadPlaylist},
    {"deletePlaylists", &AutomationAPI::deletePlaylists},
    {"getAsPlayedLog",  &AutomationAPI::getAsPlayedLog},
    {"startPlaylist",   &AutomationAPI::startPlaylist},
    {"stopPlaylist",    &AutomationAPI::stopPlaylist},
};
// clang-format on

/** Carries out `transCmd`, whatever the type of the transaction is. */
void AutomationAPI::runCommand(TiXmlNode& transactionElement, TiXmlElement* response)
{
    for (const Command& command : commands) {
        if (cmpIStr(transCmd, command.name) == 0) {
            responseStatus = RESPONSE_SUCCESS;
            (this->*command.run)(transactionElement, response);
            return;
        }
    }
    printf("Unknown transaction type (%s)\n", transCmd.c_str());
    responseLog = "Unknown transaction type " + transCmd + "\n";
    responseStatus = RESPONSE_ERROR;
}

void AutomationAPI::uploadPlaylist(TiXmlNode& transactionElement, TiXmlElement*)
{
    for (TiXmlNode* child = transactionElement.FirstChild(); child != nullptr; child = child->NextSibling()) {
        if (parseUploadPlaylist(child) != 0)
            return;
    }
}

void AutomationAPI::deletePlaylists(TiXmlNode& transactionElement, TiXmlElement* response)
{
    for (TiXmlNode* child = transactionElement.FirstChild(); child != nullptr; child = child->NextSibling()) {
        if (parseDeletePlaylists(child, response, responseLog) != 0)
            return;
    }
}

void AutomationAPI::getAsPlayedLog(TiXmlNode& transactionElement, TiXmlElement* response)
{
    for (TiXmlNode* child = transactionElement.FirstChild(); child != nullptr; child = child->NextSibling()) {
        if (asPlayedLog->parseAsPlayedLogRequest(child, response, responseLog) != 0) {
            responseStatus = RESPONSE_ERROR;
            return;
        }
    }
}

void AutomationAPI::startPlaylist(TiXmlNode& transactionElement, TiXmlElement* response)
{
    for (TiXmlNode* child = transactionElement.FirstChild(); child != nullptr; child = child->NextSibling()) {
        if (parseStartPlaylist(child, response, responseLog) < 0) {
            responseStatus = RESPONSE_ERROR;
            return;
        }
    }
}

void AutomationAPI::stopPlaylist(TiXmlNode&, TiXmlElement*)
{
    (void)audioService->stopPlayer(); // nothing to stop is a success too
}

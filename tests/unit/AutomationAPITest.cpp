/**
 * The transaction server between a scripted socket and commands of the test's own: their bodies are defined here, so
 * only framing, dispatch and answer are the real ones.
 */

#include "AutomationAPI.h"

#include "AsPlayedLog.h"
#include "AudioService.h"
#include "globals.h"
#include "lastingServer.h"

#include <algorithm>
#include <cstring>
#include <deque>
#include <gtest/gtest.h>
#include <tinyxml.h>
#include <vector>

namespace
{

using lines = std::vector<std::string>;

/** One read of the peer's bytes: what comes, or the status that comes instead. */
struct Read {
    std::string bytes = {};
    int status = 0;
};

/** What the socket and the commands answer, and what was asked of them. */
struct Script {
    // the socket
    std::deque<osaStatus> openAnswers; ///< OSA_OK once they are used up
    std::deque<Read> reads;            ///< nothing more comes once they are used up
    int writeAnswer = 0;               ///< 0: as many bytes as were given
    // the commands
    std::deque<int> commandAnswers; ///< one for each child; 0 once they are used up
    std::string commandLog;         ///< added to the peer's log by each child
    bool commandFails = false;      ///< each child sets the verdict to an error
    bool commandAddsChild = false;  ///< each child adds an element to the answer
    // what happened
    sockObject* sock = nullptr;     ///< the server's
    char* buffer = nullptr;         ///< the server's
    std::vector<sockObject> opened; ///< as they stood when osaSockOpen was called
    std::vector<unsigned int> readSizes;
    lines written;
    lines calls;
} script;

int nextCommandAnswer()
{
    if (script.commandAnswers.empty())
        return 0;
    const int answer = script.commandAnswers.front();
    script.commandAnswers.pop_front();
    return answer;
}

/** Plays a command on one child: "name(what the child is)". */
int commandCalled(const std::string& name, TiXmlNode* child, TiXmlElement* response, std::string& log)
{
    script.calls.push_back(name + "(" + child->Value() + ")");
    log += script.commandLog;
    if (script.commandAddsChild)
        response->LinkEndChild(new TiXmlElement("FromCommand"));
    return nextCommandAnswer();
}

} // namespace

osaStatus osaSockOpen(sockObject* sock)
{
    script.sock = sock;
    script.opened.push_back(*sock);
    const osaStatus answer = script.openAnswers.empty() ? OSA_OK : script.openAnswers.front();
    if (!script.openAnswers.empty())
        script.openAnswers.pop_front();
    sock->open = answer == OSA_OK ? 1 : 0;
    return answer;
}

int osaSockRead(sockObject* sock, char* buf, unsigned int len)
{
    EXPECT_EQ(sock, script.sock);
    script.buffer = buf;
    script.readSizes.push_back(len);
    if (script.reads.empty())
        return 0;
    Read& read = script.reads.front();
    const size_t numBytes = std::min<size_t>(len, read.bytes.size());
    const int answer = read.status != 0 ? read.status : static_cast<int>(numBytes);
    memcpy(buf, read.bytes.data(), numBytes);
    read.bytes.erase(0, numBytes);
    if (read.bytes.empty())
        script.reads.pop_front(); // the rest waits for the next read
    return answer;
}

int osaSockWrite(sockObject* sock, char* buf, unsigned int len)
{
    EXPECT_EQ(sock, script.sock);
    script.written.emplace_back(buf, len);
    return script.writeAnswer != 0 ? script.writeAnswer : static_cast<int>(len);
}

AudioService* audioService = nullptr;
AudioService::AudioService() = default;
AudioService::~AudioService() = default;
PlayerStatus AudioService::stopPlayer()
{
    script.calls.emplace_back("stopPlayer");
    return nextCommandAnswer() == 0 ? PLAYER_OK : PLAYER_ERROR;
}

CAsPlayedLog* asPlayedLog = nullptr;
CAsPlayedLog::CAsPlayedLog(sqlite3* db) : database(db) {}
CAsPlayedLog::~CAsPlayedLog() = default;
int CAsPlayedLog::parseAsPlayedLogRequest(TiXmlNode* child, TiXmlElement* response, std::string& log)
{
    return commandCalled("getAsPlayedLog", child, response, log);
}

int AutomationAPI::parseUploadPlaylist(TiXmlNode* child)
{
    EXPECT_EQ(responseStatus, RESPONSE_SUCCESS);
    if (script.commandFails)
        responseStatus = RESPONSE_ERROR;
    return commandCalled("uploadPlaylist", child, nullptr, responseLog);
}

int AutomationAPI::parseDeletePlaylists(TiXmlNode* child, TiXmlElement* response, std::string& log)
{
    EXPECT_EQ(&log, &responseLog);
    if (script.commandFails)
        responseStatus = RESPONSE_ERROR;
    return commandCalled("deletePlaylists", child, response, log);
}

int AutomationAPI::parseStartPlaylist(TiXmlNode* child, TiXmlElement* response, std::string& log)
{
    EXPECT_EQ(&log, &responseLog);
    responseStatus = script.commandFails ? RESPONSE_ERROR : RESPONSE_SUCCESS;
    return commandCalled("startPlaylist", child, response, log);
}

namespace
{

class AutomationServer : public testing::Test
{
protected:
    AutomationServer()
    {
        script = {};
        audioService = &service;
        asPlayedLog = &log;
    }
    ~AutomationServer() override
    {
        audioService = nullptr;
        asPlayedLog = nullptr;
    }

    /** A server that is listening. */
    void start() { EXPECT_EQ(api.init(), 0); }

    /** One pass; what it printed is kept. */
    int pass()
    {
        testing::internal::CaptureStdout();
        const int result = api.service();
        printed = testing::internal::GetCapturedStdout();
        return result;
    }

    /** One pass on these bytes, which have to bring no answer. */
    void feed(const std::string& bytes)
    {
        const size_t answers = script.written.size();
        script.reads.push_back({bytes});
        EXPECT_EQ(pass(), 0);
        EXPECT_EQ(script.written.size(), answers);
    }

    /** One pass on these bytes: the answer, empty if there is none. */
    std::string answerTo(const std::string& bytes = "")
    {
        if (script.sock == nullptr)
            start();
        if (!bytes.empty())
            script.reads.push_back({bytes});
        const size_t answers = script.written.size();
        EXPECT_EQ(pass(), 0);
        EXPECT_LE(script.written.size(), answers + 1);
        return script.written.size() > answers ? script.written.back() : "";
    }

    AutomationAPI& api = lastingServer(nullptr);
    std::string printed;

private:
    AudioService service;
    CAsPlayedLog log{nullptr};
};

/** A request, with nothing behind it. */
std::string request(const std::string& command, const std::string& number, const std::string& children = "<Child/>")
{
    return "<Transaction type=\"request\" command=\"" + command + "\" transactionNumber=\"" + number + "\">" +
           children + "</Transaction>";
}

/** The answer to it, with these elements and these lines of log. */
std::string answer(const std::string& command, const std::string& number, const std::string& status,
                   const lines& logLines = {}, const std::string& children = "")
{
    std::string text = "<?xml version=\"1.0\" ?>\n<Transaction type=\"response\" command=\"" + command +
                       "\" transactionNumber=\"" + number + "\" status=\"" + status + "\"";
    if (logLines.empty() && children.empty())
        return text + " />\n";
    text += ">\n" + children;
    if (!logLines.empty()) {
        text += "  <TransactionLog>\n";
        for (const std::string& line : logLines)
            text += "    " + line + "\n";
        text += "  </TransactionLog>\n";
    }
    return text + "</Transaction>\n";
}

const std::string stopped = answer("stopPlaylist", "1", "success");
const std::string stopRequest = request("stopPlaylist", "1");

} // namespace

// ---- the socket

TEST_F(AutomationServer, ListensOnPort8500ForOnePeerWithoutBlocking)
{
    EXPECT_TRUE(script.opened.empty());
    EXPECT_EQ(api.init(), 0);
    ASSERT_EQ(script.opened.size(), 1u);
    const sockObject& sock = script.opened[0];
    EXPECT_EQ(sock.rxPort, 8500);
    EXPECT_EQ(sock.blocking, 0);
    EXPECT_EQ(sock.type, SOCKTYPE_TCP_SINGLE_SERVER);
    EXPECT_EQ(sock.id.index, 0u);
    EXPECT_EQ(sock.packetBufferSize, 0u);
    EXPECT_TRUE(script.readSizes.empty());
}

TEST_F(AutomationServer, InitClearsWhatTheSocketHeld)
{
    start();
    script.sock->errorCode = 7;
    script.sock->txPort = 8;
    script.sock->blocking = 1;
    script.sock->tcpConnectionCount = 9;
    script.sock->id.index = 10;
    start();
    ASSERT_EQ(script.opened.size(), 2u);
    const sockObject& sock = script.opened[1];
    EXPECT_EQ(sock.open, 0);
    EXPECT_EQ(sock.errorCode, 0);
    EXPECT_EQ(sock.txPort, 0);
    EXPECT_EQ(sock.blocking, 0);
    EXPECT_EQ(sock.tcpConnectionCount, 0u);
    EXPECT_EQ(sock.id.index, 0u);
    EXPECT_EQ(sock.rxPort, 8500);
}

TEST_F(AutomationServer, LeavesTheSocketOpenAndTheBufferThereWhenDestroyed)
{
    {
        AutomationAPI shortLived(nullptr);
        EXPECT_EQ(shortLived.init(), 0);
        script.reads.push_back({"noise"});
        EXPECT_EQ(shortLived.service(), 0);
    }
    ASSERT_NE(script.sock, nullptr);
    EXPECT_EQ(script.sock->open, 1);
    EXPECT_EQ(script.sock->rxPort, 8500);
    EXPECT_STREQ(script.buffer, "noise");
    delete script.sock;
    delete[] script.buffer;
}

TEST_F(AutomationServer, InitTellsWhyThereIsNoSocket)
{
    script.openAnswers = {OSA_SOCK_ERROR};
    testing::internal::CaptureStdout();
    EXPECT_EQ(api.init(), -1);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "Unable to open socket (-6)\n");
}

TEST_F(AutomationServer, AClosedSocketIsOpenedOnThePassAndNothingElseHappens)
{
    start();
    feed(stopRequest.substr(0, 20));
    script.sock->open = 0;
    script.reads.push_back({stopRequest.substr(20)});
    const size_t reads = script.readSizes.size();
    EXPECT_EQ(pass(), 0);
    EXPECT_EQ(script.opened.size(), 2u);
    EXPECT_EQ(script.readSizes.size(), reads);
    EXPECT_EQ(printed, "");
    EXPECT_EQ(answerTo(), stopped) << "what was received before goes on";
}

TEST_F(AutomationServer, ASocketThatCannotBeOpenedIsTriedOnEachPass)
{
    script.openAnswers = {OSA_NO_RESOURCE, OSA_SOCK_ERROR, OSA_NO_MEM, OSA_OK};
    testing::internal::CaptureStdout();
    EXPECT_EQ(api.init(), -1);
    testing::internal::GetCapturedStdout();
    EXPECT_EQ(pass(), -1);
    EXPECT_EQ(printed, "Unable to open socket (-6)\n");
    EXPECT_EQ(pass(), -1);
    EXPECT_EQ(printed, "Unable to open socket (-4)\n");
    EXPECT_EQ(pass(), 0);
    EXPECT_EQ(printed, "");
    EXPECT_TRUE(script.readSizes.empty());
    EXPECT_EQ(answerTo(stopRequest), stopped);
    EXPECT_EQ(script.opened.size(), 4u);
}

TEST_F(AutomationServer, APassWithoutBytesDoesNothing)
{
    start();
    EXPECT_EQ(pass(), 0);
    EXPECT_EQ(script.readSizes, std::vector<unsigned int>{4095});
    EXPECT_TRUE(script.written.empty());
    EXPECT_EQ(printed, "");
}

TEST_F(AutomationServer, AFailedReadAddsNothingAndSaysNothing)
{
    start();
    feed(stopRequest.substr(0, 30));
    for (const int status : {OSA_CONNECTION_LOST, OSA_SOCK_ERROR, OSA_ERROR}) {
        script.reads.push_back({"garbage", status});
        EXPECT_EQ(pass(), 0);
        EXPECT_EQ(printed, "");
        script.reads.clear();
    }
    EXPECT_EQ(script.opened.size(), 1u) << "the open flag alone tells when to open again";
    EXPECT_EQ(answerTo(stopRequest.substr(30)), stopped);
}

TEST_F(AutomationServer, ATransactionThatIsWaitingIsHandledThoughTheReadFails)
{
    answerTo(stopRequest + stopRequest);
    script.reads.push_back({"", OSA_CONNECTION_LOST});
    EXPECT_EQ(answerTo(), stopped);
}

TEST_F(AutomationServer, AnAnswerThatCannotBeWrittenIsNotTriedAgain)
{
    script.writeAnswer = OSA_ERROR;
    EXPECT_EQ(answerTo(stopRequest), stopped);
    EXPECT_EQ(answerTo(), "");
    EXPECT_EQ(answerTo(stopRequest), stopped);
}

// ---- framing

TEST_F(AutomationServer, ATransactionInManyReadsIsHandledOnThePassThatBringsItsEnd)
{
    start();
    for (size_t i = 0; i + 1 < stopRequest.size(); i++)
        feed(stopRequest.substr(i, 1));
    EXPECT_TRUE(script.calls.empty());
    EXPECT_EQ(answerTo(stopRequest.substr(stopRequest.size() - 1)), stopped);
    EXPECT_EQ(script.calls, lines{"stopPlayer"});
}

TEST_F(AutomationServer, ATransactionMayBeSplitAtAnyByte)
{
    start();
    for (size_t split = 1; split < stopRequest.size(); split++) {
        feed(stopRequest.substr(0, split));
        EXPECT_EQ(answerTo(stopRequest.substr(split) + "\n"), stopped) << split;
    }
}

TEST_F(AutomationServer, TwoTransactionsInOneReadAreAnsweredOnTwoPassesInOrder)
{
    for (const char* between : {"", "\n", "\r\n", "<?xml version=\"1.0\"?>\n"}) {
        const std::string both = request("stopPlaylist", "1") + between + request("deletePlaylists", "2") + "\n";
        EXPECT_EQ(answerTo(both), stopped);
        EXPECT_EQ(answerTo(), answer("deletePlaylists", "2", "success"));
        EXPECT_EQ(answerTo(), "");
    }
}

TEST_F(AutomationServer, AMessageOf5000BytesTakesTwoReadsAndLosesNothingAtTheSeam)
{
    std::string name;
    for (int i = 0; name.size() < 5000; i++)
        name += std::to_string(i) + ".";
    std::string message = request("deletePlaylists", name);
    name.resize(5000 - (message.size() - name.size()));
    message = request("deletePlaylists", name);
    ASSERT_EQ(message.size(), 5000u);

    start();
    feed(message);
    ASSERT_EQ(script.reads.size(), 1u);
    EXPECT_EQ(script.reads[0].bytes.size(), 905u);
    EXPECT_EQ(answerTo(), answer("deletePlaylists", name, "success"));
    EXPECT_EQ(script.readSizes, (std::vector<unsigned int>{4095, 4095}));
}

TEST_F(AutomationServer, AReadOf4095BytesIsTakenWhole)
{
    const std::string frame = request("deletePlaylists", "");
    const std::string name(4095 - frame.size(), 'n');
    EXPECT_EQ(answerTo(request("deletePlaylists", name)), answer("deletePlaylists", name, "success"));
}

TEST_F(AutomationServer, AMessageOf1MegabyteIsAnswered)
{
    const std::string name(1000000, 'n');
    start();
    script.reads.push_back({request("deletePlaylists", name)});
    while (!script.reads.empty())
        ASSERT_EQ(pass(), 0);
    ASSERT_EQ(script.written.size(), 1u);
    EXPECT_TRUE(script.written[0] == answer("deletePlaylists", name, "success"));
}

TEST_F(AutomationServer, AZeroByteCutsOffTheRestOfItsRead)
{
    start();
    feed(stopRequest.substr(0, 20) + '\0' + "lost");
    EXPECT_EQ(answerTo(stopRequest.substr(20)), stopped);
    feed(std::string(1, '\0') + stopRequest);
    EXPECT_EQ(answerTo(stopRequest), stopped);
}

TEST_F(AutomationServer, AZeroByteLosesWhatOneReadTookAndNotTheNext)
{
    start();
    script.reads.push_back({std::string(1, '\0') + std::string(4094, 'x') + stopRequest});
    EXPECT_EQ(pass(), 0);
    EXPECT_EQ(answerTo(), stopped);
}

TEST_F(AutomationServer, TagsAndAttributesMatchInAnyCase)
{
    EXPECT_EQ(answerTo("<TRANSACTION TYPE=\"REQUEST\" COMMAND=\"STOPPLAYLIST\" TRANSACTIONNUMBER=\"A\"></TRANSACTION>"),
              answer("STOPPLAYLIST", "A", "success"));
    EXPECT_EQ(answerTo("<transaction type='request' command='stopplaylist' transactionnumber='b'></transaction>"),
              answer("stopplaylist", "b", "success"));
    EXPECT_EQ(script.calls, (lines{"stopPlayer", "stopPlayer"}));
}

TEST_F(AutomationServer, WhatStandsAheadOfATransactionIsSkipped)
{
    EXPECT_EQ(answerTo("noise <?xml version=\"1.0\"?>\n<!-- > -->" + stopRequest), stopped);
}

TEST_F(AutomationServer, NoiseGetsNoAnswerAndIsKept)
{
    start();
    for (int i = 0; i < 100; i++)
        feed("<Trans noise > /> </Trans \n");
    feed("action");
    EXPECT_EQ(printed, "");
    EXPECT_EQ(answerTo(stopRequest), stopped);
}

TEST_F(AutomationServer, TheNextPeersBytesCompleteWhatTheLostOneSent)
{
    start();
    feed(stopRequest.substr(0, 40));
    script.reads.push_back({"", OSA_CONNECTION_LOST});
    EXPECT_EQ(pass(), 0);
    EXPECT_EQ(answerTo(stopRequest.substr(40)), stopped);
}

TEST_F(AutomationServer, ASelfClosedStopPlaylistStopsThePlayerAndIsAnswered)
{
    start();
    feed("<Transaction type=\"request\" command=\"stopPlaylist\" transactionNumber=\"1\" ");
    feed("/");
    EXPECT_EQ(answerTo(">"), stopped);
    EXPECT_EQ(script.calls, lines{"stopPlayer"});
}

TEST_F(AutomationServer, SelfClosedTransactionsFollowEachOtherByLines)
{
    const std::string selfClosed = "<Transaction type=\"request\" command=\"stopPlaylist\" transactionNumber=\"1\"/>\n";
    EXPECT_EQ(answerTo("\n" + selfClosed), stopped);
    EXPECT_EQ(answerTo("\n" + selfClosed), stopped);
    EXPECT_EQ(answerTo(selfClosed), stopped);
    EXPECT_EQ(script.calls, (lines{"stopPlayer", "stopPlayer", "stopPlayer"}));
}

TEST_F(AutomationServer, AWholeTransactionTakesTheSelfClosedOnesAheadOfItWithIt)
{
    EXPECT_EQ(answerTo("<Transaction type=\"request\" command=\"stopPlaylist\" transactionNumber=\"1\"/>\n" +
                       request("deletePlaylists", "2")),
              stopped);
    EXPECT_EQ(script.calls, lines{"stopPlayer"});
    EXPECT_EQ(answerTo(), "");
}

TEST_F(AutomationServer, ASelfClosedTransactionTakesAsMuchBehindItAsStandsAheadOfIt)
{
    // The three bytes ahead of it bring three behind it into its text: the beginning of an element without an end.
    EXPECT_EQ(
        answerTo("\n\n\n<Transaction type='request'/><a><b/>"),
        answer("unknown", "-1", "ERROR",
               {"Error parsing the XML message", "(&lt;Transaction type=&apos;request&apos;/&gt;&lt;a&gt;", ")"}));
    // "\n" and "<b/>" are left of it.
    EXPECT_EQ(answerTo(stopRequest), stopped);
}

TEST_F(AutomationServer, AClosingTagAheadOfItsOpeningOneIsAnEmptyTextThatDoesNotParse)
{
    const lines expected = {"Error parsing the XML message", "()"};
    EXPECT_EQ(answerTo("</Transaction>\n" + stopRequest), answer("unknown", "-1", "ERROR", expected));
    EXPECT_EQ(printed, "ERROR: Error parsing the XML message\n()\n");
    EXPECT_TRUE(script.calls.empty());
    EXPECT_EQ(answerTo(), stopped);
}

TEST_F(AutomationServer, AClosingTagRightAheadOfTheOpeningOneLeavesTheLineEnds)
{
    EXPECT_EQ(answerTo("</Transaction>" + stopRequest),
              answer("unknown", "-1", "ERROR", {"Error parsing the XML message", "(", "", ")"}));
    EXPECT_EQ(answerTo(), stopped);
}

// ---- what does not parse

TEST_F(AutomationServer, TextThatDoesNotParseIsAnsweredWithAllOfIt)
{
    EXPECT_EQ(answerTo("<Transaction type=\"info\" command=\"stopPlaylist\" transactionNumber=\"8\">\n  <a></b>\n"
                       "</Transaction>"),
              answer("unknown", "-1", "ERROR",
                     {"Error parsing the XML message",
                      "(&lt;Transaction type=&quot;info&quot; command=&quot;stopPlaylist&quot; "
                      "transactionNumber=&quot;8&quot;&gt;",
                      "  &lt;a&gt;&lt;/b&gt;", "&lt;/Transaction&gt;", "", ")"}));
    EXPECT_EQ(printed, "ERROR: Error parsing the XML message\n(<Transaction type=\"info\" command=\"stopPlaylist\" "
                       "transactionNumber=\"8\">\n  <a></b>\n</Transaction>\n\n)\n");
    EXPECT_TRUE(script.calls.empty());
}

TEST_F(AutomationServer, AParseErrorAddsToTheLastLineOfTheAnswerBefore)
{
    const std::string bad = "<Transaction></a></Transaction>\n";
    const std::string shown = "(&lt;Transaction&gt;&lt;/a&gt;&lt;/Transaction&gt;";
    EXPECT_EQ(answerTo(bad), answer("unknown", "-1", "ERROR", {"Error parsing the XML message", shown, "", ")"}));
    EXPECT_EQ(answerTo(bad), answer("unknown", "-1", "ERROR", {")Error parsing the XML message", shown, "", ")"}));
    EXPECT_EQ(printed, "ERROR: )Error parsing the XML message\n(<Transaction></a></Transaction>\n\n)\n");
    // A transaction that parses clears it.
    EXPECT_EQ(answerTo(stopRequest), stopped);
    EXPECT_EQ(answerTo(bad), answer("unknown", "-1", "ERROR", {"Error parsing the XML message", shown, "", ")"}));
}

TEST_F(AutomationServer, AParseErrorAddsToALogThatWasNotSent)
{
    EXPECT_EQ(answerTo("<Transaction type=\"info\" command=\"playingNow\"></Transaction>\n"), "");
    EXPECT_EQ(answerTo("<Transaction></a></Transaction>"),
              answer("unknown", "-1", "ERROR",
                     {"Unknown transaction type playingNow", "Error parsing the XML message",
                      "(&lt;Transaction&gt;&lt;/a&gt;&lt;/Transaction&gt;", "", ")"}));
}

TEST_F(AutomationServer, AParseErrorLeavesItsOwnTypeCommandAndNumberBehind)
{
    answerTo("<Transaction></a></Transaction>\n");
    EXPECT_EQ(answerTo("<Transaction></Transaction>\n"),
              answer("unknown", "-1", "ERROR", {"Unknown transaction type unknown", ""}));
    EXPECT_EQ(printed, "Unknown transaction type (unknown)\n");
}

TEST_F(AutomationServer, TextThatWouldHarmTheProcessIsOneThatDoesNotParse)
{
    std::string levels;
    for (int i = 0; i < 200; i++)
        levels += "<a>";
    EXPECT_EQ(answerTo(request("stopPlaylist", "1", levels)).substr(0, 100),
              answer("unknown", "-1", "ERROR", {"Error"}).substr(0, 100));
    std::string attributes;
    for (int i = 0; i < 257; i++)
        attributes += " a" + std::to_string(i) + "=''";
    EXPECT_EQ(answerTo("<Transaction" + attributes + "></Transaction>").substr(0, 100),
              answer("unknown", "-1", "ERROR", {"Error"}).substr(0, 100));
    EXPECT_TRUE(script.calls.empty());
    EXPECT_EQ(answerTo(stopRequest), stopped);
}

// ---- what is no transaction, and what lasts

TEST_F(AutomationServer, AnElementWhoseNameOnlyBeginsWithTransactionGetsTheLastOnesAnswerWithAnError)
{
    answerTo(request("deletePlaylists", "41") + "\n");
    EXPECT_EQ(answerTo("<Transactions type=\"info\" command=\"stopPlaylist\" transactionNumber=\"42\"></Transactions>"
                       "</Transaction>\n"),
              answer("deletePlaylists", "41", "ERROR"));
    EXPECT_EQ(printed, "Invalid element (Transactions) looking for Transaction 0\n");
    EXPECT_EQ(script.calls, lines{"deletePlaylists(Child)"});
}

TEST_F(AutomationServer, AnInvalidElementClearsTheLog)
{
    answerTo(request("nonsense", "41") + "\n");
    EXPECT_EQ(answerTo("<TransactionX/>\n"), answer("nonsense", "41", "ERROR"));
    EXPECT_EQ(printed, "Invalid element (TransactionX) looking for Transaction 0\n");
}

TEST_F(AutomationServer, AnInvalidElementAheadOfAnyTransactionIsNotAnswered)
{
    EXPECT_EQ(answerTo("<TransactionX/>\n"), "");
    EXPECT_EQ(printed, "Invalid element (TransactionX) looking for Transaction 0\n");
}

TEST_F(AutomationServer, OnlyTheFirstTopElementIsLookedAt)
{
    answerTo("<TransactionX/>" + stopRequest);
    EXPECT_EQ(printed, "Invalid element (TransactionX) looking for Transaction 0\n");
    EXPECT_TRUE(script.calls.empty());
    // A transaction that closes itself is the first of two.
    answerTo("<Transaction type='request' command='deletePlaylists' transactionNumber='5'/>" + stopRequest);
    EXPECT_TRUE(script.calls.empty());
    EXPECT_EQ(script.written.back(), answer("deletePlaylists", "5", "success"));
}

TEST_F(AutomationServer, ATransactionWithoutANumberEchoesTheOneBefore)
{
    answerTo(request("deletePlaylists", "17") + "\n");
    EXPECT_EQ(answerTo("<Transaction type=\"request\" command=\"stopPlaylist\"></Transaction>\n"),
              answer("stopPlaylist", "17", "success"));
}

TEST_F(AutomationServer, ATransactionWithoutACommandRunsTheOneBefore)
{
    answerTo(stopRequest + "\n");
    EXPECT_EQ(answerTo("<Transaction type=\"request\" transactionNumber=\"2\"></Transaction>\n"),
              answer("stopPlaylist", "2", "success"));
    EXPECT_EQ(script.calls, (lines{"stopPlayer", "stopPlayer"}));
}

TEST_F(AutomationServer, ATransactionWithoutATypeHasTheOneBefore)
{
    EXPECT_EQ(answerTo("<Transaction command=\"stopPlaylist\" transactionNumber=\"1\"></Transaction>\n"), "")
        << "there was none yet";
    answerTo(stopRequest + "\n");
    EXPECT_EQ(answerTo("<Transaction command=\"stopPlaylist\"></Transaction>\n"), stopped);
    EXPECT_EQ(answerTo("<Transaction type=\"info\" command=\"stopPlaylist\"></Transaction>\n"), "");
    EXPECT_EQ(answerTo("<Transaction command=\"stopPlaylist\"></Transaction>\n"), "");
    EXPECT_EQ(script.calls.size(), 5u);
}

TEST_F(AutomationServer, AnEmptyAttributeReplacesTheOneBefore)
{
    answerTo(stopRequest + "\n");
    EXPECT_EQ(answerTo("<Transaction transactionNumber=\"\"></Transaction>\n"), answer("stopPlaylist", "", "success"));
}

TEST_F(AutomationServer, OtherAttributesAndTheirOrderDoNotMatter)
{
    EXPECT_EQ(answerTo("<Transaction status=\"ERROR\" transactionNumber=\"1\" from=\"studio\" command=\"stopPlaylist\" "
                       "types=\"info\" type=\"request\"></Transaction>\n"),
              stopped);
}

TEST_F(AutomationServer, OfAttributesThatDifferByCaseTheLastOneCounts)
{
    EXPECT_EQ(answerTo("<Transaction type=\"request\" command=\"stopPlaylist\" transactionNumber=\"0\" "
                       "TransactionNumber=\"1\"></Transaction>\n"),
              stopped);
}

TEST_F(AutomationServer, TheNumberIsAnyText)
{
    EXPECT_EQ(answerTo(request("stopPlaylist", " a &lt;&amp;&gt; b\xC3\xA4 ")),
              answer("stopPlaylist", " a &lt;&amp;&gt; b\xC3\xA4 ", "success"));
}

// ---- dispatch

TEST_F(AutomationServer, OnlyARequestIsAnsweredButEveryTypeIsCarriedOut)
{
    EXPECT_EQ(
        answerTo("<Transaction type=\"ReQuEsT\" command=\"stopPlaylist\" transactionNumber=\"1\"></Transaction>\n"),
        stopped);
    for (const char* type : {"response", "info", "", "requests", "reques"}) {
        script.calls.clear();
        EXPECT_EQ(answerTo(std::string("<Transaction type=\"") + type + "\" command=\"stopPlaylist\"></Transaction>\n"),
                  "");
        EXPECT_EQ(script.calls, lines{"stopPlayer"}) << type;
    }
}

TEST_F(AutomationServer, AnUnknownCommandIsToldAndAnswered)
{
    EXPECT_EQ(answerTo(request("pausePlaylist", "3")),
              answer("pausePlaylist", "3", "ERROR", {"Unknown transaction type pausePlaylist", ""}));
    EXPECT_EQ(printed, "Unknown transaction type (pausePlaylist)\n");
    EXPECT_TRUE(script.calls.empty());
}

TEST_F(AutomationServer, ACommandHasToMatchWhole)
{
    for (const std::string command :
         {"", "stopPlaylists", "stopPlay", "uploadPlaylists", "deletePlaylist", "getAsPlayed"}) {
        EXPECT_EQ(answerTo(request(command, "3") + "\n"),
                  answer(command, "3", "ERROR", {"Unknown transaction type " + command, ""}));
        EXPECT_EQ(printed, "Unknown transaction type (" + command + ")\n");
    }
    EXPECT_TRUE(script.calls.empty());
}

TEST_F(AutomationServer, AnAnswerToPlayingNowIsUnknownAndNotAnswered)
{
    EXPECT_EQ(answerTo("<Transaction type=\"response\" command=\"playingNow\" transactionNumber=\"0\" "
                       "status=\"success\"></Transaction>\n"),
              "");
    EXPECT_EQ(printed, "Unknown transaction type (playingNow)\n");
}

TEST_F(AutomationServer, StopPlaylistStopsThePlayerAndLooksAtNoChild)
{
    EXPECT_EQ(answerTo(request("stopPlaylist", "1", "<Playlist/>text<!-- -->")), stopped);
    EXPECT_EQ(script.calls, lines{"stopPlayer"});
}

TEST_F(AutomationServer, StopPlaylistWithNothingToStopIsASuccess)
{
    script.commandAnswers = {-1};
    EXPECT_EQ(answerTo(stopRequest), stopped);
}

TEST_F(AutomationServer, UploadPlaylistWalksItsChildrenUntilOneIsNotZero)
{
    for (const int stopping : {1, -1}) {
        script.calls.clear();
        script.commandAnswers = {0, 0, stopping};
        EXPECT_EQ(answerTo(request("uploadPlaylist", "4", "<A/>text<C/><D/>") + "\n"),
                  answer("uploadPlaylist", "4", "success"));
        EXPECT_EQ(script.calls, (lines{"uploadPlaylist(A)", "uploadPlaylist(text)", "uploadPlaylist(C)"}));
    }
}

TEST_F(AutomationServer, DeletePlaylistsWalksItsChildrenUntilOneIsNotZero)
{
    for (const int stopping : {1, -1}) {
        script.calls.clear();
        script.commandAnswers = {0, 0, stopping};
        EXPECT_EQ(answerTo(request("deletePlaylists", "4", "<A/><!--B--><C/><D/>") + "\n"),
                  answer("deletePlaylists", "4", "success"));
        EXPECT_EQ(script.calls, (lines{"deletePlaylists(A)", "deletePlaylists(B)", "deletePlaylists(C)"}));
    }
}

TEST_F(AutomationServer, GetAsPlayedLogStopsWithAnErrorAtTheFirstChildThatIsNotZero)
{
    for (const int stopping : {1, -1}) {
        script.calls.clear();
        script.commandAnswers = {0, stopping};
        EXPECT_EQ(answerTo(request("getAsPlayedLog", "4", "<A/><B/><C/>") + "\n"),
                  answer("getAsPlayedLog", "4", "ERROR"));
        EXPECT_EQ(script.calls, (lines{"getAsPlayedLog(A)", "getAsPlayedLog(B)"}));
    }
    script.calls.clear();
    EXPECT_EQ(answerTo(request("getAsPlayedLog", "4", "<A/><B/>") + "\n"), answer("getAsPlayedLog", "4", "success"));
    EXPECT_EQ(script.calls, (lines{"getAsPlayedLog(A)", "getAsPlayedLog(B)"}));
}

TEST_F(AutomationServer, StartPlaylistGoesOnAfterAPositiveResultAndStopsWithAnErrorAtANegativeOne)
{
    script.commandAnswers = {1, 0, 1};
    EXPECT_EQ(answerTo(request("startPlaylist", "4", "<A/><B/><C/>") + "\n"), answer("startPlaylist", "4", "success"));
    EXPECT_EQ(script.calls, (lines{"startPlaylist(A)", "startPlaylist(B)", "startPlaylist(C)"}));
    script.calls.clear();
    script.commandAnswers = {1, -1, 1};
    EXPECT_EQ(answerTo(request("startPlaylist", "4", "<A/><B/><C/>") + "\n"), answer("startPlaylist", "4", "ERROR"));
    EXPECT_EQ(script.calls, (lines{"startPlaylist(A)", "startPlaylist(B)"}));
}

TEST_F(AutomationServer, ACommandWithoutChildrenIsASuccess)
{
    for (const char* command : {"uploadPlaylist", "deletePlaylists", "getAsPlayedLog", "startPlaylist"})
        EXPECT_EQ(answerTo(request(command, "4", "") + "\n"), answer(command, "4", "success"));
    EXPECT_TRUE(script.calls.empty());
}

TEST_F(AutomationServer, CommandsMatchInAnyCaseAndAreEchoedAsTheyCame)
{
    for (const char* command : {"UPLOADPLAYLIST", "deleteplaylists", "GetAsPlayedLog", "STARTplaylist"})
        EXPECT_EQ(answerTo(request(command, "4") + "\n"), answer(command, "4", "success"));
    EXPECT_EQ(script.calls, (lines{"uploadPlaylist(Child)", "deletePlaylists(Child)", "getAsPlayedLog(Child)",
                                   "startPlaylist(Child)"}));
}

TEST_F(AutomationServer, TheVerdictIsTheCommands)
{
    script.commandFails = true;
    for (const char* command : {"uploadPlaylist", "deletePlaylists", "startPlaylist"})
        EXPECT_EQ(answerTo(request(command, "4") + "\n"), answer(command, "4", "ERROR"));
    script.commandFails = false;
    EXPECT_EQ(answerTo(request("uploadPlaylist", "4") + "\n"), answer("uploadPlaylist", "4", "success"));
}

// ---- the answer

TEST_F(AutomationServer, ADeleteOfAMissingPlaylistIsAnsweredByteForByte)
{
    script.commandLog = "Deleting playlist Morning and keeping audio files\n  ERROR: Playlist not found\n";
    script.commandFails = true;
    EXPECT_EQ(answerTo("<?xml version=\"1.0\"?>\n<Transaction type=\"request\" command=\"deletePlaylists\" "
                       "transactionNumber=\"42\">\n  <Playlist name=\"Morning\" clearAsPlayedLog=\"no\"/>\n"
                       "</Transaction>\n"),
              "<?xml version=\"1.0\" ?>\n"
              "<Transaction type=\"response\" command=\"deletePlaylists\" transactionNumber=\"42\" status=\"ERROR\">\n"
              "  <TransactionLog>\n"
              "    Deleting playlist Morning and keeping audio files\n"
              "      ERROR: Playlist not found\n"
              "    \n"
              "  </TransactionLog>\n"
              "</Transaction>\n");
    EXPECT_EQ(script.written.size(), 1u);
    EXPECT_EQ(printed, "");
}

TEST_F(AutomationServer, TheLogComesBehindTheCommandsOwnElements)
{
    script.commandLog = "a line\n";
    script.commandAddsChild = true;
    EXPECT_EQ(
        answerTo(request("getAsPlayedLog", "4", "<A/><B/>")),
        answer("getAsPlayedLog", "4", "success", {"a line", "a line", ""}, "  <FromCommand />\n  <FromCommand />\n"));
}

TEST_F(AutomationServer, ALogOfOneLineWithoutItsEndIsWrittenInOne)
{
    script.commandLog = "no end";
    EXPECT_EQ(answerTo(request("deletePlaylists", "4")),
              answer("deletePlaylists", "4", "success", {}, "  <TransactionLog>no end</TransactionLog>\n"));
}

TEST_F(AutomationServer, TheLogIsClearedByEachTransactionThatParses)
{
    script.commandLog = "a line\nno end";
    const std::string expected = answer("deletePlaylists", "4", "success", {"a line", "no end"});
    EXPECT_EQ(answerTo(request("deletePlaylists", "4")), expected);
    EXPECT_EQ(answerTo(request("deletePlaylists", "4")), expected);
}

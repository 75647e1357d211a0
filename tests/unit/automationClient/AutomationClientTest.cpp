// The studio's end of the connection, against scripts: what the player will say is written into a socket pair before
// the client asks, with the number that the client is told to use.

#include "AutomationClient.h"

#include "xmlText.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <net/if.h>
#include <sched.h>
#include <set>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <thread>
#include <tinyxml.h>
#include <unistd.h>

using testing::ElementsAre;
using testing::HasSubstr;

namespace
{

constexpr int PATIENT_MS = 20000; ///< ends by what comes, not by the time
constexpr int AT_ONCE = 0;

const std::string HEAD = "<?xml version=\"1.0\" ?>\n";
const std::string PLAYING = HEAD + "<Transaction type=\"info\" command=\"playingNow\" transactionNumber=\"0\">\n"
                                   "  <Playlist name=\"Morning\" />\n</Transaction>\n";

std::string answerWith(const std::string& number)
{
    return HEAD + "<Transaction type=\"response\" command=\"stopPlaylist\" transactionNumber=\"" + number +
           "\" status=\"success\" />\n";
}

AutomationRequest numbered(const std::string& number)
{
    AutomationRequest request{"stopPlaylist"};
    request.number = number;
    return request;
}

class AutomationClientTest : public testing::Test
{
protected:
    void SetUp() override
    {
        int ends[2];
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
        client.adopt(ends[0]);
        player = ends[1];
        client.setFlushFirst(false);
        client.onInfo = [this](AutomationDocument&& document) { infos.push_back(document.command); };
        client.onStray = [this](AutomationDocument&& document) { strays.push_back(document.number); };
    }
    void TearDown() override { hangUp(); }

    void say(const std::string& bytes)
    {
        ASSERT_EQ(write(player, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
    }
    void hangUp()
    {
        if (player >= 0)
            close(player);
        player = -1;
    }
    /** What the client has sent so far. */
    std::string heard() const
    {
        char bytes[100000];
        const ssize_t count = recv(player, bytes, sizeof(bytes), MSG_DONTWAIT);
        return {bytes, static_cast<size_t>(std::max<ssize_t>(count, 0))};
    }

    AutomationClient client{1000};
    int player = -1;
    std::vector<std::string> infos, strays;
    AutomationDocument answer;
};

} // namespace

// ---- what is sent

TEST_F(AutomationClientTest, RequestIsOneElementWithItsClosingTagAndANewline)
{
    say(answerWith("7"));
    ASSERT_EQ(client.request(numbered("7"), answer, AT_ONCE), AutomationResult::OK);
    EXPECT_EQ(heard(),
              "<Transaction type=\"request\" command=\"stopPlaylist\" transactionNumber=\"7\"></Transaction>\n");
}

TEST_F(AutomationClientTest, ElementsAreNestedInOrder)
{
    AutomationRequest request{"uploadPlaylist"};
    request.attributes = {{"more", "x"}};
    request.children = {
        {"Playlist", {{"name", "Morning"}}, {{"PlaylistItem", {{"filename", "a"}}, {}}, {"PlaylistItem", {}, {}}}}};
    EXPECT_EQ(AutomationClient::compose(request, "1"),
              "<Transaction type=\"request\" command=\"uploadPlaylist\" transactionNumber=\"1\" more=\"x\">"
              "<Playlist name=\"Morning\"><PlaylistItem filename=\"a\"/><PlaylistItem/></Playlist></Transaction>\n");
}

TEST_F(AutomationClientTest, NoValueCanLookLikeMarkup)
{
    AutomationRequest request{"stopPlaylist"};
    request.children = {{"Playlist", {{"name", "</Transaction>\"'&amp;\n\x01&#x41\xe9"}}, {}}};
    const std::string text = AutomationClient::compose(request, "1");
    EXPECT_THAT(text, HasSubstr("name=\"&lt;/Transaction&gt;&quot;&apos;&amp;amp;&#x0A;&#x01;&amp;#x41\xe9\""));
}

TEST_F(AutomationClientTest, AnyValueReadsBackAsItWas)
{
    std::string value;
    for (int byte = 1; byte < 256; ++byte)
        value += static_cast<char>(byte);
    value += "&#x3C;&lt;&#60;&#x\"/><Playlist name=\"b";
    AutomationRequest request{"stopPlaylist"};
    request.children = {{"Playlist", {{"name", value}}, {}}};
    TiXmlDocument document;
    ASSERT_TRUE(parseXml(document, AutomationClient::compose(request, "1")));
    const TiXmlElement* playlist = document.RootElement()->FirstChildElement();
    EXPECT_EQ(automationAttribute(*playlist, "name"), value);
    EXPECT_EQ(playlist->NextSibling(), nullptr);
}

TEST_F(AutomationClientTest, FirstRequestIsLedByTheFlushAndLaterOnesAreNot)
{
    client.setFlushFirst(true);
    say(answerWith("1") + answerWith("2"));
    ASSERT_EQ(client.request(numbered("1"), answer, AT_ONCE), AutomationResult::OK);
    EXPECT_EQ(heard().find("<\n<Transaction <</Transaction>\n<Transaction type="), 0u);
    ASSERT_EQ(client.request(numbered("2"), answer, AT_ONCE), AutomationResult::OK);
    EXPECT_EQ(heard().find("<Transaction type="), 0u);
}

TEST_F(AutomationClientTest, NumbersNeverRepeatNotEvenBetweenClients)
{
    AutomationClient second;
    int ends[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
    second.adopt(ends[0]);
    std::set<std::string> numbers;
    for (int round = 0; round < 50; ++round) {
        std::string number;
        ASSERT_EQ(client.send({"stopPlaylist"}, number, AT_ONCE), AutomationResult::OK);
        numbers.insert(number);
        ASSERT_EQ(second.send({"stopPlaylist"}, number, AT_ONCE), AutomationResult::OK);
        numbers.insert(number);
    }
    EXPECT_EQ(numbers.size(), 100u);
    EXPECT_EQ(numbers.count("0") + numbers.count("-1"), 0u); // the player's own
    close(ends[1]);
}

// ---- what is answered

TEST_F(AutomationClientTest, AnswerIsToldByItsNumber)
{
    say(answerWith("-1") + answerWith("6") + PLAYING + answerWith("7") + answerWith("8"));
    ASSERT_EQ(client.request(numbered("7"), answer, AT_ONCE), AutomationResult::OK);
    EXPECT_EQ(answer.number, "7");
    EXPECT_EQ(answer.type, "response");
    EXPECT_EQ(answer.command, "stopPlaylist");
    EXPECT_EQ(answer.status, "success");
    EXPECT_THAT(strays, ElementsAre("-1", "6"));
    EXPECT_THAT(infos, ElementsAre("playingNow"));
    AutomationDocument later;
    ASSERT_EQ(client.next(later, AT_ONCE), AutomationResult::OK); // what comes behind the answer waits
    EXPECT_EQ(later.number, "8");
}

TEST_F(AutomationClientTest, InformationWithTheNumberAskedForIsNoAnswer)
{
    say(PLAYING + answerWith("0"));
    ASSERT_EQ(client.request(numbered("0"), answer, AT_ONCE), AutomationResult::OK);
    EXPECT_EQ(answer.type, "response");
    EXPECT_THAT(infos, ElementsAre("playingNow"));
}

TEST_F(AutomationClientTest, AttributeNamesHaveNoCase)
{
    say("<TRANSACTION TYPE='Response' TRANSACTIONNUMBER='7' Status='ERROR'/>");
    ASSERT_EQ(client.request(numbered("7"), answer, AT_ONCE), AutomationResult::OK);
    EXPECT_EQ(answer.status, "ERROR");
}

TEST_F(AutomationClientTest, WithoutHandlersTheRestIsDropped)
{
    client.onInfo = nullptr;
    client.onStray = nullptr;
    say(PLAYING + answerWith("6") + answerWith("7"));
    ASSERT_EQ(client.request(numbered("7"), answer, AT_ONCE), AutomationResult::OK);
    EXPECT_EQ(answer.number, "7");
}

TEST_F(AutomationClientTest, TextThatDoesNotParseIsAStrayWithoutANumber)
{
    say("<Transaction a></Transaction>" + answerWith("7"));
    ASSERT_EQ(client.request(numbered("7"), answer, AT_ONCE), AutomationResult::OK);
    EXPECT_THAT(strays, ElementsAre(""));
}

TEST_F(AutomationClientTest, NestingWithoutEndIsRefusedByTheParser)
{
    AutomationClient deep;
    std::string nested;
    for (int level = 0; level < 300; ++level)
        nested = "<a>" + nested + "</a>";
    DocumentStream::Document document;
    document.text = nested;
    EXPECT_EQ(AutomationDocument(std::move(document)).root(), nullptr);
}

TEST_F(AutomationClientTest, LogLinesComeWithoutTheIndentOfTheirLevel)
{
    say(HEAD + "<Transaction type=\"response\" transactionNumber=\"7\" status=\"ERROR\">\n"
               "  <Other />\n"
               "  <TransactionLog>\n"
               "    Deleting playlist M&lt;rning  x\n"
               "      ERROR: Playlist not found\n"
               "    \n"
               "  </TransactionLog>\n"
               "</Transaction>\n");
    ASSERT_EQ(client.request(numbered("7"), answer, AT_ONCE), AutomationResult::OK);
    EXPECT_THAT(answer.log(), ElementsAre("Deleting playlist M<rning  x", "  ERROR: Playlist not found"));
}

TEST_F(AutomationClientTest, ALogOfOneLineStandsBetweenTheTags)
{
    say("<Transaction type='response' transactionNumber='7'><TransactionLog>  one</TransactionLog></Transaction>");
    ASSERT_EQ(client.request(numbered("7"), answer, AT_ONCE), AutomationResult::OK);
    EXPECT_THAT(answer.log(), ElementsAre("  one"));
}

TEST_F(AutomationClientTest, AnAnswerWithoutALogHasNoLines)
{
    say(answerWith("7"));
    ASSERT_EQ(client.request(numbered("7"), answer, AT_ONCE), AutomationResult::OK);
    EXPECT_TRUE(answer.log().empty());
    EXPECT_TRUE(AutomationDocument().log().empty());
}

TEST_F(AutomationClientTest, ANameThatIsNotUtf8Survives)
{
    say(HEAD + "<Transaction type=\"response\" transactionNumber=\"7\" command=\"caf\xe9\" status=\"success\" />\n");
    ASSERT_EQ(client.request(numbered("7"), answer, AT_ONCE), AutomationResult::OK);
    EXPECT_EQ(answer.command, "caf\xe9");
}

TEST_F(AutomationClientTest, ParsingPutsTheWhiteSpaceSwitchBack)
{
    say(answerWith("7"));
    ASSERT_EQ(client.request(numbered("7"), answer, AT_ONCE), AutomationResult::OK);
    EXPECT_TRUE(TiXmlBase::IsWhiteSpaceCondensed());
}

// ---- what goes wrong

TEST_F(AutomationClientTest, SilenceTimesOut)
{
    EXPECT_EQ(client.request(numbered("7"), answer, 1), AutomationResult::TIMEOUT);
    EXPECT_EQ(client.errorText(), "the player did not answer in time");
}

TEST_F(AutomationClientTest, AnAnswerThatStopsIsCut)
{
    say(answerWith("7").substr(0, 60));
    EXPECT_EQ(client.request(numbered("7"), answer, 1), AutomationResult::CUT);
    EXPECT_EQ(client.pendingBytes(), 60u);
}

TEST_F(AutomationClientTest, APieceBeforeTheNextDocumentIsCut)
{
    say(answerWith("7").substr(0, 60) + PLAYING);
    EXPECT_EQ(client.request(numbered("7"), answer, AT_ONCE), AutomationResult::CUT);
    AutomationDocument document;
    ASSERT_EQ(client.next(document, AT_ONCE), AutomationResult::OK);
    EXPECT_EQ(document.command, "playingNow");
}

TEST_F(AutomationClientTest, DocumentsFromBeforeTheEndComeBeforeClosed)
{
    say(PLAYING + PLAYING);
    hangUp();
    AutomationDocument document;
    EXPECT_EQ(client.next(document, AT_ONCE), AutomationResult::OK);
    EXPECT_EQ(client.next(document, AT_ONCE), AutomationResult::OK);
    EXPECT_EQ(client.next(document, AT_ONCE), AutomationResult::CLOSED);
    EXPECT_EQ(client.next(document, AT_ONCE), AutomationResult::CLOSED);
}

TEST_F(AutomationClientTest, SendingIntoAClosedConnectionEndsNothingButTheCall)
{
    hangUp();
    EXPECT_EQ(client.request(numbered("7"), answer, PATIENT_MS), AutomationResult::CLOSED);
    EXPECT_EQ(client.errorText(), "the player closed the connection");
}

TEST_F(AutomationClientTest, ADocumentOverTheBoundIsRefused)
{
    say("<Transaction a='" + std::string(1000, 'x'));
    AutomationDocument document;
    EXPECT_EQ(client.next(document, AT_ONCE), AutomationResult::OVERSIZE);
}

TEST_F(AutomationClientTest, NothingGoesBeforeThereIsAConnection)
{
    AutomationClient fresh;
    AutomationDocument document;
    EXPECT_EQ(fresh.request(numbered("7"), document, AT_ONCE), AutomationResult::FAILED);
    EXPECT_EQ(fresh.next(document, AT_ONCE), AutomationResult::FAILED);
    EXPECT_FALSE(fresh.isConnected());
}

TEST_F(AutomationClientTest, APlayerThatDoesNotReadTimesOutTheSending)
{
    EXPECT_EQ(client.sendRaw(std::string(10 << 20, ' '), 1), AutomationResult::TIMEOUT);
}

TEST_F(AutomationClientTest, ALongRequestGoesWholeWhileThePlayerTalks)
{
    const std::string sent = std::string(1 << 20, 'x') + "\n";
    std::string received;
    std::thread reader([this, &received] {
        char bytes[4095];
        ssize_t count = 0;
        do {
            EXPECT_EQ(write(player, PLAYING.data(), PLAYING.size()), static_cast<ssize_t>(PLAYING.size()));
            count = read(player, bytes, sizeof(bytes));
            received.append(bytes, static_cast<size_t>(count));
        } while (count > 0 && received.back() != '\n');
    });
    EXPECT_EQ(client.sendRaw(sent, PATIENT_MS), AutomationResult::OK);
    reader.join();
    EXPECT_EQ(received, sent);
}

TEST_F(AutomationClientTest, AdoptedDescriptorsAreClosedInTheEnd)
{
    int ends[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
    {
        AutomationClient owner;
        owner.adopt(ends[0]);
    }
    EXPECT_EQ(fcntl(ends[0], F_GETFD), -1);
    close(ends[1]);
}

// ---- connecting, in a network of the test's own

namespace
{

void makeNetwork()
{
    ASSERT_EQ(unshare(CLONE_NEWNET), 0) << "root is needed";
    const int control = socket(AF_INET, SOCK_DGRAM, 0);
    ifreq request = {};
    memcpy(request.ifr_name, "lo", 3);
    request.ifr_flags = IFF_UP;
    ASSERT_EQ(ioctl(control, SIOCSIFFLAGS, &request), 0);
    close(control);
}

int listenOn(uint16_t port)
{
    const int listener = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    EXPECT_EQ(bind(listener, reinterpret_cast<const sockaddr*>(&address), sizeof(address)), 0);
    EXPECT_EQ(listen(listener, 1), 0);
    return listener;
}

} // namespace

TEST(AutomationClientConnect, TakesASeatThatIsThere)
{
    makeNetwork();
    const int listener = listenOn(AutomationClient::PORT);
    AutomationClient client;
    ASSERT_EQ(client.connect("127.0.0.1", AutomationClient::PORT, PATIENT_MS), AutomationResult::OK);
    const int player = accept(listener, nullptr, nullptr);
    ASSERT_GE(player, 0);
    ASSERT_GT(write(player, PLAYING.data(), PLAYING.size()), 0);
    AutomationDocument document;
    ASSERT_EQ(client.next(document, PATIENT_MS), AutomationResult::OK);
    EXPECT_EQ(document.command, "playingNow");
    close(player);
    close(listener);
}

TEST(AutomationClientConnect, RefusalAndUnknownHostsAreToldInWords)
{
    makeNetwork();
    AutomationClient client;
    EXPECT_EQ(client.connect("127.0.0.1", AutomationClient::PORT, PATIENT_MS), AutomationResult::FAILED);
    EXPECT_EQ(client.errorText(), "cannot connect: Connection refused");
    EXPECT_FALSE(client.isConnected());
    AutomationClient second;
    EXPECT_EQ(second.connect("300.1.1.1", AutomationClient::PORT, PATIENT_MS), AutomationResult::FAILED);
    EXPECT_THAT(second.errorText(), HasSubstr("cannot find 300.1.1.1: "));
}

// ---- the form that is right from any state of the player

namespace
{

/** The player's way with a stream, in the small: which commands it carries out, and how many answers it gives. */
class Player
{
public:
    void receive(const std::string& bytes) { allxml += bytes; }

    /** Passes until nothing changes. */
    void settle()
    {
        while (pass()) {
        }
    }

    std::vector<std::string> carriedOut; ///< transactionNumbers
    int refused = 0;                     ///< answers with "-1"
    std::string allxml;

private:
    bool pass()
    {
        const size_t start = findIStr(allxml, "<Transaction");
        const size_t end = findIStr(allxml, "</Transaction>");
        size_t consumed = 0;
        std::string text;
        if (start != std::string::npos && end != std::string::npos) {
            consumed = end + 14;
            text = end + 14 < start ? "" : allxml.substr(start, end + 14 - start) + "\n";
        } else if (start != std::string::npos) {
            const std::string rest = allxml.substr(start);
            const size_t selfClosed = rest.find("/>");
            if (selfClosed == std::string::npos || selfClosed > rest.find('>'))
                return false;
            consumed = start + 2 + selfClosed;
            text = rest.substr(0, consumed);
        } else {
            return false;
        }
        allxml.erase(1, consumed);
        TiXmlDocument document;
        if (!parseXml(document, text + "\n")) {
            ++refused;
            return true;
        }
        const TiXmlElement* root = document.RootElement(); // the first that is carried out stops the walk
        if (root != nullptr && cmpIStr(root->ValueStr(), "Transaction") == 0)
            carriedOut.push_back(automationAttribute(*root, "transactionNumber"));
        return true;
    }
};

const std::string LOST =
    "<?xml version=\"1.0\" ?>\n<Transaction type=\"request\" command='deletePlaylists' transactionNumber=\"lost\">\n"
    "  <!-- a comment > --><![CDATA[data]]><!unknown ><Playlist name=\"M&amp;x/\" deleteAudioFiles='yes'>text</Playlist>"
    "\n  <Playlist name = \"two\" />\n</Transaction>";
const std::string LOST_SHORT = "<Transaction command=\"stopPlaylist\" transactionNumber=\"lost\"/>";

/** What a new connection's first request sends, arriving in two portions cut at `seam`, and a second request. */
Player afterARequest(const std::string& leftBehind, size_t seam)
{
    Player player;
    player.receive(leftBehind);
    player.settle();
    player.carriedOut.clear();
    player.refused = 0;
    const std::string sent = std::string(AutomationClient::FLUSH) + AutomationClient::compose(numbered("ours"), "ours");
    player.receive(sent.substr(0, seam));
    player.settle();
    if (seam < sent.size())
        player.receive(sent.substr(seam));
    player.settle();
    player.receive(AutomationClient::compose(numbered("second"), "second"));
    player.settle();
    return player;
}

constexpr size_t IN_ONE = 1000;

} // namespace

TEST(AutomationClientFlush, AFreshPlayerCarriesTheRequestOutOnceAndKeepsAGoodByte)
{
    for (size_t seam = 0; seam < 120; ++seam) {
        const Player player = afterARequest("", seam);
        EXPECT_THAT(player.carriedOut, ElementsAre("ours", "second")) << seam;
        EXPECT_EQ(player.refused, 1) << seam;
        EXPECT_EQ(player.allxml.substr(0, 1), "<") << seam;
    }
}

TEST(AutomationClientFlush, HalfATransactionNeverRunsWhereverItStopped)
{
    for (const std::string& lost : {LOST, LOST_SHORT, std::string("x\n") + LOST})
        for (size_t length = 1; length < lost.size(); ++length)
            for (const size_t seam : {IN_ONE, size_t{1}, size_t{2}, size_t{14}, size_t{17}, size_t{30}, size_t{40}}) {
                const Player player = afterARequest(lost.substr(0, length), seam);
                ASSERT_THAT(player.carriedOut, ElementsAre("ours", "second")) << lost.substr(0, length) << seam;
                ASSERT_EQ(player.refused, 1) << lost.substr(0, length) << seam;
            }
}

// Why a closing tag alone will not do.
TEST(AutomationClientFlush, AClosingTagAloneWouldCarryTheHalfOut)
{
    Player player;
    player.receive(LOST.substr(0, LOST.size() - 14));
    player.receive("</Transaction>\n");
    player.settle();
    EXPECT_THAT(player.carriedOut, ElementsAre("lost"));
}

// Why the request is not sent alone.
TEST(AutomationClientFlush, WithoutItTheRequestIsLostBehindAHalf)
{
    Player player;
    player.receive(LOST.substr(0, 60) + AutomationClient::compose(numbered("ours"), "ours"));
    player.settle();
    EXPECT_TRUE(player.carriedOut.empty());
}

TEST(AutomationClientFlush, NoiseAndStrayClosingTagsCostAnswersOnly)
{
    for (const std::string left : {"noise", "<", "</Transaction", "<!--", "<Transactio", "\n", " \"'"}) {
        const Player player = afterARequest(left, IN_ONE);
        EXPECT_THAT(player.carriedOut, ElementsAre("ours", "second")) << left;
        EXPECT_EQ(player.refused, 1) << left;
    }
    for (const std::string left : {"</Transaction>", "x</Transaction>", "x</Transaction>\n", "<a/></Transaction> <"}) {
        const Player player = afterARequest(left, IN_ONE);
        EXPECT_THAT(player.carriedOut, ElementsAre("ours", "second")) << left;
        EXPECT_EQ(player.refused, 2) << left;
    }
}

// Transactions that the player had read and not carried out when the seat changed: one a pass.
TEST(AutomationClientFlush, WholeTransactionsThatWaitRunBeforeOurs)
{
    for (const std::string lead : {"", "x", "<"})
        for (const std::string between : {"", "\n"}) {
            Player player;
            player.receive(lead + LOST + between + std::string(AutomationClient::FLUSH) +
                           AutomationClient::compose(numbered("ours"), "ours"));
            player.settle();
            EXPECT_THAT(player.carriedOut, ElementsAre("lost", "ours")) << lead << between;
            EXPECT_EQ(player.refused, 1);
        }
}

TEST(AutomationClientFlush, ASelfClosedTransactionThatWaitsTakesTheFlushAndNotTheRequest)
{
    Player player;
    player.receive(LOST_SHORT + std::string(AutomationClient::FLUSH) +
                   AutomationClient::compose(numbered("ours"), "ours"));
    player.settle();
    EXPECT_THAT(player.carriedOut, ElementsAre("lost", "ours"));
    EXPECT_EQ(player.refused, 0);
}

TEST(AutomationClientFlush, RequestsWithoutAPauseAreCarriedOutInOrder)
{
    Player player;
    std::string sent;
    for (const std::string number : {"1", "2", "3", "4"})
        sent += AutomationClient::compose(numbered(number), number);
    for (size_t portion = 1; portion < sent.size(); portion += 7) {
        for (size_t at = 0; at < sent.size(); at += portion) {
            player.receive(sent.substr(at, portion));
            player.settle();
        }
        ASSERT_THAT(player.carriedOut, ElementsAre("1", "2", "3", "4")) << portion;
        player.carriedOut.clear();
    }
    EXPECT_EQ(player.refused, 0);
    EXPECT_LE(player.allxml.size(), 2u); // nothing piles up
}

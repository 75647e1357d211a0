// What an upload names: M3U lists as they come, and the files that the player takes over TCP.

#include "fileList.h"
#include "failure.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sstream>

using testing::ElementsAre;

namespace
{

std::vector<std::string> listed(const std::string& text)
{
    std::istringstream list(text);
    return readM3u(list);
}

template <typename Call> int statusOf(const Call& call)
{
    try {
        call();
    } catch (const Failure& failure) {
        return failure.status;
    }
    return EXIT_OK;
}

} // namespace

TEST(M3uList, CommentsAndEmptyLinesAreSkipped)
{
    EXPECT_THAT(listed("#EXTM3U\n#EXTINF:12,a\na.wav\n\n  \n#\nb.wav"), ElementsAre("a.wav", "b.wav"));
}

TEST(M3uList, LineEndsBlanksAndTheByteOrderMarkGo)
{
    EXPECT_THAT(listed("\xef\xbb\xbf"
                       "a b.wav\r\n\tc.wav \r\n"),
                ElementsAre("a b.wav", "c.wav"));
    EXPECT_THAT(listed("\xef\xbb\xbf#EXTM3U\r\na\r\n"), ElementsAre("a"));
}

TEST(M3uList, ACarriageReturnAloneEndsALineToo)
{
    EXPECT_THAT(listed("#EXTM3U\ra\rb\r"), ElementsAre("a", "b"));
}

TEST(M3uList, Utf16IsRefused)
{
    EXPECT_EQ(statusOf([] {
                  listed(std::string("\xff\xfe"
                                     "a\0\n\0",
                                     6));
              }),
              EXIT_REFUSED);
    EXPECT_EQ(statusOf([] { listed(std::string("\xfe\xff\0a\0\n", 6)); }), EXIT_REFUSED);
}

TEST(M3uList, AByteOrderMarkIsOneAtTheBeginningOnly)
{
    EXPECT_THAT(listed("a\n\xef\xbb\xbf"
                       "b\n"),
                ElementsAre("a", "\xef\xbb\xbf"
                                 "b"));
}

TEST(M3uList, UrlsAreRefused)
{
    EXPECT_EQ(statusOf([] { listed("a.wav\nhttp://radio/x.mp3\n"); }), EXIT_REFUSED);
}

TEST(FileList, TheListStandsWhereTheDashIs)
{
    std::istringstream list("b\n/c\n");
    EXPECT_THAT(expandFiles({"a", "-", "/d"}, list, ""), ElementsAre("a", "b", "/c", "/d"));
}

TEST(FileList, RelativeFilesBeginAtTheBase)
{
    std::istringstream list("b\n/c\n");
    EXPECT_THAT(expandFiles({"a", "-"}, list, "/mnt/usb"), ElementsAre("/mnt/usb/a", "/mnt/usb/b", "/c"));
}

TEST(FileList, NoFilesMakeNoSense)
{
    std::istringstream list("#EXTM3U\n");
    EXPECT_EQ(statusOf([&list] { expandFiles({"-"}, list, ""); }), EXIT_USAGE);
}

TEST(FileList, AnEmptyNameMakesNoSense)
{
    std::istringstream list;
    EXPECT_EQ(statusOf([&list] { expandFiles({"a", ""}, list, "/mnt/usb"); }), EXIT_USAGE);
}

TEST(UsbName, IsWhatFollowsTheMount)
{
    EXPECT_EQ(usbName("/mnt/usb/a.wav"), "a.wav");
    EXPECT_EQ(usbName("/mnt/usb//x/./y/../a.wav"), "x/a.wav");
}

TEST(UsbName, AnythingElseIsRefused)
{
    for (const std::string file : {"/mnt/usb/", "/mnt/usb", "/mnt/usbx/a", "/mnt/usb/../a", "a"})
        EXPECT_EQ(statusOf([&file] { usbName(file); }), EXIT_REFUSED) << file;
}

TEST(UsbName, APathOf1023BytesIsTakenAndOneMoreIsNot)
{
    const std::string mount = "/mnt/usb/";
    EXPECT_EQ(usbName(mount + std::string(1014, 'a')).size(), 1014u);
    EXPECT_EQ(statusOf([&mount] { usbName(mount + std::string(1015, 'a')); }), EXIT_REFUSED);
}

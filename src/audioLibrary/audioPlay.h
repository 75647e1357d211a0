#pragma once

/**
 * Bases of every source block: CAudioPlay, and below it CAudioFilePlay for sources that play a named file and
 * CAudioStreamPlay for sources that play a stream by URL.
 */

#include "audioLibrary/audioBlock.h"

#include <cstdint>
#include <string>

namespace audioLibrarySpace
{

/** How far a source has got in its file or stream. */
enum fileStatus_e : int32_t {
    FILE_DONE = 1,   ///< reached its end
    FILE_OK = 0,     ///< delivering
    FILE_ERROR = -1, ///< failed
    FILE_NONE = -2,  ///< no file
};

class CAudioPlay : public CAudioBlock
{
public:
    explicit CAudioPlay(std::string name);
    ~CAudioPlay() override;
    runTimeId getRunTimeId() override;
    /** Milliseconds until the end; -1 for a source without an end. */
    virtual int32_t timeLeft();
    /** The first output's avgRate cut to whole hertz, times 1000; 0 without an output. */
    int getCalculatedAvgRate();

protected:
    fileStatus_e fileStatus = FILE_NONE; ///< none until a source that has a file or stream says otherwise
};

class CAudioFilePlay : public CAudioPlay
{
public:
    explicit CAudioFilePlay(std::string name);
    ~CAudioFilePlay() override;
    runTimeId getRunTimeId() override;
    /** Opens the file `name` and takes on its format. The port must be free. */
    virtual streamStatus setNewFile(std::string name);
    std::string getFilename() const { return filename; }

protected:
    std::string filename; ///< the file that setNewFile() was given
};

class CAudioStreamPlay : public CAudioPlay
{
public:
    explicit CAudioStreamPlay(std::string name);
    ~CAudioStreamPlay() override;
    runTimeId getRunTimeId() override;
    /** Sets out to play the stream at `url`. */
    virtual streamStatus setNewTopUrl(std::string url);
    std::string getTopUrl() const { return topUrl; }
    std::string getServerName() const { return serverName; }
    std::string getServerUrl() const { return serverUrl; }
    std::string getGenre() const { return genre; }

protected:
    std::string topUrl;
    std::string serverName;
    std::string serverUrl;
    std::string genre;
};

} // namespace audioLibrarySpace

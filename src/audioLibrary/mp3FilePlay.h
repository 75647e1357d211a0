#pragma once

/** CMp3FilePlay: source block that plays one MP3 file. */

#include "audioLibrary/audioPlay.h"

#include <string>

namespace audioLibrarySpace
{

class CMp3FilePlay : public CAudioFilePlay
{
public:
    explicit CMp3FilePlay(std::string name);
    ~CMp3FilePlay() override;
    /** Opens the file `newName`; anything but STREAM_OK means that it can't be played. */
    streamStatus setNewFile(std::string newName) override;
};

} // namespace audioLibrarySpace

#include "audioLibrary/mp3FilePlay.h"

#include <utility>

namespace audioLibrarySpace
{

CMp3FilePlay::CMp3FilePlay(std::string name) : CAudioFilePlay(std::move(name)) {}

CMp3FilePlay::~CMp3FilePlay() = default;

streamStatus CMp3FilePlay::setNewFile(std::string /*newName*/)
{
    return STREAM_ERROR;
}

} // namespace audioLibrarySpace

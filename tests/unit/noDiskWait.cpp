/**
 * A test's database need not outlive a power cut. The executable's own definitions come before the C library's, so
 * SQLite calls these; without them each test waits for the disk some thirty times.
 */

#include <unistd.h>

extern "C" {

int fsync(int)
{
    return 0;
}

int fdatasync(int)
{
    return 0;
}

} // extern "C"

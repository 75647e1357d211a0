/**
 * The host as a system test wants it: preloaded into the daemon, it sets the wall clock and takes the power away between
 * two writes of the database.
 *
 *   in:  HOST_SHIM_PAGE, a file of 24 bytes that the test writes at any time:
 *          clockNs     what CLOCK_REALTIME tells, in ns since the epoch, and stands still; 0: the host's own
 *          killAt      which write of the database is not made any more, counted from here on; 0: all are made
 *   out: in the same file
 *          writes      writes of the database so far
 *
 * A write is whatever changes the database's file or its journal, or makes a change last: pwrite, ftruncate, fdatasync
 * and unlink, on files whose names begin with "audioDatabase.db". The end is SIGKILL, before the write.
 * Thread: any.
 */

#include <array>
#include <atomic>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/mman.h>
#include <time.h>
#include <unistd.h>

namespace
{

struct Page {
    std::atomic<int64_t> clockNs;
    std::atomic<int64_t> killAt;
    std::atomic<int64_t> writes;
};

Page* openPage()
{
    const char* path = getenv("HOST_SHIM_PAGE");
    const int file = path != nullptr ? open(path, O_RDWR | O_CLOEXEC) : -1;
    if (file == -1)
        return nullptr;
    void* memory = mmap(nullptr, sizeof(Page), PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
    close(file);
    return memory == MAP_FAILED ? nullptr : static_cast<Page*>(memory);
}

Page* page()
{
    static Page* const mapped = openPage();
    return mapped;
}

bool isDatabase(const char* path)
{
    const char* name = strrchr(path, '/');
    return strncmp(name != nullptr ? name + 1 : path, "audioDatabase.db", strlen("audioDatabase.db")) == 0;
}

bool isDatabase(int file)
{
    std::array<char, 64> link;
    snprintf(link.data(), link.size(), "/proc/self/fd/%d", file);
    std::array<char, 4096> path = {};
    return readlink(link.data(), path.data(), path.size() - 1) > 0 && isDatabase(path.data());
}

/** Counts a write that is about to be made, or ends the process instead. */
template <typename File> void beforeWrite(File file)
{
    if (page() == nullptr || !isDatabase(file))
        return;
    if (page()->killAt > 0 && --page()->killAt == 0)
        kill(getpid(), SIGKILL);
    page()->writes += 1;
}

template <typename Function> Function next(const char* name)
{
    return reinterpret_cast<Function>(dlsym(RTLD_NEXT, name));
}

} // namespace

extern "C" {

int clock_gettime(clockid_t clock, timespec* now) noexcept
{
    // Where a long has 32 bits, the call with the longer time has a name of its own.
    constexpr const char* name = sizeof(time_t) > sizeof(long) ? "__clock_gettime64" : "clock_gettime";
    static const auto host = next<int (*)(clockid_t, timespec*)>(name);
    const int64_t told = clock == CLOCK_REALTIME && page() != nullptr ? page()->clockNs.load() : 0;
    if (told == 0)
        return host(clock, now);
    now->tv_sec = static_cast<time_t>(told / 1'000'000'000);
    now->tv_nsec = static_cast<long>(told % 1'000'000'000);
    return 0;
}

ssize_t pwrite64(int file, const void* data, size_t numBytes, off64_t at)
{
    static const auto host = next<ssize_t (*)(int, const void*, size_t, off64_t)>("pwrite64");
    beforeWrite(file);
    return host(file, data, numBytes, at);
}

int ftruncate64(int file, off64_t numBytes) noexcept
{
    static const auto host = next<int (*)(int, off64_t)>("ftruncate64");
    beforeWrite(file);
    return host(file, numBytes);
}

int fdatasync(int file)
{
    static const auto host = next<int (*)(int)>("fdatasync");
    beforeWrite(file);
    return host(file);
}

int unlink(const char* path) noexcept
{
    static const auto host = next<int (*)(const char*)>("unlink");
    beforeWrite(path);
    return host(path);
}

} // extern "C"

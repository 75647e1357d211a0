/**
 * Times the passes of the audio manager's loop from outside: preloaded into the daemon, it stands before select(), the
 * one place where that loop waits, and keeps the longest time from the end of one wait to the beginning of the next.
 *
 *   in:  PASS_TIMER_PAGE, a file of 24 bytes
 *   out: in that file three native 64-bit numbers: passes, longest pass in ns, sum of all passes in ns; whoever writes
 *        zeros there begins anew
 *
 * Thread: only those that call select, which is audio_manager alone.
 */

#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <dlfcn.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/select.h>
#include <time.h>
#include <unistd.h>

namespace
{

struct Page {
    std::atomic<uint64_t> passes;
    std::atomic<uint64_t> longestNs;
    std::atomic<uint64_t> sumNs;
};

Page* openPage()
{
    const char* path = getenv("PASS_TIMER_PAGE");
    const int file = path != nullptr ? open(path, O_RDWR) : -1;
    if (file == -1)
        return nullptr;
    void* memory = mmap(nullptr, sizeof(Page), PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
    close(file);
    return memory == MAP_FAILED ? nullptr : static_cast<Page*>(memory);
}

uint64_t nowNs()
{
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1'000'000'000U + static_cast<uint64_t>(now.tv_nsec);
}

void count(Page& page, uint64_t passNs)
{
    page.passes += 1;
    page.sumNs += passNs;
    if (passNs > page.longestNs)
        page.longestNs = passNs;
}

} // namespace

extern "C" int select(int numDescriptors, fd_set* readable, fd_set* writable, fd_set* failed, timeval* timeout)
{
    using Select = int (*)(int, fd_set*, fd_set*, fd_set*, timeval*);
    // Where a long has 32 bits, the call with the longer time has a name of its own.
    constexpr const char* name = sizeof(time_t) > sizeof(long) ? "__select64" : "select";
    static const Select wait = reinterpret_cast<Select>(dlsym(RTLD_NEXT, name));
    static Page* const page = openPage();
    thread_local uint64_t lastEnd = 0;
    if (page != nullptr && lastEnd != 0)
        count(*page, nowNs() - lastEnd);
    const int result = wait(numDescriptors, readable, writable, failed, timeout);
    lastEnd = nowNs();
    return result;
}

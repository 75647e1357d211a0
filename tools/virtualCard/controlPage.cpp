#include "controlPage.h"

#include <algorithm>
#include <bit>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <fcntl.h>
#include <limits>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

namespace vcard
{

ControlPage::~ControlPage()
{
    unmap();
}

int ControlPage::map(const std::string& path, bool create)
{
    unmap();
    fd = ::open(path.c_str(), O_RDWR | O_CLOEXEC | (create ? O_CREAT : 0), 0644);
    if (fd < 0)
        return -errno;
    struct stat attributes;
    void* memory = MAP_FAILED;
    if (fstat(fd, &attributes) == 0 &&
        (attributes.st_size >= static_cast<off_t>(pageBytes) || ftruncate(fd, static_cast<off_t>(pageBytes)) == 0))
        memory = mmap(nullptr, pageBytes, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    if (memory == MAP_FAILED) {
        const int error = errno;
        unmap();
        return -error;
    }
    page = static_cast<PageLayout*>(memory);
    if (std::memcmp(page->magic, pageMagic, sizeof pageMagic) != 0 || page->version != pageVersion)
        initialize();
    return 0;
}

void ControlPage::initialize()
{
    std::memset(static_cast<void*>(page), 0, pageBytes);
    requestPpm(std::numeric_limits<double>::quiet_NaN());
    page->requests.forgiveNs = -1;
    page->bytes = pageBytes;
    page->version = pageVersion;
    // The magic comes last: who sees it may use the rest.
    std::atomic_thread_fence(std::memory_order_release);
    std::memcpy(page->magic, pageMagic, sizeof pageMagic);
}

int ControlPage::lock()
{
    if (flock(fd, LOCK_EX | LOCK_NB) == 0)
        return 0;
    return errno == EWOULDBLOCK ? -EBUSY : -errno;
}

void ControlPage::unmap()
{
    if (page != nullptr)
        munmap(page, pageBytes);
    if (fd >= 0)
        ::close(fd);
    page = nullptr;
    fd = -1;
}

void ControlPage::publish(const PageStatus& status)
{
    uint64_t words[sizeof(PageStatus) / 8];
    std::memcpy(words, &status, sizeof words);
    // A process killed while it wrote has left an odd number: the next one goes on from there.
    const uint64_t before = page->sequence.load(std::memory_order_relaxed) | 1;
    page->sequence.store(before, std::memory_order_relaxed);
    std::atomic_thread_fence(std::memory_order_release);
    for (size_t i = 0; i < std::size(words); ++i)
        page->status[i].store(words[i], std::memory_order_relaxed);
    page->sequence.store(before + 1, std::memory_order_release);
}

PageStatus ControlPage::status() const
{
    uint64_t words[sizeof(PageStatus) / 8];
    for (size_t i = 0; i < std::size(words); ++i)
        words[i] = page->status[i].load(std::memory_order_relaxed);
    PageStatus status;
    std::memcpy(static_cast<void*>(&status), words, sizeof words);
    return status;
}

void ControlPage::publishRecordingPath(const std::string& path)
{
    const size_t length = std::min(path.size(), sizeof page->recordingPath - 1);
    std::memcpy(page->recordingPath, path.data(), length);
    page->recordingPath[length] = '\0';
}

bool takeOne(std::atomic<int32_t>& pending)
{
    int32_t count = pending.load();
    while (count > 0) {
        if (pending.compare_exchange_weak(count, count - 1))
            return true;
    }
    return false;
}

bool ControlPage::takeFault(Step step, int32_t& error)
{
    FaultSlot& slot = page->requests.faults[static_cast<size_t>(step)];
    const int32_t remaining = slot.remaining.load();
    if (remaining == 0 || takeOne(slot.skip))
        return false;
    if (remaining > 0 && !takeOne(slot.remaining))
        return false;
    const int32_t asked = slot.error.load();
    error = asked > 0 ? asked : EIO;
    return true;
}

double ControlPage::ppm(double configured) const
{
    const double asked = std::bit_cast<double>(page->requests.ppmBits.load());
    return std::isfinite(asked) && asked > -1e6 ? asked : configured;
}

void ControlPage::requestPpm(double ppm)
{
    page->requests.ppmBits = std::bit_cast<uint64_t>(ppm);
}

} // namespace vcard

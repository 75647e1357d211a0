/**
 * The card of the tests. One lock guards all of it, one condition variable tells of every change.
 */

#include "audioLibrary/alsaFake.h"

#include <algorithm>
#include <alsa/asoundlib.h>
#include <cassert>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <deque>
#include <map>
#include <mutex>
#include <sched.h>
#include <unistd.h>
#include <utility>

/** One open of the card. Handles are not used twice, so a call on a closed one is noticed. */
struct _snd_pcm {
    bool open;
};

struct _snd_pcm_hw_params {
    unsigned char content[64];
};

namespace alsaFake
{

namespace
{

constexpr std::chrono::seconds LIMIT{30};
/** The sleep of a destructor: whoever takes it is about to join the playback thread. */
constexpr unsigned int LEAVING_US = 10000;

struct Failure {
    int error;
    int times;
};

struct State {
    std::map<std::string, Failure> failures;
    unsigned int rate = 0;
    unsigned int numPeriods = 0;
    unsigned int bufferSize = 0;
    bool priorityRefused = false;

    std::vector<std::string> calls;
    std::vector<char> bytes;
    std::vector<unsigned int> ownerSleeps;
    unsigned int numFrames = 0;
    int misuses = 0;
    int policy = -1;
    int priority = -1;
    bool recording = true;
    snd_pcm_format_t format = SND_PCM_FORMAT_UNKNOWN;
    unsigned int numChannels = 0;

    std::deque<long> readResults;
    uint32_t numFramesRead = 0;
    std::function<void()> duringEachCall;

    std::deque<long> writeResults;
    unsigned int room = 0;     ///< frames that the card takes without waiting
    unsigned int sleeping = 0; ///< microseconds of the sleep that the playback thread is in
    bool sleepEnds = false;    ///< that sleep is over
    uint64_t sleepsBegun = 0;  ///< sleeps of the playback thread
    bool writeWaits = false;   ///< the playback thread waits for room
    bool dropped = false;      ///< the write that waits was dropped
    bool running = false;      ///< sleeps end at once
    bool ownerLeaves = false;  ///< nothing stops the thread any more: it is about to be joined
};

// Never destroyed: a thread that a failed test left behind may still wait on them.
std::mutex& mutex = *new std::mutex;
std::condition_variable& changed = *new std::condition_variable;
State& state = *new State;

std::deque<_snd_pcm>& handles = *new std::deque<_snd_pcm>;

thread_local bool isPlaybackThread = false;

using Lock = std::unique_lock<std::mutex>;

template <typename Condition> bool waitUntil(Lock& lock, Condition condition)
{
    return changed.wait_for(lock, LIMIT, condition);
}

/** 0, or the error that `function` is to fail with now. */
int failureOf(const std::string& function)
{
    const auto found = state.failures.find(function);
    if (found == state.failures.end() || found->second.times == 0) {
        return 0;
    }
    found->second.times--;
    return found->second.error;
}

void recordCall(const std::string& call)
{
    if (state.recording) {
        state.calls.push_back(call);
    }
}

void checkHandle(const snd_pcm_t* handle)
{
    if (handle == nullptr || !handle->open) {
        state.misuses++;
    }
}

/** What the test wants to look at within a call; outside the lock. */
void visitTest()
{
    std::function<void()> action;
    {
        const Lock lock(mutex);
        action = state.duringEachCall;
    }
    if (action) {
        action();
    }
}

/** A step of the configuration on an open handle: recorded, then answered. */
int configure(const snd_pcm_t* handle, const std::string& function, const std::string& argument)
{
    visitTest();
    const Lock lock(mutex);
    checkHandle(handle);
    recordCall(function + "(" + argument + ")");
    return failureOf(function);
}

size_t frameBytes()
{
    return state.numChannels * static_cast<size_t>(snd_pcm_format_physical_width(state.format) / 8);
}

/** What the write answers, or waits for first. */
long takeFrames(Lock& lock, unsigned long offered)
{
    while (state.writeResults.empty() && state.room == 0 && !state.ownerLeaves) {
        state.writeWaits = true;
        changed.notify_all();
        changed.wait(lock);
        if (state.dropped) {
            state.dropped = false;
            state.writeWaits = false;
            return -EBADFD;
        }
    }
    state.writeWaits = false;
    if (!state.writeResults.empty()) {
        const long result = state.writeResults.front();
        state.writeResults.pop_front();
        return std::min(result, static_cast<long>(offered));
    }
    if (state.room == 0) {
        return -EAGAIN; // the owner leaves
    }
    const auto taken = static_cast<unsigned int>(std::min<unsigned long>(offered, state.room));
    state.room -= taken;
    return taken;
}

/** What the read answers; its frames go to `buffer`. */
long giveFrames(void* buffer, unsigned long wanted)
{
    if (state.readResults.empty()) {
        return -EAGAIN;
    }
    const long result = std::min(state.readResults.front(), static_cast<long>(wanted));
    for (long frame = 0; frame < result; frame++) {
        state.numFramesRead++;
        std::memcpy(static_cast<char*>(buffer) + static_cast<size_t>(frame) * sizeof state.numFramesRead,
                    &state.numFramesRead, sizeof state.numFramesRead);
    }
    if (result > 0 && result < state.readResults.front()) {
        state.readResults.front() -= result;
    } else {
        state.readResults.pop_front();
    }
    return result;
}

void sleepOfPlaybackThread(unsigned int us)
{
    Lock lock(mutex);
    state.sleeping = us;
    state.sleepEnds = false;
    state.sleepsBegun++;
    changed.notify_all();
    changed.wait(lock, [] { return state.sleepEnds || state.running || state.ownerLeaves; });
    state.sleeping = 0;
    changed.notify_all();
    lock.unlock();
    sched_yield();
}

} // namespace

Card& card()
{
    static Card theCard;
    return theCard;
}

bool onPlaybackThread()
{
    return isPlaybackThread;
}

void Card::reset()
{
    const Lock lock(mutex);
    state = State();
    handles.clear(); // also those that an earlier test left open
}

void Card::fail(const std::string& function, int error, int times)
{
    const Lock lock(mutex);
    state.failures[function] = {error, times};
}

void Card::grantRate(unsigned int rate)
{
    const Lock lock(mutex);
    state.rate = rate;
}

void Card::grantPeriods(unsigned int numPeriods)
{
    const Lock lock(mutex);
    state.numPeriods = numPeriods;
}

void Card::grantBufferSize(unsigned int numFrames)
{
    const Lock lock(mutex);
    state.bufferSize = numFrames;
}

void Card::refusePriority()
{
    const Lock lock(mutex);
    state.priorityRefused = true;
}

std::vector<std::string> Card::calls() const
{
    const Lock lock(mutex);
    return state.calls;
}

void Card::clearCalls()
{
    const Lock lock(mutex);
    state.calls.clear();
}

void Card::note(const std::string& event)
{
    const Lock lock(mutex);
    recordCall(event);
}

std::vector<int32_t> Card::written() const
{
    const Lock lock(mutex);
    assert(state.format == SND_PCM_FORMAT_S32_LE || state.bytes.empty());
    std::vector<int32_t> samples(state.bytes.size() / sizeof(int32_t));
    if (!samples.empty()) {
        std::memcpy(samples.data(), state.bytes.data(), samples.size() * sizeof(int32_t));
    }
    return samples;
}

std::vector<char> Card::writtenBytes() const
{
    const Lock lock(mutex);
    return state.bytes;
}

unsigned int Card::numFramesWritten() const
{
    const Lock lock(mutex);
    return state.numFrames;
}

std::vector<unsigned int> Card::ownerSleeps() const
{
    const Lock lock(mutex);
    return state.ownerSleeps;
}

bool Card::isOpen() const
{
    const Lock lock(mutex);
    return std::any_of(handles.begin(), handles.end(), [](const _snd_pcm& handle) { return handle.open; });
}

int Card::numMisuses() const
{
    const Lock lock(mutex);
    return state.misuses;
}

int Card::scheduledPolicy() const
{
    const Lock lock(mutex);
    return state.policy;
}

int Card::scheduledPriority() const
{
    const Lock lock(mutex);
    return state.priority;
}

void Card::record(bool wanted)
{
    const Lock lock(mutex);
    state.recording = wanted;
}

void Card::answerWrites(std::initializer_list<long> results)
{
    const Lock lock(mutex);
    state.writeResults.insert(state.writeResults.end(), results);
    changed.notify_all();
}

void Card::answerReads(std::initializer_list<long> results)
{
    const Lock lock(mutex);
    state.readResults.insert(state.readResults.end(), results);
}

uint32_t Card::numFramesRead() const
{
    const Lock lock(mutex);
    return state.numFramesRead;
}

void Card::duringEachCall(std::function<void()> action)
{
    const Lock lock(mutex);
    state.duringEachCall = std::move(action);
}

void Card::allow(unsigned int numFrames)
{
    const Lock lock(mutex);
    state.room += numFrames;
    state.ownerLeaves = false;
    changed.notify_all();
}

bool Card::play(unsigned int numFrames)
{
    Lock lock(mutex);
    state.room += numFrames;
    state.ownerLeaves = false;
    state.running = true;
    changed.notify_all();
    const bool done = waitUntil(lock, [] { return state.writeWaits && state.room == 0 && state.writeResults.empty(); });
    state.running = false;
    return done;
}

unsigned int Card::waitForSleep()
{
    Lock lock(mutex);
    return waitUntil(lock, [] { return state.sleeping != 0; }) ? state.sleeping : 0;
}

unsigned int Card::nextSleep()
{
    Lock lock(mutex);
    if (!waitUntil(lock, [] { return state.sleeping != 0; })) {
        return 0;
    }
    const uint64_t sleepsBefore = state.sleepsBegun;
    state.sleepEnds = true;
    changed.notify_all();
    return waitUntil(lock, [&] { return state.sleepsBegun > sleepsBefore; }) ? state.sleeping : 0;
}

bool Card::waitForBlockedWrite()
{
    Lock lock(mutex);
    return waitUntil(lock, [] { return state.writeWaits; });
}

} // namespace alsaFake

// ------------------------------------------------------------------------------------- in the place of libasound

using namespace alsaFake;

extern "C" {

const char* snd_strerror(int errnum)
{
    return strerror(-errnum);
}

int snd_pcm_open(snd_pcm_t** pcm, const char* name, snd_pcm_stream_t stream, int mode)
{
    visitTest();
    const Lock lock(mutex);
    const char* const direction = stream == SND_PCM_STREAM_PLAYBACK ? "PLAYBACK" : "CAPTURE";
    recordCall(std::string("snd_pcm_open(") + name + ", " + direction + ", " + std::to_string(mode) + ")");
    const int error = failureOf("snd_pcm_open");
    handles.push_back({error == 0});
    *pcm = &handles.back(); // after a failure a handle that is good for nothing: the library promises no null
    if (error != 0) {
        errno = -error;
        return error;
    }
    return 0;
}

int snd_pcm_close(snd_pcm_t* pcm)
{
    const int error = configure(pcm, "snd_pcm_close", "");
    const Lock lock(mutex);
    if (state.writeWaits) {
        state.misuses++; // closed under a write
    }
    pcm->open = false;
    return error;
}

int snd_pcm_drop(snd_pcm_t* pcm)
{
    const int error = configure(pcm, "snd_pcm_drop", "");
    const Lock lock(mutex);
    if (state.writeWaits) {
        state.dropped = true;
        changed.notify_all();
    }
    return error;
}

int snd_pcm_prepare(snd_pcm_t* pcm)
{
    return configure(pcm, "snd_pcm_prepare", "");
}

int snd_pcm_start(snd_pcm_t* pcm)
{
    return configure(pcm, "snd_pcm_start", "");
}

int snd_pcm_recover(snd_pcm_t* pcm, int err, int silent)
{
    return configure(pcm, "snd_pcm_recover", std::to_string(err) + ", " + std::to_string(silent));
}

snd_pcm_sframes_t snd_pcm_readi(snd_pcm_t* pcm, void* buffer, snd_pcm_uframes_t size)
{
    visitTest();
    const Lock lock(mutex);
    checkHandle(pcm);
    const long result = giveFrames(buffer, size);
    if (state.recording) {
        state.calls.push_back("snd_pcm_readi(" + std::to_string(size) + ") = " + std::to_string(result));
    }
    return result;
}

snd_pcm_sframes_t snd_pcm_writei(snd_pcm_t* pcm, const void* buffer, snd_pcm_uframes_t size)
{
    Lock lock(mutex);
    checkHandle(pcm);
    const long result = takeFrames(lock, size);
    if (result > 0) {
        state.numFrames += static_cast<unsigned int>(result);
    }
    if (state.recording) {
        state.calls.push_back("snd_pcm_writei(" + std::to_string(size) + ") = " + std::to_string(result));
        if (result > 0) {
            const char* const first = static_cast<const char*>(buffer);
            state.bytes.insert(state.bytes.end(), first, first + static_cast<size_t>(result) * frameBytes());
        }
    }
    changed.notify_all();
    return result;
}

size_t snd_pcm_hw_params_sizeof(void)
{
    return sizeof(_snd_pcm_hw_params);
}

int snd_pcm_hw_params_any(snd_pcm_t* pcm, snd_pcm_hw_params_t* params)
{
    for (const unsigned char byte : params->content) {
        if (byte != 0) {
            const Lock lock(mutex);
            state.misuses++;
            break;
        }
    }
    return configure(pcm, "snd_pcm_hw_params_any", "");
}

int snd_pcm_hw_params_set_access(snd_pcm_t* pcm, snd_pcm_hw_params_t*, snd_pcm_access_t access)
{
    return configure(pcm, "snd_pcm_hw_params_set_access",
                     access == SND_PCM_ACCESS_RW_INTERLEAVED      ? "RW_INTERLEAVED"
                     : access == SND_PCM_ACCESS_RW_NONINTERLEAVED ? "RW_NONINTERLEAVED"
                                                                  : "other");
}

int snd_pcm_hw_params_set_format(snd_pcm_t* pcm, snd_pcm_hw_params_t*, snd_pcm_format_t format)
{
    const int error = configure(pcm, "snd_pcm_hw_params_set_format", std::to_string(static_cast<int>(format)));
    const Lock lock(mutex);
    state.format = format;
    return error;
}

int snd_pcm_format_physical_width(snd_pcm_format_t format)
{
    switch (format) {
    case SND_PCM_FORMAT_S16_LE:
    case SND_PCM_FORMAT_S16_BE:
        return 16;
    case SND_PCM_FORMAT_S32_LE:
    case SND_PCM_FORMAT_S32_BE:
        return 32;
    default:
        return 0;
    }
}

int snd_pcm_hw_params_set_rate_resample(snd_pcm_t* pcm, snd_pcm_hw_params_t*, unsigned int val)
{
    return configure(pcm, "snd_pcm_hw_params_set_rate_resample", std::to_string(val));
}

int snd_pcm_hw_params_set_rate_near(snd_pcm_t* pcm, snd_pcm_hw_params_t*, unsigned int* val, int*)
{
    const int error = configure(pcm, "snd_pcm_hw_params_set_rate_near", std::to_string(*val));
    const Lock lock(mutex);
    *val = state.rate != 0 ? state.rate : *val;
    return error;
}

int snd_pcm_hw_params_set_channels(snd_pcm_t* pcm, snd_pcm_hw_params_t*, unsigned int val)
{
    const int error = configure(pcm, "snd_pcm_hw_params_set_channels", std::to_string(val));
    const Lock lock(mutex);
    state.numChannels = val;
    return error;
}

int snd_pcm_hw_params_set_periods(snd_pcm_t* pcm, snd_pcm_hw_params_t*, unsigned int val, int dir)
{
    return configure(pcm, "snd_pcm_hw_params_set_periods", std::to_string(val) + ", " + std::to_string(dir));
}

int snd_pcm_hw_params_set_periods_near(snd_pcm_t* pcm, snd_pcm_hw_params_t*, unsigned int* val, int*)
{
    const int error = configure(pcm, "snd_pcm_hw_params_set_periods_near", std::to_string(*val));
    const Lock lock(mutex);
    *val = state.numPeriods != 0 ? state.numPeriods : *val;
    return error;
}

int snd_pcm_hw_params_set_buffer_size_near(snd_pcm_t* pcm, snd_pcm_hw_params_t*, snd_pcm_uframes_t* val)
{
    const int error = configure(pcm, "snd_pcm_hw_params_set_buffer_size_near", std::to_string(*val));
    const Lock lock(mutex);
    *val = state.bufferSize != 0 ? state.bufferSize : *val;
    return error;
}

int snd_pcm_hw_params(snd_pcm_t* pcm, snd_pcm_hw_params_t*)
{
    return configure(pcm, "snd_pcm_hw_params", "");
}

// ------------------------------------------------------------------------------------------ in the place of libc

int usleep(useconds_t us)
{
    if (isPlaybackThread) {
        sleepOfPlaybackThread(us);
        return 0;
    }
    {
        const Lock lock(mutex);
        if (state.recording) {
            state.ownerSleeps.push_back(us);
        }
        if (us == LEAVING_US) {
            state.ownerLeaves = true;
            changed.notify_all();
        }
    }
    sched_yield();
    return 0;
}

int sched_setscheduler(pid_t, int policy, const sched_param* param) noexcept
{
    const Lock lock(mutex);
    isPlaybackThread = true;
    state.policy = policy;
    state.priority = param->sched_priority;
    state.ownerLeaves = false; // a new thread has a new owner
    if (state.priorityRefused) {
        errno = EPERM;
        return -1;
    }
    return 0;
}
}

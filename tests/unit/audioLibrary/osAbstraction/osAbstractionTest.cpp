/** Threads, mutexes and semaphores: slots, statuses and texts. */

#include "audioLibrary/osAbstraction/osAbstraction.h"

#include <array>
#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <new>
#include <optional>
#include <pthread.h>
#include <semaphore.h>
#include <string>
#include <thread>

using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStdout;

namespace
{

// What the system is told to answer; unset, it answers for itself.
std::optional<int> threadAnswer;
std::optional<int> mutexAnswer;
bool memoryIsOut = false;

} // namespace

extern "C" {
int __real_pthread_create(pthread_t* thread, const pthread_attr_t* attr, void* (*start)(void*), void* argument);
int __wrap_pthread_create(pthread_t* thread, const pthread_attr_t* attr, void* (*start)(void*), void* argument)
{
    if (threadAnswer) {
        *thread = 12345; // as the library may leave it: the name of no thread
        return *threadAnswer;
    }
    return __real_pthread_create(thread, attr, start, argument);
}

int __real_pthread_mutex_init(pthread_mutex_t* mutex, const pthread_mutexattr_t* attr);
int __wrap_pthread_mutex_init(pthread_mutex_t* mutex, const pthread_mutexattr_t* attr)
{
    return mutexAnswer ? *mutexAnswer : __real_pthread_mutex_init(mutex, attr);
}
}

void* operator new(size_t numBytes, const std::nothrow_t&) noexcept
{
    return memoryIsOut ? nullptr : ::operator new(numBytes);
}

namespace
{

/** The shape of an error report: function, line, message; the line number is free. */
testing::Matcher<const std::string&> reports(const std::string& function, const std::string& message)
{
    return testing::MatchesRegex("ERROR: " + function + "\\(\\)-[0-9]+:" + message);
}

/** Every mutex there is room for; released at the end. */
class AllMutexes
{
public:
    AllMutexes()
    {
        for (auto& mutex : mutexes) {
            EXPECT_EQ(osaCreateMutex(&mutex), OSA_OK);
        }
    }
    ~AllMutexes()
    {
        for (auto& mutex : mutexes) {
            osaReleaseMutex(&mutex);
        }
    }
    AllMutexes(const AllMutexes&) = delete;
    AllMutexes& operator=(const AllMutexes&) = delete;

    std::array<mutexObject, 64> mutexes;
};

/** A body that counts its runs in the integer it is given. */
void* countRun(void* counter)
{
    (*static_cast<std::atomic<int>*>(counter))++;
    return nullptr;
}

threadObject counting(std::atomic<int>& runs)
{
    threadObject thread;
    thread.threadFn = countRun;
    thread.threadPtr = &runs;
    return thread;
}

} // namespace

// ---- vocabulary

TEST(OsaStatus, NumbersAreFixed)
{
    EXPECT_EQ(OSA_OK, 0);
    EXPECT_EQ(OSA_ERROR, -1);
    EXPECT_EQ(OSA_CONNECTION_LOST, -2);
    EXPECT_EQ(OSA_NO_RESOURCE, -3);
    EXPECT_EQ(OSA_NO_MEM, -4);
    EXPECT_EQ(OSA_EINVAL, -5);
    EXPECT_EQ(OSA_SOCK_ERROR, -6);
    EXPECT_EQ(OSA_PACKET_BUFFER_OVER, -7);
    EXPECT_EQ(OSA_THREAD_ERROR, -8);
    EXPECT_EQ(OSA_MUTEX_ERROR, -9);
    EXPECT_EQ(OSA_IN_PROGRESS, -10);
    EXPECT_EQ(OSA_MUTEX_NOT_AVAILABLE, -11);
    EXPECT_EQ(OSA_SEMAPHORE_ERROR, -12);
    EXPECT_EQ(OSA_SEMAPHORE_NOT_AVAILABLE, -13);
    EXPECT_EQ(ID_SOCK_OBJECT, 0);
    EXPECT_EQ(ID_MUTEX_OBJECT, 1);
    EXPECT_EQ(ID_THREAD_OBJECT, 2);
}

TEST(OsaTrace, LevelIsZeroAndReachedThroughItsPointer)
{
    EXPECT_EQ(osa_trace_level, 0U);
    EXPECT_EQ(tl, &osa_trace_level);
}

// ---- mutexes

TEST(OsaMutex, NullIsRefused)
{
    CaptureStdout();
    EXPECT_EQ(osaCreateMutex(nullptr), OSA_EINVAL);
    EXPECT_THAT(GetCapturedStdout(), reports("osaCreateMutex", "no mutex object provided\n"));
}

TEST(OsaMutex, CreationFillsTheObject)
{
    mutexObject mutex;
    objectId other;
    mutex.id.next = &other;
    mutex.id.prev = &other;
    ASSERT_EQ(osaCreateMutex(&mutex), OSA_OK);
    EXPECT_EQ(mutex.id.index, 0U);
    EXPECT_EQ(mutex.id.type, ID_THREAD_OBJECT); // every kind carries it
    EXPECT_EQ(mutex.id.next, nullptr);
    EXPECT_EQ(mutex.id.prev, nullptr);
    osaReleaseMutex(&mutex);
}

TEST(OsaMutex, SixtyFifthIsRefused)
{
    AllMutexes all;
    EXPECT_EQ(all.mutexes[63].id.index, 63U);
    mutexObject one;
    one.id.index = 5;
    CaptureStdout();
    EXPECT_EQ(osaCreateMutex(&one), OSA_NO_RESOURCE);
    EXPECT_THAT(GetCapturedStdout(), reports("osaCreateMutex", "No available mutex context found\n"));
    EXPECT_EQ(one.id.index, 64U);
    EXPECT_EQ(osaReleaseMutex(&one), OSA_OK); // and none of the others is released by it
    CaptureStdout();
    EXPECT_EQ(osaCreateMutex(&one), OSA_NO_RESOURCE);
    GetCapturedStdout();
}

TEST(OsaMutex, LowestReleasedSlotIsReused)
{
    AllMutexes all;
    osaReleaseMutex(&all.mutexes[40]);
    osaReleaseMutex(&all.mutexes[7]);
    mutexObject first;
    mutexObject second;
    ASSERT_EQ(osaCreateMutex(&first), OSA_OK);
    ASSERT_EQ(osaCreateMutex(&second), OSA_OK);
    EXPECT_EQ(first.id.index, 7U);
    EXPECT_EQ(second.id.index, 40U);
    // The objects of `all` name the same slots and release them.
}

TEST(OsaMutex, ReleaseOfAFreeSlotDoesNothing)
{
    mutexObject never;
    EXPECT_EQ(never.id.index, 64U);
    EXPECT_EQ(osaReleaseMutex(&never), OSA_OK);
    mutexObject once;
    ASSERT_EQ(osaCreateMutex(&once), OSA_OK);
    EXPECT_EQ(osaReleaseMutex(&once), OSA_OK);
    EXPECT_EQ(osaReleaseMutex(&once), OSA_OK);
}

TEST(OsaMutex, OutOfMemoryLeavesNoSlot)
{
    mutexObject mutex;
    memoryIsOut = true;
    CaptureStdout();
    EXPECT_EQ(osaCreateMutex(&mutex), OSA_NO_MEM);
    memoryIsOut = false;
    EXPECT_THAT(GetCapturedStdout(), reports("osaCreateMutex", "out of memory\n"));
    EXPECT_EQ(mutex.id.index, 64U);
}

TEST(OsaMutex, OnlyANegativeResultOfTheSystemIsAFailure)
{
    mutexObject mutex;
    mutexAnswer = -3;
    CaptureStdout();
    EXPECT_EQ(osaCreateMutex(&mutex), OSA_MUTEX_ERROR);
    EXPECT_THAT(GetCapturedStdout(), reports("osaCreateMutex", "failed MUTEX initialization \\(-3\\)"));
    mutexObject next;
    mutexAnswer = EAGAIN;
    CaptureStdout();
    EXPECT_EQ(osaCreateMutex(&next), OSA_OK);
    EXPECT_EQ(GetCapturedStdout(), "");
    EXPECT_EQ(next.id.index, 0U); // the failed one gave its slot back
    mutexAnswer.reset();
    osaReleaseMutex(&next);
}

TEST(OsaMutex, TryLockSeesAnotherThreadsLock)
{
    mutexObject mutex;
    ASSERT_EQ(osaCreateMutex(&mutex), OSA_OK);
    EXPECT_EQ(osaLock(&mutex), OSA_OK);
    std::thread([&] { EXPECT_EQ(osaTryLock(&mutex), OSA_MUTEX_NOT_AVAILABLE); }).join();
    EXPECT_EQ(osaUnlock(&mutex), OSA_OK);
    std::thread([&] {
        EXPECT_EQ(osaTryLock(&mutex), OSA_OK);
        EXPECT_EQ(osaUnlock(&mutex), OSA_OK);
    }).join();
    osaReleaseMutex(&mutex);
}

TEST(OsaMutex, ExcludesThreads)
{
    mutexObject mutex;
    ASSERT_EQ(osaCreateMutex(&mutex), OSA_OK);
    int sum = 0;
    auto add = [&] {
        for (int i = 0; i < 10000; i++) {
            osaLock(&mutex);
            sum++;
            osaUnlock(&mutex);
        }
    };
    std::thread one(add);
    std::thread two(add);
    one.join();
    two.join();
    EXPECT_EQ(sum, 20000);
    osaReleaseMutex(&mutex);
}

TEST(OsaMutex, GuardsLockAndUnlockForAScope)
{
    mutexObject mutex;
    ASSERT_EQ(osaCreateMutex(&mutex), OSA_OK);
    auto statusElsewhere = [&] {
        osaStatus status = OSA_ERROR;
        std::thread([&] {
            status = osaTryLock(&mutex);
            if (status == OSA_OK) {
                osaUnlock(&mutex);
            }
        }).join();
        return status;
    };
    {
        osaLockGuard lock(mutex);
        EXPECT_EQ(statusElsewhere(), OSA_MUTEX_NOT_AVAILABLE);
        {
            osaUnlockGuard unlock(mutex);
            EXPECT_EQ(statusElsewhere(), OSA_OK);
        }
        EXPECT_EQ(statusElsewhere(), OSA_MUTEX_NOT_AVAILABLE);
    }
    EXPECT_EQ(statusElsewhere(), OSA_OK);
    osaReleaseMutex(&mutex);
}

TEST(OsaMutexDeathTest, LockWithoutCreationEndsTheProcess)
{
    mutexObject never;
    EXPECT_DEATH(osaLock(&never), "contextOf");
    mutexObject released;
    ASSERT_EQ(osaCreateMutex(&released), OSA_OK);
    osaReleaseMutex(&released);
    EXPECT_DEATH(osaTryLock(&released), "contextOf");
}

// ---- semaphores

TEST(OsaSemaphore, NullIsRefusedWithTheMutexText)
{
    CaptureStdout();
    EXPECT_EQ(osaCreateSemaphore(nullptr, 0), OSA_EINVAL);
    EXPECT_THAT(GetCapturedStdout(), reports("osaCreateSemaphore", "no mutex object provided\n"));
}

TEST(OsaSemaphore, SixtyFifthIsRefusedAndTheLowestSlotReused)
{
    std::array<semaphoreObject, 64> semaphores;
    for (auto& semaphore : semaphores) {
        ASSERT_EQ(osaCreateSemaphore(&semaphore, 0), OSA_OK);
        EXPECT_EQ(semaphore.id.type, ID_THREAD_OBJECT);
    }
    semaphoreObject one;
    one.id.index = 5;
    CaptureStdout();
    EXPECT_EQ(osaCreateSemaphore(&one, 0), OSA_NO_RESOURCE);
    EXPECT_THAT(GetCapturedStdout(), reports("osaCreateSemaphore", "No available semaphore context found\n"));
    EXPECT_EQ(one.id.index, 64U);
    EXPECT_EQ(osaReleaseSemaphore(&one), OSA_OK);
    osaReleaseSemaphore(&semaphores[9]);
    osaReleaseSemaphore(&semaphores[3]);
    EXPECT_EQ(osaCreateSemaphore(&one, 0), OSA_OK);
    EXPECT_EQ(one.id.index, 3U);
    for (auto& semaphore : semaphores) {
        EXPECT_EQ(osaReleaseSemaphore(&semaphore), OSA_OK);
    }
}

TEST(OsaSemaphore, CountsFromItsStartValue)
{
    semaphoreObject semaphore;
    ASSERT_EQ(osaCreateSemaphore(&semaphore, 2), OSA_OK);
    EXPECT_EQ(osaTryWaitSemaphore(&semaphore), OSA_OK);
    EXPECT_EQ(osaWaitSemaphore(&semaphore), OSA_OK);
    EXPECT_EQ(osaTryWaitSemaphore(&semaphore), OSA_SEMAPHORE_NOT_AVAILABLE);
    EXPECT_EQ(osaSignalSemaphore(&semaphore), OSA_OK);
    EXPECT_EQ(osaTryWaitSemaphore(&semaphore), OSA_OK);
    osaReleaseSemaphore(&semaphore);
}

TEST(OsaSemaphore, WaitingThreadIsWokenByASignal)
{
    semaphoreObject semaphore;
    ASSERT_EQ(osaCreateSemaphore(&semaphore, 0), OSA_OK);
    std::thread waiter([&] { EXPECT_EQ(osaWaitSemaphore(&semaphore), OSA_OK); });
    EXPECT_EQ(osaSignalSemaphore(&semaphore), OSA_OK);
    waiter.join();
    osaReleaseSemaphore(&semaphore);
}

TEST(OsaSemaphore, CountTheSystemRefusesLeavesNoSlot)
{
    semaphoreObject semaphore;
    CaptureStdout();
    EXPECT_EQ(osaCreateSemaphore(&semaphore, UINT_MAX), OSA_SEMAPHORE_ERROR); // above SEM_VALUE_MAX
    EXPECT_THAT(GetCapturedStdout(), reports("osaCreateSemaphore", "failed SEMAPHORE initialization \\(-1\\)"));
    semaphoreObject next;
    ASSERT_EQ(osaCreateSemaphore(&next, 0), OSA_OK);
    EXPECT_EQ(next.id.index, 0U);
    osaReleaseSemaphore(&next);
}

TEST(OsaSemaphore, OutOfMemoryLeavesNoSlot)
{
    semaphoreObject semaphore;
    memoryIsOut = true;
    CaptureStdout();
    EXPECT_EQ(osaCreateSemaphore(&semaphore, 0), OSA_NO_MEM);
    memoryIsOut = false;
    EXPECT_THAT(GetCapturedStdout(), reports("osaCreateSemaphore", "out of memory\n"));
    EXPECT_EQ(semaphore.id.index, 64U);
}

// ---- threads

TEST(OsaThread, NullIsRefused)
{
    CaptureStdout();
    EXPECT_EQ(osaCreateThread(nullptr), OSA_EINVAL);
    EXPECT_THAT(GetCapturedStdout(), reports("osaCreateThread", "no thread object provided\n"));
}

TEST(OsaThread, NullFunctionIsRefusedAndTakesNoSlot)
{
    threadObject thread;
    CaptureStdout();
    EXPECT_EQ(osaCreateThread(&thread), OSA_EINVAL);
    EXPECT_THAT(GetCapturedStdout(), reports("osaCreateThread", "no thread function provided\n"));
    EXPECT_EQ(thread.id.index, 64U);
    EXPECT_EQ(thread.running, 0);
    std::atomic<int> runs = 0;
    threadObject next = counting(runs);
    ASSERT_EQ(osaCreateThread(&next), OSA_OK);
    EXPECT_EQ(next.id.index, 0U);
    osaExitThread(&next);
}

TEST(OsaThread, RunsItsFunctionAndIsJoined)
{
    std::atomic<int> runs = 0;
    threadObject thread = counting(runs);
    ASSERT_EQ(osaCreateThread(&thread), OSA_OK);
    EXPECT_EQ(thread.running, 1);
    EXPECT_EQ(thread.id.type, ID_THREAD_OBJECT);
    EXPECT_EQ(osaExitThread(&thread), OSA_OK);
    EXPECT_EQ(runs, 1);
    EXPECT_EQ(thread.running, 1); // left as it was
    EXPECT_EQ(osaExitThread(&thread), OSA_OK);
}

TEST(OsaThread, SixtyFifthIsRefusedAndTheLowestSlotReused)
{
    std::atomic<int> runs = 0;
    std::array<threadObject, 64> threads;
    for (auto& thread : threads) {
        thread = counting(runs);
        ASSERT_EQ(osaCreateThread(&thread), OSA_OK); // an ended thread keeps its slot until it is joined
    }
    threadObject one = counting(runs);
    one.id.index = 5;
    CaptureStdout();
    EXPECT_EQ(osaCreateThread(&one), OSA_NO_RESOURCE);
    EXPECT_THAT(GetCapturedStdout(), reports("osaCreateThread", "No available thread context found\n"));
    EXPECT_EQ(one.id.index, 64U);
    EXPECT_EQ(one.running, 0);
    EXPECT_EQ(osaExitThread(&one), OSA_OK);
    osaExitThread(&threads[50]);
    osaExitThread(&threads[11]);
    EXPECT_EQ(osaCreateThread(&one), OSA_OK);
    EXPECT_EQ(one.id.index, 11U);
    for (auto& thread : threads) {
        osaExitThread(&thread);
    }
    EXPECT_EQ(runs, 65);
}

namespace
{

/** A body that goes on until the semaphore it is given is signalled. */
void* runUntilSignalled(void* semaphore)
{
    pthread_detach(pthread_self());
    osaWaitSemaphore(static_cast<semaphoreObject*>(semaphore));
    osaSignalSemaphore(static_cast<semaphoreObject*>(semaphore) + 1);
    return nullptr;
}

} // namespace

TEST(OsaThread, NotRunningIsFreedWithoutAJoin)
{
    std::array<semaphoreObject, 2> goOnAndDone;
    ASSERT_EQ(osaCreateSemaphore(&goOnAndDone[0], 0), OSA_OK);
    ASSERT_EQ(osaCreateSemaphore(&goOnAndDone[1], 0), OSA_OK);
    threadObject thread;
    thread.threadFn = runUntilSignalled;
    thread.threadPtr = goOnAndDone.data();
    ASSERT_EQ(osaCreateThread(&thread), OSA_OK);
    thread.running = 0;
    EXPECT_EQ(osaExitThread(&thread), OSA_OK); // a join would never come back: the thread still waits
    std::atomic<int> runs = 0;
    threadObject next = counting(runs);
    ASSERT_EQ(osaCreateThread(&next), OSA_OK);
    EXPECT_EQ(next.id.index, 0U); // the slot is free
    osaExitThread(&next);
    osaSignalSemaphore(&goOnAndDone[0]);
    osaWaitSemaphore(&goOnAndDone[1]);
    osaReleaseSemaphore(&goOnAndDone[0]);
    osaReleaseSemaphore(&goOnAndDone[1]);
}

TEST(OsaThread, NegativeResultOfTheSystemIsAFailure)
{
    std::atomic<int> runs = 0;
    threadObject thread = counting(runs);
    threadAnswer = -7;
    CaptureStdout();
    EXPECT_EQ(osaCreateThread(&thread), OSA_THREAD_ERROR);
    threadAnswer.reset();
    EXPECT_THAT(GetCapturedStdout(), reports("osaCreateThread", "Thread creation error -7\n"));
    EXPECT_EQ(thread.running, 0);
    threadObject next = counting(runs);
    ASSERT_EQ(osaCreateThread(&next), OSA_OK);
    EXPECT_EQ(next.id.index, 0U);
    osaExitThread(&next);
}

TEST(OsaThread, PositiveResultOfTheSystemGoesUnseenAndNothingIsJoined)
{
    std::atomic<int> runs = 0;
    threadObject thread = counting(runs);
    threadAnswer = EAGAIN;
    CaptureStdout();
    EXPECT_EQ(osaCreateThread(&thread), OSA_OK);
    threadAnswer.reset();
    EXPECT_EQ(GetCapturedStdout(), "");
    EXPECT_EQ(thread.running, 1);
    EXPECT_EQ(osaExitThread(&thread), OSA_OK); // the wrong name of a thread would end the process here
    EXPECT_EQ(runs, 0);
}

TEST(OsaThread, OutOfMemoryLeavesNoSlot)
{
    std::atomic<int> runs = 0;
    threadObject thread = counting(runs);
    memoryIsOut = true;
    CaptureStdout();
    EXPECT_EQ(osaCreateThread(&thread), OSA_NO_MEM);
    memoryIsOut = false;
    EXPECT_THAT(GetCapturedStdout(), reports("osaCreateThread", "out of memory\n"));
    EXPECT_EQ(thread.id.index, 64U);
    EXPECT_EQ(thread.running, 0);
    EXPECT_EQ(runs, 0);
}

/** The calls of the layer into the system: the attributes they ask for, and what becomes of a refusal. */

#include "audioLibrary/osAbstraction/osAbstraction.h"

#include <cerrno>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <optional>
#include <pthread.h>
#include <semaphore.h>

using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStdout;

namespace
{

/** A call that fails with this errno; the system answers for itself while it is unset. */
struct Refusal {
    std::optional<int> error;
    int calls = 0;

    bool apply()
    {
        calls++;
        if (error) {
            errno = *error;
        }
        return error.has_value();
    }
};

Refusal refusedWait;
Refusal refusedTryWait;
std::optional<int> threadAnswer;
const pthread_attr_t* threadAttributes = nullptr;
const pthread_mutexattr_t* mutexAttributes = nullptr;
int shared = -1;
unsigned int startCount = 0;

/** Each test starts with a system that answers for itself. */
class OsaCalls : public testing::Test
{
protected:
    void SetUp() override
    {
        refusedWait = {};
        refusedTryWait = {};
        threadAnswer.reset();
    }
};

void* returnAtOnce(void*)
{
    return nullptr;
}

} // namespace

extern "C" {
int __real_pthread_create(pthread_t* thread, const pthread_attr_t* attr, void* (*start)(void*), void* argument);
int __wrap_pthread_create(pthread_t* thread, const pthread_attr_t* attr, void* (*start)(void*), void* argument)
{
    threadAttributes = attr;
    if (threadAnswer) {
        *thread = 12345; // as the library may leave it: the name of no thread
        return *threadAnswer;
    }
    return __real_pthread_create(thread, attr, start, argument);
}

int __real_pthread_mutex_init(pthread_mutex_t* mutex, const pthread_mutexattr_t* attr);
int __wrap_pthread_mutex_init(pthread_mutex_t* mutex, const pthread_mutexattr_t* attr)
{
    mutexAttributes = attr;
    return __real_pthread_mutex_init(mutex, attr);
}

int __real_sem_init(sem_t* semaphore, int pshared, unsigned int value);
int __wrap_sem_init(sem_t* semaphore, int pshared, unsigned int value)
{
    shared = pshared;
    startCount = value;
    return __real_sem_init(semaphore, pshared, value);
}

int __real_sem_wait(sem_t* semaphore);
int __wrap_sem_wait(sem_t* semaphore)
{
    return refusedWait.apply() ? -1 : __real_sem_wait(semaphore);
}

int __real_sem_trywait(sem_t* semaphore);
int __wrap_sem_trywait(sem_t* semaphore)
{
    return refusedTryWait.apply() ? -1 : __real_sem_trywait(semaphore);
}
}

TEST_F(OsaCalls, AWaitCutShortBySignalIsNotRepeated)
{
    semaphoreObject semaphore;
    ASSERT_EQ(osaCreateSemaphore(&semaphore, 0), OSA_OK);
    refusedWait.error = EINTR;
    EXPECT_EQ(osaWaitSemaphore(&semaphore), OSA_OK);
    EXPECT_EQ(refusedWait.calls, 1);
    osaReleaseSemaphore(&semaphore);
}

TEST_F(OsaCalls, OnlyAnEmptySemaphoreIsNotAvailable)
{
    semaphoreObject semaphore;
    ASSERT_EQ(osaCreateSemaphore(&semaphore, 1), OSA_OK);
    refusedTryWait.error = EAGAIN;
    EXPECT_EQ(osaTryWaitSemaphore(&semaphore), OSA_SEMAPHORE_NOT_AVAILABLE);
    refusedTryWait.error = EINTR;
    EXPECT_EQ(osaTryWaitSemaphore(&semaphore), OSA_SEMAPHORE_ERROR);
    refusedTryWait.error = EINVAL;
    EXPECT_EQ(osaTryWaitSemaphore(&semaphore), OSA_SEMAPHORE_ERROR);
    refusedTryWait.error.reset();
    EXPECT_EQ(osaTryWaitSemaphore(&semaphore), OSA_OK);
    osaReleaseSemaphore(&semaphore);
}

TEST_F(OsaCalls, ASemaphoreIsOfThisProcessWithItsStartCount)
{
    semaphoreObject semaphore;
    ASSERT_EQ(osaCreateSemaphore(&semaphore, 7), OSA_OK);
    EXPECT_EQ(shared, 0);
    EXPECT_EQ(startCount, 7U);
    osaReleaseSemaphore(&semaphore);
}

TEST_F(OsaCalls, ThreadsAndMutexesHaveDefaultAttributes)
{
    const pthread_attr_t someThread{};
    const pthread_mutexattr_t someMutex{};
    threadAttributes = &someThread;
    mutexAttributes = &someMutex;
    threadObject thread;
    thread.threadFn = returnAtOnce;
    ASSERT_EQ(osaCreateThread(&thread), OSA_OK);
    osaExitThread(&thread);
    mutexObject mutex;
    ASSERT_EQ(osaCreateMutex(&mutex), OSA_OK);
    osaReleaseMutex(&mutex);
    EXPECT_EQ(threadAttributes, nullptr);
    EXPECT_EQ(mutexAttributes, nullptr);
}

TEST_F(OsaCalls, ARefusedThreadIsNotJoinedThoughItsObjectRanBefore)
{
    threadObject thread;
    thread.threadFn = returnAtOnce;
    ASSERT_EQ(osaCreateThread(&thread), OSA_OK);
    osaExitThread(&thread);
    ASSERT_EQ(thread.running, 1); // stays, and would let a join go ahead
    threadAnswer = -7;
    CaptureStdout();
    EXPECT_EQ(osaCreateThread(&thread), OSA_THREAD_ERROR);
    EXPECT_THAT(GetCapturedStdout(),
                testing::MatchesRegex("ERROR: osaCreateThread\\(\\)-[0-9]+:Thread creation error -7\n"));
    EXPECT_EQ(osaExitThread(&thread), OSA_OK);
}

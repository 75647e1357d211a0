/**
 * The operating system abstraction on POSIX threads and semaphores.
 *
 * The caller's object carries only the number of a slot; the native primitive lives in a private context that the slot
 * points at, from creation to release. The tables have no lock of their own: slots change hands only on the audio
 * manager's thread, and other threads read no slot but those of objects that were handed to them alive.
 */

#include "audioLibrary/osAbstraction/osAbstraction.h"
#include "audioLibrary/osAbstraction/osAbstractionPrivate.h"

#include <cassert>
#include <cerrno>
#include <new>
#include <pthread.h>
#include <semaphore.h>

unsigned int osa_trace_level = 0;
unsigned int* tl = &osa_trace_level;

namespace
{

struct threadContext {
    threadObject* thread; ///< back-pointer, not owned
    pthread_t pthread;    ///< 0 if the thread never began: nothing to join then
};

struct mutexContext {
    mutexObject* mutex; ///< back-pointer, not owned
    pthread_mutex_t pmutex;
};

struct semaphoreContext {
    semaphoreObject* semaphore; ///< back-pointer, not owned
    sem_t psemaphore;
};

// Null is a free slot. The contexts are deleted by the release operations.
threadContext* thread_int[numSlots];
mutexContext* mutex_int[numSlots];
semaphoreContext* semaphore_int[numSlots];

/** The place in the table that the object names; null if it has no slot or the slot is free. */
template <typename Context> Context** liveSlot(Context* (&table)[numSlots], const objectId& id)
{
    if (id.index >= numSlots || table[id.index] == nullptr) {
        return nullptr;
    }
    return &table[id.index];
}

/** The context of an object that its user promises to have created. Real-time safe. */
template <typename Context> Context& contextOf(Context* const (&table)[numSlots], const objectId& id)
{
    assert(id.index < numSlots && table[id.index] != nullptr);
    return *table[id.index];
}

/** Marks the object as the owner of `slot`. Every kind carries the thread's type: nothing tells them apart by it. */
void takeSlot(objectId& id, unsigned int slot)
{
    id.index = slot;
    id.type = ID_THREAD_OBJECT;
    id.next = nullptr;
    id.prev = nullptr;
}

} // namespace

osaStatus osaCreateThread(threadObject* thread)
{
    if (thread == nullptr) {
        OSA_ERROR_PUTS("no thread object provided");
        return OSA_EINVAL;
    }
    if (thread->threadFn == nullptr) {
        OSA_ERROR_PUTS("no thread function provided");
        return OSA_EINVAL;
    }
    thread->id.index = numSlots;
    const unsigned int slot = lowestFreeSlot(thread_int);
    if (slot == numSlots) {
        OSA_ERROR_PUTS("No available thread context found");
        return OSA_NO_RESOURCE;
    }
    auto* context = new (std::nothrow) threadContext{thread, {}};
    if (context == nullptr) {
        OSA_ERROR_PUTS("out of memory");
        return OSA_NO_MEM;
    }
    thread_int[slot] = context;
    takeSlot(thread->id, slot);

    const int result = pthread_create(&context->pthread, nullptr, thread->threadFn, thread->threadPtr);
    if (result != 0) {
        context->pthread = {}; // the library may have left the name of a thread that never came to be
    }
    if (result < 0) {
        OSA_ERROR_PRINTF("Thread creation error %d\n", result);
        osaExitThread(thread); // joins nothing, though an object used before may still say that it runs
        return OSA_THREAD_ERROR;
    }
    thread->running = 1;
    return OSA_OK;
}

osaStatus osaExitThread(threadObject* thread)
{
    threadContext** slot = liveSlot(thread_int, thread->id);
    if (slot == nullptr) {
        return OSA_OK;
    }
    if (thread->running != 0 && (*slot)->pthread != pthread_t{}) {
        pthread_join((*slot)->pthread, nullptr);
    }
    delete *slot;
    *slot = nullptr;
    return OSA_OK;
}

osaStatus osaCreateMutex(mutexObject* mutex)
{
    if (mutex == nullptr) {
        OSA_ERROR_PUTS("no mutex object provided");
        return OSA_EINVAL;
    }
    mutex->id.index = numSlots;
    const unsigned int slot = lowestFreeSlot(mutex_int);
    if (slot == numSlots) {
        OSA_ERROR_PUTS("No available mutex context found");
        return OSA_NO_RESOURCE;
    }
    auto* context = new (std::nothrow) mutexContext{mutex, {}};
    if (context == nullptr) {
        OSA_ERROR_PUTS("out of memory");
        return OSA_NO_MEM;
    }
    mutex_int[slot] = context;
    takeSlot(mutex->id, slot);

    const int result = pthread_mutex_init(&context->pmutex, nullptr);
    if (result < 0) {
        OSA_ERROR_PRINTF("failed MUTEX initialization (%d)", result);
        osaReleaseMutex(mutex);
        return OSA_MUTEX_ERROR;
    }
    return OSA_OK;
}

osaStatus osaReleaseMutex(mutexObject* mutex)
{
    mutexContext** slot = liveSlot(mutex_int, mutex->id);
    if (slot == nullptr) {
        return OSA_OK;
    }
    pthread_mutex_destroy(&(*slot)->pmutex);
    delete *slot;
    *slot = nullptr;
    return OSA_OK;
}

osaStatus osaLock(mutexObject* mutex)
{
    pthread_mutex_lock(&contextOf(mutex_int, mutex->id).pmutex);
    return OSA_OK;
}

osaStatus osaTryLock(mutexObject* mutex)
{
    if (pthread_mutex_trylock(&contextOf(mutex_int, mutex->id).pmutex) != 0) {
        return OSA_MUTEX_NOT_AVAILABLE;
    }
    return OSA_OK;
}

osaStatus osaUnlock(mutexObject* mutex)
{
    pthread_mutex_unlock(&contextOf(mutex_int, mutex->id).pmutex);
    return OSA_OK;
}

osaStatus osaCreateSemaphore(semaphoreObject* semaphore, unsigned int value)
{
    if (semaphore == nullptr) {
        OSA_ERROR_PUTS("no mutex object provided"); // sic
        return OSA_EINVAL;
    }
    semaphore->id.index = numSlots;
    const unsigned int slot = lowestFreeSlot(semaphore_int);
    if (slot == numSlots) {
        OSA_ERROR_PUTS("No available semaphore context found");
        return OSA_NO_RESOURCE;
    }
    auto* context = new (std::nothrow) semaphoreContext{semaphore, {}};
    if (context == nullptr) {
        OSA_ERROR_PUTS("out of memory");
        return OSA_NO_MEM;
    }
    semaphore_int[slot] = context;
    takeSlot(semaphore->id, slot);

    const int result = sem_init(&context->psemaphore, 0, value);
    if (result != 0) {
        OSA_ERROR_PRINTF("failed SEMAPHORE initialization (%d)", result);
        osaReleaseSemaphore(semaphore);
        return OSA_SEMAPHORE_ERROR;
    }
    return OSA_OK;
}

osaStatus osaReleaseSemaphore(semaphoreObject* semaphore)
{
    semaphoreContext** slot = liveSlot(semaphore_int, semaphore->id);
    if (slot == nullptr) {
        return OSA_OK;
    }
    sem_destroy(&(*slot)->psemaphore);
    delete *slot;
    *slot = nullptr;
    return OSA_OK;
}

osaStatus osaWaitSemaphore(semaphoreObject* semaphore)
{
    sem_wait(&contextOf(semaphore_int, semaphore->id).psemaphore);
    return OSA_OK;
}

osaStatus osaTryWaitSemaphore(semaphoreObject* semaphore)
{
    if (sem_trywait(&contextOf(semaphore_int, semaphore->id).psemaphore) == 0) {
        return OSA_OK;
    }
    return errno == EAGAIN ? OSA_SEMAPHORE_NOT_AVAILABLE : OSA_SEMAPHORE_ERROR;
}

osaStatus osaSignalSemaphore(semaphoreObject* semaphore)
{
    sem_post(&contextOf(semaphore_int, semaphore->id).psemaphore);
    return OSA_OK;
}

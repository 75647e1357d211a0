#pragma once

/** Runs a function as the audio manager would: on a thread with its stack. */

#include "fuzz.h"

#include <functional>
#include <pthread.h>

namespace fuzz
{

constexpr size_t audioManagerStackBytes = 400000; ///< as main gives it to the thread

inline void onSmallStack(const std::function<void()>& body)
{
    pthread_attr_t attributes;
    MUST_HOLD(pthread_attr_init(&attributes) == 0);
    MUST_HOLD(pthread_attr_setstacksize(&attributes, audioManagerStackBytes) == 0);
    const auto run = [](void* function) -> void* {
        (*static_cast<const std::function<void()>*>(function))();
        return nullptr;
    };
    pthread_t thread;
    MUST_HOLD(pthread_create(&thread, &attributes, run, const_cast<std::function<void()>*>(&body)) == 0);
    MUST_HOLD(pthread_join(thread, nullptr) == 0);
    MUST_HOLD(pthread_attr_destroy(&attributes) == 0);
}

} // namespace fuzz

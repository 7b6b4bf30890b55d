#pragma once

#include <atomic>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>

// Runs a task on another thread through `post` and waits until it has run. The posted closure
// owns a copy of the task and the shared done state, so the hand-back itself lives on no one's
// stack (what the task captures by reference still does); the flag's release and acquire are
// what ThreadSanitizer sees hand it back.
template <typename Post> void runOnAndWait(Post &&post, std::function<void()> task)
{
    struct Handback {
        std::mutex mutex;
        std::condition_variable ran;
        std::atomic<bool> done = false;
    };
    const auto handback = std::make_shared<Handback>();
    post([handback, task = std::move(task)] {
        task();
        std::lock_guard lock(handback->mutex);
        handback->done.store(true, std::memory_order_release);
        handback->ran.notify_one();
    });
    std::unique_lock lock(handback->mutex);
    handback->ran.wait(lock, [&] { return handback->done.load(std::memory_order_acquire); });
}

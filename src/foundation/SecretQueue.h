#pragma once

#include <functional>
#include <optional>

// The one thread where the settings store talks to the keychain, so the window's thread never
// waits for a keyring round trip (or for a person answering its unlock prompt). Work runs in the
// order it was posted; a write posted before a read is seen by it. The thread starts on demand
// and ends after kIdleExitMs without work.
namespace SecretQueue {

constexpr int kIdleExitMs = 30000;

using Job = std::function<void()>;

// Runs `job` there, without waiting.
void post(Job job);

// Runs `job` there and waits for it; runs it at once when called from there.
template <typename T> T run(std::function<T()> job);
void runAndWait(Job job);

// Waits until everything posted so far has run (at once when called from there).
void drain();

// True on the queue's thread.
bool isCurrentThread();

template <typename T> T run(std::function<T()> job)
{
    std::optional<T> result;
    runAndWait([&] { result = job(); });
    return std::move(*result);
}

} // namespace SecretQueue

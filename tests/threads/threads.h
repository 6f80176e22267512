// Threads: the same body on several threads at once. They begin together, and the caller's thread does something of its
// own until they have ended.
#ifndef TESTS_THREADS_THREADS_H
#define TESTS_THREADS_THREADS_H

#include <atomic>
#include <barrier>
#include <functional>
#include <thread>
#include <vector>

constexpr int kThreads = 4;

inline void on_threads(
    const std::function<void(int number)> &body, const std::function<void()> &meanwhile = [] {}) {
    std::barrier together(kThreads + 1);
    std::atomic<int> running = kThreads;
    std::vector<std::thread> threads;
    for (int number = 0; number < kThreads; ++number) {
        threads.emplace_back([&, number] {
            together.arrive_and_wait();
            body(number);
            --running;
        });
    }
    together.arrive_and_wait();
    while (running > 0) meanwhile();
    for (std::thread &thread : threads) thread.join();
}

#endif

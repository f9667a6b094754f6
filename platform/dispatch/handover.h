// Hand-overs between threads that the thread sanitizer cannot see for itself.
//
// Objects made on one thread and used on another often reach it through Qt's event queues, whose
// locks the sanitizer cannot see (Qt is not instrumented). The sender marks the hand-over once
// everything is written; the receiver takes it over before reading anything. Outside the
// sanitizer build both are nothing.
#pragma once

#include <mutex>

#if defined(__SANITIZE_THREAD__)
extern "C" void __tsan_acquire(void* address);
extern "C" void __tsan_release(void* address);
#endif

namespace platform::dispatch {

inline void handOver(void* object) {
#if defined(__SANITIZE_THREAD__)
    __tsan_release(object);
#else
    (void)object;
#endif
}
inline void takeOver(void* object) {
#if defined(__SANITIZE_THREAD__)
    __tsan_acquire(object);
#else
    (void)object;
#endif
}

// A lock on a mutex of ours whose pairs the thread sanitizer keeps even where it has lost track
// of the mutex itself: memory that Qt freed out of its sight can leave a stale record at the
// address a new mutex takes, and it then reports both sides of the lock as racing.
class MarkedLock {
public:
    explicit MarkedLock(std::mutex& mutex) : lock_(mutex) { takeOver(&mutex); }
    ~MarkedLock() { handOver(lock_.mutex()); }
    MarkedLock(const MarkedLock&) = delete;
    MarkedLock& operator=(const MarkedLock&) = delete;

private:
    std::unique_lock<std::mutex> lock_;
};

}  // namespace platform::dispatch

#include "platform/dispatch/dispatch.h"
#include "platform/dispatch/waker.h"

#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QEventLoop>
#include <QTimer>
#include <algorithm>
#include <condition_variable>
#include <deque>
#include <string>
#include <thread>

// Queues keep their own locks (std::mutex) rather than relying on Qt's, so that the thread
// sanitizer sees every hand-over between threads.

struct dispatch_queue_s {
    explicit dispatch_queue_s(std::string l) : label(std::move(l)) {}
    virtual ~dispatch_queue_s() = default;
    virtual void async(dispatch_block_t block) = 0;
    const std::string label;
};

namespace {

thread_local const dispatch_queue_s* tCurrentQueue = nullptr;

void runBlock(const dispatch_queue_s* queue, dispatch_block_t& block) {
    const dispatch_queue_s* previous = tCurrentQueue;
    tCurrentQueue = queue;
    block();
    tCurrentQueue = previous;
}

// The main queue: a FIFO drained on the main thread, one turn per wake-up of its waker.
class MainQueue final : public dispatch_queue_s {
public:
    MainQueue() : dispatch_queue_s("main-thread") {}

    void async(dispatch_block_t block) override {
        platform::dispatch::Waker* waker = nullptr;
        {
            std::lock_guard lock(mutex_);
            pending_.push_back(std::move(block));
            waker = wakerLocked();
        }
        if (waker == nullptr) {
            return;  // drained by the first turn of the loop once an application exists
        }
        waker->wake();
    }

private:
    // Runs the blocks queued before this turn began, in order (blocks queued before the
    // application existed are picked up by the first posted turn). Blocks that these queue
    // run in the turns their own posts open.
    void drain() {
        size_t count = 0;
        {
            std::lock_guard lock(mutex_);
            count = pending_.size();
        }
        for (; count > 0; --count) {
            dispatch_block_t block;
            {
                std::lock_guard lock(mutex_);
                if (pending_.empty()) {
                    return;
                }
                block = std::move(pending_.front());
                pending_.pop_front();
            }
            runBlock(this, block);
        }
    }

    // The waker, made on the first post once an application exists and living on its thread.
    platform::dispatch::Waker* wakerLocked() {
        QCoreApplication* app = QCoreApplication::instance();
        if (waker_ == nullptr && app != nullptr) {
            waker_ = new platform::dispatch::Waker([this] { drain(); });
            waker_->moveToThread(app->thread());
        }
        return waker_;
    }

    std::mutex mutex_;
    std::deque<dispatch_block_t> pending_;
    platform::dispatch::Waker* waker_ = nullptr;  // never deleted, like the queue
};

// A concurrent queue: worker threads are added while every existing one is busy, up to a cap,
// so that a block waiting on another block of the same queue cannot starve it.
class GlobalQueue final : public dispatch_queue_s {
public:
    GlobalQueue(std::string label, int niceness)
        : dispatch_queue_s(std::move(label)), nice_(niceness) {}

    void async(dispatch_block_t block) override {
        std::lock_guard lock(mutex_);
        pending_.push_back(std::move(block));
        // Idle workers that were woken but have not yet taken a block still count as idle, so
        // compare the backlog with them rather than test for none.
        if (pending_.size() > static_cast<size_t>(idle_) && workers_ < kMaxWorkers) {
            ++workers_;
            std::thread([this] { work(); }).detach();
        }
        wake_.notify_one();
    }

private:
    static constexpr int kMaxWorkers = 64;

    void work() {
        if (nice_ != 0) {
            setpriority(PRIO_PROCESS, static_cast<id_t>(syscall(SYS_gettid)), nice_);
        }
        std::unique_lock lock(mutex_);
        for (;;) {
            ++idle_;
            wake_.wait(lock, [this] { return !pending_.empty(); });
            --idle_;
            dispatch_block_t block = std::move(pending_.front());
            pending_.pop_front();
            lock.unlock();
            runBlock(this, block);
            block = nullptr;  // release captures before taking the lock again
            lock.lock();
        }
    }

    const int nice_;
    std::mutex mutex_;
    std::condition_variable wake_;
    std::deque<dispatch_block_t> pending_;
    int workers_ = 0;
    int idle_ = 0;
};

// A serial queue: one thread runs its blocks in order.
class SerialQueue final : public dispatch_queue_s {
public:
    explicit SerialQueue(std::string label) : dispatch_queue_s(std::move(label)) {
        std::thread([this] { work(); }).detach();
    }

    void async(dispatch_block_t block) override {
        std::lock_guard lock(mutex_);
        pending_.push_back(std::move(block));
        wake_.notify_one();
    }

private:
    void work() {
        std::unique_lock lock(mutex_);
        for (;;) {
            wake_.wait(lock, [this] { return !pending_.empty(); });
            dispatch_block_t block = std::move(pending_.front());
            pending_.pop_front();
            lock.unlock();
            runBlock(this, block);
            block = nullptr;
            lock.lock();
        }
    }

    std::mutex mutex_;
    std::condition_variable wake_;
    std::deque<dispatch_block_t> pending_;
};

}  // namespace

// Queues are never destroyed: detached workers may still be waiting on them at exit.
dispatch_queue_t dispatch_get_main_queue() {
    static auto* queue = new MainQueue();
    return queue;
}

dispatch_queue_t dispatch_get_global_queue(long priority, unsigned long /*flags*/) {
    static auto* high = new GlobalQueue("global.user-initiated", -2);
    static auto* normal = new GlobalQueue("global.default", 0);
    static auto* low = new GlobalQueue("global.utility", 5);
    static auto* background = new GlobalQueue("global.background", 10);
    if (priority == DISPATCH_QUEUE_PRIORITY_BACKGROUND) {
        return background;
    }
    if (priority >= DISPATCH_QUEUE_PRIORITY_HIGH) {
        return high;
    }
    if (priority <= DISPATCH_QUEUE_PRIORITY_LOW) {
        return low;
    }
    return normal;
}

dispatch_queue_t dispatch_queue_create(const char* label) {
    return new SerialQueue(label != nullptr ? label : "");
}

void dispatch_async(dispatch_queue_t queue, dispatch_block_t block) {
    if (queue == nullptr || !block) {
        return;
    }
    queue->async(std::move(block));
}

const char* dispatch_queue_get_label(dispatch_queue_t queue) {
    const dispatch_queue_s* q = queue != nullptr ? queue : tCurrentQueue;
    return q != nullptr ? q->label.c_str() : "";
}

namespace platform::dispatch {

bool runMainLoopUntil(const std::function<bool()>& done, int timeoutMs) {
    QDeadlineTimer deadline(timeoutMs);
    // The loop sleeps until an event comes rather than polling, so a waiting process takes no
    // processor time from the ones it waits for. What another thread changes without posting an
    // event is seen at the next wake-up: after 1 ms at first, then less often, at most 8 ms.
    QTimer wake;
    wake.setSingleShot(true);
    int interval = 1;
    while (!done()) {
        if (deadline.hasExpired()) {
            return done();
        }
        if (!wake.isActive()) {
            const qint64 left = deadline.remainingTime();  // -1: no deadline
            wake.start(left < 0 ? interval : int(std::min<qint64>(interval, left)));
            interval = std::min(interval * 2, 8);
        }
        QCoreApplication::processEvents(QEventLoop::AllEvents | QEventLoop::WaitForMoreEvents);
    }
    return true;
}

}  // namespace platform::dispatch

// Work queues: the main queue (the main thread's Qt event loop), the global concurrent queues by
// priority, private serial queues, and once-only initialisation.
//
// An asynchronous dispatch never runs its block inline: the block runs in a later turn of the
// target queue, on that queue's thread(s). The main queue needs a QCoreApplication (or subclass)
// whose event loop runs on the main thread.
#pragma once

#include <cstdint>
#include <functional>
#include <mutex>

struct dispatch_queue_s;
using dispatch_queue_t = dispatch_queue_s*;
using dispatch_block_t = std::function<void()>;

constexpr long DISPATCH_QUEUE_PRIORITY_HIGH = 2;
constexpr long DISPATCH_QUEUE_PRIORITY_DEFAULT = 0;
constexpr long DISPATCH_QUEUE_PRIORITY_LOW = -2;
constexpr long DISPATCH_QUEUE_PRIORITY_BACKGROUND = INT16_MIN;

// Pass to dispatch_queue_get_label to ask for the label of the queue running the caller.
inline constexpr dispatch_queue_t DISPATCH_CURRENT_QUEUE_LABEL = nullptr;

dispatch_queue_t dispatch_get_main_queue();
dispatch_queue_t dispatch_get_global_queue(long priority, unsigned long flags);

// A serial queue with a thread of its own. Queues live for the life of the process.
dispatch_queue_t dispatch_queue_create(const char* label);

void dispatch_async(dispatch_queue_t queue, dispatch_block_t block);

// The label of `queue`, or of the queue running the caller when given DISPATCH_CURRENT_QUEUE_LABEL
// ("" when the caller runs on no queue).
const char* dispatch_queue_get_label(dispatch_queue_t queue);

using dispatch_once_t = std::once_flag;

template <class Block>
void dispatch_once(dispatch_once_t* predicate, Block&& block) {
    std::call_once(*predicate, std::forward<Block>(block));
}

namespace platform::dispatch {
// Runs the main thread's event loop until `done` answers true or `timeoutMs` passes; answers
// `done()`. For programs and tests that wait for asynchronous work without blocking the queue.
bool runMainLoopUntil(const std::function<bool()>& done, int timeoutMs);
}  // namespace platform::dispatch

// Serial queues and the worker pool that drains them.
//
// A queue is "active" from the moment an executor owns it (a pool worker, the main queue, or
// a connection reader running an item inline) until that executor finds it empty; only the
// owner takes items, which is what makes the queue serial. The pool never makes a queue
// wait for another: when no worker is idle a new one is started, so a handler that blocks
// (a synchronous request inside a handler) cannot starve other connections. Idle workers
// leave after a few seconds.
#include <malloc.h>
#include <pthread.h>

#include <chrono>
#include <thread>

#include "thread/main_queue.h"
#include "xpc/transport/xpc_internal.h"

namespace lxpc {

namespace {

class Pool;
Pool& ThePoolLocked();

class Pool {
public:
    Pool() {
        // A child of fork() has none of the workers: its pool starts empty, and the mutex is
        // held across the fork so that the child never inherits it locked mid-change.
        pthread_atfork([] { ThePoolLocked().mutex_.lock(); },
                       [] { ThePoolLocked().mutex_.unlock(); },
                       [] {
                           Pool& p = ThePoolLocked();
                           p.idle_ = 0;
                           p.workers_ = 0;
                           p.ready_.clear();
                           p.mutex_.unlock();
                       });
    }

    void Schedule(xpc_queue_t queue) {
        std::unique_lock lock(mutex_);
        ready_.push_back(queue);
        if (ready_.size() > idle_) {
            ++workers_;
            lock.unlock();
            std::thread([this] { Work(); }).detach();
            return;
        }
        ready_cv_.notify_one();
    }

private:
    void Work() {
        std::unique_lock lock(mutex_);
        for (;;) {
            if (ready_.empty()) {
                ++idle_;
                const bool woken = ready_cv_.wait_for(lock, std::chrono::seconds(5),
                                                      [this] { return !ready_.empty(); });
                --idle_;
                if (!woken) {
                    // The last worker to go hands the free memory of a burst back: every
                    // thread of the burst allocated from its own arena, and those arenas
                    // keep their freed pages resident until trimmed.
                    const bool last = --workers_ == 0;
                    lock.unlock();
                    if (last) {
                        malloc_trim(0);
                    }
                    return;
                }
            }
            xpc_queue_t queue = ready_.front();
            ready_.pop_front();
            lock.unlock();
            queue->Drain();
            QueueRelease(queue);
            lock.lock();
        }
    }

    std::mutex mutex_;
    std::condition_variable ready_cv_;
    std::deque<xpc_queue_t> ready_;
    size_t idle_ = 0;
    size_t workers_ = 0;
};

Pool* g_pool = nullptr;

Pool& ThePoolLocked() {
    return *g_pool;
}

Pool& ThePool() {
    // Never destroyed: detached workers may still be inside it while the process exits.
    static Pool* pool = g_pool = new Pool;
    return *pool;
}

void Schedule(xpc_queue_t queue) {
    QueueRetain(queue);  // the executor's reference
    if (queue->onMainQueue) {
        LMainQueueAsync([queue] {
            queue->Drain();
            QueueRelease(queue);
        });
    } else {
        ThePool().Schedule(queue);
    }
}

}  // namespace

void _xpc_queue::Async(std::function<void()> work) {
    std::unique_lock lock(mutex);
    items.push_back(std::move(work));
    if (!active) {
        active = true;
        lock.unlock();
        Schedule(this);
    }
}

void _xpc_queue::RunOrAsync(std::function<void()> work) {
    std::unique_lock lock(mutex);
    if (active || !items.empty() || onMainQueue) {
        items.push_back(std::move(work));
        if (!active) {
            active = true;
            lock.unlock();
            Schedule(this);
        }
        return;
    }
    active = true;
    lock.unlock();
    work();
    work = nullptr;
    // Whatever was queued meanwhile goes to the pool: the caller (a reader) returns to its
    // socket rather than draining other work.
    lock.lock();
    if (items.empty()) {
        active = false;
        return;
    }
    lock.unlock();
    Schedule(this);
}

void _xpc_queue::Drain() {
    std::unique_lock lock(mutex);
    while (!items.empty()) {
        std::function<void()> work = std::move(items.front());
        items.pop_front();
        lock.unlock();
        work();
        work = nullptr;
        lock.lock();
    }
    active = false;
}

void QueueRetain(xpc_queue_t queue) {
    queue->refs.fetch_add(1, std::memory_order_relaxed);
}

void QueueRelease(xpc_queue_t queue) {
    if (queue != nullptr && queue->refs.fetch_sub(1, std::memory_order_acq_rel) == 1) {
        delete queue;
    }
}

xpc_queue_t xpc_queue_create(const char* label) {
    return new _xpc_queue(label == nullptr ? std::string() : std::string(label), false);
}

void xpc_queue_release(xpc_queue_t queue) {
    if (queue != nullptr && !queue->onMainQueue) {
        QueueRelease(queue);
    }
}

void xpc_queue_async(xpc_queue_t queue, std::function<void()> work) {
    if (queue != nullptr && work) {
        queue->Async(std::move(work));
    }
}

xpc_queue_t xpc_main_queue() {
    static xpc_queue_t queue = new _xpc_queue("main", true);
    return queue;
}

}  // namespace lxpc

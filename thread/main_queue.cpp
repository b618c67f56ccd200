// The main queue and dispatch groups. One process-wide queue guarded by one mutex: queuing is
// cheap (a move into a deque and a notify) and the drain loop holds the mutex only while it
// takes the next item, never while the item runs, so items may queue more work or stop the
// loop without deadlocking.
#include "thread/main_queue.h"

#include <chrono>
#include <deque>
#include <utility>

namespace {

struct MainQueue {
    std::mutex mutex;
    std::condition_variable ready;
    std::deque<std::function<void()>> items;
    bool stopRequested = false;
};

MainQueue& Queue() {
    // Never destroyed: work may still be queued by detached threads while the process exits.
    static MainQueue* queue = new MainQueue;
    return *queue;
}

// Takes the next item, waiting until `deadline` at most. Returns false on timeout or stop.
template <typename Deadline>
bool TakeNext(MainQueue& q, std::function<void()>& out, Deadline deadline, bool honourStop) {
    std::unique_lock lock(q.mutex);
    for (;;) {
        if (honourStop && q.stopRequested) {
            q.stopRequested = false;
            return false;
        }
        if (!q.items.empty()) {
            out = std::move(q.items.front());
            q.items.pop_front();
            return true;
        }
        if (!deadline(lock, q.ready)) {
            return false;
        }
    }
}

}  // namespace

void LMainQueueAsync(std::function<void()> work) {
    if (!work) {
        return;
    }
    MainQueue& q = Queue();
    {
        std::lock_guard lock(q.mutex);
        q.items.push_back(std::move(work));
    }
    q.ready.notify_one();
}

void LMainQueueRun() {
    MainQueue& q = Queue();
    std::function<void()> work;
    auto forever = [](std::unique_lock<std::mutex>& lock, std::condition_variable& cv) {
        cv.wait(lock);
        return true;
    };
    while (TakeNext(q, work, forever, true)) {
        work();
        work = nullptr;
    }
}

void LMainQueueStop() {
    MainQueue& q = Queue();
    {
        std::lock_guard lock(q.mutex);
        q.stopRequested = true;
    }
    q.ready.notify_all();
}

size_t LMainQueueDrain(unsigned int timeoutMs) {
    MainQueue& q = Queue();
    const auto until = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    bool first = true;
    auto waitFirst = [&](std::unique_lock<std::mutex>& lock, std::condition_variable& cv) {
        // Only the first item is waited for; afterwards an empty queue ends the drain.
        if (!first) {
            return false;
        }
        return cv.wait_until(lock, until) != std::cv_status::timeout || !q.items.empty();
    };
    size_t count = 0;
    std::function<void()> work;
    while (TakeNext(q, work, waitFirst, false)) {
        first = false;
        work();
        work = nullptr;
        ++count;
    }
    return count;
}

void LDispatchGroup::Enter() {
    std::lock_guard lock(mutex_);
    ++count_;
}

void LDispatchGroup::Leave() {
    std::function<void()> notify;
    {
        std::lock_guard lock(mutex_);
        if (count_ == 0) {
            return;  // unbalanced Leave: ignored rather than wrapping the counter
        }
        if (--count_ == 0) {
            notify = std::move(notify_);
            notify_ = nullptr;
        }
    }
    zero_.notify_all();
    if (notify) {
        LMainQueueAsync(std::move(notify));
    }
}

void LDispatchGroup::Notify(std::function<void()> work) {
    {
        std::lock_guard lock(mutex_);
        if (count_ != 0) {
            notify_ = std::move(work);
            return;
        }
    }
    LMainQueueAsync(std::move(work));
}

bool LDispatchGroup::Wait(unsigned int timeoutMs) {
    std::unique_lock lock(mutex_);
    auto isZero = [this] { return count_ == 0; };
    if (timeoutMs == ~0u) {
        zero_.wait(lock, isZero);
        return true;
    }
    return zero_.wait_for(lock, std::chrono::milliseconds(timeoutMs), isZero);
}

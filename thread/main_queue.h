// The main queue: a serial queue of work drained by the main thread's run loop, and
// dispatch-group counters whose notify callback is queued when the count returns to zero.
// This is the counterpart of the platform run loop and main dispatch queue: whatever must
// happen on the main thread (queued notifications, the service's idle loop) goes through it.
//
// Invariants: work items run one at a time, in the order queued, on the thread inside
// LMainQueueRun (normally the main thread). Queuing is safe from any thread, including from
// inside a running item. LMainQueueStop makes the innermost LMainQueueRun return after the
// item it is running; items still queued stay queued for the next run.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>

// Queues work for the main thread.
void LMainQueueAsync(std::function<void()> work);

// Runs the main queue on the calling thread until LMainQueueStop is called.
void LMainQueueRun();

// Makes the running LMainQueueRun return; a stop requested while none runs makes the next
// one return as soon as the queue is empty of earlier items.
void LMainQueueStop();

// Runs what is queued now (and what those items queue) until the queue is empty or
// timeoutMs has passed waiting for the first item; returns the number of items run.
// Used where a caller owns the main thread but does not run the loop forever (tests, tools).
size_t LMainQueueDrain(unsigned int timeoutMs);

// A dispatch-group counterpart: Enter/Leave count outstanding work; Notify queues its
// callback on the main queue once the count is zero (at once when it already is).
class LDispatchGroup {
public:
    void Enter();
    void Leave();
    void Notify(std::function<void()> work);
    // Waits until the count is zero; false after timeoutMs (all bits set: no limit).
    bool Wait(unsigned int timeoutMs);

private:
    std::mutex mutex_;
    std::condition_variable zero_;
    uint64_t count_ = 0;
    std::function<void()> notify_;
};

// Worker threads. An LThread is a pthread with three events (stop, started, finished), so that
// its body can wait for its own work and for a stop request in one poll, and it is the
// body's LProcessInterface: code handed the thread learns through it whether to stop.
//
// Invariants:
// - The handle, thread id and running flag change only under the thread's lock; the body's
//   end detaches the thread, clears them and signals the finished event in one hold of the
//   lock, so the finished event means nothing of the thread touches the object any more
//   once the lock is free, and a Start cannot slip between the clearing and the signal.
// - A stop request is one byte in a pipe: safe from any thread, never reset until the next
//   Start.
// - Destroying the object waits for a started body to finish. The body is a virtual of the
//   most derived class, so a class whose body uses its own members calls StopThreadAndWait
//   in its own destructor, before those members go.
//
// LDetachedThread owns itself: it is listed in its owner once its body has started and
// before the body can end, and destroys itself when its body ends, unless the owner has taken
// it off the list to stop it. A thread that could not be created destroys itself at once.
#pragma once

#include <pthread.h>

#include <atomic>
#include <cstdint>

#include "thread/llock.h"
#include "thread/lprocess_interface.h"
#include "thread/lsignal_object.h"

class LThread : public LProcessInterface {
public:
    LThread();
    // The name is not used: the object is the same as from LThread().
    explicit LThread(char const* name);
    ~LThread() override;
    LThread(LThread const&) = delete;
    LThread& operator=(LThread const&) = delete;

    // True once a stop was requested.
    bool IsToStop() override;
    // Waits up to ms; true when a stop was requested.
    bool ProcessWait(unsigned int ms) override;
    // 0 the event fired, 1 a stop was requested, 2 timeout or error.
    int ProcessWaitSignal(LSignalObjectRef ref, unsigned int ms) override;
    // Appends the stop event to the caller's group while it has room (the group keeps it),
    // then polls the whole group: 2 nothing ready, 1 the last entry ready, else 0.
    int ProcessWaitSignalObjectGroup(LSignalObjectGroup& group, unsigned int ms) override;

    // The thread's body, supplied by every concrete thread class.
    virtual void ThreadMain() = 0;

    // Starts the body on a new thread and returns once it runs; a running thread is not
    // started twice.
    void Start(int priority);
    // Applies a priority to a running thread. 91 asks for the real-time treatment of audio
    // threads where the platform has one; elsewhere it is passed on as an ordinary priority.
    void SetPriority(int priority);
    // Signals the stop event.
    void StopThreadSoon();
    // Signals the stop event and, if the body started, waits for it to finish.
    void StopThreadAndWait();

    bool IsRunning();
    // The kernel id of the running thread, -1 when there is none.
    int32_t GetMachThreadId() const { return machThreadId.load(); }
    int GetPriority();

    LSignalObjectRef GetStopEvent() const { return stopEvent.GetRef(); }
    LSignalObjectRef GetStartedEvent() const { return startedEvent.GetRef(); }
    LSignalObjectRef GetFinishedEvent() const { return finishedEvent.GetRef(); }

protected:
    // Runs on the new thread: records the id, signals started, runs the body, then clears
    // the handle under the lock and, when asked, signals the finished event before letting
    // the lock go, so the signal always belongs to this run. A detached thread signals it
    // itself, after its owner had the chance to destroy it.
    void _RunBody(bool signalFinished);
    // The detached threads' start, which shares the bookkeeping of Start. listStarted runs
    // once the body has started and before it can end (the lock is held meanwhile).
    bool _StartDetachedThread(int priority, void* (*entry)(void*), void (*listStarted)(LThread&));
    bool _IsBodyThread() const;

    LSignalObject stopEvent;
    LSignalObject finishedEvent;
    LSignalObject startedEvent;

private:
    static void* _ThreadEntry(void* self);

    pthread_t thread{};
    bool hasThread = false;
    std::atomic<int32_t> machThreadId{-1};
    // The body's id, kept after the body ends so that a thread destroying its own object
    // does not wait for itself.
    std::atomic<int32_t> bodyThreadId{-1};
    int priority = 0;
    bool running = false;
    LLockObject lock;
};

class LDetachedThreadsOwner;

class LDetachedThread : public LThread {
public:
    LDetachedThread() = default;
    explicit LDetachedThread(char const* name) : LThread(name) {}

    // Starts the thread and lists it in owner. From then on the thread belongs to the owner
    // and to itself: it is destroyed when its body ends or by the owner's StopThreadsNow, and
    // at once when no thread could be created. The object must come from new.
    void StartDetached(LDetachedThreadsOwner& owner, int priority);

private:
    friend class LDetachedThreadsOwner;
    static void* _DetachedEntry(void* self);

    LDetachedThread* next = nullptr;
    LDetachedThreadsOwner* owner = nullptr;
};

class LDetachedThreadsOwner {
public:
    LDetachedThreadsOwner() = default;
    // Stops and destroys the threads still listed, so none outlives its owner.
    ~LDetachedThreadsOwner();
    LDetachedThreadsOwner(LDetachedThreadsOwner const&) = delete;
    LDetachedThreadsOwner& operator=(LDetachedThreadsOwner const&) = delete;

    // Signals the stop event of every listed thread.
    void StopThreadsSoon();
    // Stops, waits for and destroys every listed thread.
    void StopThreadsNow();
    // Unlinks the thread and destroys it; a thread that is not listed is left alone (false).
    bool Destruct(LDetachedThread* thread);

    size_t GetThreadCount();

private:
    friend class LDetachedThread;
    void _Insert(LDetachedThread* thread);
    bool _Unlink(LDetachedThread* thread);

    LDetachedThread* head = nullptr;
    LLockObject mutex;
};

// One shell command run on a thread of its own: the thread runs the command, signals
// finishedEvent, and waits for releaseEvent before destroying the record. The caller waits
// for finishedEvent, reads state and exitCode, then signals releaseEvent and lets go.
struct ProcessRunData {
    explicit ProcessRunData(char const* command);
    ~ProcessRunData();
    ProcessRunData(ProcessRunData const&) = delete;
    ProcessRunData& operator=(ProcessRunData const&) = delete;

    char* command = nullptr;
    LSignalObject finishedEvent;
    LSignalObject releaseEvent;
    // 1 at construction, 0 once the command has run, 2 if it could not be run.
    int32_t state = 1;
    // The command's exit status, -1 until known (and when it ended by a signal).
    int32_t exitCode = -1;
};

// The thread function for ProcessRunData (a pthread start routine); null data returns at once.
void* ProcessRunThreadCallback(void* data);

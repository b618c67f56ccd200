// Worker threads, detached threads and their owner, and the one-command runner.
#include "thread/lthread.h"

#include <sched.h>
#include <sys/wait.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <mutex>

#include "thread/lthread_platform.h"

LThread::LThread() = default;

LThread::LThread(char const*) : LThread() {}

LThread::~LThread() {
    StopThreadAndWait();
}

void LThread::StopThreadAndWait() {
    stopEvent.Signal();
    if (startedEvent.IsSignaled() && !_IsBodyThread()) {
        finishedEvent.WaitSignal(LSignalInfinite);
        // The body signals the finished event while it holds the lock; taking the
        // lock once orders everything after it (destroying the mutex included) behind it.
        lock.Lock();
        lock.Unlock();
    }
}

bool LThread::_IsBodyThread() const {
    return bodyThreadId.load() == _LThreadCurrentId();
}

bool LThread::IsToStop() {
    return stopEvent.IsSignaled();
}

bool LThread::ProcessWait(unsigned int ms) {
    return stopEvent.WaitSignal(ms);
}

int LThread::ProcessWaitSignal(LSignalObjectRef ref, unsigned int ms) {
    LSignalObjectGroup pair;
    pair.Add(stopEvent.GetRef());
    pair.Add(ref);
    if (!pair.Select(ms)) {
        return 2;
    }
    return pair.IsEntryReady(0) ? 1 : 0;
}

int LThread::ProcessWaitSignalObjectGroup(LSignalObjectGroup& group, unsigned int ms) {
    if (group.GetCount() < LSignalObjectGroup::kMaxEntries) {
        group.Add(stopEvent.GetRef());
    }
    if (!group.Select(ms)) {
        return 2;
    }
    return group.IsEntryReady(group.GetCount() - 1) ? 1 : 0;
}

void LThread::Start(int newPriority) {
    lock.Lock();
    if (hasThread) {
        if (running) {
            lock.Unlock();
            return;
        }
        pthread_join(thread, nullptr);
        hasThread = false;
        machThreadId = -1;
    }
    stopEvent.Reset();
    finishedEvent.Reset();
    startedEvent.Reset();
    running = true;
    priority = newPriority;
    if (pthread_create(&thread, nullptr, _ThreadEntry, this) == 0) {
        hasThread = true;
        ProcessWaitSignalForever(startedEvent.GetRef());
    }
    lock.Unlock();
    SetPriority(newPriority);
}

void* LThread::_ThreadEntry(void* self) {
    static_cast<LThread*>(self)->_RunBody(true);
    return nullptr;
}

void LThread::_RunBody(bool signalFinished) {
    int32_t id = _LThreadCurrentId();
    machThreadId = id;
    bodyThreadId = id;
    startedEvent.Signal();
    ThreadMain();
    lock.Lock();
    pthread_detach(pthread_self());
    running = false;
    hasThread = false;
    machThreadId = -1;
    // Still under the lock: once it is released a Start may begin a new run and reset the
    // event, and a signal sent after that would claim the new run had finished.
    if (signalFinished) {
        finishedEvent.Signal();
    }
    lock.Unlock();
}

void LThread::SetPriority(int newPriority) {
    lock.Lock();
    if (hasThread) {
        if (newPriority != 91 || !_LThreadSetTimeConstraint(thread)) {
            sched_param param{};
            param.sched_priority = newPriority;
            // The ordinary policy takes no priority on some systems; a refusal leaves the
            // thread as it was, which is all a priority hint can promise.
            pthread_setschedparam(thread, SCHED_OTHER, &param);
        }
    }
    lock.Unlock();
}

void LThread::StopThreadSoon() {
    stopEvent.Signal();
}

bool LThread::IsRunning() {
    lock.Lock();
    bool r = running;
    lock.Unlock();
    return r;
}

int LThread::GetPriority() {
    lock.Lock();
    int p = priority;
    lock.Unlock();
    return p;
}

bool LThread::_StartDetachedThread(int newPriority, void* (*entry)(void*),
                                   void (*listStarted)(LThread&)) {
    stopEvent.Reset();
    finishedEvent.Reset();
    startedEvent.Reset();
    // The lock is held until the thread is listed and its priority applied: the body's end
    // takes the same lock before a detached thread can destroy itself, so a body that ends at
    // once can neither pull the object away from under this function nor end unlisted.
    lock.Lock();
    running = true;
    priority = newPriority;
    bool created = pthread_create(&thread, nullptr, entry, this) == 0;
    hasThread = created;
    if (created) {
        bool started = ProcessWaitSignalForever(startedEvent.GetRef()) == 0;
        // A stop request ends that wait early; the owner must still only ever see a started
        // body.
        startedEvent.WaitSignal(LSignalInfinite);
        // Listed only now: an owner that stops it from here on finds the events of this run
        // (a stop request is no longer erased by the resets above) and a started thread to
        // wait for.
        listStarted(*this);
        if (started) {
            SetPriority(newPriority);
        }
    }
    lock.Unlock();
    return created;
}

void LDetachedThread::StartDetached(LDetachedThreadsOwner& newOwner, int newPriority) {
    owner = &newOwner;
    auto list = [](LThread& self) {
        auto& t = static_cast<LDetachedThread&>(self);
        t.owner->_Insert(&t);
    };
    if (!_StartDetachedThread(newPriority, _DetachedEntry, list)) {
        // No thread will ever end it, and nobody else holds it: it owns itself.
        delete this;
    }
    // From here on the thread may have destroyed itself already.
}

void* LDetachedThread::_DetachedEntry(void* self) {
    auto* t = static_cast<LDetachedThread*>(self);
    LDetachedThreadsOwner* owner = t->owner;
    t->_RunBody(false);
    if (!owner->Destruct(t)) {
        // StopThreadsNow has taken the thread off the list and waits for this signal before
        // destroying it: nothing may touch the object after it.
        t->finishedEvent.Signal();
    }
    return nullptr;
}

LDetachedThreadsOwner::~LDetachedThreadsOwner() {
    StopThreadsNow();
}

void LDetachedThreadsOwner::_Insert(LDetachedThread* thread) {
    mutex.Lock();
    thread->next = head;
    head = thread;
    mutex.Unlock();
}

bool LDetachedThreadsOwner::_Unlink(LDetachedThread* thread) {
    std::lock_guard guard(mutex);
    for (LDetachedThread** link = &head; *link != nullptr; link = &(*link)->next) {
        if (*link == thread) {
            *link = thread->next;
            thread->next = nullptr;
            return true;
        }
    }
    return false;
}

bool LDetachedThreadsOwner::Destruct(LDetachedThread* thread) {
    if (!_Unlink(thread)) {
        return false;
    }
    // Called from the thread's own end (it does not wait for itself there) or by whoever
    // owns a listed thread that never ran.
    delete thread;
    return true;
}

void LDetachedThreadsOwner::StopThreadsSoon() {
    std::lock_guard guard(mutex);
    for (LDetachedThread* t = head; t != nullptr; t = t->next) {
        t->StopThreadSoon();
    }
}

void LDetachedThreadsOwner::StopThreadsNow() {
    StopThreadsSoon();
    mutex.Lock();
    while (head != nullptr) {
        LDetachedThread* t = head;
        head = t->next;
        t->next = nullptr;
        mutex.Unlock();
        // Wait before destroying: the destructor of the most derived class runs first, and a
        // body still running would use members that are already gone.
        t->StopThreadSoon();
        if (t->startedEvent.IsSignaled()) {
            t->finishedEvent.WaitSignal(LSignalInfinite);
        }
        delete t;
        mutex.Lock();
    }
    mutex.Unlock();
}

size_t LDetachedThreadsOwner::GetThreadCount() {
    std::lock_guard guard(mutex);
    size_t n = 0;
    for (LDetachedThread* t = head; t != nullptr; t = t->next) {
        ++n;
    }
    return n;
}

ProcessRunData::ProcessRunData(char const* text) {
    if (text != nullptr) {
        size_t n = strlen(text);
        command = new char[n + 1];
        memcpy(command, text, n + 1);
    }
}

ProcessRunData::~ProcessRunData() {
    delete[] command;
}

void* ProcessRunThreadCallback(void* data) {
    if (data == nullptr) {
        return nullptr;
    }
    auto* run = static_cast<ProcessRunData*>(data);
    run->state = 0;
    run->exitCode = -1;
    FILE* pipe = popen(run->command != nullptr ? run->command : "", "w");
    if (pipe == nullptr) {
        run->state = 2;
    } else {
        int status = pclose(pipe);
        if (status != -1) {
            if (WIFEXITED(status)) {
                run->exitCode = WEXITSTATUS(status);
            }
        } else if (errno != ECHILD) {
            run->state = 2;
        }
    }
    run->finishedEvent.Signal();
    run->releaseEvent.WaitSignal(LSignalInfinite);
    // Take the release byte so the caller's signal is ordered before the record goes.
    run->releaseEvent.Reset();
    delete run;
    return nullptr;
}

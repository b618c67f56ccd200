// Notifications queued from any thread to the main thread, in order, through the main queue.
//
// LQueuedNotifyDataSender posts a code with optional bytes or an integer to an
// LQueuedNotifyDataHandler, which receives it on the main thread in EvQueuedNotifyData.
// LThreadQueuedNotify is the same without data. LThreadNotifyInterface turns a worker
// thread's error, status and progress reports into calls on a main-thread LProcessInterface.
//
// Each handler has an Impl object holding a back pointer to it and a dispatcher that queues
// the deliveries. Teardown (the Destroy calls, or the destructors) drains the dispatcher,
// which drops every later post, and clears the Impl's back pointer, so deliveries still
// queued find nobody and nothing reaches a handler after its teardown. Teardown and
// delivery both belong to the main thread.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <vector>

#include "thread/lassociated_data.h"
#include "thread/llock.h"
#include "thread/lthread.h"
#include "thread/main_queue.h"

// One queued notification: a code, a length or integer, and a copy of the bytes if any.
class LNotifyDataObject : public LObject {
public:
    // init:data:lengthOrIntData: copies `lengthOrIntData` bytes when data is not null.
    LNotifyDataObject(unsigned int code, void const* data, unsigned long lengthOrIntData);

    unsigned int code;
    uint64_t lengthOrIntData;
    // Null when posted without data.
    std::unique_ptr<std::vector<unsigned char>> data;
};

// A selector: the receiver's method to run, with the object handed along (null for none).
using LNotifySelector = void (*)(LObject& receiver, LObject* object);

// Queues deliveries to its receiver on the main queue inside a dispatch group.
class LNotifyMessageDispatcher : public LObject {
public:
    explicit LNotifyMessageDispatcher(std::shared_ptr<LObject> receiver);

    // dispatchData:toSelector: queues the call unless draining. On the main thread the
    // queued block hands the call to the main queue again (performSelectorOnMainThread's
    // run-loop hop), or makes it at once when the dispatcher is draining at that moment.
    void DispatchData(std::shared_ptr<LObject> object, LNotifySelector selector);
    // drainMessages: posts are dropped from now until every block queued so far has run.
    void DrainMessages();
    void SetReceiver(std::shared_ptr<LObject> newReceiver);
    bool IsDraining() const { return draining.load(); }

private:
    std::shared_ptr<LObject> GetReceiver();

    LDispatchGroup group;
    std::atomic<bool> draining{false};
    std::mutex receiverMutex;
    std::shared_ptr<LObject> receiver;
};

class LQueuedNotifyDataHandler;

class LQueuedNotifyDataHandlerImpl : public LObject {
public:
    // init: creates the Impl with its own dispatcher, itself as the receiver.
    static std::shared_ptr<LQueuedNotifyDataHandlerImpl> Init(LQueuedNotifyDataHandler* owner);

    // postNotifyData:
    void PostNotifyData(std::shared_ptr<LNotifyDataObject> object);
    // invokeEvNotify: on the main thread.
    void InvokeEvNotify(LNotifyDataObject const& object);
    // destroyNotify
    void DestroyNotify();

private:
    std::atomic<LQueuedNotifyDataHandler*> interface { nullptr };
    std::mutex dispatcherMutex;
    std::shared_ptr<LNotifyMessageDispatcher> dispatcher;
};

class LQueuedNotifyDataHandler {
public:
    LQueuedNotifyDataHandler();
    // Receives a notification on the main thread: data and its length when bytes were
    // posted, else null and the posted length or value.
    virtual void EvQueuedNotifyData(unsigned int code, void const* data,
                                    unsigned long lengthOrValue) = 0;
    virtual ~LQueuedNotifyDataHandler();
    LQueuedNotifyDataHandler(LQueuedNotifyDataHandler const&) = delete;
    LQueuedNotifyDataHandler& operator=(LQueuedNotifyDataHandler const&) = delete;

    // Detaches before destruction: nothing is delivered afterwards.
    void QueuedNotifyDataHandlerDestroy();

    std::shared_ptr<LQueuedNotifyDataHandlerImpl> _GetImpl();

private:
    std::mutex implMutex;
    std::shared_ptr<LQueuedNotifyDataHandlerImpl> impl;
};

class LQueuedNotifyDataSender {
public:
    explicit LQueuedNotifyDataSender(LQueuedNotifyDataHandler* handler = nullptr)
        : handler(handler) {}
    void SetHandler(LQueuedNotifyDataHandler* newHandler) { handler = newHandler; }

    // Posts to the handler from any thread; nothing without a handler or after its teardown.
    void PostNotify(unsigned int code, void const* data, unsigned long lengthOrValue);
    void NotifyData(unsigned int code, void const* data, unsigned long length) {
        PostNotify(code, data, length);
    }
    void NotifyData(unsigned int code) { PostNotify(code, nullptr, 0); }
    void NotifyData(unsigned int code, long value) {
        PostNotify(code, nullptr, static_cast<unsigned long>(value));
    }
    void NotifyData() { PostNotify(0, nullptr, 0); }

private:
    LQueuedNotifyDataHandler* handler;
};

class LThreadQueuedNotify;

class LThreadQueuedNotifyImpl : public LObject {
public:
    static std::shared_ptr<LThreadQueuedNotifyImpl> Init(LThreadQueuedNotify* owner);

    void PostNotify();
    void InvokeEvNotify();
    void DestroyNotify();

private:
    std::atomic<LThreadQueuedNotify*> interface { nullptr };
    std::mutex dispatcherMutex;
    std::shared_ptr<LNotifyMessageDispatcher> dispatcher;
};

class LThreadQueuedNotify {
public:
    LThreadQueuedNotify();
    virtual ~LThreadQueuedNotify();
    // Receives the notification on the main thread.
    virtual void EvQueuedNotify() = 0;
    LThreadQueuedNotify(LThreadQueuedNotify const&) = delete;
    LThreadQueuedNotify& operator=(LThreadQueuedNotify const&) = delete;

    // On the main thread calls EvQueuedNotify at once; elsewhere queues it.
    void PostQueueNotify();
    void ThreadQueuedNotifyDestroy();

private:
    std::mutex implMutex;
    std::shared_ptr<LThreadQueuedNotifyImpl> impl;
};

// A worker thread whose reports reach `target` on the main thread. Codes: 0 error (text with
// its NUL), 1 and 2 status of level 0 and 1 (the text is kept in a line per level, so only
// the newest text of a level is shown however many posts are queued), 3 progress in whole
// hundredths, 4 and 5 indeterminate progress on and off.
class LThreadNotifyInterface : public LThread, public LQueuedNotifyDataHandler {
public:
    explicit LThreadNotifyInterface(LProcessInterface* target);
    ~LThreadNotifyInterface() override;

    void SetError(char const* text) override;
    void SetStatus(char const* text, int level) override;
    void SetProgress(double progress) override;
    void SetProgressIndeterminateOn() override;
    void SetProgressIndeterminateOff() override;

    void EvQueuedNotifyData(unsigned int code, void const* data,
                            unsigned long lengthOrValue) override;

private:
    static constexpr size_t kStatusLineSize = 260;

    LProcessInterface* target;
    LQueuedNotifyDataSender sender;
    LLockObject statusMutex;
    char statusLine0[kStatusLineSize] = {};
    char statusLine1[kStatusLineSize] = {};
};

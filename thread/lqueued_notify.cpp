// Queued notifications: the dispatcher, the two Impl objects and the classes over them.
#include "thread/lqueued_notify.h"

#include <climits>
#include <cstring>
#include <utility>

#include "thread/lthread_platform.h"

namespace {

// The Impl and dispatcher links are read, or taken, under their mutex; what they point to is
// then used, and a taken one released, outside the lock.
template <typename T>
std::shared_ptr<T> CopyLocked(std::mutex& mutex, std::shared_ptr<T> const& link) {
    std::lock_guard guard(mutex);
    return link;
}

template <typename T>
std::shared_ptr<T> TakeLocked(std::mutex& mutex, std::shared_ptr<T>& link) {
    std::lock_guard guard(mutex);
    return std::move(link);
}

// A dispatcher taken from its Impl: deliveries already queued run out first, and then the
// receiver is dropped so that nothing reaches it afterwards.
void Retire(std::shared_ptr<LNotifyMessageDispatcher> const& dispatcher) {
    if (dispatcher) {
        dispatcher->DrainMessages();
        dispatcher->SetReceiver(nullptr);
    }
}

}  // namespace

LNotifyDataObject::LNotifyDataObject(unsigned int code, void const* bytes,
                                     unsigned long lengthOrIntData)
    : code(code), lengthOrIntData(lengthOrIntData) {
    if (bytes != nullptr) {
        auto const* p = static_cast<unsigned char const*>(bytes);
        data = std::make_unique<std::vector<unsigned char>>(p, p + lengthOrIntData);
    }
}

LNotifyMessageDispatcher::LNotifyMessageDispatcher(std::shared_ptr<LObject> receiver)
    : receiver(std::move(receiver)) {}

std::shared_ptr<LObject> LNotifyMessageDispatcher::GetReceiver() {
    std::lock_guard guard(receiverMutex);
    return receiver;
}

void LNotifyMessageDispatcher::SetReceiver(std::shared_ptr<LObject> newReceiver) {
    std::shared_ptr<LObject> old;  // released outside the lock
    std::lock_guard guard(receiverMutex);
    old = std::exchange(receiver, std::move(newReceiver));
}

void LNotifyMessageDispatcher::DispatchData(std::shared_ptr<LObject> object,
                                            LNotifySelector selector) {
    if (draining.load()) {
        return;
    }
    auto self = std::static_pointer_cast<LNotifyMessageDispatcher>(shared_from_this());
    group.Enter();
    LMainQueueAsync([self, object = std::move(object), selector] {
        // The receiver and the object are held until the call has run, as a performed
        // selector retains both.
        if (std::shared_ptr<LObject> target = self->GetReceiver()) {
            if (self->draining.load()) {
                selector(*target, object.get());
            } else {
                LMainQueueAsync([target, object, selector] { selector(*target, object.get()); });
            }
        }
        self->group.Leave();
    });
}

void LNotifyMessageDispatcher::DrainMessages() {
    draining = true;
    auto self = std::static_pointer_cast<LNotifyMessageDispatcher>(shared_from_this());
    group.Notify([self] { self->draining = false; });
}

std::shared_ptr<LQueuedNotifyDataHandlerImpl> LQueuedNotifyDataHandlerImpl::Init(
    LQueuedNotifyDataHandler* owner) {
    auto impl = std::make_shared<LQueuedNotifyDataHandlerImpl>();
    impl->interface = owner;
    impl->dispatcher = std::make_shared<LNotifyMessageDispatcher>(impl);
    return impl;
}

void LQueuedNotifyDataHandlerImpl::PostNotifyData(std::shared_ptr<LNotifyDataObject> object) {
    if (auto d = CopyLocked(dispatcherMutex, dispatcher)) {
        d->DispatchData(std::move(object), [](LObject& receiver, LObject* o) {
            static_cast<LQueuedNotifyDataHandlerImpl&>(receiver).InvokeEvNotify(
                *static_cast<LNotifyDataObject*>(o));
        });
    }
}

void LQueuedNotifyDataHandlerImpl::InvokeEvNotify(LNotifyDataObject const& object) {
    LQueuedNotifyDataHandler* owner = interface.load();
    if (owner == nullptr) {
        return;
    }
    if (object.data) {
        owner->EvQueuedNotifyData(object.code, object.data->data(), object.data->size());
    } else {
        owner->EvQueuedNotifyData(object.code, nullptr, object.lengthOrIntData);
    }
}

void LQueuedNotifyDataHandlerImpl::DestroyNotify() {
    const auto d = TakeLocked(dispatcherMutex, dispatcher);
    Retire(d);
    interface = nullptr;
}

LQueuedNotifyDataHandler::LQueuedNotifyDataHandler()
    : impl(LQueuedNotifyDataHandlerImpl::Init(this)) {}

LQueuedNotifyDataHandler::~LQueuedNotifyDataHandler() {
    QueuedNotifyDataHandlerDestroy();
}

void LQueuedNotifyDataHandler::QueuedNotifyDataHandlerDestroy() {
    if (auto old = TakeLocked(implMutex, impl)) {
        old->DestroyNotify();
    }
}

std::shared_ptr<LQueuedNotifyDataHandlerImpl> LQueuedNotifyDataHandler::_GetImpl() {
    return CopyLocked(implMutex, impl);
}

void LQueuedNotifyDataSender::PostNotify(unsigned int code, void const* data,
                                         unsigned long lengthOrValue) {
    if (handler == nullptr) {
        return;
    }
    std::shared_ptr<LQueuedNotifyDataHandlerImpl> impl = handler->_GetImpl();
    if (!impl) {
        return;
    }
    impl->PostNotifyData(std::make_shared<LNotifyDataObject>(code, data, lengthOrValue));
}

std::shared_ptr<LThreadQueuedNotifyImpl> LThreadQueuedNotifyImpl::Init(LThreadQueuedNotify* owner) {
    auto impl = std::make_shared<LThreadQueuedNotifyImpl>();
    impl->interface = owner;
    impl->dispatcher = std::make_shared<LNotifyMessageDispatcher>(impl);
    return impl;
}

void LThreadQueuedNotifyImpl::PostNotify() {
    if (auto d = CopyLocked(dispatcherMutex, dispatcher)) {
        d->DispatchData(nullptr, [](LObject& receiver, LObject*) {
            static_cast<LThreadQueuedNotifyImpl&>(receiver).InvokeEvNotify();
        });
    }
}

void LThreadQueuedNotifyImpl::InvokeEvNotify() {
    if (LThreadQueuedNotify* owner = interface.load()) {
        owner->EvQueuedNotify();
    }
}

void LThreadQueuedNotifyImpl::DestroyNotify() {
    const auto d = TakeLocked(dispatcherMutex, dispatcher);
    Retire(d);
    interface = nullptr;
}

LThreadQueuedNotify::LThreadQueuedNotify() : impl(LThreadQueuedNotifyImpl::Init(this)) {}

LThreadQueuedNotify::~LThreadQueuedNotify() {
    ThreadQueuedNotifyDestroy();
}

void LThreadQueuedNotify::PostQueueNotify() {
    if (_LThreadIsMainThread()) {
        EvQueuedNotify();
        return;
    }
    if (auto current = CopyLocked(implMutex, impl)) {
        current->PostNotify();
    }
}

void LThreadQueuedNotify::ThreadQueuedNotifyDestroy() {
    if (auto old = TakeLocked(implMutex, impl)) {
        old->DestroyNotify();
    }
}

LThreadNotifyInterface::LThreadNotifyInterface(LProcessInterface* target)
    : target(target), sender(this) {}

LThreadNotifyInterface::~LThreadNotifyInterface() {
    // The body reports through this object's sender and status lines, which go before the
    // LThread part would wait for it: stop it here first.
    StopThreadAndWait();
    QueuedNotifyDataHandlerDestroy();
}

void LThreadNotifyInterface::SetError(char const* text) {
    if (text == nullptr) {
        return;
    }
    sender.NotifyData(0, text, strlen(text) + 1);
}

void LThreadNotifyInterface::SetStatus(char const* text, int level) {
    char* line;
    unsigned int code;
    if (level == 0) {
        line = statusLine0;
        code = 1;
    } else if (level == 1) {
        line = statusLine1;
        code = 2;
    } else {
        return;
    }
    {
        std::lock_guard guard(statusMutex);
        size_t n = 0;
        if (text != nullptr) {
            n = strnlen(text, kStatusLineSize - 1);
            memcpy(line, text, n);
        }
        line[n] = '\0';
    }
    sender.NotifyData(code);
}

void LThreadNotifyInterface::SetProgress(double progress) {
    // Whole hundredths, truncated toward zero. Values no long can hold (and NaN) would make
    // the conversion undefined; they are pinned to the nearest end instead (NaN to 0).
    double hundredths = progress * 100.0;
    long value = 0;
    if (hundredths >= static_cast<double>(LONG_MAX)) {
        value = LONG_MAX;
    } else if (hundredths <= static_cast<double>(LONG_MIN)) {
        value = LONG_MIN;
    } else if (hundredths == hundredths) {
        value = static_cast<long>(hundredths);
    }
    sender.NotifyData(3, value);
}

void LThreadNotifyInterface::SetProgressIndeterminateOn() {
    sender.NotifyData(4);
}

void LThreadNotifyInterface::SetProgressIndeterminateOff() {
    sender.NotifyData(5);
}

void LThreadNotifyInterface::EvQueuedNotifyData(unsigned int code, void const* data,
                                                unsigned long lengthOrValue) {
    if (target == nullptr) {
        return;
    }
    switch (code) {
        case 0:
            // Only a terminated text is shown; the sender always posts one with its NUL.
            if (data != nullptr && lengthOrValue > 0 &&
                static_cast<char const*>(data)[lengthOrValue - 1] == '\0') {
                target->SetError(static_cast<char const*>(data));
            }
            break;
        case 1:
        case 2: {
            char copy[kStatusLineSize];
            {
                std::lock_guard guard(statusMutex);
                memcpy(copy, code == 1 ? statusLine0 : statusLine1, sizeof copy);
            }
            target->SetStatus(copy, code == 1 ? 0 : 1);
            break;
        }
        case 3:
            target->SetProgress(static_cast<double>(static_cast<long>(lengthOrValue)) * 0.01);
            break;
        case 4:
            target->SetProgressIndeterminateOn();
            break;
        case 5:
            target->SetProgressIndeterminateOff();
            break;
        default:
            break;
    }
}

// LXPCConnection, LXPCBase and the error mapping.
//
// Every handler, reply handler and barrier that a base installs on the transport captures a
// shared DeliveryGate rather than the base itself. The gate knows the base while it lives and
// counts the callbacks running through it; the base's destructor closes the gate and waits for
// those callbacks (except the ones on its own thread, which may be the caller of the
// destructor), so a callback queued behind the destruction finds the gate closed and touches
// neither the freed base nor its possibly freed handler.
#include "xpc/lxpc_base.h"

#include <condition_variable>
#include <cstring>
#include <mutex>

using namespace lxpc;

namespace lxpc_detail {

struct DeliveryGate {
    std::mutex mutex;
    std::condition_variable idle;
    LXPCBase* base = nullptr;  // null once closed
    size_t active = 0;         // callbacks running through the gate, on any thread
};

}  // namespace lxpc_detail

using lxpc_detail::DeliveryGate;

namespace {

// The gates this thread is running callbacks through, innermost first. A destructor called
// from inside such a callback must not wait for that callback.
struct ActiveFrame {
    const DeliveryGate* gate;
    ActiveFrame* outer;
};
thread_local ActiveFrame* tlsActiveFrames = nullptr;

size_t FramesOnThisThread(const DeliveryGate* gate) {
    size_t count = 0;
    for (const ActiveFrame* frame = tlsActiveFrames; frame != nullptr; frame = frame->outer) {
        count += frame->gate == gate ? 1 : 0;
    }
    return count;
}

bool IsHandle(long handle) {
    return handle != 0 && handle != kLXPCNoConnection;
}

}  // namespace

// ---- LXPCConnection ----

LXPCConnection::~LXPCConnection() {
    Destroy();
}

void LXPCConnection::Resume() {
    if (bSuspended && IsValid()) {
        xpc_connection_resume(LXPCValueAsPointer(hConnection));
        bSuspended = false;
    }
}

void LXPCConnection::Suspend() {
    if (!bSuspended && IsValid()) {
        xpc_connection_suspend(LXPCValueAsPointer(hConnection));
        bSuspended = true;
    }
}

void LXPCConnection::Retain() {
    if (IsValid()) {
        xpc_retain(LXPCValueAsPointer(hConnection));
        ++nRetainCount;
    }
}

void LXPCConnection::Release() {
    if (nRetainCount == 0 || !IsValid()) {
        return;
    }
    xpc_release(LXPCValueAsPointer(hConnection));
    if (--nRetainCount == 0) {
        hConnection = kLXPCNoConnection;
    }
}

void LXPCConnection::Cancel() {
    if (!IsValid()) {
        return;
    }
    xpc_connection_t connection = LXPCValueAsPointer(hConnection);
    // Whatever the connection still delivers (the cancellation's own error included) must
    // not reach a base that may be going away.
    xpc_connection_set_event_handler(connection, [](xpc_object_t) {});
    xpc_connection_cancel(connection);
}

void LXPCConnection::Destroy() {
    if (!IsValid()) {
        return;
    }
    if (bSuspended) {
        Resume();
    }
    Cancel();
    Release();
}

// ---- LXPCBase ----

LXPCBase::LXPCBase(LXPCEventNotify* eventHandler)
    : pEventHandler(eventHandler), pGate(std::make_shared<DeliveryGate>()) {
    pGate->base = this;
}

LXPCBase::~LXPCBase() {
    StopDelivery();
    pEventHandler = nullptr;
    lReceiveKeys.Clear();
    lSendKeys.Clear();
}

void LXPCBase::StopDelivery() {
    DeliveryGate& gate = *pGate;
    std::unique_lock lock(gate.mutex);
    gate.base = nullptr;
    const size_t own = FramesOnThisThread(&gate);
    gate.idle.wait(lock, [&] { return gate.active <= own; });
    if (pEventHandler != nullptr) {
        pEventHandler->bAlive = false;
    }
}

bool LXPCBase::RunIfAlive(std::shared_ptr<DeliveryGate> gate,
                          const std::function<void(LXPCBase& base)>& work) {
    LXPCBase* base = nullptr;
    {
        std::lock_guard lock(gate->mutex);
        if (gate->base == nullptr) {
            return false;
        }
        base = gate->base;
        ++gate->active;
    }
    ActiveFrame frame{gate.get(), tlsActiveFrames};
    tlsActiveFrames = &frame;
    work(*base);
    tlsActiveFrames = frame.outer;
    {
        std::lock_guard lock(gate->mutex);
        --gate->active;
    }
    gate->idle.notify_all();
    return true;
}

void LXPCBase::AddKey(LXPCDictionaryKey const& key, bool bReceive) {
    AddKey(key.szName, key.type, bReceive);
}

void LXPCBase::AddKey(char const* name, LXPCDataType type, bool bReceive) {
    auto* node = new LXPCDictionaryKeyListable;
    LXPCCopyName(node->szName, name);
    node->type = type;
    (bReceive ? lReceiveKeys : lSendKeys).PushFront(node);
}

void LXPCBase::AddKeys(LXPCDictionaryKey const* table, bool bReceive) {
    LXPCAddKeyTable(bReceive ? lReceiveKeys : lSendKeys, table);
}

void LXPCBase::SendMessage(long connection, LList<LXPCDataListable> const& data, bool bWantReply) {
    if (!IsHandle(connection)) {
        return;
    }
    xpc_connection_t target = LXPCValueAsPointer(connection);
    xpc_object_t message = xpc_dictionary_create(nullptr, nullptr, 0);
    SetXPCDictionary(message, lSendKeys, data);
    if (bWantReply) {
        xpc_connection_send_message_with_reply(
            target, message, nullptr, [gate = pGate, connection](xpc_object_t event) {
                RunIfAlive(gate,
                           [&](LXPCBase& base) { base.HandleEvent(event, connection, true); });
            });
    } else {
        SendReportingSent(target, message, connection);
    }
    xpc_release(message);
}

void LXPCBase::SendReportingSent(xpc_connection_t target, xpc_object_t message, long connection) {
    xpc_connection_send_message(target, message);
    xpc_connection_send_barrier(target, [gate = pGate, connection] {
        RunIfAlive(gate, [connection](LXPCBase& base) {
            if (base.pEventHandler != nullptr && base.pEventHandler->bAlive) {
                base.pEventHandler->EvMessageSent(connection);
            }
        });
    });
}

void LXPCBase::SendReply(long connection, long message, LList<LXPCDataListable> const& data) {
    if (!IsHandle(connection) || !IsHandle(message)) {
        return;
    }
    xpc_object_t reply = xpc_dictionary_create_reply(LXPCValueAsPointer(message));
    if (reply == nullptr) {
        return;
    }
    xpc_connection_t target = LXPCValueAsPointer(connection);
    SetXPCDictionary(reply, lSendKeys, data);
    SendReportingSent(target, reply, connection);
    xpc_release(reply);
}

void LXPCBase::SetupConnectionHandlerAndResume(LXPCConnection& connection) {
    if (!connection.IsValid()) {
        return;
    }
    const long id = connection.hConnection;
    xpc_connection_set_event_handler(
        LXPCValueAsPointer(id), [gate = pGate, id](xpc_object_t event) {
            RunIfAlive(gate, [&](LXPCBase& base) { base.HandleEvent(event, id, false); });
        });
    if (connection.bSuspended) {
        connection.Resume();
    }
}

void LXPCBase::HandleEvent(xpc_object_t event, long connection, bool bReply) {
    LXPCEventNotify* handler = pEventHandler;
    if (handler == nullptr || !handler->bAlive || event == nullptr) {
        return;
    }
    const long id = LXPCEventConnection(event, connection);
    const xpc_type_t type = xpc_get_type(event);
    if (type == XPC_TYPE_ERROR) {
        ErrorHandler(event, id, handler);
        return;
    }
    if (type != XPC_TYPE_DICTIONARY) {
        return;
    }
    LList<LXPCDataListable> values;
    GetXPCDictionary(event, lReceiveKeys, values);
    if (values.IsEmpty()) {
        return;
    }
    // The handler may destroy this base from inside the callback: nothing below the call
    // touches a member.
    const long message = LXPCPointerAsValue(event);
    if (handler->bArrayForm) {
        const unsigned long count = values.Count();
        std::unique_ptr<LXPCData[]> array(new LXPCData[count]);
        unsigned long index = 0;
        for (const LXPCDataListable& value : values) {
            array[index++] = static_cast<const LXPCData&>(value);
        }
        if (bReply) {
            handler->EvReplyReceived(id, array.get(), count);
        } else {
            handler->EvMessageReceived(id, message, array.get(), count);
        }
    } else if (bReply) {
        handler->EvReplyReceived(id, values);
    } else {
        handler->EvMessageReceived(id, message, values);
    }
}

void ErrorHandler(xpc_object_t error, long connection, LXPCEventNotify* handler) {
    if (handler == nullptr) {
        return;
    }
    LXPCErrorType type = LXPCErrorOther;
    if (error == XPC_ERROR_CONNECTION_INVALID) {
        type = LXPCErrorConnectionInvalid;
    } else if (error == XPC_ERROR_CONNECTION_INTERRUPTED) {
        type = LXPCErrorConnectionInterrupted;
    } else if (error == XPC_ERROR_TERMINATION_IMMINENT) {
        type = LXPCErrorTerminationImminent;
    }
    handler->EvConnectionError(connection, type);
}

long LXPCEventConnection(xpc_object_t event, long fallback) {
    if (event != nullptr && xpc_get_type(event) == XPC_TYPE_DICTIONARY) {
        if (xpc_connection_t remote = xpc_dictionary_get_remote_connection(event)) {
            return LXPCPointerAsValue(remote);
        }
    }
    return fallback;
}

// Connections, the event handler interfaces, and the base that sends messages and replies.
//
// A connection is identified everywhere by its id: the transport's connection handle carried
// as a `long` (all bits set means no connection). A received message is likewise handed over
// as the `long` handle of its dictionary, which a reply needs; it is valid only during the
// callback that delivers it.
//
// Invariants:
// - Events reach the handler on the transport's queues: each connection's messages, replies,
//   errors and barriers on that connection's serial queue.
// - Once an LXPCBase starts being destroyed, no event of any of its connections, pending
//   replies or queued barriers reaches its handler, and the destructor waits for a callback
//   already running on another thread to return. So a handler may be freed right after the
//   base that feeds it, even with barriers or replies still queued.
// - This layer takes no action on errors of its own; the handler decides (usually Disconnect).
#pragma once

#include <cstdint>
#include <functional>
#include <memory>

#include "platform/llist.h"
#include "xpc/lxpc_data.h"
#include "xpc/transport/xpc_transport.h"

// The kind of an error event, by identity with the transport's error objects.
enum LXPCErrorType : int32_t {
    LXPCErrorOther = 0,
    LXPCErrorConnectionInvalid = 1,      // XPC_ERROR_CONNECTION_INVALID
    LXPCErrorConnectionInterrupted = 2,  // XPC_ERROR_CONNECTION_INTERRUPTED
    LXPCErrorTerminationImminent = 3,    // XPC_ERROR_TERMINATION_IMMINENT
};

// The id that stands for no connection.
inline constexpr long kLXPCNoConnection = -1;

// The handler of connection events. Not deleted through this interface, hence the protected,
// non-virtual destructor.
class LXPCEventNotify {
public:
    // When set, messages and replies arrive through the array forms (5 and 6), else through
    // the list forms (3 and 4).
    bool bArrayForm = false;
    // Set by construction; cleared by the destructor of the LXPCBase that feeds this handler,
    // after which nothing is delivered to it.
    bool bAlive = true;

    virtual void EvConnectionError(long connection, LXPCErrorType type) = 0;
    virtual void EvMessageSent(long connection) = 0;
    virtual void EvMessageReceived(long connection, long message,
                                   LList<LXPCDataListable> const& data) = 0;
    virtual void EvReplyReceived(long connection, LList<LXPCDataListable> const& data) = 0;
    virtual void EvMessageReceived(long connection, long message, LXPCData const* data,
                                   unsigned long count) {
        (void)connection, (void)message, (void)data, (void)count;
    }
    virtual void EvReplyReceived(long connection, LXPCData const* data, unsigned long count) {
        (void)connection, (void)data, (void)count;
    }

protected:
    LXPCEventNotify() = default;
    LXPCEventNotify(const LXPCEventNotify&) = default;
    LXPCEventNotify& operator=(const LXPCEventNotify&) = default;
    ~LXPCEventNotify() = default;
};

// A server's handler: connection events plus the refusal of a client.
class LXPCServerEventNotify : public LXPCEventNotify {
public:
    virtual void EvInvalidConnectionAttempt() = 0;

protected:
    ~LXPCServerEventNotify() = default;
};

// One transport connection and the references this object holds on it.
class LXPCConnection {
public:
    // Link in the owning server's connection list.
    LXPCConnection* pNext = nullptr;
    // The connection handle; kLXPCNoConnection once released.
    long hConnection = kLXPCNoConnection;
    // Connections are handed over suspended.
    bool bSuspended = true;
    // References this object holds on hConnection.
    uint64_t nRetainCount = 0;
    // Which connection this is, never reused within the process: a handle can name a new
    // connection once an earlier one with that handle is gone. 0: not kept by a server.
    uint64_t nGeneration = 0;

    explicit LXPCConnection(long connection) : hConnection(connection) {}
    LXPCConnection(const LXPCConnection&) = delete;
    LXPCConnection& operator=(const LXPCConnection&) = delete;
    virtual ~LXPCConnection();

    bool IsValid() const { return hConnection != kLXPCNoConnection; }
    void Resume();
    void Suspend();
    void Retain();
    // Drops one reference; the last one invalidates the handle. Nothing when none is held.
    void Release();
    // Silences the connection's handler, then cancels the connection.
    void Cancel();
    // Resumes if suspended, cancels and releases; nothing on an invalid connection.
    void Destroy();
};

namespace lxpc_detail {
struct DeliveryGate;
}

// Key lists, sending and the per-connection event handler.
class LXPCBase {
public:
    explicit LXPCBase(LXPCEventNotify* eventHandler);
    LXPCBase(const LXPCBase&) = delete;
    LXPCBase& operator=(const LXPCBase&) = delete;
    virtual ~LXPCBase();

    // Encodes `data` with the send keys and sends it on `connection`. With `bWantReply` the
    // reply (or the error that replaces it) comes back through EvReplyReceived or
    // EvConnectionError; without, EvMessageSent follows once the message has been written.
    void SendMessage(long connection, LList<LXPCDataListable> const& data, bool bWantReply);
    // Replies to `message` (a received message handle) on `connection`; EvMessageSent follows
    // once the reply has been written.
    void SendReply(long connection, long message, LList<LXPCDataListable> const& data);
    // Installs this base's event handler on `connection` and resumes it.
    void SetupConnectionHandlerAndResume(LXPCConnection& connection);

    // Pushes a copy of `key` (name cut to 259 characters) at the front of the receive keys
    // when `bReceive`, else of the send keys.
    void AddKey(LXPCDictionaryKey const& key, bool bReceive);
    void AddKey(char const* name, LXPCDataType type, bool bReceive);
    // Adds `table` from its first entry up to the first one with an empty name.
    void AddKeys(LXPCDictionaryKey const* table, bool bReceive);

    LList<LXPCDictionaryKeyListable>& SendKeys() { return lSendKeys; }
    LList<LXPCDictionaryKeyListable>& ReceiveKeys() { return lReceiveKeys; }
    LList<LXPCDictionaryKeyListable> const& SendKeys() const { return lSendKeys; }
    LList<LXPCDictionaryKeyListable> const& ReceiveKeys() const { return lReceiveKeys; }
    LXPCEventNotify* EventHandler() const { return pEventHandler; }

protected:
    // Stops every further delivery to the handler and waits for callbacks running on other
    // threads; marks the handler not alive. Idempotent; the first destructor in the chain
    // calls it before it takes anything apart.
    void StopDelivery();

    // Runs `work` with the base behind `gate` while deliveries are still allowed, keeping the
    // base from being taken apart until `work` returns; false (and `work` not run) when not.
    // The gate is taken by value: the closure that calls this may be replaced (and freed) by
    // the work it runs.
    static bool RunIfAlive(std::shared_ptr<lxpc_detail::DeliveryGate> gate,
                           const std::function<void(LXPCBase& base)>& work);

    LXPCEventNotify* pEventHandler;
    LList<LXPCDictionaryKeyListable> lSendKeys;
    LList<LXPCDictionaryKeyListable> lReceiveKeys;
    // Shared with every handler, reply handler and barrier this base installs, so that they
    // can tell, after the base is gone, that they must not deliver.
    std::shared_ptr<lxpc_detail::DeliveryGate> pGate;

private:
    // Handles one event of a connection or a reply handler: a dictionary is decoded and
    // delivered as a message (or reply), an error goes to ErrorHandler, the rest is ignored.
    void HandleEvent(lxpc::xpc_object_t event, long connection, bool bReply);
    // Sends a message or reply without waiting for an answer, followed by a barrier that
    // reports EvMessageSent(connection) once the transport has taken it.
    void SendReportingSent(lxpc::xpc_connection_t target, lxpc::xpc_object_t message,
                           long connection);
};

// Maps `error` to its LXPCErrorType by identity with the transport's three error objects
// (anything else is LXPCErrorOther) and calls handler->EvConnectionError(connection, type).
void ErrorHandler(lxpc::xpc_object_t error, long connection, LXPCEventNotify* handler);

// The connection id of an event: the remote connection of a message or reply dictionary;
// `fallback` (the connection the event arrived on) for errors and anything else, whose
// remote connection is never asked for.
long LXPCEventConnection(lxpc::xpc_object_t event, long fallback);

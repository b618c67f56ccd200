// Message plumbing of the client tool: key lists built from the service's key tables,
// dictionaries built from named values, decoded values copied out of a received dictionary
// (so they outlive it), and a queue that hands transport events to the main thread.
//
// The tool speaks from the clients' side: towards the service and towards the audio device
// it sends arVADHelperTxKeys and receives arVADHelperRxKeys; as the audio device, on its
// direct connections, the other way round.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "xpc/lxpc_data.h"
#include "xpc/transport/xpc_transport.h"

namespace vadctl {

// A send and a receive key list, each filled from a key table.
class KeyLists {
public:
    KeyLists(LXPCDictionaryKey const* sendTable, LXPCDictionaryKey const* receiveTable);

    // A dictionary holding the named values; values without a send key are left out.
    // Caller releases.
    lxpc::xpc_object_t Encode(std::initializer_list<std::pair<char const*, long>> values);
    lxpc::xpc_object_t EncodeDouble(char const* name, double value);
    lxpc::xpc_object_t EncodeData(char const* name, void const* bytes, size_t length);
    // Sets the named values in an existing dictionary (a reply).
    void Fill(lxpc::xpc_object_t dictionary,
              std::initializer_list<std::pair<char const*, long>> values);

    LList<LXPCDictionaryKeyListable> send;
    LList<LXPCDictionaryKeyListable> receive;
};

// One decoded value, owning what it refers to.
struct Value {
    std::string name;
    LXPCDataType type = LXPCDataTypeNone;
    int64_t number = 0;
    double floating = 0.0;
    std::vector<uint8_t> bytes;           // data and string values
    lxpc::xpc_object_t object = nullptr;  // retained

    Value() = default;
    Value(Value const&) = delete;
    Value& operator=(Value const&) = delete;
    Value(Value&& other) noexcept;
    Value& operator=(Value&& other) noexcept;
    ~Value();
};

// The values of a received dictionary, decoded with `receive`.
std::vector<Value> Decode(lxpc::xpc_object_t dictionary, LList<LXPCDictionaryKeyListable>& receive);

// The value named `name`, or null.
Value const* Find(std::vector<Value> const& values, char const* name);

// What a connection's handler saw.
struct Event {
    lxpc::xpc_connection_t connection = nullptr;  // not retained: an id only
    bool error = false;
    std::vector<Value> values;
};

// Events from the transport's queues to the thread that waits for them.
class EventQueue {
public:
    void Push(Event event);
    // The next event, or nothing after `timeout`.
    std::optional<Event> Pop(std::chrono::milliseconds timeout);

private:
    std::mutex mutex_;
    std::condition_variable ready_;
    std::deque<Event> events_;
};

// What a connection's event handler fills. The handler holds it by shared pointer: after its
// owner has cancelled the connection and moved on, the handler still runs once more (with
// the final error that cancellation delivers), and must find everything it touches alive.
struct Inbox {
    Inbox(LXPCDictionaryKey const* sendTable, LXPCDictionaryKey const* receiveTable)
        : keys(sendTable, receiveTable) {}

    KeyLists keys;
    EventQueue events;
};

// Sets the connection's handler, which decodes every message it gets with inbox->keys and
// pushes it (or an error) into inbox->events, and resumes the connection.
void Watch(lxpc::xpc_connection_t connection, std::shared_ptr<Inbox> inbox);

// Connects to the service and watches the connection with `inbox`. Caller releases (after
// cancelling).
lxpc::xpc_connection_t ConnectToService(std::shared_ptr<Inbox> inbox);

// Sends `message` and waits up to `timeout` for its reply: the decoded reply values, or
// nothing when an error came instead or nothing came in time (`timedOut` then set).
std::optional<std::vector<Value>> SendAndWait(lxpc::xpc_connection_t connection,
                                              lxpc::xpc_object_t message, KeyLists& keys,
                                              std::chrono::milliseconds timeout, bool& timedOut);

}  // namespace vadctl

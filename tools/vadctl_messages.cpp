// Message plumbing of the client tool.
#include "tools/vadctl_messages.h"

#include <unistd.h>

#include <cstring>
#include <iterator>
#include <utility>

#include "helper/vadhelper_startup.h"

namespace vadctl {

namespace {

LXPCDictionaryKeyListable const* FindKey(LList<LXPCDictionaryKeyListable> const& list,
                                         char const* name) {
    return list.FindFirst([name](LXPCDictionaryKeyListable const& key) {
        return std::strcmp(key.szName, name) == 0;
    });
}

// A new dictionary holding the one value `make` builds from the send key `name`; empty when
// there is no such key. Caller releases.
template <class Make>
lxpc::xpc_object_t EncodeOne(LList<LXPCDictionaryKeyListable>& send, char const* name, Make make) {
    LList<LXPCDataListable> list;
    if (auto const* key = FindKey(send, name))
        list.PushFront(make(*key));
    lxpc::xpc_object_t dictionary = lxpc::xpc_dictionary_create(nullptr, nullptr, 0);
    SetXPCDictionary(dictionary, send, list);
    return dictionary;
}

}  // namespace

KeyLists::KeyLists(LXPCDictionaryKey const* sendTable, LXPCDictionaryKey const* receiveTable) {
    LXPCAddKeyTable(send, sendTable);
    LXPCAddKeyTable(receive, receiveTable);
}

void KeyLists::Fill(lxpc::xpc_object_t dictionary,
                    std::initializer_list<std::pair<char const*, long>> values) {
    LList<LXPCDataListable> list;
    // Pushed in reverse so the list reads in the order given.
    for (auto it = std::rbegin(values); it != std::rend(values); ++it) {
        if (auto const* key = FindKey(send, it->first))
            list.PushFront(CreateXPCData(*key, it->second, 0));
    }
    SetXPCDictionary(dictionary, send, list);
}

lxpc::xpc_object_t KeyLists::Encode(std::initializer_list<std::pair<char const*, long>> values) {
    lxpc::xpc_object_t dictionary = lxpc::xpc_dictionary_create(nullptr, nullptr, 0);
    Fill(dictionary, values);
    return dictionary;
}

lxpc::xpc_object_t KeyLists::EncodeDouble(char const* name, double value) {
    return EncodeOne(send, name, [value](LXPCDictionaryKeyListable const& key) {
        return CreateXPCDataDouble(key, value);
    });
}

lxpc::xpc_object_t KeyLists::EncodeData(char const* name, void const* bytes, size_t length) {
    return EncodeOne(send, name, [bytes, length](LXPCDictionaryKeyListable const& key) {
        return CreateXPCData(key, LXPCPointerAsValue(bytes), length);
    });
}

Value::Value(Value&& other) noexcept
    : name(std::move(other.name)),
      type(other.type),
      number(other.number),
      floating(other.floating),
      bytes(std::move(other.bytes)),
      object(std::exchange(other.object, nullptr)) {}

Value& Value::operator=(Value&& other) noexcept {
    if (this != &other) {
        if (object)
            lxpc::xpc_release(object);
        name = std::move(other.name);
        type = other.type;
        number = other.number;
        floating = other.floating;
        bytes = std::move(other.bytes);
        object = std::exchange(other.object, nullptr);
    }
    return *this;
}

Value::~Value() {
    if (object)
        lxpc::xpc_release(object);
}

std::vector<Value> Decode(lxpc::xpc_object_t dictionary,
                          LList<LXPCDictionaryKeyListable>& receive) {
    LList<LXPCDataListable> list;
    GetXPCDictionary(dictionary, receive, list);
    std::vector<Value> values;
    for (LXPCDataListable const& data : list) {
        Value value;
        value.name = data.szName;
        value.type = data.type;
        value.number = data.nValue;
        value.floating = data.fValue;
        auto const* pointer = LXPCValueAsPointer<uint8_t const>(data.nValue);
        switch (data.type) {
            case LXPCDataTypeData:
                if (pointer && data.nValue != -1)
                    value.bytes.assign(pointer, pointer + data.nLength);
                break;
            case LXPCDataTypeString:
                if (pointer && data.nValue != -1)
                    value.bytes.assign(
                        pointer, pointer + std::strlen(reinterpret_cast<char const*>(pointer)));
                break;
            case LXPCDataTypeObject:
                if (data.nValue != 0 && data.nValue != -1)
                    value.object = lxpc::xpc_retain(LXPCValueAsPointer(data.nValue));
                break;
            case LXPCDataTypeFD:
                // A decoded descriptor is the receiver's; the tool has no use for one.
                if (data.nValue >= 0)
                    ::close(static_cast<int>(data.nValue));
                break;
            default:
                break;
        }
        values.push_back(std::move(value));
    }
    return values;
}

Value const* Find(std::vector<Value> const& values, char const* name) {
    for (Value const& value : values) {
        if (value.name == name)
            return &value;
    }
    return nullptr;
}

void EventQueue::Push(Event event) {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        events_.push_back(std::move(event));
    }
    ready_.notify_one();
}

std::optional<Event> EventQueue::Pop(std::chrono::milliseconds timeout) {
    std::unique_lock<std::mutex> lock(mutex_);
    if (!ready_.wait_for(lock, timeout, [this] { return !events_.empty(); }))
        return std::nullopt;
    Event event = std::move(events_.front());
    events_.pop_front();
    return event;
}

void Watch(lxpc::xpc_connection_t connection, std::shared_ptr<Inbox> inbox) {
    // The connection is captured as an id only: a retained reference in its own handler
    // would keep it alive for ever.
    lxpc::xpc_connection_set_event_handler(
        connection, [connection, inbox = std::move(inbox)](lxpc::xpc_object_t event) {
            Event e;
            e.connection = connection;
            if (lxpc::xpc_get_type(event) == lxpc::XPC_TYPE_DICTIONARY)
                e.values = Decode(event, inbox->keys.receive);
            else
                e.error = true;
            inbox->events.Push(std::move(e));
        });
    lxpc::xpc_connection_resume(connection);
}

lxpc::xpc_connection_t ConnectToService(std::shared_ptr<Inbox> inbox) {
    lxpc::xpc_connection_t connection =
        lxpc::xpc_connection_create_mach_service(kLVADHelperServiceName, nullptr, 0);
    if (connection)
        Watch(connection, std::move(inbox));
    return connection;
}

namespace {

// Where a reply meets its waiter; shared with the reply handler, which may run after the
// waiter gave up.
struct ReplyWait {
    ~ReplyWait() {
        if (reply)
            lxpc::xpc_release(reply);
    }
    std::mutex mutex;
    std::condition_variable arrived;
    lxpc::xpc_object_t reply = nullptr;  // retained
};

}  // namespace

std::optional<std::vector<Value>> SendAndWait(lxpc::xpc_connection_t connection,
                                              lxpc::xpc_object_t message, KeyLists& keys,
                                              std::chrono::milliseconds timeout, bool& timedOut) {
    auto wait = std::make_shared<ReplyWait>();
    lxpc::xpc_connection_send_message_with_reply(connection, message, nullptr,
                                                 [wait](lxpc::xpc_object_t reply) {
                                                     std::lock_guard<std::mutex> lock(wait->mutex);
                                                     if (!wait->reply)
                                                         wait->reply = lxpc::xpc_retain(reply);
                                                     wait->arrived.notify_all();
                                                 });
    std::unique_lock<std::mutex> lock(wait->mutex);
    timedOut = !wait->arrived.wait_for(lock, timeout, [&] { return wait->reply != nullptr; });
    if (timedOut || lxpc::xpc_get_type(wait->reply) != lxpc::XPC_TYPE_DICTIONARY)
        return std::nullopt;
    return Decode(wait->reply, keys.receive);
}

}  // namespace vadctl

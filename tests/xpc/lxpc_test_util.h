// Shared pieces of the messaging tests: a handler that copies what its callbacks get (decoded
// pointers live only during a callback) and can be waited on.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <cstring>
#include <functional>
#include <memory>
#include <mutex>
#include <span>
#include <string>
#include <vector>

#include "tests/file/temp_tree.h"
#include "xpc/lxpc_base.h"
#include "xpc/lxpc_data.h"
#include "xpc/lxpc_server.h"

namespace lxpc_test {

inline constexpr int kWaitMs = 10000;

struct RecordedValue {
    LXPCData data;
    std::string bytes;  // string text, data bytes or the 16 uuid bytes
};

// Values of a list or an array (as a span).
template <class Values>
std::vector<RecordedValue> Record(const Values& values) {
    std::vector<RecordedValue> out;
    for (const LXPCData& value : values) {
        const auto* pointer = LXPCValueAsPointer<const char>(value.nValue);
        std::string bytes;
        if (value.nValue != 0 && value.nValue != -1) {
            if (value.type == LXPCDataTypeString) {
                bytes = pointer;
            } else if (value.type == LXPCDataTypeData || value.type == LXPCDataTypeUUID) {
                bytes.assign(pointer, value.type == LXPCDataTypeData ? value.nLength : 16);
            }
        }
        out.push_back({value, std::move(bytes)});
    }
    return out;
}

// The named value; a missing one fails the test and reads as all zero.
inline const RecordedValue& Find(const std::vector<RecordedValue>& values, const char* name) {
    static const RecordedValue missing{};
    for (const RecordedValue& value : values) {
        if (std::strcmp(value.data.szName, name) == 0) {
            return value;
        }
    }
    ADD_FAILURE() << "no value " << name;
    return missing;
}

struct Delivery {
    long connection = 0;
    bool arrayForm = false;
    std::vector<RecordedValue> values;
};

// Records every event; the hooks run inside the callback (on the transport's queue).
class Recorder final : public LXPCServerEventNotify {
public:
    std::function<void(long connection, long message, const LList<LXPCDataListable>& data)>
        onMessage;
    std::function<void(long connection, LXPCErrorType type)> onError;

    void EvConnectionError(long connection, LXPCErrorType type) override {
        if (onError) {
            onError(connection, type);
        }
        Add([&] { errors.emplace_back(connection, type); });
    }
    void EvMessageSent(long connection) override {
        Add([&] { sent.push_back(connection); });
    }
    void EvMessageReceived(long connection, long message,
                           LList<LXPCDataListable> const& data) override {
        if (onMessage) {
            onMessage(connection, message, data);
        }
        Add([&] { messages.push_back({connection, false, Record(data)}); });
    }
    void EvMessageReceived(long connection, long, LXPCData const* data,
                           unsigned long count) override {
        Add([&] { messages.push_back({connection, true, Record(std::span(data, count))}); });
    }
    void EvReplyReceived(long connection, LList<LXPCDataListable> const& data) override {
        Add([&] { replies.push_back({connection, false, Record(data)}); });
    }
    void EvReplyReceived(long connection, LXPCData const* data, unsigned long count) override {
        Add([&] { replies.push_back({connection, true, Record(std::span(data, count))}); });
    }
    void EvInvalidConnectionAttempt() override {
        Add([&] { ++invalidAttempts; });
    }

    // Waits until `done` holds (checked under the recorder's lock); false on timeout.
    bool WaitUntil(const std::function<bool()>& done, int ms = kWaitMs) {
        std::unique_lock lock(mutex);
        return changed.wait_for(lock, std::chrono::milliseconds(ms), done);
    }

    std::mutex mutex;
    std::condition_variable changed;
    std::vector<Delivery> messages;
    std::vector<Delivery> replies;
    std::vector<std::pair<long, LXPCErrorType>> errors;
    std::vector<long> sent;
    int invalidAttempts = 0;

private:
    // Notifies under the lock: a test that saw the change may destroy the recorder at once.
    template <class F>
    void Add(F&& add) {
        std::lock_guard lock(mutex);
        add();
        changed.notify_all();
    }
};

// One value of a list made by Values.
struct Value {
    const char* name;
    LXPCDataType type;
    long value;
    unsigned long length = 0;
};

// A value list of `values`, each pushed at the front in turn, against throwaway keys.
inline LList<LXPCDataListable> Values(std::initializer_list<Value> values) {
    LList<LXPCDataListable> list;
    for (const Value& v : values) {
        LXPCDictionaryKeyListable key;
        LXPCCopyName(key.szName, v.name);
        key.type = v.type;
        list.PushFront(CreateXPCData(key, v.value, v.length));
    }
    return list;
}

// Hands a new client connection to an LXPCConnection, which then holds its only reference.
inline std::unique_ptr<LXPCConnection> Adopt(LXPCBase& base, lxpc::xpc_connection_t connection) {
    auto held = std::make_unique<LXPCConnection>(LXPCPointerAsValue(connection));
    base.SetupConnectionHandlerAndResume(*held);
    held->Retain();
    lxpc::xpc_release(connection);
    return held;
}

}  // namespace lxpc_test

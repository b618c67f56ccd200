// Internal object layouts of the transport, shared by the object model, the wire codec, the
// queues and the connections. Nothing outside xpc/transport/ (and its tests) includes this.
//
// Invariants:
// - Every object starts with one reference; the last xpc_release destroys it. Immortal
//   objects (the error singletons) ignore retain and release.
// - Containers own one reference to each value they hold.
// - A data object's bytes never change after creation: large ones live in a sealed memfd
//   mapping that the kernel guarantees nobody can write, shrink or grow.
// - A dictionary received from a peer holds a reference to the connection it came on, so
//   that a reply can be routed back for as long as the message is alive.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "xpc/transport/xpc_transport.h"

namespace lxpc {

struct _xpc_object {
    explicit _xpc_object(xpc_type_t t, bool isImmortal = false) : type(t), immortal(isImmortal) {}
    virtual ~_xpc_object() = default;
    _xpc_object(const _xpc_object&) = delete;
    _xpc_object& operator=(const _xpc_object&) = delete;

    const xpc_type_t type;
    const bool immortal;
    std::atomic<int32_t> refs{1};
};

namespace detail {

struct BoolObject : _xpc_object {
    explicit BoolObject(bool v) : _xpc_object(XPC_TYPE_BOOL), value(v) {}
    const bool value;
};

// int64 and date share a layout; the type tells them apart.
struct Int64Object : _xpc_object {
    Int64Object(xpc_type_t t, int64_t v) : _xpc_object(t), value(v) {}
    const int64_t value;
};

struct Uint64Object : _xpc_object {
    explicit Uint64Object(uint64_t v) : _xpc_object(XPC_TYPE_UINT64), value(v) {}
    const uint64_t value;
};

struct DoubleObject : _xpc_object {
    explicit DoubleObject(double v) : _xpc_object(XPC_TYPE_DOUBLE), value(v) {}
    const double value;
};

// Bytes either on the heap or in a sealed memfd (memfd >= 0). A memfd is mapped read-only
// the first time its bytes are asked for: a sender that only passes the descriptor on, or a
// receiver that only forwards it, never pays for the mapping.
struct DataObject : _xpc_object {
    DataObject() : _xpc_object(XPC_TYPE_DATA) {}
    ~DataObject() override;
    const uint8_t* Bytes() const;  // null only when a memfd cannot be mapped

    std::unique_ptr<uint8_t[]> heap;
    size_t length = 0;
    int memfd = -1;

private:
    mutable std::once_flag mapOnce_;
    mutable std::atomic<const uint8_t*> mapping_{nullptr};
};

struct UuidObject : _xpc_object {
    UuidObject() : _xpc_object(XPC_TYPE_UUID) {}
    uint8_t bytes[16] = {};
};

struct StringObject : _xpc_object {
    explicit StringObject(std::string v) : _xpc_object(XPC_TYPE_STRING), value(std::move(v)) {}
    const std::string value;
};

// fd and endpoint objects own one descriptor each (an endpoint's is a connector socket).
struct DescriptorObject : _xpc_object {
    DescriptorObject(xpc_type_t t, int descriptor) : _xpc_object(t), fd(descriptor) {}
    ~DescriptorObject() override;
    const int fd;
};

struct ArrayObject : _xpc_object {
    ArrayObject() : _xpc_object(XPC_TYPE_ARRAY) {}
    ~ArrayObject() override;
    std::vector<xpc_object_t> values;
};

struct DictionaryObject : _xpc_object {
    explicit DictionaryObject(xpc_type_t t = XPC_TYPE_DICTIONARY, bool isImmortal = false)
        : _xpc_object(t, isImmortal) {}
    ~DictionaryObject() override;

    xpc_object_t Find(std::string_view key) const;
    // Takes over one reference to value (replacing an existing entry in place).
    void Put(std::string_view key, xpc_object_t value);
    bool Contains(std::string_view key) const;
    // Removes key, keeping the order of the others.
    void Remove(std::string_view key);

    std::vector<std::pair<std::string, xpc_object_t>> entries;
    // Built once a dictionary grows past a few entries, so that hostile packets with many
    // keys cannot make decoding quadratic.
    std::unordered_map<std::string, size_t> index;

    // Routing: a message received from a peer records the connection it came on
    // (retained) and, when it wants a reply, the id to answer. A reply made from it
    // records the id it answers.
    xpc_connection_t remote = nullptr;
    uint64_t wantsReplyId = 0;
    uint64_t repliesToId = 0;
};

DictionaryObject* AsDictionary(xpc_object_t object);  // dictionaries and errors; else null

// Adopts descriptors: returns an object owning `fd`, or null (fd closed) on failure.
xpc_object_t MakeDescriptor(xpc_type_t type, int fd);
// Adopts a memfd already proven sealed at `length` bytes.
xpc_object_t MakeSealedData(int memfd, size_t length);

}  // namespace detail

// A serial queue: items run one at a time in the order queued, on a pool thread (or on the
// main queue for the main-thread queue). The connection readers may run an item inline
// when the queue is idle, which keeps a request/reply round trip free of thread hops.
struct _xpc_queue {
    _xpc_queue(std::string l, bool main) : label(std::move(l)), onMainQueue(main) {}

    void Async(std::function<void()> work);
    // Runs `work` on the calling thread when the queue is idle and empty, else queues it.
    void RunOrAsync(std::function<void()> work);
    void Drain();

    const std::string label;
    const bool onMainQueue;
    std::atomic<int32_t> refs{1};
    std::mutex mutex;
    std::deque<std::function<void()>> items;
    bool active = false;  // an executor owns the queue (running or scheduled)
};

void QueueRetain(xpc_queue_t queue);
void QueueRelease(xpc_queue_t queue);

}  // namespace lxpc

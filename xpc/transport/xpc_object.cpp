// The object model: reference counting, scalars, data, strings, descriptors, arrays and
// insertion-ordered dictionaries, and the three error singletons.
//
// Getters never fail loudly: a null object, a missing key or a value of another type gives
// the platform's fallback (false, 0, 0.0, null, -1 for descriptors). Data made here lives on
// the heap whatever its size: a send copies it into the socket's shared region, which costs
// far less than fresh sealed pages would; only data received sealed stays in its memfd.
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <string_view>

#include "xpc/transport/xpc_internal.h"
#include "xpc/transport/xpc_os.h"
#include "xpc/transport/xpc_wire.h"

namespace lxpc {

namespace detail {

namespace {

// Dictionaries switch from a linear scan to a hash index past this many entries.
constexpr size_t kIndexThreshold = 12;

DictionaryObject* MakeError(const char* description) {
    auto* error = new DictionaryObject(XPC_TYPE_ERROR, true);
    error->Put(XPC_ERROR_KEY_DESCRIPTION, xpc_string_create(description));
    return error;
}

template <typename T>
T* As(xpc_object_t object, xpc_type_t type) {
    if (object == nullptr || object->type != type) {
        return nullptr;
    }
    return static_cast<T*>(object);
}

}  // namespace

DataObject::~DataObject() {
    if (memfd >= 0) {
        os::Unmap(mapping_.load(std::memory_order_acquire), length);
        os::Close(memfd);
    }
}

const uint8_t* DataObject::Bytes() const {
    if (memfd < 0) {
        return heap.get();
    }
    std::call_once(mapOnce_, [this] {
        mapping_.store(static_cast<const uint8_t*>(os::MapReadOnly(memfd, length)),
                       std::memory_order_release);
    });
    return mapping_.load(std::memory_order_acquire);
}

DescriptorObject::~DescriptorObject() {
    os::Close(fd);
}

ArrayObject::~ArrayObject() {
    for (xpc_object_t value : values) {
        xpc_release(value);
    }
}

DictionaryObject::~DictionaryObject() {
    for (auto& entry : entries) {
        xpc_release(entry.second);
    }
    if (remote != nullptr) {
        xpc_release(remote);
    }
}

xpc_object_t DictionaryObject::Find(std::string_view key) const {
    if (!index.empty()) {
        auto found = index.find(std::string(key));
        return found == index.end() ? nullptr : entries[found->second].second;
    }
    for (const auto& entry : entries) {
        if (entry.first == key) {
            return entry.second;
        }
    }
    return nullptr;
}

bool DictionaryObject::Contains(std::string_view key) const {
    return Find(key) != nullptr;
}

void DictionaryObject::Remove(std::string_view key) {
    for (auto it = entries.begin(); it != entries.end(); ++it) {
        if (it->first == key) {
            xpc_release(it->second);
            entries.erase(it);
            index.clear();
            if (entries.size() > kIndexThreshold) {
                for (size_t i = 0; i < entries.size(); ++i) {
                    index.emplace(entries[i].first, i);
                }
            }
            return;
        }
    }
}

void DictionaryObject::Put(std::string_view key, xpc_object_t value) {
    if (!index.empty()) {
        auto found = index.find(std::string(key));
        if (found != index.end()) {
            xpc_release(entries[found->second].second);
            entries[found->second].second = value;
            return;
        }
    } else {
        for (auto& entry : entries) {
            if (entry.first == key) {
                xpc_release(entry.second);
                entry.second = value;
                return;
            }
        }
    }
    entries.emplace_back(std::string(key), value);
    if (!index.empty()) {
        index.emplace(entries.back().first, entries.size() - 1);
    } else if (entries.size() > kIndexThreshold) {
        index.reserve(entries.size() * 2);
        for (size_t i = 0; i < entries.size(); ++i) {
            index.emplace(entries[i].first, i);
        }
    }
}

DictionaryObject* AsDictionary(xpc_object_t object) {
    if (object == nullptr ||
        (object->type != XPC_TYPE_DICTIONARY && object->type != XPC_TYPE_ERROR)) {
        return nullptr;
    }
    return static_cast<DictionaryObject*>(object);
}

xpc_object_t MakeDescriptor(xpc_type_t type, int fd) {
    if (fd < 0) {
        return nullptr;
    }
    return new DescriptorObject(type, fd);
}

xpc_object_t MakeSealedData(int memfd, size_t length) {
    auto* data = new DataObject;
    data->memfd = memfd;
    data->length = length;
    return data;
}

}  // namespace detail

using namespace detail;

const xpc_object_t XPC_ERROR_CONNECTION_INVALID = MakeError("Connection invalid");
const xpc_object_t XPC_ERROR_CONNECTION_INTERRUPTED = MakeError("Connection interrupted");
const xpc_object_t XPC_ERROR_TERMINATION_IMMINENT = MakeError("Termination imminent");

xpc_object_t xpc_retain(xpc_object_t object) {
    if (object != nullptr && !object->immortal) {
        object->refs.fetch_add(1, std::memory_order_relaxed);
    }
    return object;
}

void xpc_release(xpc_object_t object) {
    if (object == nullptr || object->immortal) {
        return;
    }
    if (object->refs.fetch_sub(1, std::memory_order_acq_rel) == 1) {
        delete object;
    }
}

xpc_type_t xpc_get_type(xpc_object_t object) {
    return object == nullptr ? XPC_TYPE_NULL : object->type;
}

bool xpc_equal(xpc_object_t a, xpc_object_t b) {
    if (a == b) {
        return true;
    }
    if (a == nullptr || b == nullptr || a->type != b->type) {
        return false;
    }
    switch (a->type) {
        case XPC_TYPE_NULL:
            return true;
        case XPC_TYPE_BOOL:
            return xpc_bool_get_value(a) == xpc_bool_get_value(b);
        case XPC_TYPE_INT64:
        case XPC_TYPE_DATE:
            return static_cast<const Int64Object*>(a)->value ==
                   static_cast<const Int64Object*>(b)->value;
        case XPC_TYPE_UINT64:
            return xpc_uint64_get_value(a) == xpc_uint64_get_value(b);
        case XPC_TYPE_DOUBLE: {
            // A NaN equals an identical NaN: an object is equal to a copy of itself.
            const double x = xpc_double_get_value(a), y = xpc_double_get_value(b);
            return x == y || std::memcmp(&x, &y, sizeof x) == 0;
        }
        case XPC_TYPE_DATA: {
            const size_t length = xpc_data_get_length(a);
            const void* x = xpc_data_get_bytes_ptr(a);
            const void* y = xpc_data_get_bytes_ptr(b);
            return length == xpc_data_get_length(b) && x != nullptr && y != nullptr &&
                   (length == 0 || std::memcmp(x, y, length) == 0);
        }
        case XPC_TYPE_UUID:
            return std::memcmp(xpc_uuid_get_bytes(a), xpc_uuid_get_bytes(b), 16) == 0;
        case XPC_TYPE_STRING:
            return static_cast<const StringObject*>(a)->value ==
                   static_cast<const StringObject*>(b)->value;
        case XPC_TYPE_FD:
        case XPC_TYPE_ENDPOINT:
            return os::SameFile(static_cast<const DescriptorObject*>(a)->fd,
                                static_cast<const DescriptorObject*>(b)->fd);
        case XPC_TYPE_ARRAY: {
            const auto& x = static_cast<const ArrayObject*>(a)->values;
            const auto& y = static_cast<const ArrayObject*>(b)->values;
            if (x.size() != y.size()) {
                return false;
            }
            for (size_t i = 0; i < x.size(); ++i) {
                if (!xpc_equal(x[i], y[i])) {
                    return false;
                }
            }
            return true;
        }
        case XPC_TYPE_DICTIONARY: {
            // Equal dictionaries hold the same keys and values; the order they were set in
            // does not matter.
            const auto* x = static_cast<const DictionaryObject*>(a);
            const auto* y = static_cast<const DictionaryObject*>(b);
            if (x->entries.size() != y->entries.size()) {
                return false;
            }
            for (const auto& entry : x->entries) {
                if (!xpc_equal(entry.second, y->Find(entry.first))) {
                    return false;
                }
            }
            return true;
        }
        case XPC_TYPE_CONNECTION:
        case XPC_TYPE_ERROR:
            return false;
    }
    return false;
}

xpc_object_t xpc_null_create() {
    return new _xpc_object(XPC_TYPE_NULL);
}

xpc_object_t xpc_bool_create(bool value) {
    return new BoolObject(value);
}

bool xpc_bool_get_value(xpc_object_t object) {
    const auto* b = As<BoolObject>(object, XPC_TYPE_BOOL);
    return b != nullptr && b->value;
}

xpc_object_t xpc_int64_create(int64_t value) {
    return new Int64Object(XPC_TYPE_INT64, value);
}

int64_t xpc_int64_get_value(xpc_object_t object) {
    const auto* i = As<Int64Object>(object, XPC_TYPE_INT64);
    return i == nullptr ? 0 : i->value;
}

xpc_object_t xpc_uint64_create(uint64_t value) {
    return new Uint64Object(value);
}

uint64_t xpc_uint64_get_value(xpc_object_t object) {
    const auto* u = As<Uint64Object>(object, XPC_TYPE_UINT64);
    return u == nullptr ? 0 : u->value;
}

xpc_object_t xpc_double_create(double value) {
    return new DoubleObject(value);
}

double xpc_double_get_value(xpc_object_t object) {
    const auto* d = As<DoubleObject>(object, XPC_TYPE_DOUBLE);
    return d == nullptr ? 0.0 : d->value;
}

xpc_object_t xpc_date_create(int64_t interval) {
    return new Int64Object(XPC_TYPE_DATE, interval);
}

int64_t xpc_date_get_value(xpc_object_t object) {
    const auto* d = As<Int64Object>(object, XPC_TYPE_DATE);
    return d == nullptr ? 0 : d->value;
}

xpc_object_t xpc_data_create(const void* bytes, size_t length) {
    if (bytes == nullptr) {
        length = 0;
    }
    auto* data = new DataObject;
    // One byte at least, so that the bytes pointer of empty data is valid too.
    data->heap = std::make_unique_for_overwrite<uint8_t[]>(length == 0 ? 1 : length);
    if (length != 0) {
        std::memcpy(data->heap.get(), bytes, length);
    }
    data->length = length;
    return data;
}

const void* xpc_data_get_bytes_ptr(xpc_object_t object) {
    const auto* d = As<DataObject>(object, XPC_TYPE_DATA);
    return d == nullptr ? nullptr : d->Bytes();
}

size_t xpc_data_get_length(xpc_object_t object) {
    const auto* d = As<DataObject>(object, XPC_TYPE_DATA);
    return d == nullptr ? 0 : d->length;
}

xpc_object_t xpc_uuid_create(const unsigned char* uuid) {
    auto* u = new UuidObject;
    if (uuid != nullptr) {
        std::memcpy(u->bytes, uuid, sizeof u->bytes);
    }
    return u;
}

const uint8_t* xpc_uuid_get_bytes(xpc_object_t object) {
    const auto* u = As<UuidObject>(object, XPC_TYPE_UUID);
    return u == nullptr ? nullptr : u->bytes;
}

xpc_object_t xpc_string_create(const char* string) {
    return new StringObject(string == nullptr ? std::string() : std::string(string));
}

size_t xpc_string_get_length(xpc_object_t object) {
    const auto* s = As<StringObject>(object, XPC_TYPE_STRING);
    return s == nullptr ? 0 : s->value.size();
}

const char* xpc_string_get_string_ptr(xpc_object_t object) {
    const auto* s = As<StringObject>(object, XPC_TYPE_STRING);
    return s == nullptr ? nullptr : s->value.c_str();
}

xpc_object_t xpc_fd_create(int fd) {
    if (fd < 0) {
        return nullptr;
    }
    return MakeDescriptor(XPC_TYPE_FD, os::Dup(fd));
}

int xpc_fd_dup(xpc_object_t object) {
    const auto* d = As<DescriptorObject>(object, XPC_TYPE_FD);
    return d == nullptr ? -1 : os::Dup(d->fd);
}

// ---- arrays ----

xpc_object_t xpc_array_create(const xpc_object_t* objects, size_t count) {
    auto* array = new ArrayObject;
    if (objects != nullptr) {
        array->values.reserve(count);
        for (size_t i = 0; i < count; ++i) {
            array->values.push_back(objects[i] == nullptr ? xpc_null_create()
                                                          : xpc_retain(objects[i]));
        }
    }
    return array;
}

void xpc_array_append_value(xpc_object_t array, xpc_object_t value) {
    if (array == nullptr || array->type != XPC_TYPE_ARRAY || value == nullptr || value == array) {
        return;
    }
    static_cast<ArrayObject*>(array)->values.push_back(xpc_retain(value));
}

size_t xpc_array_get_count(xpc_object_t array) {
    const auto* a = As<ArrayObject>(array, XPC_TYPE_ARRAY);
    return a == nullptr ? 0 : a->values.size();
}

xpc_object_t xpc_array_get_value(xpc_object_t array, size_t index) {
    const auto* a = As<ArrayObject>(array, XPC_TYPE_ARRAY);
    return a == nullptr || index >= a->values.size() ? nullptr : a->values[index];
}

bool xpc_array_apply(xpc_object_t array, const xpc_array_applier_t& applier) {
    const auto* a = As<ArrayObject>(array, XPC_TYPE_ARRAY);
    if (a == nullptr || !applier) {
        return a != nullptr;
    }
    for (size_t i = 0; i < a->values.size(); ++i) {
        if (!applier(i, a->values[i])) {
            return false;
        }
    }
    return true;
}

// ---- dictionaries ----

xpc_object_t xpc_dictionary_create(const char* const* keys, const xpc_object_t* values,
                                   size_t count) {
    auto* dictionary = new DictionaryObject;
    if (keys != nullptr && values != nullptr) {
        for (size_t i = 0; i < count; ++i) {
            if (keys[i] != nullptr && values[i] != nullptr) {
                dictionary->Put(keys[i], xpc_retain(values[i]));
            }
        }
    }
    return dictionary;
}

xpc_object_t xpc_dictionary_create_reply(xpc_object_t original) {
    const auto* o = As<DictionaryObject>(original, XPC_TYPE_DICTIONARY);
    if (o == nullptr || o->wantsReplyId == 0 || o->remote == nullptr) {
        return nullptr;
    }
    auto* reply = new DictionaryObject;
    reply->remote = xpc_retain(o->remote);
    reply->repliesToId = o->wantsReplyId;
    return reply;
}

void xpc_dictionary_set_value(xpc_object_t dictionary, const char* key, xpc_object_t value) {
    auto* d = As<DictionaryObject>(dictionary, XPC_TYPE_DICTIONARY);
    if (d == nullptr || key == nullptr || value == dictionary) {
        return;
    }
    if (value == nullptr) {
        d->Remove(key);
        return;
    }
    d->Put(key, xpc_retain(value));
}

xpc_object_t xpc_dictionary_get_value(xpc_object_t dictionary, const char* key) {
    const DictionaryObject* d = AsDictionary(dictionary);
    return d == nullptr || key == nullptr ? nullptr : d->Find(key);
}

size_t xpc_dictionary_get_count(xpc_object_t dictionary) {
    const DictionaryObject* d = AsDictionary(dictionary);
    return d == nullptr ? 0 : d->entries.size();
}

bool xpc_dictionary_apply(xpc_object_t dictionary, const xpc_dictionary_applier_t& applier) {
    const DictionaryObject* d = AsDictionary(dictionary);
    if (d == nullptr || !applier) {
        return d != nullptr;
    }
    for (const auto& entry : d->entries) {
        if (!applier(entry.first.c_str(), entry.second)) {
            return false;
        }
    }
    return true;
}

xpc_connection_t xpc_dictionary_get_remote_connection(xpc_object_t dictionary) {
    const DictionaryObject* d = AsDictionary(dictionary);
    return d == nullptr ? nullptr : d->remote;
}

namespace {

// Stores a freshly created value (+1), releasing it when the target is no dictionary.
void SetCreated(xpc_object_t dictionary, const char* key, xpc_object_t value) {
    auto* d = dictionary != nullptr && dictionary->type == XPC_TYPE_DICTIONARY
                  ? static_cast<DictionaryObject*>(dictionary)
                  : nullptr;
    if (d == nullptr || key == nullptr || value == nullptr) {
        xpc_release(value);
        return;
    }
    d->Put(key, value);
}

}  // namespace

void xpc_dictionary_set_bool(xpc_object_t dictionary, const char* key, bool value) {
    SetCreated(dictionary, key, xpc_bool_create(value));
}

void xpc_dictionary_set_int64(xpc_object_t dictionary, const char* key, int64_t value) {
    SetCreated(dictionary, key, xpc_int64_create(value));
}

void xpc_dictionary_set_uint64(xpc_object_t dictionary, const char* key, uint64_t value) {
    SetCreated(dictionary, key, xpc_uint64_create(value));
}

void xpc_dictionary_set_double(xpc_object_t dictionary, const char* key, double value) {
    SetCreated(dictionary, key, xpc_double_create(value));
}

void xpc_dictionary_set_date(xpc_object_t dictionary, const char* key, int64_t value) {
    SetCreated(dictionary, key, xpc_date_create(value));
}

void xpc_dictionary_set_data(xpc_object_t dictionary, const char* key, const void* bytes,
                             size_t length) {
    SetCreated(dictionary, key, xpc_data_create(bytes, length));
}

void xpc_dictionary_set_uuid(xpc_object_t dictionary, const char* key, const unsigned char* uuid) {
    SetCreated(dictionary, key, xpc_uuid_create(uuid));
}

void xpc_dictionary_set_string(xpc_object_t dictionary, const char* key, const char* string) {
    if (string == nullptr) {
        return;
    }
    SetCreated(dictionary, key, xpc_string_create(string));
}

void xpc_dictionary_set_fd(xpc_object_t dictionary, const char* key, int fd) {
    SetCreated(dictionary, key, xpc_fd_create(fd));
}

bool xpc_dictionary_get_bool(xpc_object_t dictionary, const char* key) {
    return xpc_bool_get_value(xpc_dictionary_get_value(dictionary, key));
}

int64_t xpc_dictionary_get_int64(xpc_object_t dictionary, const char* key) {
    return xpc_int64_get_value(xpc_dictionary_get_value(dictionary, key));
}

uint64_t xpc_dictionary_get_uint64(xpc_object_t dictionary, const char* key) {
    return xpc_uint64_get_value(xpc_dictionary_get_value(dictionary, key));
}

double xpc_dictionary_get_double(xpc_object_t dictionary, const char* key) {
    return xpc_double_get_value(xpc_dictionary_get_value(dictionary, key));
}

int64_t xpc_dictionary_get_date(xpc_object_t dictionary, const char* key) {
    return xpc_date_get_value(xpc_dictionary_get_value(dictionary, key));
}

const void* xpc_dictionary_get_data(xpc_object_t dictionary, const char* key, size_t* length) {
    xpc_object_t value = xpc_dictionary_get_value(dictionary, key);
    if (value == nullptr || value->type != XPC_TYPE_DATA) {
        if (length != nullptr) {
            *length = 0;
        }
        return nullptr;
    }
    if (length != nullptr) {
        *length = xpc_data_get_length(value);
    }
    return xpc_data_get_bytes_ptr(value);
}

const uint8_t* xpc_dictionary_get_uuid(xpc_object_t dictionary, const char* key) {
    return xpc_uuid_get_bytes(xpc_dictionary_get_value(dictionary, key));
}

const char* xpc_dictionary_get_string(xpc_object_t dictionary, const char* key) {
    return xpc_string_get_string_ptr(xpc_dictionary_get_value(dictionary, key));
}

int xpc_dictionary_dup_fd(xpc_object_t dictionary, const char* key) {
    return xpc_fd_dup(xpc_dictionary_get_value(dictionary, key));
}

}  // namespace lxpc

// XPC-semantics transport: the object model and connection interface that the L messaging
// classes are written against. The names and behaviour follow the platform XPC library so
// that the portable layer above reads the same on every platform; on Linux the objects
// travel as SOCK_SEQPACKET packets between processes (docs/PROTOCOL.md has the wire format).
//
// Invariants this interface keeps:
// - Every object is reference counted; *_create and xpc_*_copy return a +1 reference that the
//   caller releases; *_get_* return borrowed references valid while the container lives.
// - Dictionaries keep insertion order; setting an existing key replaces the value in place.
// - Typed getters fall back on a type mismatch or a missing key: false, 0, 0.0, null.
// - A connection's events, reply handlers and barriers run on that connection's own serial
//   queue, one at a time and in order; different connections run concurrently.
// - Cancel is final: after xpc_connection_cancel returns, the connection's handler receives
//   at most the one XPC_ERROR_CONNECTION_INVALID that cancellation delivers, and nothing else.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <functional>

namespace lxpc {

struct _xpc_object;
using xpc_object_t = _xpc_object*;
using xpc_connection_t = xpc_object_t;
using xpc_endpoint_t = xpc_object_t;

enum class xpc_type_t : uint8_t {
    null,
    boolean,
    int64,
    uint64,
    dbl,
    date,
    data,
    uuid,
    string,
    fd,
    endpoint,
    array,
    dictionary,
    connection,
    error,
};
inline constexpr xpc_type_t XPC_TYPE_NULL = xpc_type_t::null;
inline constexpr xpc_type_t XPC_TYPE_BOOL = xpc_type_t::boolean;
inline constexpr xpc_type_t XPC_TYPE_INT64 = xpc_type_t::int64;
inline constexpr xpc_type_t XPC_TYPE_UINT64 = xpc_type_t::uint64;
inline constexpr xpc_type_t XPC_TYPE_DOUBLE = xpc_type_t::dbl;
inline constexpr xpc_type_t XPC_TYPE_DATE = xpc_type_t::date;
inline constexpr xpc_type_t XPC_TYPE_DATA = xpc_type_t::data;
inline constexpr xpc_type_t XPC_TYPE_UUID = xpc_type_t::uuid;
inline constexpr xpc_type_t XPC_TYPE_STRING = xpc_type_t::string;
inline constexpr xpc_type_t XPC_TYPE_FD = xpc_type_t::fd;
inline constexpr xpc_type_t XPC_TYPE_ENDPOINT = xpc_type_t::endpoint;
inline constexpr xpc_type_t XPC_TYPE_ARRAY = xpc_type_t::array;
inline constexpr xpc_type_t XPC_TYPE_DICTIONARY = xpc_type_t::dictionary;
inline constexpr xpc_type_t XPC_TYPE_CONNECTION = xpc_type_t::connection;
inline constexpr xpc_type_t XPC_TYPE_ERROR = xpc_type_t::error;

// The three error objects are process-wide singletons compared by identity. They are
// dictionaries of type XPC_TYPE_ERROR holding XPC_ERROR_KEY_DESCRIPTION.
extern const xpc_object_t XPC_ERROR_CONNECTION_INVALID;
extern const xpc_object_t XPC_ERROR_CONNECTION_INTERRUPTED;
extern const xpc_object_t XPC_ERROR_TERMINATION_IMMINENT;
inline constexpr const char* XPC_ERROR_KEY_DESCRIPTION = "XPCErrorDescription";

inline constexpr uint64_t XPC_CONNECTION_MACH_SERVICE_LISTENER = 1u << 0;
inline constexpr uint64_t XPC_CONNECTION_MACH_SERVICE_PRIVILEGED = 1u << 1;

// A serial queue of the transport. Null where a queue is asked for means the transport's
// default: the connection's own serial queue.
struct _xpc_queue;
using xpc_queue_t = _xpc_queue*;

using xpc_handler_t = std::function<void(xpc_object_t)>;
using xpc_barrier_t = std::function<void()>;
using xpc_dictionary_applier_t = std::function<bool(const char* key, xpc_object_t value)>;
using xpc_array_applier_t = std::function<bool(size_t index, xpc_object_t value)>;

// Reference counting and introspection.
xpc_object_t xpc_retain(xpc_object_t object);
void xpc_release(xpc_object_t object);
xpc_type_t xpc_get_type(xpc_object_t object);
bool xpc_equal(xpc_object_t a, xpc_object_t b);

// Scalars and leaves.
xpc_object_t xpc_null_create();
xpc_object_t xpc_bool_create(bool value);
bool xpc_bool_get_value(xpc_object_t object);
xpc_object_t xpc_int64_create(int64_t value);
int64_t xpc_int64_get_value(xpc_object_t object);
xpc_object_t xpc_uint64_create(uint64_t value);
uint64_t xpc_uint64_get_value(xpc_object_t object);
xpc_object_t xpc_double_create(double value);
double xpc_double_get_value(xpc_object_t object);
xpc_object_t xpc_date_create(int64_t interval);
int64_t xpc_date_get_value(xpc_object_t object);
xpc_object_t xpc_data_create(const void* bytes, size_t length);
const void* xpc_data_get_bytes_ptr(xpc_object_t object);
size_t xpc_data_get_length(xpc_object_t object);
xpc_object_t xpc_uuid_create(const unsigned char* uuid);  // 16 bytes
const uint8_t* xpc_uuid_get_bytes(xpc_object_t object);
xpc_object_t xpc_string_create(const char* string);
size_t xpc_string_get_length(xpc_object_t object);
const char* xpc_string_get_string_ptr(xpc_object_t object);
xpc_object_t xpc_fd_create(int fd);   // duplicates fd; null when it cannot
int xpc_fd_dup(xpc_object_t object);  // a new descriptor the caller owns, or -1

// Arrays.
xpc_object_t xpc_array_create(const xpc_object_t* objects, size_t count);
void xpc_array_append_value(xpc_object_t array, xpc_object_t value);
size_t xpc_array_get_count(xpc_object_t array);
xpc_object_t xpc_array_get_value(xpc_object_t array, size_t index);
bool xpc_array_apply(xpc_object_t array, const xpc_array_applier_t& applier);

// Dictionaries.
xpc_object_t xpc_dictionary_create(const char* const* keys, const xpc_object_t* values,
                                   size_t count);
xpc_object_t xpc_dictionary_create_reply(xpc_object_t original);  // null unless it wants one
void xpc_dictionary_set_value(xpc_object_t dictionary, const char* key, xpc_object_t value);
xpc_object_t xpc_dictionary_get_value(xpc_object_t dictionary, const char* key);
size_t xpc_dictionary_get_count(xpc_object_t dictionary);
bool xpc_dictionary_apply(xpc_object_t dictionary, const xpc_dictionary_applier_t& applier);
xpc_connection_t xpc_dictionary_get_remote_connection(xpc_object_t dictionary);
void xpc_dictionary_set_bool(xpc_object_t dictionary, const char* key, bool value);
void xpc_dictionary_set_int64(xpc_object_t dictionary, const char* key, int64_t value);
void xpc_dictionary_set_uint64(xpc_object_t dictionary, const char* key, uint64_t value);
void xpc_dictionary_set_double(xpc_object_t dictionary, const char* key, double value);
void xpc_dictionary_set_date(xpc_object_t dictionary, const char* key, int64_t value);
void xpc_dictionary_set_data(xpc_object_t dictionary, const char* key, const void* bytes,
                             size_t length);
void xpc_dictionary_set_uuid(xpc_object_t dictionary, const char* key, const unsigned char* uuid);
void xpc_dictionary_set_string(xpc_object_t dictionary, const char* key, const char* string);
void xpc_dictionary_set_fd(xpc_object_t dictionary, const char* key, int fd);
bool xpc_dictionary_get_bool(xpc_object_t dictionary, const char* key);
int64_t xpc_dictionary_get_int64(xpc_object_t dictionary, const char* key);
uint64_t xpc_dictionary_get_uint64(xpc_object_t dictionary, const char* key);
double xpc_dictionary_get_double(xpc_object_t dictionary, const char* key);
int64_t xpc_dictionary_get_date(xpc_object_t dictionary, const char* key);
const void* xpc_dictionary_get_data(xpc_object_t dictionary, const char* key, size_t* length);
const uint8_t* xpc_dictionary_get_uuid(xpc_object_t dictionary, const char* key);
const char* xpc_dictionary_get_string(xpc_object_t dictionary, const char* key);
int xpc_dictionary_dup_fd(xpc_object_t dictionary, const char* key);

// Serial queues.
xpc_queue_t xpc_queue_create(const char* label);  // serial; released with xpc_queue_release
void xpc_queue_release(xpc_queue_t queue);
void xpc_queue_async(xpc_queue_t queue, std::function<void()> work);
// The queue drained by the main thread's run loop (thread/main_queue.h); never released.
xpc_queue_t xpc_main_queue();

// Connections. Names are service names: a client connects to "<dir>/<name>.sock", <dir>
// being $LXPC_SERVICE_DIR or /run. A listener takes its socket from systemd socket
// activation when it was started that way, else binds the path itself.
xpc_connection_t xpc_connection_create(const char* name, xpc_queue_t queue);  // null name:
                                                                              // anonymous listener
xpc_connection_t xpc_connection_create_mach_service(const char* name, xpc_queue_t queue,
                                                    uint64_t flags);
xpc_endpoint_t xpc_endpoint_create(xpc_connection_t listener);
xpc_connection_t xpc_connection_create_from_endpoint(xpc_endpoint_t endpoint);
void xpc_connection_set_event_handler(xpc_connection_t connection, xpc_handler_t handler);
// Before the first resume only. Peers accepted by a listener that was given a queue share it;
// otherwise every connection has its own serial queue.
void xpc_connection_set_target_queue(xpc_connection_t connection, xpc_queue_t queue);
void xpc_connection_resume(xpc_connection_t connection);
void xpc_connection_suspend(xpc_connection_t connection);
void xpc_connection_cancel(xpc_connection_t connection);
void xpc_connection_send_message(xpc_connection_t connection, xpc_object_t message);
void xpc_connection_send_message_with_reply(xpc_connection_t connection, xpc_object_t message,
                                            xpc_queue_t replyQueue, xpc_handler_t handler);
xpc_object_t xpc_connection_send_message_with_reply_sync(xpc_connection_t connection,
                                                         xpc_object_t message);
void xpc_connection_send_barrier(xpc_connection_t connection, xpc_barrier_t barrier);
pid_t xpc_connection_get_pid(xpc_connection_t connection);
const char* xpc_connection_get_name(xpc_connection_t connection);

// Serves the service named by $LXPC_SERVICE_NAME (else the executable's name) and hands
// every new peer connection to the handler; runs the main queue and never returns.
[[noreturn]] void xpc_main(void (*handler)(xpc_connection_t peer));

}  // namespace lxpc

// The message model: typed values laid into an XPC dictionary by key tables.
//
// A message is one dictionary with no header; its meaning is which keys it holds. Each side
// declares the keys it sends and receives, each with a value type. Encoding looks every value
// up in the send keys by exact, case-sensitive name (first match wins) and uses the key's type,
// never the value's own, to pick the setter; decoding reads every receive key the dictionary
// holds and pushes one value per key at the front of the output list.
//
// Invariants:
// - Names live in fixed 260-byte fields (259 characters and the NUL); longer names are cut,
//   never refused.
// - A value list owns its nodes, not what their pointers point to. After decoding, string,
//   data and uuid pointers point into the received dictionary and objects are not retained:
//   they are valid only while that message is handled. A decoded descriptor is a new one that
//   the receiver owns and must close.
#pragma once

#include <cstddef>
#include <cstdint>

#include "platform/llist.h"
#include "xpc/transport/xpc_transport.h"

// The value type of a key; the numbers are part of the message vocabulary.
enum LXPCDataType : int32_t {
    LXPCDataTypeNone = 0,     // ends a key table; never encoded
    LXPCDataTypeBool = 1,     // nValue, non-zero is true; decoded as 0 or 1
    LXPCDataTypeInt64 = 2,    // nValue, signed
    LXPCDataTypeUInt64 = 3,   // nValue, as unsigned
    LXPCDataTypeDouble = 4,   // fValue
    LXPCDataTypeDate = 5,     // nValue, signed 64-bit date
    LXPCDataTypeData = 6,     // nValue points to the bytes, nLength is their count
    LXPCDataTypeUUID = 7,     // nValue points to 16 bytes
    LXPCDataTypeString = 8,   // nValue points to NUL-terminated text
    LXPCDataTypeFD = 9,       // low 32 bits of nValue hold the descriptor
    LXPCDataTypeObject = 10,  // nValue is the object (endpoints, arrays, dictionaries)
};

// Size of every fixed name field, terminator included.
inline constexpr size_t kLXPCNameSize = 260;

// Copies `source` into a kLXPCNameSize field, cut to 259 characters; null copies as "".
void LXPCCopyName(char (&destination)[kLXPCNameSize], const char* source);

// The pointer that a pointer-carrying value (or a connection or message id) holds, and the
// value that holds a pointer.
template <class T = lxpc::_xpc_object>
T* LXPCValueAsPointer(int64_t value) {
    return reinterpret_cast<T*>(static_cast<intptr_t>(value));
}
inline long LXPCPointerAsValue(const void* pointer) {
    return static_cast<long>(reinterpret_cast<intptr_t>(pointer));
}

// One key of a key table. Tables are arrays ending with an entry whose name is empty.
struct LXPCDictionaryKey {
    char szName[kLXPCNameSize];
    LXPCDataType type;
};

// A key in a key list (LXPCBase's send and receive keys).
struct LXPCDictionaryKeyListable : LXPCDictionaryKey {
    LXPCDictionaryKeyListable* pNext = nullptr;
};

// Pushes a copy of every entry of `table` (names cut to 259 characters), from its first entry
// up to the first one with an empty name, at the front of `keys`; nothing for a null table.
void LXPCAddKeyTable(LList<LXPCDictionaryKeyListable>& keys, LXPCDictionaryKey const* table);

// One value of a message; the fields start at their "unset" values.
struct LXPCData {
    char szName[kLXPCNameSize] = {};
    LXPCDataType type = LXPCDataTypeNone;
    int64_t nValue = -1;
    uint64_t nLength = 0;
    double fValue = 0.0;
};

// A value in a message's value list.
struct LXPCDataListable : LXPCData {
    LXPCDataListable* pNext = nullptr;
};

// A new value node named and typed after `key`, holding `value` and `length`. The caller links
// it into a list, which then owns it.
LXPCDataListable* CreateXPCData(LXPCDictionaryKeyListable const& key, long value,
                                unsigned long length);

// A new value node named and typed after `key`, holding the floating `value` (nValue stays -1
// and nLength 0).
LXPCDataListable* CreateXPCDataDouble(LXPCDictionaryKeyListable const& key, double value);

// Sets one entry of `dictionary` for every value whose name is a send key, with the setter of
// that key's type; values without a key are skipped.
void SetXPCDictionary(lxpc::xpc_object_t dictionary, LList<LXPCDictionaryKeyListable>& sendKeys,
                      LList<LXPCDataListable> const& values);

// Pushes at the front of `out` one value for every receive key whose name `dictionary` holds,
// read with the getter of that key's type (the transport's fallbacks apply on a mismatch).
void GetXPCDictionary(lxpc::xpc_object_t dictionary, LList<LXPCDictionaryKeyListable>& receiveKeys,
                      LList<LXPCDataListable>& out);

// Fuzzes key-table decoding (GetXPCDictionary) of messages a hostile peer could send: the
// packet is decoded by the transport, then read with a receive list that names every key the
// message holds, each with a type that usually differs from what the peer sent, so that both
// the typed getters and their mismatch fallbacks are exercised. The values are then encoded
// again with the same list as send keys (SetXPCDictionary).
//
// Input: the layout of fuzz/packet_input.h, shared with xpc_decode_fuzz so that its seeds
// serve here too; its flag shifts the key types.
//
// Oracles: no crash or sanitizer report; one value for every key whose type is 1 to 10 and
// none for the others; every pointer a value carries can be read as far as the value says
// (strings to their NUL, data for its length, 16 uuid bytes); a decoded descriptor is open
// and distinct from the message's own, and closing it leaves the message's intact.
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "fuzz/packet_input.h"
#include "xpc/lxpc_data.h"
#include "xpc/transport/xpc_wire.h"

using namespace lxpc;

namespace {

// Reads every byte a value points to, so that ASan sees any read out of bounds.
uint64_t Touch(const LXPCData& value, xpc_object_t message) {
    const auto* bytes = reinterpret_cast<const unsigned char*>(static_cast<intptr_t>(value.nValue));
    const bool pointer = value.nValue != 0 && value.nValue != -1;
    uint64_t sum = 0;
    switch (value.type) {
        case LXPCDataTypeString:
            sum = pointer ? std::strlen(reinterpret_cast<const char*>(bytes)) : 0;
            break;
        case LXPCDataTypeData:
            for (uint64_t i = 0; pointer && i < value.nLength; ++i) {
                sum += bytes[i];
            }
            if (!pointer && value.nLength != 0) {
                std::abort();  // a length without bytes
            }
            break;
        case LXPCDataTypeUUID:
            for (int i = 0; pointer && i < 16; ++i) {
                sum += bytes[i];
            }
            break;
        case LXPCDataTypeFD: {
            const int fd = static_cast<int>(value.nValue);
            if (fd >= 0) {
                if (fcntl(fd, F_GETFD) == -1) {
                    std::abort();  // handed a descriptor that is not open
                }
                close(fd);
                // The message still holds its own descriptor, untouched by ours closing.
                if (const int again = xpc_dictionary_dup_fd(message, value.szName); again >= 0) {
                    close(again);
                } else {
                    std::abort();
                }
            }
            break;
        }
        case LXPCDataTypeObject:
            if (value.nValue !=
                reinterpret_cast<intptr_t>(xpc_dictionary_get_value(message, value.szName))) {
                std::abort();  // objects are the message's own entries
            }
            break;
        default:
            break;
    }
    return sum;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 1) {
        return 0;
    }
    fuzz_packet::Input input = fuzz_packet::Read(data, size);
    std::vector<int>& fds = input.fds;
    const unsigned shift = input.flag ? 1 : 0;
    wire::Envelope envelope;
    const char* why = nullptr;
    xpc_object_t message = wire::Decode(input.packet, fds, envelope, &why);
    if (message != nullptr) {
        // A receive list naming every key of the message, types 0 to 11 in turn.
        LList<LXPCDictionaryKeyListable> keys;
        size_t inRange = 0;
        size_t index = shift;
        xpc_dictionary_apply(message, [&](const char* name, xpc_object_t) {
            auto* key = new LXPCDictionaryKeyListable;
            LXPCCopyName(key->szName, name);
            key->type = static_cast<LXPCDataType>(index++ % 12);
            // A cut name no longer finds its entry; only names that fit are counted.
            const bool found = xpc_dictionary_get_value(message, key->szName) != nullptr;
            inRange += found && key->type >= LXPCDataTypeBool && key->type <= LXPCDataTypeObject;
            keys.PushFront(key);
            return true;
        });
        LList<LXPCDataListable> values;
        GetXPCDictionary(message, keys, values);
        if (values.Count() != inRange) {
            std::abort();
        }
        // Encoding the values back must not read past them either (descriptors excepted:
        // they are closed below, so encode first).
        xpc_object_t copy = xpc_dictionary_create(nullptr, nullptr, 0);
        SetXPCDictionary(copy, keys, values);
        xpc_release(copy);
        volatile uint64_t sink = 0;
        for (const LXPCDataListable& value : values) {
            sink = sink + Touch(value, message);
        }
        xpc_release(message);
    }
    for (int fd : input.extra) {
        close(fd);
    }
    return 0;
}

// The process's one static initialiser. It runs the start-up pieces in their fixed order;
// the message key tables come last. Keeping a single initialiser in this file (which main
// always links, since it names the tables) gives that order regardless of the link order of
// the other objects.
#include "helper/vadhelper_startup.h"

#include <iterator>

#include "settings/ldatfile_native.h"

LXPCDictionaryKey arVADHelperTxKeys[kLVADHelperKeyTableSize];
LXPCDictionaryKey arVADHelperRxKeys[kLVADHelperKeyTableSize];

namespace {

struct KeyEntry {
    char const* name;
    LXPCDataType type;
};

// Clients transmit these; the service acts on NEW_ENDPOINT, REQUEST_ENDPOINT and LOAD_DRIVER.
constexpr KeyEntry kTxKeys[] = {
    {"NEW_ENDPOINT", LXPCDataTypeObject},   {"CLOSE_ENDPOINT", LXPCDataTypeBool},
    {"REQUEST_ENDPOINT", LXPCDataTypeBool}, {"AUDIO_DATA", LXPCDataTypeData},
    {"LOAD_DRIVER", LXPCDataTypeString},    {"START_RECORDING", LXPCDataTypeBool},
    {"STOP_RECORDING", LXPCDataTypeBool},   {"VOLUME_CHANGED", LXPCDataTypeDouble},
};

// Clients receive these; the service sends NEW_ENDPOINT_REPLY, SEND_ENDPOINT and
// LOAD_DRIVER_REPLY.
constexpr KeyEntry kRxKeys[] = {
    {"NEW_ENDPOINT_REPLY", LXPCDataTypeBool}, {"CLOSE_ENDPOINT_REPLY", LXPCDataTypeBool},
    {"SEND_ENDPOINT", LXPCDataTypeObject},    {"AUDIO_DATA", LXPCDataTypeData},
    {"LOAD_DRIVER_REPLY", LXPCDataTypeBool},  {"START_RECORDING", LXPCDataTypeBool},
    {"STOP_RECORDING", LXPCDataTypeBool},     {"VOLUME_CHANGED", LXPCDataTypeDouble},
};

static_assert(std::size(kTxKeys) + 1 == kLVADHelperKeyTableSize);
static_assert(std::size(kRxKeys) + 1 == kLVADHelperKeyTableSize);

template <size_t N>
void FillKeyTable(LXPCDictionaryKey (&table)[kLVADHelperKeyTableSize], KeyEntry const (&keys)[N]) {
    for (size_t i = 0; i < N; ++i) {
        LXPCCopyName(table[i].szName, keys[i].name);
        table[i].type = keys[i].type;
    }
    LXPCCopyName(table[N].szName, "");
    table[N].type = LXPCDataTypeNone;
}

// The start-up pieces in their fixed order.
struct Startup {
    Startup() {
        // The diagnostics pieces come first, in this order, as their subsystem provides them:
        // the hang detector (and its destruction at exit), the thread-registry lock, the crash
        // handler.
        LDatFileNativeSystem::Create();
        FillKeyTable(arVADHelperTxKeys, kTxKeys);
        FillKeyTable(arVADHelperRxKeys, kRxKeys);
    }
};

Startup const gStartup;

}  // namespace

// The process's one static initialiser. It runs the start-up pieces in their fixed order:
// the hang detector, the thread registry's lock, the exception handler, the data-file
// registry's lock, then the message key tables; last, the main thread joins the thread
// registry as "MAIN". Keeping a single initialiser in this file (which main
// always links, since it names the tables) gives that order regardless of the link order of
// the other objects.
#include "helper/vadhelper_startup.h"

#include <iterator>

#include "debug/ldebug.h"
#include "debug/lexception.h"
#include "platform/los_utils.h"
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
        // Each piece registers its own destruction at exit, so they go in the reverse order.
        LDebugHangDetectorCreate();
        LDebugThreadsLockCreate();
        LExceptionHandlerInstallerCreate();
        LDatFileNativeSystem::Create();
        FillKeyTable(arVADHelperTxKeys, kTxKeys);
        FillKeyTable(arVADHelperRxKeys, kRxKeys);
        // Static initialisation runs on the main thread: name it for failure reports.
        LUnixAppInitCommon();
    }
};

Startup const gStartup;

}  // namespace

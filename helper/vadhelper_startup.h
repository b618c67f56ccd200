// Start-up of the service process and the message vocabulary.
//
// The two key tables fix which keys travel in each direction and with which value type. They
// are named from the clients' side: clients transmit arVADHelperTxKeys (the service receives
// them) and receive arVADHelperRxKeys (the service sends them). Each table holds eight keys
// and ends with an entry whose name is empty and whose type is 0. Both are filled by the one
// static initialiser of the process, before main runs, after the start-up pieces that other
// subsystems place in it.
#pragma once

#include "xpc/lxpc_data.h"

// Room for eight keys and the terminating entry.
inline constexpr size_t kLVADHelperKeyTableSize = 9;

extern LXPCDictionaryKey arVADHelperTxKeys[kLVADHelperKeyTableSize];
extern LXPCDictionaryKey arVADHelperRxKeys[kLVADHelperKeyTableSize];

// The service name under which the helper listens and clients find it.
inline constexpr char kLVADHelperServiceName[] = "com.tessalysoftware.KavelPL.VadHelper";

// The message vocabulary as the service installs it: both key tables, in order. How key lists
// are built from tables and decoded is the message layer's, checked in its own suite.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "helper/vadhelper_startup.h"

namespace {

struct Entry {
    std::string name;
    LXPCDataType type;
    bool operator==(Entry const&) const = default;
};

std::vector<Entry> Table(LXPCDictionaryKey const* table) {
    std::vector<Entry> entries;
    for (; table->szName[0]; ++table)
        entries.push_back({table->szName, table->type});
    return entries;
}

}  // namespace

TEST(ServiceKeys, TablesAreFilledBeforeMainInOrder) {
    std::vector<Entry> const tx = {
        {"NEW_ENDPOINT", LXPCDataType(10)},    {"CLOSE_ENDPOINT", LXPCDataType(1)},
        {"REQUEST_ENDPOINT", LXPCDataType(1)}, {"AUDIO_DATA", LXPCDataType(6)},
        {"LOAD_DRIVER", LXPCDataType(8)},      {"START_RECORDING", LXPCDataType(1)},
        {"STOP_RECORDING", LXPCDataType(1)},   {"VOLUME_CHANGED", LXPCDataType(4)},
    };
    std::vector<Entry> const rx = {
        {"NEW_ENDPOINT_REPLY", LXPCDataType(1)}, {"CLOSE_ENDPOINT_REPLY", LXPCDataType(1)},
        {"SEND_ENDPOINT", LXPCDataType(10)},     {"AUDIO_DATA", LXPCDataType(6)},
        {"LOAD_DRIVER_REPLY", LXPCDataType(1)},  {"START_RECORDING", LXPCDataType(1)},
        {"STOP_RECORDING", LXPCDataType(1)},     {"VOLUME_CHANGED", LXPCDataType(4)},
    };
    EXPECT_EQ(Table(arVADHelperTxKeys), tx);
    EXPECT_EQ(Table(arVADHelperRxKeys), rx);
    // Each ends with an empty name of type 0 in its ninth entry.
    EXPECT_EQ(arVADHelperTxKeys[8].szName[0], '\0');
    EXPECT_EQ(arVADHelperTxKeys[8].type, 0);
    EXPECT_EQ(arVADHelperRxKeys[8].szName[0], '\0');
    EXPECT_EQ(arVADHelperRxKeys[8].type, 0);
}

// The message vocabulary as the service installs it: both key tables, in order, and the key
// lists a server builds from them.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "helper/vadhelper_startup.h"
#include "xpc/lxpc_base.h"

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

std::vector<Entry> List(LList<LXPCDictionaryKeyListable> const& list) {
    std::vector<Entry> entries;
    for (auto const& key : list)
        entries.push_back({key.szName, key.type});
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

namespace {
struct NoEvents final : LXPCEventNotify {
    void EvConnectionError(long, LXPCErrorType) override {}
    void EvMessageSent(long) override {}
    void EvMessageReceived(long, long, LList<LXPCDataListable> const&) override {}
    void EvReplyReceived(long, LList<LXPCDataListable> const&) override {}
};
}  // namespace

TEST(ServiceKeys, ServerListsHoldEightKeysEachInReverseOrder) {
    NoEvents events;
    LXPCBase base(&events);
    base.AddKeys(arVADHelperTxKeys, true);
    base.AddKeys(arVADHelperRxKeys, false);
    std::vector<Entry> receive = List(base.ReceiveKeys()), send = List(base.SendKeys());
    ASSERT_EQ(receive.size(), 8u);
    ASSERT_EQ(send.size(), 8u);
    std::vector<Entry> tx = Table(arVADHelperTxKeys), rx = Table(arVADHelperRxKeys);
    EXPECT_EQ(receive, std::vector<Entry>(tx.rbegin(), tx.rend()));
    EXPECT_EQ(send, std::vector<Entry>(rx.rbegin(), rx.rend()));
}

TEST(ServiceKeys, UnknownKeysAreNotDecodedAndKnownOnesComeInTableOrder) {
    NoEvents events;
    LXPCBase base(&events);
    base.AddKeys(arVADHelperTxKeys, true);

    lxpc::xpc_object_t message = lxpc::xpc_dictionary_create(nullptr, nullptr, 0);
    lxpc::xpc_dictionary_set_bool(message, "REQUEST_ENDPOINT", true);
    lxpc::xpc_dictionary_set_string(message, "LOAD_DRIVER", "/x");
    lxpc::xpc_dictionary_set_bool(message, "NEW_ENDPOINT_REPLY", true);  // a send key only
    lxpc::xpc_dictionary_set_bool(message, "SOMETHING_ELSE", true);
    LList<LXPCDataListable> values;
    GetXPCDictionary(message, base.ReceiveKeys(), values);
    std::vector<std::string> names;
    for (auto const& value : values)
        names.push_back(value.szName);
    EXPECT_EQ(names, (std::vector<std::string>{"REQUEST_ENDPOINT", "LOAD_DRIVER"}));
    lxpc::xpc_release(message);
}

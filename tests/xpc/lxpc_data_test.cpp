// The message model: key lists, value nodes, and encoding and decoding by key tables, checked
// on dictionaries directly (the socket round trips are in lxpc_process_test.cpp).
#include <fcntl.h>
#include <sys/stat.h>

#include <cstring>
#include <string>

#include "lxpc_test_util.h"

using namespace lxpc;
using namespace lxpc_test;

namespace {

// Key lists are held by a base; no connection is ever made with it.
using KeyHolder = Recorder;

template <class List>
std::vector<std::string> Names(const List& list) {
    std::vector<std::string> names;
    for (const auto& item : list) {
        names.push_back(item.szName);
    }
    return names;
}

const LXPCDataListable* FindValue(const LList<LXPCDataListable>& values, const char* name) {
    return values.FindFirst(
        [name](const LXPCDataListable& value) { return std::strcmp(value.szName, name) == 0; });
}

// Every value type, as a table in the shape the service's tables have.
const LXPCDictionaryKey kAllTypes[] = {
    {"B", LXPCDataTypeBool},     {"I", LXPCDataTypeInt64},  {"U", LXPCDataTypeUInt64},
    {"D", LXPCDataTypeDouble},   {"T", LXPCDataTypeDate},   {"DATA", LXPCDataTypeData},
    {"UUID", LXPCDataTypeUUID},  {"S", LXPCDataTypeString}, {"FD", LXPCDataTypeFD},
    {"OBJ", LXPCDataTypeObject}, {"", LXPCDataTypeNone},
};

const unsigned char kUuid[16] = {0x10, 0x32, 0x54, 0x76, 0x98, 0xba, 0xdc, 0xfe,
                                 0x01, 0x23, 0x45, 0x67, 0x89, 0xab, 0xcd, 0xef};

}  // namespace

TEST(LXPCKeys, AddKeysKeepsTableOrderAndStopsAtEmptyName) {
    KeyHolder handler;
    LXPCBase base(&handler);
    const LXPCDictionaryKey table[] = {{"FIRST", LXPCDataTypeInt64},
                                       {"SECOND", LXPCDataTypeString},
                                       {"", LXPCDataTypeBool},
                                       {"AFTER_END", LXPCDataTypeBool}};
    base.AddKeys(table, true);
    // Pushed at the front: the list reads back reversed, which decoding turns around again.
    EXPECT_EQ(Names(base.ReceiveKeys()), (std::vector<std::string>{"SECOND", "FIRST"}));
    EXPECT_TRUE(base.SendKeys().IsEmpty());
    EXPECT_EQ(base.ReceiveKeys().Head()->type, LXPCDataTypeString);

    const LXPCDictionaryKey empty[] = {{"", LXPCDataTypeInt64}, {"HIDDEN", LXPCDataTypeInt64}};
    base.AddKeys(empty, false);
    EXPECT_TRUE(base.SendKeys().IsEmpty());

    base.AddKey("SENT", LXPCDataTypeDouble, false);
    base.AddKey(table[0], false);
    EXPECT_EQ(Names(base.SendKeys()), (std::vector<std::string>{"FIRST", "SENT"}));
}

TEST(LXPCKeys, LongNamesAreCutTo259Characters) {
    KeyHolder handler;
    LXPCBase base(&handler);
    const std::string longName(300, 'k');
    base.AddKey(longName.c_str(), LXPCDataTypeInt64, false);
    base.AddKey(longName.c_str(), LXPCDataTypeInt64, true);
    ASSERT_EQ(std::strlen(base.SendKeys().Head()->szName), 259u);
    EXPECT_EQ(std::string(base.SendKeys().Head()->szName), longName.substr(0, 259));

    // Only a value named by exactly the first 259 characters matches the cut key.
    xpc_object_t dictionary = xpc_dictionary_create(nullptr, nullptr, 0);
    LList<LXPCDataListable> values;
    Push(values, longName.substr(0, 260).c_str(), LXPCDataTypeInt64, 1);  // cut when stored
    Push(values, longName.substr(0, 258).c_str(), LXPCDataTypeInt64, 2);
    SetXPCDictionary(dictionary, base.SendKeys(), values);
    EXPECT_EQ(xpc_dictionary_get_count(dictionary), 1u);
    EXPECT_EQ(xpc_dictionary_get_int64(dictionary, longName.substr(0, 259).c_str()), 1);

    LList<LXPCDataListable> decoded;
    GetXPCDictionary(dictionary, base.ReceiveKeys(), decoded);
    ASSERT_EQ(decoded.Count(), 1u);
    EXPECT_EQ(decoded.Head()->nValue, 1);
    xpc_release(dictionary);
}

TEST(LXPCValues, CreatedNodesStartFromTheUnsetValues) {
    LXPCDictionaryKeyListable key;
    LXPCCopyName(key.szName, "NAME");
    key.type = LXPCDataTypeData;
    std::unique_ptr<LXPCDataListable> data(CreateXPCData(key, 1234, 56));
    EXPECT_STREQ(data->szName, "NAME");
    EXPECT_EQ(data->type, LXPCDataTypeData);
    EXPECT_EQ(data->nValue, 1234);
    EXPECT_EQ(data->nLength, 56u);
    EXPECT_EQ(data->fValue, 0.0);
    EXPECT_EQ(data->pNext, nullptr);

    key.type = LXPCDataTypeDouble;
    std::unique_ptr<LXPCDataListable> real(CreateXPCDataDouble(key, 2.5));
    EXPECT_EQ(real->type, LXPCDataTypeDouble);
    EXPECT_EQ(real->nValue, -1);
    EXPECT_EQ(real->nLength, 0u);
    EXPECT_EQ(real->fValue, 2.5);

    LXPCData fresh;
    EXPECT_EQ(fresh.nValue, -1);
    EXPECT_EQ(fresh.szName[0], '\0');
}

class LXPCEncoding : public ::testing::Test {
protected:
    void SetUp() override {
        base_.AddKeys(kAllTypes, false);
        base_.AddKeys(kAllTypes, true);
        dictionary_ = xpc_dictionary_create(nullptr, nullptr, 0);
    }
    void TearDown() override { xpc_release(dictionary_); }

    LList<LXPCDictionaryKeyListable>& Send() { return base_.SendKeys(); }
    LList<LXPCDictionaryKeyListable>& Receive() { return base_.ReceiveKeys(); }

    KeyHolder handler_;
    LXPCBase base_{&handler_};
    xpc_object_t dictionary_ = nullptr;
};

TEST_F(LXPCEncoding, EveryValueTypeRoundTrips) {
    char path[] = "/tmp/lxpc_fd_XXXXXX";
    const int fd = mkstemp(path);
    ASSERT_GE(fd, 0);
    unlink(path);
    const char bytes[] = {'a', '\0', 'b', 'c'};
    xpc_object_t array = xpc_array_create(nullptr, 0);
    xpc_object_t element = xpc_string_create("element");
    xpc_array_append_value(array, element);
    xpc_release(element);

    LList<LXPCDataListable> values;
    Push(values, "B", LXPCDataTypeBool, 2);
    Push(values, "I", LXPCDataTypeInt64, -42);
    Push(values, "U", LXPCDataTypeUInt64, -1);  // all bits: the largest unsigned value
    PushDouble(values, "D", -0.125);
    Push(values, "T", LXPCDataTypeDate, 1700000000123456789L);
    Push(values, "DATA", LXPCDataTypeData, Ptr(bytes), sizeof bytes);
    Push(values, "UUID", LXPCDataTypeUUID, Ptr(kUuid));
    Push(values, "S", LXPCDataTypeString, Ptr("text"));
    Push(values, "FD", LXPCDataTypeFD, fd | (0x7fL << 32));  // only the low 32 bits count
    Push(values, "OBJ", LXPCDataTypeObject, Ptr(array));
    SetXPCDictionary(dictionary_, Send(), values);
    EXPECT_EQ(xpc_dictionary_get_count(dictionary_), 10u);
    EXPECT_EQ(xpc_get_type(xpc_dictionary_get_value(dictionary_, "FD")), XPC_TYPE_FD);

    LList<LXPCDataListable> decoded;
    GetXPCDictionary(dictionary_, Receive(), decoded);
    // Decoded values come out in the table's own order.
    EXPECT_EQ(Names(decoded), (std::vector<std::string>{"B", "I", "U", "D", "T", "DATA", "UUID",
                                                        "S", "FD", "OBJ"}));
    EXPECT_EQ(FindValue(decoded, "B")->nValue, 1);
    EXPECT_EQ(FindValue(decoded, "B")->type, LXPCDataTypeBool);
    EXPECT_EQ(FindValue(decoded, "I")->nValue, -42);
    EXPECT_EQ(static_cast<uint64_t>(FindValue(decoded, "U")->nValue), UINT64_MAX);
    EXPECT_EQ(FindValue(decoded, "D")->fValue, -0.125);
    EXPECT_EQ(FindValue(decoded, "D")->nValue, -1);
    EXPECT_EQ(FindValue(decoded, "T")->nValue, 1700000000123456789L);
    const LXPCDataListable* data = FindValue(decoded, "DATA");
    ASSERT_EQ(data->nLength, sizeof bytes);
    EXPECT_EQ(std::memcmp(reinterpret_cast<const void*>(data->nValue), bytes, sizeof bytes), 0);
    EXPECT_EQ(
        std::memcmp(reinterpret_cast<const void*>(FindValue(decoded, "UUID")->nValue), kUuid, 16),
        0);
    EXPECT_STREQ(reinterpret_cast<const char*>(FindValue(decoded, "S")->nValue), "text");

    // The descriptor is a new one, for the same open file.
    const int received = static_cast<int>(FindValue(decoded, "FD")->nValue);
    ASSERT_GE(received, 0);
    EXPECT_NE(received, fd);
    struct stat a {};
    struct stat b {};
    ASSERT_EQ(fstat(fd, &a), 0);
    ASSERT_EQ(fstat(received, &b), 0);
    EXPECT_EQ(a.st_ino, b.st_ino);
    close(received);

    // The object is the dictionary's own entry, not a copy.
    const auto object = reinterpret_cast<xpc_object_t>(FindValue(decoded, "OBJ")->nValue);
    EXPECT_EQ(object, xpc_dictionary_get_value(dictionary_, "OBJ"));
    EXPECT_EQ(xpc_array_get_count(object), 1u);
    xpc_release(array);
    close(fd);
}

TEST_F(LXPCEncoding, TheKeyTypeWinsOverTheValueType) {
    LList<LXPCDataListable> values;
    // Typed as a string by the caller, sent as the key says: an int64.
    Push(values, "I", LXPCDataTypeString, 77);
    SetXPCDictionary(dictionary_, Send(), values);
    EXPECT_EQ(xpc_get_type(xpc_dictionary_get_value(dictionary_, "I")), XPC_TYPE_INT64);
    EXPECT_EQ(xpc_dictionary_get_int64(dictionary_, "I"), 77);

    // Of two keys with one name, the first in the list decides.
    KeyHolder handler;
    LXPCBase twice(&handler);
    twice.AddKey("K", LXPCDataTypeString, false);
    twice.AddKey("K", LXPCDataTypeBool, false);  // now first in the list
    Push(values, "K", LXPCDataTypeString, 3);
    SetXPCDictionary(dictionary_, twice.SendKeys(), values);
    EXPECT_EQ(xpc_get_type(xpc_dictionary_get_value(dictionary_, "K")), XPC_TYPE_BOOL);
}

TEST_F(LXPCEncoding, ValuesWithoutASendKeyAreSkipped) {
    KeyHolder handler;
    LXPCBase receiveOnly(&handler);
    receiveOnly.AddKey("ONLY_RECEIVED", LXPCDataTypeInt64, true);
    receiveOnly.AddKey("SENT", LXPCDataTypeInt64, false);
    LList<LXPCDataListable> values;
    Push(values, "ONLY_RECEIVED", LXPCDataTypeInt64, 5);
    Push(values, "UNKNOWN", LXPCDataTypeInt64, 6);
    Push(values, "sent", LXPCDataTypeInt64, 7);  // names compare case-sensitively
    SetXPCDictionary(dictionary_, receiveOnly.SendKeys(), values);
    EXPECT_EQ(xpc_dictionary_get_count(dictionary_), 0u);

    LList<LXPCDataListable> none;
    SetXPCDictionary(dictionary_, Send(), none);
    EXPECT_EQ(xpc_dictionary_get_count(dictionary_), 0u);
}

TEST_F(LXPCEncoding, KeysOutsideTheTypeRangeSetAndReadNothing) {
    KeyHolder handler;
    LXPCBase odd(&handler);
    odd.AddKey("ZERO", LXPCDataTypeNone, false);
    odd.AddKey("ELEVEN", static_cast<LXPCDataType>(11), false);
    odd.AddKey("ZERO", LXPCDataTypeNone, true);
    odd.AddKey("ELEVEN", static_cast<LXPCDataType>(11), true);
    LList<LXPCDataListable> values;
    Push(values, "ZERO", LXPCDataTypeInt64, 1);
    Push(values, "ELEVEN", LXPCDataTypeInt64, 1);
    SetXPCDictionary(dictionary_, odd.SendKeys(), values);
    EXPECT_EQ(xpc_dictionary_get_count(dictionary_), 0u);

    xpc_dictionary_set_int64(dictionary_, "ZERO", 1);
    xpc_dictionary_set_int64(dictionary_, "ELEVEN", 1);
    LList<LXPCDataListable> decoded;
    GetXPCDictionary(dictionary_, odd.ReceiveKeys(), decoded);
    EXPECT_TRUE(decoded.IsEmpty());
}

TEST_F(LXPCEncoding, MismatchedEntriesDecodeToFallbacks) {
    // Every entry holds a string where the key expects another type.
    for (const LXPCDictionaryKey* key = kAllTypes; key->szName[0] != '\0'; ++key) {
        if (key->type != LXPCDataTypeString && key->type != LXPCDataTypeObject) {
            xpc_dictionary_set_string(dictionary_, key->szName, "not that type");
        }
    }
    xpc_dictionary_set_int64(dictionary_, "S", 9);
    xpc_dictionary_set_int64(dictionary_, "SOMETHING_ELSE", 1);  // no key: never decoded
    LList<LXPCDataListable> decoded;
    GetXPCDictionary(dictionary_, Receive(), decoded);
    // Still delivered, with the fallback of each getter.
    EXPECT_EQ(decoded.Count(), 9u);
    EXPECT_EQ(FindValue(decoded, "B")->nValue, 0);
    EXPECT_EQ(FindValue(decoded, "I")->nValue, 0);
    EXPECT_EQ(FindValue(decoded, "U")->nValue, 0);
    EXPECT_EQ(FindValue(decoded, "D")->fValue, 0.0);
    EXPECT_EQ(FindValue(decoded, "T")->nValue, 0);
    EXPECT_EQ(FindValue(decoded, "DATA")->nValue, 0);
    EXPECT_EQ(FindValue(decoded, "DATA")->nLength, 0u);
    EXPECT_EQ(FindValue(decoded, "UUID")->nValue, 0);
    EXPECT_EQ(FindValue(decoded, "S")->nValue, 0);
    EXPECT_EQ(FindValue(decoded, "FD")->nValue, -1);
    EXPECT_EQ(FindValue(decoded, "OBJ"), nullptr);
}

TEST_F(LXPCEncoding, PointerValuesThatPointNowhereAreNotSent) {
    LList<LXPCDataListable> values;
    Push(values, "S", LXPCDataTypeString, -1);
    Push(values, "UUID", LXPCDataTypeUUID, 0);
    Push(values, "OBJ", LXPCDataTypeObject, -1);
    Push(values, "DATA", LXPCDataTypeData, 0, 10);  // bytes promised at no address
    SetXPCDictionary(dictionary_, Send(), values);
    EXPECT_EQ(xpc_dictionary_get_count(dictionary_), 0u);

    LList<LXPCDataListable> empty;
    Push(empty, "DATA", LXPCDataTypeData, -1, 0);
    SetXPCDictionary(dictionary_, Send(), empty);
    size_t length = 99;
    xpc_dictionary_get_data(dictionary_, "DATA", &length);
    EXPECT_EQ(xpc_get_type(xpc_dictionary_get_value(dictionary_, "DATA")), XPC_TYPE_DATA);
    EXPECT_EQ(length, 0u);
}

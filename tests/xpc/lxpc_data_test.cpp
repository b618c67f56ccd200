// Key lists, and encoding and decoding by key tables, checked on dictionaries directly.
#include <fcntl.h>
#include <unistd.h>

#include <cstring>
#include <string>

#include "lxpc_test_util.h"

using namespace lxpc;
using namespace lxpc_test;

namespace {

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

const LXPCDictionaryKey kAllTypes[] = {
    {"B", LXPCDataTypeBool},     {"I", LXPCDataTypeInt64},  {"U", LXPCDataTypeUInt64},
    {"D", LXPCDataTypeDouble},   {"T", LXPCDataTypeDate},   {"DATA", LXPCDataTypeData},
    {"UUID", LXPCDataTypeUUID},  {"S", LXPCDataTypeString}, {"FD", LXPCDataTypeFD},
    {"OBJ", LXPCDataTypeObject}, {"", LXPCDataTypeNone},
};

const unsigned char kUuid[16] = {0x10, 0x32, 0x54, 0x76, 0x98, 0xba, 0xdc, 0xfe,
                                 0x01, 0x23, 0x45, 0x67, 0x89, 0xab, 0xcd, 0xef};

class LXPCEncoding : public ::testing::Test {
protected:
    LXPCEncoding() {
        base_.AddKeys(kAllTypes, false);
        base_.AddKeys(kAllTypes, true);
    }
    ~LXPCEncoding() override { xpc_release(dictionary_); }

    size_t Sent(LXPCBase& base, const LList<LXPCDataListable>& values) {
        xpc_release(dictionary_);
        dictionary_ = xpc_dictionary_create(nullptr, nullptr, 0);
        SetXPCDictionary(dictionary_, base.SendKeys(), values);
        return xpc_dictionary_get_count(dictionary_);
    }

    Recorder handler_;
    LXPCBase base_{&handler_};
    xpc_object_t dictionary_ = xpc_dictionary_create(nullptr, nullptr, 0);
};

}  // namespace

TEST_F(LXPCEncoding, AddKeysKeepsTableOrderStopsAtEmptyNameAndCutsLongNames) {
    LXPCBase base(&handler_);
    const LXPCDictionaryKey table[] = {{"FIRST", LXPCDataTypeInt64},
                                       {"SECOND", LXPCDataTypeString},
                                       {"", LXPCDataTypeBool},
                                       {"AFTER_END", LXPCDataTypeBool}};
    base.AddKeys(table, true);
    // Pushed at the front: the list reads back reversed, which decoding turns around again.
    EXPECT_EQ(Names(base.ReceiveKeys()), (std::vector<std::string>{"SECOND", "FIRST"}));
    EXPECT_EQ(base.ReceiveKeys().Head()->type, LXPCDataTypeString);
    EXPECT_TRUE(base.SendKeys().IsEmpty());
    base.AddKey("SENT", LXPCDataTypeDouble, false);
    base.AddKey(table[0], false);
    EXPECT_EQ(Names(base.SendKeys()), (std::vector<std::string>{"FIRST", "SENT"}));

    // Only a value named by exactly the first 259 characters matches a cut key.
    const std::string longName(300, 'k');
    base.AddKey(longName.c_str(), LXPCDataTypeInt64, false);
    base.AddKey(longName.c_str(), LXPCDataTypeInt64, true);
    EXPECT_EQ(std::string(base.SendKeys().Head()->szName), longName.substr(0, 259));
    // The first name is cut to those characters when stored; the second falls one short.
    EXPECT_EQ(Sent(base, Values({{longName.substr(0, 260).c_str(), LXPCDataTypeInt64, 1},
                                 {longName.substr(0, 258).c_str(), LXPCDataTypeInt64, 2}})),
              1u);
    EXPECT_EQ(xpc_dictionary_get_int64(dictionary_, longName.substr(0, 259).c_str()), 1);
    LList<LXPCDataListable> decoded;
    GetXPCDictionary(dictionary_, base.ReceiveKeys(), decoded);
    ASSERT_EQ(decoded.Count(), 1u);
    EXPECT_EQ(decoded.Head()->nValue, 1);
}

TEST_F(LXPCEncoding, EveryValueTypeRoundTrips) {
    const int fd = open("/dev/null", O_RDONLY | O_CLOEXEC);
    ASSERT_GE(fd, 0);
    const char bytes[] = {'a', '\0', 'b', 'c'};
    xpc_object_t array = xpc_array_create(nullptr, 0);

    LList<LXPCDataListable> values = Values({
        {"B", LXPCDataTypeBool, 2},
        {"I", LXPCDataTypeInt64, -42},
        {"U", LXPCDataTypeUInt64, -1},  // all bits: the largest unsigned value
        {"T", LXPCDataTypeDate, 1700000000123456789L},
        {"DATA", LXPCDataTypeData, LXPCPointerAsValue(bytes), sizeof bytes},
        {"UUID", LXPCDataTypeUUID, LXPCPointerAsValue(kUuid)},
        {"S", LXPCDataTypeString, LXPCPointerAsValue("text")},
        {"FD", LXPCDataTypeFD, fd | (0x7fL << 32)},  // only the low 32 bits count
        {"OBJ", LXPCDataTypeObject, LXPCPointerAsValue(array)},
    });
    LXPCDictionaryKeyListable doubleKey;
    LXPCCopyName(doubleKey.szName, "D");
    doubleKey.type = LXPCDataTypeDouble;
    values.PushFront(CreateXPCDataDouble(doubleKey, -0.125));
    EXPECT_EQ(Sent(base_, values), 10u);

    LList<LXPCDataListable> decoded;
    GetXPCDictionary(dictionary_, base_.ReceiveKeys(), decoded);
    // Decoded values come out in the table's own order.
    EXPECT_EQ(Names(decoded), (std::vector<std::string>{"B", "I", "U", "D", "T", "DATA", "UUID",
                                                        "S", "FD", "OBJ"}));
    const auto recorded = Record(decoded);
    const std::pair<const char*, long> numbers[] = {
        {"B", 1}, {"I", -42}, {"U", -1}, {"D", -1}, {"T", 1700000000123456789L}};
    for (auto [name, value] : numbers) {
        EXPECT_EQ(Find(recorded, name).data.nValue, value) << name;
    }
    EXPECT_EQ(Find(recorded, "D").data.fValue, -0.125);
    EXPECT_EQ(Find(recorded, "DATA").bytes, std::string(bytes, sizeof bytes));
    EXPECT_EQ(Find(recorded, "UUID").bytes, std::string(reinterpret_cast<const char*>(kUuid), 16));
    EXPECT_EQ(Find(recorded, "S").bytes, "text");
    const int received = static_cast<int>(FindValue(decoded, "FD")->nValue);
    EXPECT_NE(received, fd);  // a new descriptor of the same file (shown across processes)
    close(received);
    // The object is the dictionary's own entry, not a copy.
    EXPECT_EQ(FindValue(decoded, "OBJ")->nValue,
              LXPCPointerAsValue(xpc_dictionary_get_value(dictionary_, "OBJ")));
    xpc_release(array);
    close(fd);
}

TEST_F(LXPCEncoding, OnlyWhatTheSendKeysAllowIsSent) {
    // The key's type wins over the caller's; of two keys with one name, the first decides.
    LXPCBase twice(&handler_);
    twice.AddKey("K", LXPCDataTypeString, false);
    twice.AddKey("K", LXPCDataTypeBool, false);
    EXPECT_EQ(Sent(twice, Values({{"K", LXPCDataTypeString, 3}})), 1u);
    EXPECT_EQ(xpc_get_type(xpc_dictionary_get_value(dictionary_, "K")), XPC_TYPE_BOOL);

    // Values without a send key, with keys outside the type range, or pointing nowhere.
    LXPCBase odd(&handler_);
    odd.AddKey("ONLY_RECEIVED", LXPCDataTypeInt64, true);
    odd.AddKey("SENT", LXPCDataTypeInt64, false);
    odd.AddKey("ZERO", LXPCDataTypeNone, false);
    odd.AddKey("ELEVEN", static_cast<LXPCDataType>(11), false);
    EXPECT_EQ(Sent(odd, Values({{"ONLY_RECEIVED", LXPCDataTypeInt64, 5},
                                {"UNKNOWN", LXPCDataTypeInt64, 6},
                                {"sent", LXPCDataTypeInt64, 7},  // names compare case-sensitively
                                {"ZERO", LXPCDataTypeInt64, 1},
                                {"ELEVEN", LXPCDataTypeInt64, 1}})),
              0u);
    EXPECT_EQ(Sent(base_, Values({{"S", LXPCDataTypeString, -1},
                                  {"UUID", LXPCDataTypeUUID, 0},
                                  {"OBJ", LXPCDataTypeObject, -1},
                                  {"DATA", LXPCDataTypeData, 0, 10}})),  // bytes promised nowhere
              0u);

    // Empty data at no address is still sent, as empty data.
    EXPECT_EQ(Sent(base_, Values({{"DATA", LXPCDataTypeData, -1, 0}})), 1u);
    EXPECT_EQ(xpc_data_get_length(xpc_dictionary_get_value(dictionary_, "DATA")), 0u);
}

TEST_F(LXPCEncoding, MismatchedOrUnknownEntriesDecodeToFallbacksOrNothing) {
    // Every entry holds a string where the key expects another type.
    for (const LXPCDictionaryKey* key = kAllTypes; key->szName[0] != '\0'; ++key) {
        if (key->type != LXPCDataTypeString && key->type != LXPCDataTypeObject) {
            xpc_dictionary_set_string(dictionary_, key->szName, "not that type");
        }
    }
    xpc_dictionary_set_int64(dictionary_, "S", 9);
    xpc_dictionary_set_int64(dictionary_, "ZERO", 1);
    LList<LXPCDataListable> decoded;
    GetXPCDictionary(dictionary_, base_.ReceiveKeys(), decoded);
    const std::pair<const char*, long> fallbacks[] = {
        {"B", 0}, {"I", 0}, {"U", 0}, {"T", 0}, {"DATA", 0}, {"UUID", 0}, {"S", 0}, {"FD", -1}};
    for (auto [name, value] : fallbacks) {
        ASSERT_NE(FindValue(decoded, name), nullptr) << name;
        EXPECT_EQ(FindValue(decoded, name)->nValue, value) << name;
    }
    EXPECT_EQ(FindValue(decoded, "D")->fValue, 0.0);
    EXPECT_EQ(FindValue(decoded, "DATA")->nLength, 0u);
    EXPECT_EQ(FindValue(decoded, "OBJ"), nullptr);
    EXPECT_EQ(decoded.Count(), 9u);

    // Keys outside the type range read nothing.
    LXPCBase odd(&handler_);
    odd.AddKey("ZERO", LXPCDataTypeNone, true);
    odd.AddKey("B", static_cast<LXPCDataType>(11), true);
    LList<LXPCDataListable> none;
    GetXPCDictionary(dictionary_, odd.ReceiveKeys(), none);
    EXPECT_TRUE(none.IsEmpty());
}

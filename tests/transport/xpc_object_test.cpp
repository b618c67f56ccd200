// The object model: dictionary order and replacement, reference counting, the error
// singletons, and values that own copies of their input. The typed getters' fallbacks on a mismatch
// are shown through the message layer's decoding.
#include <fcntl.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <string>
#include <vector>

#include "xpc/transport/xpc_internal.h"
#include "xpc/transport/xpc_transport.h"

using namespace lxpc;

namespace {

int32_t Refs(xpc_object_t object) {
    return object->refs.load();
}

std::vector<std::string> Keys(xpc_object_t dictionary) {
    std::vector<std::string> keys;
    xpc_dictionary_apply(dictionary, [&](const char* key, xpc_object_t) {
        keys.emplace_back(key);
        return true;
    });
    return keys;
}

TEST(XpcObject, DictionaryKeepsInsertionOrderReplacesInPlaceAndRemovesOnNull) {
    xpc_object_t d = xpc_dictionary_create(nullptr, nullptr, 0);
    for (int i = 0; i < 30; ++i) {  // past the size where the hash index takes over
        xpc_dictionary_set_int64(d, ("k" + std::to_string(i)).c_str(), i);
    }
    xpc_dictionary_set_int64(d, "k3", 300);
    xpc_dictionary_set_value(d, "k5", nullptr);
    const std::vector<std::string> keys = Keys(d);
    ASSERT_EQ(keys.size(), 29u);
    EXPECT_EQ(keys[0], "k0");
    EXPECT_EQ(keys[3], "k3");
    EXPECT_EQ(keys[5], "k6");
    EXPECT_EQ(xpc_dictionary_get_int64(d, "k3"), 300);
    EXPECT_EQ(xpc_dictionary_get_value(d, "k5"), nullptr);
    EXPECT_EQ(xpc_dictionary_get_int64(d, "k29"), 29);
    xpc_dictionary_set_int64(d, "k5", 5);
    EXPECT_EQ(Keys(d).back(), "k5");
    xpc_release(d);
}

TEST(XpcObject, ContainersHoldOneReferencePerValueAndArraysApplyInOrder) {
    xpc_object_t value = xpc_string_create("v");
    xpc_object_t d = xpc_dictionary_create(nullptr, nullptr, 0);
    xpc_object_t a = xpc_array_create(&value, 1);
    EXPECT_EQ(Refs(value), 2);
    xpc_dictionary_set_value(d, "a", value);
    xpc_array_append_value(a, value);
    EXPECT_EQ(Refs(value), 4);
    xpc_dictionary_set_value(d, "a", a);  // replaces: the string loses one reference
    EXPECT_EQ(Refs(value), 3);
    xpc_release(d);
    EXPECT_EQ(Refs(a), 1);
    xpc_release(a);
    EXPECT_EQ(Refs(value), 1);
    EXPECT_EQ(xpc_retain(value), value);
    xpc_release(value);
    xpc_release(value);

    // Arrays apply in order and stop when asked.
    xpc_object_t numbers = xpc_array_create(nullptr, 0);
    for (int i = 0; i < 5; ++i) {
        xpc_object_t v = xpc_int64_create(i);
        xpc_array_append_value(numbers, v);
        xpc_release(v);
    }
    std::vector<int64_t> seen;
    EXPECT_FALSE(xpc_array_apply(numbers, [&](size_t index, xpc_object_t v) {
        seen.push_back(xpc_int64_get_value(v));
        return index < 2;
    }));
    EXPECT_EQ(seen, (std::vector<int64_t>{0, 1, 2}));
    EXPECT_EQ(xpc_array_get_value(numbers, 5), nullptr);
    EXPECT_EQ(xpc_array_get_value(XPC_ERROR_CONNECTION_INVALID, 0), nullptr);  // not an array
    EXPECT_EQ(xpc_int64_get_value(nullptr), 0);
    xpc_release(numbers);
}

TEST(XpcObject, ErrorsAreImmortalDictionariesWithADescription) {
    for (xpc_object_t e : {XPC_ERROR_CONNECTION_INVALID, XPC_ERROR_CONNECTION_INTERRUPTED,
                           XPC_ERROR_TERMINATION_IMMINENT}) {
        EXPECT_EQ(xpc_get_type(e), XPC_TYPE_ERROR);
        ASSERT_NE(xpc_dictionary_get_string(e, XPC_ERROR_KEY_DESCRIPTION), nullptr);
        xpc_release(e);
        xpc_release(e);
        EXPECT_EQ(xpc_get_type(e), XPC_TYPE_ERROR);
    }
    EXPECT_STRNE(
        xpc_dictionary_get_string(XPC_ERROR_CONNECTION_INVALID, XPC_ERROR_KEY_DESCRIPTION),
        xpc_dictionary_get_string(XPC_ERROR_CONNECTION_INTERRUPTED, XPC_ERROR_KEY_DESCRIPTION));
    // Errors are not messages: they cannot be filled in or replied to.
    xpc_dictionary_set_int64(XPC_ERROR_CONNECTION_INVALID, "x", 1);
    EXPECT_EQ(xpc_dictionary_get_count(XPC_ERROR_CONNECTION_INVALID), 1u);
    EXPECT_EQ(xpc_dictionary_create_reply(XPC_ERROR_CONNECTION_INVALID), nullptr);
}

TEST(XpcObject, EqualComparesDeeplyAndIgnoresDictionaryOrder) {
    const unsigned char uuid[16] = {1, 2, 3};
    xpc_object_t a = xpc_dictionary_create(nullptr, nullptr, 0);
    xpc_object_t b = xpc_dictionary_create(nullptr, nullptr, 0);
    xpc_dictionary_set_uuid(a, "u", uuid);
    xpc_dictionary_set_data(a, "d", "xy", 2);
    xpc_dictionary_set_data(b, "d", "xy", 2);
    xpc_dictionary_set_uuid(b, "u", uuid);
    EXPECT_TRUE(xpc_equal(a, b));
    xpc_dictionary_set_data(b, "d", "xz", 2);
    EXPECT_FALSE(xpc_equal(a, b));
    xpc_object_t i = xpc_int64_create(5);
    xpc_object_t t = xpc_date_create(5);
    EXPECT_FALSE(xpc_equal(i, t));  // same layout, other type
    xpc_object_t nan1 = xpc_double_create(std::nan(""));
    xpc_object_t nan2 = xpc_double_create(std::nan(""));
    EXPECT_TRUE(xpc_equal(nan1, nan2));  // a copy of a NaN equals the original
    for (xpc_object_t o : {a, b, i, t, nan1, nan2}) {
        xpc_release(o);
    }
}

TEST(XpcObject, StringsDataAndDescriptorsAreCopiesOfTheirInput) {
    char text[] = "abc";
    xpc_object_t s = xpc_string_create(text);
    xpc_object_t small = xpc_data_create(text, 3);
    text[0] = 'z';
    EXPECT_STREQ(xpc_string_get_string_ptr(s), "abc");
    EXPECT_EQ(xpc_string_get_length(s), 3u);
    EXPECT_EQ(std::memcmp(xpc_data_get_bytes_ptr(small), "abc", 3), 0);
    xpc_object_t empty = xpc_data_create(nullptr, 0);
    EXPECT_NE(xpc_data_get_bytes_ptr(empty), nullptr);
    EXPECT_EQ(xpc_data_get_length(empty), 0u);
    for (xpc_object_t o : {s, small, empty}) {
        xpc_release(o);
    }
    // A descriptor object owns a duplicate, and hands out duplicates of its own.
    int pipeFds[2];
    ASSERT_EQ(pipe(pipeFds), 0);
    xpc_object_t fd = xpc_fd_create(pipeFds[1]);
    ASSERT_NE(fd, nullptr);
    close(pipeFds[1]);
    const int dup = xpc_fd_dup(fd);
    ASSERT_GE(dup, 0);
    xpc_release(fd);
    ASSERT_EQ(write(dup, "k", 1), 1);
    char c = 0;
    ASSERT_EQ(read(pipeFds[0], &c, 1), 1);
    EXPECT_EQ(c, 'k');
    EXPECT_NE(fcntl(dup, F_GETFD) & FD_CLOEXEC, 0);
    close(dup);
    close(pipeFds[0]);
    EXPECT_EQ(xpc_fd_create(-1), nullptr);
}

}  // namespace

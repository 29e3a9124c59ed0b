// Index containers and bit sets.
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "bitset.h"
#include "indxobj.h"
#include "platform/testing.hpp"

namespace {

// Orders names backwards, as some of the module's comparators do; nulls answer -1.
int reversed(const void *a, const void *b) {
    if (a == nullptr || b == nullptr) {
        return -1;
    }
    return std::strcmp(static_cast<const char *>(b), static_cast<const char *>(a));
}

char *dup(const char *s) {
    char *p = static_cast<char *>(std::malloc(std::strlen(s) + 1));
    std::strcpy(p, s);
    return p;
}

class IndxobjTest : public ::testing::Test {
  protected:
    void SetUp() override { platform::reset_for_tests(); }
    void TearDown() override {
        indxobj_destroy(obj_);
        EXPECT_EQ(platform::live_indxobj_count(), 0u);
        platform::reset_for_tests();
    }
    void create(int owns = 1) {
        ASSERT_EQ(indxobj_create(&obj_, 0, 1, reversed, owns), INDXOBJ_CREATED);
        ASSERT_NE(obj_, nullptr);
    }
    indxobj_t *obj_ = nullptr;
};

TEST_F(IndxobjTest, KeepsComparatorOrderAndRefusesDuplicates) {
    create();
    for (const char *name : {"bravo", "alpha", "delta", "charlie"}) {
        char *row = dup(name);
        ASSERT_EQ(indxobj_add(obj_, row, row), 0) << name;
    }
    char *again = dup("charlie");
    EXPECT_EQ(indxobj_add(obj_, again, again), -1);
    std::free(again);
    EXPECT_EQ(platform::indxobj_size(obj_), 4u);

    // Binary search only finds every row when the rows sit in the comparator's order.
    for (const char *name : {"delta", "charlie", "bravo", "alpha"}) {
        char *row = static_cast<char *>(indxobj_find(obj_, name));
        ASSERT_NE(row, nullptr) << name;
        EXPECT_STREQ(row, name);
    }
    EXPECT_EQ(indxobj_find(obj_, "echo"), nullptr);
    EXPECT_EQ(indxobj_find(obj_, nullptr), nullptr);
    EXPECT_EQ(indxobj_add(obj_, nullptr, nullptr), -1);

    char *removed = static_cast<char *>(indxobj_remove(obj_, "bravo"));
    ASSERT_NE(removed, nullptr);
    EXPECT_STREQ(removed, "bravo");
    std::free(removed); // the caller owns what it removes
    EXPECT_EQ(indxobj_remove(obj_, "bravo"), nullptr);
    EXPECT_EQ(indxobj_find(obj_, "bravo"), nullptr);
    EXPECT_STREQ(static_cast<char *>(indxobj_find(obj_, "alpha")), "alpha");
    EXPECT_EQ(platform::indxobj_size(obj_), 3u);
    // Destroy (TearDown) frees the three left; ASan reports any leak.
}

TEST_F(IndxobjTest, ManyRowsStayFindable) {
    create();
    for (int i = 0; i < 200; ++i) {
        char *row = dup(("row" + std::to_string((i * 37) % 200)).c_str());
        ASSERT_EQ(indxobj_add(obj_, row, row), 0);
    }
    for (int i = 0; i < 200; ++i) {
        const std::string key = "row" + std::to_string(i);
        EXPECT_NE(indxobj_find(obj_, key.c_str()), nullptr) << key;
    }
}

TEST_F(IndxobjTest, NonOwningContainerLeavesElements) {
    create(0);
    char row[] = "kept";
    ASSERT_EQ(indxobj_add(obj_, row, row), 0);
    indxobj_destroy(obj_); // must not free() the stack array
    obj_ = nullptr;
}

TEST_F(IndxobjTest, InjectedAddFailures) {
    create();
    platform::fail_next_indxobj_add(2);
    char row[] = "one";
    EXPECT_EQ(indxobj_add(obj_, row, row), -1);
    EXPECT_EQ(indxobj_add(obj_, row, row), -1);
    char *ok = dup("one");
    EXPECT_EQ(indxobj_add(obj_, ok, ok), 0);
    EXPECT_EQ(platform::indxobj_size(obj_), 1u);
}

TEST_F(IndxobjTest, InjectedCreateFailures) {
    platform::fail_indxobj_create_after(1);
    indxobj_t *first = nullptr, *second = nullptr, *third = nullptr;
    EXPECT_EQ(indxobj_create(&first, 0, 1, reversed, 1), INDXOBJ_CREATED);
    second = reinterpret_cast<indxobj_t *>(&first); // must be cleared on failure
    EXPECT_NE(indxobj_create(&second, 0, 1, reversed, 1), INDXOBJ_CREATED);
    EXPECT_EQ(second, nullptr);
    EXPECT_EQ(platform::live_indxobj_count(), 1u);
    platform::fail_indxobj_create_after(-1);
    EXPECT_EQ(indxobj_create(&third, 0, 1, reversed, 1), INDXOBJ_CREATED);
    EXPECT_EQ(platform::live_indxobj_count(), 2u);
    indxobj_destroy(first);
    indxobj_destroy(third);
    indxobj_destroy(nullptr);
}

TEST(Bitset, SnmpBitNumberingAtTheEdges) {
    // Header 32 and 32 bytes of storage, as the module uses, plus a guard byte.
    struct {
        uint32_t size = 32;
        uint8_t bits[32];
        uint8_t guard = 0x5A;
    } set;
    std::memset(set.bits, 0xFF, sizeof set.bits);
    bitset_clear(&set);
    for (uint8_t b : set.bits) {
        ASSERT_EQ(b, 0);
    }
    const std::pair<uint32_t, std::pair<size_t, uint8_t>> cases[] = {
        {0, {0, 0x80}}, {7, {0, 0x01}}, {8, {1, 0x80}}, {255, {31, 0x01}}, {100, {12, 0x08}}};
    for (const auto &[bit, where] : cases) {
        EXPECT_EQ(bitset_is_bit_set(&set, bit), 0) << bit;
        bitset_set_bit(&set, bit);
        EXPECT_EQ(bitset_is_bit_set(&set, bit), 1) << bit;
        EXPECT_NE(set.bits[where.first] & where.second, 0) << bit;
    }
    EXPECT_EQ(set.bits[0], 0x81);
    EXPECT_EQ(bitset_is_bit_set(&set, 1), 0);
    EXPECT_EQ(bitset_is_bit_set(&set, 254), 0);

    // Beyond the storage: ignored, and reads answer 0.
    bitset_set_bit(&set, 256);
    bitset_set_bit(&set, 263);
    bitset_set_bit(&set, 0xFFFFFFFF);
    EXPECT_EQ(set.guard, 0x5A);
    EXPECT_EQ(bitset_is_bit_set(&set, 256), 0);
    EXPECT_EQ(bitset_is_bit_set(&set, 0xFFFFFFFF), 0);

    bitset_clear(&set);
    EXPECT_EQ(bitset_is_bit_set(&set, 0), 0);
    EXPECT_EQ(bitset_is_bit_set(&set, 255), 0);
    EXPECT_EQ(set.guard, 0x5A);
}

TEST(Bitset, StorageSizeComesFromTheHeader) {
    // A heap block of exactly header + 2 bytes: ASan catches any access beyond it.
    auto *raw = static_cast<uint8_t *>(std::malloc(BITSET_HEADER_SIZE + 2));
    const uint32_t size = 2;
    std::memcpy(raw, &size, sizeof size);
    bitset_clear(raw);
    bitset_set_bit(raw, 15);
    bitset_set_bit(raw, 16);
    EXPECT_EQ(bitset_is_bit_set(raw, 15), 1);
    EXPECT_EQ(bitset_is_bit_set(raw, 16), 0);
    EXPECT_EQ(raw[BITSET_HEADER_SIZE + 1], 0x01);
    std::free(raw);
}

} // namespace

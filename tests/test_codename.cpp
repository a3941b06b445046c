// SPDX-License-Identifier: MIT
#include <gtest/gtest.h>

#include "support.h"
#include "vokt/vokt.h"

namespace {

uint64_t CodeOf(const char *name) {
    CodeName *code = CodeName_FromName(name);
    const uint64_t value = CodeName_Value(code);
    Object_Destroy(code);
    return value;
}

TEST(CodeName, PacksSixBitBlocks) {
    EXPECT_EQ(CodeOf("A"), 1u);
    EXPECT_EQ(CodeOf("_"), 63u);
    EXPECT_EQ(CodeOf("a1"), 27u + (54u << 6));
    EXPECT_EQ(CodeOf("z9-b"), 52u + (62u << 6) + (28u << 18));  // other characters leave their block 0
    EXPECT_EQ(CodeOf("ABCDEFGHIJKLMN"), CodeOf("ABCDEFGHIJK"));
    uint32_t words[2] = {0, 0};
    EXPECT_EQ(CodeName_SetBlock(words, 5, 0x3F), 0);  // straddles the two words
    EXPECT_EQ(words[0], 0xC0000000u);
    EXPECT_EQ(words[1], 0xFu);
    EXPECT_EQ(CodeName_SetBlock(words, 5, 0x01), 0);
    EXPECT_EQ(CodeName_SetBlock(words, 10, 0x3F), 0);  // the top two bits fall off
    EXPECT_EQ(CodeName_SetBlock(words, 6, 2), 0);
    CodeName *code = CodeName_FromWords(words), *copy = CodeName_Copy(code);
    EXPECT_EQ(CodeName_Value(copy), 0xF000002040000000ull);
    for (CodeName *c : {code, copy, CodeName_New()}) Object_Destroy(c);

    EXPECT_EQ(0, test::InChild([&] {
        const int32_t ref = CodeName_SetBlock(words, 11, 5);
        Error *e = ErrorStore_Take(ref);
        EXPECT_STREQ(e->message->string, "block index out of bounds");
        Error_Free(e);
        EXPECT_EQ(words[0], 0x40000000u);
    }));
}

TEST(CodeName, NamesComeBackOut) {
    String *out = String_New();
    for (auto [name, back] : {std::pair{"A", "A"}, {"Abc_09", "Abc_09"}, {"zzzzzzzzzzO", "zzzzzzzzzzO"},
                              {"abcdefghijz", "abcdefghijD"}}) {  // 'z' does not fit in 4 bits
        CodeName *code = CodeName_FromName(name);
        EXPECT_EQ(CodeName_ToName(code, out), 0);
        EXPECT_STREQ(out->string, back);
        Object_Destroy(code);
    }
    String_Destroy(out);
}

}  // namespace

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
    EXPECT_EQ(CodeOf("z9"), 52u + (62u << 6));
    EXPECT_EQ(CodeOf("a-b"), 27u + (28u << 12));  // other characters leave their block 0
    EXPECT_EQ(CodeOf("ABCDEFGHIJKLMN"), CodeOf("ABCDEFGHIJK"));

    uint32_t words[2] = {0, 0};
    EXPECT_EQ(CodeName_SetBlock(words, 5, 0x3F), 0);  // straddles the two words
    EXPECT_EQ(words[0], 0xC0000000u);
    EXPECT_EQ(words[1], 0x0000000Fu);
    EXPECT_EQ(CodeName_SetBlock(words, 5, 0x01), 0);
    EXPECT_EQ(words[0], 0x40000000u);
    EXPECT_EQ(words[1], 0u);
    EXPECT_EQ(CodeName_SetBlock(words, 10, 0x3F), 0);  // the top two bits fall off
    EXPECT_EQ(words[1], 0xF0000000u);
    EXPECT_EQ(CodeName_SetBlock(words, 6, 2), 0);
    EXPECT_EQ(words[1], 0xF0000020u);

    CodeName *code = CodeName_FromWords(words), *copy = CodeName_Copy(code), *zero = CodeName_New();
    EXPECT_STREQ(code->ftbl->name, "CodeName");
    EXPECT_EQ(copy->words[0], 0x40000000u);
    EXPECT_EQ(copy->words[1], 0xF0000020u);
    EXPECT_EQ(CodeName_Value(zero), 0u);
    for (CodeName *c : {code, copy, zero}) Object_Destroy(c);
}

TEST(CodeName, IndexElevenIsAnError) {
    EXPECT_EQ(0, test::InChild([] {
        uint32_t words[2] = {1, 2};
        const int32_t ref = CodeName_SetBlock(words, 11, 5);
        ASSERT_TRUE(ErrorStore_IsError(ref));
        Error *e = ErrorStore_Take(ref);
        EXPECT_STREQ(e->message->string, "block index out of bounds");
        Error_Free(e);
        EXPECT_EQ(words[0], 1u);
        EXPECT_EQ(words[1], 2u);
    }));
}

TEST(CodeName, NamesComeBackOut) {
    String *out = String_New();
    for (const char *name : {"A", "_", "Abc_09", "Eleven_ChaO", "zzzzzzzzzzA"}) {
        CodeName *code = CodeName_FromName(name);
        EXPECT_EQ(CodeName_ToName(code, out), 0);
        EXPECT_STREQ(out->string, name);
        Object_Destroy(code);
    }
    CodeName *code = CodeName_FromName("abcdefghijz");  // 'z' does not fit in 4 bits
    CodeName_ToName(code, out);
    EXPECT_STREQ(out->string, "abcdefghijD");
    Object_Destroy(code);
    String_Destroy(out);
}

}  // namespace

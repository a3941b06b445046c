// SPDX-License-Identifier: MIT
#include <gtest/gtest.h>
#include <string.h>

#include "support.h"
#include "vokt/vokt.h"

namespace {

int32_t Register(const char *text) { return ErrorStore_Register(Error_NewInternal("%s", text)); }
void Drop(int32_t ref) { Error_Free(ErrorStore_Take(ref)); }

TEST(Error, StoreHandsOutReferencesAndReusesHoles) {
    EXPECT_EQ(0, test::InChild([] {
        Runtime_Init();
        for (int32_t expected : {0x40000001, 0x40000002, 0x40000003}) EXPECT_EQ(Register("x"), expected);
        Drop(0x40000002);
        EXPECT_EQ(ErrorStore_IsError(0x40000002), 0);
        EXPECT_EQ(Register("d"), 0x40000002);  // the hole is filled
        EXPECT_STREQ(ErrorStore_Get(0x40000002)->message->string, "d");
        Drop(0x40000003);  // the last slot goes
        EXPECT_EQ(Register("e"), 0x40000003);
        for (int32_t ref : {0x40000001, 0x40000002, 0x40000003}) Drop(ref);
        EXPECT_EQ(Register("f"), 0x40000001);  // the store was released and started again
        Drop(0x40000001);
        EXPECT_EQ(ErrorStore_IsError(0), 0);
        EXPECT_EQ(ErrorStore_IsError(-1), 0);
        EXPECT_EQ(ErrorStore_Register(nullptr), -2);
        Error *oom = ErrorStore_Take(-2);
        EXPECT_EQ(ErrorStore_IsError(-2), 1);
        EXPECT_EQ(oom, ErrorStore_Get(-2));
        EXPECT_STREQ(oom->message->string, "VOKT Out of memory");
        EXPECT_EQ(oom->code, 997);
        EXPECT_EQ(oom->priority, 101);
        Error_Free(oom);  // never freed
        EXPECT_STREQ(oom->message->string, "VOKT Out of memory");
        EXPECT_FALSE(File_Exists("vokt.log"));  // nothing above was worth reporting

        ErrorStore_Check(5);
        Assert_Fail("x == 1", "mine", 12);
        const std::string log = test::ReadFile("vokt.log");
        size_t last = 0;
        for (auto [text, module] : {std::pair{"(ref & ERROR_COMPLEX_BIT) == ERROR_COMPLEX_BIT", "error"},
                                    {"global_error_store != NULL", "error"},
                                    {"index < Vector_Length( global_error_store )", "error"},
                                    {"Vector_GetAt( global_error_store, index ) != NULL", "error"}, {"x == 1", "mine"}}) {
            EXPECT_TRUE(test::HasReport(log, text, module)) << text << "\n" << log;
            EXPECT_GT(log.find(text), last);  // in this order
            last = log.find(text);
        }

        // A reference that names no Error (taken already, from a hole or from the end, never
        // issued, or index 0) is reported alike and changes nothing: Take cannot free the
        // store under another holder's error, nor Combine drop a live one.
        const int32_t mine = Register("mine"), theirs = Register("theirs"), end = Register("end");
        Drop(end);
        Drop(mine);
        for (const int32_t stale : {mine, end, 0x40000009, 0x40000000}) {
            for (auto *op : {ErrorStore_Get, ErrorStore_Take}) {
                const size_t before = test::ReadFile("vokt.log").size();
                EXPECT_EQ(op(stale), nullptr) << stale;
                EXPECT_TRUE(test::HasReport(test::ReadFile("vokt.log").substr(before),
                                            "Vector_GetAt( global_error_store, index ) != NULL", "error")) << stale;
            }
            EXPECT_EQ(ErrorStore_Combine(theirs, stale), theirs) << stale;
        }
        ASSERT_EQ(ErrorStore_IsError(theirs), 1);
        EXPECT_STREQ(ErrorStore_Get(theirs)->message->string, "theirs");
        Drop(theirs);
        EXPECT_EQ(Register("g"), 0x40000001) << "the store was released once it was empty";
        Drop(0x40000001);
    }));
}

TEST(Error, CombineKeepsTheHigherPriority) {
    EXPECT_EQ(0, test::InChild([] {
        EXPECT_EQ(ErrorStore_Combine(0, 7), 7);
        EXPECT_EQ(ErrorStore_Combine(7, 0), 7);
        const int32_t first = ErrorStore_Register(Error_NewFriendly(12, "first"));
        EXPECT_EQ(ErrorStore_Combine(first, ErrorStore_Register(Error_NewFriendly(13, "second"))), first);
        EXPECT_EQ(ErrorStore_IsError(0x40000002), 0);  // a tie keeps the first and frees the second
        Error_SetCodePriority(14, 150);
        Error_SetCodePriority(5000, 10);
        const int32_t urgent = ErrorStore_Register(Error_NewFriendly(14, "urgent"));
        EXPECT_EQ(ErrorStore_Combine(first, urgent), urgent);
        EXPECT_EQ(ErrorStore_IsError(first), 0);
        EXPECT_EQ(ErrorStore_Combine(urgent, urgent), urgent);
        EXPECT_EQ(ErrorStore_IsError(urgent), 1) << "an error combined with itself is kept";
        Drop(urgent);
        int32_t table[104];
        for (auto &p : table) p = 7;
        Error_SetPriorityTable(table);
        for (auto [code, priority] : {std::pair{5000, 10}, {998, 99}, {3, 7}, {104, 100}}) {
            Error *e = Error_NewFriendly(code, "e");
            EXPECT_EQ(e->priority, priority) << code;
            Error_Free(e);
        }
    }));
}

TEST(Error, NetworkErrorsCarryTheirTexts) {
    EXPECT_EQ(0, test::InChild([] {
        EXPECT_EQ(Error_NewNetwork(0, "connect"), nullptr);
        Error *refused = Error_NewNetwork(111, "connect"), *badf = Error_NewNetwork(9, "read");
        EXPECT_STREQ(refused->message->string,
                     "Encountered network error: Connection refused.  (Technical information: error ECONNREFUSED "
                     "(111) while executing connect)");
        EXPECT_STREQ(refused->detail->string, "Connection refused");
        EXPECT_EQ(refused->code, 998);
        EXPECT_EQ(refused->bFriendly, 1);
        EXPECT_EQ(refused->systemError, 111);
        EXPECT_STREQ(badf->message->string, "Encountered network error 9 (EBADF) when executing 'read'.");
        EXPECT_EQ(badf->bFriendly, 0);  // threshold 0 is below the level 50
        Log_SetLevel(50);
        Error *friendly = Error_NewNetwork(9, "read"), *unknown = Error_NewNetwork(4242, "op");
        EXPECT_EQ(friendly->bFriendly, 1);
        EXPECT_EQ(friendly->code, 998);
        EXPECT_STREQ(unknown->message->string, "Encountered network error 4242 (4242) when executing 'op'.");
        for (Error *e : {refused, badf, friendly, unknown}) Error_Free(e);
        char name[8], text[10];
        int32_t level = 0;
        NetError_Describe(24, name, sizeof name, text, sizeof text, &level);
        EXPECT_STREQ(name, "EMFILE");
        EXPECT_STREQ(text, "There may") << "cut to the buffer";
        EXPECT_EQ(level, 25);
    }));
}

TEST(Error, TracesAppearOnlyAtTheDebugLevel) {
    EXPECT_EQ(0, test::InChild([] {
        setenv("VOKT_LOGGING", "100", 1);
        const int32_t ref = Register("traced");
        Error_Trace(ref, "mine", 77);
        Log_SetLevel(101);
        Error_Trace(ref, "mine", 79);
        Drop(Register("quiet"));
        Drop(ref);
        const std::string log = test::ReadFile("vokt.log");
        EXPECT_EQ(test::Count(log, " : Created internal error traced\n"), 1) << log;
        EXPECT_EQ(test::Count(log, " : mine:77 - Error code 999: traced\n"), 1);
        EXPECT_EQ(test::Count(log, "mine:79"), 0) << "a threshold above 100 keeps traces out";
        EXPECT_EQ(test::Count(log, "quiet"), 0);
    }));
}

void *RegisterAndTake(void *) {
    for (int i = 0; i < 300; i++) {
        const int32_t ref = Register("busy");
        if (!ErrorStore_IsError(ref) || strcmp(ErrorStore_Get(ref)->message->string, "busy") != 0) abort();
        Drop(ref);
    }
    return nullptr;
}

TEST(Error, StoreIsSharedSafelyBetweenThreads) {
    EXPECT_EQ(0, test::InChild([] {
        Thread threads[8];
        for (auto &t : threads) Thread_CreateJoinable(&t, RegisterAndTake, nullptr);
        for (auto &t : threads) Thread_Join(t);
        EXPECT_EQ(Register("after"), 0x40000001);  // everything was taken: the store started again
        Drop(0x40000001);
    }));
}

}  // namespace

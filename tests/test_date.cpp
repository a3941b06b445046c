#include <gtest/gtest.h>
#include <stdlib.h>
#include <time.h>

#include "support.h"
#include "vokt/vokt.h"

namespace {

std::string TakeMessage(int32_t ref) {
    EXPECT_TRUE(ErrorStore_IsError(ref));
    Error *e = ErrorStore_Take(ref);
    std::string text = e && e->message ? e->message->string : "";
    Error_Free(e);
    return text;
}

TEST(Date, FormatsDayMonthYearInLocalTime) {
    EXPECT_EQ(0, test::InChild([] {
        setenv("TZ", "UTC", 1);
        tzset();
        String *out = String_New();
        EXPECT_EQ(Date_Format(out, 1704456000), 0);  // 2024-01-05 12:00 UTC
        EXPECT_STREQ(out->string, "5-jan-2024");
        EXPECT_EQ(Date_Format(out, 1735603200), 0);  // 2024-12-31
        EXPECT_STREQ(out->string, "31-dec-2024");
        EXPECT_EQ(Date_Year(1704456000), 2024);
        setenv("TZ", "EST5", 1);  // local time decides: still the 4th in New York
        tzset();
        EXPECT_EQ(Date_Format(out, 1704430800), 0);  // 2024-01-05 05:00 UTC
        EXPECT_STREQ(out->string, "5-jan-2024");
        EXPECT_EQ(Date_Format(out, 1704430800 - 7200), 0);
        EXPECT_STREQ(out->string, "4-jan-2024");
        EXPECT_EQ(Date_FormatNow(out), 0);
        EXPECT_TRUE(String_EndsWith(out, std::to_string(Date_CurrentYear()).c_str()));
        EXPECT_GE(Date_CurrentYear(), 2024);
        test::SweepAllocations([&](long) {
            const int32_t code = Date_Format(out, 1704456000);
            EXPECT_TRUE(code == 0 || code == -2);
        });
        String_Destroy(out);
    }));
}

TEST(Date, MonthNamesBothWays) {
    EXPECT_EQ(0, test::InChild([] {
        String *out = String_New();
        const char *names[] = {"jan", "feb", "mar", "apr", "may", "jun", "jul", "aug", "sep", "oct", "nov", "dec"};
        for (int32_t m = 1; m <= 12; m++) {
            EXPECT_EQ(Month_ToName(m, out), 0);
            EXPECT_STREQ(out->string, names[m - 1]);
            EXPECT_EQ(Month_FromName(names[m - 1]), m);
        }
        EXPECT_EQ(TakeMessage(Month_ToName(13, out)), "invalid month supplied: 13");
        EXPECT_STREQ(out->string, "UNK");
        EXPECT_EQ(TakeMessage(Month_ToName(0, out)), "invalid month supplied: 0");
        EXPECT_EQ(TakeMessage(Month_FromName("Jan")), "invalid month supplied: Jan");
        EXPECT_EQ(TakeMessage(Month_FromName("JAN")), "invalid month supplied: JAN");
        String_Destroy(out);
    }));
}

}  // namespace

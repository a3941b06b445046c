// SPDX-License-Identifier: MIT
#include <gtest/gtest.h>
#include <stdlib.h>

#include "support.h"
#include "vokt/vokt.h"

namespace {

std::string TakeMessage(int32_t ref) {
    Error *e = ErrorStore_IsError(ref) ? ErrorStore_Take(ref) : nullptr;
    std::string text = e ? e->message->string : "<no error>";
    Error_Free(e);
    return text;
}

TEST(Date, FormatsDayMonthYearInLocalTime) {
    EXPECT_EQ(0, test::InChild([] {
        String *out = String_New();
        for (auto [tz, t, expected] : {std::tuple{"UTC", 1704456000, "5-jan-2024"}, {"UTC", 1735603200, "31-dec-2024"},
                                       {"EST5", 1704430800, "5-jan-2024"}, {"EST5", 1704423600, "4-jan-2024"}}) {
            setenv("TZ", tz, 1);
            tzset();
            EXPECT_EQ(Date_Format(out, t), 0);
            EXPECT_STREQ(out->string, expected) << tz << " " << t;
        }
        EXPECT_EQ(Date_Year(1704456000), 2024);
        EXPECT_EQ(Date_FormatNow(out), 0);
        EXPECT_TRUE(String_EndsWith(out, std::to_string(Date_CurrentYear()).c_str()));
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
        String_Destroy(out);
    }));
}

time_t Seconds(long long s) { return static_cast<time_t>(s); }  // at run time: no warning on 32 bits

// Dates reach as far as the machine's time_t. With 64 bits: years that do not fit an int
// still format, the year query says 0, and a time without a local date is an error. With 32
// bits (some 32-bit machines): the ends of its range format like any other time.
TEST(Date, ExtremeTimesAreFormattedOrRefused) {
    EXPECT_EQ(0, test::InChild([] {
        setenv("TZ", "UTC", 1);
        tzset();
        String *out = String_NewFromChars("before");
        if (sizeof(time_t) < 8) {
            EXPECT_EQ(Date_Format(out, Seconds(2147483647)), 0);
            EXPECT_STREQ(out->string, "19-jan-2038");
            EXPECT_EQ(Date_Format(out, Seconds(-2147483647 - 1)), 0);
            EXPECT_STREQ(out->string, "13-dec-1901");
            return String_Destroy(out);
        }
        const time_t lastYear = Seconds(67768036160486400);  // 5 January of year 2147485547
        EXPECT_EQ(Date_Year(Seconds(67767976202342400)), 2147483647);
        EXPECT_EQ(Date_Year(Seconds(67767976233878400)), 0) << "year 2147483648";
        EXPECT_EQ(Date_Year(lastYear), 0);
        EXPECT_EQ(Date_Format(out, lastYear), 0);
        EXPECT_STREQ(out->string, "5-jan-2147485547");
        String_Set(out, "before");
        EXPECT_EQ(TakeMessage(Date_Format(out, lastYear + 800 * 86400)), "invalid time supplied: 67768036229606400");
        EXPECT_STREQ(out->string, "before");
        EXPECT_EQ(Date_Year(lastYear + 800 * 86400), 0);
        String_Destroy(out);
    }));
}

}  // namespace

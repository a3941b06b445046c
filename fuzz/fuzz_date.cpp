// SPDX-License-Identifier: MIT
// Month names both ways and dates of any time value.
#include <fuzzer/FuzzedDataProvider.h>
#include <time.h>

#include <regex>

#include "check.h"

namespace {

const char *const kMonths[] = {"jan", "feb", "mar", "apr", "may", "jun", "jul", "aug", "sep", "oct", "nov", "dec"};

// Dates are checked in one known zone.
[[maybe_unused]] const bool g_utc = (setenv("TZ", "UTC", 1), tzset(), true);

}  // namespace


extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    FuzzedDataProvider in(data, size);
    const int32_t month = in.ConsumeIntegral<int32_t>();
    const time_t t = in.ConsumeIntegral<int64_t>();
    const std::string name = CText(in.ConsumeRemainingBytesAsString());
    String *out = String_New();

    if (month >= 1 && month <= 12) {
        FUZZ_CHECK(Month_ToName(month, out) == 0);
        FUZZ_CHECK(Text(out) == kMonths[month - 1]);
        FUZZ_CHECK(Month_FromName(out->string) == month);
    } else {
        DropError(Month_ToName(month, out));
        FUZZ_CHECK(Text(out) == "UNK");
    }
    int32_t number = 0;
    for (int32_t m = 1; m <= 12; m++)
        if (name == kMonths[m - 1]) number = m;
    const int32_t fromName = Month_FromName(name.c_str());
    if (number)
        FUZZ_CHECK(fromName == number);
    else
        DropError(fromName);

    // Either a date whose year agrees with Date_Year (where that fits), or a refusal.
    tm local{};
    const int32_t rc = Date_Format(out, t);
    if (localtime_r(&t, &local)) {
        FUZZ_CHECK(rc == 0);
        static const std::regex date("([0-9]{1,2})-([a-z]{3})-(-?[0-9]+)");
        std::smatch parts;
        const std::string text = Text(out);
        FUZZ_CHECK(std::regex_match(text, parts, date));
        FUZZ_CHECK(std::stoi(parts[1]) == local.tm_mday);
        FUZZ_CHECK(parts[2] == kMonths[local.tm_mon]);
        FUZZ_CHECK(std::stoll(parts[3]) == local.tm_year + 1900LL);
        if (Date_Year(t) != 0) FUZZ_CHECK(std::stoll(parts[3]) == Date_Year(t));
    } else {
        DropError(rc);
        FUZZ_CHECK(Date_Year(t) == 0);
    }
    Object_Destroy(out);
    return 0;
}

// SPDX-License-Identifier: MIT
// Dates as day-month-year with three-letter month names, in local time.
#include "vokt/text/date.h"

#include <string.h>

#include "vokt/internal/errors.h"
#include "vokt/internal/scope.h"

namespace {

constexpr char kModule[] = "date";
constexpr const char *kMonths[12] = {"jan", "feb", "mar", "apr", "may", "jun",
                                     "jul", "aug", "sep", "oct", "nov", "dec"};

}  // namespace

extern "C" {

int32_t Date_Format(String *out, time_t t) {
    vokt::CleanupList list;
    String *month = list.Add(String_New());
    if (!month) return -2;
    tm local{};
    if (!localtime_r(&t, &local))
        return vokt::StoreError(Error_NewInternal("invalid time supplied: %lld", static_cast<long long>(t)));
    VOKT_TRY(Month_ToName(local.tm_mon + 1, month));
    // The year is counted in 64 bits: the latest years a tm can hold do not fit an int.
    return String_Format(out, "%d-%s-%lld", local.tm_mday, month->string, local.tm_year + 1900LL);
}

int32_t Date_FormatNow(String *out) { return Date_Format(out, time(nullptr)); }

int32_t Month_ToName(int32_t month, String *out) {
    if (month >= 1 && month <= 12) return String_Set(out, kMonths[month - 1]);
    VOKT_TRY(String_Set(out, "UNK"));
    return vokt::StoreError(Error_NewInternal("invalid month supplied: %d", month));
}

int32_t Month_FromName(const char *name) {
    // Exact and case-sensitive: "Jan" is not a month name here.
    for (int32_t i = 0; name && i < 12; i++)
        if (strcmp(name, kMonths[i]) == 0) return i + 1;
    return vokt::StoreError(Error_NewInternal("invalid month supplied: %s", name ? name : "(null)"));
}

int32_t Date_Year(time_t t) {
    tm local{};
    if (!localtime_r(&t, &local)) return 0;
    const long long year = local.tm_year + 1900LL;
    return year <= INT32_MAX ? static_cast<int32_t>(year) : 0;
}

int32_t Date_CurrentYear(void) { return Date_Year(time(nullptr)); }

}  // extern "C"

// SPDX-License-Identifier: MIT
// Version_Compare: equal to itself, the sign flips when the arguments swap, and the sign
// agrees with comparing the three numbers in order.
#include <fuzzer/FuzzedDataProvider.h>

#include <tuple>

#include "check.h"

namespace {

int Sign(int64_t x) { return (x > 0) - (x < 0); }

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    FuzzedDataProvider in(data, size);
    const std::string a = CText(in.ConsumeRandomLengthString(24)), b = CText(in.ConsumeRemainingBytesAsString());
    const int32_t ab = Version_Compare(a.c_str(), b.c_str()), ba = Version_Compare(b.c_str(), a.c_str());
    FUZZ_CHECK(Sign(ab) == -Sign(ba));
    FUZZ_CHECK(Version_Compare(a.c_str(), a.c_str()) == 0);
    int x[3], y[3];
    if (sscanf(a.c_str(), "%d.%d.%d", &x[0], &x[1], &x[2]) == 3 && sscanf(b.c_str(), "%d.%d.%d", &y[0], &y[1], &y[2]) == 3) {
        const auto ta = std::tie(x[0], x[1], x[2]), tb = std::tie(y[0], y[1], y[2]);
        FUZZ_CHECK(Sign(ab) == (ta < tb ? -1 : tb < ta ? 1 : 0));
    } else {
        FUZZ_CHECK(ab == 0);
    }
    return 0;
}

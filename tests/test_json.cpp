// SPDX-License-Identifier: MIT
// The reports' JSON form: a site's text read back into frames, strings escaped, and nothing
// written past the room given, however long the text.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "vokt/checks/internal/json.h"

namespace {

std::string Frames(const char *text, size_t room = 4096) {
    std::vector<char> out(room + 16, '#');  // a guard after the room
    vokt::checks::FramesAsJson(text, out.data(), room);
    for (size_t i = room; i < out.size(); i++) EXPECT_EQ(out[i], '#') << "written past the room at " << i;
    return out.data();
}

TEST(Json, FramesAreReadBackFromASitesText) {
    EXPECT_EQ(Frames("load_config+0x28 (planted, planted.c:29) <- new_list (planted, vector.h:3) <- 0x1f2e (libc.so.6)"),
              "[{\"function\":\"load_config\",\"offset\":\"0x28\",\"module\":\"planted\",\"file\":\"planted.c\",\"line\":29},"
              "{\"function\":\"new_list\",\"module\":\"planted\",\"file\":\"vector.h\",\"line\":3},"
              "{\"offset\":\"0x1f2e\",\"module\":\"libc.so.6\"}]");
    // A C++ name keeps its parentheses; a place without a line has none; a bare address stays one.
    EXPECT_EQ(Frames("std::function<void ()>::operator()() const (vokt_tests, std_function.h:?)"),
              "[{\"function\":\"std::function<void ()>::operator()() const\",\"module\":\"vokt_tests\",\"file\":\"std_function.h\"}]");
    EXPECT_EQ(Frames("0x7f00deadbeef"), "[{\"offset\":\"0x7f00deadbeef\"}]");
    // Names that only start like an address are names; a place without a colon is all file.
    EXPECT_EQ(Frames("0 (m) <- 0y12 (m) <- f (m, nofile) <- g (m, a.c:0)"),
              "[{\"function\":\"0\",\"module\":\"m\"},{\"function\":\"0y12\",\"module\":\"m\"},"
              "{\"function\":\"f\",\"module\":\"m\",\"file\":\"nofile\"},{\"function\":\"g\",\"module\":\"m\",\"file\":\"a.c\"}]");
    EXPECT_EQ(Frames(""), "[]");
    EXPECT_EQ(Frames("a\"b\\c\x01 (m)"), "[{\"function\":\"a\\\"b\\\\c\\u0001\",\"module\":\"m\"}]");
}

TEST(Json, NothingIsWrittenPastTheRoom) {
    std::string text;
    for (int i = 0; i < 200; i++) text += "f\"" + std::to_string(i) + "+0x1 (m, f.c:1) <- ";
    text += "main (m)";
    for (size_t room : {2, 3, 9, 10, 64, 1000}) {
        const std::string out = Frames(text.c_str(), room);
        EXPECT_LT(out.size(), room) << room;
        EXPECT_EQ(out[0], '[') << room;
    }
    char quoted[8] = "#######";
    EXPECT_EQ(vokt::checks::JsonString(quoted, 2, "text", 4), 0u);  // not even ""
    EXPECT_EQ(vokt::checks::JsonString(quoted, sizeof quoted, "\"\"\"", 3), 2u);  // cut, still quoted
    EXPECT_STREQ(quoted, "\"\"");
}

}  // namespace

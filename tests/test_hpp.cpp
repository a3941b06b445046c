// SPDX-License-Identifier: MIT
#include <gtest/gtest.h>

#include "support.h"
#include "vokt/vokt.hpp"

namespace {

TEST(Hpp, OwnsLocksAndChecks) {
    {
        vokt::Ptr<Vector> v(Vector_NewOwning());
        ASSERT_EQ(Vector_SetSynchronized(v.get(), 1), 0);
        {
            vokt::VectorLock lock(v.get());
            EXPECT_EQ(v->mutex->spinCount, 1);
            Vector_Add(v.get(), String_NewFromChars("owned by the vector"));
        }
        EXPECT_EQ(v->mutex->spinCount, 0);
        auto s = vokt::Own(String_NewFromChars("text"));
        EXPECT_STREQ(vokt::Text(s.get()), "text");
    }  // everything above is released here; the leak checker watches
    Mutex m;
    Mutex_Init(&m);
    {
        vokt::MutexLock outer(m), inner(m);
        EXPECT_EQ(m.spinCount, 2);
    }
    EXPECT_EQ(m.spinCount, 0);
    EXPECT_EQ(0, test::InChild([] {
        EXPECT_EQ(vokt::TakeError(-1), nullptr);
        EXPECT_NE(vokt::TakeError(Month_FromName("nope")), nullptr);  // taken, and freed here
        EXPECT_EQ(vokt::TakeError(-2).get(), ErrorStore_Get(-2));  // the static record is never freed
    }));
}

}  // namespace

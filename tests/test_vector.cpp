// SPDX-License-Identifier: MIT
#include <gtest/gtest.h>

#include "support.h"
#include "vokt/vokt.h"

namespace {

int g_destroyed = 0;
struct Counted {
    const ClassDescriptor *ftbl;
    int id;
};
const ClassDescriptor kCountedClass = {
    sizeof(Counted), "Counted", [](void *o) { g_destroyed++, free(o); }, nullptr,
    [](const void *a, const void *b) {
        return (*static_cast<Counted *const *>(a))->id - (*static_cast<Counted *const *>(b))->id;
    },
    nullptr,
};
Counted *NewCounted(int id) { return new (malloc(sizeof(Counted))) Counted{&kCountedClass, id}; }

TEST(Vector, GrowsLinearlyOwnsAndSorts) {
    g_destroyed = 0;
    Vector *v = Vector_NewOwning();
    for (int i = 0; i < 25; i++) {
        Vector_Add(v, NewCounted(25 - i));
        EXPECT_EQ(v->capacity, i < 10 ? 10 : i < 20 ? 20 : 30) << "after add " << i + 1;
    }
    Vector_Sort(v);  // with the comparator of the element at index 0
    const auto *slots = reinterpret_cast<const VectorDescriptor *>(v->ftbl);
    EXPECT_EQ(static_cast<Counted *>(slots->GetAt(v, 3))->id, 4);
    Object_Destroy(slots->RemoveAt(v, 0));  // removal alone never destroys
    EXPECT_EQ(g_destroyed, 1);
    EXPECT_EQ(Vector_Add(v, nullptr), nullptr);  // null elements are stored
    Vector_Clear(v);
    EXPECT_EQ(g_destroyed, 25);  // each non-null element once
    EXPECT_EQ(v->capacity, 30);  // never shrinks
    Counted *kept = NewCounted(0);
    Vector_SetOwnsElements(v, 0);
    Vector_Add(v, kept);
    Vector_Free(v);
    EXPECT_EQ(g_destroyed, 25);  // no longer owning: kept alive
    free(kept);
}

TEST(Vector, RemovalAndCopyQuirks) {
    EventObject *a = EventObject_New(1), *b = EventObject_New(2);
    Vector *v = Vector_New(), *source = Vector_New(), *target = Vector_New();
    for (EventObject *e : {a, a, b}) Vector_Add(v, e);
    EXPECT_EQ(Vector_RemoveIdentical(v, a), a);  // the second adjacent copy survives
    EXPECT_EQ(Vector_Length(v), 2);
    EXPECT_EQ(Vector_GetAt(v, 0), a);
    Counted *c1 = NewCounted(1), *c2 = NewCounted(1);  // no Equals: identity only
    Vector_Add(v, c1);
    EXPECT_EQ(Vector_Remove(v, c2), nullptr);
    EXPECT_EQ(Vector_Remove(v, c1), c1);
    Vector_Add(target, c1);
    EXPECT_EQ(Vector_Remove(target, c1), c1) << "the only element";
    String *stored = String_NewFromChars("same"), *probe = String_NewFromChars("same");
    Vector_Add(v, stored);
    EXPECT_EQ(Vector_Remove(v, probe), stored);  // the stored one comes back
    for (EventObject *e : {a, static_cast<EventObject *>(nullptr), b}) Vector_Add(source, e);
    EXPECT_EQ(Vector_AddAll(target, source), -2);  // a null element is appended and ends the copy
    EXPECT_EQ(Vector_Length(target), 2);
    EXPECT_EQ(Vector_GetAt(target, 1), nullptr);
    for (void *o : std::initializer_list<void *>{v, source, target, a, b, stored, probe}) Object_Destroy(o);
    free(c1);
    free(c2);
}

TEST(Vector, AssertionsAndFailuresAreSurvived) {
    EXPECT_EQ(0, test::InChild([] {
        Vector *v = Vector_New();
        Vector_Sort(v);  // empty: nothing to report
        Vector_Lock(v);
        EXPECT_EQ(Vector_GetAt(v, 0), nullptr);
        EXPECT_EQ(Vector_RemoveAt(v, -1), nullptr);
        EventObject *e = EventObject_New(1);
        Vector_Add(v, e);
        Vector_Sort(v);  // EventObject has no Compare
        Vector_Free(nullptr);
        test::FailAllocation(2);
        EXPECT_EQ(Vector_NewOwning(), nullptr);  // the array: no message
        const std::string log = test::ReadFile("vokt.log");
        for (const char *text : {"v->bSynchronized", "index < v->size", "0 <= index && index < v->size",
                                 "v->data[0]->ftbl->Compare!=NULL", "v != NULL"})
            EXPECT_TRUE(test::HasReport(log, text, "vector")) << text << "\n" << log;
        EXPECT_EQ(test::Count(log, "Assertion failed"), 5);
        EXPECT_EQ(test::Count(log, "Unable to allocate ObjectVector vec\n"), 0) << "none for the array";

        ASSERT_EQ(Vector_SetSynchronized(v, 1), 0);
        for (int i = 1; i < 10; i++) Vector_Add(v, e);
        Object **before = v->data;
        test::FailAllocation(1);
        EXPECT_EQ(Vector_Add(v, e), nullptr);
        // Capacity stays raised, the array stays, and the lock is still held...
        EXPECT_EQ(v->capacity, 20);
        EXPECT_EQ(v->mutex->spinCount, 1);
        EXPECT_EQ(v->data, before);
        Vector_Unlock(v);
        // Reads under the lock let it go again; one past the end is reported once.
        EXPECT_EQ(Vector_GetAt(v, 9), e);
        EXPECT_EQ(Vector_GetAt(v, 10), nullptr);
        EXPECT_EQ(v->mutex->spinCount, 0);
        EXPECT_EQ(test::Count(test::ReadFile("vokt.log"), "Assertion failed"), 6);
        // ...and the next adds grow the array to that capacity instead of writing past it.
        EXPECT_EQ(Vector_Add(v, e), e);
        EXPECT_EQ(Vector_Add(v, nullptr), nullptr);
        EXPECT_EQ(v->capacity, 20);
        EXPECT_EQ(Vector_Length(v), 12);
        Vector_SetOwnsElements(v, 0);  // leaves the lock held twice
        EXPECT_EQ(v->mutex->spinCount, 2);
        Vector_Unlock(v);
        Vector_Unlock(v);
        Vector_Free(v);
        Object_Destroy(e);
    }));
}

// Every operation that reads a synchronised vector holds its lock while it reads: it waits
// while another thread holds it.
TEST(Vector, ReadersOfASynchronisedVectorWaitForItsLock) {
    Vector *source = Vector_NewOwning(), *target = Vector_New();
    ObjectSet *set = ObjectSet_New();
    StringBag *bag = StringBag_New();
    String *joined = String_New();
    StringBag_Add(bag, "a", 1);
    Vector_Add(source, String_NewFromChars("a"));
    for (Vector *v : {source, bag->elements}) ASSERT_EQ(Vector_SetSynchronized(v, 1), 0);
    const std::tuple<const char *, Vector *, std::function<void()>> readers[] = {
        {"Vector_AddAll", source, [&] { Vector_AddAll(target, source); }},
        {"ObjectSet_AddVector", source, [&] { ObjectSet_AddVector(set, source); }},
        {"String_Join", source, [&] { String_Join(source, ",", joined); }},
        {"StringBag_Add", bag->elements, [&] { StringBag_Add(bag, "A", 1); }},
    };
    for (const auto &[name, v, read] : readers) EXPECT_TRUE(test::WaitsForLock(v->mutex, read)) << name;
    EXPECT_EQ(Vector_Length(target), 1);
    for (void *o : std::initializer_list<void *>{set, target, source, bag, joined}) Object_Destroy(o);
}

void *AddAndRemove(void *arg) {
    auto *v = static_cast<Vector *>(arg);
    EventObject *mine[200];
    for (auto &e : mine) Vector_Add(v, e = EventObject_New(reinterpret_cast<uintptr_t>(&e)));
    for (int i = 0; i < 100; i++) Object_Destroy(Vector_RemoveIdentical(v, mine[i]));
    EventObject probe = *mine[150];
    Vector_Lock(v);  // a compound step: check and add atomically
    if (Vector_Contains(v, &probe)) Vector_Add(v, EventObject_New(0));
    Vector_Unlock(v);
    return nullptr;
}

TEST(Vector, SynchronisedVectorUnderSeveralThreads) {
    Vector *v = Vector_NewOwning();
    ASSERT_EQ(Vector_SetSynchronized(v, 1), 0);
    Thread threads[8];
    for (auto &t : threads) Thread_CreateJoinable(&t, AddAndRemove, v);
    for (auto &t : threads) Thread_Join(t);
    EXPECT_EQ(Vector_Length(v), 8 * 101);
    EXPECT_EQ(v->mutex->spinCount, 0);
    Vector_Free(v);
}

}  // namespace

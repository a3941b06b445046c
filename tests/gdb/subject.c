// SPDX-License-Identifier: MIT
/* One of each vokt type, a program's own class, a corrupted object and a held Mutex, for
 * the debugger's printers to show: gdb stops in inspect_here, or reads the core dumped
 * there. */
#include <stdlib.h>
#include <string.h>

#include "vokt/vokt.h"

typedef struct Person {
    const ClassDescriptor *ftbl;
    int age;
} Person;

static void DestroyPerson(void *person) { Object_Free(person); }
static const ClassDescriptor kPersonClass = {sizeof(Person), "Person", DestroyPerson, NULL, NULL, NULL};

static Event g_release;

static void *Waiter(void *unused) {
    (void)unused;
    Event_Wait(&g_release);
    return NULL;
}

/* Where gdb stops; not inlined, so that main's frame is its caller. */
__attribute__((noinline)) void inspect_here(void) { __asm__ __volatile__("" ::: "memory"); }

int main(void) {
    Runtime_Init();
    String *text = String_NewFromChars("hello, \"gdb\"");
    String *unset = String_New();
    Vector *list = Vector_NewOwning();
    Vector_SetSynchronized(list, 1);
    Vector_Add(list, String_NewFromChars("one"));
    Vector_Add(list, CodeName_FromName("Two"));
    ObjectSet *set = ObjectSet_New();
    ObjectSet_Add(set, text, NULL);
    StringMap *map = StringMap_New();
    StringMap_Set(map, "colour", "blue");
    StringMap_Set(map, "size", "large");
    StringBag *bag = StringBag_New();
    StringBag_Add(bag, "apple", 3);
    CodeName *code = CodeName_FromName("Vokt_1");
    MemBlock *block = MemBlock_New(24);
    memcpy(block->data, "0123456789abcdef", 16);
    Mutex mutex;
    Mutex_Init(&mutex);
    Mutex_Lock(&mutex);
    Mutex_Lock(&mutex);
    Mutex idle;
    Mutex_Init(&idle);
    Event_Init(&g_release);
    Condition ready;
    Condition_Init(&ready);
    Condition_Signal(&ready);
    Counter counter;
    Counter_Init(&counter);
    Counter_Increment(&counter);
    Thread worker;
    Thread_CreateJoinable(&worker, Waiter, NULL);
    Person *person = Object_New(&kPersonClass);
    person->age = 42;
    Object *any = (Object *)code;
    String *broken = malloc(sizeof(String));
    memset(broken, 0xA5, sizeof(String));
    String *none = NULL;
    const int32_t ref = ErrorStore_Register(Error_NewFriendly(404, "no such page: %s", "index"));
    inspect_here();
    Event_SetState(&g_release, 1);
    Thread_Join(worker);
    Mutex_Unlock(&mutex);
    Mutex_Unlock(&mutex);
    /* Used after the stop, so that every variable is there to print. */
    Object *all[] = {(Object *)text, (Object *)unset, (Object *)list, (Object *)set, (Object *)map, (Object *)bag,
                     (Object *)block, (Object *)person, any};
    for (size_t i = 0; i < sizeof all / sizeof all[0]; i++)
        if (all[i] != any) Object_Destroy(all[i]);
    free(broken);
    return none == NULL && ref != 0 && Counter_GetValue(&counter) == 1 && Condition_Wait(&ready) == 1 ? 0 : 1;
}

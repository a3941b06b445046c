// SPDX-License-Identifier: MIT
// The `locks` check: the order in which threads take vokt Mutexes, kept as a graph whose
// nodes are Mutexes and whose edges say "taken while holding". A new edge that closes a
// cycle is an inversion that can deadlock, reported even when this run did not; so are an
// unlock by a thread that does not hold the Mutex, a thread that ends holding one, and a
// wait entered while holding one.
#include <pthread.h>
#include <string.h>

#include "vokt/checks/internal/common.h"
#include "vokt/internal/lock.h"

namespace vokt {

namespace {

// Mutexes by address, read without a lock (see checks::Table). A Mutex initialised again
// gets a new node; node 0 is none.
struct NodeSlot {
    uintptr_t mutex;
    uint32_t node;
};
struct NodeTraits {
    static bool Empty(const NodeSlot &s) { return __atomic_load_n(&s.mutex, __ATOMIC_ACQUIRE) == 0; }
    static uint64_t Hash(const NodeSlot &s) { return Mix64(s.mutex); }
};
NodeSlot *g_nodeSlots = nullptr;
checks::Table<NodeSlot, NodeTraits> g_nodes;
uint32_t g_nodeCount = 0;
SpinLock g_nodeLock;

// Edges "from before to", found without a lock and added under g_graphLock with the cycle
// search. An edge's number is its slot's index plus one, so that 0 ends a list of edges.
struct Edge {
    uint64_t key;  // from << 32 | to; 0: empty
    uint32_t fromSite, toSite;
    uint32_t thread;
    uint32_t next;  // the next edge out of the same node
};
struct EdgeTraits {
    static bool Empty(const Edge &e) { return __atomic_load_n(&e.key, __ATOMIC_ACQUIRE) == 0; }
    static uint64_t Hash(const Edge &e) { return Mix64(e.key); }
};
Edge *g_edgeSlots = nullptr;
checks::Table<Edge, EdgeTraits> g_edges;
SpinLock g_graphLock;

// By node: its first edge out, the search that last passed it and the edge it came in by,
// and the Mutex's address; and the search's queue, with room for every node.
uint32_t *g_firstEdge = nullptr;
uint32_t *g_queue = nullptr;
// By node: the thread holding it and where it locked it (thread << 32 | site, kEnded when
// that thread has ended; 0: nobody the check saw), for the report of an unlock by another
// thread.
constexpr uint64_t kEnded = 1ull << 63;
uint64_t *g_holder = nullptr;

void SetHolder(uint32_t node, uint64_t holder) { __atomic_store_n(&g_holder[node], holder, __ATOMIC_RELAXED); }
// By node: the site of its first lock, which names a Mutex that no variable does.
uint32_t *g_firstSite = nullptr;
uint32_t *g_visited = nullptr;
uint32_t *g_parentEdge = nullptr;
uintptr_t *g_nodeMutex = nullptr;
uint32_t g_search = 0;

uint32_t g_lockEpoch = 0;

// The calling thread's part, its holds forgotten when `locks` has been switched on since.
CheckThread *Holder() {
    CheckThread *me = Me();
    const uint32_t epoch = __atomic_load_n(&g_lockEpoch, __ATOMIC_RELAXED);
    if (me->lockEpoch != epoch) {
        me->lockEpoch = epoch;
        me->heldCount = 0;
        me->unkept = 0;
    }
    return me;
}

bool g_ready = false;

// The tables are made when `locks` is first switched on (LockOrderPrepare), before any hook
// can run; the hooks still see them through this acquire, whatever the machine.
inline bool Ready() { return __atomic_load_n(&g_ready, __ATOMIC_ACQUIRE); }

bool SameMutex(const NodeSlot &s, uintptr_t key) { return __atomic_load_n(&s.mutex, __ATOMIC_RELAXED) == key; }

// The node of a Mutex, made at its first lock. 0 when the table is full: that Mutex then
// takes no part.
uint32_t NodeOf(Mutex *m) {
    const auto key = reinterpret_cast<uintptr_t>(m);
    const auto same = [key](const NodeSlot &s) { return SameMutex(s, key); };
    if (const NodeSlot *known = g_nodes.Find(Mix64(key), same)) return __atomic_load_n(&known->node, __ATOMIC_RELAXED);
    {
        SpinGuard guard(g_nodeLock);
        if (const NodeSlot *known = g_nodes.Find(Mix64(key), same))  // another thread's
            return __atomic_load_n(&known->node, __ATOMIC_RELAXED);
        NodeSlot *slot = checks::Fits(g_nodeCount, kMutexSlots) ? g_nodes.Claim(Mix64(key)) : nullptr;
        if (slot) {
            const uint32_t node = ++g_nodeCount;
            g_nodeMutex[node] = key;
            __atomic_store_n(&slot->node, node, __ATOMIC_RELAXED);
            __atomic_store_n(&slot->mutex, key, __ATOMIC_RELEASE);
            return node;
        }
    }
    LimitReached(Limit::kMutexes);
    return 0;
}

// A Mutex initialised again is a new node: the orders of the old one are not its own.
void Renew(Mutex *m) {
    const auto key = reinterpret_cast<uintptr_t>(m);
    {
        SpinGuard guard(g_nodeLock);
        NodeSlot *known = g_nodes.Find(Mix64(key), [key](const NodeSlot &s) { return SameMutex(s, key); });
        if (!known) return;  // never locked: its node comes with its first lock
        if (checks::Fits(g_nodeCount, kMutexSlots)) {
            g_nodeMutex[++g_nodeCount] = key;
            return __atomic_store_n(&known->node, g_nodeCount, __ATOMIC_RELAXED);
        }
    }
    LimitReached(Limit::kMutexes);
}

uint64_t EdgeKey(uint32_t from, uint32_t to) { return static_cast<uint64_t>(from) << 32 | to; }
Edge &EdgeAt(uint32_t number) { return g_edgeSlots[number - 1]; }
const Edge *FindEdge(uint64_t key) {
    return g_edges.Find(Mix64(key), [key](const Edge &e) { return __atomic_load_n(&e.key, __ATOMIC_RELAXED) == key; });
}

// The shortest path of orders from one node to another, its first steps kept.
constexpr int kStepsShown = 8;
struct Path {
    Edge steps[kStepsShown];
    int length;  // all its steps, kept or not
};

bool PathLocked(uint32_t from, uint32_t to, Path *path) {
    const uint32_t search = ++g_search;
    uint32_t *const queue = g_queue;  // each node enters once at the most: the search is exact
    size_t head = 0, tail = 0;
    queue[tail++] = from;
    g_visited[from] = search;
    while (head < tail) {
        const uint32_t node = queue[head++];
        for (uint32_t e = g_firstEdge[node]; e; e = EdgeAt(e).next) {
            const auto next = static_cast<uint32_t>(EdgeAt(e).key);
            if (g_visited[next] == search) continue;
            g_visited[next] = search;
            g_parentEdge[next] = e;
            if (next != to) {
                queue[tail++] = next;
                continue;
            }
            uint32_t *const reversed = queue;  // the path, walked back from its end: the queue is done with
            int length = 0;
            for (uint32_t at = to; at != from; at = static_cast<uint32_t>(EdgeAt(g_parentEdge[at]).key >> 32))
                reversed[length++] = g_parentEdge[at];
            path->length = length;
            for (int i = 0; i < length && i < kStepsShown; i++) path->steps[i] = EdgeAt(reversed[length - 1 - i]);
            return true;
        }
    }
    return false;
}

const void *MutexOf(uint32_t node) { return reinterpret_cast<const void *>(g_nodeMutex[node]); }  // NOLINT(performance-no-int-to-ptr): printed only

// A Mutex as the program knows it: "Mutex g_cache_lock", the variable that holds it (with
// its offset inside, "Mutex g_cache+0x8"), or "Mutex 0x.. (first locked at f+0x2f (app,
// app.c:12))" for one on the heap or a stack.
void AddMutex(Line &line, const void *m, uint32_t node) {
    char name[512];
    uintptr_t offset = 0;
    if (SymbolAt(m, true, name, sizeof name, &offset)) {
        const size_t n = strlen(name);
        if (offset) snprintf(name + n, sizeof name - n, "+0x%lx", static_cast<unsigned long>(offset));
        line.Add("Mutex %s", name).Note(Field::kMutexes, name);
        return;
    }
    snprintf(name, sizeof name, "%p", m);
    line.Add("Mutex %s", name).Note(Field::kMutexes, name);
    const Frames frames = FramesOf(node ? __atomic_load_n(&g_firstSite[node], __ATOMIC_RELAXED) : 0);
    if (frames.count == 0) return;
    char frame[1200];
    FormatFrame(frames.pc[0], frame, sizeof frame);
    line.Add(" (first locked at %s)", frame);
}

// "Mutex a then Mutex b in thread n, locked at <site>, then at <site>"
void AddStep(Line &line, uint32_t first, uint32_t second, uint32_t thread, uint32_t firstSite, uint32_t secondSite) {
    AddMutex(line, MutexOf(first), first);
    AddMutex(line.Add(" then "), MutexOf(second), second);
    line.Add(" in ").AddThread(thread).Add(", locked at ").AddSite(firstSite).Add(", then at ").AddSite(secondSite);
}

void ReportInversion(const Taken &before, uint32_t after, uint32_t afterSite, const Path &opposite) {
    if (!FirstTime(kInversion, before.site, afterSite)) return;
    Line line("lock-order-inversion", 2 * 4096 * (kStepsShown + 1) + 1024);
    line.Add("lock order inversion: ");
    AddStep(line, before.node, after, ThreadNumber(), before.site, afterSite);
    if (opposite.length == 1) {
        const Edge &e = opposite.steps[0];
        line.Add("; the opposite order was taken in ").AddThread(e.thread).Add(", locked at ").AddSite(e.fromSite);
        line.Add(", then at ").AddSite(e.toSite);
    } else {
        line.Add("; the opposite order was taken in %d steps", opposite.length);
        for (int i = 0; i < opposite.length && i < kStepsShown; i++) {
            const Edge &e = opposite.steps[i];
            line.Add("%s", i ? "; " : ": ");
            AddStep(line, static_cast<uint32_t>(e.key >> 32), static_cast<uint32_t>(e.key), e.thread, e.fromSite, e.toSite);
        }
        if (opposite.length > kStepsShown) line.Add("; and %d more", opposite.length - kStepsShown);
    }
    line.Send();
}

// Records "before, then after"; an edge that closes a cycle is reported.
void Order(const Taken &before, uint32_t node, uint32_t site) {
    const uint64_t key = EdgeKey(before.node, node);
    if (FindEdge(key)) return;
    Path opposite{};
    bool cycle = false, full = false;
    {
        SpinGuard guard(g_graphLock);
        if (FindEdge(key)) return;
        if (Edge *edge = g_edges.Claim(Mix64(key))) {
            cycle = PathLocked(node, before.node, &opposite);
            edge->fromSite = before.site;
            edge->toSite = site;
            edge->thread = ThreadNumber();
            NoteThread();  // its name as it is now, for reports made when it has ended
            edge->next = g_firstEdge[before.node];
            g_firstEdge[before.node] = static_cast<uint32_t>(edge - g_edgeSlots) + 1;
            __atomic_store_n(&edge->key, key, __ATOMIC_RELEASE);
        } else {
            full = true;
        }
    }
    if (full) LimitReached(Limit::kOrders);
    if (cycle) ReportInversion(before, node, site, opposite);
}

}  // namespace

bool LockOrderPrepare() {
    if (Ready()) return true;
    if (!MapArray(g_nodeSlots, kMutexSlots) || !MapArray(g_edgeSlots, kOrderSlots) ||
        !MapArray(g_firstEdge, kMutexSlots) || !MapArray(g_visited, kMutexSlots) ||
        !MapArray(g_parentEdge, kMutexSlots) || !MapArray(g_nodeMutex, kMutexSlots) || !MapArray(g_queue, kMutexSlots) ||
        !MapArray(g_holder, kMutexSlots) || !MapArray(g_firstSite, kMutexSlots))
        return false;
    g_nodes.Attach(g_nodeSlots, kMutexSlots);
    g_edges.Attach(g_edgeSlots, kOrderSlots);
    __atomic_store_n(&g_ready, true, __ATOMIC_RELEASE);
    return true;
}

void LocksSwitchedOn() { __atomic_add_fetch(&g_lockEpoch, 1, __ATOMIC_RELAXED); }

void LocksAtThreadEnd(CheckThread *me) {
    if (!Checking(kCheckLocks) || me->lockEpoch != __atomic_load_n(&g_lockEpoch, __ATOMIC_RELAXED)) return;
    for (int i = 0; i < me->heldCount; i++) {
        const Taken &held = me->held[i];
        SetHolder(held.node, kEnded | __atomic_load_n(&g_holder[held.node], __ATOMIC_RELAXED));
        if (!FirstTime(kEndedHolding, held.site, 0)) continue;
        Line line("ended-holding", 4400);
        NoteThread();  // its name as it ends
        AddMutex(line.AddThread(ThreadNumber()).Add(" ended holding "), held.mutex, held.node);
        line.Add(", locked at ").AddSite(held.site).Send();
    }
    me->heldCount = 0;
}

void LockTaken(Mutex *m) {
    CheckThread *me = Holder();
    if (me->reporting || !Ready()) return;
    Taken *held = me->held;
    for (int i = me->heldCount; i-- > 0;)
        if (held[i].mutex == m) {  // a deeper hold: no new order
            held[i].depth++;
            return;
        }
    const uint32_t node = NodeOf(m);
    if (node == 0) return;
    const uint32_t site = CaptureSite();
    // Kept once: a Mutex locked again costs no atomic exchange here.
    if (uint32_t none = 0; __atomic_load_n(&g_firstSite[node], __ATOMIC_RELAXED) == 0)
        __atomic_compare_exchange_n(&g_firstSite[node], &none, site, false, __ATOMIC_RELAXED, __ATOMIC_RELAXED);
    for (int i = 0; i < me->heldCount; i++) Order(held[i], node, site);
    SetHolder(node, static_cast<uint64_t>(ThreadNumber()) << 32 | site);
    if (me->heldCount < kHeldKept)
        held[me->heldCount++] = Taken{m, node, site, 1};
    else
        me->unkept++, LimitReached(Limit::kHeld);  // counted, so that its unlock is not taken for another thread's
}

void UnlockSeen(Mutex *m) {
    CheckThread *me = Holder();
    if (me->reporting || !Ready()) return;
    Taken *held = me->held;
    for (int i = me->heldCount; i-- > 0;) {
        if (held[i].mutex != m) continue;
        if (--held[i].depth == 0) {
            SetHolder(held[i].node, 0);
            for (int j = i + 1; j < me->heldCount; j++) held[j - 1] = held[j];  // most often none: the last taken goes first
            me->heldCount--;
        }
        return;
    }
    // Not held here: by another thread, by nobody, or taken before the check was on. The
    // Mutex's own owner tells which.
    if (LoadOwner(m) == pthread_self()) {
        if (me->unkept > 0) me->unkept--;
        return;
    }
    const uint32_t site = CaptureSite();
    if (!FirstTime(kForeignUnlock, site, 0)) return;
    const auto key = reinterpret_cast<uintptr_t>(m);
    const NodeSlot *known = g_nodes.Find(Mix64(key), [key](const NodeSlot &s) { return SameMutex(s, key); });
    const uint32_t node = known ? __atomic_load_n(&known->node, __ATOMIC_RELAXED) : 0;
    const uint64_t holder = node ? __atomic_load_n(&g_holder[node], __ATOMIC_RELAXED) : 0;
    Line line("unlock-not-held", 8800);
    AddMutex(line, m, node);
    line.Add(" unlocked by a thread that does not hold it, at ").AddSite(site);
    if (holder)
        line.Add("; ").AddThread(static_cast<uint32_t>((holder & ~kEnded) >> 32));
    if (holder) line.Add(" %s it, locked at ", holder & kEnded ? "ended holding" : "holds").AddSite(static_cast<uint32_t>(holder));
    line.Send();
}

void MutexMade(Mutex *m) {
    if (Ready()) Renew(m);
}

void WaitEntered(const char *what) {
    const CheckThread *me = Holder();
    if (me->reporting || me->heldCount == 0 || !Ready()) return;
    const Taken &held = me->held[0];
    const uint32_t site = CaptureSite();
    if (!FirstTime(kHoldAndWait, site, held.site)) return;
    Line line("wait-while-holding", 8600);
    line.Add("wait on %s %s at ", what[0] == 'E' ? "an" : "a", what).AddSite(site);
    AddMutex(line.Add(" while holding "), held.mutex, held.node);
    line.Add(", locked at ").AddSite(held.site).Send();
}

void LockOrderFork(bool take) {
    SpinLock *const locks[] = {&g_nodeLock, &g_graphLock};
    ForkLocks(take, locks);
}

}  // namespace vokt

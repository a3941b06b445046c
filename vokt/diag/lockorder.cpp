// SPDX-License-Identifier: MIT
// The `locks` check: the order in which threads take vokt Mutexes, kept as a graph whose
// nodes are Mutexes and whose edges say "taken while holding". A new edge that closes a
// cycle is an inversion that can deadlock, reported even when this run did not; so are an
// unlock by a thread that does not hold the Mutex, a thread that ends holding one, and a
// wait entered while holding one.
#include <pthread.h>
#include <stdio.h>
#include <string.h>

#include "vokt/internal/checks.h"
#include "vokt/internal/lock.h"

namespace {

using vokt::SpinGuard;
using vokt::SpinLock;

constexpr char kPrefix[] = "vokt: ";

// Mutexes by address: read without a lock, entries published by their address last. A
// Mutex initialised again gets a new node.
constexpr uint32_t kNodeSlots = 1u << 20;
struct NodeSlot {
    uintptr_t mutex;
    uint32_t node;
};
NodeSlot *g_nodeSlots = nullptr;
uint32_t g_nodeCount = 0;  // node 0 is none

// Edges "from before to": found without a lock, added under g_graphLock with the cycle search.
constexpr uint32_t kEdgeSlots = 1u << 18;
struct Edge {
    uint64_t key;  // from << 32 | to; 0: empty
    uint32_t fromSite, toSite;
    uint32_t thread;
    uint32_t next;  // the next edge out of the same node (an index into g_edges), 0 for none
};
Edge *g_edges = nullptr;
uint32_t *g_firstEdge = nullptr;  // by node
uint32_t *g_visited = nullptr;    // by node: the search that last passed it
uint32_t *g_parentEdge = nullptr;  // by node: the edge the search came in by
uintptr_t *g_nodeMutex = nullptr;  // by node: the Mutex's address
uint32_t g_search = 0;
uint32_t g_edgeCount = 0;
SpinLock g_graphLock;
SpinLock g_nodeLock;

using vokt::Taken;
constexpr int kHeld = vokt::kHeldKept;

uint32_t g_lockEpoch = 0;

// The calling thread's part, its holds forgotten when `locks` has been switched on since.
vokt::CheckThread *Holder() {
    vokt::CheckThread *me = vokt::Me();
    const uint32_t epoch = __atomic_load_n(&g_lockEpoch, __ATOMIC_RELAXED);
    if (me->lockEpoch != epoch) {
        me->lockEpoch = epoch;
        me->heldCount = 0;
        me->unkept = 0;
    }
    return me;
}

enum : uint32_t { kInversion = 3, kForeignUnlock = 4, kEndedHolding = 5, kHoldAndWait = 6 };

uint32_t Mix(uint64_t key) { return static_cast<uint32_t>(vokt::Mix64(key)); }

bool g_ready = false;

// The tables are made when `locks` is first switched on (vokt::PrepareLockOrder), before any
// hook can run; the hooks still see them through this acquire, whatever the machine.
inline bool Ready() { return __atomic_load_n(&g_ready, __ATOMIC_ACQUIRE); }

// The node of a Mutex, made at its first lock. 0 when the table is full: that Mutex then
// takes no part.
uint32_t NodeOf(Mutex *m) {
    const auto key = reinterpret_cast<uintptr_t>(m);
    const uint32_t mask = kNodeSlots - 1;
    for (uint32_t i = Mix(key) & mask;; i = (i + 1) & mask) {
        const uintptr_t at = __atomic_load_n(&g_nodeSlots[i].mutex, __ATOMIC_ACQUIRE);
        if (at == key) return __atomic_load_n(&g_nodeSlots[i].node, __ATOMIC_RELAXED);
        if (at == 0) break;
    }
    SpinGuard guard(g_nodeLock);
    for (uint32_t i = Mix(key) & mask;; i = (i + 1) & mask) {
        const uintptr_t at = __atomic_load_n(&g_nodeSlots[i].mutex, __ATOMIC_RELAXED);
        if (at == key) return __atomic_load_n(&g_nodeSlots[i].node, __ATOMIC_RELAXED);  // another thread's
        if (at != 0) continue;
        if (g_nodeCount + 1 >= kNodeSlots / 4 * 3) return 0;
        const uint32_t node = ++g_nodeCount;
        g_nodeMutex[node] = key;
        __atomic_store_n(&g_nodeSlots[i].node, node, __ATOMIC_RELAXED);
        __atomic_store_n(&g_nodeSlots[i].mutex, key, __ATOMIC_RELEASE);
        return node;
    }
}

// A Mutex initialised again is a new node: the orders of the old one are not its own.
void Renew(Mutex *m) {
    const auto key = reinterpret_cast<uintptr_t>(m);
    const uint32_t mask = kNodeSlots - 1;
    SpinGuard guard(g_nodeLock);
    for (uint32_t i = Mix(key) & mask;; i = (i + 1) & mask) {
        const uintptr_t at = __atomic_load_n(&g_nodeSlots[i].mutex, __ATOMIC_RELAXED);
        if (at == 0) return;  // never locked: its node comes with its first lock
        if (at != key) continue;
        if (g_nodeCount + 1 >= kNodeSlots / 4 * 3) return;
        g_nodeMutex[++g_nodeCount] = key;
        __atomic_store_n(&g_nodeSlots[i].node, g_nodeCount, __ATOMIC_RELAXED);
        return;
    }
}

uint64_t EdgeKey(uint32_t from, uint32_t to) { return static_cast<uint64_t>(from) << 32 | to; }

const Edge *FindEdge(uint64_t key) {
    const uint32_t mask = kEdgeSlots - 1;
    for (uint32_t i = Mix(key) & mask;; i = (i + 1) & mask) {
        const uint64_t at = __atomic_load_n(&g_edges[i].key, __ATOMIC_ACQUIRE);
        if (at == key) return &g_edges[i];
        if (at == 0) return nullptr;
    }
}

// The shortest path of orders from one node to another, its first steps kept.
constexpr int kStepsShown = 8;
struct Path {
    Edge steps[kStepsShown];
    int length;  // all its steps, kept or not
};

bool PathLocked(uint32_t from, uint32_t to, Path *path) {
    const uint32_t search = ++g_search;
    constexpr size_t kQueue = 1024;  // nodes searched at the most
    uint32_t queue[kQueue];
    size_t head = 0, tail = 0;
    queue[tail++] = from;
    g_visited[from] = search;
    while (head < tail) {
        const uint32_t node = queue[head++];
        for (uint32_t e = g_firstEdge[node]; e; e = g_edges[e].next) {
            const auto next = static_cast<uint32_t>(g_edges[e].key);
            if (g_visited[next] == search) continue;
            g_visited[next] = search;
            g_parentEdge[next] = e;
            if (next != to) {
                if (tail < kQueue) queue[tail++] = next;
                continue;
            }
            uint32_t reversed[kQueue];
            int length = 0;
            for (uint32_t at = to; at != from && length < static_cast<int>(kQueue);
                 at = static_cast<uint32_t>(g_edges[g_parentEdge[at]].key >> 32))
                reversed[length++] = g_parentEdge[at];
            path->length = length;
            for (int i = 0; i < length && i < kStepsShown; i++) path->steps[i] = g_edges[reversed[length - 1 - i]];
            return true;
        }
    }
    return false;
}

Mutex *MutexOf(uint32_t node) { return reinterpret_cast<Mutex *>(g_nodeMutex[node]); }  // NOLINT(performance-no-int-to-ptr): printed only

// "Mutex 0x.. then Mutex 0x.. in thread n, locked at <site>, then at <site>"
size_t PutStep(char *out, size_t room, const void *first, const void *second, uint32_t thread, uint32_t firstSite,
               uint32_t secondSite) {
    char a[4096], b[4096];
    vokt::FormatSite(firstSite, a, sizeof a);
    vokt::FormatSite(secondSite, b, sizeof b);
    snprintf(out, room, "Mutex %p then Mutex %p in thread %u, locked at %s, then at %s", first, second, thread, a, b);
    return strlen(out);
}

void ReportInversion(const Taken &before, Mutex *after, uint32_t afterSite, const Path &opposite) {
    if (!vokt::FirstTime(kInversion, before.site, afterSite)) return;
    constexpr size_t kRoom = 2 * 4096 * (kStepsShown + 1) + 1024;
    auto *line = static_cast<char *>(vokt::MapZeroed(kRoom));
    if (!line) return;
    size_t used = static_cast<size_t>(snprintf(line, kRoom, "%slock order inversion: ", kPrefix));
    used += PutStep(line + used, kRoom - used, before.mutex, after, vokt::ThreadNumber(), before.site, afterSite);
    if (opposite.length == 1) {
        const Edge &e = opposite.steps[0];
        char c[4096], d[4096];
        vokt::FormatSite(e.fromSite, c, sizeof c);
        vokt::FormatSite(e.toSite, d, sizeof d);
        snprintf(line + used, kRoom - used, "; the opposite order was taken in thread %u, locked at %s, then at %s",
                 e.thread, c, d);
    } else {
        used += static_cast<size_t>(snprintf(line + used, kRoom - used, "; the opposite order was taken in %d steps",
                                             opposite.length));
        for (int i = 0; i < opposite.length && i < kStepsShown; i++) {
            const Edge &e = opposite.steps[i];
            used += static_cast<size_t>(snprintf(line + used, kRoom - used, "%s", i ? "; " : ": "));
            used += PutStep(line + used, kRoom - used, MutexOf(static_cast<uint32_t>(e.key >> 32)),
                            MutexOf(static_cast<uint32_t>(e.key)), e.thread, e.fromSite, e.toSite);
        }
        if (opposite.length > kStepsShown)
            snprintf(line + used, kRoom - used, "; and %d more", opposite.length - kStepsShown);
    }
    vokt::Report(line);
    vokt::Unmap(line, kRoom);
}

// Records "before, then after"; an edge that closes a cycle is reported.
void Order(const Taken &before, Mutex *after, uint32_t node, uint32_t site) {
    const uint64_t key = EdgeKey(before.node, node);
    if (FindEdge(key)) return;
    Path opposite{};
    bool cycle = false;
    {
        SpinGuard guard(g_graphLock);
        if (FindEdge(key)) return;
        if (g_edgeCount + 1 >= kEdgeSlots / 4 * 3) return;
        cycle = PathLocked(node, before.node, &opposite);
        const uint32_t mask = kEdgeSlots - 1;
        uint32_t i = Mix(key) & mask;
        while (g_edges[i].key != 0) i = (i + 1) & mask;
        Edge &edge = g_edges[i];
        edge.fromSite = before.site;
        edge.toSite = site;
        edge.thread = vokt::ThreadNumber();
        edge.next = g_firstEdge[before.node];
        g_firstEdge[before.node] = i;
        g_edgeCount++;
        __atomic_store_n(&edge.key, key, __ATOMIC_RELEASE);
    }
    if (cycle) ReportInversion(before, after, site, opposite);
}

}  // namespace

namespace vokt {

bool PrepareLockOrder() {
    static SpinLock once;
    SpinGuard guard(once);
    if (g_ready) return true;
    g_nodeSlots = static_cast<NodeSlot *>(MapZeroed(kNodeSlots * sizeof(NodeSlot)));
    g_edges = static_cast<Edge *>(MapZeroed(kEdgeSlots * sizeof(Edge)));
    g_firstEdge = static_cast<uint32_t *>(MapZeroed(kNodeSlots * sizeof(uint32_t)));
    g_visited = static_cast<uint32_t *>(MapZeroed(kNodeSlots * sizeof(uint32_t)));
    g_parentEdge = static_cast<uint32_t *>(MapZeroed(kNodeSlots * sizeof(uint32_t)));
    g_nodeMutex = static_cast<uintptr_t *>(MapZeroed(kNodeSlots * sizeof(uintptr_t)));
    if (!g_nodeSlots || !g_edges || !g_firstEdge || !g_visited || !g_parentEdge || !g_nodeMutex) return false;
    g_edges[0].key = ~0ull;  // edge 0 ends the lists of edges: a key no pair of nodes has
    __atomic_store_n(&g_ready, true, __ATOMIC_RELEASE);
    return true;
}

void LocksSwitchedOn() { __atomic_add_fetch(&g_lockEpoch, 1, __ATOMIC_RELAXED); }

void LocksAtThreadEnd(CheckThread *me) {
    if (!Checking(kCheckLocks) || me->lockEpoch != __atomic_load_n(&g_lockEpoch, __ATOMIC_RELAXED)) return;
    for (int i = 0; i < me->heldCount; i++) {
        const Taken &held = me->held[i];
        if (!FirstTime(kEndedHolding, held.site, 0)) continue;
        char locked[4096], line[4400];
        FormatSite(held.site, locked, sizeof locked);
        snprintf(line, sizeof line, "%sthread %u ended holding Mutex %p, locked at %s", kPrefix, ThreadNumber(),
                 static_cast<void *>(held.mutex), locked);
        Report(line);
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
    for (int i = 0; i < me->heldCount; i++) Order(held[i], m, node, site);
    if (me->heldCount < kHeld)
        held[me->heldCount++] = Taken{m, node, site, 1};
    else
        me->unkept++;  // no room: counted, so that its unlock is not taken for another thread's
}

void UnlockSeen(Mutex *m) {
    CheckThread *me = Holder();
    if (me->reporting || !Ready()) return;
    Taken *held = me->held;
    for (int i = me->heldCount; i-- > 0;) {
        if (held[i].mutex != m) continue;
        if (--held[i].depth == 0) {
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
    char here[4096], line[4400];
    FormatSite(site, here, sizeof here);
    snprintf(line, sizeof line, "%sMutex %p unlocked by a thread that does not hold it, at %s", kPrefix,
             static_cast<void *>(m), here);
    Report(line);
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
    char here[4096], locked[4096], line[8600];
    FormatSite(site, here, sizeof here);
    FormatSite(held.site, locked, sizeof locked);
    snprintf(line, sizeof line, "%swait on %s %s at %s while holding Mutex %p, locked at %s", kPrefix,
             what[0] == 'E' ? "an" : "a", what, here, static_cast<void *>(held.mutex), locked);
    Report(line);
}

void LockOrderForkPrepare() {
    g_nodeLock.lock();
    g_graphLock.lock();
}
void LockOrderForkRelease() {
    g_graphLock.unlock();
    g_nodeLock.unlock();
}

}  // namespace vokt

// SPDX-License-Identifier: MIT
// The leak report: live objects and blocks grouped by class and site, most numerous first.
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "vokt/checks/checks.h"
#include "vokt/checks/internal/common.h"

namespace vokt {

namespace {

struct Group {
    const ClassDescriptor *cls;  // null for blocks
    uint32_t site;
    bool orphan;     // memory made for objects the report does not list
    uint64_t count;  // 0: empty
    uint64_t bytes;
};
struct GroupTraits {
    static bool Empty(const Group &g) { return g.count == 0; }
    static uint64_t Hash(const Group &g) { return Mix(reinterpret_cast<uintptr_t>(g.cls), g.site * 2u + g.orphan); }
};

// What is alive, gathered under the stripes' locks into the checks' own memory; then each
// block and object made for another one is folded into the outermost owner listed (a
// Stream and the Strings it keeps are one leak), and the rest grouped by class and site.
struct Alive {
    uintptr_t block, owner;
    const ClassDescriptor *cls;
    uint64_t bytes;  // its own, and what is folded into it
    uint32_t site;
    bool folded;
};
struct Where {  // an Alive by its address
    uintptr_t block;
    uint32_t index;
};
struct WhereTraits {
    static bool Empty(const Where &w) { return w.block == 0; }
    static uint64_t Hash(const Where &w) { return Mix64(w.block); }
};

struct Tally {
    Alive *alive = nullptr;
    size_t count = 0, capacity = 0;
    bool lost = false;  // no memory for all of it
    checks::Table<Where, WhereTraits> where;
    checks::Table<Group, GroupTraits> groups;
    uint64_t objects = 0, blocks = 0;
    Tally() = default;
    Tally(const Tally &) = delete;
    Tally &operator=(const Tally &) = delete;
    ~Tally() {
        Unmap(alive, capacity * sizeof(Alive));
        Unmap(where.Slots(), where.Capacity() * sizeof(Where));
        Unmap(groups.Slots(), groups.Capacity() * sizeof(Group));
    }

    void Gather(const Record &r) {
        if (count == capacity) {
            const size_t grown = capacity ? capacity * 2 : 4096;
            auto *more = static_cast<Alive *>(MapZeroed(grown * sizeof(Alive)));
            if (!more) return void(lost = true);
            if (alive) memcpy(more, alive, count * sizeof(Alive));
            Unmap(alive, capacity * sizeof(Alive));
            alive = more;
            capacity = grown;
        }
        alive[count++] = Alive{r.block, r.owner, r.cls, r.size, r.site, false};
    }

    const Alive *Find(uintptr_t block) const {
        const Where *w = where.Find(Mix64(block), [block](const Where &x) { return x.block == block; });
        return w ? &alive[w->index] : nullptr;
    }

    void Fold() {
        for (size_t i = 0; i < count; i++)
            if (MakeRoom(where)) *where.Claim(Mix64(alive[i].block)) = Where{alive[i].block, static_cast<uint32_t>(i)};
        for (size_t i = 0; i < count; i++) {
            Alive *root = &alive[i];
            for (int depth = 0; depth < 16 && root->owner; depth++) {  // an owner of an owner...
                const Alive *owner = Find(root->owner);
                if (!owner || owner == root) break;
                root = const_cast<Alive *>(owner);
            }
            if (root == &alive[i]) continue;
            root->bytes += alive[i].bytes;
            alive[i].folded = true;
        }
        for (size_t i = 0; i < count; i++) {
            const Alive &a = alive[i];
            if (a.folded) continue;
            const bool orphan = a.owner != 0;
            const Group key{a.cls, a.site, orphan, 1, 0};
            const uint64_t hash = GroupTraits::Hash(key);
            Group *g = groups.Find(hash, [&](const Group &x) { return x.cls == a.cls && x.site == a.site && x.orphan == orphan; });
            if (!g && MakeRoom(groups)) *(g = groups.Claim(hash)) = Group{a.cls, a.site, orphan, 0, 0};
            if (!g) continue;  // no memory: left out
            g->count++;
            g->bytes += a.bytes;
            (a.cls ? objects : blocks)++;
        }
    }
};

// Most numerous first, objects before blocks; the empty slots last.
int ByCount(const void *a, const void *b) {
    const auto *x = static_cast<const Group *>(a);
    const auto *y = static_cast<const Group *>(b);
    if (x->count != y->count) return x->count > y->count ? -1 : 1;
    if ((x->cls != nullptr) != (y->cls != nullptr)) return x->cls ? -1 : 1;
    if (x->bytes != y->bytes) return x->bytes > y->bytes ? -1 : 1;
    return x->site < y->site ? -1 : x->site > y->site ? 1 : 0;
}

}  // namespace

int64_t WriteLeaks(FILE *out, const char *when, bool every) {
    Tally t;
    EachRecord(+[](const Record &r, void *tally) {
        if (Reported(r)) static_cast<Tally *>(tally)->Gather(r);
    }, &t);
    t.Fold();
    if (t.groups.Count() == 0) return 0;
    qsort(t.groups.Slots(), t.groups.Capacity(), sizeof(Group), ByCount);  // the table is done with
    const size_t shown = every ? t.groups.Count() : 20;
    // Every frame the report prints, found at once.
    const size_t most = shown < t.groups.Count() ? shown : t.groups.Count();
    if (auto *pcs = static_cast<void **>(MapZeroed(most * 8 * sizeof(void *) + 1))) {
        size_t n = 0;
        for (size_t i = 0; i < most; i++) {
            const Frames frames = FramesOf(t.groups.Slots()[i].site);
            for (uint32_t k = 0; k < frames.count && k < 8; k++) pcs[n++] = frames.pc[k];
        }
        ResolveFrames(pcs, n);
        Unmap(pcs, most * 8 * sizeof(void *) + 1);
    }
    Line line(4096 * (shown + 1));
    line.Add("%llu object%s", static_cast<unsigned long long>(t.objects), t.objects == 1 ? "" : "s");
    if (t.blocks) line.Add(" and %llu block%s", static_cast<unsigned long long>(t.blocks), t.blocks == 1 ? "" : "s");
    line.Add(" alive %s", when);
    // A parent and its forked child both report at their exits: the child's names its process.
    if (!every && InForkedChild()) line.Add(" of process %d", static_cast<int>(getpid()));
    line.Add(":");
    const Group *groups = t.groups.Slots();
    for (size_t i = 0; i < t.groups.Count() && i < shown; i++) {
        const Group &g = groups[i];
        const char *name = g.cls ? ShownName(g.cls) : (g.count == 1 ? "block" : "blocks");
        line.Add("%s %llu %s (%llu bytes) ", i ? ";" : "", static_cast<unsigned long long>(g.count), name,
                 static_cast<unsigned long long>(g.bytes));
        g.orphan ? line.Add("held by objects this report does not list") : line.Add("from ").AddSite(g.site);
    }
    if (t.groups.Count() > shown) line.Add("; and %zu more groups", t.groups.Count() - shown);
    out ? line.Print(out) : line.Send();
    return static_cast<int64_t>(t.objects + t.blocks);
}

}  // namespace vokt

extern "C" {

int64_t Runtime_ReportLeaks(FILE *out) {
    if (!vokt::Checking(vokt::kCheckLeaks)) return -1;
    return vokt::WriteLeaks(out ? out : stderr, "now", true);
}

int64_t Runtime_CountLive(const char *className) {
    if (!vokt::Checking(vokt::kCheckLeaks)) return -1;
    struct Count {
        const char *name;
        int64_t n;
    } count{className, 0};
    vokt::EachRecord(+[](const vokt::Record &r, void *context) {
        auto *c = static_cast<Count *>(context);
        if (r.cls && vokt::Reported(r) &&
            (!c->name || strcmp(r.cls->name, c->name) == 0 || strcmp(vokt::ShownName(r.cls), c->name) == 0))
            c->n++;
    }, &count);
    return count.n;
}

}  // extern "C"

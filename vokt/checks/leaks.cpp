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
    uint64_t count;  // 0: empty
    uint64_t bytes;
};
struct GroupTraits {
    static bool Empty(const Group &g) { return g.count == 0; }
    static uint64_t Hash(const Group &g) { return Mix(reinterpret_cast<uintptr_t>(g.cls), g.site); }
};

// Gathered under the stripes' locks into the checks' own memory; printed after.
struct Tally {
    checks::Table<Group, GroupTraits> groups;
    uint64_t objects = 0, blocks = 0;
    Tally() = default;
    Tally(const Tally &) = delete;
    Tally &operator=(const Tally &) = delete;
    ~Tally() { Unmap(groups.Slots(), groups.Capacity() * sizeof(Group)); }

    void Add(const Record &r) {
        const Group key{r.cls, r.site, 1, r.size};
        const uint64_t hash = GroupTraits::Hash(key);
        Group *g = groups.Find(hash, [&](const Group &x) { return x.cls == r.cls && x.site == r.site; });
        if (!g && MakeRoom(groups)) *(g = groups.Claim(hash)) = Group{r.cls, r.site, 0, 0};
        if (!g) return;  // no memory: left out
        g->count++;
        g->bytes += r.size;
        (r.cls ? objects : blocks)++;
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
        if (Reported(r)) static_cast<Tally *>(tally)->Add(r);
    }, &t);
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
        line.Add("%s %llu %s (%llu bytes) from ", i ? ";" : "", static_cast<unsigned long long>(g.count), name,
                 static_cast<unsigned long long>(g.bytes));
        line.AddSite(g.site);
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

// SPDX-License-Identifier: MIT
// The leak report: live objects and blocks grouped by class and site, most numerous first.
#include <fcntl.h>
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
struct Living {
    uintptr_t block, owner;
    const ClassDescriptor *cls;
    uint64_t bytes;  // its own, and what is folded into it
    uint32_t site;
    bool folded;
    bool kept;     // kept for the process: it and what it owns are left out
    bool reaches;  // kept by the program (Runtime_KeepAlive): so is what it points at
};
struct Where {  // a Living by its address
    uintptr_t block;
    uint32_t index;
};
struct WhereTraits {
    static bool Empty(const Where &w) { return w.block == 0; }
    static uint64_t Hash(const Where &w) { return Mix64(w.block); }
};

struct Tally {
    Living *alive = nullptr;
    size_t count = 0, capacity = 0;
    bool lost = false;  // no memory for all of it
    checks::Table<Where, WhereTraits> where;
    checks::Table<Group, GroupTraits> groups;
    uint64_t objects = 0, blocks = 0;
    Tally() = default;
    Tally(const Tally &) = delete;
    Tally &operator=(const Tally &) = delete;
    ~Tally() {
        Unmap(alive, capacity * sizeof(Living));
        Unmap(where.Slots(), where.Capacity() * sizeof(Where));
        Unmap(groups.Slots(), groups.Capacity() * sizeof(Group));
    }

    void Gather(const Record &r) {
        if (count == capacity) {
            const size_t grown = capacity ? capacity * 2 : 4096;
            auto *more = static_cast<Living *>(MapZeroed(grown * sizeof(Living)));
            if (!more) return void(lost = true);
            if (alive) memcpy(more, alive, count * sizeof(Living));
            Unmap(alive, capacity * sizeof(Living));
            alive = more;
            capacity = grown;
        }
        alive[count++] = Living{r.block, r.owner, r.cls, r.size, r.site, false, (r.flags & (kKept | kKeptAlive)) != 0,
                                (r.flags & kKeptAlive) != 0};
    }

    const Living *Find(uintptr_t block) const {
        const Where *w = where.Find(Mix64(block), [block](const Where &x) { return x.block == block; });
        return w ? &alive[w->index] : nullptr;
    }

    // What the kept objects reach is kept too: what they own, and what pointers in them (or
    // in what they own) lead to, as a program's singleton holds its members. Their memory is
    // read here: the program keeps it alive, having said so.
    void Reach() {
        const size_t bytes = count * sizeof(size_t) + 1;
        auto *queue = static_cast<size_t *>(MapZeroed(bytes));
        if (!queue) return;
        size_t head = 0, tail = 0;
        for (size_t i = 0; i < count; i++)
            if (alive[i].reaches) queue[tail++] = i;
        for (bool grew = true; grew;) {
            while (head < tail) {
                const Living &k = alive[queue[head++]];
                for (uint64_t at = 0; at + sizeof(uintptr_t) <= k.bytes; at += sizeof(uintptr_t)) {
                    uintptr_t word;
                    // NOLINTNEXTLINE(performance-no-int-to-ptr): a kept object's memory, read where it lies
                    memcpy(&word, reinterpret_cast<const char *>(k.block) + at, sizeof word);
                    auto *to = const_cast<Living *>(Find(word));
                    if (to && !to->reaches) to->kept = to->reaches = true, queue[tail++] = static_cast<size_t>(to - alive);
                }
            }
            grew = false;
            for (size_t i = 0; i < count; i++) {
                const Living *owner = alive[i].owner ? Find(alive[i].owner) : nullptr;
                if (!alive[i].reaches && owner && owner->reaches) alive[i].kept = alive[i].reaches = grew = true, queue[tail++] = i;
            }
        }
        Unmap(queue, bytes);
    }

    void Fold() {
        for (size_t i = 0; i < count; i++)
            if (MakeRoom(where)) *where.Claim(Mix64(alive[i].block)) = Where{alive[i].block, static_cast<uint32_t>(i)};
        Reach();
        for (size_t i = 0; i < count; i++) {
            Living *root = &alive[i];
            for (int depth = 0; depth < 16 && root->owner; depth++) {  // an owner of an owner...
                const Living *owner = Find(root->owner);
                if (!owner || owner == root) break;
                root = const_cast<Living *>(owner);
            }
            if (root == &alive[i]) continue;
            root->bytes += alive[i].bytes;
            alive[i].folded = true;
        }
        for (size_t i = 0; i < count; i++) {
            const Living &a = alive[i];
            if (a.folded || a.kept) continue;
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

// The suppressions: names, each ending with a zero byte, one after the other.
constexpr size_t kSuppressionRoom = 1u << 16;
char *g_suppressed = nullptr;
size_t g_suppressedUsed = 0;

// Whether one frame's text ("f+0x2f (app, app.c:12)") names a suppressed function or file.
bool Suppressed(const char *frame) {
    const size_t function = strcspn(frame, "+ (");
    const char *open = strchr(frame, '(');
    const char *comma = open ? strstr(open, ", ") : nullptr;
    const char *file = comma ? comma + 2 : nullptr;
    const size_t fileLength = file ? strcspn(file, ":)") : 0;
    for (size_t at = 0; at < g_suppressedUsed; at += strlen(g_suppressed + at) + 1) {
        const char *name = g_suppressed + at;
        const size_t n = strlen(name);
        if ((n == function && strncmp(frame, name, n) == 0) || (file && n == fileLength && strncmp(file, name, n) == 0))
            return true;
    }
    return false;
}

bool Suppressed(uint32_t site) {
    const Frames frames = FramesOf(site);
    for (uint32_t i = 0; i < frames.count; i++) {
        char frame[1200];
        FormatFrame(frames.pc[i], frame, sizeof frame);
        // A return address with calls inlined at it prints as several frames.
        for (char *piece = frame; piece;) {
            char *next = strstr(piece, " <- ");
            if (next) *next = '\0', next += 4;
            if (Suppressed(piece)) return true;
            piece = next;
        }
    }
    return false;
}

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
        if (Alive(r)) static_cast<Tally *>(tally)->Gather(r);  // the kept too: they own what they keep
    }, &t);
    t.Fold();
    if (t.groups.Count() == 0) return 0;
    Group *groups = t.groups.Slots();
    qsort(groups, t.groups.Capacity(), sizeof(Group), ByCount);  // the table is done with
    // Known leaks (VOKT_CHECK_SUPPRESS) are counted apart and not listed.
    uint64_t known[2] = {0, 0};  // objects, blocks
    size_t listed = 0;
    for (size_t i = 0; i < t.groups.Count(); i++) {
        if (g_suppressedUsed && !groups[i].orphan && Suppressed(groups[i].site))
            known[groups[i].cls ? 0 : 1] += groups[i].count;
        else
            groups[listed++] = groups[i];
    }
    const uint64_t objects = t.objects - known[0], blocks = t.blocks - known[1];
    const size_t shown = every || listed < 20 ? listed : 20;
    // Every frame the report prints, found at once.
    if (auto *pcs = static_cast<void **>(MapZeroed(shown * 8 * sizeof(void *) + 1))) {
        size_t n = 0;
        for (size_t i = 0; i < shown; i++) {
            const Frames frames = FramesOf(groups[i].site);
            for (uint32_t k = 0; k < frames.count && k < 8; k++) pcs[n++] = frames.pc[k];
        }
        ResolveFrames(pcs, n);
        Unmap(pcs, shown * 8 * sizeof(void *) + 1);
    }
    Line line("leaks", 4096 * (shown + 1));
    line.Add("%llu object%s", static_cast<unsigned long long>(objects), objects == 1 ? "" : "s");
    if (blocks) line.Add(" and %llu block%s", static_cast<unsigned long long>(blocks), blocks == 1 ? "" : "s");
    line.Add(" alive %s", when);
    // A parent and its forked child both report at their exits: the child's names its process.
    if (!every && InForkedChild()) line.Add(" of process %d", static_cast<int>(getpid()));
    line.Add(listed ? ":" : "");
    for (size_t i = 0; i < shown; i++) {
        const Group &g = groups[i];
        const char *name = g.cls ? ShownName(g.cls) : (g.count == 1 ? "block" : "blocks");
        line.Add("%s %llu %s (%llu bytes) ", i ? ";" : "", static_cast<unsigned long long>(g.count), name,
                 static_cast<unsigned long long>(g.bytes));
        line.Note(Field::kClasses, name).Note(Field::kCounts, g.count).Note(Field::kBytes, g.bytes);
        g.orphan ? line.Add("held by objects this report does not list").NoSite() : line.Add("from ").AddSite(g.site);
    }
    if (listed > shown) line.Add("; and %zu more groups", listed - shown);
    if (known[0] || known[1])
        line.Add("%s %llu object%s and %llu block%s known (VOKT_CHECK_SUPPRESS)", listed ? ";" : ",",
                 static_cast<unsigned long long>(known[0]), known[0] == 1 ? "" : "s",
                 static_cast<unsigned long long>(known[1]), known[1] == 1 ? "" : "s");
    out ? line.Print(out) : line.Send(listed > 0);  // known leaks alone fail nothing
    return static_cast<int64_t>(objects + blocks);
}

void LoadSuppressions(const char *path) {
    const int fd = open(path, O_RDONLY | O_CLOEXEC);
    char *text = static_cast<char *>(MapZeroed(kSuppressionRoom));
    if (fd < 0 || !text) {
        Line("setting", 600).Add("VOKT_CHECK_SUPPRESS: cannot read \"%.400s\"; nothing is suppressed", path).Send();
        if (fd >= 0) close(fd);
        return Unmap(text, kSuppressionRoom);
    }
    size_t used = 0;
    for (ssize_t n; used < kSuppressionRoom - 1 && (n = read(fd, text + used, kSuppressionRoom - 1 - used)) > 0;)
        used += static_cast<size_t>(n);
    close(fd);
    g_suppressed = static_cast<char *>(MapZeroed(kSuppressionRoom));
    if (!g_suppressed) return Unmap(text, kSuppressionRoom);
    for (char *line = text; line < text + used;) {
        char *end = strchr(line, '\n');
        if (end) *end = '\0';
        line[strcspn(line, "#")] = '\0';  // a comment
        char *word = line + strspn(line, " \t");
        size_t length = strlen(word);
        while (length > 0 && (word[length - 1] == ' ' || word[length - 1] == '\t' || word[length - 1] == '\r')) length--;
        if (length > 5 && strncmp(word, "leak:", 5) == 0) {
            memcpy(g_suppressed + g_suppressedUsed, word + 5, length - 5);
            g_suppressedUsed += length - 5 + 1;
        } else if (length > 0) {
            Line("setting", 600).Add("VOKT_CHECK_SUPPRESS: \"%.*s\" is not leak:NAME; ignored", static_cast<int>(length > 200 ? 200 : length), word).Send();
        }
        if (!end) break;
        line = end + 1;
    }
    Unmap(text, kSuppressionRoom);
}

}  // namespace vokt

extern "C" {

int64_t Runtime_ReportLeaks(FILE *out) {
    if (!vokt::Checking(vokt::kCheckLeaks)) return -1;
    return vokt::WriteLeaks(out ? out : stderr, "now", true);
}

int32_t Runtime_KeepAlive(const void *object) { return object && vokt::KeepAlive(object) ? 1 : 0; }

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

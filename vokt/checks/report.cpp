// SPDX-License-Identifier: MIT
// Reports: each one line that starts with "vokt: ", made by Line, and said once for each
// pair of values (most often two sites) that tells one mistake from another.
#include <stdarg.h>
#include <string.h>

#include "vokt/checks/internal/common.h"
#include "vokt/diag/log.h"

namespace vokt {

namespace {

constexpr char kPrefix[] = "vokt: ";

// The reports already made, by key (0: empty).
struct SeenTraits {
    static bool Empty(uint64_t key) { return key == 0; }
    static uint64_t Hash(uint64_t key) { return Mix(key, 0); }
};
uint64_t *g_seenSlots = nullptr;
checks::Table<uint64_t, SeenTraits> g_seen;
SpinLock g_seenLock;

}  // namespace

Line::Line(const char *kind, size_t room)
    : kind_(kind), text_(static_cast<char *>(MapZeroed(room))), room_(room), used_(0), mapped_(true) {
    if (!text_) text_ = small_, room_ = kSmall, mapped_ = false;
    Add("%s", kPrefix);
    if (WritingJson()) {
        jsonRoom_ = 4 * room_;  // a site's JSON takes up to four times its text
        json_ = static_cast<char *>(MapZeroed(kFields * jsonRoom_));
    }
}

Line::~Line() {
    if (mapped_) Unmap(text_, room_);
    Unmap(json_, kFields * jsonRoom_);
}

// NOLINTNEXTLINE(cert-dcl50-cpp): printf-style, so that the compiler checks each format
Line &Line::Add(const char *format, ...) {
    if (used_ + 1 >= room_) return *this;
    va_list args;
    va_start(args, format);
    vsnprintf(text_ + used_, room_ - used_, format, args);  // cut where it does not fit
    va_end(args);
    used_ += strlen(text_ + used_);
    return *this;
}

Line &Line::AddSite(uint32_t site) {
    const Frames frames = FramesOf(site);
    if (frames.count == 0) return NoSite().Add("an unknown site");
    ResolveFrames(frames.pc, frames.count);
    char text[4096];  // a site's text is cut here, whatever room the line has
    size_t used = 0;
    text[0] = '\0';
    for (uint32_t i = 0; i < frames.count && used + 1 < sizeof text; i++) {
        char frame[1200];
        FormatFrame(frames.pc[i], frame, sizeof frame);
        snprintf(text + used, sizeof text - used, "%s%s", i ? " <- " : "", frame);
        used += strlen(text + used);
    }
    PutFrames(text);
    return Add("%s", text);
}

uint64_t g_reportsMade = 0;
uint64_t ReportsMade() { return __atomic_load_n(&g_reportsMade, __ATOMIC_RELAXED); }

void Line::Send(bool counts) {
    if (counts) __atomic_add_fetch(&g_reportsMade, 1, __ATOMIC_RELAXED);
    CheckThread *me = Me();
    me->reporting++;
    fprintf(stderr, "%s\n", text_);
    fflush(stderr);
    Log_Write(0, "%s", text_);
    WriteJson();
    me->reporting--;
}

void Line::Print(FILE *out) {
    fprintf(out, "%s\n", text_);
    fflush(out);
    WriteJson();
}

bool FirstTime(ReportKind kind, uint64_t a, uint64_t b) {
    const uint64_t key = (static_cast<uint64_t>(kind) << 60) ^ (a << 30) ^ b ^ 1;
    {
        SpinGuard guard(g_seenLock);
        if (g_seen.Find(SeenTraits::Hash(key), [key](uint64_t seen) { return seen == key; })) return false;
        if (uint64_t *slot = g_seen.Claim(SeenTraits::Hash(key))) return *slot = key, true;
    }
    LimitReached(Limit::kReports);  // full: stay quiet rather than repeat, and say so
    return false;
}

void LimitReached(Limit limit) {
    struct Text {
        const char *before;
        size_t bound;  // 0: none said
        const char *after;
    };
    static constexpr Text kTexts[] = {
        {"the checks keep ", checks::Kept(kSiteSlots), " call sites at the most; later ones print as an unknown site"},
        {"the checks remember ", checks::Kept(kSeenSlots), " reports at the most; later mistakes may go unreported"},
        {"the checks could not map memory for more records", 0, "; later leaks and destroyed objects may be missed"},
        {"the locks check follows ", checks::Kept(kMutexSlots), " Mutexes at the most; later lock order inversions may be missed"},
        {"the locks check follows ", checks::Kept(kOrderSlots), " orders at the most; later lock order inversions may be missed"},
        {"a thread held more than ", kHeldKept, " Mutexes at once; lock order inversions among the later ones may be missed"},
    };
    static uint32_t said = 0;
    const auto bit = 1u << static_cast<uint32_t>(limit);
    if (__atomic_fetch_or(&said, bit, __ATOMIC_RELAXED) & bit) return;
    const Text &text = kTexts[static_cast<uint32_t>(limit)];
    Line line("limit", 512);
    line.Add("%s", text.before);
    if (text.bound) line.Add("%zu", text.bound);
    line.Add("%s", text.after).Send();
}

bool ReportPrepare() {
    if (!MapArray(g_seenSlots, kSeenSlots)) return false;
    if (!g_seen.Slots()) g_seen.Attach(g_seenSlots, kSeenSlots);
    return true;
}

void ReportFork(bool take) { take ? g_seenLock.lock() : g_seenLock.unlock(); }

}  // namespace vokt

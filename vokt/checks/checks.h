// SPDX-License-Identifier: MIT
/** @file
 * (extension) Diagnostics built into the library, switched on without rebuilding: objects
 * still alive at exit by class and site, lock-order inversions and holds across waits, and
 * objects used or destroyed again after they were destroyed.
 *
 * The environment variable VOKT_CHECK, read once when the library is loaded, names the
 * checks: a list of `leaks`, `locks`, `objects`, or `all`, separated by commas or
 * semicolons, in any case (an unknown word is reported once and ignored). Each report is one
 * line that starts with "vokt: ", printed on standard error and written to the log at level
 * 0, once for each pair of sites:
 *
 * - `vokt: 3 objects alive at exit: 2 String (84 bytes) from load_config+0x28 (app, app.c:27) <- main+0x32 (app, app.c:102); 1 Vector (152 bytes) from main+0x37 (app, app.c:103)`
 * - `vokt: lock order inversion: Mutex 0x562e6ec41180 then Mutex 0x562e6ec411c0 in thread 2 (18336 "backwards"), locked at backwards+0x1c (app, app.c:39), then at ...; the opposite order was taken in thread 1 (18335 "forwards"), locked at forwards+0x1c (app, app.c:30), then at ...`
 * - `vokt: wait on a Condition at f+0xae (app, app.c:67) while holding Mutex 0x562e6ec411c0, locked at f+0xa6 (app, app.c:66)`
 * - `vokt: thread 3 (18343 "worker") ended holding Mutex 0x562e6ec411c0, locked at g+0x10 (app, app.c:48)`
 * - `vokt: Mutex 0x562e6ec411c0 unlocked by a thread that does not hold it, at f+0xdd (app, app.c:72); thread 3 (18343 "worker") holds it, locked at g+0x10 (app, app.c:48)`
 * - `vokt: String used after it was destroyed at discard+0x9 (app, app.c:79); used at parse_line+0x69 (app, app.c:81)`
 * - `vokt: String destroyed again after it was destroyed at discard+0x9 (app, app.c:79); destroyed again at main+0xb2 (app, app.c:92)`
 * - `vokt: the checks keep 24576 call sites at the most; later ones print as an unknown site`
 *   (each bound, once reached, is said once with what may be missed from then on)
 *
 * A site is up to 8 return addresses of the program, outside the library, each written
 * `function+0xoffset (module)`, with `, file:line` added when addr2line is installed; a
 * thread by its number in the checks, its system identifier and its name. What an
 * object allocates for itself (a String's text) is counted with the object. Objects of a
 * program's own classes take part when made with Object_New().
 *
 * A frame shows the calls inlined at it first; a Mutex is named by the variable that holds
 * it (`Mutex g_cache_lock`), or else by its address and the frame where it was first locked.
 *
 * More variables: VOKT_CHECK_OUTPUT, a file to which each report is also appended as one JSON
 * object a line (kind, pid, text, and the arrays classes, counts, bytes, mutexes, threads and
 * sites, a site being an array of frames {function, offset, module, file, line});
 * VOKT_CHECK_QUARANTINE, read when a check is first switched on, the
 * megabytes of destroyed objects `objects` holds back (4 by default); and, read when the
 * library is loaded, VOKT_CHECK_EXITCODE, the status with which a process that reported
 * anything exits, and VOKT_CHECK_SUPPRESS, a file of known leaks: one `leak:NAME` a line,
 * NAME a function or a file (`load_config`, `cache.c`) that a leak's site passes through;
 * `#` starts a comment. Known leaks are counted in the report, not listed, and a report of
 * known leaks alone does not count for VOKT_CHECK_EXITCODE.
 *
 * @par Example
 * @include reference/checks.c
 */
#ifndef VOKT_CHECKS_CHECKS_H
#define VOKT_CHECKS_CHECKS_H

#include <stdint.h>
#include <stdio.h>

#include "vokt/core/api.h"

#ifdef __cplusplus
extern "C" {
#endif

/** Records every object and block the library allocates; what is alive at exit is reported. */
#define VOKT_CHECK_LEAKS 1u
/** Watches the order in which threads take vokt Mutexes, and waits entered while holding one. */
#define VOKT_CHECK_LOCKS 2u
/** Holds destroyed objects back for a while and reports their use. */
#define VOKT_CHECK_OBJECTS 4u
/** All three checks. */
#define VOKT_CHECK_ALL 7u

/** (extension) Switches checks on or off from code.
 * @param flags A combination of VOKT_CHECK_LEAKS, VOKT_CHECK_LOCKS and VOKT_CHECK_OBJECTS;
 *        other bits are ignored. Switching `objects` off releases the objects held back.
 * @note Objects made while `leaks` was off are not recorded and never reported. Any thread. */
VOKT_API void Runtime_SetChecks(uint32_t flags);
/** (extension) The checks in force.
 * @return The VOKT_CHECK_* bits that are on. */
VOKT_API uint32_t Runtime_GetChecks(void);
/** (extension) Writes the leak report for what is alive now, every group of it (the report
 * at exit lists the 20 largest).
 * @param out Where the report line goes; null for standard error.
 * @return The number of objects and blocks reported; -1 when `leaks` is off. */
VOKT_API int64_t Runtime_ReportLeaks(FILE *out);
/** (extension) Marks an object that the program keeps on purpose (a singleton, a cache that
 * lives as long as the process): the leak report leaves it out, and with it what it
 * allocated for itself (a String's text, a Vector's slots, the members it made).
 * @param object An object made while `leaks` or `objects` was on.
 * @return 1 when marked; 0 when the checks have no record of it (null, made while they were
 *         off, or not an object). Any thread. */
VOKT_API int32_t Runtime_KeepAlive(const void *object);
/** (extension) Counts the live objects of a class that the `leaks` check recorded.
 * @param className The class name ("String", "Vector", "ObjectSet", ...); null counts every
 *        object.
 * @return The count, leaving out what the runtime keeps for the whole process; -1 when
 *         `leaks` is off. */
VOKT_API int64_t Runtime_CountLive(const char *className);

#ifdef __cplusplus
}
#endif
#endif

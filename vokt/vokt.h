// SPDX-License-Identifier: MIT
/** @file
 * Umbrella header; includes every public header of the runtime.
 */
#ifndef VOKT_VOKT_H
#define VOKT_VOKT_H

#include "vokt/core/api.h"
#include "vokt/core/vokt_version.h"
#include "vokt/core/memory.h"
#include "vokt/core/object.h"
#include "vokt/core/memblock.h"
#include "vokt/sync/vokt_sync.h"
#include "vokt/containers/vector.h"
#include "vokt/containers/objectset.h"
#include "vokt/containers/stringbag.h"
#include "vokt/containers/stringmap.h"
#include "vokt/containers/codename.h"
#include "vokt/text/string.h"
#include "vokt/text/stream.h"
#include "vokt/text/handles.h"
#include "vokt/text/date.h"
#include "vokt/text/version.h"
#include "vokt/diag/log.h"
#include "vokt/diag/error.h"
#include "vokt/checks/checks.h"

#endif

// SPDX-License-Identifier: MIT
/** @file
 * The checks' header as programs written against vokt 1.3.0 include it; it now lives at
 * vokt/checks/checks.h.
 */
#ifndef VOKT_DIAG_CHECKS_H
#define VOKT_DIAG_CHECKS_H

#include "vokt/checks/checks.h"

#endif

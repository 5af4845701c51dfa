// SPDX-License-Identifier: MIT
//
// The roster: which protocol modules make up the stack of an address family, in one direction, for two keys.
//
// - A family is read from the settings at its first lookup, a stack's modules are acquired at the stack's
//   first lookup, and both stay until the family's last reference goes. Then the whole family goes, and its
//   settings are read anew at the next lookup.
// - One lock, taken by every operation, is held through settings, module loads and module releases. It isn't
//   recursive: a module's start and stop routines must not call the roster. It may be taken with an
//   endpoint's lock held.
// - May block: thread level only.
//
// The four operations between are those of the table: see include/zarn/zarn_util.h.

#ifndef ZARN_ROSTER_ZARN_ROSTER_H
#define ZARN_ROSTER_ZARN_ROSTER_H

#include <stdint.h>

// Needs the allocator. Returns 0 or -1, with nothing left behind.
int32_t init_roster();

extern "C" {
int32_t get_outbound_protos(uint8_t dl, int32_t family, int32_t key1, int32_t key2, void ***tables,
                            int32_t *count);
int32_t get_inbound_proto(int32_t family, int32_t key2, void **table);
int32_t get_family_ref(int32_t family);
int32_t release_family_ref(int32_t family);
}

// Returns 0 when everything is down. -1 while a family is cached, which it logs, or when the lock can't be
// had; the roster then stays in service.
int32_t uninit_roster();

#endif

// maph_trust.h - which heap maps the module has checked, and for whom.
//
// A restored session can make two objects name one tree, or a tree field
// name another object's behaviour list; each tree is sound on its own, but
// one owner's changes then pull the other's nodes away.  So every map an
// object holds is claimed by that object once it has been checked (a map
// the module made passes at once): a map already claimed by another object
// is refused like a broken one.  Process memory only, like the identifier
// maps; forgotten at session reset.
#pragma once

#include <qva/qva.h>

#include <cstddef>

// The claims, indexed directly by the map's heap identifier (a claim is
// read on every use of an object's map: each handler a message climbs
// past, each data-map routine): a fixed directory of pages of 4096 owners,
// a page made when the first map of its range is claimed.  Zero-initialised,
// so the directory takes memory only where pages exist.
constexpr unsigned kMaphClaimPageBits = 12;
constexpr size_t kMaphClaimPages = size_t{1} << (32 - kMaphClaimPageBits);
extern QVA_HVID *maph_claim_pages[kMaphClaimPages];

// The object `map` is claimed by, or 0.
inline QVA_HVID maphTrustedOwner(QVA_HVID map) {
  const QVA_HVID *page = maph_claim_pages[map >> kMaphClaimPageBits];
  return page ? page[map & ((QVA_HVID{1} << kMaphClaimPageBits) - 1)] : 0;
}
// Claims `map` for `owner`.
void maphTrust(QVA_HVID map, QVA_HVID owner);
// Forgets the claim on a map that is freed (maphFree calls it).
void maphDistrust(QVA_HVID map);
// Forgets every claim (session reset: the heap is gone).
void maphForgetTrust(void);

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

// The object `map` is claimed by, or 0.
QVA_HVID maphTrustedOwner(QVA_HVID map);
// Claims `map` for `owner`.
void maphTrust(QVA_HVID map, QVA_HVID owner);
// Forgets the claim on a map that is freed (maphFree calls it).
void maphDistrust(QVA_HVID map);
// Forgets every claim (session reset: the heap is gone).
void maphForgetTrust(void);

// fw_trusted_map.h - the heap map an object holds, checked before first use.
//
// A handler's behaviour map and a data map's THE_MAP come back from a save
// file with whatever links the file held.  Every routine reaches such a
// field through fw_trustedMap: the first time a map is met for its object
// (after a restore, that is the RESTORE routine or the first call, as the
// data map has none), its whole structure is checked, and then it is
// claimed for the object (maph_trust.h), which makes every later use a
// single look-up.  A map the module makes is met empty, so its check costs
// nothing.
#pragma once

#include <qva/qva.h>

#include <string>
#include <vector>

#include "containers/maph_trust.h"

// Checks the map at `map` and what hangs below it; "" when it may be used,
// else the fault.  Puts the head of every tree it accepts (the map's own
// first) into `heads`, so that all are claimed together.
typedef std::string (*fw_map_check_fn)(QVA_HVID map, std::vector<QVA_HVID> &heads);

// The map in `*field` of object `owner` (0 stays 0).  A map that fails its
// check, or that another object has claimed, is taken away: the field gets
// a fresh empty map (0 if none can be made), the old nodes are left to heap
// collection, and an error names the object (`class_name`, `field_name`)
// and the fault.
QVA_HVID fw_trustedMapChecked(QVA_HVID owner, QVA_HVID *field, fw_map_check_fn check,
                              const char *class_name, const char *field_name);
// Inline, as a dispatch reads the map of every handler it climbs past: a
// map its owner already claimed costs one look-up.
inline QVA_HVID fw_trustedMap(QVA_HVID owner, QVA_HVID *field, fw_map_check_fn check,
                              const char *class_name, const char *field_name) {
  const QVA_HVID map = *field;
  if (!map || maphTrustedOwner(map) == owner) return map;
  return fw_trustedMapChecked(owner, field, check, class_name, field_name);
}

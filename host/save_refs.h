// save_refs.h - the references a save file makes, checked against the heap
// variables it holds before the session sees any of them.
//
// A pointer must name a pointer heap variable and an object reference an
// object: code that follows a pointer writes through it as a heap
// variable, and code given an object reference runs its class's methods.
// Fields of hidden structures are a module's own records (the nodes of its
// heap trees), whose pointer fields carry words that name heap variables
// or objects as the module chooses; there only the target's presence is
// checked.
#pragma once

#include <string>
#include <unordered_map>

#include "internal.h"

namespace qvahost::savefile {

class SavedReferences {
 public:
  enum Kind : uint8_t { kPointer = 1, kObject = 2, kAnyHeapVar = 4 };

  // One reference of the file (id != 0).
  void note(QVA_HVID id, Kind kind) { wanted_[id] |= kind; }
  // "" when every reference names a heap variable of the file of the kind
  // it needs; else what is wrong.  `is_object` gives, for each heap
  // variable of the file, whether it is an object.
  std::string problem(const std::unordered_map<QVA_HVID, bool> &is_object) const;

 private:
  std::unordered_map<QVA_HVID, uint8_t> wanted_;  // kinds asked of each target
};

}  // namespace qvahost::savefile

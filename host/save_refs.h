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
#include <vector>

#include "internal.h"
#include "save_ids.h"

namespace qvahost::savefile {

class SavedReferences {
 public:
  enum Kind : uint8_t { kPointer = 1, kObject = 2, kAnyHeapVar = 4 };

  // One reference of the file (id != 0).
  void note(QVA_HVID id, Kind kind) { wanted_.push_back({id, kind}); }
  // "" when every reference names a heap variable of the file of the kind
  // it needs; else what is wrong.  `ids` holds the file's heap variables,
  // `is_object` says for each (by rank in `ids`) whether it is an object.
  std::string problem(const IdRemap &ids, const std::vector<bool> &is_object) const;

 private:
  struct Wanted {
    QVA_HVID id;
    Kind kind;
  };
  std::vector<Wanted> wanted_;  // in file order
};

}  // namespace qvahost::savefile

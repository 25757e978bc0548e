// The check of a save file's references (save_refs.h).
#include "save_refs.h"

namespace qvahost::savefile {

std::string SavedReferences::problem(const std::unordered_map<QVA_HVID, bool> &is_object) const {
  for (const auto &[id, kinds] : wanted_) {
    auto it = is_object.find(id);
    if (it == is_object.end())
      return format("a reference names heap variable %u, which is not in the file", id);
    if ((kinds & kPointer) && it->second)
      return format("a pointer names <ObjHeapVar%u>, an object", id);
    if ((kinds & kObject) && !it->second)
      return format("an object reference names <PtrHeapVar%u>, which is not an object", id);
  }
  return {};
}

}  // namespace qvahost::savefile

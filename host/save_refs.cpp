// The check of a save file's references (save_refs.h).
#include "save_refs.h"

namespace qvahost::savefile {

std::string SavedReferences::problem(const IdRemap &ids, const std::vector<bool> &is_object) const {
  for (const auto &[id, kind] : wanted_) {
    uint32_t rank = ids.rank(id);
    if (rank == IdRemap::kAbsent)
      return format("a reference names heap variable %u, which is not in the file", id);
    if (kind == kPointer && is_object[rank])
      return format("a pointer names <ObjHeapVar%u>, an object", id);
    if (kind == kObject && !is_object[rank])
      return format("an object reference names <PtrHeapVar%u>, which is not an object", id);
  }
  return {};
}

}  // namespace qvahost::savefile

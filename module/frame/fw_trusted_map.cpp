// fw_trusted_map.cpp - checked heap maps of objects (fw_trusted_map.h).
#include "frame/fw_trusted_map.h"

#include <algorithm>

#include "containers/maph.h"
#include "containers/maph_trust.h"

namespace {

// "" when no head is claimed yet, none twice.
std::string claim_fault(std::vector<QVA_HVID> &heads) {
  for (QVA_HVID h : heads)
    if (maphTrustedOwner(h)) return "it shares a tree with another object";
  std::sort(heads.begin(), heads.end());
  if (std::adjacent_find(heads.begin(), heads.end()) != heads.end())
    return "one tree appears twice in it";
  return {};
}

}  // namespace

QVA_HVID fw_trustedMapChecked(QVA_HVID owner, QVA_HVID *field, fw_map_check_fn check,
                              const char *class_name, const char *field_name) {
  const QVA_HVID map = *field;
  if (!map) return 0;
  const QVA_HVID claimed_by = maphTrustedOwner(map);
  if (claimed_by == owner) return map;
  std::string fault;
  if (claimed_by) {
    fault = "it is another object's tree";
  } else {
    std::vector<QVA_HVID> heads;
    fault = check(map, heads);
    if (fault.empty()) fault = claim_fault(heads);
    if (fault.empty()) {
      for (QVA_HVID h : heads) maphTrust(h, owner);
      return map;
    }
  }
  // The broken tree goes from the object before anything can fail, so that
  // nothing walks it again; its nodes are left for heap collection.
  *field = 0;
  if (QVA_HVID fresh = maphInit()) {
    *field = fresh;
    maphTrust(fresh, owner);
  }
  QVA_Message(QVA_M_GENERIC, QVA_MSG_LONGJMP,
              "%s <ObjHeapVar%u>: the tree in %s is broken (%s); it is replaced by an empty one.",
              class_name, static_cast<unsigned>(owner), field_name, fault.c_str());
  return 0;
}

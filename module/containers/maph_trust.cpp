// maph_trust.cpp - the claims on heap maps (maph_trust.h).
#include "containers/maph_trust.h"

#include <unordered_map>

namespace {
// Heap identifiers are never issued twice in a process, so a claim left
// behind by a tree deleted without maphFree names nothing that can come
// back; it only takes room until the session is reset.
std::unordered_map<QVA_HVID, QVA_HVID> &claims() {
  static std::unordered_map<QVA_HVID, QVA_HVID> map;
  return map;
}
}  // namespace

QVA_HVID maphTrustedOwner(QVA_HVID map) {
  const auto &c = claims();
  auto it = c.find(map);
  return it == c.end() ? 0 : it->second;
}

void maphTrust(QVA_HVID map, QVA_HVID owner) { claims()[map] = owner; }

void maphDistrust(QVA_HVID map) {
  if (!claims().empty()) claims().erase(map);
}

void maphForgetTrust(void) { claims() = {}; }

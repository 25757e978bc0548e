// maph_trust.cpp - the claims on heap maps (maph_trust.h).
//
// Identifiers count up from 1 and are never reused, so the maps of a
// session share few pages.  Pages are made with new[] and kept until the
// session is reset; the directory lives as long as the process.
#include "containers/maph_trust.h"

#include <cstdint>
#include <vector>

QVA_HVID *maph_claim_pages[kMaphClaimPages] = {};

namespace {

constexpr QVA_HVID kPageMask = (QVA_HVID{1} << kMaphClaimPageBits) - 1;

// The directory entries that hold a page, so that a reset frees them
// without reading the whole directory.  Never destroyed: the module may be
// unloaded while static destructors of the process run in any order.
std::vector<uint32_t> &made_pages() {
  static auto *made = new std::vector<uint32_t>;
  return *made;
}

}  // namespace

void maphTrust(QVA_HVID map, QVA_HVID owner) {
  const uint32_t number = map >> kMaphClaimPageBits;
  QVA_HVID *&page = maph_claim_pages[number];
  if (!page) {
    std::vector<uint32_t> &made = made_pages();
    made.reserve(made.size() + 1);  // before the page, so that a failure leaves none behind
    page = new QVA_HVID[size_t{1} << kMaphClaimPageBits]();
    made.push_back(number);
  }
  page[map & kPageMask] = owner;
}

void maphDistrust(QVA_HVID map) {
  if (QVA_HVID *page = maph_claim_pages[map >> kMaphClaimPageBits]) page[map & kPageMask] = 0;
}

void maphForgetTrust(void) {
  for (uint32_t number : made_pages()) {
    delete[] maph_claim_pages[number];
    maph_claim_pages[number] = nullptr;
  }
  made_pages().clear();
}

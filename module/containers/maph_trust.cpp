// maph_trust.cpp - the claims on heap maps (maph_trust.h).
//
// A claim is read on every use of an object's map (each handler a message
// climbs past, each data-map routine), so the table is indexed directly by
// the map's heap identifier: a directory of pages of 1024 owners, a page
// made when the first map of its range is claimed.  Identifiers count up
// from 1 and are never reused, so the maps of a session share few pages.
#include "containers/maph_trust.h"

#include <memory>
#include <vector>

namespace {

constexpr unsigned kPageBits = 10;
constexpr QVA_HVID kPageMask = (QVA_HVID{1} << kPageBits) - 1;

struct Claims {
  std::vector<std::unique_ptr<QVA_HVID[]>> pages;
};

// Built on first use and never destroyed: the module may be unloaded while
// static destructors of the process run in any order.
Claims &claims() {
  static Claims *c = new Claims;
  return *c;
}

}  // namespace

QVA_HVID maphTrustedOwner(QVA_HVID map) {
  const Claims &c = claims();
  const size_t page = map >> kPageBits;
  return page < c.pages.size() && c.pages[page] ? c.pages[page][map & kPageMask] : 0;
}

void maphTrust(QVA_HVID map, QVA_HVID owner) {
  Claims &c = claims();
  const size_t page = map >> kPageBits;
  if (page >= c.pages.size()) c.pages.resize(page + 1);
  if (!c.pages[page]) c.pages[page] = std::make_unique<QVA_HVID[]>(size_t{1} << kPageBits);
  c.pages[page][map & kPageMask] = owner;
}

void maphDistrust(QVA_HVID map) {
  Claims &c = claims();
  const size_t page = map >> kPageBits;
  if (page < c.pages.size() && c.pages[page]) c.pages[page][map & kPageMask] = 0;
}

void maphForgetTrust(void) { claims().pages.clear(); }

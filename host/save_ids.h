// save_ids.h - sets of heap identifiers for the save-file writer and reader.
//
// Both sides handle every heap variable of a session at once, so they keep
// identifiers in flat tables rather than hash tables: a bit per identifier
// for the writer's "already in the save", and for the reader a dense table
// from saved identifier to its position in identifier order (and then to
// the identifier the restore gave it), with a sorted list instead when the
// saved identifiers are too sparse for a table.
#pragma once

#include <algorithm>
#include <cstdint>
#include <vector>

#include <qva/qva.h>

namespace qvahost::savefile {

// A set of heap identifiers, one bit each, grown on demand.
class IdBits {
 public:
  // True when id was not in the set before.
  bool insert(QVA_HVID id) {
    size_t word = id >> 6;
    if (word >= bits_.size()) bits_.resize(std::max(word + 1, bits_.size() * 2), 0);
    uint64_t mask = uint64_t{1} << (id & 63);
    if (bits_[word] & mask) return false;
    bits_[word] |= mask;
    return true;
  }
  bool contains(QVA_HVID id) const {
    size_t word = id >> 6;
    return word < bits_.size() && (bits_[word] >> (id & 63) & 1);
  }
  // f(id) for every identifier in the set, ascending.
  template <class F>
  void for_each(F &&f) const {
    for (size_t word = 0; word < bits_.size(); ++word)
      for (uint64_t w = bits_[word]; w; w &= w - 1)
        f(static_cast<QVA_HVID>(word * 64 + static_cast<unsigned>(__builtin_ctzll(w))));
  }

 private:
  std::vector<uint64_t> bits_;
};

// The saved identifiers of a file's heap variables, each given a rank (its
// position in ascending order).
class IdRemap {
 public:
  static constexpr uint32_t kAbsent = UINT32_MAX;

  // `ids` in file order.  False when an identifier is 0 or repeated.
  bool build(const std::vector<QVA_HVID> &ids) {
    QVA_HVID max = 0;
    for (QVA_HVID id : ids) {
      if (id == 0) return false;
      max = std::max(max, id);
    }
    // A table costs 4 bytes per identifier up to the largest; a sorted list
    // 4 bytes per heap variable and a binary search per reference.
    dense_ = max / 8 <= ids.size() + 4096;
    if (dense_) {
      rank_of_.assign(size_t{max} + 1, kAbsent);
      for (QVA_HVID id : ids) {
        if (rank_of_[id] != kAbsent) return false;
        rank_of_[id] = 0;
      }
      uint32_t rank = 0;
      for (uint32_t &r : rank_of_)
        if (r != kAbsent) r = rank++;
    } else {
      sorted_ = ids;
      std::sort(sorted_.begin(), sorted_.end());
      if (std::adjacent_find(sorted_.begin(), sorted_.end()) != sorted_.end()) return false;
    }
    return true;
  }

  // The rank of a saved identifier, or kAbsent when the file has no such
  // heap variable.
  uint32_t rank(QVA_HVID id) const {
    if (dense_) return id < rank_of_.size() ? rank_of_[id] : kAbsent;
    auto it = std::lower_bound(sorted_.begin(), sorted_.end(), id);
    return it != sorted_.end() && *it == id ? static_cast<uint32_t>(it - sorted_.begin()) : kAbsent;
  }
  bool contains(QVA_HVID id) const { return rank(id) != kAbsent; }


 private:
  bool dense_ = true;
  std::vector<uint32_t> rank_of_;  // dense: saved id -> rank, kAbsent when none
  std::vector<QVA_HVID> sorted_;   // sparse: the saved ids, ascending
};

}  // namespace qvahost::savefile

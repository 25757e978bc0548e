// rbh_check.cpp - the structural check of a heap tree (rbh_check.h).
#include "containers/rbh_check.h"

#include <vector>

namespace {

bool status_bytes_valid(const QVA_MAP_RBH_NODE *n) {
  return (n->STATUS0 | n->STATUS1 | n->STATUS2 | n->STATUS3 | n->STATUS4) <= 1;
}

// What a finished subtree tells its parent.
struct Subtree {
  int black_height;  // black nodes on each path down, the subtree's top included
  QVA_HVID first, last;
  bool red;  // the subtree's top
};

// An internal node on the way down: stage 0 before its left child, 1 while
// the left subtree is checked, 2 while the right one is.
struct Frame {
  QVA_HVID id;
  const QVA_MAP_RBH_NODE *node;
  int stage;
  Subtree left;
};

struct Entry {
  QVA_HVID id;
  const QVA_MAP_RBH_NODE *node;
};

class TreeCheck {
 public:
  explicit TreeCheck(QVA_HVID head) : head_(head) {}

  // Walks the tree below the root in post-order; the entries in tree order
  // are left in entries().
  const char *walk(QVA_HVID root) {
    if (const char *fault = enter(root, head_, true, 0)) return fault;
    while (!stack_.empty()) {
      Frame &f = stack_.back();
      if (f.stage == 0) {
        f.stage = 1;
        if (const char *fault = enter(f.node->FLINK, f.id, false, 1)) return fault;
      } else if (f.stage == 1) {
        f.stage = 2;
        f.left = done_;
        if (const char *fault = enter(f.node->BLINK, f.id, false, 0)) return fault;
      } else {
        const Frame up = f;
        stack_.pop_back();
        if (const char *fault = finish(up, done_)) return fault;
      }
    }
    return nullptr;
  }

  const std::vector<Entry> &entries() const { return entries_; }

 private:
  // Takes node `id`, reached from `parent`: an entry is finished at once,
  // an internal node is stacked.
  const char *enter(QVA_HVID id, QVA_HVID parent, bool is_root, QVA_UCHAR side) {
    const QVA_MAP_RBH_NODE *n = map_rbh_peek(id);
    if (!n) return "a link names no tree node";
    if (!status_bytes_valid(n)) return "a status byte is neither 0 nor 1";
    if (n->STATUS4) return "a head inside the tree";
    // With every child naming its parent back, and the root naming the
    // head, no node can be reached twice: the walk ends.
    if (n->PARENT != parent) return "a child's parent link is wrong";
    if (n->STATUS3 != (is_root ? 1 : 0)) return "a root flag is wrong";
    if (!is_root && n->STATUS2 != side) return "a left flag is wrong";
    if (!n->STATUS1) {
      if (n->STATUS0) return "an entry is red";
      entries_.push_back({id, n});
      done_ = {1, id, id, false};
      return nullptr;
    }
    if (n->FLINK == n->BLINK) return "an internal node has one node as both children";
    stack_.push_back({id, n, 0, {}});
    return nullptr;
  }

  // Both subtrees of `f` are checked; `right` is the second.
  const char *finish(const Frame &f, const Subtree &right) {
    const Subtree &left = f.left;
    const bool red = f.node->STATUS0 != 0;
    if (left.black_height != right.black_height) return "black heights differ";
    if (red && (left.red || right.red)) return "a red node has a red child";
    if (f.node->KEY != left.last || f.node->VAL != right.first)
      return "an internal node's lmax or rmin is wrong";
    done_ = {left.black_height + (red ? 0 : 1), left.first, right.last, red};
    return nullptr;
  }

  QVA_HVID head_;
  std::vector<Frame> stack_;
  std::vector<Entry> entries_;
  Subtree done_{};  // the subtree finished last
};

// The FLINK/BLINK list must be the entries in tree order, closed by the
// head both ways.
const char *check_list(QVA_HVID head, const QVA_MAP_RBH_NODE *h, const std::vector<Entry> &entries) {
  const size_t k = entries.size();
  if (h->FLINK != entries.front().id || h->BLINK != entries.back().id)
    return "the head's first or last entry is wrong";
  for (size_t i = 0; i < k; ++i) {
    const QVA_HVID next = i + 1 < k ? entries[i + 1].id : head;
    const QVA_HVID prev = i > 0 ? entries[i - 1].id : head;
    if (entries[i].node->FLINK != next || entries[i].node->BLINK != prev)
      return "the entry list differs from the tree order";
  }
  return nullptr;
}

}  // namespace

const char *map_rbh_check(QVA_HVID head, const map_rbh_shape &shape) {
  const QVA_MAP_RBH_NODE *h = map_rbh_peek(head);
  if (!h) return "it names no tree node";
  if (!h->STATUS4 || !status_bytes_valid(h) || h->STATUS0 || h->STATUS1 || h->STATUS2 ||
      h->STATUS3)
    return "it names a node that is not a tree's head";
  if (h->PARENT == head)
    return h->FLINK == head && h->BLINK == head ? nullptr : "an empty tree's head links elsewhere";

  TreeCheck tree(head);
  if (const char *fault = tree.walk(h->PARENT)) return fault;
  const std::vector<Entry> &entries = tree.entries();
  if (const char *fault = check_list(head, h, entries)) return fault;
  if (shape.entry_fault)
    for (const Entry &e : entries)
      if (const char *fault = shape.entry_fault(shape.ctx, e.node->KEY, e.node->VAL)) return fault;
  if (shape.cmp)
    for (size_t i = 1; i < entries.size(); ++i)
      if (shape.cmp(entries[i - 1].node->KEY, entries[i].node->KEY) >= 0)
        return "the keys are out of order";
  return nullptr;
}

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

// The node's data, read inline when it sits in its heap record.
const QVA_MAP_RBH_NODE *node_at(QVA_HVID id) {
  if (const QVA_MAP_RBH_NODE *node = map_rbh_node_in_record(id)) return node;
  return map_rbh_peek(id);
}

class TreeCheck {
 public:
  TreeCheck(QVA_HVID head, const QVA_MAP_RBH_NODE *h, const map_rbh_shape &shape)
      : head_(head), h_(h), shape_(shape) {}

  // Walks the tree below the root in post-order, which meets the entries
  // in tree order: each is checked against the FLINK/BLINK list and the
  // shape's entry test as it is met, and its key compared with the key of
  // the entry before, whose record was read just before.
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
    // The list closes at the head both ways.
    if (h_->BLINK != prev_id_) return "the head's first or last entry is wrong";
    if (prev_node_->FLINK != head_) return "the entry list differs from the tree order";
    return nullptr;
  }

 private:
  // Takes node `id`, reached from `parent`: an entry is finished at once,
  // an internal node is stacked.
  const char *enter(QVA_HVID id, QVA_HVID parent, bool is_root, QVA_UCHAR side) {
    const QVA_MAP_RBH_NODE *n = node_at(id);
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
      done_ = {1, id, id, false};
      return entry(id, n);
    }
    if (n->FLINK == n->BLINK) return "an internal node has one node as both children";
    // The right child is met only after the whole left subtree: fetching
    // it now takes its load off the walk's path.
    map_rbh_prefetch(n->BLINK);
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

  // The next entry in tree order: the list must link it to the one before
  // (the head for the first).
  const char *entry(QVA_HVID id, const QVA_MAP_RBH_NODE *n) {
    if (!prev_node_) {
      if (h_->FLINK != id) return "the head's first or last entry is wrong";
      if (n->BLINK != head_) return "the entry list differs from the tree order";
    } else if (prev_node_->FLINK != id || n->BLINK != prev_id_) {
      return "the entry list differs from the tree order";
    }
    if (shape_.entry_fault)
      if (const char *fault = shape_.entry_fault(shape_.ctx, n->KEY, n->VAL)) return fault;
    if (shape_.cmp && prev_node_ && shape_.cmp(prev_node_->KEY, n->KEY) >= 0)
      return "the keys are out of order";
    prev_id_ = id;
    prev_node_ = n;
    return nullptr;
  }

  QVA_HVID head_;
  const QVA_MAP_RBH_NODE *h_;
  const map_rbh_shape &shape_;
  std::vector<Frame> stack_;
  QVA_HVID prev_id_ = 0;  // the entry met last
  const QVA_MAP_RBH_NODE *prev_node_ = nullptr;
  Subtree done_{};  // the subtree finished last
};

}  // namespace

const char *map_rbh_check(QVA_HVID head, const map_rbh_shape &shape) {
  const QVA_MAP_RBH_NODE *h = map_rbh_peek(head);
  if (!h) return "it names no tree node";
  if (!h->STATUS4 || !status_bytes_valid(h) || h->STATUS0 || h->STATUS1 || h->STATUS2 ||
      h->STATUS3)
    return "it names a node that is not a tree's head";
  if (h->PARENT == head)
    return h->FLINK == head && h->BLINK == head ? nullptr : "an empty tree's head links elsewhere";

  TreeCheck tree(head, h, shape);
  return tree.walk(h->PARENT);
}

// rb_algorithm.h - the red-black tree algorithm of map_rb and map_rbh.
//
// Written once over a node-access policy P, so that the in-memory tree
// (nodes are MAP_RB_NODE pointers, rb.cpp) and the heap tree (nodes are heap
// variables named by hvid, rbh.cpp) share every step.  The tree's shape and
// invariants are described beside MAP_RB_NODE in rb.h.
//
// A policy provides:
//   Id, Node, Word       node name, node record, key/value word
//   none                 the name of no node
//   at(id)               the record of a named node (valid while it lives)
//   prefetch(id)         a hint that the node's record is needed soon
//   flink, blink, parent, lmax, rmin (Node *) -> Id &
//   key(Node *)          -> Word &, the key word of an entry
//   is(Node *, flag), set(Node *, flag, on)   the MAP_RB_* status flags
//   make_ext(key, val, Node **), make_int(Node **)
//                        a new zeroed node, or none; may also throw
//   release(id, tag)     frees a node
//   fail(text, id)       reports host error -3 (the text may show the id)
//   tag_*, text_*        release tags and error texts
#pragma once

#include <utility>

#include "containers/rb.h"

template <class P>
struct rb_tree {
  using Id = typename P::Id;
  using Node = typename P::Node;
  using Word = typename P::Word;

  static bool red(Node *n) { return P::is(n, MAP_RB_RED); }
  static bool internal(Node *n) { return P::is(n, MAP_RB_INTERNAL); }
  static bool left(Node *n) { return P::is(n, MAP_RB_LEFT); }
  static bool root(Node *n) { return P::is(n, MAP_RB_ROOT); }
  static bool head(Node *n) { return P::is(n, MAP_RB_HEAD); }

  // ------------------------------------------------------------- search

  // `cmp(stored key word)` compares the searched key with a stored key.
  // Empty tree: the head, no comparison.  Then the last entry, then a
  // descent that compares with each internal node's lmax.
  template <class Cmp>
  static Id find(Id tree, const Cmp &cmp, int *found, const char *nonhead_text) {
    *found = 0;
    Node *h = P::at(tree);
    if (!head(h)) P::fail(nonhead_text, tree);
    Id x = P::parent(h);
    if (x == tree) return tree;
    Id last = P::blink(h);
    int c = cmp(P::key(P::at(last)));
    if (c == 0) {
      *found = 1;
      return last;
    }
    if (c > 0) return tree;
    Node *xn = P::at(x);
    while (internal(xn)) {
      Id m = P::lmax(xn);
      // Fetching both children while the lmax entry and its key are read
      // takes the next level's load off the critical path.
      P::prefetch(P::flink(xn));
      P::prefetch(P::blink(xn));
      c = cmp(P::key(P::at(m)));
      if (c == 0) {
        *found = 1;
        return m;
      }
      x = c < 0 ? P::flink(xn) : P::blink(xn);
      xn = P::at(x);
    }
    return x;
  }

  // ---------------------------------------------------------- insertion

  // Puts a new entry immediately before `n` (an entry, or the head to
  // append).  Both new nodes are made before anything is linked, so a
  // failure (none returned, or a host error thrown) leaves the tree as it
  // was and the guard releases the entry already made.
  static Id insert_b(Id n, Word key, Word val) {
    Node *nn = P::at(n);
    if (internal(nn)) P::fail(P::text_insert_internal, n);
    Node *e_node = nullptr;
    Id e = P::make_ext(key, val, &e_node);
    if (e == P::none) return P::none;

    if (head(nn) && P::parent(nn) == n) {
      // First entry: it becomes a black external root.
      map_list_insert(e, e_node, n, nn);
      P::parent(nn) = e;
      P::parent(e_node) = n;
      P::set(e_node, MAP_RB_ROOT, true);
      return e;
    }

    Node *i_node = nullptr;
    Id i;
    {
      new_node_guard guard(e);
      i = P::make_int(&i_node);
      if (i == P::none) return P::none;
      guard.keep();
    }

    if (head(nn)) {
      //  [l]    ->     (i)          append: the last entry l splits into
      //               /   \         a red internal node i over l and the
      //             [l]   [e]       new entry e.  The last entry is in no
      //                             node's left subtree, before or after,
      //                             so no lmax names l or must name e: the
      //                             climb to find an owner would end at
      //                             the head every time.
      Id l = P::blink(nn);
      Node *l_node = P::at(l);
      map_list_insert(e, e_node, n, nn);
      P::set(l_node, MAP_RB_ROOT, false);
      P::set(l_node, MAP_RB_HEAD, false);
      mk_new_int(i, i_node, l, l_node, e, e_node, P::parent(l_node), left(l_node));
    } else {
      //  [n]    ->     (i)          before an entry: n splits into a red
      //               /   \         internal node i over the new entry e
      //             [e]   [n]       and n; an rmin beginning at n moves to e
      map_list_insert(e, e_node, n, nn);
      Id p = P::parent(nn);
      bool il = left(nn);
      P::set(nn, MAP_RB_ROOT, false);
      P::set(nn, MAP_RB_HEAD, false);
      mk_new_int(i, i_node, e, e_node, n, nn, p, il);
      if (Node *q = rmin_owner(e)) P::rmin(q) = e;
    }
    return e;
  }

  // ----------------------------------------------------------- deletion

  static void delete_node(Id n) {
    Node *nn = P::at(n);
    if (internal(nn)) P::fail(P::text_delete_internal, n);
    if (head(nn)) P::fail(P::text_delete_head, n);
    map_list_delete_item(nn);
    Id p = P::parent(nn);
    Node *pn = P::at(p);

    if (root(nn)) {  // the only entry
      P::parent(pn) = p;
      P::release(n, P::tag_delete);
      return;
    }

    Id s = left(nn) ? P::blink(pn) : P::flink(pn);
    Node *sn = P::at(s);
    if (root(pn)) {
      //    (p)                      n's parent is the root: the
      //  [n]   s    ->    s         sibling s becomes the root and
      //                             keeps its colour
      Id h = P::parent(pn);
      P::parent(sn) = h;
      P::parent(P::at(h)) = s;
      P::set(sn, MAP_RB_ROOT, true);
      P::release(p, P::tag_delete);
      P::release(n, P::tag_delete);
      return;
    }

    //     g             g               the sibling s takes the place
    //    (p)    ->      s               of n's parent p under g
    //  [n]  s
    Id g = P::parent(pn);
    Node *gn = P::at(g);
    P::parent(sn) = g;
    if (left(pn)) {
      P::flink(gn) = s;
      P::set(sn, MAP_RB_LEFT, true);
    } else {
      P::blink(gn) = s;
      P::set(sn, MAP_RB_LEFT, false);
    }
    bool p_was_red = red(pn);
    P::release(p, P::tag_delete);
    P::release(n, P::tag_delete);

    if (!internal(sn)) {
      if (Node *q = rmin_owner(s)) P::rmin(q) = s;
      if (Node *q = lmax_owner(s)) P::lmax(q) = s;
    } else if (!red(sn)) {
      P::fail(P::text_sib_black_internal, s);
    } else {
      // A red internal sibling has two entries below it (black heights
      // match a single entry); blackening it restores the lost black.
      if (Node *q = rmin_owner(s)) P::rmin(q) = P::flink(sn);
      if (Node *q = lmax_owner(s)) P::lmax(q) = P::blink(sn);
      P::set(sn, MAP_RB_RED, false);
      return;
    }
    if (p_was_red) return;
    rebalance(sn);
  }

  // Deletes every entry, then releases the head.
  static void free_tree(Id tree) {
    Node *h = P::at(tree);
    if (!head(h)) P::fail(P::text_free_nonhead, tree);
    while (P::flink(h) != tree) delete_node(P::flink(h));
    P::release(tree, P::tag_free);
  }

  // ------------------------------------------------------------- checks

  static int nblack(Id n) {
    Node *x = P::at(n);
    if (head(x) || internal(x)) P::fail(P::text_nblack, n);
    int count = 0;
    for (;;) {
      if (!red(x)) ++count;
      if (root(x)) return count;
      x = P::at(P::parent(x));
    }
  }

  static int plength(Id n) {
    Node *x = P::at(n);
    if (head(x) || internal(x)) P::fail(P::text_plength, n);
    int count = 1;
    for (; !root(x); x = P::at(P::parent(x))) ++count;
    return count;
  }

  // --------------------------------------------------------------- swap

  // Exchanges the contents of two trees: the head links move, then the
  // root and the first and last entries are pointed at their new head.
  static void swap(Id a, Id b) {
    Node *an = P::at(a);
    Node *bn = P::at(b);
    if (!head(an)) P::fail(P::text_swap_nonhead, a);
    if (!head(bn)) P::fail(P::text_swap_nonhead, b);
    if (a == b) return;
    std::swap(P::flink(an), P::flink(bn));
    std::swap(P::blink(an), P::blink(bn));
    std::swap(P::parent(an), P::parent(bn));
    adopt(a, an, b);
    adopt(b, bn, a);
  }

 private:
  // Releases a node made for an insertion unless keep() was called; runs on
  // a failed second allocation and on a host error thrown by it.
  class new_node_guard {
   public:
    explicit new_node_guard(Id id) : id_(id) {}
    ~new_node_guard() {
      if (id_ != P::none) P::release(id_, P::tag_insert);
    }
    new_node_guard(const new_node_guard &) = delete;
    new_node_guard &operator=(const new_node_guard &) = delete;
    void keep() { id_ = P::none; }

   private:
    Id id_;
  };

  // After swap: head h took over the links of `other`'s former contents.
  static void adopt(Id h, Node *hn, Id other) {
    if (P::parent(hn) == other) {  // the contents were empty
      P::flink(hn) = P::blink(hn) = P::parent(hn) = h;
      return;
    }
    P::parent(P::at(P::parent(hn))) = h;
    P::blink(P::at(P::flink(hn))) = h;
    P::flink(P::at(P::blink(hn))) = h;
  }

  // Puts entry e before node `before` in the list.
  static void map_list_insert(Id e, Node *en, Id before, Node *bn) {
    Id prev = P::blink(bn);
    P::blink(en) = prev;
    P::flink(en) = before;
    P::flink(P::at(prev)) = e;
    P::blink(bn) = e;
  }

  static void map_list_delete_item(Node *n) {
    P::blink(P::at(P::flink(n))) = P::blink(n);
    P::flink(P::at(P::blink(n))) = P::flink(n);
  }

  // Links the new red internal node i over l and r at the place (parent p,
  // side il) that one of them held, then restores the colours.
  static void mk_new_int(Id i, Node *in, Id l, Node *ln, Id r, Node *rn, Id p, bool il) {
    P::set(in, MAP_RB_INTERNAL, true);
    P::set(in, MAP_RB_RED, true);
    P::set(in, MAP_RB_ROOT, false);
    P::set(in, MAP_RB_HEAD, false);
    P::flink(in) = l;
    P::blink(in) = r;
    P::parent(in) = p;
    P::lmax(in) = l;
    P::rmin(in) = r;
    P::parent(ln) = i;
    P::parent(rn) = i;
    P::set(ln, MAP_RB_LEFT, true);
    P::set(rn, MAP_RB_LEFT, false);
    Node *pn = P::at(p);
    if (head(pn)) {
      P::parent(pn) = i;
      P::set(in, MAP_RB_ROOT, true);
    } else if (il) {
      P::set(in, MAP_RB_LEFT, true);
      P::flink(pn) = i;
    } else {
      P::set(in, MAP_RB_LEFT, false);
      P::blink(pn) = i;
    }
    recolor(in);
  }

  // Restores the red rule above the red node n.
  static void recolor(Node *nn) {
    Id p, g;
    Node *pn, *gn;
    for (;;) {
      if (root(nn)) {
        P::set(nn, MAP_RB_RED, false);
        return;
      }
      p = P::parent(nn);
      pn = P::at(p);
      if (!red(pn)) return;
      if (root(pn)) {
        P::set(pn, MAP_RB_RED, false);
        return;
      }
      g = P::parent(pn);
      gn = P::at(g);
      Node *sn = P::at(left(pn) ? P::blink(gn) : P::flink(gn));
      if (!red(sn)) break;
      //     g               (g)     red uncle s: p and s turn black,
      //   (p) (s)   ->     p   s    g red, and the check goes on
      //  (n)              (n)       from g
      P::set(pn, MAP_RB_RED, false);
      P::set(gn, MAP_RB_RED, true);
      P::set(sn, MAP_RB_RED, false);
      nn = gn;
    }
    bool n_left = left(nn);
    if (n_left == left(pn)) {
      //     g               p       n and p on one side: rotate at g;
      //   (p)  s    ->    (n) (g)   p turns black, g red
      //  (n)                    s
      single_rotate(g, gn, n_left);
      P::set(pn, MAP_RB_RED, false);
      P::set(gn, MAP_RB_RED, true);
    } else {
      //     g               n       n and p on opposite sides: rotate
      //   (p)  s    ->    (p) (g)   n up twice; n turns black, g red
      //     (n)                 s
      single_rotate(p, pn, n_left);
      single_rotate(g, gn, left(nn));
      P::set(nn, MAP_RB_RED, false);
      P::set(gn, MAP_RB_RED, true);
    }
  }

  // Brings up y's left child (bring_left) or its right child.  Colours,
  // lmax and rmin are unchanged: x and y keep the same first and last
  // entries on each side.
  //      y            x            bring_left: y's left child x comes up
  //    x   c   ->   a   y          and its right subtree b moves under y;
  //   a b              b c         the other direction is the mirror
  static void single_rotate(Id y, Node *yn, bool bring_left) {
    bool was_root = root(yn);
    bool was_left = left(yn);
    Id yp = P::parent(yn);
    Id x;
    Node *xn;
    if (bring_left) {
      x = P::flink(yn);
      xn = P::at(x);
      Id b = P::blink(xn);
      Node *bn = P::at(b);
      P::flink(yn) = b;
      P::set(bn, MAP_RB_LEFT, true);
      P::parent(bn) = y;
      P::blink(xn) = y;
      P::set(yn, MAP_RB_LEFT, false);
    } else {
      x = P::blink(yn);
      xn = P::at(x);
      Id b = P::flink(xn);
      Node *bn = P::at(b);
      P::blink(yn) = b;
      P::set(bn, MAP_RB_LEFT, false);
      P::parent(bn) = y;
      P::flink(xn) = y;
      P::set(yn, MAP_RB_LEFT, true);
    }
    P::parent(xn) = yp;
    P::parent(yn) = x;
    Node *ypn = P::at(yp);
    if (was_root) {
      P::parent(ypn) = x;
      P::set(yn, MAP_RB_ROOT, false);
      P::set(yn, MAP_RB_HEAD, false);
      P::set(xn, MAP_RB_ROOT, true);
    } else if (was_left) {
      P::flink(ypn) = x;
      P::set(xn, MAP_RB_LEFT, true);
    } else {
      P::blink(ypn) = x;
      P::set(xn, MAP_RB_LEFT, false);
    }
  }

  // Boundary owners.  rb_lprev: the nearest ancestor whose right subtree
  // holds x (whose rmin may have to change), or the head.  rb_rprev: the
  // nearest ancestor whose left subtree holds x (lmax), or the head.
  static Id rb_lprev(Id x) {
    Node *xn = P::at(x);
    if (head(xn)) return x;
    while (left(xn) && !root(xn)) xn = P::at(P::parent(xn));
    return P::parent(xn);
  }

  static Id rb_rprev(Id x) {
    Node *xn = P::at(x);
    if (head(xn)) return x;
    while (!left(xn) && !root(xn)) xn = P::at(P::parent(xn));
    return P::parent(xn);
  }

  // The owners as records, or null when the owner is the head.
  static Node *rmin_owner(Id x) {
    Node *q = P::at(rb_lprev(x));
    return head(q) ? nullptr : q;
  }
  static Node *lmax_owner(Id x) {
    Node *q = P::at(rb_rprev(x));
    return head(q) ? nullptr : q;
  }

  // Restores the black rule after a black node was removed above n: every
  // path through n is one black short.
  static void rebalance(Node *nn) {
    Id p = P::parent(nn);
    Node *pn = P::at(p);
    Id s = left(nn) ? P::blink(pn) : P::flink(pn);
    Node *sn = P::at(s);
    //     p              p          black p, s and nephews: s turns
    //   n   s     ->   n  (s)       red and the shortage moves up
    //      x z             x z      to p
    while (!red(pn) && !red(sn) && internal(sn) && !red(P::at(P::flink(sn))) &&
           !red(P::at(P::blink(sn)))) {
      P::set(sn, MAP_RB_RED, true);
      nn = pn;
      if (root(nn)) return;
      p = P::parent(nn);
      pn = P::at(p);
      s = left(nn) ? P::blink(pn) : P::flink(pn);
      sn = P::at(s);
    }
    if (!red(pn) && red(sn)) {
      //     p              s        red sibling: rotate it up so that
      //   n  (s)    ->   (p)  z     n's new sibling x is black
      //      x z         n x
      single_rotate(p, pn, !left(nn));
      P::set(pn, MAP_RB_RED, true);
      P::set(sn, MAP_RB_RED, false);
      s = left(nn) ? P::blink(pn) : P::flink(pn);
      sn = P::at(s);
    }
    if (!internal(sn)) P::fail(P::text_sib_not_internal, s);
    bool il = left(nn);
    Id x = il ? P::flink(sn) : P::blink(sn);  // the nephew on n's side
    Node *xn = P::at(x);
    Node *zn = P::at(il ? P::blink(sn) : P::flink(sn));
    if (red(zn)) {
      //     p              s        red far nephew z: rotate s up;
      //   n   s     ->   p   z      s takes p's colour, p and z
      //      x (z)      n x         turn black
      single_rotate(p, pn, !il);
      P::set(zn, MAP_RB_RED, false);
      P::set(sn, MAP_RB_RED, red(pn));
      P::set(pn, MAP_RB_RED, false);
      return;
    }
    if (!red(xn)) {
      //    (p)             p        red p, black s and nephews:
      //   n   s     ->   n  (s)     p turns black and s red
      //      x z             x z
      if (red(sn) || !red(pn)) P::fail(P::text_23c, p);
      P::set(pn, MAP_RB_RED, false);
      P::set(sn, MAP_RB_RED, true);
      return;
    }
    //     p              x          red near nephew x: rotate it up
    //   n   s     ->   p   s        twice into p's place; x turns
    //     (x) z       n .   z       black
    bool p_was_red = red(pn);
    single_rotate(s, sn, il);
    single_rotate(p, pn, !il);
    P::set(xn, MAP_RB_RED, false);
    if (p_was_red) P::set(sn, MAP_RB_RED, true);
  }
};

// HashMap<K, V>: the keyed collection behind every collection attribute.
//
// ORDER. Members are kept in the order of the bit-reversed hash of their key; members whose
// reversed hashes are equal are ordered by the key's operator<. A member's bucket is
// chosen by the leading bits of its reversed hash, and each bucket's chain is sorted, so
// walking the buckets in index order visits the members in that global order. Doubling
// the table splits every chain into a prefix (next bit 0) and a suffix (next bit 1) without
// moving a node. Iteration order is therefore a function of the key set alone: not of the
// order of insertion, not of the table's size. No caller may rely on any particular order.
//
// DELETION DURING ITERATION. An iterator pins the node it stands on. A pinned node that is
// erased is only marked for deletion; iterators skip marked nodes, and the node is unlinked
// when the last iterator leaves it. Erasing any member, the current one included, or
// inserting (which may grow the table) during an iteration is safe. A key inserted again
// while an erased copy of it is pinned goes before that copy, so an iterator standing on
// the copy does not meet the key a second time: a loop that erases and re-creates the key
// it stands on visits every key once.
//
// LOOKUPS IN ORDER. Two maps with the same key type order the keys they share alike. A
// Cursor answers find() for keys handed to it in that order (say, by a walk over another
// map) by stepping forward from where its last answer stood, instead of searching a bucket:
// a walk that looks up each of its keys in a second map then reads each member of that map
// once, not the members that share a bucket with every key it looks for.
//
// SHARED TABLES. The bucket table is reference counted: the map holds one reference and
// every live iterator one more. clear() with iterators alive marks every node and hands
// the map a fresh table; the iterators finish on the old one and see nothing further.
//
// Keys: Name, String, unsigned and other integers, and any type with a member
// uint64_t hash() const plus == and < (SystemId, composite keys with a stored hash).
//
// TYPICAL USAGE:
//   HashMap<Name, Ptr<Foo>> m;
//   m.emplace(name, foo);
//   if (Ptr<Foo>* f = m.find(name)) ...
//   for (auto& [key, value] : m) ...
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <tuple>
#include <type_traits>
#include <utility>

#include "framework/core/Hash.h"
#include "framework/core/SmallObject.h"

namespace Vesk {

template <class K, class = void>
struct KeyHash {
  static uint64_t hash(K const& k) noexcept { return k.hash(); }
};
template <class K>
struct KeyHash<K, std::enable_if_t<std::is_integral_v<K> || std::is_enum_v<K>>> {
  static uint64_t hash(K const& k) noexcept { return hashInteger(uint64_t(k)); }
};

// Built with VESK_PERTURB_HASH_ORDER, every key hash is scrambled, which changes every
// iteration order: behaviour that still passes its tests does not depend on hash order.
inline uint64_t orderHash(uint64_t h) noexcept {
#ifdef VESK_PERTURB_HASH_ORDER
  return reverseBits(h ^ 0x9e3779b97f4a7c15ull) ^ 0x5bd1e995u;
#else
  return h;
#endif
}

template <class K, class V>
class HashMap {
  struct Node : SmallObject {
    template <class... A>
    Node(uint64_t r, K const& k, A&&... a)
        : rev(r),
          kv(std::piecewise_construct, std::forward_as_tuple(k),
             std::forward_as_tuple(std::forward<A>(a)...)) {}
    Node* next = nullptr;
    uint64_t rev;
    uint32_t pins = 0;
    bool deleted = false;
    std::pair<K const, V> kv;
  };

  struct Table : SmallObject {
    uint32_t refs = 1;
    unsigned bits = 0;
    Node** buckets = nullptr;
    size_t bucketCount() const { return size_t(1) << bits; }
    size_t bucketOf(uint64_t rev) const { return bucketIndex(bits, rev); }
  };
  static size_t bucketIndex(unsigned bits, uint64_t rev) {
    return bits ? size_t(rev >> (64 - bits)) : 0;
  }

 public:
  using value_type = std::pair<K const, V>;

  class iterator {
   public:
    iterator() = default;
    iterator(iterator const& o) : iterator(o.t_, o.n_) {}
    iterator& operator=(iterator const& o) {
      iterator(o).swap(*this);
      return *this;
    }
    ~iterator() { drop(); }

    value_type& operator*() const { return n_->kv; }
    value_type* operator->() const { return &n_->kv; }
    K const& key() const { return n_->kv.first; }
    V& value() const { return n_->kv.second; }
    bool operator==(iterator const& o) const { return n_ == o.n_; }
    bool operator!=(iterator const& o) const { return n_ != o.n_; }
    // Pins the next member before letting go of the current one, which an unpin may free;
    // the table reference is kept until the walk ends.
    iterator& operator++() {
      Node* next = HashMap::nextLive(t_, n_);
      if (next) ++next->pins;
      Node* current = n_;
      n_ = next;
      HashMap::unpin(t_, current);
      if (!n_) {
        HashMap::release(t_);
        t_ = nullptr;
      }
      return *this;
    }

   private:
    friend class HashMap;
    iterator(Table* t, Node* n) : t_(n ? t : nullptr), n_(n) {
      if (n_) {
        ++t_->refs;
        ++n_->pins;
      }
    }
    void swap(iterator& o) {
      std::swap(t_, o.t_);
      std::swap(n_, o.n_);
    }
    void drop() {
      if (!n_) return;
      HashMap::unpin(t_, n_);
      HashMap::release(t_);
      n_ = nullptr;
      t_ = nullptr;
    }
    Table* t_ = nullptr;
    Node* n_ = nullptr;
  };
  using const_iterator = iterator;

  HashMap() = default;
  HashMap(HashMap const&) = delete;
  HashMap& operator=(HashMap const&) = delete;
  ~HashMap() { detach(); }

  size_t size() const { return live_; }
  bool empty() const { return size() == 0; }

  iterator begin() const { return iterator(t_, t_ ? firstLive(t_, 0) : nullptr); }
  iterator end() const { return iterator(); }

  V* find(K const& k) {
    Node* n = findNode(k);
    return n ? &n->kv.second : nullptr;
  }
  V const* find(K const& k) const {
    Node* n = findNode(k);
    return n ? &n->kv.second : nullptr;
  }
  bool contains(K const& k) const { return findNode(k) != nullptr; }
  iterator iteratorAt(K const& k) const { return iterator(t_, findNode(k)); }
  // The first member at or after k in iteration order (k's own when present), or end():
  // where a walk that stopped before k, and lost k meanwhile, picks up again.
  iterator lowerBound(K const& k) const {
    if (!t_) return end();
    uint64_t const rev = reverseBits(orderHash(KeyHash<K>::hash(k)));
    size_t const bucket = t_->bucketOf(rev);
    for (Node* n = t_->buckets[bucket]; n; n = n->next) {
      if (n->deleted) continue;
      if (n->rev > rev || (n->rev == rev && !(n->kv.first < k))) return iterator(t_, n);
    }
    return iterator(t_, firstLive(t_, bucket + 1));
  }

  // find() for keys sought in iteration order. The cursor stands on (and pins, like an
  // iterator) the last member it has stepped over, whose successors the next seek reads;
  // so the map may change between seeks, and each answer is find()'s at that moment. A key
  // not sought in order, and any key once clear() has replaced the table, is looked up.
  class Cursor {
   public:
    explicit Cursor(HashMap const& map) : map_(map) {}
    Cursor(Cursor const&) = delete;
    Cursor& operator=(Cursor const&) = delete;
    ~Cursor() {
      if (!at_) return;
      HashMap::unpin(t_, at_);
      HashMap::release(t_);
    }

    V* seek(K const& k) {
      uint64_t const rev = reverseBits(orderHash(KeyHash<K>::hash(k)));
      // The cursor stands before every key sought so far, so only a key past all of them
      // can be found by stepping forward.
      if (!first_ && rev <= lastRev_) return lookup(k);
      first_ = false;
      lastRev_ = rev;
      Table* t = map_.t_;
      if (!t || (at_ && t_ != t)) return lookup(k);
      Node* next = at_ ? HashMap::nextLive(t, at_) : HashMap::firstLive(t, 0);
      while (next && (next->rev < rev || (next->rev == rev && next->kv.first < k))) {
        stepOnto(t, next);
        next = HashMap::nextLive(t, next);
      }
      return next && next->rev == rev && next->kv.first == k ? &next->kv.second : nullptr;
    }

   private:
    void stepOnto(Table* t, Node* n) {
      ++n->pins;
      if (at_) {
        HashMap::unpin(t_, at_);
      } else {
        t_ = t;
        ++t_->refs;
      }
      at_ = n;
    }
    V* lookup(K const& k) {
      Node* n = map_.findNode(k);
      return n ? &n->kv.second : nullptr;
    }

    HashMap const& map_;
    Table* t_ = nullptr;  // held while the cursor stands on a member
    Node* at_ = nullptr;
    uint64_t lastRev_ = 0;
    bool first_ = true;
  };

  // Inserts (k, V(args...)) unless k is present; returns the member and whether it is new.
  template <class... A>
  std::pair<V*, bool> emplace(K const& k, A&&... args) {
    if (!t_) {
      t_ = newTable(1);
      mirrorTable();
    }
    uint64_t rev = reverseBits(orderHash(KeyHash<K>::hash(k)));
    Node** link = &buckets_[bucketIndex(bits_, rev)];
    for (Node* n = *link; n; n = *link) {
      if (n->rev > rev || (n->rev == rev && !(n->kv.first < k))) break;
      link = &n->next;
    }
    // The live member of a key comes first among its erased, pinned twins.
    if (Node* n = *link; n && n->rev == rev && !n->deleted && !(k < n->kv.first)) {
      return {&n->kv.second, false};
    }
    Node* node = new Node(rev, k, std::forward<A>(args)...);
    node->next = *link;
    *link = node;
    if (++live_ > t_->bucketCount()) {
      grow(t_);
      mirrorTable();
    }
    return {&node->kv.second, true};
  }

  // Removes k; returns whether it was present. The value is destroyed after the node is
  // unlinked, so its destructor may use the map.
  bool erase(K const& k) {
    if (!t_) return false;
    uint64_t rev = reverseBits(orderHash(KeyHash<K>::hash(k)));
    for (Node** link = &buckets_[bucketIndex(bits_, rev)]; Node* n = *link; link = &n->next) {
      if (n->rev > rev) break;
      if (n->rev != rev || n->deleted || !(n->kv.first == k)) continue;
      --live_;
      if (n->pins) {
        n->deleted = true;
      } else {
        *link = n->next;
        delete n;
      }
      return true;
    }
    return false;
  }

  void clear() {
    if (!t_) return;
    if (t_->refs > 1) {
      detach();
      return;
    }
    Node* all = unlinkAll(t_);
    live_ = 0;
    destroyChain(all);
  }

 private:
  Node* findNode(K const& k) const {
    if (!buckets_) return nullptr;
    uint64_t rev = reverseBits(orderHash(KeyHash<K>::hash(k)));
    for (Node* n = buckets_[bucketIndex(bits_, rev)]; n; n = n->next) {
      if (n->rev < rev) continue;
      if (n->rev > rev) return nullptr;
      if (!n->deleted && n->kv.first == k) return n;
    }
    return nullptr;
  }

  // Bucket arrays, empty; small ones come from the small-block store like the members.
  static Node** newBuckets(size_t count) {
    void* p = detail::smallBlockAlloc(count * sizeof(Node*));
    std::memset(p, 0, count * sizeof(Node*));
    return static_cast<Node**>(p);
  }
  static void freeBuckets(Node** buckets, size_t count) {
    detail::smallBlockFree(buckets, count * sizeof(Node*));
  }

  static Table* newTable(unsigned bits) {
    Table* t = new Table;
    t->bits = bits;
    t->buckets = newBuckets(t->bucketCount());
    return t;
  }

  static void grow(Table* t) {
    size_t const oldCount = t->bucketCount();
    Node** next = newBuckets(oldCount * 2);
    uint64_t const splitBit = uint64_t(1) << (63 - t->bits);
    for (size_t i = 0; i < oldCount; ++i) {
      Node* head = t->buckets[i];
      Node* low = nullptr;
      Node** lowTail = &low;
      while (head && !(head->rev & splitBit)) {
        *lowTail = head;
        lowTail = &head->next;
        head = head->next;
      }
      *lowTail = nullptr;
      next[2 * i] = low;
      next[2 * i + 1] = head;
    }
    freeBuckets(t->buckets, oldCount);
    t->buckets = next;
    ++t->bits;
  }

  static Node* firstLive(Table* t, size_t bucket) {
    for (size_t b = bucket; b < t->bucketCount(); ++b) {
      for (Node* n = t->buckets[b]; n; n = n->next) {
        if (!n->deleted) return n;
      }
    }
    return nullptr;
  }

  static Node* nextLive(Table* t, Node* from) {
    for (Node* n = from->next; n; n = n->next) {
      if (!n->deleted) return n;
    }
    return firstLive(t, t->bucketOf(from->rev) + 1);
  }

  static void unpin(Table* t, Node* n) {
    if (--n->pins || !n->deleted) return;
    for (Node** link = &t->buckets[t->bucketOf(n->rev)]; *link; link = &(*link)->next) {
      if (*link == n) {
        *link = n->next;
        delete n;
        return;
      }
    }
  }

  static void release(Table* t) {
    if (--t->refs) return;
    destroyChain(unlinkAll(t));
    freeBuckets(t->buckets, t->bucketCount());
    delete t;
  }

  // Marks every node of the map's table and lets the iterators that hold it finish.
  void detach() {
    if (!t_) return;
    Table* t = t_;
    t_ = nullptr;
    mirrorTable();
    live_ = 0;
    if (t->refs == 1) {
      release(t);
      return;
    }
    for (size_t b = 0; b < t->bucketCount(); ++b) {
      for (Node* n = t->buckets[b]; n; n = n->next) n->deleted = true;
    }
    // Unpinned nodes can go now; pinned ones are freed when the last iterator releases.
    for (size_t b = 0; b < t->bucketCount(); ++b) {
      Node* keep = nullptr;
      Node** keepTail = &keep;
      Node* drop = nullptr;
      for (Node* n = t->buckets[b]; n;) {
        Node* next = n->next;
        if (n->pins) {
          *keepTail = n;
          keepTail = &n->next;
        } else {
          n->next = drop;
          drop = n;
        }
        n = next;
      }
      *keepTail = nullptr;
      t->buckets[b] = keep;
      destroyChain(drop);
    }
    release(t);
  }

  static Node* unlinkAll(Table* t) {
    Node* all = nullptr;
    for (size_t b = 0; b < t->bucketCount(); ++b) {
      Node* n = t->buckets[b];
      t->buckets[b] = nullptr;
      while (n) {
        Node* next = n->next;
        n->next = all;
        all = n;
        n = next;
      }
    }
    return all;
  }

  static void destroyChain(Node* n) {
    while (n) {
      Node* next = n->next;
      delete n;
      n = next;
    }
  }

  // Lookups read the current table's bucket array and size from these copies, kept by
  // every change of table, without going through the table itself (one object less to
  // reach on a lookup); the member count lives here alone.
  void mirrorTable() {
    buckets_ = t_ ? t_->buckets : nullptr;
    bits_ = t_ ? t_->bits : 0;
  }

  Table* t_ = nullptr;
  Node** buckets_ = nullptr;
  unsigned bits_ = 0;
  size_t live_ = 0;
};

}  // namespace Vesk

// NboAttrLog::FlowOut: one entity's flow on one stream (Out.h). An entity replicated on
// several streams has one per stream; the flow of a stream's root first sends the common
// attributes (its type and name), as the base adapter.
//
// The generated replication adapter of a type derives from it and from the type's
// notifiee. It names the type's replicated attributes as slots, in ascending attribute id
// (the key and the constructor parameters travel with the entity's announcement instead),
// and implements sendSlot() and sendDirtySlot() with the helpers below; everything about
// when to send is here. A type has at most 64 replicated attributes.
//
// FLOW-OUT. A new adapter sends its attributes in slot order. The flow stands at one slot
// (attrId(); 0 once complete); within a collection, at a bookmark, the key at which the
// member walk resumes. A collection's walk is framed by begin and end markers, so the
// reader drops the members it holds that the writer no longer has.
//
// CHANGES. A change to a slot that the flow has not reached yet is left to the flow. Any
// other change is sent at once if the stream has room; if not, a scalar is marked dirty and
// a member's key goes into the collection's dirty keys, and the adapter waits for
// flowOut(). A dirty key is looked up when it is sent: a member that came and went in the
// meantime goes once, as a deletion. A change that the stream's own reader has just sent
// (Out::handlingFlowInFor) is not sent back.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <span>
#include <unordered_set>
#include <vector>

#include "framework/attrlog/Codec.h"
#include "framework/attrlog/Out.h"
#include "framework/attrlog/Wire.h"
#include "framework/core/Entity.h"

namespace Vesk::NboAttrLog {

// What an adapter keeps for one keyed collection: the member walk's bookmark and the keys
// changed while the stream had no room (sent in their own order).
template <class K>
struct CollectionSlot {
  std::optional<K> bookmark;
  std::set<K> dirtyKeys;
};
// The same for a collection of owned entities, with the id each member was announced under.
template <class K>
struct OwnedSlot : CollectionSlot<K> {
  std::map<K, uint32_t> ids;
};

class FlowOut {
 public:
  FlowOut(Out& out, Entity const& entity, uint32_t id, std::span<int32_t const> slotAttrIds);
  FlowOut(FlowOut const&) = delete;
  FlowOut& operator=(FlowOut const&) = delete;
  virtual ~FlowOut() = default;

  uint32_t id() const { return id_; }
  Entity const& entity() const { return entity_; }
  Out& out() const { return out_; }

  // The attribute id at which the flow-out stands; 0 when it is complete.
  int32_t attrId() const { return next_ < slots_.size() ? slots_[next_] : 0; }
  // Moves the flow-out to the slot of `attrId` (0: complete); the slots from there on are
  // sent again, a collection from its bookmark when it holds one. An id that names no slot
  // changes nothing.
  void attrIdIs(int32_t attrId);
  bool veskIsDirty(size_t slot) const { return dirty_ >> slot & 1; }
  void veskIsDirtyIs(size_t slot, bool dirty);
  bool veskHasSynced(size_t slot) const { return synced_ >> slot & 1; }

  // Continues the flow-out, then sends what is dirty. False when the stream ran out of
  // room first.
  bool flowOut();
  bool hasWork() const {
    return baseOwed_ || next_ < slots_.size() || dirty_ != 0 || dirtyKeys_ != 0;
  }

  // The ids of the members this adapter announced, which go when they leave its
  // collections.
  std::unordered_set<uint32_t>& announced() { return announced_; }
  // The flow of the entity that announced this one; 0 for the root.
  uint32_t parentId() const { return parentId_; }
  void parentIdIs(uint32_t id) { parentId_ = id; }
  // Whether the adapter is in its stream's queue of adapters with work.
  bool queued() const { return queued_; }
  void queuedIs(bool queued) { queued_ = queued; }
  // The root's adapter first sends the common attributes (its type and name).
  void baseOwedIs(bool owed) { baseOwed_ = owed; }

 protected:
  // Sends slot's value, or its collection's members from the bookmark; false when the
  // stream ran out of room (a collection then keeps its bookmark).
  virtual bool sendSlot(size_t slot) = 0;
  // Sends a dirty scalar again, or a collection's dirty keys; false when out of room.
  virtual bool sendDirtySlot(size_t slot) = 0;

  // ---- for the generated adapters ----

  // One change message for slot, its values written by put(writer). A put that returns
  // false withdraws the message (nothing of it stays).
  template <class F>
  bool sendMessage(size_t slot, int32_t attr, F&& put) {
    if (!out_.continueFlowOut()) return false;
    Writer w = out_.writer();
    w.open(Kind::change, id_, attr);
    if (!put(w)) {
      out_.withdrawLastMessage(w.messageStart());
      return true;
    }
    w.close();
    synced_ |= uint64_t(1) << slot;
    return true;
  }

  // A scalar's value: sent now, or dirty.
  template <class F>
  bool sendValue(size_t slot, F&& put) {
    bool const sent = sendMessage(slot, slots_[slot], put);
    veskIsDirtyIs(slot, !sent);
    return sent;
  }
  template <class F>
  void scalarChanged(size_t slot, F&& put) {
    if (!changeToSend(slot, false)) return;
    if (!sendValue(slot, put)) waiting();
  }

  // A collection's walk from its bookmark, framed by begin and end markers.
  template <class Map, class K, class F>
  bool sendMembers(size_t slot, Map const& map, CollectionSlot<K>& state, F&& putMember) {
    std::optional<K>& bookmark = state.bookmark;
    if (!(endOwed_ >> slot & 1)) {
      if (!bookmark && !sendTransactionMarker(Kind::begin, slot)) return false;
      for (auto it = bookmark ? map.lowerBound(*bookmark) : map.begin(); it != map.end(); ++it) {
        if (!sendMember(slot, it->first, &it->second, putMember)) {
          bookmark = it->first;
          return false;
        }
      }
      bookmark.reset();
      endOwed_ |= uint64_t(1) << slot;
    }
    if (!sendTransactionMarker(Kind::end, slot)) return false;
    endOwed_ &= ~(uint64_t(1) << slot);
    return true;
  }

  // A member added, changed or removed.
  template <class Map, class K, class F>
  void memberChanged(size_t slot, Map const& map, K const& key, CollectionSlot<K>& state,
                     F&& putMember) {
    if (!changeToSend(slot, true)) return;
    if (state.dirtyKeys.empty() && sendMember(slot, key, map.find(key), putMember)) return;
    state.dirtyKeys.insert(key);
    dirtyKeys_ |= uint64_t(1) << slot;
    waiting();
  }
  // The same for an owned member; a member that left (or was replaced) stops replicating.
  template <class Map, class K, class F>
  void ownedChanged(size_t slot, Map const& map, K const& key, OwnedSlot<K>& state, F&& putMember) {
    withdrawReplaced(map, key, state);
    memberChanged(slot, map, key, state, putMember);
  }

  template <class Map, class K, class F>
  bool sendDirtyKeys(size_t slot, Map const& map, CollectionSlot<K>& state, F&& putMember) {
    while (!state.dirtyKeys.empty()) {
      K const key = *state.dirtyKeys.begin();
      if (!sendMember(slot, key, map.find(key), putMember)) return false;
      state.dirtyKeys.erase(state.dirtyKeys.begin());
    }
    dirtyKeys_ &= ~(uint64_t(1) << slot);
    return true;
  }

  // Writes an owned member's key, its entity id and (through putParams) its constructor
  // parameters; false when its type is not replicated.
  template <class K, class F>
  bool putOwned(Writer& w, OwnedSlot<K>& state, K const& key, Entity const& member, F&& putParams) {
    uint32_t const id = out_.announce(member, *this);
    if (id == 0) return false;
    state.ids[key] = id;
    Codec<K>::put(w, key);
    w.putEntity(id);
    putParams(w);
    return true;
  }

  // A reference's value by its target's id: 0 for null and for a target outside the
  // replicated tree or of a type that is not replicated. While the target is in the tree but
  // not announced yet, the value waits, without holding the stream's flow-out open, until
  // the target's announcement makes it dirty. False when the stream had no room.
  bool sendReference(size_t slot, Entity const* target);
  void referenceChanged(size_t slot, Entity const* target) {
    if (!changeToSend(slot, false)) return;
    if (!sendReference(slot, target)) waiting();
  }

 private:
  template <class K, class V, class F>
  bool sendMember(size_t slot, K const& key, V const* member, F& putMember) {
    if (member)
      return sendMessage(slot, slots_[slot], [&](Writer& w) { return putMember(w, key, *member); });
    return sendMessage(slot, -slots_[slot], [&](Writer& w) {
      Codec<K>::put(w, key);
      return true;
    });
  }
  template <class Map, class K>
  void withdrawReplaced(Map const& map, K const& key, OwnedSlot<K>& state) {
    auto held = state.ids.find(key);
    if (held == state.ids.end()) return;
    auto const* member = map.find(key);
    if (member && out_.idOf(member->ptr().ptr()) == held->second) return;
    out_.withdraw(held->second);
    state.ids.erase(held);
  }
  bool sendTransactionMarker(Kind kind, size_t slot);
  // Whether a change to slot goes out now rather than with the flow-out: the flow has
  // passed the slot, or (a collection) stands in it.
  bool changeToSend(size_t slot, bool collection) const;
  void waiting() { out_.waitingIs(*this); }

  Out& out_;
  Entity const& entity_;
  uint32_t const id_;
  std::span<int32_t const> slots_;
  size_t next_ = 0;
  uint64_t dirty_ = 0;
  uint64_t synced_ = 0;
  uint64_t dirtyKeys_ = 0;  // slots whose collection has dirty keys
  uint64_t endOwed_ = 0;    // slots whose walk is done but whose end marker is not sent
  std::unordered_set<uint32_t> announced_;
  uint32_t parentId_ = 0;
  bool baseOwed_ = false;
  bool queued_ = false;
};

}  // namespace Vesk::NboAttrLog

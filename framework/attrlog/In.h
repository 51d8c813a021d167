// NboAttrLog::In: the reading side of a stream (Wire.h), applying it to a copy of the
// writer's tree.
//
// The copy's root is given; its members are made as their announcements arrive. Every
// value is applied through the ordinary mutator, so the copy's own notifiees see a received
// change as a local write, and an unchanged value notifies nobody. A read-only copy (the
// default) refuses local writes with the framework's read-only error; only the stream
// writes it.
//
// apply() takes every complete message at the front of its input. A message it refuses
// throws DecodeError (or, for an attribute that no remote write may set,
// ReadOnlyProxyException) naming the stream position and what was wrong; nothing of that
// message is applied, and the messages before it stay applied. A deletion of a member the
// copy does not hold is no error: a member added and deleted while the writer had no room
// is sent once, as a deletion.
//
// TYPICAL USAGE:
//   In in(copyRoot);
//   size_t used = in.apply(received);   // then drop `used` bytes from the front
#pragma once

#include <cstdint>
#include <map>
#include <span>
#include <string>
#include <type_traits>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "framework/attrlog/Codec.h"
#include "framework/attrlog/Wire.h"
#include "framework/core/Entity.h"
#include "framework/core/Exception.h"
#include "framework/core/HashMap.h"
#include "framework/core/Ptr.h"

namespace Vesk::NboAttrLog {

class Out;
class InMessage;
struct TypeSupport;

class In {
 public:
  explicit In(Ptr<Entity> const& root, bool readOnly = true);
  In(In const&) = delete;
  In& operator=(In const&) = delete;
  ~In();

  size_t apply(std::span<char const> bytes);

  // The output back to the same writer: changes applied from this stream are not echoed on
  // it.
  void replyOutIs(Out* out) { replyOut_ = out; }
  // The copy bound to the writer's entity id, or null.
  Ptr<Entity> entity(uint32_t id) const;
  size_t entities() const { return bound_.size(); }
  // Bytes consumed since construction: the position that errors name.
  uint64_t position() const { return position_; }

 private:
  friend class InMessage;
  struct Bound {
    Ptr<Entity> entity;
    uint32_t parent = 0;
    std::unordered_set<uint32_t> children;
    // The entity's type support, as looked up when typeSupportChanges() was supportAt.
    TypeSupport const* support = nullptr;
    uint64_t supportAt = UINT64_MAX;
  };
  struct OpenCollection {
    std::unordered_set<std::string> seenKeys;
  };

  void applyOne(Kind kind, uint32_t entity, int32_t attr, char const* body, char const* end);
  void applyPiece(uint32_t entity, int32_t attr, char const* body, char const* end,
                  Where const& where);
  static TypeSupport const* supportOf(Bound& bound);
  void bind(uint32_t id, Ptr<Entity> const& entity, uint32_t parentId);
  void unbind(uint32_t id);
  void unbindEntity(Entity const* entity);
  // Whether `id` names an entity other than `entity`.
  bool boundElsewhere(uint32_t id, Entity const* entity) const;
  static uint64_t collectionKey(uint64_t entity, int32_t attr) {
    return entity << 32 | uint32_t(attr);
  }

  Ptr<Entity> root_;
  bool const readOnly_;
  Out* replyOut_ = nullptr;
  HashMap<uint32_t, Bound> bound_;
  std::unordered_map<Entity const*, uint32_t> idOf_;
  std::map<uint64_t, OpenCollection> open_;  // by entity, then attribute
  // Long texts arriving in pieces for the next message: whose, and each text so far by its
  // position among that message's values.
  uint32_t pieceEntity_ = 0;
  int32_t pieceAttr_ = 0;
  std::map<uint32_t, std::string> pieces_;
  size_t pieceBytes_ = 0;
  uint64_t position_ = 0;
};

// One received message, as the generated code of its entity's type reads and applies it:
// read every value, call done(), then apply through the mutators.
class InMessage {
 public:
  InMessage(In& in, Kind kind, uint32_t entity, int32_t attr, char const* body, char const* end,
            Where const& where, std::map<uint32_t, std::string>* pieces);

  Kind kind() const { return kind_; }
  int32_t attr() const { return attr_; }
  Reader& reader() { return reader_; }

  template <class T>
  T get() {
    return Codec<T>::get(*this);
  }
  // The next text value, joined to the pieces that came before it.
  std::string_view text();
  // A reference: the bound entity of type T, or null for id 0.
  template <class T>
  Ptr<T> reference() {
    Entity* target = referenceTarget(T::typeName);
    return Ptr<T>(static_cast<T*>(target));
  }
  // An owned member's announced entity id.
  uint32_t memberId();
  // Every value has been read (and every long text's pieces used); from here the message
  // is applied.
  void done();

  // Refuses an announced id that names another entity than the member now under the key
  // (null when there is none): ids are never reused within a full send.
  void expectFreeId(uint32_t id, Entity const* member);
  // The member just made (or found) under its collection gets the announced id.
  void bindMember(uint32_t id, Ptr<Entity> const& member);
  // A member about to be deleted stops being bound.
  void unbindMember(Entity const* member) { in_.unbindEntity(member); }
  // At a collection's end marker: deletes, through del(key), the members of the copy's
  // collection that the writer did not send since the begin marker.
  template <class Map, class Del>
  void reconcile(Map const& map, Del&& del) {
    done();
    auto open = in_.open_.find(In::collectionKey(entity_, attr_));
    if (open == in_.open_.end()) fail("end marker without a begin marker");
    using Key = std::remove_cv_t<typename Map::value_type::first_type>;
    std::vector<Key> gone;
    std::string key;
    for (auto const& member : map) {
      key.clear();
      Writer w(key);
      putWholeKey(w, member.first);
      if (!open->second.seenKeys.count(key)) gone.push_back(member.first);
    }
    in_.open_.erase(open);
    for (auto const& k : gone) del(k);
  }

  [[noreturn]] void unknownAttribute(char const* typeName);
  // A key as the reader records it between markers: a text whole, never in pieces.
  template <class K>
  static void putWholeKey(Writer& w, K const& k) {
    if constexpr (std::is_base_of_v<String, K>) {
      w.putText(k.view());
    } else {
      Codec<K>::put(w, k);
    }
  }
  [[noreturn]] void notRemotelyWritable(char const* attrName, Entity const& entity);
  [[noreturn]] void fail(std::string const& what) { reader_.fail(what); }

 private:
  Entity* referenceTarget(char const* typeName);

  In& in_;
  Kind const kind_;
  uint32_t const entity_;
  int32_t const attr_;
  Reader reader_;
  std::map<uint32_t, std::string>* pieces_;  // null when the message has none
  size_t piecesUsed_ = 0;
  uint32_t memberId_ = 0;
};

}  // namespace Vesk::NboAttrLog

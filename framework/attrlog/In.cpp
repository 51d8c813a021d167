#include "framework/attrlog/In.h"

#include <optional>

#include "framework/attrlog/Out.h"
#include "framework/attrlog/TypeSupport.h"
#include "framework/core/ReadOnly.h"

namespace Vesk::NboAttrLog {

namespace {

// The size of the value at p (tag included); throws through `fail` when it runs past end.
template <class Fail>
size_t valueSize(char const* p, char const* end, Fail&& fail) {
  size_t const left = size_t(end - p);
  auto fixed = [&](size_t n) {
    if (left < 1 + n) fail("truncated value");
    return 1 + n;
  };
  switch (uint8_t(*p)) {
    case tagBool:
      return fixed(1);
    case tagU32:
    case tagEntity:
      return fixed(4);
    case tagU64:
    case tagDouble:
      return fixed(8);
    case tagText: {
      if (left < 5) fail("truncated text length");
      size_t const n = readU32(p + 1);
      if (n > maxTextPieceBytes) fail("text of " + std::to_string(n) + " bytes exceeds the limit");
      if (left < 5 + n) fail("truncated text");
      return 5 + n;
    }
    default:
      fail("unknown value tag " + std::to_string(uint8_t(*p)));
  }
  return 0;
}

// A text key as the reconciliation encodes it: one unsplit text value.
std::string wholeTextKey(std::string_view text) {
  std::string out;
  Writer(out).putText(text);
  return out;
}

// While a received message is applied, its entity accepts the message's writes even when
// read-only, and the reply stream does not send them back.
class ApplyingScope {
 public:
  ApplyingScope(Out* reply, Entity const* entity, int32_t attr)
      : reply_(reply), outer_(remoteWriteTarget) {
    remoteWriteTarget = entity;
    if (reply_) reply_->handlingFlowInIs(entity, attr);
  }
  ~ApplyingScope() {
    remoteWriteTarget = outer_;
    if (reply_) reply_->handlingFlowInIs(nullptr, 0);
  }

 private:
  Out* reply_;
  Entity const* outer_;
};

}  // namespace

In::In(Ptr<Entity> const& root, bool readOnly) : root_(root), readOnly_(readOnly) {
  if (!root_) throwNullParameter("root", "Vesk::NboAttrLog::In");
}

In::~In() {
  for (auto& [id, bound] : bound_) {
    if (bound.entity) bound.entity->veskReadOnlyIs(false);
  }
}

Ptr<Entity> In::entity(uint32_t id) const {
  Bound const* found = bound_.find(id);
  return found ? found->entity : nullptr;
}

size_t In::apply(std::span<char const> bytes) {
  size_t used = 0;
  while (bytes.size() - used >= 4) {
    char const* p = bytes.data() + used;
    uint32_t const length = readU32(p);
    auto where = [&] { return "attribute log at byte " + std::to_string(position_); };
    if (length > maxMessageBytes) {
      throw DecodeError(String(where() + ": message length " + std::to_string(length) +
                               " exceeds the limit of " + std::to_string(maxMessageBytes)));
    }
    if (length < headerBytes - 4) {
      throw DecodeError(String(where() + ": message length " + std::to_string(length) +
                               " is shorter than a message header"));
    }
    if (bytes.size() - used - 4 < length) break;  // the rest of it has not arrived
    uint8_t const kind = uint8_t(p[4]);
    uint32_t const entity = readU32(p + 5);
    int32_t const attr = int32_t(readU32(p + 9));
    if (kind < uint8_t(Kind::change) || kind > uint8_t(Kind::textPiece)) {
      throw DecodeError(String(where() + ": unknown message kind " + std::to_string(kind)));
    }
    applyOne(Kind(kind), entity, attr, p + headerBytes, p + 4 + length);
    used += 4 + length;
    position_ += 4 + length;
  }
  return used;
}

void In::applyOne(Kind kind, uint32_t entity, int32_t attr, char const* body, char const* end) {
  Where const where{position_, entity, attr};
  auto fail = [&](std::string const& what) {
    throw DecodeError(String(where.text() + ": " + what));
  };
  if (kind == Kind::textPiece) return applyPiece(entity, attr, body, end, where);
  if (!pieces_.empty() && (entity != pieceEntity_ || attr != pieceAttr_ || kind != Kind::change)) {
    fail("text pieces not followed by their message");
  }
  if (entity == 1 && attr == rootAttrId && kind == Kind::change) {
    Reader r(body, end, where);
    std::string_view const type = r.getText();
    r.getText();
    r.expectEnd();
    if (type != root_->veskTypeName()) {
      fail("stream of " + std::string(type) + " into a copy of " + root_->veskTypeName());
    }
    // A full send starts (again): every member is announced anew. The copy keeps its own
    // name.
    pieces_.clear();
    pieceBytes_ = 0;
    open_.clear();
    unbind(1);
    bind(1, root_, 0);
    return;
  }
  Bound* found = bound_.find(entity);
  if (!found) fail("no such entity");
  Ptr<Entity> const target = found->entity;
  TypeSupport const* support = supportOf(*found);
  if (!support) fail(std::string("type ") + target->veskTypeName() + " is not replicated");
  if (kind == Kind::begin) {
    if (body != end) fail("a begin marker carries no value");
    InMessage marker(*this, kind, entity, attr, body, end, where, nullptr);
    support->apply(marker, *target);
    open_[collectionKey(entity, attr)].seenKeys.clear();
    return;
  }
  std::optional<std::map<uint32_t, std::string>> pieces;
  if (!pieces_.empty()) {
    pieces.emplace().swap(pieces_);
    pieceBytes_ = 0;
  }
  InMessage message(*this, kind, entity, attr, body, end, where, pieces ? &*pieces : nullptr);
  // A member sent between its collection's markers is seen, once the message is applied.
  auto open = open_.end();
  std::string seenKey;
  if (kind == Kind::change && attr > 0 && body != end && !open_.empty()) {
    open = open_.find(collectionKey(entity, attr));
    if (open != open_.end()) {
      size_t const keyBytes = valueSize(body, end, fail);
      std::string const* leading = pieces && pieces->count(0) ? &pieces->at(0) : nullptr;
      bool const joined = leading && uint8_t(*body) == tagText;
      seenKey = joined ? wholeTextKey(*leading + std::string(body + 5, keyBytes - 5))
                       : std::string(body, keyBytes);
    }
  }
  {
    ApplyingScope applying(replyOut_, target.ptr(), attr);
    try {
      support->apply(message, *target);
    } catch (DecodeError const&) {
      throw;
    } catch (ReadOnlyProxyException const&) {
      throw;
    } catch (Exception const& e) {  // a reinstantiation, say: the message is refused
      fail(e.what());
    }
  }
  if (open != open_.end()) open->second.seenKeys.insert(std::move(seenKey));
}

void In::applyPiece(uint32_t entity, int32_t attr, char const* body, char const* end,
                    Where const& where) {
  auto fail = [&](std::string const& what) {
    throw DecodeError(String(where.text() + ": " + what));
  };
  if (!bound_.find(entity)) fail("no such entity");
  if (!pieces_.empty() && (entity != pieceEntity_ || attr != pieceAttr_)) {
    fail("text pieces of two messages interleaved");
  }
  Reader r(body, end, where);
  uint32_t const position = r.getU32();
  std::string_view const piece = r.getText();
  r.expectEnd();
  if (!pieces_.empty() && position < pieces_.rbegin()->first) fail("text pieces out of order");
  if (pieceBytes_ + piece.size() > maxTextBytes) {
    fail("texts longer than " + std::to_string(maxTextBytes) + " bytes");
  }
  pieceEntity_ = entity;
  pieceAttr_ = attr;
  pieces_[position].append(piece);
  pieceBytes_ += piece.size();
}

TypeSupport const* In::supportOf(Bound& bound) {
  if (bound.supportAt != typeSupportChanges()) {
    bound.support = typeSupport(*bound.entity);
    bound.supportAt = typeSupportChanges();
  }
  return bound.support;
}

void In::bind(uint32_t id, Ptr<Entity> const& entity, uint32_t parentId) {
  Bound const* held = bound_.find(id);
  if (held && held->entity == entity) return;  // announced again
  unbindEntity(entity.ptr());                  // announced under a new id: the old one is stale
  unbind(id);
  if (parentId) {
    Bound* parent = bound_.find(parentId);
    if (!parent) return;
    parent->children.insert(id);
  }
  Bound bound;
  bound.entity = entity;
  bound.parent = parentId;
  bound_.emplace(id, std::move(bound));
  idOf_[entity.ptr()] = id;
  if (readOnly_) entity->veskReadOnlyIs(true);
}

void In::unbind(uint32_t id) {
  Bound* found = bound_.find(id);
  if (!found) return;
  Bound bound = std::move(*found);
  bound_.erase(id);
  idOf_.erase(bound.entity.ptr());
  open_.erase(open_.lower_bound(collectionKey(id, 0)), open_.lower_bound(collectionKey(id + 1, 0)));
  if (Bound* parent = bound_.find(bound.parent)) parent->children.erase(id);
  // Ids are bound along the copy's own tree, so this goes as deep as the model does.
  for (uint32_t child : bound.children) unbind(child);
}

void In::unbindEntity(Entity const* entity) {
  auto found = idOf_.find(entity);
  if (found != idOf_.end()) unbind(found->second);
}

bool In::boundElsewhere(uint32_t id, Entity const* entity) const {
  Bound const* found = bound_.find(id);
  return found && found->entity.ptr() != entity;
}

// ---- InMessage ----------------------------------------------------------------------------

InMessage::InMessage(In& in, Kind kind, uint32_t entity, int32_t attr, char const* body,
                     char const* end, Where const& where, std::map<uint32_t, std::string>* pieces)
    : in_(in),
      kind_(kind),
      entity_(entity),
      attr_(attr),
      reader_(body, end, where),
      pieces_(pieces) {}

std::string_view InMessage::text() {
  uint32_t const position = reader_.valuesRead();
  std::string_view const last = reader_.getText();
  if (!pieces_) return last;
  auto found = pieces_->find(position);
  if (found == pieces_->end()) return last;
  found->second.append(last);  // the map outlives the message's values
  ++piecesUsed_;
  return found->second;
}

uint32_t InMessage::memberId() {
  memberId_ = reader_.getEntity();
  if (memberId_ <= 1) fail("a member's entity id must be above 1");
  return memberId_;
}

void InMessage::done() {
  reader_.expectEnd();
  if (pieces_ && piecesUsed_ != pieces_->size()) fail("text pieces for a value that is not a text");
}

void InMessage::bindMember(uint32_t id, Ptr<Entity> const& member) {
  if (member) in_.bind(id, member, entity_);
}

void InMessage::expectFreeId(uint32_t id, Entity const* member) {
  if (in_.boundElsewhere(id, member)) fail("entity id " + std::to_string(id) + " is in use");
}

Entity* InMessage::referenceTarget(char const* typeName) {
  uint32_t const id = reader_.getEntity();
  if (id == 0) return nullptr;
  Ptr<Entity> target = in_.entity(id);
  if (!target) fail("reference to entity " + std::to_string(id) + ", which does not exist");
  if (std::string_view(target->veskTypeName()) != typeName) {
    fail("reference to a " + std::string(target->veskTypeName()) + " where a " + typeName +
         " is expected");
  }
  return target.ptr();
}

void InMessage::unknownAttribute(char const* typeName) {
  fail(std::string("unknown attribute for ") + typeName + (kind_ == Kind::change ? "" : " marker"));
}

void InMessage::notRemotelyWritable(char const* attrName, Entity const& entity) {
  throw ReadOnlyProxyException(readOnlyProxyText(attrName, entity.fullName()));
}

}  // namespace Vesk::NboAttrLog

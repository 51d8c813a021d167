#include "framework/attrlog/FlowOut.h"

#include "framework/attrlog/TypeSupport.h"

namespace Vesk::NboAttrLog {

FlowOut::FlowOut(Out& out, Entity const& entity, uint32_t id, std::span<int32_t const> slotAttrIds)
    : out_(out), entity_(entity), id_(id), slots_(slotAttrIds) {}

void FlowOut::attrIdIs(int32_t attrId) {
  if (attrId == 0) {
    next_ = slots_.size();
    return;
  }
  for (size_t i = 0; i < slots_.size(); ++i) {
    if (slots_[i] != attrId) continue;
    next_ = i;
    endOwed_ &= (uint64_t(1) << i) - 1;  // the walks from here on start afresh or resume
    waiting();
  }
}

void FlowOut::veskIsDirtyIs(size_t slot, bool dirty) {
  uint64_t const bit = uint64_t(1) << slot;
  dirty_ = dirty ? dirty_ | bit : dirty_ & ~bit;
  if (dirty) waiting();
}

bool FlowOut::flowOut() {
  if (baseOwed_) {
    if (!out_.continueFlowOut()) return false;
    Writer w = out_.writer();
    w.open(Kind::change, id_, rootAttrId);
    w.putText(entity_.veskTypeName());
    Codec<Name>::put(w, entity_.name());
    w.close();
    baseOwed_ = false;
  }
  for (; next_ < slots_.size(); ++next_) {
    if (!sendSlot(next_)) return false;
  }
  for (size_t slot = 0; slot < slots_.size(); ++slot) {
    bool const owed = ((dirty_ | dirtyKeys_) >> slot) & 1;
    if (owed && !sendDirtySlot(slot)) return false;
  }
  return true;
}

bool FlowOut::sendTransactionMarker(Kind kind, size_t slot) {
  if (!out_.continueFlowOut()) return false;
  Writer w = out_.writer();
  w.open(kind, id_, slots_[slot]);
  w.close();
  return true;
}

bool FlowOut::changeToSend(size_t slot, bool collection) const {
  if (out_.handlingFlowInFor(&entity_, slots_[slot])) return false;
  return next_ > slot || (collection && next_ == slot);
}

bool FlowOut::sendReference(size_t slot, Entity const* target) {
  bool const replicated = target && out_.inTree(target) && typeSupport(*target);
  uint32_t const id = replicated ? out_.idOf(target) : 0;
  if (replicated && id == 0) {
    veskIsDirtyIs(slot, false);
    out_.announcementAwaitedIs(*target, *this, slot);
    return true;
  }
  return sendValue(slot, [&](Writer& w) {
    w.putEntity(id);
    return true;
  });
}

}  // namespace Vesk::NboAttrLog

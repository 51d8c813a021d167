#include "framework/attrlog/Out.h"

#include "framework/attrlog/FlowOut.h"
#include "framework/attrlog/TypeSupport.h"
#include "framework/core/Exception.h"

namespace Vesk::NboAttrLog {

Out::Out(size_t capacity, bool passive) : capacity_(capacity), passive_(passive) {
  if (capacity < minCapacity) throwRangeException("attribute log output capacity too small");
  buf_.reserve(capacity);
}

Out::~Out() { clear(); }

void Out::consumed(size_t n) {
  head_ += std::min(n, size());
  if (head_ == buf_.size()) {
    buf_.clear();
    head_ = 0;
  } else if (head_ >= capacity_ / 2) {
    buf_.erase(0, head_);
    head_ = 0;
  }
}

void Out::clear() {
  waiting_.clear();
  awaited_.clear();
  byId_.clear();
  // Adapters unregister from their entities as they go; none sends anything on the way.
  auto adapters = std::move(adapters_);
  adapters.clear();
}

void Out::rootIs(Ptr<Entity const> const& root) {
  clear();
  root_ = root;
  nextId_ = 1;  // a new full send numbers its entities afresh, the root first
  if (!root) return;
  TypeSupport const* support = typeSupport(*root);
  if (!support) throwRangeException("attribute log root of a type that is not replicated");
  uint32_t const id = nextId_++;
  std::unique_ptr<FlowOut> adapter = support->makeFlowOut(*this, *root, id);
  adapter->baseOwedIs(true);
  byId_[id] = adapter.get();
  FlowOut& made = *adapter;
  adapters_[root.ptr()] = std::move(adapter);
  waitingIs(made);
}

uint32_t Out::announce(Entity const& member, FlowOut& parent) {
  if (FlowOut* held = flowOf(&member)) return held->id();
  TypeSupport const* support = typeSupport(member);
  if (!support) return 0;
  uint32_t const id = nextId_++;
  std::unique_ptr<FlowOut> adapter = support->makeFlowOut(*this, member, id);
  FlowOut& made = *adapter;
  byId_[id] = adapter.get();
  adapters_[&member] = std::move(adapter);
  made.parentIdIs(parent.id());
  parent.announced().insert(id);
  waitingIs(made);
  wakeAwaiting(member);
  return id;
}

void Out::announcementAwaitedIs(Entity const& target, FlowOut& flow, size_t slot) {
  for (AwaitedAnnouncement& a : awaited_) {
    if (a.flow == flow.id() && a.slot == slot) {
      a.target = &target;
      return;
    }
  }
  awaited_.push_back({&target, flow.id(), slot});
}

void Out::wakeAwaiting(Entity const& announced) {
  for (size_t i = 0; i < awaited_.size();) {
    AwaitedAnnouncement const a = awaited_[i];
    if (a.target != &announced) {
      ++i;
      continue;
    }
    awaited_[i] = awaited_.back();
    awaited_.pop_back();
    if (auto flow = byId_.find(a.flow); flow != byId_.end())
      flow->second->veskIsDirtyIs(a.slot, true);
  }
}

uint32_t Out::idOf(Entity const* entity) const {
  FlowOut const* adapter = flowOf(entity);
  return adapter ? adapter->id() : 0;
}

bool Out::inTree(Entity const* entity) const {
  for (Entity const* e = entity; e; e = e->parentRaw()) {
    if (e == root_.ptr()) return true;
  }
  return false;
}

void Out::withdraw(uint32_t id) {
  auto found = byId_.find(id);
  if (found == byId_.end()) return;
  FlowOut* adapter = found->second;
  std::vector<uint32_t> const children(adapter->announced().begin(), adapter->announced().end());
  for (uint32_t child : children) withdraw(child);
  if (auto parent = byId_.find(adapter->parentId()); parent != byId_.end()) {
    parent->second->announced().erase(id);
  }
  std::erase_if(awaited_, [&](AwaitedAnnouncement const& a) { return a.flow == id; });
  byId_.erase(found);
  adapters_.erase(&adapter->entity());
}

void Out::waitingIs(FlowOut& adapter) {
  if (adapter.queued()) return;
  adapter.queuedIs(true);
  waiting_.push_back(adapter.id());
}

void Out::flowOut() {
  // Each adapter waiting now gets one turn; work that arises meanwhile waits for the next
  // call, so a value that waits for another's announcement cannot spin here.
  for (size_t turns = waiting_.size(); turns > 0 && !waiting_.empty(); --turns) {
    if (!continueFlowOut()) return;
    uint32_t const id = waiting_.front();
    waiting_.pop_front();
    auto found = byId_.find(id);
    if (found == byId_.end()) continue;
    FlowOut& adapter = *found->second;
    adapter.queuedIs(false);
    if (!adapter.hasWork()) continue;
    if (!adapter.flowOut() || adapter.hasWork()) waitingIs(adapter);
  }
}

FlowOut* Out::flowOf(Entity const* entity) const {
  auto found = adapters_.find(entity);
  return found == adapters_.end() ? nullptr : found->second.get();
}

}  // namespace Vesk::NboAttrLog

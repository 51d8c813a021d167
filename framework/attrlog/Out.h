// NboAttrLog::Out: the output side of one attribute-log stream, from a writer's entity tree
// to one reader.
//
// rootIs(root) replicates root and every owned member below it whose type is enabled
// (veskNboAttrLogSaIs): each entity gets an adapter that sends it in full (the flow-out) and
// then every change as it happens. The messages go into a bounded byte buffer that the
// transport drains (bytes(), consumed()). When the buffer lacks room for another message,
// continueFlowOut() is false: sends stop where they are, changes are remembered as dirty
// attributes and keys, and flowOut() takes them up again once room returns. The buffer only
// exceeds its capacity by the pieces of one message's long texts, which are written
// together.
//
// TYPICAL USAGE:
//   Ptr<Out> out = new Out(1 << 20);
//   out->rootIs(status);                  // full send starts
//   while (!out->flowOutComplete() || out->size()) {
//     size_t n = transport.write(out->bytes());
//     out->consumed(n);
//     out->flowOut();
//   }
#pragma once

#include <cstddef>
#include <deque>
#include <memory>
#include <span>
#include <string>
#include <unordered_map>
#include <vector>

#include "framework/attrlog/Wire.h"
#include "framework/core/Entity.h"
#include "framework/core/Ptr.h"
#include "framework/core/PtrInterface.h"

namespace Vesk::NboAttrLog {

class FlowOut;

class Out : public PtrInterface {
 public:
  static constexpr size_t defaultCapacity = size_t(1) << 20;
  static constexpr size_t minCapacity = 2 * (maxMessageBytes + 4);

  // A capacity below minCapacity throws RangeException. A passive output is the side of a
  // connection that the remote end opened.
  explicit Out(size_t capacity = defaultCapacity, bool passive = false);
  ~Out() override;

  bool passive() const { return passive_; }
  size_t capacity() const { return capacity_; }

  // The bytes written and not yet taken by the transport, oldest first.
  std::span<char const> bytes() const { return {buf_.data() + head_, buf_.size() - head_}; }
  size_t size() const { return buf_.size() - head_; }
  // The transport took the first n bytes of bytes().
  void consumed(size_t n);

  // Replicates root's tree from now on (a full send first); null stops. The root's type
  // must be enabled.
  void rootIs(Ptr<Entity const> const& root);
  Ptr<Entity const> root() const { return root_; }

  // Whether another message may be written now.
  bool continueFlowOut() const { return size() + maxMessageBytes + 4 <= capacity_; }
  // Continues full sends and dirty attributes while there is room.
  void flowOut();
  // Nothing is waiting to be written (the buffer itself may still hold bytes).
  bool flowOutComplete() const { return waiting_.empty(); }

  // For adapters.
  // The writer of the next message; the message must be closed before the next call.
  Writer writer() { return Writer(buf_); }
  // Takes back the message that starts at `start` and is still being written.
  void withdrawLastMessage(size_t start) { buf_.resize(start); }
  // The id under which `entity` is replicated on this stream, making its adapter (and
  // queueing its full send) when it has none yet; 0 when its type is not enabled.
  uint32_t announce(Entity const& member, FlowOut& parent);
  // The id of an entity that has an adapter, or 0.
  uint32_t idOf(Entity const* entity) const;
  // Whether `entity` lies in the replicated tree (its parents lead to the root).
  bool inTree(Entity const* entity) const;
  // Stops replicating the member announced under `id` (it left its collection), with
  // everything below it.
  void withdraw(uint32_t id);
  // A reference of `flow` at `slot` waits for `target`'s announcement, which makes the slot
  // dirty. One wait per slot: a later one replaces it.
  void announcementAwaitedIs(Entity const& target, FlowOut& flow, size_t slot);
  // The adapter has work for flowOut().
  void waitingIs(FlowOut& adapter);
  // While a received change is being applied for this stream's reader (see In::replyOutIs),
  // adapters do not send it back.
  bool handlingFlowInFor(Entity const* entity, int32_t attrId) const {
    return flowInEntity_ == entity && (flowInAttr_ == attrId || flowInAttr_ == -attrId);
  }
  void handlingFlowInIs(Entity const* entity, int32_t attrId) {
    flowInEntity_ = entity;
    flowInAttr_ = attrId;
  }

  size_t adapters() const { return adapters_.size(); }

 private:
  FlowOut* flowOf(Entity const* entity) const;
  void wakeAwaiting(Entity const& announced);
  void clear();

  size_t const capacity_;
  bool const passive_;
  std::string buf_;
  size_t head_ = 0;
  Ptr<Entity const> root_;
  uint32_t nextId_ = 1;
  std::unordered_map<Entity const*, std::unique_ptr<FlowOut>> adapters_;
  std::deque<uint32_t> waiting_;  // adapter ids, in the order their work arose
  std::unordered_map<uint32_t, FlowOut*> byId_;
  struct AwaitedAnnouncement {
    Entity const* target;
    uint32_t flow;
    size_t slot;
  };
  std::vector<AwaitedAnnouncement> awaited_;
  Entity const* flowInEntity_ = nullptr;
  int32_t flowInAttr_ = 0;
};

}  // namespace Vesk::NboAttrLog

#include "tests/fuzz/ReceivedStream.h"

#include <stdexcept>

#include "framework/attrlog/In.h"
#include "framework/attrlog/Out.h"
#include "framework/core/Exception.h"
#include "model/MountInterface.h"
#include "tests/support/AttrLogLink.h"

namespace attrlogfuzz {

namespace {

using Vesk::Entity;
using Vesk::Ptr;
using Vesk::NboAttrLog::Out;

// A copy's whole tree sent to a fresh copy. Each round carries all the writer has; a send
// still going after this many rounds is stuck.
void sendInFull(Ptr<Entity const> const& from, Ptr<Entity> const& to) {
  testsupport::AttrLogLink link(from, to, Out::minCapacity);
  for (int rounds = 0; link.carry() != 0 || !link.out->flowOutComplete(); ++rounds) {
    if (rounds > 100000) throw std::logic_error("a copy's full send does not complete");
  }
  if (link.out->size() != 0) throw std::logic_error("a copy's full send is not taken whole");
}

template <class Root>
Outcome applyTo(Ptr<Root> (*factory)(Vesk::Name const&), std::span<char const> stream) {
  Outcome outcome;
  Ptr<Root> const copy = factory(Vesk::Name("agent"));
  {
    Vesk::NboAttrLog::In in(copy);
    try {
      in.apply(stream);
    } catch (Vesk::NboAttrLog::DecodeError const& e) {
      outcome.refusal = e.what();
    } catch (Vesk::ReadOnlyProxyException const& e) {
      outcome.refusal = e.what();
    }
    outcome.applied = in.position();
  }
  sendInFull(copy, factory(Vesk::Name("agent")));
  return outcome;
}

}  // namespace

Outcomes applyToFreshCopies(std::span<char const> stream) {
  return {applyTo(&Controller::serviceMountConfigFactory, stream),
          applyTo(&Controller::serviceMountStatusFactory, stream)};
}

}  // namespace attrlogfuzz

#include "EmitAttrLog.h"

#include "Template.h"

#include <stdexcept>

namespace vgen {

namespace {

bool replicated(Attr const& a) {
  return a.kind == AttrKind::scalar || a.kind == AttrKind::collection || a.kind == AttrKind::owned;
}

// The pieces one attribute adds to the adapter and to the apply function.
struct Parts {
  std::string slotIds, handlers, sendSlot, sendDirty, puts, state, apply;
};

Vars attrVars(Schema const& s, Entity const& e, Attr const& a, int id, size_t slot) {
  if (slot > 64) {  // a flow keeps one bit per replicated attribute
    throw std::runtime_error(s.path + ":" + std::to_string(e.line) + ": entity " + e.name +
                             " replicates more than 64 attributes");
  }
  Vars v{{"T", e.name},
         {"a", a.name},
         {"A", upperFirst(a.name)},
         {"ID", std::to_string(id)},
         {"SLOT", std::to_string(slot)}};
  TypeInfo const ti = typeInfo(s, a.type);
  v["V"] = ti.cpp;
  v["PT"] = ti.pointee;
  if (!a.keyType.empty()) v["K"] = typeInfo(s, a.keyType).cpp;
  return v;
}

void emitScalarSlot(Schema const& s, Attr const& a, Vars const& v, Parts& p) {
  bool const reference = typeInfo(s, a.type).pointer;
  std::string const send = reference ? fill("sendReference({{SLOT}}, e_.{{a}}().ptr())", v)
                                     : fill("sendValue({{SLOT}}, put{{A}}())", v);
  p.sendSlot += "      case " + v.at("SLOT") + ":\n        return " + send + ";\n";
  p.sendDirty += "      case " + v.at("SLOT") + ":\n        return " + send + ";\n";
  if (a.notify) {
    p.handlers +=
        reference
            ? fill("  void on{{A}}() override { referenceChanged({{SLOT}}, e_.{{a}}().ptr()); }\n",
                   v)
            : fill("  void on{{A}}() override { scalarChanged({{SLOT}}, put{{A}}()); }\n", v);
  }
  if (!reference) {
    p.puts += fill(R"(  auto put{{A}}() {
    return [this](Vesk::NboAttrLog::Writer& w) {
      Vesk::NboAttrLog::Codec<{{V}}>::put(w, e_.{{a}}());
      return true;
    };
  }
)",
                   v);
  }
  p.apply += reference ? fill(R"(    case {{ID}}: {
      if (!change) break;
      Vesk::Ptr<{{PT}}> v = m.reference<{{PT}}>();
      m.done();
      e.{{a}}Is(v);
      return;
    }
)",
                              v)
                       : fill(R"(    case {{ID}}: {
      if (!change) break;
      {{V}} v = m.get<{{V}}>();
      m.done();
      e.{{a}}Is(v);
      return;
    }
)",
                              v);
}

// A collection's begin marker opens its walk on the reader; its end marker deletes, through
// `unbind` and the deletion, the members the walk did not send.
std::string markers(Vars const& v, std::string const& unbind) {
  Vars w = v;
  w["UNBIND"] = unbind;
  return fill(R"(      if (m.kind() == Vesk::NboAttrLog::Kind::begin) {
        m.done();
        return;
      }
      if (m.kind() == Vesk::NboAttrLog::Kind::end) {
        m.reconcile(e.{{a}}Members(), [&]({{K}} const& k) {
{{UNBIND}}          e.{{a}}Del(k);
        });
        return;
      }
)",
              w);
}

// What collections of values and of owned entities share: the walk, the dirty keys, the
// markers and the deletion.
void emitCollectionSlot(Vars const& v, std::string const& stateType, std::string const& changed,
                        std::string const& unbind, Parts& p, bool notify) {
  Vars w = v;
  w["STATE"] = stateType;
  w["CHANGED"] = changed;
  w["UNBIND"] = unbind;
  p.state += fill("  {{STATE}} {{a}}_;\n", w);
  p.sendSlot += fill(
      "      case {{SLOT}}:\n        return sendMembers({{SLOT}}, e_.{{a}}Members(), {{a}}_, "
      "put{{A}}());\n",
      w);
  p.sendDirty += fill(
      "      case {{SLOT}}:\n        return sendDirtyKeys({{SLOT}}, e_.{{a}}Members(), {{a}}_, "
      "put{{A}}());\n",
      w);
  if (notify) {
    p.handlers += fill(
        "  void on{{A}}({{K}} const& k) override {\n"
        "    {{CHANGED}}({{SLOT}}, e_.{{a}}Members(), k, {{a}}_, put{{A}}());\n"
        "  }\n",
        w);
  }
  p.apply += fill(R"(    case -{{ID}}: {
      if (!change) break;
      {{K}} k = m.get<{{K}}>();
      m.done();
{{UNBIND}}      e.{{a}}Del(k);
      return;
    }
)",
                  w);
}

void emitCollectionOfValues(Attr const& a, Vars v, Parts& p) {
  v["MARKERS"] = markers(v, "");
  emitCollectionSlot(v, fill("Vesk::NboAttrLog::CollectionSlot<{{K}}>", v), "memberChanged", "", p,
                     a.notify);
  p.puts += fill(R"(  auto put{{A}}() {
    return [](Vesk::NboAttrLog::Writer& w, {{K}} const& k, {{V}} const& v) {
      Vesk::NboAttrLog::Codec<{{K}}>::put(w, k);
      Vesk::NboAttrLog::Codec<{{V}}>::put(w, v);
      return true;
    };
  }
)",
                 v);
  p.apply += fill(R"(    case {{ID}}: {
{{MARKERS}}      {{K}} k = m.get<{{K}}>();
      {{V}} v = m.get<{{V}}>();
      m.done();
      e.{{a}}Is(k, v);
      return;
    }
)",
                  v);
}

void emitCollectionOfOwned(Schema const& s, Attr const& a, Vars v, Parts& p) {
  Entity const* member = s.entity(a.type);
  std::string putParams, readParams, args, sameParams;
  for (Attr const& param : member ? member->attrs : std::vector<Attr>{}) {
    if (param.kind != AttrKind::param) continue;
    Vars pv{{"P", param.name}, {"PT", typeInfo(s, param.type).cpp}};
    putParams += fill("        Vesk::NboAttrLog::Codec<{{PT}}>::put(w2, m.ptr()->{{P}}());\n", pv);
    readParams += fill("      {{PT}} {{P}} = m.get<{{PT}}>();\n", pv);
    args += ", " + param.name;
    sameParams += fill(" && held->{{P}}() == {{P}}", pv);
  }
  v["M"] = a.type;
  v["PUTPARAMS"] = putParams;
  v["READPARAMS"] = readParams;
  v["ARGS"] = args;
  v["MARKERS"] = markers(v, fill("          m.unbindMember(e.{{a}}(k).ptr());\n", v));
  v["SAME"] = "true" + sameParams;
  emitCollectionSlot(v, fill("Vesk::NboAttrLog::OwnedSlot<{{K}}>", v), "ownedChanged",
                     fill("      m.unbindMember(e.{{a}}(k).ptr());\n", v), p, a.notify);
  p.puts += fill(R"(  auto put{{A}}() {
    return [this](Vesk::NboAttrLog::Writer& w, {{K}} const& k, Vesk::Owned<{{M}}> const& m) {
      return putOwned(w, {{a}}_, k, *m.ptr(), [&]([[maybe_unused]] Vesk::NboAttrLog::Writer& w2) {
{{PUTPARAMS}}      });
    };
  }
)",
                 v);
  p.apply += fill(R"(    case {{ID}}: {
{{MARKERS}}      {{K}} k = m.get<{{K}}>();
      uint32_t const id = m.memberId();
{{READPARAMS}}      m.done();
      Vesk::Ptr<{{M}}> const held = e.{{a}}(k);
      m.expectFreeId(id, held.ptr());
      if (held && !({{SAME}})) {  // made again with other parameters: a new member
        m.unbindMember(held.ptr());
        e.{{a}}Del(k);
      }
      m.bindMember(id, e.{{a}}Is(k{{ARGS}}));
      return;
    }
)",
                  v);
}

}  // namespace

std::string emitAttrLog(Schema const& s, Entity const& e) {
  Parts p;
  std::string fixed;  // the key and the parameters, which no received message may set
  int id = 258;
  size_t slot = 0;
  for (Attr const& a : e.attrs) {
    if (a.kind == AttrKind::key || a.kind == AttrKind::param) {
      fixed += "    case " + std::to_string(id) + ":\n      if (change) m.notRemotelyWritable(\"" +
               a.name + "\", e);\n      break;\n";
    }
    if (replicated(a)) {
      Vars v = attrVars(s, e, a, id, slot);
      p.slotIds += (p.slotIds.empty() ? "" : ", ") + std::to_string(id);
      if (a.kind == AttrKind::scalar) emitScalarSlot(s, a, v, p);
      if (a.kind == AttrKind::collection) emitCollectionOfValues(a, v, p);
      if (a.kind == AttrKind::owned) emitCollectionOfOwned(s, a, v, p);
      ++slot;
    }
    ++id;
  }
  Vars v{{"T", e.name},
         {"t", lowerFirst(e.name)},
         {"N", std::to_string(slot)},
         {"SLOTIDS", p.slotIds},
         {"HANDLERS", p.handlers},
         {"SENDSLOT", p.sendSlot},
         {"SENDDIRTY", p.sendDirty},
         {"PUTS", p.puts},
         {"STATE", p.state},
         {"APPLY", p.apply + fixed}};
  return fill(R"(namespace {

// Replicates one {{T}} on one attribute-log stream.
class {{T}}AttrLog final : public Vesk::NboAttrLog::FlowOut, public {{T}}::NotifieeConst {
  // How each attribute's value, or member, is written; defined first so that the members
  // below can use them.
{{PUTS}}
 public:
  static constexpr std::array<int32_t, {{N}}> slotIds{ {{SLOTIDS}} };

  {{T}}AttrLog(Vesk::NboAttrLog::Out& out, {{T}} const& e, uint32_t id)
      : FlowOut(out, e, id, slotIds), e_(e) {
    notifierIs(&e);
  }

{{HANDLERS}}
 private:
  bool sendSlot([[maybe_unused]] size_t slot) override {
    switch (slot) {
{{SENDSLOT}}    }
    return true;
  }
  bool sendDirtySlot([[maybe_unused]] size_t slot) override {
    switch (slot) {
{{SENDDIRTY}}    }
    return true;
  }

  // Unread in a type whose every attribute travels with its announcement.
  [[maybe_unused]] {{T}} const& e_;
{{STATE}}};

std::unique_ptr<Vesk::NboAttrLog::FlowOut> make{{T}}AttrLog(Vesk::NboAttrLog::Out& out,
                                                         Vesk::Entity const& e, uint32_t id) {
  return std::make_unique<{{T}}AttrLog>(out, static_cast<{{T}} const&>(e), id);
}

void apply{{T}}([[maybe_unused]] Vesk::NboAttrLog::InMessage& m, Vesk::Entity& entity) {
  [[maybe_unused]] {{T}}& e = static_cast<{{T}}&>(entity);
  [[maybe_unused]] bool const change = m.kind() == Vesk::NboAttrLog::Kind::change;
  switch (m.attr()) {
{{APPLY}}    default:
      break;
  }
  m.unknownAttribute({{T}}::typeName);
}

Vesk::NboAttrLog::TypeSupport const {{t}}AttrLogSupport{ {{t}}Type, make{{T}}AttrLog, apply{{T}} };

}  // namespace

void {{T}}::veskNboAttrLogSaIs(bool enabled) {
  Vesk::NboAttrLog::typeSupportIs({{t}}AttrLogSupport, enabled);
}

)",
              v);
}

}  // namespace vgen

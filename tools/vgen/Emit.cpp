#include "Emit.h"

#include "EmitAttrLog.h"
#include "Template.h"

#include <stdexcept>

namespace vgen {

namespace {

struct Sections {
  std::string decl, privateDecl, members, inlineDefs, cppDefs, handlers, immediate, reflection;
  std::string ctorParams, ctorInit, newArgs;
};

struct Context {
  Schema const& schema;
  Entity const& entity;
  Attr const& attr;
  int id;
  Vars vars;
};

Vars baseVars(Schema const& s, Entity const& e, Attr const& a, int id) {
  Vars v{{"T", e.name},
         {"QT", e.qualified()},
         {"a", a.name},
         {"A", upperFirst(a.name)},
         {"ID", std::to_string(id)}};
  TypeInfo ti = typeInfo(s, a.type);
  v["V"] = ti.cpp;
  v["VRET"] = ti.ret;
  if (!a.keyType.empty()) v["K"] = typeInfo(s, a.keyType).cpp;
  // A module that replicates has read-only copies, which refuse local writes.
  v["WRITABLE"] = s.attrlog ? fill("  Vesk::checkWritable(*this, \"{{a}}\");\n", v) : "";
  return v;
}

// A change of state: counted first (counted types), then told to the notifiees.
std::string notifyCall(Entity const& e, Attr const& a, std::string const& call) {
  std::string out = e.counted ? "  ::Vesk::countedRecordChanged();\n" : "";
  if (a.notify) out += "  notify<NotifieeConst>([&](NotifieeConst* n) { n->" + call + "; });\n";
  return out;
}

// ---- key --------------------------------------------------------------------------------

void emitKey(Context const& c, Sections& out) {
  bool nameKey = c.attr.type == "Name";
  Vars v = c.vars;
  if (nameKey) {
    if (c.attr.name != "name") {  // Entity::name() already reads it
      out.decl += fill("  Vesk::Name const& {{a}}() const { return name(); }\n", v);
    }
    out.ctorInit += "Vesk::Entity(key)";
  } else {
    out.decl += fill("  {{V}} const& {{a}}() const { return {{a}}_; }\n", v);
    out.members += fill("  {{V}} const {{a}}_;\n", v);
    out.ctorInit += fill("Vesk::Entity(Vesk::Name(Vesk::veskText(key))), {{a}}_(key)", v);
  }
  out.ctorParams += fill("{{V}} const& key", v);
  out.newArgs += "key";
  out.reflection += fill(R"(    {{ID}}, "{{a}}", Vesk::AttributeKind::key, "{{V}}", false, false,
    [](Vesk::Entity const& e) { return Vesk::veskText(static_cast<{{QT}} const&>(e).{{a}}()); },
)",
                         v);
}

// ---- param ------------------------------------------------------------------------------

void emitParam(Context const& c, Sections& out) {
  Vars v = c.vars;
  out.decl += fill("  {{VRET}} {{a}}() const { return {{a}}_; }\n", v);
  out.members += fill("  {{V}} const {{a}}_;\n", v);
  out.ctorParams += fill(", {{V}} const& {{a}}", v);
  out.ctorInit += fill(", {{a}}_({{a}})", v);
  out.newArgs += ", " + c.attr.name;
  out.reflection += fill(R"(    {{ID}}, "{{a}}", Vesk::AttributeKind::scalar, "{{V}}", false, false,
    [](Vesk::Entity const& e) { return Vesk::veskText(static_cast<{{QT}} const&>(e).{{a}}()); },
)",
                         v);
}

// ---- settable scalar or reference --------------------------------------------------------

void emitScalar(Context const& c, Sections& out) {
  Vars v = c.vars;
  TypeInfo ti = typeInfo(c.schema, c.attr.type);
  v["NULLCHECK"] = c.attr.nonnull ? fill(
                                        "  if (!v) Vesk::throwNullParameter(\"{{a}}\", "
                                        "\"{{QT}}\");\n",
                                        v)
                                  : "";
  v["NOTIFY"] = notifyCall(c.entity, c.attr, "on" + upperFirst(c.attr.name) + "()");
  out.decl += fill(
      "  {{VRET}} {{a}}() const { return {{a}}_; }\n"
      "  void {{a}}Is({{V}} const& v);\n",
      v);
  out.members += fill("  {{V}} {{a}}_{};\n", v);
  if (c.attr.ctor) {
    out.ctorParams += fill(", {{V}} const& {{a}}", v);
    out.ctorInit += fill(", {{a}}_({{a}})", v);
    out.newArgs += ", " + c.attr.name;
  }
  out.inlineDefs += fill(R"(inline void {{T}}::{{a}}Is({{V}} const& v) {
{{WRITABLE}}{{NULLCHECK}}  if ({{a}}_ == v) return;
  {{a}}_ = v;
{{NOTIFY}}}

)",
                         v);
  if (c.attr.notify) out.handlers += fill("    virtual void on{{A}}() {}\n", v);
  v["KIND"] = ti.pointer ? "reference" : "scalar";
  if (ti.pointer) {
    v["U"] = ti.pointee;
    v["SET"] = fill(R"(
    [](Vesk::Entity& e, Vesk::String const& s) {
      auto& holder = static_cast<{{QT}}&>(e);
      return Vesk::referenceIsFromText<{{QT}}, {{U}}>(holder, &{{QT}}::{{a}}Is, s, "{{a}}");
    },)",
                    v);
  } else if (ti.parseable) {
    v["SET"] = fill(R"(
    [](Vesk::Entity& e, Vesk::String const& s) {
      {{V}} v{};
      if (!Vesk::veskParse(s, v)) return false;
      static_cast<{{QT}}&>(e).{{a}}Is(v);
      return true;
    },)",
                    v);
  } else {
    v["SET"] = "\n    nullptr,";
  }
  v["MEMBER"] = ti.pointer ? fill(R"(
    [](Vesk::Entity const& e, Vesk::String const&) -> Vesk::Ptr<Vesk::Entity> {
      Vesk::Entity const* target = static_cast<{{QT}} const&>(e).{{a}}().ptr();
      return Vesk::Ptr<Vesk::Entity>(const_cast<Vesk::Entity*>(target));
    },
)",
                                  v)
                           : "\n";
  v["NOTIFIES"] = c.attr.notify ? "true" : "false";
  out.reflection +=
      fill(R"(    {{ID}}, "{{a}}", Vesk::AttributeKind::{{KIND}}, "{{V}}", {{NOTIFIES}}, true,
    [](Vesk::Entity const& e) { return Vesk::veskText(static_cast<{{QT}} const&>(e).{{a}}()); },{{SET}}
    nullptr,{{MEMBER}})",
           v);
}

// ---- parent back pointer -----------------------------------------------------------------

void emitParent(Context const& c, Sections& out) {
  Vars v = c.vars;
  v["P"] = c.attr.type;
  out.decl += fill(
      "  {{P}}* {{a}}() const;\n"
      "  void {{a}}Is({{P}}* p) { parentIs(p); }\n",
      v);
  out.inlineDefs +=
      fill(R"(inline {{P}}* {{T}}::{{a}}() const { return static_cast<{{P}}*>(parentRaw()); }

)",
           v);
  out.reflection +=
      fill(R"(    {{ID}}, "{{a}}", Vesk::AttributeKind::reference, "{{P}}", false, false,
    [](Vesk::Entity const& e) { return e.parentRaw() ? e.parentRaw()->fullName() : Vesk::String("null"); },
    nullptr, nullptr,
    [](Vesk::Entity const& e, Vesk::String const&) { return e.parent(); },
)",
           v);
}

// ---- the members common to both kinds of collection --------------------------------------

void emitCollectionCommon(Context const& c, Sections& out, std::string const& stored) {
  Vars v = c.vars;
  v["S"] = stored;
  v["NOTIFY"] = notifyCall(c.entity, c.attr, "on" + upperFirst(c.attr.name) + "(k)");
  out.decl += fill(
      "  void {{a}}Del({{K}} const& k);\n"
      "  void {{a}}DelAll();\n"
      "  Vesk::HashMap<{{K}}, {{S}}> const& {{a}}Members() const { return {{a}}_; }\n"
      "  size_t {{a}}Size() const { return {{a}}_.size(); }\n"
      "  void {{a}}Notify({{K}} const& k) const;\n",
      v);
  out.members += fill("  Vesk::HashMap<{{K}}, {{S}}> {{a}}_;\n", v);
  out.cppDefs += fill(R"(void {{QT}}::{{a}}Del({{K}} const& k) {
{{WRITABLE}}  {{K}} const key = k;  // k may be the member's own key, which the erase destroys
  if ({{a}}_.erase(key)) {{a}}Notify(key);
}

void {{QT}}::{{a}}DelAll() {
  std::vector<{{K}}> keys;
  keys.reserve({{a}}_.size());
  for (auto const& member : {{a}}_) keys.push_back(member.first);
  for (auto const& k : keys) {{a}}Del(k);
}

void {{QT}}::{{a}}Notify([[maybe_unused]] {{K}} const& k) const {
{{NOTIFY}}}

)",
                      v);
  if (c.attr.notify) {
    out.handlers += fill(
        "    virtual void on{{A}}({{K}} const&) {}\n"
        "    virtual void on{{A}}() {}\n"
        "    virtual void on{{A}}veskImmediate() { on{{A}}(); }\n",
        v);
    out.immediate += fill("      on{{A}}veskImmediate();\n", v);
  }
}

// ---- keyed collection of scalars or values -----------------------------------------------

void emitCollection(Context const& c, Sections& out) {
  Vars v = c.vars;
  out.decl += fill(
      "  {{V}} {{a}}({{K}} const& k) const {\n"
      "    {{V}} const* v = {{a}}_.find(k);\n"
      "    return v ? *v : {{V}}{};\n"
      "  }\n"
      "  void {{a}}Is({{K}} const& k, {{V}} const& v);\n",
      v);
  out.cppDefs += fill(R"(void {{QT}}::{{a}}Is({{K}} const& k, {{V}} const& v) {
{{WRITABLE}}  auto [member, isNew] = {{a}}_.emplace(k, v);
  if (!isNew) {
    if (*member == v) return;
    *member = v;
  }
  {{a}}Notify(k);
}

)",
                      v);
  emitCollectionCommon(c, out, c.vars.at("V"));
  v["NOTIFIES"] = c.attr.notify ? "true" : "false";
  out.reflection += fill(
      R"(    {{ID}}, "{{a}}", Vesk::AttributeKind::scalarCollection, "{{V}}", {{NOTIFIES}}, true,
    nullptr, nullptr,
    [](Vesk::Entity const& e, std::function<void(Vesk::String const&, Vesk::String const&)> const& visit) {
      for (auto const& [k, v] : static_cast<{{QT}} const&>(e).{{a}}Members()) {
        visit(Vesk::veskText(k), Vesk::veskText(v));
      }
    },
    nullptr,
    Vesk::memberIsFromText<{{QT}}, {{K}}, {{V}}, &{{QT}}::{{a}}Is>(),
    nullptr,
    Vesk::memberDelFromText<{{QT}}, {{K}}, &{{QT}}::{{a}}Del>(),
)",
      v);
}

// ---- keyed collection of owned entities --------------------------------------------------

void emitOwned(Context const& c, Sections& out) {
  Vars v = c.vars;
  Entity const* member = c.schema.entity(c.attr.type);
  if (!member) {
    throw std::runtime_error(c.schema.path + ":" + std::to_string(c.attr.line) + ": owned type " +
                             c.attr.type + " is not an entity of this schema");
  }
  v["M"] = c.attr.type;
  std::string params, args, checks;
  for (Attr const& p : member->attrs) {
    if (p.kind != AttrKind::param) continue;
    Vars pv{{"P", p.name}, {"PT", typeInfo(c.schema, p.type).cpp}};
    params += fill(", {{PT}} const& {{P}}", pv);
    args += ", " + p.name;
    checks += fill(
        "    if (!(existing.{{P}}() == {{P}})) {\n"
        "      reinstantiationFailed(existing.fullName(), \"{{P}}\", Vesk::veskText({{P}}),\n"
        "                            Vesk::veskText(existing.{{P}}()));\n"
        "    }\n",
        pv);
  }
  v["PARAMS"] = params;
  v["ARGS"] = args;
  v["CHECKS"] = checks;
  v["FAIL"] =
      c.attr.nameInUse ? "Vesk::throwNameInUseReinstantiation" : "Vesk::throwEntityReinstantiation";
  out.decl += fill(
      "  Vesk::Ptr<{{M}}> {{a}}({{K}} const& k) const {\n"
      "    Vesk::Owned<{{M}}> const* m = {{a}}_.find(k);\n"
      "    return m ? m->ptr() : nullptr;\n"
      "  }\n"
      "  Vesk::Ptr<{{M}}> {{a}}Is({{K}} const& k{{PARAMS}});\n",
      v);
  out.privateDecl += fill(
      "  // Creates and inserts a member without announcing it; the caller notifies.\n"
      "  Vesk::Ptr<{{M}}> {{a}}New({{K}} const& k{{PARAMS}});\n",
      v);
  out.cppDefs += fill(R"(Vesk::Ptr<{{M}}> {{QT}}::{{a}}Is({{K}} const& k{{PARAMS}}) {
{{WRITABLE}}  if (Vesk::Owned<{{M}}> const* held = {{a}}_.find(k)) {
    [[maybe_unused]] {{M}} const& existing = *held->ptr();
    [[maybe_unused]] auto reinstantiationFailed = {{FAIL}};
{{CHECKS}}    return held->ptr();
  }
  Vesk::Ptr<{{M}}> created = {{a}}New(k{{ARGS}});
  {{a}}Notify(k);
  return created;
}

Vesk::Ptr<{{M}}> {{QT}}::{{a}}New({{K}} const& k{{PARAMS}}) {
  Vesk::Ptr<{{M}}> created(new {{M}}(k{{ARGS}}));
  {{a}}_.emplace(k, created, this, {{ID}});
  return created;
}

)",
                      v);
  emitCollectionCommon(c, out, fill("Vesk::Owned<{{M}}>", v));
  v["NOTIFIES"] = c.attr.notify ? "true" : "false";
  // Only members made from their key alone can be created from text.
  v["NEW"] =
      params.empty()
          ? fill("\n    Vesk::memberNewFromText<{{QT}}, {{K}}, {{M}}, &{{QT}}::{{a}}Is>(),", v)
          : "\n    nullptr,";
  out.reflection += fill(
      R"(    {{ID}}, "{{a}}", Vesk::AttributeKind::entityCollection, "{{M}}", {{NOTIFIES}}, true,
    nullptr, nullptr,
    [](Vesk::Entity const& e, std::function<void(Vesk::String const&, Vesk::String const&)> const& visit) {
      for (auto const& [k, m] : static_cast<{{QT}} const&>(e).{{a}}Members()) {
        visit(Vesk::veskText(k), m.ptr()->fullName());
      }
    },
    [](Vesk::Entity const& e, Vesk::String const& text) -> Vesk::Ptr<Vesk::Entity> {
      {{K}} k{};
      if (!Vesk::veskParse(text, k)) return nullptr;
      return static_cast<{{QT}} const&>(e).{{a}}(k);
    },
    nullptr,{{NEW}}
    Vesk::memberDelFromText<{{QT}}, {{K}}, &{{QT}}::{{a}}Del>(),
)",
      v);
}

// ---- whole types -------------------------------------------------------------------------

struct EntityText {
  std::string header, inlineDefs, source;
};

EntityText emitEntity(Schema const& s, Entity const& e) {
  Sections all;
  int id = 258;
  for (Attr const& a : e.attrs) {
    Context c{s, e, a, id, baseVars(s, e, a, id)};
    Sections one;
    switch (a.kind) {
      case AttrKind::key:
        emitKey(c, one);
        break;
      case AttrKind::param:
        emitParam(c, one);
        break;
      case AttrKind::scalar:
        emitScalar(c, one);
        break;
      case AttrKind::collection:
        emitCollection(c, one);
        break;
      case AttrKind::owned:
        emitOwned(c, one);
        break;
      case AttrKind::parent:
        emitParent(c, one);
        break;
    }
    all.decl += one.decl;
    all.members += one.members;
    all.privateDecl += one.privateDecl;
    all.inlineDefs += one.inlineDefs;
    all.cppDefs += one.cppDefs;
    all.handlers += one.handlers;
    all.immediate += one.immediate;
    all.reflection += "    {\n" + one.reflection + "    },\n";
    all.ctorParams += one.ctorParams;
    all.ctorInit += one.ctorInit;
    all.newArgs += one.newArgs;
    ++id;
  }
  Vars v{{"T", e.name}, {"QT", e.qualified()}, {"t", lowerFirst(e.name)}};
  v["DECL"] =
      all.decl + (s.attrlog
                      ? "  // Replicates the type over the attribute log from now on, or stops.\n"
                        "  static void veskNboAttrLogSaIs(bool enabled);\n"
                      : "");
  v["MEMBERS"] = all.members;
  v["PRIVATE"] = all.privateDecl;
  v["HANDLERS"] = all.handlers;
  v["IMMEDIATE"] = all.immediate.empty()
                       ? ""
                       : "    void onRegistered() override {\n" + all.immediate + "    }\n";
  std::string declares;
  for (auto const& d : e.declares) declares += "  " + d + "\n";
  std::string handMembers;
  for (auto const& m : e.members) handMembers += "  " + m + "\n";
  v["HANDMEMBERS"] = handMembers;
  v["DECLARES"] = declares.empty() ? "" : "\n  // Hand-written behaviour.\n" + declares;
  v["CTOR_PARAMS"] = all.ctorParams;
  v["CTOR_INIT"] = all.ctorInit;
  v["FACTORY"] =
      e.factory ? fill("\nVesk::Ptr<{{T}}> {{t}}Factory(Vesk::Name const& name);\n", v) : "";
  v["NS"] = e.ns;
  v["DTOR_DECL"] = e.hooks ? fill("  ~{{T}}() override;\n", v) : "";
  v["CTOR_BODY"] = e.hooks ? "{ veskConstructed(); }" : "{}";
  v["DTOR_DEF"] = e.hooks ? fill("\n{{T}}::~{{T}}() { veskDestroyed(); }\n", v) : "";
  v["HOOKS"] = e.hooks ? "  void veskConstructed();\n  void veskDestroyed();\n" : "";

  EntityText out;
  out.header = fill(R"(namespace {{NS}} {

class {{T}} : public Vesk::Entity {
 public:
  static constexpr char const* typeName = "{{QT}}";

  explicit {{T}}({{CTOR_PARAMS}});
{{DTOR_DECL}}
{{DECL}}
  Vesk::TypeDescription const& veskTypeDescription() const override;

  class NotifieeConst : public Vesk::BaseNotifiee<{{T}} const> {
   public:
{{HANDLERS}}{{IMMEDIATE}}  };
  class Notifiee : public NotifieeConst {
   public:
    Vesk::Ptr<{{T}}> notifier() const {
      return Vesk::const_ptr_cast<{{T}}>(NotifieeConst::notifier());
    }
  };
{{DECLARES}}
 private:
{{HOOKS}}{{PRIVATE}}{{MEMBERS}}{{HANDMEMBERS}}  [[no_unique_address]] Vesk::LiveCount<{{T}}> liveCount_;
};
{{FACTORY}}
}  // namespace {{NS}}

)",
                    v);
  out.inlineDefs = all.inlineDefs;
  v["REFLECTION"] = all.reflection;
  v["ATTRLOG"] = s.attrlog ? emitAttrLog(s, e) : "";
  v["CPPDEFS"] = all.cppDefs;
  v["FACTORYDEF"] = e.factory ? fill(R"(Vesk::Ptr<{{T}}> {{t}}Factory(Vesk::Name const& name) {
  return Vesk::Ptr<{{T}}>(new {{T}}(name));
}

)",
                                     v)
                              : "";
  out.source = fill(R"(namespace {{NS}} {

{{T}}::{{T}}({{CTOR_PARAMS}}) : {{CTOR_INIT}} {{CTOR_BODY}}
{{DTOR_DEF}}
namespace {
Vesk::AttributeDescription const {{t}}Attributes[] = {
{{REFLECTION}}};
Vesk::TypeDescription const {{t}}Type{ {{T}}::typeName, {{t}}Attributes};
}  // namespace

Vesk::TypeDescription const& {{T}}::veskTypeDescription() const { return {{t}}Type; }

{{CPPDEFS}}{{FACTORYDEF}}{{ATTRLOG}}}  // namespace {{NS}}

)",
                    v);
  return out;
}

EntityText emitEnum(Enum const& en) {
  Vars v{{"E", en.name}, {"QE", en.qualified()}, {"NS", en.ns}};
  std::string values, rows, cases;
  for (auto const& [name, value] : en.values) {
    values += "  " + name + " = " + std::to_string(value) + ",\n";
    rows += "    {" + std::to_string(value) + ", \"" + name + "\"},\n";
    cases += "    case " + std::to_string(value) + ":\n";
  }
  v["CASES"] = cases;
  v["VALUES"] = values;
  v["ROWS"] = rows;
  EntityText out;
  out.header = fill(R"(namespace {{NS}} {

enum {{E}} : uint32_t {
{{VALUES}}};

extern Vesk::EnumDescription const {{E}}Description;
Vesk::String valueToStrep({{E}} v);
// Whether v is one of the enumerators (a received value may be anything).
inline bool veskIsValue({{E}} v) {
  switch (uint32_t(v)) {
{{CASES}}      return true;
  }
  return false;
}
// Parses an enumerator name or number; false when the text is neither.
bool sequenceToValue(char const* begin, char const* end, {{E}}& out);
// The value of a number or a name; throws Vesk::RangeException for anything else.
{{E}} {{E}}Instance(unsigned v);
{{E}} {{E}}Instance(Vesk::String const& name);
std::ostream& operator<<(std::ostream& os, {{E}} v);

}  // namespace {{NS}}

)",
                    v);
  out.source = fill(R"(namespace {{NS}} {

namespace {
Vesk::EnumDescription::Value const {{E}}Values[] = {
{{ROWS}}};
}  // namespace

Vesk::EnumDescription const {{E}}Description{"{{QE}}", {{E}}Values};

Vesk::String valueToStrep({{E}} v) { return {{E}}Description.valueToStrep(uint32_t(v)); }


bool sequenceToValue(char const* begin, char const* end, {{E}}& out) {
  uint32_t v = 0;
  if (!{{E}}Description.sequenceToValue(begin, end, v)) return false;
  for (auto const& known : {{E}}Values) {
    if (known.value == v) {
      out = {{E}}(v);
      return true;
    }
  }
  return false;
}

{{E}} {{E}}Instance(unsigned v) {
  {{E}} out{};
  Vesk::String text = Vesk::veskText(v);
  if (!sequenceToValue(text.begin(), text.end(), out)) {
    Vesk::throwRangeException("{{QE}}: value out of range");
  }
  return out;
}

{{E}} {{E}}Instance(Vesk::String const& name) {
  {{E}} out{};
  if (!sequenceToValue(name.begin(), name.end(), out)) {
    Vesk::throwRangeException("{{QE}}: unknown name");
  }
  return out;
}

std::ostream& operator<<(std::ostream& os, {{E}} v) { return os << valueToStrep(v); }

}  // namespace {{NS}}

)",
                    v);
  return out;
}

}  // namespace

Output emit(Schema const& s, std::string const& schemaName) {
  Output out;
  std::string banner = "// Generated from " + schemaName + " by vgen; do not edit.\n";
  out.header = banner + "#pragma once\n\n#include <cstdint>\n#include <iosfwd>\n\n";
  for (char const* inc : {"framework/records/CountedRecords.h", "framework/core/Entity.h",
                          "framework/core/Exception.h", "framework/core/HashMap.h",
                          "framework/core/Notifiee.h", "framework/core/ValueText.h"}) {
    out.header += std::string("#include \"") + inc + "\"\n";
  }
  if (s.attrlog) out.header += "#include \"framework/core/ReadOnly.h\"\n";
  for (auto const& inc : s.includes) out.header += "#include \"" + inc + "\"\n";
  out.header += "\n";
  // Forward declarations, so that types may refer to types declared later.
  for (auto const& e : s.entities) {
    out.header += "namespace " + e.ns + " {\nclass " + e.name + ";\n}\n";
  }
  out.header += "\n";
  for (auto const& en : s.enums) out.header += emitEnum(en).header;

  out.source =
      banner + "#include \"" + s.module + ".h\"\n\n#include <ostream>\n#include <vector>\n\n";
  out.source += "#include \"framework/core/ReflectionWriters.h\"\n";
  out.source += "#include \"framework/core/TypeRegistry.h\"\n";
  if (s.attrlog) {
    out.source +=
        "#include <array>\n#include <memory>\n\n#include \"framework/attrlog/FlowOut.h\"\n"
        "#include \"framework/attrlog/In.h\"\n#include \"framework/attrlog/TypeSupport.h\"\n";
  }
  out.source += "\n";
  for (auto const& en : s.enums) out.source += emitEnum(en).source;

  std::string inlineDefs, registrations;
  for (auto const& e : s.entities) {
    EntityText t = emitEntity(s, e);
    out.header += t.header;
    out.source += t.source;
    if (!t.inlineDefs.empty())
      inlineDefs +=
          "namespace " + e.ns + " {\n\n" + t.inlineDefs + "}  // namespace " + e.ns + "\n\n";
    if (e.factory) {
      registrations +=
          "  Vesk::typeFactoryIs(Vesk::String(" + e.qualified() +
          "::typeName), [](Vesk::Name const& n) -> Vesk::Ptr<Vesk::Entity> {\n    return " +
          e.qualified().substr(0, e.qualified().size() - e.name.size()) + lowerFirst(e.name) +
          "Factory(n);\n  });\n";
    }
  }
  out.header += inlineDefs;
  out.header +=
      "// Registers the types of this module that can be created by name.\nvoid register" +
      s.module + "Types();\n";
  out.source += "void register" + s.module + "Types() {\n" + registrations + "}\n";
  if (s.attrlog) {
    std::string enables;
    for (auto const& e : s.entities)
      enables += "  " + e.qualified() + "::veskNboAttrLogSaIs(enabled);\n";
    out.header +=
        "// Replicates every type of this module over the attribute log from now on, or "
        "stops.\nvoid " +
        lowerFirst(s.module) + "AttrLogIs(bool enabled);\n";
    out.source +=
        "\nvoid " + lowerFirst(s.module) + "AttrLogIs(bool enabled) {\n" + enables + "}\n";
  }
  return out;
}

}  // namespace vgen

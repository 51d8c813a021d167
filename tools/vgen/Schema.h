// The schema of one model module, as read from its schema file.
//
// A schema is line oriented; '#' starts a comment. Statements:
//
//   module <Name>                   base name of the generated files
//   namespace <a::b>                namespace of the enums and entities that follow
//   include "<path>"                an include of the generated header
//   attrlog                         every entity of the module replicates over the
//                                   attribute log, and a read-only copy refuses local writes
//   enum <Name>                     an enumeration stored as an unsigned 32-bit value,
//     <enumerator> = <number>       one line per value, up to "end"
//   end
//   entity <Name> [factory] [hooks] [counted]
//                                   an entity type; "factory" makes it creatable by name in
//                                   a directory (<name>Factory(Name) and the type registry);
//                                   "hooks" has the constructor end with veskConstructed()
//                                   and the destructor begin with veskDestroyed(), both
//                                   hand-written; "counted" adds each change of its state to
//                                   the count of framework/records/CountedRecords.h
//     key <attr> : <Type>           the key; the entity's name is its text form
//     param <attr> : <Type>         immutable constructor parameter
//     attr <attr> : <Type> [notify] [nonnull] [ctor]
//                                   settable scalar or reference; "ctor" makes it a
//                                   constructor parameter too
//     collection <attr> : <Key> -> <Value> [notify]
//                                   keyed collection of scalars or values
//     owned <attr> : <Key> -> <Entity> [notify] [nameInUse]
//                                   keyed collection of owned entities; nameInUse makes a
//                                   differing re-creation a name-in-use failure ending in
//                                   " not allowed"
//     parent <attr> : <Entity>      back pointer to the owning entity (not owning)
//     declare "<declaration>"       a hand-written public member, defined in ordinary source
//     member "<declaration>"        a private data member that hand-written members use
//   end
//
// Types: String, Name, bool, u32, u64, Seconds; @T for a pointer to an entity, @const T for
// a pointer to a const entity; any other name (an enumeration of this schema, or a value
// type from an included header) is used as it is.
//
// Names are C++ identifiers (a namespace: identifiers joined by "::"). A type is declared
// once per namespace, an attribute once per entity, and an enumerator name or value once
// per enum. An entity has one key, and its constructor parameters come after it (the
// constructor takes the key first). The reader refuses a schema that breaks this instead of
// generating C++ that does not compile.
#pragma once

#include <string>
#include <vector>

namespace vgen {

enum class AttrKind { key, param, scalar, collection, owned, parent };

struct Attr {
  AttrKind kind;
  std::string name;
  std::string type;     // the value type as written (for collections: the value)
  std::string keyType;  // collections only
  bool notify = false;
  bool nonnull = false;
  bool nameInUse = false;
  bool ctor = false;
  int line = 0;
};

struct Entity {
  std::string name;
  std::string ns;
  bool factory = false;
  bool hooks = false;
  bool counted = false;
  std::vector<Attr> attrs;
  std::vector<std::string> declares;
  std::vector<std::string> members;
  int line = 0;
  std::string qualified() const { return ns.empty() ? name : ns + "::" + name; }
};

struct Enum {
  std::string name;
  std::string ns;
  std::vector<std::pair<std::string, unsigned>> values;
  std::string qualified() const { return ns.empty() ? name : ns + "::" + name; }
};

struct Schema {
  std::string module;
  std::string path;
  std::vector<std::string> includes;
  bool attrlog = false;
  std::vector<Enum> enums;
  std::vector<Entity> entities;

  Entity const* entity(std::string const& nameOrQualified) const;
  bool isEnum(std::string const& type) const;
};

// Reads a schema; throws std::runtime_error with "file:line: message" on a malformed one.
Schema parseSchema(std::string const& path);

}  // namespace vgen

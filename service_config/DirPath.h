// doCreateDirPath: makes sure a chain of directories exists under a root.
//
// Every "/"-separated component of path, taken relative to root, is looked up in the
// directory reached so far and created as a Vesk::Dir when missing. Empty components (a
// leading "/", "//", a trailing "/") name nothing and are skipped, so "/a//b/" is "a/b".
//
// The walk never fails towards its caller: a component that exists but is not a directory
// stops it with a trace, and the result is null. Otherwise the result is the directory the
// last component names (root itself for a path with no components).
//
// TYPICAL USAGE:
//   Vesk::Ptr<Vesk::Dir> dir = doCreateDirPath(root, "publish/foo/bar");
#pragma once

#include "framework/core/Dir.h"

namespace Controller {

Vesk::Ptr<Vesk::Dir> doCreateDirPath(Vesk::Ptr<Vesk::Dir> root, Vesk::String path);

}  // namespace Controller

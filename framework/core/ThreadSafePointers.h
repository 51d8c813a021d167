// threadSafePointers_: the process-wide switch that makes reference counts, and the small
// block store behind the framework allocator, safe to share between threads.
//
// Off, every count is a plain increment and the store takes no lock. Switch it on before a
// second thread touches a framework pointer, a string or a keyed collection.
#pragma once

namespace Vesk {

extern bool threadSafePointers_;

}  // namespace Vesk

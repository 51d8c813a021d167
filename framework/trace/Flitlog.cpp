#include "framework/trace/Flitlog.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <utility>

#include "framework/core/Assert.h"
#include "framework/core/CloseOnExec.h"
#include "framework/core/Exception.h"

namespace Vesk {

namespace {

[[noreturn]] void throwSystemError(char const* what, String const& path, int err) {
  throw Exception(String(what) + " " + path + ": " + std::strerror(err));
}

// Zeroed memory for an image. calloc: a large block comes fresh from the system, already
// zero, so pages the trace never reaches are neither written nor resident.
std::byte* allocateImage(size_t bytes) {
  void* image = std::calloc(bytes, 1);
  if (!image)
    throw Exception("cannot allocate " + std::to_string(bytes) + " bytes of trace memory");
  return static_cast<std::byte*>(image);
}

// Creates or truncates the file at `path` and writes `image` to it whole, which also
// reserves its blocks: a full disk fails here, not at a later flush.
std::FILE* createFile(String const& path, std::span<std::byte const> image) {
  std::FILE* out = std::fopen(path.charPtr(), "wb" VESK_CLOEXEC_MODE);
  if (!out) throwSystemError("cannot open trace file", path, errno);
  // Unbuffered: a flush is one write of the image straight from memory, with no stdio
  // buffer to allocate or to leave half written.
  std::setvbuf(out, nullptr, _IONBF, 0);
  if (std::fwrite(image.data(), 1, image.size(), out) != image.size() || std::fflush(out) != 0) {
    int const err = errno;
    std::fclose(out);
    throwSystemError("cannot write trace file", path, err);
  }
  return out;
}

std::string_view baseName(char const* path) {
  std::string_view p(path ? path : "");
  size_t slash = p.rfind('/');
  return slash == std::string_view::npos ? p : p.substr(slash + 1);
}

template <class T>
char* put(char* p, T value) {
  std::memcpy(p, &value, sizeof value);
  return p + sizeof value;
}

char* putBytes(char* p, std::string_view s) {
  if (!s.empty()) std::memcpy(p, s.data(), s.size());  // an empty view may have no data
  return p + s.size();
}

}  // namespace

Flitlog::Flitlog(String path, size_t bytes)
    : path_(std::move(path)),
      image_(allocateImage(bytes)),
      imageBytes_(bytes),
      header_(reinterpret_cast<flit::Header*>(image_)) {
  uint64_t const descBytes = ((bytes - flit::headerAreaBytes) / 4) & ~uint64_t(7);
  uint64_t const ringOffset = flit::headerAreaBytes + descBytes;
  ringBytes_ = (bytes - ringOffset) & ~uint64_t(7);
  ring_ = reinterpret_cast<char*>(image_) + ringOffset;
  maxPayload_ = ringBytes_ / 4 - sizeof(flit::MsgHeader);

  flit::Header h{};
  h.version = flit::formatVersion;
  h.headerBytes = sizeof(flit::Header);
  h.fileBytes = bytes;
  h.descOffset = flit::headerAreaBytes;
  h.descBytes = descBytes;
  h.ringOffset = ringOffset;
  h.ringBytes = ringBytes_;
  // The standard library offers no process id; readers take 0 as unknown.
  h.pid = 0;
  std::memcpy(header_, &h, sizeof h);
  // The magic goes last: a file with it is fully laid out.
  std::memcpy(header_->magic, flit::magic, sizeof flit::magic);
}

Flitlog::~Flitlog() {
  if (out_) {
    writeFile();
    std::fclose(out_);
  }
  std::free(image_);
}

Flitlog* Flitlog::open(String const& path, size_t bytes) {
  bytes &= ~size_t(7);
  if (bytes < flit::minFileBytes) {
    throwRangeException("a flitlog trace file needs at least 16384 bytes");
  }
  if (bytes > flit::maxFileBytes) {
    throwRangeException("a flitlog trace file holds at most 1073741824 bytes");
  }
  std::unique_ptr<Flitlog> log(new Flitlog(path, bytes));
  if (!path.empty()) log->out_ = createFile(path, {log->image_, log->imageBytes_});
  return log.release();
}

void Flitlog::fileIs(String const& path, size_t bytes) {
  Flitlog* previous = std::exchange(current_, open(path, bytes));
  if (++generation_ == 0) generation_ = 2;
  // Written out once no longer current, so that a flush() meanwhile cannot reach it.
  delete previous;
}

namespace {

// Writes the image when an assertion fails and at normal exit. Constructed while this
// file's statics are initialised, so destroyed after every static object constructed later
// (the function-local ones created while main runs among them): what their destructors
// trace is written too.
struct WriteAtExit {
  WriteAtExit() noexcept { assertionHookIs(&Flitlog::flush); }
  ~WriteAtExit() { Flitlog::flush(); }
} writeAtExit;

}  // namespace

void Flitlog::flush() noexcept {
  static std::atomic_flag busy;
  if (!current_ || !current_->out_ || busy.test_and_set()) return;
  current_->writeFile();
  busy.clear();
}

void Flitlog::writeFile() noexcept {
  if (std::fseek(out_, 0, SEEK_SET) == 0 &&
      std::fwrite(image_, 1, imageBytes_, out_) == imageBytes_ && std::fflush(out_) == 0) {
    return;
  }
  if (!writeFailed_) {
    writeFailed_ = true;
    std::fprintf(stderr, "cannot write trace file %s: %s\n", path_.charPtr(), std::strerror(errno));
  }
  std::clearerr(out_);
}

Flitlog& Flitlog::openFromEnvironment() {
  char const* path = std::getenv("VESK_FLITLOG_FILE");
  char const* sizeText = std::getenv("VESK_FLITLOG_BYTES");
  size_t bytes = defaultBytes;
  if (sizeText && *sizeText) {
    std::string_view s(sizeText);
    auto [end, ec] = std::from_chars(s.data(), s.data() + s.size(), bytes);
    if (ec != std::errc() || end != s.data() + s.size()) {
      std::fprintf(stderr, "VESK_FLITLOG_BYTES=%s is not a byte count; using %zu\n", sizeText,
                   defaultBytes);
      bytes = defaultBytes;
    }
  }
  String p(path ? path : "");
  try {
    fileIs(p, bytes);
  } catch (std::exception const& e) {
    // Tracing must not stop the process: fall back to memory nobody else can read.
    std::fprintf(stderr, "%s; tracing to memory only instead\n", e.what());
    fileIs(String(), defaultBytes);
  }
  return *current_;
}

String Flitlog::file() { return current().path_; }

std::span<std::byte const> Flitlog::image() {
  Flitlog& log = current();
  return {log.image_, log.imageBytes_};
}

void Flitlog::registerSite(FlitSite& site, std::string_view module, int level,
                           std::string_view format, std::span<std::string const> pieces) {
  current().registerDescriptor(site, module, level, format, pieces);
}

void Flitlog::registerDescriptor(FlitSite& site, std::string_view module, int level,
                                 std::string_view format, std::span<std::string const> pieces) {
  VESK_ASSERT(pieces.size() == format.size() + 1);
  std::string_view const file = baseName(site.file).substr(0, UINT16_MAX);
  module = module.substr(0, UINT16_MAX);
  uint64_t bytes = sizeof(flit::DescHeader) + 2 + module.size() + 2 + file.size() + format.size();
  for (std::string const& piece : pieces) bytes += 4 + piece.size();
  bytes = flit::align8(bytes);

  site.generation = generation_;
  flit::Header& h = *header_;
  if (h.descFill + bytes > h.descBytes || format.size() > UINT16_MAX) {
    ++h.lostDescriptors;
    site.id = 0;
    return;
  }
  char* const start = reinterpret_cast<char*>(image_) + h.descOffset + h.descFill;
  uint32_t const id = h.descriptors + 1;
  flit::DescHeader const d{uint32_t(bytes), id,         site.line,
                           uint8_t(level),  site.flags, uint16_t(format.size())};
  char* p = put(start, d);
  p = putBytes(put(p, uint16_t(module.size())), module);
  p = putBytes(put(p, uint16_t(file.size())), file);
  p = putBytes(p, format);
  for (std::string const& piece : pieces) p = putBytes(put(p, uint32_t(piece.size())), piece);
  std::memset(p, 0, size_t(start + bytes - p));
  // Publish only a whole descriptor.
  h.descriptors = id;
  h.descFill += bytes;
  site.id = id;
}

void Flitlog::makeRoom(uint32_t bytes) noexcept {
  uint64_t const pad = headOff_ + bytes > ringBytes_ ? ringBytes_ - headOff_ : 0;
  // Once the ring is full, every message would drop the oldest one through here; dropping
  // a sixty-fourth of the ring at a time lets the next messages skip this.
  uint64_t const room = std::min(pad + bytes + ringBytes_ / 64, ringBytes_);
  bool const moved = headPos_ + room - tailPos_ > ringBytes_;
  while (headPos_ + room - tailPos_ > ringBytes_) {
    uint32_t old;
    std::memcpy(&old, ring_ + tailOff_, sizeof old);
    tailPos_ += old;
    tailOff_ += old;
    if (tailOff_ == ringBytes_) tailOff_ = 0;
  }
  if (moved) header_->tail = tailPos_;
  if (pad) {
    put(put(ring_ + headOff_, uint32_t(pad)), uint32_t(0));
    headPos_ += pad;
    headOff_ = 0;
    header_->head = headPos_;
  }
}

}  // namespace Vesk

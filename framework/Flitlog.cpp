#include "framework/Flitlog.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "framework/Assert.h"
#include "framework/Exception.h"

namespace Vesk {

namespace {

[[noreturn]] void throwSystemError(char const* what, String const& path, int err) {
  throw Exception(String(what) + " " + path + ": " + std::strerror(err));
}

void* mapFile(String const& path, size_t bytes) {
  int fd = ::open(path.charPtr(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
  if (fd < 0) throwSystemError("cannot open trace file", path, errno);
  int err = 0;
  if (::ftruncate(fd, 0) != 0 || ::ftruncate(fd, off_t(bytes)) != 0) err = errno;
  // Reserve the blocks now: a full disk must fail here, not as a fault mid-message.
  if (!err) err = ::posix_fallocate(fd, 0, off_t(bytes));
  void* map = MAP_FAILED;
  if (!err) {
    map = ::mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    if (map == MAP_FAILED) err = errno;
  }
  ::close(fd);
  if (err) throwSystemError("cannot size and map trace file", path, err);
  return map;
}

void* mapAnonymous(size_t bytes) {
  void* map = ::mmap(nullptr, bytes, PROT_READ | PROT_WRITE,
                     MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
  if (map == MAP_FAILED) throwSystemError("cannot map", "anonymous trace memory", errno);
  return map;
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
  std::memcpy(p, s.data(), s.size());
  return p + s.size();
}

}  // namespace

Flitlog::Flitlog(String path, void* map, size_t bytes)
    : path_(std::move(path)),
      map_(map),
      mapBytes_(bytes),
      header_(static_cast<flit::Header*>(map)) {
  uint64_t const descBytes = ((bytes - flit::headerAreaBytes) / 4) & ~uint64_t(7);
  uint64_t const ringOffset = flit::headerAreaBytes + descBytes;
  ringBytes_ = (bytes - ringOffset) & ~uint64_t(7);
  ring_ = static_cast<char*>(map) + ringOffset;
  maxPayload_ = ringBytes_ / 4 - sizeof(flit::MsgHeader);

  flit::Header h{};
  h.version = flit::formatVersion;
  h.headerBytes = sizeof(flit::Header);
  h.fileBytes = bytes;
  h.descOffset = flit::headerAreaBytes;
  h.descBytes = descBytes;
  h.ringOffset = ringOffset;
  h.ringBytes = ringBytes_;
  h.pid = uint32_t(::getpid());
  std::memcpy(header_, &h, sizeof h);
  // The magic goes last: a file with it is fully laid out.
  std::memcpy(header_->magic, flit::magic, sizeof flit::magic);
}

Flitlog::~Flitlog() { ::munmap(map_, mapBytes_); }

Flitlog* Flitlog::open(String const& path, size_t bytes) {
  bytes &= ~size_t(7);
  if (bytes < flit::minFileBytes) {
    throwRangeException("a flitlog trace file needs at least 16384 bytes");
  }
  void* map = path.empty() ? mapAnonymous(bytes) : mapFile(path, bytes);
  return new Flitlog(path, map, bytes);
}

void Flitlog::fileIs(String const& path, size_t bytes) {
  Flitlog* next = open(path, bytes);
  delete current_;
  current_ = next;
  if (++generation_ == 0) generation_ = 2;
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
    std::fprintf(stderr, "%s; tracing to anonymous memory instead\n", e.what());
    fileIs(String(), defaultBytes);
  }
  return *current_;
}

String Flitlog::file() { return current().path_; }

std::span<std::byte const> Flitlog::image() {
  Flitlog& log = current();
  return {static_cast<std::byte const*>(log.map_), log.mapBytes_};
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
  char* const start = static_cast<char*>(map_) + h.descOffset + h.descFill;
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

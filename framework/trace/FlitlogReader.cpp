#include "framework/trace/FlitlogReader.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string_view>

#include "framework/trace/FlitlogLayout.h"
#include "framework/trace/TraceArg.h"

namespace Vesk {

namespace {

// Bounds-checked reads from a byte range.
class Cursor {
 public:
  Cursor(std::byte const* p, size_t n) : p_(p), left_(n) {}

  template <class T>
  bool read(T& out) {
    if (left_ < sizeof(T)) return false;
    std::memcpy(&out, p_, sizeof(T));
    skip(sizeof(T));
    return true;
  }
  bool text(size_t n, std::string_view& out) {
    if (left_ < n) return false;
    out = std::string_view(reinterpret_cast<char const*>(p_), n);
    skip(n);
    return true;
  }
  template <class Length>
  bool lengthAndText(std::string_view& out) {
    Length n;
    return read(n) && text(n, out);
  }

 private:
  void skip(size_t n) {
    p_ += n;
    left_ -= n;
  }
  std::byte const* p_;
  size_t left_;
};

struct Descriptor {
  std::string module;
  std::string file;
  uint32_t line = 0;
  int level = 0;
  std::string format;
  std::vector<std::string> pieces;
};

bool validCode(char c) { return std::strchr("piIqQd", c) != nullptr && c != '\0'; }

std::string parseDescriptors(std::span<std::byte const> area, std::vector<Descriptor>& out) {
  size_t pos = 0;
  while (pos < area.size()) {
    flit::DescHeader d;
    Cursor head(area.data() + pos, area.size() - pos);
    if (!head.read(d) || d.bytes < sizeof d || d.bytes % 8 || d.bytes > area.size() - pos) {
      return "damaged descriptor record at descriptor offset " + std::to_string(pos);
    }
    if (d.id != out.size() + 1) return "descriptor ids out of order at id " + std::to_string(d.id);
    Cursor c(area.data() + pos + sizeof d, d.bytes - sizeof d);
    Descriptor desc;
    std::string_view module, file, format;
    bool ok = c.lengthAndText<uint16_t>(module) && c.lengthAndText<uint16_t>(file) &&
              c.text(d.args, format);
    for (uint32_t i = 0; ok && i <= d.args; ++i) {
      std::string_view piece;
      ok = c.lengthAndText<uint32_t>(piece);
      desc.pieces.emplace_back(piece);
    }
    for (char code : format) ok = ok && validCode(code);
    if (!ok) return "damaged descriptor " + std::to_string(d.id);
    desc.module = module;
    desc.file = file;
    desc.line = d.line;
    desc.level = d.level;
    desc.format = format;
    out.push_back(std::move(desc));
    pos += d.bytes;
  }
  return {};
}

template <class V>
bool appendValue(Cursor& c, std::string& text) {
  V v;
  if (!c.read(v)) return false;
  if constexpr (std::is_floating_point_v<V>) {
    detail::appendNumber(text, double(v));
  } else if constexpr (std::is_signed_v<V>) {
    detail::appendNumber(text, int64_t(v));
  } else {
    detail::appendNumber(text, uint64_t(v));
  }
  return true;
}

bool decodeArguments(Descriptor const& d, Cursor& c, std::string& text) {
  text = d.pieces[0];
  for (size_t i = 0; i < d.format.size(); ++i) {
    bool ok = false;
    switch (d.format[i]) {
      case 'p': {
        std::string_view s;
        ok = c.lengthAndText<uint32_t>(s);
        text.append(s);
        break;
      }
      case 'i':
        ok = appendValue<int32_t>(c, text);
        break;
      case 'I':
        ok = appendValue<uint32_t>(c, text);
        break;
      case 'q':
        ok = appendValue<int64_t>(c, text);
        break;
      case 'Q':
        ok = appendValue<uint64_t>(c, text);
        break;
      case 'd':
        ok = appendValue<double>(c, text);
        break;
    }
    if (!ok) return false;
    text.append(d.pieces[i + 1]);
  }
  return true;
}

}  // namespace

std::string FlitMessage::lineText() const {
  return module + ":" + std::to_string(line) + " " + text;
}

FlitDecoding decodeFlitlog(std::span<std::byte const> image) {
  FlitDecoding result;
  flit::Header h;
  if (image.size() < flit::headerAreaBytes) {
    result.error = "too short for a flitlog trace file";
    return result;
  }
  std::memcpy(&h, image.data(), sizeof h);
  if (std::memcmp(h.magic, flit::magic, sizeof h.magic) != 0) {
    result.error = "not a flitlog trace file";
    return result;
  }
  if (h.version != flit::formatVersion || h.headerBytes != sizeof h) {
    result.error = "flitlog format version " + std::to_string(h.version) + " not supported";
    return result;
  }
  uint64_t const size = image.size();
  bool const laidOut = h.fileBytes <= size && h.descOffset >= flit::headerAreaBytes &&
                       h.descBytes <= size && h.descOffset <= size - h.descBytes &&
                       h.descFill <= h.descBytes && h.ringOffset >= h.descOffset + h.descBytes &&
                       h.ringBytes <= size && h.ringOffset <= size - h.ringBytes &&
                       h.ringBytes >= 64 && h.ringBytes % 8 == 0 && h.tail <= h.head &&
                       h.head - h.tail <= h.ringBytes;
  if (!laidOut) {
    result.error = "damaged flitlog header";
    return result;
  }
  result.lostDescriptors = h.lostDescriptors;

  std::vector<Descriptor> descriptors;
  result.error = parseDescriptors(image.subspan(h.descOffset, h.descFill), descriptors);
  if (!result.ok()) return result;

  std::byte const* const ring = image.data() + h.ringOffset;
  for (uint64_t pos = h.tail; pos < h.head;) {
    uint64_t const off = pos % h.ringBytes;
    flit::MsgHeader m{};
    Cursor head(ring + off, h.ringBytes - off);
    bool ok = head.read(m.bytes) && head.read(m.id) && m.bytes >= flit::paddingBytes &&
              m.bytes % 8 == 0 && m.bytes <= h.ringBytes - off && m.bytes <= h.head - pos;
    if (ok && m.id == 0) {
      // Padding always runs to the end of the ring.
      if (off + m.bytes == h.ringBytes) {
        pos += m.bytes;
        continue;
      }
      ok = false;
    }
    ok = ok && m.bytes >= sizeof m && m.id <= descriptors.size() && head.read(m.sequence);
    FlitMessage msg;
    if (ok) {
      Descriptor const& d = descriptors[m.id - 1];
      Cursor body(ring + off + sizeof m, m.bytes - sizeof m);
      ok = decodeArguments(d, body, msg.text);
      msg.sequence = m.sequence;
      msg.module = d.module;
      msg.file = d.file;
      msg.line = d.line;
      msg.level = d.level;
    }
    if (!ok) {
      result.error = "damaged message record at ring position " + std::to_string(pos);
      return result;
    }
    if (result.messages.empty()) result.lostMessages = msg.sequence;
    result.messages.push_back(std::move(msg));
    pos += m.bytes;
  }
  return result;
}

namespace {

// Reads up to `bytes` more bytes of f into `into`; false on a read error.
bool readUpTo(std::FILE* f, std::vector<std::byte>& into, size_t bytes) {
  size_t const start = into.size();
  into.resize(start + bytes);
  size_t const n = std::fread(into.data() + start, 1, bytes, f);
  into.resize(start + n);
  return !std::ferror(f);
}

std::string checkedFileLength(std::vector<std::byte> const& head, uint64_t& fileBytes) {
  if (head.size() < flit::headerAreaBytes) return "truncated: too short for a flitlog header";
  flit::Header h;
  std::memcpy(&h, head.data(), sizeof h);
  if (std::memcmp(h.magic, flit::magic, sizeof h.magic) != 0) return "not a flitlog trace file";
  if (h.fileBytes < flit::headerAreaBytes || h.fileBytes > flit::maxFileBytes) {
    return "damaged flitlog header: a file length of " + std::to_string(h.fileBytes) + " bytes";
  }
  fileBytes = h.fileBytes;
  return "";
}

}  // namespace

FlitDecoding readFlitlogFile(std::string const& path) {
  FlitDecoding result;
  std::FILE* f = std::fopen(path.c_str(), "rb");
  if (!f) {
    result.error = "cannot open " + path + ": " + std::strerror(errno);
    return result;
  }
  std::vector<std::byte> bytes;
  uint64_t fileBytes = 0;
  bool readOk = readUpTo(f, bytes, flit::headerAreaBytes);
  if (readOk) result.error = checkedFileLength(bytes, fileBytes);
  if (readOk && result.ok()) readOk = readUpTo(f, bytes, fileBytes - bytes.size());
  std::fclose(f);
  if (!readOk) {
    result.error = "cannot read " + path;
    return result;
  }
  if (!result.ok()) return result;
  if (bytes.size() < fileBytes) {
    result.error = "truncated: " + std::to_string(bytes.size()) + " of the " +
                   std::to_string(fileBytes) + " bytes its header announces";
    return result;
  }
  return decodeFlitlog(bytes);
}

}  // namespace Vesk

#include "framework/trace/Trace.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "framework/core/Assert.h"
#include "framework/core/CloseOnExec.h"
#include "framework/core/Exception.h"
#include "framework/core/HashMap.h"

namespace Vesk {

namespace {

HashMap<Name, TraceHandle*>& registry() {
  static HashMap<Name, TraceHandle*> handles;
  return handles;
}

std::string_view trimmed(std::string_view s) {
  size_t const b = s.find_first_not_of(" \t");
  if (b == std::string_view::npos) return {};
  return s.substr(b, s.find_last_not_of(" \t") - b + 1);
}

bool matches(std::string_view pattern, std::string_view module) {
  if (!pattern.empty() && pattern.back() == '*') {
    return module.substr(0, pattern.size() - 1) == pattern.substr(0, pattern.size() - 1);
  }
  return pattern == module;
}

// Applies every entry of `config` that matches `module` to `level`, in order; calls
// `malformed` with each entry that does not parse.
template <class F>
int applyConfig(std::string_view config, std::string_view module, int level, F&& malformed) {
  while (!config.empty()) {
    size_t const comma = config.find(',');
    std::string_view entry = trimmed(config.substr(0, comma));
    config = comma == std::string_view::npos ? std::string_view() : config.substr(comma + 1);
    if (entry.empty()) continue;
    size_t const eq = entry.find('=');
    std::string_view const pattern = trimmed(entry.substr(0, eq));
    int entryLevel = TraceHandle::onLevel;
    if (eq != std::string_view::npos) {
      std::string_view const text = trimmed(entry.substr(eq + 1));
      auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), entryLevel);
      if (text.empty() || ec != std::errc() || end != text.data() + text.size() || entryLevel < 0 ||
          entryLevel > TraceHandle::maxLevel) {
        malformed(entry);
        continue;
      }
    }
    if (pattern.empty() || pattern.find('*') < pattern.size() - 1) {
      malformed(entry);
      continue;
    }
    if (matches(pattern, module)) level = entryLevel;
  }
  return level;
}

int levelFromEnvironment(std::string_view module, int level) {
  char const* env = std::getenv("VESK_TRACE");
  if (!env) return level;
  // Report a bad entry once per value of the variable, not once per handle.
  static std::string reported;
  bool const report = reported != env;
  if (report) reported = env;
  return applyConfig(env, module, level, [&](std::string_view entry) {
    if (report) {
      std::fprintf(stderr, "VESK_TRACE: ignoring malformed entry '%.*s'\n", int(entry.size()),
                   entry.data());
    }
  });
}

int8_t clampLevel(int level) { return int8_t(std::clamp(level, 0, TraceHandle::maxLevel)); }

}  // namespace

int traceLevelFor(std::string_view config, std::string_view module, int level) {
  return applyConfig(config, module, level, [](std::string_view) {});
}

TraceHandle::TraceHandle(String name, bool onByDefault) : name_(std::move(name)) {
  if (registry().contains(name_)) {
    throwNameInUseException("trace handle " + name_ + " already exists");
  }
  ownLevel_ = clampLevel(levelFromEnvironment(name_.view(), onByDefault ? onLevel : 0));
  applyCapture(TraceCapture::active() != nullptr);
  registry().emplace(name_, this);
}

TraceHandle::~TraceHandle() { registry().erase(name_); }

void TraceHandle::levelIs(int level) {
  ownLevel_ = clampLevel(level);
  applyCapture(TraceCapture::active() != nullptr);
}

void TraceHandle::applyCapture(bool active) noexcept {
  level_ = active ? std::max<int8_t>(ownLevel_, detailLevel) : ownLevel_;
}

TraceHandle* TraceHandle::handle(Name const& name) {
  TraceHandle** h = registry().find(name);
  return h ? *h : nullptr;
}

std::vector<TraceHandle*> TraceHandle::handles() {
  std::vector<TraceHandle*> out;
  for (auto& [name, handle] : registry()) out.push_back(handle);
  std::sort(out.begin(), out.end(),
            [](TraceHandle* a, TraceHandle* b) { return a->name() < b->name(); });
  return out;
}

// ---- text trace

namespace {

struct TextTraceState {
  bool initialized = false;
  std::FILE* out = stderr;
  String path;
};

// Never destroyed: static destructors may still write text lines.
TextTraceState& textTrace() {
  static TextTraceState& state = *new TextTraceState;
  return state;
}

// Appending and unbuffered, like stderr: each line goes out in one write as it is traced.
std::FILE* openTextFile(String const& path) {
  std::FILE* out = std::fopen(path.charPtr(), "a" VESK_CLOEXEC_MODE);
  if (out) std::setvbuf(out, nullptr, _IONBF, 0);
  return out;
}

void setTextDestination(TextTraceState& s, std::FILE* out, String const& path) {
  if (s.out != stderr) std::fclose(s.out);
  s.out = out;
  s.path = path;
  s.initialized = true;
}

TextTraceState& initializedTextTrace() {
  TextTraceState& s = textTrace();
  if (s.initialized) return s;
  s.initialized = true;
  char const* path = std::getenv("VESK_TRACE_TEXT");
  if (path && *path) {
    if (std::FILE* out = openTextFile(path)) {
      setTextDestination(s, out, path);
    } else {
      std::fprintf(stderr, "VESK_TRACE_TEXT: cannot open %s: %s; tracing to stderr\n", path,
                   std::strerror(errno));
    }
  }
  return s;
}

}  // namespace

void TraceText::fileIs(String const& path) {
  TextTraceState& s = textTrace();
  if (path.empty()) {
    setTextDestination(s, stderr, path);
    return;
  }
  std::FILE* out = openTextFile(path);
  if (!out) throw Exception("cannot open text trace file " + path + ": " + std::strerror(errno));
  setTextDestination(s, out, path);
}

String TraceText::file() { return initializedTextTrace().path; }

void TraceText::lineIs(char const* file, uint32_t line, std::string_view module,
                       std::string_view text) {
  std::string_view base(file ? file : "");
  if (size_t slash = base.rfind('/'); slash != std::string_view::npos) {
    base = base.substr(slash + 1);
  }
  std::string out;
  out.reserve(base.size() + module.size() + text.size() + 16);
  out.append(base).push_back(':');
  detail::appendNumber(out, uint64_t(line));
  out.append(" ").append(module).append(" ").append(text).push_back('\n');
  // A failing destination is ignored: there is nowhere to report it.
  std::fwrite(out.data(), 1, out.size(), initializedTextTrace().out);
}

// ---- capture

TraceCapture::TraceCapture() : outer_(active_) {
  active_ = this;
  if (!outer_) {
    for (TraceHandle* h : TraceHandle::handles()) h->applyCapture(true);
  }
}

TraceCapture::~TraceCapture() {
  VESK_ASSERT_MSG(active_ == this, "trace captures must end in reverse order");
  active_ = outer_;
  if (!outer_) {
    for (TraceHandle* h : TraceHandle::handles()) h->applyCapture(false);
  }
}

bool TraceCapture::contains(std::string_view substring) const {
  return std::any_of(lines_.begin(), lines_.end(), [&](std::string const& line) {
    return line.find(substring) != std::string::npos;
  });
}

}  // namespace Vesk

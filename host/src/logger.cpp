// Logger: thresholds per channel, the IMAGERY_LOG configuration and the standard error sink.
#include "imagery_host/logger.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cwctype>
#include <utility>
#include <vector>

#include "imagery_host/zel_string.h"

namespace {

constexpr std::wstring_view kEveryChannel = L"*";

bool EqualsIgnoringCase(std::wstring_view a, std::wstring_view b) {
  return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](wchar_t x, wchar_t y) {
           return std::towupper(static_cast<wint_t>(x)) == std::towupper(static_cast<wint_t>(y));
         });
}

std::string_view Trim(std::string_view text) {
  const std::size_t first = text.find_first_not_of(" \t\r\n");
  if (first == std::string_view::npos) {
    return {};
  }
  const std::size_t last = text.find_last_not_of(" \t\r\n");
  return text.substr(first, last - first + 1);
}

std::wstring Widen(std::string_view text) {
  return ZELString::FromUTF8(text).wstr();
}

// One stream per nesting depth, so that a value whose insertion logs does not clobber the line that
// is being composed around it.
struct LineStreamPool {
  std::vector<std::unique_ptr<std::wostringstream>> streams;
  std::size_t depth = 0;
};
thread_local LineStreamPool tLineStreams;

}  // namespace

Logger& Logger::instance() {
  // Never destroyed, so that objects torn down at exit can still log.
  static Logger* const logger = [] {
    auto* created = new Logger;
    if (const char* configuration = std::getenv("IMAGERY_LOG")) {
      created->Configure(configuration);
    }
    return created;
  }();
  return *logger;
}

Logger::Logger() : sink_(std::make_shared<const Sink>(&Logger::StandardErrorSink)) {}

Logger::Level Logger::ParseLevel(std::wstring_view name) {
  static constexpr std::pair<std::wstring_view, Level> kNames[] = {
      {L"TRACE", kTrace},  {L"DEBUG", kDebug}, {L"INFO", kInfo}, {L"WARN", kWarn},
      {L"WARNING", kWarn}, {L"ERROR", kError}, {L"OFF", kOff},
  };
  for (const auto& [text, level] : kNames) {
    if (EqualsIgnoringCase(name, text)) {
      return level;
    }
  }
  return kOff;
}

bool Logger::IsEnabled(const wchar_t* channel, const wchar_t* level) const {
  if (channel == nullptr || level == nullptr) {
    return false;
  }
  return IsEnabled(std::wstring_view(channel), ParseLevel(level));
}

bool Logger::IsEnabled(std::wstring_view channel, Level level) const {
  if (level >= kOff || level < kTrace) {
    return false;
  }
  if (level >= everyChannel_.load(std::memory_order_relaxed)) {
    return true;
  }
  if (level < lowestChannelThreshold_.load(std::memory_order_relaxed)) {
    return false;
  }
  std::shared_lock<std::shared_mutex> lock(mutex_);
  const auto found = channels_.find(channel);
  return found != channels_.end() && level >= found->second;
}

bool Logger::Enable(std::wstring_view channel, std::wstring_view level) {
  const Level parsed = ParseLevel(level);
  if (parsed == kOff && !EqualsIgnoringCase(level, L"OFF")) {
    return false;
  }
  Enable(channel, parsed);
  return true;
}

void Logger::Enable(std::wstring_view channel, Level level) {
  if (level >= kOff || level < kTrace) {
    Disable(channel);
    return;
  }
  if (channel == kEveryChannel) {
    everyChannel_.store(level, std::memory_order_relaxed);
    return;
  }
  std::unique_lock<std::shared_mutex> lock(mutex_);
  channels_.insert_or_assign(std::wstring(channel), level);
  RecomputeLowestChannelThreshold();
}

void Logger::Disable(std::wstring_view channel) {
  if (channel == kEveryChannel) {
    everyChannel_.store(kOff, std::memory_order_relaxed);
    return;
  }
  std::unique_lock<std::shared_mutex> lock(mutex_);
  const auto found = channels_.find(channel);
  if (found != channels_.end()) {
    channels_.erase(found);
  }
  RecomputeLowestChannelThreshold();
}

void Logger::DisableAll() {
  everyChannel_.store(kOff, std::memory_order_relaxed);
  std::unique_lock<std::shared_mutex> lock(mutex_);
  channels_.clear();
  RecomputeLowestChannelThreshold();
}

void Logger::RecomputeLowestChannelThreshold() {
  int lowest = kOff;
  for (const auto& entry : channels_) {
    lowest = std::min(lowest, entry.second);
  }
  lowestChannelThreshold_.store(lowest, std::memory_order_relaxed);
}

bool Logger::Configure(std::string_view text) {
  bool understood = true;
  while (!text.empty()) {
    const std::size_t comma = text.find(',');
    const std::string_view entry = Trim(text.substr(0, comma));
    text = comma == std::string_view::npos ? std::string_view() : text.substr(comma + 1);
    if (entry.empty()) {
      continue;
    }
    const std::size_t colon = entry.find(':');
    const std::string_view channel = Trim(entry.substr(0, colon));
    if (channel.empty()) {
      understood = false;
      continue;
    }
    if (colon == std::string_view::npos) {
      Enable(Widen(channel), kTrace);
    } else if (!Enable(Widen(channel), Widen(Trim(entry.substr(colon + 1))))) {
      understood = false;
    }
  }
  return understood;
}

void Logger::Write(std::wstring_view channel, std::wstring_view level, const char* file, const char* function,
                   int line, std::wstring_view message) const {
  std::shared_ptr<const Sink> sink;
  {
    std::lock_guard<std::mutex> lock(sinkMutex_);
    sink = sink_;
  }
  if (sink && *sink) {
    (*sink)(LogRecord{channel, level, file != nullptr ? file : "", function != nullptr ? function : "", line,
                      message});
  }
}

Logger::Sink Logger::SetSink(Sink sink) {
  auto replacement = std::make_shared<const Sink>(std::move(sink));
  std::lock_guard<std::mutex> lock(sinkMutex_);
  std::shared_ptr<const Sink> previous = std::exchange(sink_, std::move(replacement));
  return previous ? *previous : Sink();
}

void Logger::StandardErrorSink(const LogRecord& record) {
  std::string line = ZELString(std::wstring(record.channel)).ToUTF8();
  line += ' ';
  line += ZELString(std::wstring(record.level)).ToUTF8();
  line += ' ';
  line += record.file;
  line += ' ';
  line += record.function;
  line += ':';
  line += std::to_string(record.line);
  line += ": ";
  line += ZELString(std::wstring(record.message)).ToUTF8();
  line += '\n';
  // One write per line keeps lines from different threads whole.
  std::fwrite(line.data(), 1, line.size(), stderr);
}

Logger::LineStream::LineStream() {
  LineStreamPool& pool = tLineStreams;
  if (pool.depth == pool.streams.size()) {
    pool.streams.push_back(std::make_unique<std::wostringstream>());
  }
  stream_ = pool.streams[pool.depth++].get();
  stream_->str(std::wstring());
  stream_->clear();
  stream_->flags(std::ios_base::skipws | std::ios_base::dec);
  stream_->precision(6);
  stream_->width(0);
  stream_->fill(L' ');
}

Logger::LineStream::~LineStream() {
  --tLineStreams.depth;
}

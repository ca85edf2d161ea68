// The logger: channels and levels named by wide strings, per-channel thresholds, a replaceable sink,
// and the ZEL_LOG macro, which composes a line only when its channel and level are enabled.
#pragma once

#include <atomic>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <shared_mutex>
#include <sstream>
#include <string>
#include <string_view>

// What a sink receives. The views are valid only during the call.
struct LogRecord {
  std::wstring_view channel;
  std::wstring_view level;
  const char* file;  // source label, such as "Imagery/ImageImpl"
  const char* function;
  int line;
  std::wstring_view message;
};

// Levels, from least to most severe: TRACE, DEBUG, INFO, WARN, ERROR (names are case-insensitive;
// WARNING is accepted for WARN). Enabling a channel at a level enables that level and the more severe
// ones for the channel. The channel "*" stands for every channel: a line is enabled when its level
// reaches the threshold of its own channel or that of "*".
//
// The configuration is read once from the environment variable IMAGERY_LOG when the logger is first
// used, as comma-separated entries "channel:LEVEL" ("image:WARN,gamma:TRACE", "*:DEBUG"); a channel
// without a level is enabled at TRACE, and "channel:OFF" disables it. Nothing is enabled by default.
//
// All members are thread-safe. IsEnabled costs two atomic loads when the answer does not depend on the
// channel, and a shared lock otherwise.
class Logger {
 public:
  using Sink = std::function<void(const LogRecord&)>;

  enum Level : int { kTrace = 0, kDebug, kInfo, kWarn, kError, kOff };

  static Logger& instance();

  // A logger with nothing enabled and the standard error sink; instance() is the one to use.
  Logger();
  Logger(const Logger&) = delete;
  Logger& operator=(const Logger&) = delete;

  bool IsEnabled(const wchar_t* channel, const wchar_t* level) const;
  bool IsEnabled(std::wstring_view channel, Level level) const;

  // Sets the channel's threshold (replacing any earlier one). An unknown level name changes nothing
  // and answers false.
  bool Enable(std::wstring_view channel, std::wstring_view level);
  void Enable(std::wstring_view channel, Level level);
  // Removes the channel's own threshold; with "*", the threshold for every channel.
  void Disable(std::wstring_view channel);
  void DisableAll();
  // Applies a configuration in the IMAGERY_LOG syntax on top of the current one. Unknown levels and
  // malformed entries are skipped; answers whether every entry was understood.
  bool Configure(std::string_view text);

  // Hands one line to the sink, whatever is enabled; callers check IsEnabled first.
  void Write(std::wstring_view channel, std::wstring_view level, const char* file, const char* function,
             int line, std::wstring_view message) const;
  // Installs a sink and returns the previous one, so that it can be put back. An empty sink drops
  // lines. A line being written while the sink changes may still reach the previous sink.
  Sink SetSink(Sink sink);
  // Writes "channel LEVEL file function:line: message" as one line of UTF-8 to standard error.
  static void StandardErrorSink(const LogRecord& record);

  // Parses a level name; kOff for names that are not levels.
  static Level ParseLevel(std::wstring_view name);

  // A cleared wide string stream of the calling thread for composing one line. Lines composed while
  // another is being composed on the same thread (a streamed value that logs) get their own stream.
  class LineStream {
   public:
    LineStream();
    ~LineStream();
    LineStream(const LineStream&) = delete;
    LineStream& operator=(const LineStream&) = delete;

    std::wostringstream& stream() { return *stream_; }
    std::wstring str() const { return stream_->str(); }

   private:
    std::wostringstream* stream_;
  };

 private:
  void RecomputeLowestChannelThreshold();  // requires mutex_ held exclusively

  std::atomic<int> everyChannel_{kOff};            // threshold of "*"
  std::atomic<int> lowestChannelThreshold_{kOff};  // lowest threshold in channels_
  mutable std::shared_mutex mutex_;
  std::map<std::wstring, int, std::less<>> channels_;  // guarded by mutex_

  mutable std::mutex sinkMutex_;
  std::shared_ptr<const Sink> sink_;  // guarded by sinkMutex_
};

// Logs `message`, a chain of stream insertions such as L"gamma " << value, on `channel` at `level`
// from the source labelled `file`. The message is composed only when the channel and level are enabled.
#define ZEL_LOG(channel, level, file, message)                                                     \
  do {                                                                                             \
    ::Logger& zelLogLogger = ::Logger::instance();                                                 \
    if (zelLogLogger.IsEnabled((channel), (level))) {                                              \
      ::Logger::LineStream zelLogLine;                                                             \
      zelLogLine.stream() << message;                                                              \
      zelLogLogger.Write((channel), (level), (file), static_cast<const char*>(__func__), __LINE__, \
                         zelLogLine.str());                                                        \
    }                                                                                              \
  } while (false)

// As ZEL_LOG, with the function name and line given: for lines whose origin is part of their published
// form (hosts filter on them), so that moving the code does not change what the log says.
#define ZEL_LOG_AT(channel, level, file, function, line, message)                           \
  do {                                                                                      \
    ::Logger& zelLogLogger = ::Logger::instance();                                          \
    if (zelLogLogger.IsEnabled((channel), (level))) {                                       \
      ::Logger::LineStream zelLogLine;                                                      \
      zelLogLine.stream() << message;                                                       \
      zelLogLogger.Write((channel), (level), (file), (function), (line), zelLogLine.str()); \
    }                                                                                       \
  } while (false)

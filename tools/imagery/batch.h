// Running one command over many pictures: output naming, refusal to overwrite or to touch inputs,
// concurrent jobs on the worker pool, the progress bar, and one error line per failed file.
#pragma once

#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "imagery/image.h"
#include "imagery/io/picture_files.h"

namespace imagery::cli {

// Options every processing command shares.
struct BatchOptions {
  std::vector<std::string> inputs;
  std::string output;     // a file for one input, a folder for several
  std::string extension;  // for outputs in a folder: ".png", "exr", ... (empty: the input's own)
  int jobs = 0;           // files processed at once; 0 lets the worker pool decide
  bool overwrite = false;
  bool quiet = false;
  int jpegQuality = 90;
  int bitsPerChannel = 0;
};

// What a job sees of its file and gives back.
struct JobContext {
  std::string input;
  std::string target;  // where the result goes (a name to derive others from, for several results)
  Image image;         // the picture read from `input`
  // Results to write; when left empty, `image` is written to `target`.
  std::vector<std::pair<Image, std::string>> outputs;
  // Text printed on standard output once every job is done, in input order.
  std::string report;
  // Set by a job that wrote `target` itself (in a form imagery::io does not write).
  bool written = false;
};

// Transforms ctx.image (or fills ctx.outputs); false with `error` (the cause, without the file name) on
// failure. Runs on several threads at once, for different files.
using ImageJob = std::function<bool(JobContext& ctx, std::string& error)>;

// Exit codes of the tool.
inline constexpr int kExitOk = 0;
inline constexpr int kExitFailed = 1;  // at least one file failed
inline constexpr int kExitUsage = 2;   // the command line is wrong

// Prints "imagery: <message>" on standard error, as one line.
void PrintError(const std::string& message);

// Whether the progress bar may be drawn: standard error is a terminal and --quiet is not given.
bool ProgressWanted(bool quiet);

// Caps the threads of the library's parallel loops and the files processed at once to `jobs` (0 leaves
// both to the pool) for the lifetime of the object, and makes sure the pool has the workers for it.
class JobLimit {
 public:
  explicit JobLimit(int jobs);
  ~JobLimit();
  JobLimit(const JobLimit&) = delete;
  JobLimit& operator=(const JobLimit&) = delete;

 private:
  int previous_;
};

// Reads every input, runs `job` on it and writes the results; with `writes` false nothing is written and
// -o is not needed (info). Returns the tool's exit code.
int RunBatch(const std::string& command, const BatchOptions& options, bool writes, const ImageJob& job);

// Runs body(i) for i in [0, count) on up to `jobs` threads (0: the pool decides), with a progress bar
// labelled `label` when `progress` is set. Exceptions from the body must not escape it.
void ForEachConcurrently(std::size_t count, int jobs, bool progress, const std::string& label,
                         const std::function<void(std::size_t)>& body);

// The write options for a batch's settings.
io::WriteOptions WriteOptionsFor(const BatchOptions& options);

// "file: cause" for a missing or unreadable input, or an empty string when `path` is a readable file.
std::string CheckInput(const std::string& path);

// The path of a derived result: "dir/name.png" with suffix "_mip1" gives "dir/name_mip1.png".
std::string WithSuffix(const std::string& path, const std::string& suffix);

}  // namespace imagery::cli

// The batch runner behind every command that reads pictures.
#include "batch.h"

#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <mutex>
#include <new>

#include "imagery_host/parallel.h"
#include "imagery_host/progress.h"
#include "imagery_host/scheduler.h"
#include "operations.h"

namespace imagery::cli {
namespace fs = std::filesystem;

namespace {

ZELPath ToZelPath(const std::string& path) {
  return ZELPath(ZELString::FromUTF8(path));
}

std::string NormalisedExtension(const std::string& extension) {
  if (extension.empty() || extension.front() == '.')
    return extension;
  return "." + extension;
}

bool SameFile(const std::string& a, const std::string& b) {
  std::error_code error;
  if (fs::exists(a, error) && fs::exists(b, error))
    return fs::equivalent(a, b, error);
  return fs::weakly_canonical(a, error) == fs::weakly_canonical(b, error);
}

// Where each input's result goes, or why it cannot go anywhere. Empty targets mean "not assigned"
// (reported in `errors`).
struct Plan {
  std::vector<std::string> targets;
  std::vector<std::string> errors;
  std::string fatal;  // an error that stops the whole command (the output folder cannot be made)
};

Plan PlanTargets(const BatchOptions& options) {
  Plan plan;
  plan.targets.resize(options.inputs.size());
  plan.errors.resize(options.inputs.size());
  std::error_code error;
  const bool toFolder =
      options.inputs.size() > 1 || fs::is_directory(options.output, error) || options.output.back() == '/';
  if (toFolder) {
    if (fs::exists(options.output, error) && !fs::is_directory(options.output, error)) {
      plan.fatal = options.output + ": is a file, not a folder (several inputs need an output folder)";
      return plan;
    }
    fs::create_directories(options.output, error);
    if (error) {
      plan.fatal = options.output + ": cannot create the output folder (" + error.message() + ")";
      return plan;
    }
  } else {
    const fs::path parent = fs::path(options.output).parent_path();
    if (!parent.empty() && !fs::is_directory(parent, error)) {
      plan.fatal = options.output + ": " + parent.string() +
                   (fs::exists(parent, error) ? " is not a folder" : " does not exist");
      return plan;
    }
  }
  std::map<std::string, std::size_t> claimed;
  for (std::size_t i = 0; i < options.inputs.size(); ++i) {
    const fs::path input(options.inputs[i]);
    std::string target = options.output;
    if (toFolder) {
      const std::string extension =
          options.extension.empty() ? input.extension().string() : NormalisedExtension(options.extension);
      target = (fs::path(options.output) / input.stem()).string() + extension;
    } else if (!options.extension.empty()) {
      target = fs::path(options.output).replace_extension(NormalisedExtension(options.extension)).string();
    }
    for (const std::string& other : options.inputs) {
      if (SameFile(other, target)) {
        plan.errors[i] = options.inputs[i] + ": the output " + target + " would replace an input";
        break;
      }
    }
    if (!plan.errors[i].empty())
      continue;
    const auto [at, inserted] = claimed.emplace(fs::weakly_canonical(target, error).string(), i);
    if (!inserted) {
      plan.errors[i] = options.inputs[i] + ": its output " + target + " is also the output of " +
                       options.inputs[at->second];
      continue;
    }
    plan.targets[i] = target;
  }
  return plan;
}

std::string ExistsMessage(const std::string& path) {
  return path + ": already exists (use --overwrite to replace it)";
}

}  // namespace

void PrintError(const std::string& message) {
  std::string line = message;
  for (char& c : line) {
    if (c == '\n' || c == '\r')
      c = ' ';
  }
  std::fprintf(stderr, "imagery: %s\n", line.c_str());
}

bool ProgressWanted(bool quiet) {
  return !quiet && isatty(STDERR_FILENO);
}

JobLimit::JobLimit(int jobs) : previous_(tools::GetJobThreadLimit()) {
  if (jobs <= 0)
    return;
  // The pool is made on first use with one worker per processor but one; a request for more files at
  // once than that gets the workers it needs, unless the environment already chose the pool's size.
  if (jobs - 1 > tools::CScheduler::DefaultWorkerCount() && !std::getenv("IMAGERY_WORKER_THREADS"))
    setenv("IMAGERY_WORKER_THREADS", std::to_string(std::min(jobs - 1, 256)).c_str(), 0);
  tools::SetJobThreadLimit(jobs);
}

JobLimit::~JobLimit() {
  tools::SetJobThreadLimit(previous_);
}

void ForEachConcurrently(std::size_t count, int jobs, bool progress, const std::string& label,
                         const std::function<void(std::size_t)>& body) {
  std::unique_ptr<KORProgress> bar;
  bool drawn = false;
  if (progress) {
    bar = std::make_unique<KORProgress>([&label, &drawn](float value) {
      const int width = 30;
      const int filled = static_cast<int>(value * width + 0.5f);
      std::fprintf(stderr, "\r%s [%s%s] %3d%%", label.c_str(),
                   std::string(static_cast<std::size_t>(filled), '#').c_str(),
                   std::string(static_cast<std::size_t>(width - filled), '.').c_str(),
                   static_cast<int>(value * 100 + 0.5f));
      std::fflush(stderr);
      drawn = true;
    });
  } else {
    bar = std::make_unique<KORProgress>();
  }
  ZELNullInterruptor interruptor;
  tools::ThreadStateDispatcher dispatcher;
  tools::multiproc::ParallelLoopOptions loop;
  loop.maxThreads = jobs > 0 ? jobs : -2;
  tools::multiproc::ParallelizedFor(
      0, static_cast<long long>(count), interruptor, *bar,
      [&body](long long i, const tools::multiproc::ParallelContext*) { body(static_cast<std::size_t>(i)); },
      dispatcher, loop);
  bar->Step();
  if (drawn)
    std::fputc('\n', stderr);
}

io::WriteOptions WriteOptionsFor(const BatchOptions& options) {
  io::WriteOptions write;
  write.overwrite = options.overwrite;
  write.jpegQuality = options.jpegQuality;
  write.bitsPerChannel = options.bitsPerChannel;
  return write;
}

std::string CheckInput(const std::string& path) {
  std::error_code error;
  const fs::file_status status = fs::status(path, error);
  if (!fs::exists(status))
    return path + ": no such file";
  if (fs::is_directory(status))
    return path + ": is a folder, not a picture file";
  std::ifstream probe(path, std::ios::binary);
  if (!probe)
    return path + ": cannot be read (" + std::strerror(errno) + ")";
  return std::string();
}

std::string WithSuffix(const std::string& path, const std::string& suffix) {
  const fs::path p(path);
  return (p.parent_path() / (p.stem().string() + suffix + p.extension().string())).string();
}

int RunBatch(const std::string& command, const BatchOptions& options, bool writes, const ImageJob& job) {
  if (options.inputs.empty()) {
    PrintError(command + ": no input file given");
    return kExitUsage;
  }
  if (writes && options.output.empty()) {
    PrintError(command + ": no output given (-o FILE for one input, -o FOLDER for several)");
    return kExitUsage;
  }
  Plan plan;
  if (writes) {
    plan = PlanTargets(options);
    if (!plan.fatal.empty()) {
      PrintError(plan.fatal);
      return kExitFailed;
    }
  } else {
    plan.targets.resize(options.inputs.size());
    plan.errors.resize(options.inputs.size());
  }

  const io::WriteOptions writeOptions = WriteOptionsFor(options);
  std::vector<std::string> reports(options.inputs.size());
  JobLimit limit(options.jobs);
  ForEachConcurrently(
      options.inputs.size(), options.jobs, ProgressWanted(options.quiet), command, [&](std::size_t i) {
        std::string& failure = plan.errors[i];
        if (!failure.empty())
          return;
        const std::string& input = options.inputs[i];
        try {
          if (failure = CheckInput(input); !failure.empty())
            return;
          if (writes && !options.overwrite && fs::exists(plan.targets[i])) {
            failure = ExistsMessage(plan.targets[i]);
            return;
          }
          JobContext ctx;
          ctx.input = input;
          ctx.target = plan.targets[i];
          const zel::ErrorCode read = io::ReadPicture(ToZelPath(input), ctx.image);
          if (read.IsBad()) {
            failure = read.Message().empty() ? input + ": " + read.ToString() : read.Message();
            return;
          }
          TagPictureType(ctx.image, input);
          std::string cause;
          if (!job(ctx, cause)) {
            failure = input + ": " + cause;
            return;
          }
          reports[i] = std::move(ctx.report);
          if (!writes || ctx.written)
            return;
          if (ctx.outputs.empty())
            ctx.outputs.emplace_back(ctx.image, ctx.target);
          for (const auto& [image, path] : ctx.outputs) {
            if (!options.overwrite && fs::exists(path)) {
              failure = ExistsMessage(path);
              return;
            }
          }
          for (const auto& [image, path] : ctx.outputs) {
            const zel::ErrorCode written = io::WritePicture(image, ToZelPath(path), writeOptions);
            if (written.IsBad()) {
              failure = written.Message().empty() ? path + ": " + written.ToString() : written.Message();
              return;
            }
          }
        } catch (const std::bad_alloc&) {
          failure = input + ": out of memory";
        } catch (const std::exception& e) {
          failure = input + ": " + e.what();
        }
      });

  int status = kExitOk;
  for (std::size_t i = 0; i < options.inputs.size(); ++i) {
    if (!reports[i].empty())
      std::fputs(reports[i].c_str(), stdout);
    if (!plan.errors[i].empty()) {
      PrintError(plan.errors[i]);
      status = kExitFailed;
    }
  }
  std::fflush(stdout);
  return status;
}

}  // namespace imagery::cli

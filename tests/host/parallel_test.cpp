// Threads: the task scheduler (the pool size and the job thread limit), parallel loops (coverage,
// interruption, exceptions, nesting, thread indices) and the progress objects they report to.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <map>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "imagery_host/parallel.h"
#include "imagery_host/scheduler.h"

namespace {

using tools::multiproc::ParallelContext;
using Task = tools::GenericFunctionTask<false>;
using TaskList = std::vector<std::shared_ptr<Task>>;
using Visits = std::vector<std::atomic<int>>;

long VisitedOnce(const Visits& visits) {
  return std::count(visits.begin(), visits.end(), 1);
}

// Set when a progress reported a value below the one before or while another report was under way.
std::atomic<bool> g_disorderlyReport{false};

// Runs the loop on a fresh progress and answers the progress reached.
float For(long long begin, long long end, const tools::multiproc::LoopBody& body,
          const ZELInterruptor& interruptor = ZELNullInterruptor(), int maxThreads = -2) {
  std::atomic<int> inside{0};
  float last = 0.0f;
  KORProgress progress([&](float value) {
    g_disorderlyReport = g_disorderlyReport || ++inside > 1 || value < last;
    last = value;
    --inside;
  });
  tools::ThreadStateDispatcher dispatcher;
  tools::multiproc::ParallelizedFor(begin, end, interruptor, progress, body, dispatcher, {maxThreads});
  return progress.GetValue();
}

TEST(CScheduler, WorkerCountFromTheEnvironmentAndTheJobThreadLimit) {
  const std::string saved =
      std::getenv("IMAGERY_WORKER_THREADS") ? std::getenv("IMAGERY_WORKER_THREADS") : "";
  ::unsetenv("IMAGERY_WORKER_THREADS");
  const int fromHardware = tools::CScheduler::DefaultWorkerCount();
  EXPECT_GE(fromHardware, 1);
  // Values outside 1..256 or not wholly a number leave the count to the hardware (0 below).
  // clang-format off
  const std::pair<const char*, int> values[] = {{"1", 1}, {"256", 256}, {"0", 0}, {"257", 0}, {"4x", 0}, {"", 0}};
  // clang-format on
  for (const auto& [value, expected] : values) {
    ::setenv("IMAGERY_WORKER_THREADS", value, 1);
    EXPECT_EQ(tools::CScheduler::DefaultWorkerCount(), expected ? expected : fromHardware)
        << '"' << value << '"';
  }
  saved.empty() ? ::unsetenv("IMAGERY_WORKER_THREADS") : ::setenv("IMAGERY_WORKER_THREADS", saved.c_str(), 1);

  // Under a limit of 1 the waiting thread runs every task itself.
  const std::thread::id caller = std::this_thread::get_id();
  std::atomic<int> onCaller{0};
  TaskList tasks;
  for (int i = 0; i < 50; ++i)
    tasks.push_back(
        std::make_shared<Task>([caller, &onCaller] { onCaller += std::this_thread::get_id() == caller; }));
  {
    const tools::ScopedJobThreadLimit oneThread(1);
    EXPECT_EQ(tools::GetJobThreadLimit(), 1);
    tools::ProcessAndWaitTasks(tasks, true);
    // Loops that leave the choice to the library get one thread; explicit requests are kept.
    const int machine = tools::GetScheduler<tools::SchedulerType::Default>().GetWorkerCount() + 1;
    EXPECT_EQ(tools::multiproc::GetOptimizedMaxJobThreadAllowed(-2, 1000), 1);
    EXPECT_EQ(tools::multiproc::GetOptimizedMaxJobThreadAllowed(2, 1000), std::min(2, machine));
  }
  EXPECT_EQ(tools::GetJobThreadLimit(), 0);
  EXPECT_EQ(onCaller.load(), 50);
}

TEST(ParallelizedFor, CallsTheBodyOnceForEveryIndexEvenNestedAndStepsProgressPerIndex) {
  for (const auto& [begin, end] : {std::pair(5LL, 5LL), {10, 3}, {-7, 13}, {3, 40000}}) {
    const long count = std::max(0LL, end - begin);
    Visits visits(count + 1);  // the last counts indices outside the range
    const float progress =
        For(begin, end, [&, begin = begin, end = end](long long i, const ParallelContext*) {
          ++visits[i < begin || i >= end ? count : i - begin];
        });
    EXPECT_TRUE(VisitedOnce(visits) == count && visits[count] == 0) << begin << ".." << end;
    // One step of 1 / (|end - begin| + 1) per index.
    EXPECT_NEAR(progress, count / static_cast<double>(std::abs(end - begin) + 1), 1e-6);
  }
  constexpr int kOuter = 16, kInner = 500;
  Visits cells(kOuter * kInner);
  For(0, kOuter, [&cells](long long o, const ParallelContext*) {
    For(0, kInner, [&cells, o](long long i, const ParallelContext*) { ++cells[o * kInner + i]; });
  });
  EXPECT_EQ(VisitedOnce(cells), kOuter * kInner);
  EXPECT_FALSE(g_disorderlyReport.load());
}

TEST(ParallelizedFor,
     StopsStartingIndicesOnceInterruptedAndTheFirstExceptionReachesTheCallerAfterEveryoneStopped) {
  ZELFlagInterruptor interruptor;
  std::atomic<int> ran{0};
  auto cancelAt = [&](long long at) {
    ran = 0;
    return [&, at](long long i, const ParallelContext*) {
      ++ran;
      if (i == at)
        std::thread([&interruptor] { interruptor.Cancel(); }).join();
    };
  };
  // On one thread the stop is exact: the index that cancels is the last one run.
  For(0, 1000, cancelAt(10), interruptor, 1);
  EXPECT_EQ(ran.load(), 11);
  interruptor.Reset();
  For(0, 1000000, cancelAt(100), interruptor);
  EXPECT_TRUE(ran.load() >= 1 && ran.load() < 1000000) << ran.load();
  For(0, 1000, cancelAt(-1), interruptor);
  EXPECT_EQ(ran.load(), 0) << "an interruptor already set lets nothing start";

  std::atomic<int> running{0};
  EXPECT_THROW(For(0, 100000,
                   [&](long long i, const ParallelContext*) {
                     ++running;
                     std::this_thread::yield();
                     --running;
                     if (i % 1000 == 999)
                       throw std::runtime_error("body");
                   }),
               std::runtime_error);
  EXPECT_EQ(running.load(), 0) << "everyone stopped before the exception reached the caller";
  For(0, 100, cancelAt(-1));
  EXPECT_EQ(ran.load(), 100) << "the pool is still usable";
}

TEST(ParallelizedFor, HelpersTakePartEachUnderAThreadIndexOfItsOwn) {
  const int threads = tools::multiproc::GetOptimizedMaxJobThreadAllowed(-2, 64);
  ASSERT_GE(threads, 2);
  std::mutex mutex;
  std::condition_variable joined;
  std::map<int, std::thread::id> owners;
  For(0, 64, [&](long long i, const ParallelContext* context) {
    EXPECT_TRUE(context->threadIndex >= 0 && context->threadIndex < threads &&
                context->threadCount == threads);
    std::unique_lock<std::mutex> lock(mutex);
    const auto [owner, fresh] = owners.emplace(context->threadIndex, std::this_thread::get_id());
    EXPECT_TRUE(fresh || owner->second == std::this_thread::get_id()) << "two threads shared an index";
    // Index 0 holds its thread until another has taken part, so that helpers are known to join in; it
    // gives up after a generous delay so that a broken pool fails instead of hanging.
    if (i == 0)
      joined.wait_for(lock, std::chrono::seconds(30), [&owners] { return owners.size() >= 2; });
    joined.notify_all();
  });
  EXPECT_GE(owners.size(), 2u);
}

TEST(KORProgress, StepsShareWhatRemainsAndSubStepsFillOneParentStep) {
  std::vector<float> reported;
  KORProgress parent([&reported](float value) { reported.push_back(value); });
  parent.Steps(4);
  parent.Step();
  parent.Steps(3);  // the remaining three quarters in three steps
  {
    KORProgress::SubProgressStep pass(parent);
    pass.Steps(10);
    pass.Step(5);
    EXPECT_FLOAT_EQ(parent.GetValue(), 0.375f);
  }
  EXPECT_FLOAT_EQ(parent.GetValue(), 0.5f);
  { KORProgress::SubProgressStep abandoned(parent); }
  EXPECT_FLOAT_EQ(parent.GetValue(), 0.75f);
  parent.Step(100);
  EXPECT_FLOAT_EQ(parent.GetValue(), 1.0f);
  // Reported values only grow and end at 1.
  EXPECT_TRUE(std::is_sorted(reported.begin(), reported.end()) && reported.back() == 1.0f);
}

}  // namespace

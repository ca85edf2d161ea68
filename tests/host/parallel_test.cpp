// Parallel loops (coverage of the range, thread use, interruption, exceptions, nesting, priorities) and
// the progress objects they report to.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <map>
#include <mutex>
#include <set>
#include <stdexcept>
#include <thread>
#include <utility>
#include <vector>

#include "imagery_host/parallel.h"
#include "imagery_host/scheduler.h"

namespace {

using tools::multiproc::GetOptimizedMaxJobThreadAllowed;
using tools::multiproc::ParallelContext;

// Runs the loop on a fresh progress and answers the progress reached.
float For(long long begin, long long end, const tools::multiproc::LoopBody& body,
          const ZELInterruptor& interruptor = ZELNullInterruptor(), int maxThreads = -2) {
  KORProgress progress;
  tools::ThreadStateDispatcher dispatcher;
  tools::multiproc::ParallelLoopOptions options;
  options.maxThreads = maxThreads;
  tools::multiproc::ParallelizedFor(begin, end, interruptor, progress, body, dispatcher, options);
  return progress.GetValue();
}

// Holds the body that calls WaitAsFirst until a body runs on another thread, so a test knows that
// helpers took part. Gives up after a generous delay so that a broken pool fails instead of hanging.
class OtherThreadLatch {
 public:
  void Arrive() {
    std::lock_guard<std::mutex> lock(mutex_);
    if (std::this_thread::get_id() != waiter_) {
      arrived_ = true;
      changed_.notify_all();
    }
  }
  bool WaitAsFirst() {
    std::unique_lock<std::mutex> lock(mutex_);
    waiter_ = std::this_thread::get_id();
    return changed_.wait_for(lock, std::chrono::seconds(30), [this] { return arrived_; });
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  std::thread::id waiter_;
  bool arrived_ = false;
};

TEST(ParallelizedFor, CallsTheBodyOnceForEveryIndexAndStepsProgressPerIndex) {
  const std::vector<std::pair<long long, long long>> ranges = {{5, 5}, {10, 3}, {0, 1}, {-7, 13}, {3, 40000}};
  for (const auto& [begin, end] : ranges) {
    std::vector<std::atomic<int>> visits(static_cast<std::size_t>(std::max(0LL, end - begin)));
    std::atomic<int> outside{0};
    const float progress =
        For(begin, end, [&, begin = begin, end = end](long long i, const ParallelContext*) {
          if (i < begin || i >= end) {
            ++outside;
          } else {
            ++visits[static_cast<std::size_t>(i - begin)];
          }
        });
    EXPECT_EQ(outside.load(), 0);
    for (std::size_t i = 0; i < visits.size(); ++i) {
      ASSERT_EQ(visits[i].load(), 1) << "index " << begin + static_cast<long long>(i);
    }
    // One step of 1 / (|end - begin| + 1) per index.
    EXPECT_NEAR(progress, static_cast<double>(visits.size()) / static_cast<double>(std::abs(end - begin) + 1),
                1e-6);
  }
}

TEST(ParallelizedFor, HelpersTakePartEachUnderItsOwnThreadIndex) {
  constexpr long long kCount = 64;
  const int threads = GetOptimizedMaxJobThreadAllowed(-2, kCount);
  ASSERT_GE(threads, 2);
  OtherThreadLatch latch;
  bool helped = false;
  std::mutex mutex;
  std::map<int, std::thread::id> owners;
  For(0, kCount, [&](long long i, const ParallelContext* context) {
    EXPECT_EQ(context->threadCount, threads);
    EXPECT_TRUE(context->threadIndex >= 0 && context->threadIndex < threads);
    {
      std::lock_guard<std::mutex> lock(mutex);
      const auto [owner, fresh] = owners.emplace(context->threadIndex, std::this_thread::get_id());
      EXPECT_TRUE(fresh || owner->second == std::this_thread::get_id()) << "two threads shared an index";
    }
    i == 0 ? void(helped = latch.WaitAsFirst()) : latch.Arrive();
  });
  EXPECT_TRUE(helped);
  EXPECT_GE(owners.size(), 2u);
}

TEST(ParallelizedFor, StopsStartingIndicesOnceInterruptedFromAnotherThread) {
  // On one thread the stop is exact: the index that cancels is the last one run.
  ZELFlagInterruptor interruptor;
  std::atomic<int> ran{0};
  auto cancelAt = [&](long long at) {
    return [&, at](long long i, const ParallelContext*) {
      ++ran;
      if (i == at) {
        std::thread([&interruptor] { interruptor.Cancel(); }).join();
      }
    };
  };
  For(0, 1000, cancelAt(10), interruptor, 1);
  EXPECT_EQ(ran.load(), 11);

  interruptor.Reset();
  ran = 0;
  For(0, 1000000, cancelAt(100), interruptor);
  EXPECT_GE(ran.load(), 1);
  EXPECT_LT(ran.load(), 1000000);

  ran = 0;
  For(0, 1000, cancelAt(-1), interruptor);
  EXPECT_EQ(ran.load(), 0);
}

TEST(ParallelizedFor, FirstExceptionReachesTheCallerAfterEveryoneStopped) {
  std::atomic<int> running{0};
  try {
    For(0, 100000, [&](long long i, const ParallelContext*) {
      ++running;
      std::this_thread::yield();
      --running;
      if (i % 1000 == 999) {
        throw std::runtime_error("body " + std::to_string(i));
      }
    });
    ADD_FAILURE() << "no exception";
  } catch (const std::runtime_error& error) {
    EXPECT_EQ(running.load(), 0);
    EXPECT_EQ(std::string(error.what()).rfind("body ", 0), 0u);
  }
  std::atomic<int> after{0};
  For(0, 100, [&](long long, const ParallelContext*) { ++after; });
  EXPECT_EQ(after.load(), 100);
}

TEST(ParallelizedFor, LoopsNestInsideLoopsAndTasks) {
  constexpr int kOuter = 8;
  constexpr int kInner = 500;
  std::vector<std::atomic<int>> visits(kOuter * kOuter * kInner);
  std::vector<std::shared_ptr<tools::CTask>> tasks;
  for (int t = 0; t < kOuter; ++t) {
    tasks.push_back(std::make_shared<tools::GenericFunctionTask<false>>([&visits, t] {
      For(0, kOuter, [&visits, t](long long o, const ParallelContext*) {
        For(0, kInner, [&visits, t, o](long long i, const ParallelContext*) {
          ++visits[static_cast<std::size_t>((t * kOuter + o) * kInner + i)];
        });
      });
    }));
    tools::GetScheduler<tools::SchedulerType::Default>().AddTask(tasks.back());
  }
  for (const std::shared_ptr<tools::CTask>& task : tasks) {
    task->WaitFinished();
  }
  for (std::size_t i = 0; i < visits.size(); ++i) {
    ASSERT_EQ(visits[i].load(), 1) << "cell " << i;
  }
}

TEST(ParallelizedFor, HelpersWorkAtTheCallersPriorityAndGoBackAfterwards) {
  // Workers inherit the priority of the thread that starts them, so start them here first.
  tools::CScheduler& scheduler = tools::GetScheduler<tools::SchedulerType::Default>();
  const int original = ZELGetCurrentThreadPriority();
  const int lowered = std::min(original + 5, 19);
  if (lowered == original || !tools::ThreadStateSetter::CanChangeAndRestore({original}, {lowered})) {
    GTEST_SKIP() << "this process may not change a thread's priority and restore it";
  }
  std::mutex mutex;
  std::set<int> seen;
  bool helped = false;
  // A thread of its own: once lowered it may not be allowed to come back.
  std::thread([&] {
    ASSERT_TRUE(ZELSetCurrentThreadPriority(lowered));
    OtherThreadLatch latch;
    For(0, 16, [&](long long i, const ParallelContext*) {
      {
        std::lock_guard<std::mutex> lock(mutex);
        seen.insert(ZELGetCurrentThreadPriority());
      }
      i == 0 ? void(helped = latch.WaitAsFirst()) : latch.Arrive();
    });
  }).join();
  ASSERT_TRUE(helped);
  EXPECT_EQ(seen, std::set<int>{lowered});

  std::atomic<int> workerPriority{-100};
  auto probe = std::make_shared<tools::GenericFunctionTask<false>>(
      [&workerPriority] { workerPriority = ZELGetCurrentThreadPriority(); });
  scheduler.AddTask(probe);
  while (!probe->IsFinished()) {
    tools::ProcessOrSleep(nullptr, true);
  }
  EXPECT_EQ(workerPriority.load(), original);
}

TEST(KORProgress, StepsShareWhatRemainsAndSubStepsFillOneParentStep) {
  std::vector<float> reported;
  KORProgress parent([&reported](float value) { reported.push_back(value); });
  parent.Steps(4);
  parent.Step();
  EXPECT_FLOAT_EQ(parent.GetValue(), 0.25f);
  parent.Steps(3);  // the remaining three quarters in three steps
  {
    KORProgress::SubProgressStep pass(parent);
    pass.Steps(10);
    pass.Step(5);
    EXPECT_FLOAT_EQ(pass.GetValue(), 0.5f);
    EXPECT_FLOAT_EQ(parent.GetValue(), 0.375f);
    {
      KORProgress::SubProgressStep nested(pass);
      nested.Steps(2);
      nested.Step();
      EXPECT_FLOAT_EQ(parent.GetValue(), 0.3875f);
    }
    EXPECT_FLOAT_EQ(pass.GetValue(), 0.6f);
  }
  EXPECT_FLOAT_EQ(parent.GetValue(), 0.5f);
  { KORProgress::SubProgressStep abandoned(parent); }
  EXPECT_FLOAT_EQ(parent.GetValue(), 0.75f);
  parent.Step(100);
  EXPECT_FLOAT_EQ(parent.GetValue(), 1.0f);

  ASSERT_FALSE(reported.empty());
  for (std::size_t i = 1; i < reported.size(); ++i) {
    EXPECT_LT(reported[i - 1], reported[i]);
  }
  EXPECT_EQ(reported.back(), 1.0f);
}

TEST(KORProgress, ConcurrentStepsAndSubStepsAddUpAndReportInOrder) {
  constexpr int kThreads = 8;
  std::atomic<int> inside{0};
  std::atomic<bool> overlapping{false};
  float last = 0.0f;
  bool decreasing = false;
  KORProgress progress([&](float value) {
    overlapping = overlapping || ++inside > 1;
    decreasing = decreasing || value < last;
    last = value;
    --inside;
  });
  progress.Steps(2 * kThreads);
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&progress] {
      progress.Step();
      KORProgress::SubProgressStep sub(progress);
      sub.Steps(1000);
      for (int i = 0; i < 1000; ++i) {
        sub.Step();
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  EXPECT_FLOAT_EQ(progress.GetValue(), 1.0f);
  EXPECT_EQ(last, 1.0f);
  EXPECT_FALSE(overlapping.load());
  EXPECT_FALSE(decreasing);
}

}  // namespace

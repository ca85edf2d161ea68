// The task scheduler: task claiming, the submit-and-help waiting pattern (with any number of workers,
// nested, from many threads), exceptions, shutdown, the pool size and the job thread limit.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "imagery_host/parallel.h"
#include "imagery_host/scheduler.h"

namespace {

using Task = tools::GenericFunctionTask<false>;
using TaskList = std::vector<std::shared_ptr<Task>>;
using Visits = std::vector<std::atomic<int>>;

// The waiting pattern that row-band helpers are built on, on a scheduler of the test's choosing.
void SubmitAndHelp(tools::CScheduler& scheduler, TaskList pending) {
  for (const std::shared_ptr<Task>& task : pending)
    scheduler.AddTask(task);
  while (!pending.empty())
    tools::ProcessOrSleep(tools::GetTaskToDo(pending), true);
}

// One task per band of `rows` rows, each counting the visits of its rows from `offset` on.
TaskList MakeBands(int height, int rows, Visits& visits, std::size_t offset = 0) {
  TaskList tasks;
  for (int first = 0; first < height; first += rows) {
    tasks.push_back(std::make_shared<Task>([=, &visits] {
      for (int y = first; y < std::min(first + rows, height); ++y)
        ++visits[offset + static_cast<std::size_t>(y)];
    }));
  }
  return tasks;
}

void ExpectEachVisitedOnce(const Visits& visits) {
  for (std::size_t y = 0; y < visits.size(); ++y)
    ASSERT_EQ(visits[y].load(), 1) << "row " << y;
}

TEST(CTask, ExactlyOneOfManyRacingThreadsClaimsAndRunsEachTask) {
  Visits runs(300);
  TaskList tasks = MakeBands(300, 1, runs);
  std::atomic<bool> go{false};
  std::vector<std::thread> threads;
  for (int t = 0; t < 8; ++t) {
    threads.emplace_back([&] {
      while (!go.load())
        std::this_thread::yield();
      for (const std::shared_ptr<Task>& task : tasks) {
        tools::ProcessOrSleep(task, true);
        task->WaitFinished();
        EXPECT_TRUE(task->IsFinished());
      }
    });
  }
  go = true;
  for (std::thread& thread : threads)
    thread.join();
  ExpectEachVisitedOnce(runs);
  EXPECT_FALSE(tasks[0]->TryTake());
}

// Bands of rows, directly and as subtasks of tasks that wait for them the same way.
TEST(CScheduler, EveryBandRunsOnceWithAnyNumberOfWorkersAndWaitsNestWithoutDeadlock) {
  constexpr int kOuter = 12, kRows = 101;
  for (int workers : {-1, 0, 1, 3}) {
    tools::CScheduler own(std::max(workers, 0));
    tools::CScheduler& scheduler = workers < 0 ? tools::GetScheduler<tools::SchedulerType::Default>() : own;
    Visits flat(10 * kRows);
    SubmitAndHelp(scheduler, MakeBands(10 * kRows, 7, flat));
    ExpectEachVisitedOnce(flat);

    Visits nested(kOuter * kRows);
    TaskList outer;
    for (std::size_t o = 0; o < kOuter; ++o)
      outer.push_back(std::make_shared<Task>(
          [&, o] { SubmitAndHelp(scheduler, MakeBands(kRows, 3, nested, o * kRows)); }));
    SubmitAndHelp(scheduler, outer);
    ExpectEachVisitedOnce(nested);
  }
}

TEST(CScheduler, ExceptionIsKeptInTheTaskAndQueuedTasksOfAStoppedSchedulerAreLeftToTheirWaiters) {
  {
    tools::CScheduler scheduler(1);
    auto failing = std::make_shared<Task>([] { throw std::runtime_error("band failed"); });
    auto later = std::make_shared<Task>([] {});
    scheduler.AddTask(failing);
    scheduler.AddTask(later);
    // Never claim here: only the worker can finish these.
    while (!failing->IsFinished() || !later->IsFinished())
      tools::ProcessOrSleep(nullptr, true);
    EXPECT_THROW(std::rethrow_exception(failing->GetError()), std::runtime_error);
    EXPECT_FALSE(later->GetError()) << "the worker carried on";
  }
  std::thread::id ranOn;
  auto task = std::make_shared<Task>([&ranOn] { ranOn = std::this_thread::get_id(); });
  { tools::CScheduler(0).AddTask(task); }
  EXPECT_EQ(task->GetStatus(), tools::CTask::kQueued);
  task->WaitFinished();
  EXPECT_EQ(ranOn, std::this_thread::get_id());
}

}  // namespace

TEST(CScheduler, WorkerCountFromTheEnvironmentAndTheJobThreadLimit) {
  const char* const saved = std::getenv("IMAGERY_WORKER_THREADS");
  const std::string savedValue = saved ? saved : "";
  ::unsetenv("IMAGERY_WORKER_THREADS");
  const int fromHardware = tools::CScheduler::DefaultWorkerCount();
  EXPECT_GE(fromHardware, 1);
  for (const char* accepted : {"1", "7", "256"}) {
    ::setenv("IMAGERY_WORKER_THREADS", accepted, 1);
    EXPECT_EQ(tools::CScheduler::DefaultWorkerCount(), std::atoi(accepted));
  }
  for (const char* ignored : {"0", "-3", "257", "4x", ""}) {
    ::setenv("IMAGERY_WORKER_THREADS", ignored, 1);
    EXPECT_EQ(tools::CScheduler::DefaultWorkerCount(), fromHardware) << '"' << ignored << '"';
  }
  if (saved)
    ::setenv("IMAGERY_WORKER_THREADS", savedValue.c_str(), 1);
  else
    ::unsetenv("IMAGERY_WORKER_THREADS");

  // Under a limit of 1 the waiting thread runs every task itself, in the waiting order.
  const std::thread::id caller = std::this_thread::get_id();
  std::vector<int> order;
  bool allOnCaller = true;
  TaskList tasks;
  for (int i = 0; i < 50; ++i)
    tasks.push_back(std::make_shared<Task>([i, caller, &order, &allOnCaller] {
      allOnCaller = allOnCaller && std::this_thread::get_id() == caller;
      order.push_back(i);
    }));
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
  EXPECT_TRUE(allOnCaller);
  ASSERT_EQ(order.size(), 50u);
  EXPECT_TRUE(std::is_sorted(order.rbegin(), order.rend()));
}

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
#include <utility>
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

long VisitedOnce(const Visits& visits) {
  return std::count(visits.begin(), visits.end(), 1);
}

// Bands of rows with any number of workers, directly and as subtasks of tasks that wait for them the
// same way: the helping waiters and the workers race to claim them, and each runs exactly once.
TEST(CScheduler, EveryBandRunsOnceWithAnyNumberOfWorkersAndWaitsNestWithoutDeadlock) {
  constexpr int kOuter = 12, kRows = 101;
  for (int workers : {-1, 0, 1, 3}) {
    tools::CScheduler own(std::max(workers, 0));
    tools::CScheduler& scheduler = workers < 0 ? tools::GetScheduler<tools::SchedulerType::Default>() : own;
    Visits flat(10 * kRows), nested(kOuter * kRows);
    SubmitAndHelp(scheduler, MakeBands(10 * kRows, 7, flat));
    TaskList outer;
    for (std::size_t o = 0; o < kOuter; ++o)
      outer.push_back(std::make_shared<Task>(
          [&, o] { SubmitAndHelp(scheduler, MakeBands(kRows, 3, nested, o * kRows)); }));
    SubmitAndHelp(scheduler, outer);
    EXPECT_TRUE(VisitedOnce(flat) == 10 * kRows && VisitedOnce(nested) == kOuter * kRows) << workers;
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
  // Values outside 1..256 or not wholly a number leave the count to the hardware (0 below).
  const std::pair<const char*, int> values[] = {{"1", 1},   {"256", 256}, {"0", 0}, {"-3", 0},
                                                {"257", 0}, {"4x", 0},    {"", 0}};
  for (const auto& [value, expected] : values) {
    ::setenv("IMAGERY_WORKER_THREADS", value, 1);
    EXPECT_EQ(tools::CScheduler::DefaultWorkerCount(), expected ? expected : fromHardware)
        << '"' << value << '"';
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
  EXPECT_TRUE(tools::GetJobThreadLimit() == 0 && allOnCaller && order.size() == 50u);
  EXPECT_TRUE(std::is_sorted(order.rbegin(), order.rend()));
}

// KORProgress: shares of a tree of progress levels, summed into the top level's value.
#include "imagery_host/progress.h"

#include <algorithm>
#include <mutex>
#include <utility>

namespace {

// Granularity of callback reports; finer updates would only cost the reporting threads time.
constexpr double kReportThreshold = 0.001;
// Sums of many fractional steps fall a rounding error short of their total; within this distance a
// share counts as complete.
constexpr double kRoundingSlack = 1e-9;

double Fraction(double done, double span) {
  if (span <= 0.0) {
    return 1.0;
  }
  const double fraction = done / span;
  return fraction >= 1.0 - kRoundingSlack ? 1.0 : fraction;
}

void AtomicAdd(std::atomic<double>& target, double amount) {
  double current = target.load(std::memory_order_relaxed);
  while (!target.compare_exchange_weak(current, current + amount, std::memory_order_acq_rel)) {
  }
}

}  // namespace

struct KORProgress::Notifier {
  Callback callback;
  std::mutex mutex;
  double lastReported = 0.0;  // guarded by mutex
  std::atomic<double> lastReportedHint{0.0};
};

KORProgress::KORProgress() : KORProgress(nullptr, 1.0) {}

KORProgress::KORProgress(Callback callback) : KORProgress(nullptr, 1.0) {
  if (callback) {
    notifier_ = std::make_unique<Notifier>();
    notifier_->callback = std::move(callback);
  }
}

KORProgress::KORProgress(KORProgress* parent, double span) : parent_(parent), span_(span) {
  stepSize_.store(span, std::memory_order_relaxed);
}

KORProgress::~KORProgress() = default;

void KORProgress::Steps(long long count) {
  const double remaining = std::max(0.0, span_ - claimed_.load(std::memory_order_acquire));
  stepSize_.store(remaining / static_cast<double>(std::max(count, 1LL)), std::memory_order_release);
}

void KORProgress::Step(long long count) {
  if (count > 0) {
    Claim(stepSize_.load(std::memory_order_acquire) * static_cast<double>(count));
  }
}

float KORProgress::GetValue() const {
  return static_cast<float>(Fraction(done_.load(std::memory_order_acquire), span_));
}

void KORProgress::Claim(double amount) {
  double before = claimed_.load(std::memory_order_relaxed);
  double after = before;
  do {
    after = std::min(span_, before + amount);
  } while (!claimed_.compare_exchange_weak(before, after, std::memory_order_acq_rel));
  if (after > before) {
    AddDone(after - before);
  }
}

void KORProgress::AddDone(double amount) {
  KORProgress* level = this;
  for (; level->parent_ != nullptr; level = level->parent_) {
    AtomicAdd(level->done_, amount);
  }
  AtomicAdd(level->done_, amount);

  Notifier* notifier = level->notifier_.get();
  if (notifier == nullptr) {
    return;
  }
  const double value = Fraction(level->done_.load(std::memory_order_acquire), level->span_);
  // Cheap pre-check so that most steps of a fine-grained loop never touch the mutex.
  if (value < 1.0 && value - notifier->lastReportedHint.load(std::memory_order_relaxed) < kReportThreshold) {
    return;
  }
  std::lock_guard<std::mutex> lock(notifier->mutex);
  // Re-read under the lock: another thread may have added more since, and reports must not go back.
  const double latest = Fraction(level->done_.load(std::memory_order_acquire), level->span_);
  if (latest <= notifier->lastReported ||
      (latest < 1.0 && latest - notifier->lastReported < kReportThreshold)) {
    return;
  }
  notifier->lastReported = latest;
  notifier->lastReportedHint.store(latest, std::memory_order_relaxed);
  notifier->callback(static_cast<float>(latest));
}

KORProgress::SubProgressStep::SubProgressStep(KORProgress& parent) : KORProgress(&parent, 0.0) {
  // The parent's share for this step is claimed now, so that sibling sub-steps started in parallel
  // get distinct steps; it is reported as the child advances.
  double before = parent.claimed_.load(std::memory_order_relaxed);
  double after = before;
  do {
    after = std::min(parent.span_, before + parent.stepSize_.load(std::memory_order_acquire));
  } while (!parent.claimed_.compare_exchange_weak(before, after, std::memory_order_acq_rel));
  span_ = after - before;
  stepSize_.store(span_, std::memory_order_relaxed);
}

KORProgress::SubProgressStep::~SubProgressStep() {
  Claim(span_);
}

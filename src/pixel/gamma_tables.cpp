// Building and sharing the decode tables and encode thresholds of gamma_tables.h.
#include "imagery/gamma_tables.h"

#include <algorithm>
#include <cstring>
#include <functional>
#include <limits>
#include <mutex>
#include <utility>

#include "cpu/cpu_level.h"
#include "pixel/gamma_curves.h"
#include "pixel/srgb_rows.h"

namespace imagery {
namespace {

// The most recently used tables of a kind, keyed by gamma bits and precision. Tables are built under
// the lock, so two threads asking for the same new gamma build it once.
template <class Table>
class RecentTables {
 public:
  std::shared_ptr<const Table> Get(std::uint64_t key,
                                   const std::function<std::shared_ptr<const Table>()>& build) {
    std::lock_guard<std::mutex> lock(mutex_);
    for (std::size_t i = 0; i < entries_.size(); ++i) {
      if (entries_[i].first == key) {
        // Most recent last, so that eviction takes the front.
        std::rotate(entries_.begin() + static_cast<std::ptrdiff_t>(i),
                    entries_.begin() + static_cast<std::ptrdiff_t>(i) + 1, entries_.end());
        return entries_.back().second;
      }
    }
    if (entries_.size() >= kCapacity)
      entries_.erase(entries_.begin());
    entries_.emplace_back(key, build());
    return entries_.back().second;
  }

 private:
  static constexpr std::size_t kCapacity = 8;
  std::mutex mutex_;
  std::vector<std::pair<std::uint64_t, std::shared_ptr<const Table>>> entries_;
};

std::uint64_t CacheKey(GammaValue gamma, PowerPrecision precision) {
  return static_cast<std::uint64_t>(curves::GammaBits(gamma)) << 8 | static_cast<std::uint64_t>(precision);
}

template <class Code>
std::shared_ptr<const std::vector<float>> BuildDecodeTable(GammaValue gamma) {
  auto table = std::make_shared<std::vector<float>>(GammaDecodeTable<Code>::kSize);
  for (std::size_t v = 0; v < table->size(); ++v) {
    (*table)[v] = curves::Decode(static_cast<Code>(v), gamma);
  }
  return table;
}

template <class Code>
std::shared_ptr<const std::vector<float>> SharedDecodeTable(GammaValue gamma) {
  if (gamma == gamma::sRGB) {
    static const auto srgb = BuildDecodeTable<Code>(gamma::sRGB);
    return srgb;
  }
  if (gamma == gamma::Linear) {
    static const auto linear = BuildDecodeTable<Code>(gamma::Linear);
    return linear;
  }
  static RecentTables<std::vector<float>> recent;
  return recent.Get(CacheKey(gamma, PowerPrecision::Single),
                    [gamma] { return BuildDecodeTable<Code>(gamma); });
}

float FromBits(std::uint32_t bits) {
  float value;
  std::memcpy(&value, &bits, sizeof value);
  return value;
}

template <class Code>
std::uint32_t ReferenceCode(std::uint32_t bits, GammaValue gamma, PowerPrecision precision) {
  const float encoded = curves::EncodeLinear(FromBits(bits), gamma, precision);
  return detail::RoundToCode<GammaEncoder<Code>::kMaxCode>(encoded *
                                                           static_cast<float>(GammaEncoder<Code>::kMaxCode));
}

// Thresholds are searched over the bit patterns of [0, 1], which order like the floats they stand for:
// from the previous threshold, gallop to a bracket and bisect it.
template <class Code>
std::shared_ptr<const detail::EncodeThresholds<Code>> BuildThresholds(GammaValue gamma,
                                                                      PowerPrecision precision) {
  using Thresholds = detail::EncodeThresholds<Code>;
  constexpr std::uint32_t kMax = GammaEncoder<Code>::kMaxCode;
  constexpr std::uint32_t kNone = Thresholds::kOneBits + 1;
  auto code = [&](std::uint32_t bits) { return ReferenceCode<Code>(bits, gamma, precision); };

  std::vector<std::uint32_t> thresholdBits(kMax + 1, kNone);
  thresholdBits[0] = 0;
  std::uint32_t previous = 0;
  for (std::uint32_t k = 1; k <= kMax; ++k) {
    if (code(Thresholds::kOneBits) < k)
      break;
    if (code(previous) >= k) {
      thresholdBits[k] = previous;
      continue;
    }
    // code(low) < k <= code(high)
    std::uint32_t low = previous;
    std::uint32_t step = 1;
    std::uint32_t high = low + step;
    while (high < Thresholds::kOneBits && code(high) < k) {
      low = high;
      step *= 2;
      high = low + step < Thresholds::kOneBits ? low + step : Thresholds::kOneBits;
    }
    while (high - low > 1) {
      const std::uint32_t middle = low + (high - low) / 2;
      if (code(middle) >= k) {
        high = middle;
      } else {
        low = middle;
      }
    }
    thresholdBits[k] = high;
    previous = high;
  }

  auto table = std::make_shared<Thresholds>();
  table->thresholds.resize(kMax + 2);
  table->thresholds[0] = -std::numeric_limits<float>::infinity();
  for (std::uint32_t k = 1; k <= kMax; ++k) {
    table->thresholds[k] =
        thresholdBits[k] == kNone ? std::numeric_limits<float>::infinity() : FromBits(thresholdBits[k]);
  }
  table->thresholds[kMax + 1] = std::numeric_limits<float>::infinity();

  table->buckets.resize(Thresholds::kBucketCount);
  std::uint32_t count = 0;
  for (std::size_t i = 0; i < Thresholds::kBucketCount; ++i) {
    const std::uint32_t start = static_cast<std::uint32_t>(i) << Thresholds::kShift;
    while (count < kMax && thresholdBits[count + 1] <= start)
      ++count;
    table->buckets[i] = static_cast<Code>(count);
  }
  return table;
}

template <class Code>
std::shared_ptr<const detail::EncodeThresholds<Code>> SharedThresholds(GammaValue gamma,
                                                                       PowerPrecision precision) {
  static RecentTables<detail::EncodeThresholds<Code>> recent;
  return recent.Get(CacheKey(gamma, precision),
                    [gamma, precision] { return BuildThresholds<Code>(gamma, precision); });
}

}  // namespace

template <class Code>
void GammaEncoder<Code>::EncodeRow(const float* linear, Code* codes, std::size_t count) const {
  std::size_t i = 0;
  switch (kind_) {
    case Kind::SRGB:
      srgbRow_(linear, codes, count);
      return;
    case Kind::Linear:
      for (; i < count; ++i)
        codes[i] = Quantize(ClampUnit(linear[i]));
      return;
    case Kind::Table:
      for (; i < count; ++i)
        codes[i] = FromThresholds(ClampUnit(linear[i]));
      return;
    case Kind::Direct:
      break;
  }
  for (; i < count; ++i)
    codes[i] = (*this)(linear[i]);
}

template <class Code>
GammaDecodeTable<Code>::GammaDecodeTable(GammaValue gamma)
    : gamma_(gamma), storage_(SharedDecodeTable<Code>(gamma)), values_(storage_->data()) {}

template <class Code>
GammaEncoder<Code>::GammaEncoder(GammaValue gamma, PowerPrecision precision)
    : gamma_(gamma), precision_(precision) {
  const float g = gamma.Value();
  if (gamma.IsSRGB()) {
    kind_ = Kind::SRGB;
    const cpu::Level level = cpu::Active();
    if constexpr (sizeof(Code) == 1) {
      srgbRow_ = detail::SRGBRowEncoder8(level);
      srgbThree_ = detail::SRGBThreeEncoder8(level);
    } else {
      srgbRow_ = detail::SRGBRowEncoder16(level);
      srgbThree_ = detail::SRGBThreeEncoder16(level);
    }
  } else if (g == 1.0f) {
    // c^1 is c in both precisions.
    kind_ = Kind::Linear;
  } else if (g >= detail::kMinTableGamma && g <= detail::kMaxTableGamma) {
    kind_ = Kind::Table;
    table_ = SharedThresholds<Code>(gamma, precision);
    thresholds_ = table_->thresholds.data();
    buckets_ = table_->buckets.data();
  }
}

template class GammaDecodeTable<unsigned char>;
template class GammaDecodeTable<unsigned short>;
template class GammaEncoder<unsigned char>;
template class GammaEncoder<unsigned short>;

}  // namespace imagery

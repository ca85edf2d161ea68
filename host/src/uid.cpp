// Generation, text form and stream form of permanent identifiers.
#include "imagery_host/uid.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <random>
#include <thread>

#include "hex.h"
#include "imagery_host/stream.h"

namespace zel_uid {
namespace {

std::uint64_t EntropyValue() {
  try {
    std::random_device device;
    return (static_cast<std::uint64_t>(device()) << 32) ^ device();
  } catch (...) {
    // Without an entropy source, the clock and the thread still make starting values differ between runs and
    // threads; uniqueness inside the process rests on the counter anyway.
    const auto now = std::chrono::high_resolution_clock::now().time_since_epoch().count();
    return static_cast<std::uint64_t>(now) ^ std::hash<std::thread::id>()(std::this_thread::get_id());
  }
}

// Each thread draws its random half from its own generator, so that making ids takes no lock.
std::uint64_t RandomHalf() {
  thread_local std::mt19937_64 generator(EntropyValue());
  return generator();
}

// The counter half: a random process-wide offset plus a counter that never repeats within the process.
std::uint64_t CounterHalf() {
  static const std::uint64_t offset = EntropyValue();
  static std::atomic<std::uint64_t> counter{0};
  return offset + counter.fetch_add(1, std::memory_order_relaxed);
}

void StoreBigEndian(std::uint64_t value, unsigned char* bytes) {
  for (int i = 7; i >= 0; --i) {
    bytes[i] = static_cast<unsigned char>(value & 0xFF);
    value >>= 8;
  }
}

}  // namespace

PermUID::PermUID(int generationState) {
  if (generationState != kGenerateNew)
    return;
  const std::uint64_t counterHalf = CounterHalf();
  std::uint64_t randomHalf = RandomHalf();
  // A new id must never read as the null id.
  while (randomHalf == 0 && counterHalf == 0)
    randomHalf = RandomHalf();
  StoreBigEndian(randomHalf, bytes_);
  StoreBigEndian(counterHalf, bytes_ + 8);
}

bool PermUID::IsNull() const {
  return std::all_of(bytes_, bytes_ + kSize, [](unsigned char b) { return b == 0; });
}

std::string PermUID::ToString() const {
  return zel::detail::BytesToHex(bytes_, kSize, false);
}

bool PermUID::Write(ZELStream* stream) const {
  return stream != nullptr && stream->Write(bytes_, kSize);
}

bool PermUID::Read(ZELStream* stream) {
  unsigned char read[kSize];
  if (stream == nullptr || !stream->Read(read, kSize))
    return false;
  std::memcpy(bytes_, read, kSize);
  return true;
}

bool operator==(const PermUID& a, const PermUID& b) {
  return std::memcmp(a.bytes_, b.bytes_, PermUID::kSize) == 0;
}

bool operator<(const PermUID& a, const PermUID& b) {
  return std::memcmp(a.bytes_, b.bytes_, PermUID::kSize) < 0;
}

}  // namespace zel_uid

std::size_t std::hash<zel_uid::PermUID>::operator()(const zel_uid::PermUID& id) const noexcept {
  // The random half spreads well; the counter half separates ids that share it by chance.
  std::uint64_t first = 0;
  std::uint64_t second = 0;
  std::memcpy(&first, id.GetBytes(), 8);
  std::memcpy(&second, id.GetBytes() + 8, 8);
  return static_cast<std::size_t>(first ^ (second * 0x9E3779B97F4A7C15ull));
}

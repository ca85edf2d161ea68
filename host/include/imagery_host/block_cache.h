// Byte stores in blocks (the storage behind pixel planes) and the host's growable plain-data array.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <new>
#include <type_traits>
#include <vector>

// A store of bytes cut into blocks of equal size (the last may be shorter). Offset o lies in block
// o / block size at position o % block size. The store owns its blocks; it is not copyable and not
// synchronised: concurrent writers must touch disjoint bytes.
class KORBlockCacheInterface {
 public:
  virtual ~KORBlockCacheInterface() = default;

  virtual std::uint64_t GetTotalSize() const = 0;
  virtual std::uint64_t GetBlockSize() const = 0;
  virtual std::size_t GetBlockCount() const = 0;
  // The first byte of a block; null for an empty store.
  virtual unsigned char* GetBlock(std::size_t index) = 0;
  virtual const unsigned char* GetBlock(std::size_t index) const = 0;
};

// Allocation policy of plain byte blocks: null when the memory cannot be had; zero-filled when asked.
// A policy is told each block's size again when it frees it, so that it may map memory itself.
struct KORByteArrayPolicy {
  static unsigned char* Allocate(std::size_t size, bool zeroed) noexcept {
    return zeroed ? new (std::nothrow) unsigned char[size]() : new (std::nothrow) unsigned char[size];
  }
  static void Free(unsigned char* block, std::size_t /*size*/) noexcept { delete[] block; }
};

template <class Policy>
class ToolsBlockCache final : public KORBlockCacheInterface {
 public:
  static constexpr std::uint64_t kDefaultBlockSize = 1048576;

  ToolsBlockCache() = default;
  ToolsBlockCache(const ToolsBlockCache&) = delete;
  ToolsBlockCache& operator=(const ToolsBlockCache&) = delete;
  ~ToolsBlockCache() override { Release(); }

  // Allocates `totalSize` bytes in blocks of `blockSize` (0 means the default size), zero-filled when
  // `zeroed` is set and not initialised otherwise. Answers false, leaving the store empty, when the
  // memory cannot be had.
  bool Create(std::uint64_t totalSize, std::uint64_t blockSize, bool zeroed = false) {
    Release();
    blockSize_ = blockSize == 0 ? kDefaultBlockSize : blockSize;
    if (totalSize == 0)
      return true;
    const std::uint64_t count = (totalSize - 1) / blockSize_ + 1;
    if (count > blocks_.max_size() || blockSize_ > SIZE_MAX)
      return false;
    blocks_.reserve(static_cast<std::size_t>(count));
    // Set first: a failure part way frees the blocks already made with the sizes they were made with.
    totalSize_ = totalSize;
    for (std::uint64_t i = 0; i < count; ++i) {
      const std::uint64_t size = std::min(blockSize_, totalSize - i * blockSize_);
      unsigned char* block = Policy::Allocate(static_cast<std::size_t>(size), zeroed);
      if (block == nullptr) {
        Release();
        return false;
      }
      blocks_.push_back(block);
    }
    return true;
  }

  std::uint64_t GetTotalSize() const override { return totalSize_; }
  std::uint64_t GetBlockSize() const override { return blockSize_; }
  std::size_t GetBlockCount() const override { return std::max<std::size_t>(blocks_.size(), 1); }
  unsigned char* GetBlock(std::size_t index) override {
    return index < blocks_.size() ? blocks_[index] : nullptr;
  }
  const unsigned char* GetBlock(std::size_t index) const override {
    return index < blocks_.size() ? blocks_[index] : nullptr;
  }

 private:
  void Release() {
    for (std::size_t i = 0; i < blocks_.size(); ++i)
      Policy::Free(blocks_[i], static_cast<std::size_t>(std::min(blockSize_, totalSize_ - i * blockSize_)));
    blocks_.clear();
    totalSize_ = 0;
  }

  std::vector<unsigned char*> blocks_;
  std::uint64_t totalSize_ = 0;
  std::uint64_t blockSize_ = kDefaultBlockSize;
};

// A growable array of plain data whose growth is part of its contract: callers rely on the capacity it
// reaches. New elements are zeroed. Not synchronised.
template <class T>
class ZELArrayBase_NOSTL {
  static_assert(std::is_trivially_copyable<T>::value, "elements are copied and zeroed as bytes");

 public:
  ZELArrayBase_NOSTL() = default;
  ZELArrayBase_NOSTL(const ZELArrayBase_NOSTL& other) { *this = other; }
  ZELArrayBase_NOSTL& operator=(const ZELArrayBase_NOSTL& other) {
    if (this != &other) {
      SetSize(0);
      step_ = other.step_;
      if (other.size_ > 0) {
        SetSize(other.size_);
        std::memcpy(data_.get(), other.data_.get(), sizeof(T) * static_cast<std::size_t>(other.size_));
      }
    }
    return *this;
  }

  int GetSize() const { return size_; }
  int GetCapacity() const { return capacity_; }
  int GetStep() const { return step_; }
  T* GetData() { return data_.get(); }
  const T* GetData() const { return data_.get(); }
  T& operator[](int index) { return data_[static_cast<std::size_t>(index)]; }
  const T& operator[](int index) const { return data_[static_cast<std::size_t>(index)]; }

  // Appends one zeroed element and answers its index. A step other than -1 is stored first. An empty
  // array allocates exactly one element; a full one grows to max(size + 1, capacity + step).
  int IncrementSize(int step = -1) {
    if (step != -1)
      step_ = step;
    if (size_ == capacity_)
      Reallocate(capacity_ == 0 ? 1 : std::max(size_ + 1, capacity_ + EffectiveStep()));
    std::memset(static_cast<void*>(&data_[static_cast<std::size_t>(size_)]), 0, sizeof(T));
    return size_++;
  }

  // Resizes, zeroing new elements. Size 0 frees the storage; an array without storage allocates exactly
  // `size` elements; growing past the capacity allocates max(capacity + step, size); storage never shrinks
  // otherwise.
  void SetSize(int size, int step = -1) {
    if (step != -1)
      step_ = step;
    if (size <= 0) {
      data_.reset();
      size_ = capacity_ = 0;
      return;
    }
    if (capacity_ == 0)
      Reallocate(size);
    else if (size > capacity_)
      Reallocate(std::max(capacity_ + EffectiveStep(), size));
    if (size > size_)
      std::memset(static_cast<void*>(&data_[static_cast<std::size_t>(size_)]), 0,
                  sizeof(T) * static_cast<std::size_t>(size - size_));
    size_ = size;
  }

  // Removes the element at `index`, moving the later ones down.
  void RemoveAt(int index) {
    if (index < 0 || index >= size_)
      return;
    std::memmove(static_cast<void*>(&data_[static_cast<std::size_t>(index)]),
                 &data_[static_cast<std::size_t>(index) + 1],
                 sizeof(T) * static_cast<std::size_t>(size_ - index - 1));
    --size_;
  }

  // Inserts `value` before `index` (clamped to [0, size]).
  void InsertAt(int index, const T& value) {
    index = std::clamp(index, 0, size_);
    IncrementSize();
    std::memmove(static_cast<void*>(&data_[static_cast<std::size_t>(index) + 1]),
                 &data_[static_cast<std::size_t>(index)],
                 sizeof(T) * static_cast<std::size_t>(size_ - 1 - index));
    data_[static_cast<std::size_t>(index)] = value;
  }

 private:
  // A step below 1 means min(size / 8, 1024), but at least 4.
  int EffectiveStep() const { return step_ >= 1 ? step_ : std::max(std::min(size_ / 8, 1024), 4); }

  void Reallocate(int capacity) {
    std::unique_ptr<T[]> grown(new T[static_cast<std::size_t>(capacity)]);
    if (size_ > 0)
      std::memcpy(static_cast<void*>(grown.get()), data_.get(), sizeof(T) * static_cast<std::size_t>(size_));
    data_ = std::move(grown);
    capacity_ = capacity;
  }

  std::unique_ptr<T[]> data_;
  int size_ = 0;
  int capacity_ = 0;
  int step_ = 0;
};

// The chunked scene stream: ZELStream over memory (ZELMemoryStream) or a file (ZELFileStream), the
// chunk writer ZELWriteChunk and the chunk reader ZELReadChunk.
//
// Byte layout. Every multi-byte number is written in the stream's byte order (little-endian unless the
// stream was created big-endian); WriteSwap/ReadSwap convert between it and the processor's order.
//   chunk        : u16 id, u64 data size, then `size` bytes of data. Chunks opened inside an open chunk
//                  nest in its data. The size is written as 0 when the chunk begins and fixed when its
//                  ZELWriteChunk is destroyed.
//   typed value  : u16 tag, then the value. Tags: 0 unsigned char (also bool), 1 signed 16-bit,
//                  2 signed 32-bit int, 3 32-bit float, 4 64-bit double.
//   wide string  : u32 byte count, then that many bytes of UTF-8 (WriteString/ReadString, untagged).
//   byte string  : u32 byte count, then the bytes (WriteStdString/ReadStdString, untagged).
//   raw bytes    : Write/Read move bytes unchanged.
// There is no stream header: the version (GetVersion) and byte order are properties the creator of a
// stream sets.
//
// Reading is bounded. Each open ZELReadChunk limits reads to its data; no read crosses the end of the
// innermost open chunk or of the stream, a chunk header whose size exceeds what remains in its parent
// is refused, and nesting is limited to kMaxChunkDepth. Every refused operation answers false and leaves
// the position where it was; it does not mark the stream failed (readers decide that with SetError).
//
// A stream is used by one thread at a time.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <fstream>
#include <string>
#include <type_traits>
#include <vector>

#include "imagery_host/error.h"

class ZELString;
class ZELPath;

enum class ZELByteOrder { LittleEndian, BigEndian };

// The typed-value tag of each value type (the u16 written before the value).
template <class T>
struct TypeToChunkAndSize;
template <>
struct TypeToChunkAndSize<unsigned char> {
  static constexpr unsigned short Chunk = 0;
};
template <>
struct TypeToChunkAndSize<bool> {
  static constexpr unsigned short Chunk = 0;
};
template <>
struct TypeToChunkAndSize<short> {
  static constexpr unsigned short Chunk = 1;
};
template <>
struct TypeToChunkAndSize<int> {
  static constexpr unsigned short Chunk = 2;
};
template <>
struct TypeToChunkAndSize<float> {
  static constexpr unsigned short Chunk = 3;
};
template <>
struct TypeToChunkAndSize<double> {
  static constexpr unsigned short Chunk = 4;
};

namespace zel {
// Scene-file versions are plain increasing numbers.
inline bool IsPosteriorOrEqual(int version, int reference) {
  return version >= reference;
}
}  // namespace zel

class ZELStream {
 public:
  static constexpr int kCurrentVersion = 1200;
  static constexpr int kMaxChunkDepth = 64;
  static constexpr unsigned short kNoChunkID = 0xFFFF;
  static constexpr std::size_t kChunkHeaderSize = 2 + 8;

  ZELStream(const ZELStream&) = delete;
  ZELStream& operator=(const ZELStream&) = delete;
  virtual ~ZELStream();

  bool Write(const void* data, std::size_t size);
  bool Read(void* data, std::size_t size);
  // A hint that about `bytes` more bytes are about to be written, so that a stream growing in memory
  // makes room once instead of growing step by step. Changes nothing that can be observed.
  virtual void WillWrite(std::uint64_t bytes) { static_cast<void>(bytes); }

  // Arithmetic values in the stream's byte order.
  template <class T>
  bool WriteSwap(T value) {
    static_assert(std::is_arithmetic<T>::value, "WriteSwap takes numbers");
    unsigned char bytes[sizeof(T)];
    std::memcpy(bytes, &value, sizeof(T));
    if (NeedsSwap())
      Reverse(bytes, sizeof(T));
    return Write(bytes, sizeof(T));
  }
  template <class T>
  bool ReadSwap(T& value) {
    static_assert(std::is_arithmetic<T>::value, "ReadSwap takes numbers");
    unsigned char bytes[sizeof(T)];
    if (!Read(bytes, sizeof(T)))
      return false;
    if (NeedsSwap())
      Reverse(bytes, sizeof(T));
    std::memcpy(&value, bytes, sizeof(T));
    return true;
  }

  // Typed values: the tag of TypeToChunkAndSize<T>, then the value. A bool travels as an unsigned char.
  template <class T>
  bool WriteTyped(T value) {
    if (!WriteSwap<unsigned short>(TypeToChunkAndSize<T>::Chunk))
      return false;
    if constexpr (std::is_same<T, bool>::value) {
      return WriteSwap<unsigned char>(value ? 1 : 0);
    } else {
      return WriteSwap<T>(value);
    }
  }
  // Reads a tag and the value; false (position restored) when the tag is not T's or data is missing.
  template <class T>
  bool ReadTyped(T& value) {
    const std::uint64_t start = Tell();
    bool ok = CheckReadChunk(TypeToChunkAndSize<T>::Chunk);
    if constexpr (std::is_same<T, bool>::value) {
      unsigned char byte = 0;
      ok = ok && ReadSwap(byte);
      if (ok)
        value = byte != 0;
    } else {
      ok = ok && ReadSwap(value);
    }
    // CheckReadChunk consumes a mismatching tag; a typed read takes nothing when it fails.
    if (!ok)
      Seek(start);
    return ok;
  }

  // Reads a u16 tag and answers whether it is `tag`. The tag is consumed either way when it was present.
  bool CheckReadChunk(unsigned short tag);
  // A typed 32-bit int.
  bool ReadSInt32(int& value);
  // A typed 32-bit int, or the typed 16-bit value that older chunks hold in its place (widened).
  bool ReadSIntAnyWidth(int& value);

  bool WriteString(const ZELString& text);
  bool ReadString(ZELString& text);
  bool WriteStdString(const std::string& bytes);
  bool ReadStdString(std::string& bytes);
  // A path travels as its wide text.
  bool WritePath(const ZELPath& path);
  bool ReadPath(ZELPath& path);

  // The id of the next chunk without consuming it, or kNoChunkID when no complete chunk header remains
  // inside the innermost open chunk.
  unsigned short GetNextChunkID();

  // The position: absolute, or relative to the data start of the innermost open read chunk.
  std::uint64_t Tell(bool relativeToChunk = false) const;
  // True at the end of the stream's data, or once the stream has been marked failed.
  bool EndOfStream() const;
  // Bytes that can still be read before the innermost limit (open chunk end or stream end).
  std::uint64_t Remaining() const;

  int GetVersion() const { return version_; }
  void SetVersion(int version) { version_ = version; }
  ZELByteOrder GetByteOrder() const { return byteOrder_; }

  void SetError(const zel::ErrorCode& error) { error_ = error; }
  const zel::ErrorCode& GetError() const { return error_; }
  bool Failed() const { return error_.IsBad(); }

 protected:
  ZELStream(ZELByteOrder byteOrder, int version);

  // The device: sequential bytes with random access for patching chunk sizes and skipping chunks.
  virtual bool DoWrite(const void* data, std::size_t size) = 0;
  virtual bool DoRead(void* data, std::size_t size) = 0;
  virtual bool DoSeek(std::uint64_t position) = 0;
  virtual std::uint64_t DoTell() const = 0;
  virtual std::uint64_t DoSize() const = 0;

 private:
  friend class ZELWriteChunk;
  friend class ZELReadChunk;

  bool NeedsSwap() const;
  static void Reverse(unsigned char* bytes, std::size_t size);
  bool Seek(std::uint64_t position) { return DoSeek(position); }
  std::uint64_t Limit() const;

  // An open read chunk. The serial tells a reader whether its frame is still the one it pushed, so that
  // closing an outer reader first and an inner one afterwards does not pop someone else's frame.
  struct ReadFrame {
    std::uint64_t start;
    std::uint64_t end;
    std::uint64_t serial;
  };

  ZELByteOrder byteOrder_;
  int version_;
  zel::ErrorCode error_;
  // The open read chunks, innermost last. Each lies inside the one before it.
  std::vector<ReadFrame> readFrames_;
  std::uint64_t nextSerial_ = 0;
};

// A stream over a growable byte buffer, readable and writable. Writing at the end appends; writing
// inside overwrites.
class ZELMemoryStream : public ZELStream {
 public:
  explicit ZELMemoryStream(ZELByteOrder byteOrder = ZELByteOrder::LittleEndian,
                           int version = ZELStream::kCurrentVersion);
  // A stream positioned at the start of `bytes`, typically for reading them back.
  explicit ZELMemoryStream(std::vector<unsigned char> bytes,
                           ZELByteOrder byteOrder = ZELByteOrder::LittleEndian,
                           int version = ZELStream::kCurrentVersion);

  const std::vector<unsigned char>& Bytes() const { return bytes_; }
  // Room for the bytes and an eighth more, for what usually follows a large block.
  void WillWrite(std::uint64_t bytes) override;
  // Moves to the start, for reading back what was written.
  void Rewind() { position_ = 0; }

 protected:
  bool DoWrite(const void* data, std::size_t size) override;
  bool DoRead(void* data, std::size_t size) override;
  bool DoSeek(std::uint64_t position) override;
  std::uint64_t DoTell() const override { return position_; }
  std::uint64_t DoSize() const override { return bytes_.size(); }

 private:
  std::vector<unsigned char> bytes_;
  std::uint64_t position_ = 0;
};

// A stream over a file, opened for reading or for writing (truncating). A stream opened for reading
// refuses writes; one opened for writing can read back what it wrote. A file that cannot be opened gives
// a stream on which every operation fails (check IsOpen).
class ZELFileStream : public ZELStream {
 public:
  enum class Mode { Read, Write };
  ZELFileStream(const ZELPath& path, Mode mode, ZELByteOrder byteOrder = ZELByteOrder::LittleEndian,
                int version = ZELStream::kCurrentVersion);
  ~ZELFileStream() override;

  bool IsOpen() const { return file_.is_open(); }
  // Flushes and closes; false when the data could not be written.
  bool Close();

 protected:
  bool DoWrite(const void* data, std::size_t size) override;
  bool DoRead(void* data, std::size_t size) override;
  bool DoSeek(std::uint64_t position) override;
  std::uint64_t DoTell() const override { return position_; }
  std::uint64_t DoSize() const override { return size_; }

 private:
  bool SeekDevice(std::uint64_t position);

  Mode mode_;
  std::fstream file_;
  std::uint64_t position_ = 0;
  std::uint64_t size_ = 0;
  // Set once a write or seek failed, so that Close can report data that never reached the file.
  bool ioFailed_ = false;
  // A file buffer needs a seek between a write and a following read (and the other way round).
  bool lastWasWrite_ = false;
};

// Begins a chunk on construction and ends it on destruction, fixing its size. Chunks nest by scope: an
// inner chunk must end before the chunk around it. The stream must outlive the writer.
class ZELWriteChunk {
 public:
  ZELWriteChunk(ZELStream* stream, unsigned short id);
  ZELWriteChunk(const ZELWriteChunk&) = delete;
  ZELWriteChunk& operator=(const ZELWriteChunk&) = delete;
  ~ZELWriteChunk();

  // False when the header could not be written.
  bool IsOk() const { return ok_; }
  // Ends the chunk now; the destructor then does nothing. False when the size could not be fixed.
  bool End();

 private:
  ZELStream* stream_;
  std::uint64_t headerPosition_ = 0;
  bool ok_ = false;
  bool ended_ = false;
};

// Opens the next chunk of a stream (InitChunk) and, on destruction or Close, moves the stream to the
// chunk's end, so that an opened and closed chunk is skipped whole. While open, the chunk limits every
// read of the stream to its data. Closing an outer reader closes the readers inside it too (their own
// Close then does nothing). The stream must outlive the reader.
class ZELReadChunk {
 public:
  ZELReadChunk() = default;
  ZELReadChunk(const ZELReadChunk&) = delete;
  ZELReadChunk& operator=(const ZELReadChunk&) = delete;
  ~ZELReadChunk() { Close(); }

  // Reads the header. False, with the position unchanged, when no complete header remains, the size
  // runs past the enclosing chunk or stream, the nesting is too deep, or this reader is already open.
  bool InitChunk(ZELStream* stream);
  void Close();

  bool IsOpen() const { return stream_ != nullptr; }
  unsigned short GetID() const { return id_; }
  // Absolute position of the first data byte.
  std::uint64_t GetStart() const { return start_; }
  std::uint64_t GetSize() const { return size_; }
  std::uint64_t GetEnd() const { return start_ + size_; }
  ZELStream* GetStream() const { return stream_; }
  // True while the stream is not at its end and the position is before the chunk's end.
  bool HasMoreData() const;

 private:
  ZELStream* stream_ = nullptr;
  unsigned short id_ = 0;
  std::uint64_t start_ = 0;
  std::uint64_t size_ = 0;
  std::size_t depth_ = 0;
  std::uint64_t serial_ = 0;
};

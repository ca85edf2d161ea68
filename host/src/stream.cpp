// The chunked scene stream: bounded reads, typed values, strings, the memory and file devices, and the
// chunk writer and reader.
#include "imagery_host/stream.h"

#include <algorithm>
#include <limits>

#include "imagery_host/zel_path.h"
#include "imagery_host/zel_string.h"

namespace {

bool HostIsBigEndian() {
  const std::uint16_t probe = 1;
  unsigned char first = 0;
  std::memcpy(&first, &probe, 1);
  return first == 0;
}

}  // namespace

// ---------------------------------------------------------------------------------------------------
// ZELStream

ZELStream::ZELStream(ZELByteOrder byteOrder, int version) : byteOrder_(byteOrder), version_(version) {}

ZELStream::~ZELStream() = default;

bool ZELStream::NeedsSwap() const {
  return (byteOrder_ == ZELByteOrder::BigEndian) != HostIsBigEndian();
}

void ZELStream::Reverse(unsigned char* bytes, std::size_t size) {
  std::reverse(bytes, bytes + size);
}

std::uint64_t ZELStream::Limit() const {
  const std::uint64_t size = DoSize();
  if (readFrames_.empty())
    return size;
  return std::min(readFrames_.back().end, size);
}

std::uint64_t ZELStream::Remaining() const {
  const std::uint64_t limit = Limit();
  const std::uint64_t position = DoTell();
  return position < limit ? limit - position : 0;
}

std::uint64_t ZELStream::Tell(bool relativeToChunk) const {
  const std::uint64_t position = DoTell();
  if (!relativeToChunk || readFrames_.empty())
    return position;
  const std::uint64_t start = readFrames_.back().start;
  return position > start ? position - start : 0;
}

bool ZELStream::EndOfStream() const {
  return Failed() || DoTell() >= DoSize();
}

bool ZELStream::Write(const void* data, std::size_t size) {
  if (size == 0)
    return true;
  if (data == nullptr)
    return false;
  return DoWrite(data, size);
}

bool ZELStream::Read(void* data, std::size_t size) {
  if (size == 0)
    return true;
  if (data == nullptr || size > Remaining())
    return false;
  const std::uint64_t start = DoTell();
  if (DoRead(data, size))
    return true;
  Seek(start);
  return false;
}

bool ZELStream::CheckReadChunk(unsigned short tag) {
  unsigned short found = 0;
  return ReadSwap(found) && found == tag;
}

bool ZELStream::ReadSInt32(int& value) {
  return ReadTyped(value);
}

bool ZELStream::ReadSIntAnyWidth(int& value) {
  short narrow = 0;
  if (ReadTyped(value))
    return true;
  if (!ReadTyped(narrow))
    return false;
  value = narrow;
  return true;
}

bool ZELStream::WriteStdString(const std::string& bytes) {
  if (bytes.size() > std::numeric_limits<std::uint32_t>::max())
    return false;
  return WriteSwap(static_cast<std::uint32_t>(bytes.size())) && Write(bytes.data(), bytes.size());
}

bool ZELStream::ReadStdString(std::string& bytes) {
  const std::uint64_t start = DoTell();
  std::uint32_t count = 0;
  if (!ReadSwap(count))
    return false;
  // The count is checked against the data present before anything is allocated for it.
  if (count > Remaining()) {
    Seek(start);
    return false;
  }
  std::string text(count, '\0');
  if (!Read(text.data(), count)) {
    Seek(start);
    return false;
  }
  bytes.swap(text);
  return true;
}

bool ZELStream::WriteString(const ZELString& text) {
  return WriteStdString(text.ToUTF8());
}

bool ZELStream::ReadString(ZELString& text) {
  std::string utf8;
  if (!ReadStdString(utf8))
    return false;
  text = ZELString::FromUTF8(utf8);
  return true;
}

bool ZELStream::WritePath(const ZELPath& path) {
  return WriteString(path.GetString());
}

bool ZELStream::ReadPath(ZELPath& path) {
  ZELString text;
  if (!ReadString(text))
    return false;
  path = ZELPath(text);
  return true;
}

unsigned short ZELStream::GetNextChunkID() {
  if (Remaining() < kChunkHeaderSize)
    return kNoChunkID;
  const std::uint64_t start = DoTell();
  unsigned short id = kNoChunkID;
  if (!ReadSwap(id))
    id = kNoChunkID;
  Seek(start);
  return id;
}

// ---------------------------------------------------------------------------------------------------
// ZELMemoryStream

ZELMemoryStream::ZELMemoryStream(ZELByteOrder byteOrder, int version) : ZELStream(byteOrder, version) {}

ZELMemoryStream::ZELMemoryStream(std::vector<unsigned char> bytes, ZELByteOrder byteOrder, int version)
    : ZELStream(byteOrder, version), bytes_(std::move(bytes)) {}

void ZELMemoryStream::WillWrite(std::uint64_t bytes) {
  const std::uint64_t wanted = position_ + bytes + bytes / 8;
  if (bytes < bytes_.max_size() / 2 && wanted > bytes_.capacity() && wanted < bytes_.max_size())
    bytes_.reserve(static_cast<std::size_t>(wanted));
}

bool ZELMemoryStream::DoWrite(const void* data, std::size_t size) {
  if (size > bytes_.max_size() - position_)
    return false;
  const std::size_t end = static_cast<std::size_t>(position_) + size;
  if (end > bytes_.size())
    bytes_.resize(end);
  std::memcpy(bytes_.data() + position_, data, size);
  position_ = end;
  return true;
}

bool ZELMemoryStream::DoRead(void* data, std::size_t size) {
  if (position_ > bytes_.size() || size > bytes_.size() - position_)
    return false;
  std::memcpy(data, bytes_.data() + position_, size);
  position_ += size;
  return true;
}

bool ZELMemoryStream::DoSeek(std::uint64_t position) {
  if (position > bytes_.size())
    return false;
  position_ = position;
  return true;
}

// ---------------------------------------------------------------------------------------------------
// ZELFileStream

ZELFileStream::ZELFileStream(const ZELPath& path, Mode mode, ZELByteOrder byteOrder, int version)
    : ZELStream(byteOrder, version), mode_(mode) {
  const std::string name = path.local_string();
  if (mode == Mode::Read) {
    file_.open(name, std::ios::in | std::ios::binary);
    if (!file_.is_open())
      return;
    file_.seekg(0, std::ios::end);
    const std::streamoff end = file_.tellg();
    file_.seekg(0, std::ios::beg);
    if (!file_ || end < 0) {
      file_.close();
      return;
    }
    size_ = static_cast<std::uint64_t>(end);
  } else {
    // Reading back is allowed so that a writer can check what it wrote.
    file_.open(name, std::ios::in | std::ios::out | std::ios::binary | std::ios::trunc);
  }
}

ZELFileStream::~ZELFileStream() {
  Close();
}

bool ZELFileStream::Close() {
  if (!file_.is_open())
    return !ioFailed_;
  if (mode_ == Mode::Write)
    file_.flush();
  const bool flushed = static_cast<bool>(file_);
  file_.close();
  if (!flushed || file_.fail())
    ioFailed_ = true;
  return !ioFailed_;
}

bool ZELFileStream::DoWrite(const void* data, std::size_t size) {
  if (mode_ != Mode::Write || !file_.is_open() || ioFailed_)
    return false;
  if (size > static_cast<std::uint64_t>(std::numeric_limits<std::streamsize>::max()))
    return false;
  if (!lastWasWrite_ && !SeekDevice(position_))
    return false;
  lastWasWrite_ = true;
  file_.write(static_cast<const char*>(data), static_cast<std::streamsize>(size));
  if (!file_) {
    ioFailed_ = true;
    return false;
  }
  position_ += size;
  size_ = std::max(size_, position_);
  return true;
}

bool ZELFileStream::DoRead(void* data, std::size_t size) {
  if (!file_.is_open() || ioFailed_)
    return false;
  if (position_ > size_ || size > size_ - position_)
    return false;
  if (lastWasWrite_ && !SeekDevice(position_))
    return false;
  lastWasWrite_ = false;
  file_.read(static_cast<char*>(data), static_cast<std::streamsize>(size));
  if (static_cast<std::size_t>(file_.gcount()) != size) {
    // The file shrank under us; put the device back where the stream thinks it is.
    SeekDevice(position_);
    return false;
  }
  position_ += size;
  return true;
}

bool ZELFileStream::SeekDevice(std::uint64_t position) {
  file_.clear();
  // A file buffer has a single position for input and output, so one seek serves both.
  if (mode_ == Mode::Write) {
    file_.seekp(static_cast<std::streamoff>(position));
  } else {
    file_.seekg(static_cast<std::streamoff>(position));
  }
  if (!file_) {
    ioFailed_ = true;
    return false;
  }
  return true;
}

bool ZELFileStream::DoSeek(std::uint64_t position) {
  if (!file_.is_open() || ioFailed_ || position > size_)
    return false;
  if (!SeekDevice(position))
    return false;
  position_ = position;
  return true;
}

// ---------------------------------------------------------------------------------------------------
// ZELWriteChunk

ZELWriteChunk::ZELWriteChunk(ZELStream* stream, unsigned short id) : stream_(stream) {
  if (stream_ == nullptr)
    return;
  headerPosition_ = stream_->DoTell();
  // The size is a placeholder until End knows how much data followed.
  ok_ = stream_->WriteSwap(id) && stream_->WriteSwap<std::uint64_t>(0);
}

ZELWriteChunk::~ZELWriteChunk() {
  End();
}

bool ZELWriteChunk::End() {
  if (ended_)
    return ok_;
  ended_ = true;
  if (!ok_)
    return false;
  const std::uint64_t end = stream_->DoTell();
  const std::uint64_t dataStart = headerPosition_ + ZELStream::kChunkHeaderSize;
  if (end < dataStart) {
    ok_ = false;
    return false;
  }
  ok_ = stream_->Seek(headerPosition_ + sizeof(unsigned short)) &&
        stream_->WriteSwap<std::uint64_t>(end - dataStart) && stream_->Seek(end);
  return ok_;
}

// ---------------------------------------------------------------------------------------------------
// ZELReadChunk

bool ZELReadChunk::InitChunk(ZELStream* stream) {
  if (stream == nullptr || stream_ != nullptr)
    return false;
  if (stream->readFrames_.size() >= static_cast<std::size_t>(ZELStream::kMaxChunkDepth))
    return false;
  const std::uint64_t remaining = stream->Remaining();
  if (remaining < ZELStream::kChunkHeaderSize)
    return false;

  const std::uint64_t headerStart = stream->DoTell();
  unsigned short id = 0;
  std::uint64_t size = 0;
  if (!stream->ReadSwap(id) || !stream->ReadSwap(size) || size > remaining - ZELStream::kChunkHeaderSize) {
    stream->Seek(headerStart);
    return false;
  }

  stream_ = stream;
  id_ = id;
  start_ = headerStart + ZELStream::kChunkHeaderSize;
  size_ = size;
  serial_ = stream->nextSerial_++;
  stream->readFrames_.push_back({start_, start_ + size_, serial_});
  depth_ = stream->readFrames_.size();
  return true;
}

void ZELReadChunk::Close() {
  if (stream_ == nullptr)
    return;
  std::vector<ZELStream::ReadFrame>& frames = stream_->readFrames_;
  // When an enclosing reader was closed first, this chunk's frame is gone and the stream already lies
  // past it: there is nothing left to undo.
  if (frames.size() >= depth_ && frames[depth_ - 1].serial == serial_) {
    frames.resize(depth_ - 1);
    stream_->Seek(GetEnd());
  }
  stream_ = nullptr;
}

bool ZELReadChunk::HasMoreData() const {
  return stream_ != nullptr && !stream_->EndOfStream() && stream_->Tell() < GetEnd();
}

// OpenEXR through the OpenEXR library. Its slices point straight into our planes (blue, green, red,
// alpha floats), so half and float channels are converted to 32-bit floats by the library as it reads.
// Its exceptions are caught here and never leave this file.
#include <Iex.h>
#include <ImfChannelList.h>
#include <ImfFrameBuffer.h>
#include <ImfHeader.h>
#include <ImfIO.h>
#include <ImfInputFile.h>
#include <ImfOutputFile.h>

#include <cstdio>
#include <cstring>
#include <exception>
#include <mutex>
#include <new>

#include "codecs.h"
#include "imagery/pixel_plane.h"

namespace imagery {
namespace io {
namespace detail {

namespace {

// The whole file in memory, as OpenEXR reads it.
class MemoryInput : public Imf::IStream {
 public:
  explicit MemoryInput(const Source& source) : Imf::IStream(source.name), source_(source) {}

  bool isMemoryMapped() const override { return true; }

  bool read(char c[], int n) override {
    std::memcpy(c, Take(n), static_cast<std::size_t>(n));
    return offset_ < source_.size;
  }

  char* readMemoryMapped(int n) override { return const_cast<char*>(reinterpret_cast<const char*>(Take(n))); }

  uint64_t tellg() override { return offset_; }

  void seekg(uint64_t position) override {
    if (position > source_.size)
      throw Iex::InputExc("truncated file");
    offset_ = static_cast<std::size_t>(position);
  }

 private:
  const unsigned char* Take(int n) {
    if (n < 0 || static_cast<std::size_t>(n) > source_.size - offset_)
      throw Iex::InputExc("truncated file");
    const unsigned char* at = source_.data + offset_;
    offset_ += static_cast<std::size_t>(n);
    return at;
  }

  Source source_;
  std::size_t offset_ = 0;
};

class FileOutput : public Imf::OStream {
 public:
  explicit FileOutput(const Target& target) : Imf::OStream(target.name), file_(target.file) {}

  void write(const char c[], int n) override {
    if (std::fwrite(c, 1, static_cast<std::size_t>(n), file_) != static_cast<std::size_t>(n))
      throw Iex::IoExc("cannot write");
  }
  uint64_t tellp() override { return static_cast<uint64_t>(ftello(file_)); }
  void seekp(uint64_t position) override {
    if (fseeko(file_, static_cast<off_t>(position), SEEK_SET) != 0)
      throw Iex::IoExc("cannot write");
  }

 private:
  std::FILE* file_;
};

// The header sanity checks of the library refuse sizes beyond these while reading the header, before
// the line offset table is allocated.
void ApplyLibraryLimits() {
  static std::once_flag once;
  std::call_once(once, [] {
    const int limit = GetPictureLimits().maxDimension;
    Imf::Header::setMaxImageSize(limit, limit);
    Imf::Header::setMaxTileSize(limit, limit);
  });
}

// Which file channels become which of ours.
struct ChannelChoice {
  const char* red = nullptr;
  const char* green = nullptr;
  const char* blue = nullptr;
  const char* grey = nullptr;
  const char* alpha = nullptr;
  int channels = 0;
  int bits = 16;
  EImageType type = IT_UNDEFINED;
};

std::string ChooseChannels(const Imf::Header& header, ChannelChoice& choice) {
  const Imf::ChannelList& list = header.channels();
  const auto usable = [&list](const char* name) {
    const Imf::Channel* channel = list.findChannel(name);
    return channel != nullptr && channel->xSampling == 1 && channel->ySampling == 1;
  };
  if (usable("R") || usable("G") || usable("B")) {
    choice.red = usable("R") ? "R" : nullptr;
    choice.green = usable("G") ? "G" : nullptr;
    choice.blue = usable("B") ? "B" : nullptr;
    choice.channels = 3;
  } else if (list.findChannel("RY") != nullptr || list.findChannel("BY") != nullptr) {
    return "luminance-chroma OpenEXR files are not supported";
  } else if (usable("Y")) {
    choice.grey = "Y";
    choice.channels = 1;
  } else {
    // A single channel of another name (depth, height, mask) reads as grey.
    auto only = list.begin();
    if (only == list.end() || ++list.begin() != list.end() || only.channel().xSampling != 1 ||
        only.channel().ySampling != 1)
      return "no R, G, B or Y channels";
    choice.grey = only.name();
    choice.channels = 1;
  }
  if (usable("A")) {
    choice.alpha = "A";
    ++choice.channels;
  }
  for (auto it = list.begin(); it != list.end(); ++it)
    if (it.channel().type != Imf::HALF)
      choice.bits = 32;
  if (choice.grey != nullptr && choice.alpha == nullptr)
    choice.type = IT_Grayscale32f;
  else
    choice.type = choice.alpha != nullptr ? IT_RGBA32f : IT_RGB32f;
  return std::string();
}

std::string CheckHeader(const Imf::Header& header, const Source& source, ChannelChoice& choice) {
  const Imath::Box2i& window = header.dataWindow();
  const std::int64_t width = static_cast<std::int64_t>(window.max.x) - window.min.x + 1;
  const std::int64_t height = static_cast<std::int64_t>(window.max.y) - window.min.y + 1;
  const std::string failure = ChooseChannels(header, choice);
  if (!failure.empty())
    return failure;
  const std::uint64_t ratio =
      header.compression() == Imf::DWAA_COMPRESSION || header.compression() == Imf::DWAB_COMPRESSION ? 65536
                                                                                                     : 4096;
  // Half samples are the smallest a file can decode to.
  const std::uint64_t raw =
      width > 0 && height > 0
          ? static_cast<std::uint64_t>(width) * static_cast<std::uint64_t>(height) * choice.channels * 2
          : 0;
  return CheckPromise(width, height, raw, source.size, ratio);
}

// Opens the file in memory and checks its header, then hands `use` the file, the channels it will be
// read from and the size of its data window; returns what failed. Codec errors are thrown.
template <class Use>
std::string WithCheckedFile(const Source& source, Use use) {
  ApplyLibraryLimits();
  MemoryInput input(source);
  Imf::InputFile file(input);
  ChannelChoice choice;
  const std::string failure = CheckHeader(file.header(), source, choice);
  if (!failure.empty())
    return failure;
  const Imath::Box2i& window = file.header().dataWindow();
  return use(file, choice, window.max.x - window.min.x + 1, window.max.y - window.min.y + 1);
}

}  // namespace

std::string ReadExrInfo(const Source& source, PictureInfo& info) {
  try {
    return WithCheckedFile(source, [&](Imf::InputFile&, const ChannelChoice& choice, int width, int height) {
      info = PictureInfo();
      info.format = FileFormat::OpenEXR;
      info.width = width;
      info.height = height;
      info.channels = choice.channels;
      info.bitsPerChannel = choice.bits;
      info.floatingPoint = true;
      info.hasAlpha = choice.alpha != nullptr;
      info.naturalType = choice.type;
      info.gamma = gamma::Linear;
      return std::string();
    });
  } catch (const std::exception& error) {
    return error.what();
  }
}

std::string DecodeExr(const Source& source, Image& image) {
  try {
    return WithCheckedFile(source, [&](Imf::InputFile& file, const ChannelChoice& choice, int width,
                                       int height) {
      const Imath::Box2i& window = file.header().dataWindow();
      Image picture = NewPicture(width, height, choice.type, gamma::Linear);
      PixelPlane& plane = picture.GetImplRef().Plane();
      const std::size_t xStride = static_cast<std::size_t>(plane.BytesPerPixel());
      const std::size_t yStride = static_cast<std::size_t>(plane.BytesPerLine());
      unsigned char* base = plane.Data();
      Imf::FrameBuffer frame;
      const auto slice = [&](const char* name, int offset, double fill) {
        frame.insert(name, Imf::Slice::Make(Imf::FLOAT, base + offset, window, xStride, yStride, 1, 1, fill));
      };
      if (choice.type == IT_Grayscale32f) {
        slice(choice.grey, 0, 0.0);
      } else if (choice.grey != nullptr) {
        // Grey with alpha: the grey lands in red and is copied to green and blue below.
        slice(choice.grey, 8, 0.0);
      } else {
        // A missing colour channel reads as 0; each slice needs a channel name, present or not.
        slice(choice.blue != nullptr ? choice.blue : "B", 0, 0.0);
        slice(choice.green != nullptr ? choice.green : "G", 4, 0.0);
        slice(choice.red != nullptr ? choice.red : "R", 8, 0.0);
      }
      if (choice.alpha != nullptr)
        slice(choice.alpha, 12, 1.0);
      file.setFrameBuffer(frame);
      file.readPixels(window.min.y, window.max.y);
      if (choice.grey != nullptr && choice.type != IT_Grayscale32f) {
        for (int y = 0; y < height; ++y) {
          float* pixel = reinterpret_cast<float*>(plane.Row(y));
          for (int x = 0; x < width; ++x, pixel += 4)
            pixel[0] = pixel[1] = pixel[2];
        }
      }
      image = picture;
      return std::string();
    });
  } catch (const std::bad_alloc&) {
    return "out of memory";
  } catch (const std::exception& error) {
    return error.what();
  }
}

std::string EncodeExr(const Image& image, const Target& target, const WriteOptions&) {
  try {
    const EImageType type = image.ImageType();
    const int width = image.Width();
    const int height = image.Height();
    Imf::Header header(width, height);
    header.compression() = Imf::ZIP_COMPRESSION;
    const PixelPlane& plane = image.GetImplRef().Plane();
    const std::size_t xStride = static_cast<std::size_t>(plane.BytesPerPixel());
    const std::size_t yStride = static_cast<std::size_t>(plane.BytesPerLine());
    char* base = const_cast<char*>(reinterpret_cast<const char*>(plane.Data()));
    Imf::FrameBuffer frame;
    const auto channel = [&](const char* name, int offset) {
      header.channels().insert(name, Imf::Channel(Imf::FLOAT));
      frame.insert(name, Imf::Slice(Imf::FLOAT, base + offset, xStride, yStride));
    };
    if (type == IT_Grayscale32f) {
      channel("Y", 0);
    } else {
      channel("B", 0);
      channel("G", 4);
      channel("R", 8);
      if (type == IT_RGBA32f)
        channel("A", 12);
    }
    FileOutput output(target);
    Imf::OutputFile file(output, header);
    file.setFrameBuffer(frame);
    file.writePixels(height);
    return std::string();
  } catch (const std::bad_alloc&) {
    return "out of memory";
  } catch (const std::exception& error) {
    return error.what();
  }
}

}  // namespace detail
}  // namespace io
}  // namespace imagery

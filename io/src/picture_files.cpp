// The front end of the picture-file library: format detection, reading files into memory, the size
// checks, the choice of the format a file is written from, the atomic write, and the source reader.
#include "imagery/io/picture_files.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <exception>
#include <memory>
#include <new>
#include <random>
#include <string>
#include <vector>

#include "codecs.h"
#include "imagery/conversions.h"
#include "imagery/gamma_settings.h"
#include "imagery/image.h"
#include "imagery/image_factory.h"
#include "imagery/image_list.h"
#include "imagery_host/logger.h"

namespace imagery {
namespace io {

namespace {

std::atomic<int> gMaxDimension{PictureLimits().maxDimension};
std::atomic<std::int64_t> gMaxPixels{PictureLimits().maxPixels};

zel::ErrorCode Failure(const std::string& name, const std::string& cause) {
  return zel::ErrorCode::Io(name + ": " + cause);
}

std::string SystemError(const char* what, int error) {
  return std::string(what) + ": " + std::strerror(error);
}

// A file's bytes, not zero-filled first: a large picture is read once, not written twice.
struct FileBytes {
  std::unique_ptr<unsigned char[]> data;
  std::size_t size = 0;

  // The bytes as the codecs take them; `name` must outlive the result.
  detail::Source AsSource(const std::string& name) const {
    detail::Source source;
    source.data = data.get();
    source.size = size;
    source.name = name.c_str();
    return source;
  }
};

// Reads a whole file. Files are read into memory before decoding so that every codec works on bytes
// whose size is known, which is what the size checks need. (Mapping the file instead would turn a file
// truncated by another program during the read into a crash.)
std::string ReadWholeFile(const std::string& path, FileBytes& bytes) {
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0)
    return errno == ENOENT ? std::string("no such file") : SystemError("cannot open", errno);
  struct stat status {};
  if (::fstat(fd, &status) != 0 || !S_ISREG(status.st_mode)) {
    ::close(fd);
    return "not a regular file";
  }
  const std::size_t size = static_cast<std::size_t>(status.st_size);
  bytes.data.reset(new (std::nothrow) unsigned char[size > 0 ? size : 1]);
  if (!bytes.data) {
    ::close(fd);
    return "out of memory";
  }
  std::string failure;
  std::size_t done = 0;
  while (done < size) {
    const ssize_t got = ::read(fd, bytes.data.get() + done, size - done);
    if (got < 0 && errno == EINTR)
      continue;
    if (got < 0) {
      failure = SystemError("cannot read", errno);
      break;
    }
    if (got == 0)
      break;
    done += static_cast<std::size_t>(got);
  }
  bytes.size = done;
  ::close(fd);
  return failure;
}

std::string Lower(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return text;
}

std::string DisplayName(const ZELPath& path) {
  return path.local_string();
}

// The header reader and the decoder of one file format.
struct Codec {
  std::string (*readInfo)(const detail::Source&, PictureInfo&);
  std::string (*decode)(const detail::Source&, Image&);
};

// The codec of the format the bytes start with; null when none does.
const Codec* CodecOf(const detail::Source& source) {
  static const Codec kPng{detail::ReadPngInfo, detail::DecodePng};
  static const Codec kJpeg{detail::ReadJpegInfo, detail::DecodeJpeg};
  static const Codec kExr{detail::ReadExrInfo, detail::DecodeExr};
  static const Codec kTiff{detail::ReadTiffInfo, detail::DecodeTiff};
  static const Codec kHdr{detail::ReadHdrInfo, detail::DecodeHdr};
  switch (FormatFromSignature(source.data, source.size)) {
    case FileFormat::PNG:
      return &kPng;
    case FileFormat::JPEG:
      return &kJpeg;
    case FileFormat::OpenEXR:
      return &kExr;
    case FileFormat::TIFF:
      return &kTiff;
    case FileFormat::RadianceHDR:
      return &kHdr;
    case FileFormat::Unknown:
      break;
  }
  return nullptr;
}

std::string Unrecognised(const detail::Source& source) {
  return source.size == 0 ? "empty file" : "not a picture file of a known format";
}

std::string ReadInfo(const detail::Source& source, PictureInfo& info) {
  const Codec* codec = CodecOf(source);
  return codec != nullptr ? codec->readInfo(source, info) : Unrecognised(source);
}

std::string Decode(const detail::Source& source, Image& image) {
  const Codec* codec = CodecOf(source);
  return codec != nullptr ? codec->decode(source, image) : Unrecognised(source);
}

// Decodes into a fresh image and hands it over only when everything worked, so that the caller's
// image is untouched by a failure. Allocation failures of the pixels end here as errors too.
zel::ErrorCode DecodeInto(const detail::Source& source, Image& image, EImageType requested,
                          const ZELPath* path) {
  try {
    Image loaded;
    const std::string failure = Decode(source, loaded);
    if (!failure.empty())
      return Failure(source.name, failure);
    // Only now may the image list hand these pixels to other readers.
    loaded.GetImplRef().PixelsWritten();
    if (path != nullptr) {
      loaded.SetFilePath(*path);
      loaded.UpdateLastModif();
    }
    if (requested < IT_UNDEFINED)
      ToImageType(loaded, requested, false);
    image = loaded;
    return zel::ErrorCode();
  } catch (const std::bad_alloc&) {
    return Failure(source.name, "out of memory");
  } catch (const std::exception& error) {
    return Failure(source.name, error.what());
  }
}

// A temporary name beside the destination, hidden, unique to this process and call.
std::string TemporaryName(const std::string& folder, const std::string& leaf) {
  static std::atomic<unsigned> counter{0};
  thread_local std::minstd_rand random(std::random_device{}());
  char suffix[64];
  std::snprintf(suffix, sizeof suffix, ".%ld.%u.%08x.tmp", static_cast<long>(::getpid()),
                counter.fetch_add(1), static_cast<unsigned>(random()));
  return folder + "/." + leaf + suffix;
}

std::string Encode(FileFormat format, const Image& image, const detail::Target& target,
                   const WriteOptions& options) {
  switch (format) {
    case FileFormat::PNG:
      return detail::EncodePng(image, target, options);
    case FileFormat::JPEG:
      return detail::EncodeJpeg(image, target, options);
    case FileFormat::OpenEXR:
      return detail::EncodeExr(image, target, options);
    case FileFormat::TIFF:
      return detail::EncodeTiff(image, target, options);
    case FileFormat::RadianceHDR:
      return detail::EncodeHdr(image, target, options);
    case FileFormat::Unknown:
      break;
  }
  return "unknown picture format";
}

// Moves the finished temporary over the destination; without overwrite, an existing destination wins
// even if it appeared while the file was being written.
int RenameIntoPlace(const std::string& temporary, const std::string& destination, bool overwrite) {
  if (overwrite)
    return ::rename(temporary.c_str(), destination.c_str());
  if (::link(temporary.c_str(), destination.c_str()) == 0) {
    ::unlink(temporary.c_str());
    return 0;
  }
  if (errno == EEXIST)
    return -1;
  // File systems without hard links: check, then rename.
  struct stat status {};
  if (::stat(destination.c_str(), &status) == 0) {
    errno = EEXIST;
    return -1;
  }
  return ::rename(temporary.c_str(), destination.c_str());
}

void SyncFolder(const std::string& folder) {
  const int fd = ::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd >= 0) {
    ::fsync(fd);
    ::close(fd);
  }
}

// Runs `encode` on a temporary file beside `path`, then flushes, syncs and renames it into place; on
// any failure the temporary is removed and an existing file at `path` is left as it was.
template <class Encoder>
std::string WriteAtomically(const std::string& path, const WriteOptions& options, const Encoder& encode) {
  const std::size_t slash = path.find_last_of('/');
  const std::string folder = slash == std::string::npos ? "." : slash == 0 ? "/" : path.substr(0, slash);
  const std::string leaf = slash == std::string::npos ? path : path.substr(slash + 1);
  if (leaf.empty())
    return "the path names a folder, not a file";
  struct stat status {};
  if (::stat(path.c_str(), &status) == 0) {
    if (!options.overwrite)
      return "the file exists (overwriting not allowed)";
    if (S_ISDIR(status.st_mode))
      return "a folder has that name";
  }

  std::string temporary;
  int fd = -1;
  for (int attempt = 0; attempt < 16 && fd < 0; ++attempt) {
    temporary = TemporaryName(folder, leaf);
    fd = ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
    if (fd < 0 && errno != EEXIST)
      return SystemError(("cannot create a file in " + folder).c_str(), errno);
  }
  if (fd < 0)
    return "cannot create a temporary file in " + folder;
  std::FILE* file = ::fdopen(fd, "wb");
  if (file == nullptr) {
    const int error = errno;
    ::close(fd);
    ::unlink(temporary.c_str());
    return SystemError("cannot write", error);
  }

  detail::Target target;
  target.file = file;
  target.fd = fd;
  target.name = path.c_str();
  std::string failure;
  try {
    failure = encode(target);
  } catch (const std::bad_alloc&) {
    failure = "out of memory";
  } catch (const std::exception& error) {
    failure = error.what();
  }
  if (failure.empty() && (std::fflush(file) != 0 || std::ferror(file) != 0))
    failure = SystemError("cannot write", errno);
  if (failure.empty() && ::fsync(fd) != 0)
    failure = SystemError("cannot write", errno);
  if (std::fclose(file) != 0 && failure.empty())
    failure = SystemError("cannot write", errno);
  if (failure.empty() && RenameIntoPlace(temporary, path, options.overwrite) != 0)
    failure = errno == EEXIST ? std::string("the file exists (overwriting not allowed)")
                              : SystemError("cannot move the written file into place", errno);
  if (!failure.empty()) {
    ::unlink(temporary.c_str());
    return failure;
  }
  SyncFolder(folder);
  return std::string();
}

bool StartsWith(const unsigned char* bytes, std::size_t size, const char* signature, std::size_t length) {
  return size >= length && std::memcmp(bytes, signature, length) == 0;
}

}  // namespace

namespace detail {

std::string CheckPromise(std::int64_t width, std::int64_t height, std::uint64_t rawBytes,
                         std::size_t fileSize, std::uint64_t maxRatio) {
  const PictureLimits limits = GetPictureLimits();
  char text[160];
  if (width < 1 || height < 1) {
    std::snprintf(text, sizeof text, "invalid size %lld x %lld", static_cast<long long>(width),
                  static_cast<long long>(height));
    return text;
  }
  // What the bytes cannot hold is the more telling cause, so it comes first. Small pictures are never
  // refused: headers and tables dominate them.
  if (rawBytes > 65536 && rawBytes / maxRatio > fileSize) {
    std::snprintf(text, sizeof text, "truncated file: %lld x %lld pixels cannot fit in %llu bytes",
                  static_cast<long long>(width), static_cast<long long>(height),
                  static_cast<unsigned long long>(fileSize));
    return text;
  }
  if (width > limits.maxDimension || height > limits.maxDimension || width * height > limits.maxPixels) {
    std::snprintf(text, sizeof text, "image too large (%lld x %lld)", static_cast<long long>(width),
                  static_cast<long long>(height));
    return text;
  }
  return std::string();
}

GammaValue DefaultInputGamma(EImageType type) {
  return GetCurrentGammaSettings().InputGamma(type);
}

Image NewPicture(int width, int height, EImageType type, GammaValue gamma) {
  ImageImpl* impl = ImageFactory::GetInstance().CreateImpl(width, height, type, gamma, NewPixels::Unset);
  return Image(impl);
}

void LogCodecWarning(const char* codec, const char* name, const char* message) {
  ZEL_LOG(L"io", L"WARN", "Imagery/io",
          ZELString::FromUTF8(codec) << L" warning on " << ZELString::FromUTF8(name) << L": "
                                     << ZELString::FromUTF8(message));
}

EImageType WritableType(FileFormat format, EImageType type, int bitsPerChannel) {
  const bool alpha = HasAlpha(type);
  const bool grey = IsGrayscale(type) && !alpha;
  switch (format) {
    case FileFormat::PNG:
    case FileFormat::TIFF: {
      int bits = bitsPerChannel;
      if (bits == 0) {
        if (format == FileFormat::TIFF && IsFloat(type))
          return type;
        if (format == FileFormat::TIFF && type == IT_RGBEA)
          return IT_RGB32f;
        bits = (type == IT_RGB8 || type == IT_RGBA8 || type == IT_Grayscale8) ? 8 : 16;
      }
      if (grey)
        return bits == 8 ? IT_Grayscale8 : IT_Grayscale16;
      if (alpha)
        return bits == 8 ? IT_RGBA8 : IT_RGBA16;
      return bits == 8 ? IT_RGB8 : IT_RGB16;
    }
    case FileFormat::JPEG:
      return grey ? IT_Grayscale8 : IT_RGB8;
    case FileFormat::OpenEXR:
      if (grey)
        return IT_Grayscale32f;
      return alpha && type != IT_RGBEA ? IT_RGBA32f : IT_RGB32f;
    case FileFormat::RadianceHDR:
      return type == IT_RGBEA ? IT_RGBEA : IT_RGB32f;
    case FileFormat::Unknown:
      break;
  }
  return IT_UNDEFINED;
}

}  // namespace detail

const char* FormatName(FileFormat format) {
  switch (format) {
    case FileFormat::PNG:
      return "PNG";
    case FileFormat::JPEG:
      return "JPEG";
    case FileFormat::OpenEXR:
      return "OpenEXR";
    case FileFormat::TIFF:
      return "TIFF";
    case FileFormat::RadianceHDR:
      return "Radiance HDR";
    case FileFormat::Unknown:
      break;
  }
  return "unknown";
}

FileFormat FormatFromExtension(const ZELPath& path) {
  std::string extension = Lower(path.extension().ToUTF8());
  if (!extension.empty() && extension[0] == '.')
    extension.erase(0, 1);
  if (extension == "png")
    return FileFormat::PNG;
  if (extension == "jpg" || extension == "jpeg" || extension == "jpe" || extension == "jfif")
    return FileFormat::JPEG;
  if (extension == "exr")
    return FileFormat::OpenEXR;
  if (extension == "tif" || extension == "tiff")
    return FileFormat::TIFF;
  if (extension == "hdr" || extension == "rgbe" || extension == "pic")
    return FileFormat::RadianceHDR;
  return FileFormat::Unknown;
}

FileFormat FormatFromSignature(const void* data, std::size_t size) {
  const auto* bytes = static_cast<const unsigned char*>(data);
  if (bytes == nullptr)
    return FileFormat::Unknown;
  if (StartsWith(bytes, size, "\x89PNG\r\n\x1a\n", 8))
    return FileFormat::PNG;
  if (StartsWith(bytes, size, "\xff\xd8\xff", 3))
    return FileFormat::JPEG;
  if (StartsWith(bytes, size, "\x76\x2f\x31\x01", 4))
    return FileFormat::OpenEXR;
  // Classic and big TIFF, in both byte orders.
  if (StartsWith(bytes, size, "II*\0", 4) || StartsWith(bytes, size, "MM\0*", 4) ||
      StartsWith(bytes, size, "II+\0", 4) || StartsWith(bytes, size, "MM\0+", 4))
    return FileFormat::TIFF;
  if (StartsWith(bytes, size, "#?RADIANCE", 10) || StartsWith(bytes, size, "#?RGBE", 6))
    return FileFormat::RadianceHDR;
  return FileFormat::Unknown;
}

FileFormat DetectFileFormat(const ZELPath& path) {
  std::FILE* file = std::fopen(path.local_string().c_str(), "rb");
  if (file == nullptr)
    return FileFormat::Unknown;
  unsigned char head[16];
  const std::size_t got = std::fread(head, 1, sizeof head, file);
  std::fclose(file);
  return FormatFromSignature(head, got);
}

PictureLimits GetPictureLimits() {
  PictureLimits limits;
  limits.maxDimension = gMaxDimension.load(std::memory_order_relaxed);
  limits.maxPixels = gMaxPixels.load(std::memory_order_relaxed);
  return limits;
}

void SetPictureLimits(const PictureLimits& limits) {
  gMaxDimension.store(limits.maxDimension, std::memory_order_relaxed);
  gMaxPixels.store(limits.maxPixels, std::memory_order_relaxed);
}

zel::ErrorCode ReadPictureInfo(const ZELPath& path, PictureInfo& info) {
  const std::string name = DisplayName(path);
  FileBytes bytes;
  std::string failure = ReadWholeFile(name, bytes);
  if (!failure.empty())
    return Failure(name, failure);
  const detail::Source source = bytes.AsSource(name);
  PictureInfo found;
  try {
    failure = ReadInfo(source, found);
  } catch (const std::exception& error) {
    failure = error.what();
  }
  if (!failure.empty())
    return Failure(name, failure);
  info = found;
  return zel::ErrorCode();
}

zel::ErrorCode ReadPicture(const ZELPath& path, Image& image, EImageType requested) {
  const std::string name = DisplayName(path);
  FileBytes bytes;
  const std::string failure = ReadWholeFile(name, bytes);
  if (!failure.empty())
    return Failure(name, failure);
  const detail::Source source = bytes.AsSource(name);
  return DecodeInto(source, image, requested, &path);
}

zel::ErrorCode ReadPictureFromMemory(const void* bytes, std::size_t size, Image& image, EImageType requested,
                                     const char* name) {
  detail::Source source;
  source.data = static_cast<const unsigned char*>(bytes);
  source.size = bytes == nullptr ? 0 : size;
  source.name = name != nullptr ? name : "<memory>";
  return DecodeInto(source, image, requested, nullptr);
}

zel::ErrorCode WritePicture(const Image& image, const ZELPath& path, const WriteOptions& options) {
  const std::string name = DisplayName(path);
  const FileFormat format =
      options.format != FileFormat::Unknown ? options.format : FormatFromExtension(path);
  if (format == FileFormat::Unknown)
    return Failure(name, "no picture format for the extension '" + path.extension().ToUTF8() + "'");
  if (options.jpegQuality < 1 || options.jpegQuality > 100)
    return Failure(name, "JPEG quality must be between 1 and 100");
  if (options.bitsPerChannel != 0 && options.bitsPerChannel != 8 && options.bitsPerChannel != 16)
    return Failure(name, "bits per channel must be 8 or 16");
  if (options.pngCompressionLevel < 0 || options.pngCompressionLevel > 9)
    return Failure(name, "PNG compression level must be between 0 and 9");
  const EImageType type = image.ImageType();
  if (type >= IT_UNDEFINED || image.Width() < 1 || image.Height() < 1)
    return Failure(name, "the image has no pixels");

  std::string failure;
  try {
    const EImageType writable = detail::WritableType(format, type, options.bitsPerChannel);
    const auto write = [&](const Image& pixels) {
      return WriteAtomically(name, options, [&](const detail::Target& target) {
        return Encode(format, pixels, target, options);
      });
    };
    if (writable == type) {
      failure = write(image);
    } else {
      Image converted(image);
      ToImageType(converted, writable, false);
      failure = write(converted);
    }
  } catch (const std::bad_alloc&) {
    failure = "out of memory";
  } catch (const std::exception& error) {
    failure = error.what();
  }
  return failure.empty() ? zel::ErrorCode() : Failure(name, failure);
}

zel::ErrorCode WriteIndexedPng(const IndexedPicture& picture, const ZELPath& path,
                               const WriteOptions& options) {
  const std::string name = DisplayName(path);
  if (picture.width < 1 || picture.height < 1 || picture.palette.empty() || picture.palette.size() > 256 ||
      picture.indices.size() !=
          static_cast<std::size_t>(picture.width) * static_cast<std::size_t>(picture.height))
    return Failure(name, "the indexed picture is empty or its sizes disagree");
  if (options.pngCompressionLevel < 0 || options.pngCompressionLevel > 9)
    return Failure(name, "PNG compression level must be between 0 and 9");
  // libpng refuses an index past the palette only when the file is read again: check here.
  const std::size_t colours = picture.palette.size();
  if (std::any_of(picture.indices.begin(), picture.indices.end(),
                  [colours](unsigned char index) { return index >= colours; }))
    return Failure(name, "an index lies past the palette");
  std::string failure;
  try {
    failure = WriteAtomically(name, options, [&](const detail::Target& target) {
      return detail::EncodeIndexedPng(picture, target, options);
    });
  } catch (const std::bad_alloc&) {
    failure = "out of memory";
  }
  return failure.empty() ? zel::ErrorCode() : Failure(name, failure);
}

zel::ErrorCode ReadPictureSource(Image* image, const ZELPath& path, EImageType type, int*,
                                 const ReadOptions& options) {
  const std::string name = DisplayName(path);
  if (image == nullptr)
    return Failure(name, "no image to read into");
  if (!options.bypassReaderCache && type < IT_UNDEFINED &&
      ImageList::Instance().Load(image, path, type, AutoScaleGrayScale(false)))
    return zel::ErrorCode();
  FileBytes bytes;
  const std::string failure = ReadWholeFile(name, bytes);
  if (!failure.empty())
    return Failure(name, failure);
  const detail::Source source = bytes.AsSource(name);
  // The list is searched by format: for the file's own format, its header says which that is.
  if (!options.bypassReaderCache && type >= IT_UNDEFINED) {
    PictureInfo info;
    bool known = false;
    try {
      known = ReadInfo(source, info).empty();
    } catch (const std::exception&) {
    }
    if (known && ImageList::Instance().Load(image, path, info.naturalType, AutoScaleGrayScale(false)))
      return zel::ErrorCode();
  }
  return DecodeInto(source, *image, type, &path);
}

void InstallPictureReader() {
  ImageFactory::GetInstance().SetAdditionalFeaturesFunc(&ReadPictureSource);
}

}  // namespace io
}  // namespace imagery

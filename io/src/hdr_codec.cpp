// Radiance HDR through stb_image and stb_image_write, compiled here with static linkage so that no stb
// symbol leaves this file (a host may link its own copy). Files carry RGBE with Radiance's mantissa
// scale; they are decoded to float and packed again with ours (RGBECLR), so values, not bytes, survive.
#define STB_IMAGE_STATIC
#define STB_IMAGE_IMPLEMENTATION
#define STBI_ONLY_HDR
#define STBI_NO_STDIO
#define STB_IMAGE_WRITE_STATIC
#define STB_IMAGE_WRITE_IMPLEMENTATION
#if defined(__GNUC__)
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wunused-function"
#pragma GCC diagnostic ignored "-Wmissing-field-initializers"
#endif
#include <stb_image.h>
#include <stb_image_write.h>
#if defined(__GNUC__)
#pragma GCC diagnostic pop
#endif

#include <cstdio>
#include <cstring>
#include <memory>
#include <vector>

#include "codecs.h"
#include "imagery/colour_spaces.h"
#include "imagery/pixel_plane.h"

namespace imagery {
namespace io {
namespace detail {

namespace {

struct HdrInput {
  const unsigned char* data;
  std::size_t size;
  std::size_t offset;
  bool truncated;
  bool fillAfterEnd;
};

// stb_image never says that it ran out of data: it reads zeros. It refills its 128-byte buffer only when
// it needs another byte, and asks for fewer bytes only when it needs exactly those, so a call that finds
// nothing left, or less than an exact request, means the file ended too soon.
//
// Its run-length decoder also loops forever on a run of length zero, which is what an exhausted input
// reads as. Once the header has been read whole (stbi_info succeeded), the pixels are decoded with 0xFF
// bytes standing for the missing data: every run then moves on, the decoder ends within the size the
// header promised, and the file is reported as truncated.
int HdrRead(void* user, char* out, int size) {
  auto* input = static_cast<HdrInput*>(user);
  const std::size_t left = input->size - input->offset;
  if (size <= 0)
    return 0;
  if (left == 0 || (size < 128 && static_cast<std::size_t>(size) > left))
    input->truncated = true;
  const std::size_t count = std::min(left, static_cast<std::size_t>(size));
  std::memcpy(out, input->data + input->offset, count);
  input->offset += count;
  if (count == 0 && input->fillAfterEnd) {
    std::memset(out, 0xFF, static_cast<std::size_t>(size));
    return size;
  }
  return static_cast<int>(count);
}

void HdrSkip(void* user, int count) {
  auto* input = static_cast<HdrInput*>(user);
  if (count < 0) {
    const std::size_t back = static_cast<std::size_t>(-static_cast<long long>(count));
    input->offset = back > input->offset ? 0 : input->offset - back;
    return;
  }
  const std::size_t left = input->size - input->offset;
  input->offset += std::min(left, static_cast<std::size_t>(count));
}

int HdrEof(void* user) {
  const auto* input = static_cast<const HdrInput*>(user);
  return input->offset >= input->size;
}

const stbi_io_callbacks kCallbacks = {&HdrRead, &HdrSkip, &HdrEof};

std::string ReadHeader(const Source& source, int& width, int& height) {
  HdrInput input{source.data, source.size, 0, false, false};
  int components = 0;
  if (!stbi_info_from_callbacks(&kCallbacks, &input, &width, &height, &components)) {
    const char* reason = stbi_failure_reason();
    return input.truncated ? "truncated file" : reason != nullptr ? reason : "corrupt Radiance HDR header";
  }
  // Run-length encoded scanlines hold at most 127 samples of a channel in two bytes.
  return CheckPromise(width, height, static_cast<std::uint64_t>(width) * height * 4, source.size, 64);
}

struct StbFree {
  void operator()(float* pixels) const { stbi_image_free(pixels); }
};

}  // namespace

std::string ReadHdrInfo(const Source& source, PictureInfo& info) {
  int width = 0, height = 0;
  const std::string failure = ReadHeader(source, width, height);
  if (!failure.empty())
    return failure;
  info = PictureInfo();
  info.format = FileFormat::RadianceHDR;
  info.width = width;
  info.height = height;
  info.channels = 3;
  info.bitsPerChannel = 32;
  info.floatingPoint = true;
  info.naturalType = IT_RGBEA;
  info.gamma = gamma::Linear;
  return std::string();
}

std::string DecodeHdr(const Source& source, Image& image) {
  int width = 0, height = 0;
  const std::string failure = ReadHeader(source, width, height);
  if (!failure.empty())
    return failure;
  HdrInput input{source.data, source.size, 0, false, true};
  int components = 0, decodedWidth = 0, decodedHeight = 0;
  std::unique_ptr<float, StbFree> pixels(
      stbi_loadf_from_callbacks(&kCallbacks, &input, &decodedWidth, &decodedHeight, &components, 3));
  if (!pixels) {
    const char* reason = stbi_failure_reason();
    return input.truncated ? "truncated file" : reason != nullptr ? reason : "corrupt Radiance HDR file";
  }
  if (input.truncated)
    return "truncated file";
  if (decodedWidth != width || decodedHeight != height)
    return "corrupt Radiance HDR file";
  Image picture = NewPicture(width, height, IT_RGBEA, gamma::Linear);
  PixelPlane& plane = picture.GetImplRef().Plane();
  const float* in = pixels.get();
  for (int y = 0; y < height; ++y) {
    unsigned char* out = plane.Row(y);
    for (int x = 0; x < width; ++x, in += 3, out += 5) {
      RGBECLR packed;
      packed.FromFloat(LinearRGB_T<float>{in[0], in[1], in[2]});
      out[0] = packed.r;
      out[1] = packed.g;
      out[2] = packed.b;
      out[3] = packed.e;
      out[4] = 0xFF;
    }
  }
  image = picture;
  return std::string();
}

namespace {

struct HdrOutput {
  std::FILE* file;
  bool failed;
};

void HdrWrite(void* user, void* data, int size) {
  auto* output = static_cast<HdrOutput*>(user);
  if (!output->failed &&
      std::fwrite(data, 1, static_cast<std::size_t>(size), output->file) != static_cast<std::size_t>(size))
    output->failed = true;
}

}  // namespace

std::string EncodeHdr(const Image& image, const Target& target, const WriteOptions&) {
  const EImageType type = image.ImageType();
  const int width = image.Width();
  const int height = image.Height();
  const PixelPlane& plane = image.GetImplRef().Plane();
  std::vector<float> rgb(static_cast<std::size_t>(width) * height * 3);
  float* out = rgb.data();
  for (int y = 0; y < height; ++y) {
    const unsigned char* in = plane.Row(y);
    for (int x = 0; x < width; ++x, out += 3) {
      if (type == IT_RGBEA) {
        const LinearRGB_T<float> colour = RGBECLR(in[0], in[1], in[2], in[3]).ToFloat();
        out[0] = colour.r;
        out[1] = colour.g;
        out[2] = colour.b;
        in += 5;
      } else {
        float bgr[3];
        std::memcpy(bgr, in, sizeof bgr);
        out[0] = bgr[2];
        out[1] = bgr[1];
        out[2] = bgr[0];
        in += 12;
      }
    }
  }
  HdrOutput output{target.file, false};
  if (!stbi_write_hdr_to_func(&HdrWrite, &output, width, height, 3, rgb.data()) || output.failed)
    return "cannot write";
  return std::string();
}

}  // namespace detail
}  // namespace io
}  // namespace imagery

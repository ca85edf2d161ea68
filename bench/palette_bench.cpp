// The palette quantiser and preview packing, each beside a reference measured in the same iteration.
//
// Quantising: a 1024 x 1024 picture to 256 colours, plainly and dithered, against the JPEG library's
// two-pass quantiser on the same pixels. The library only quantises while decoding, so its share is the
// time of a decompression with quantisation minus that of a plain decompression of the same file
// ("ratio_to_jpeg_quantiser"; both passes, palette selection included, on both sides).
//
// Preview packing: a 512 x 512 preview written as a compressed payload (raw pixels, or quantised) and
// read back, against zlib compressing or uncompressing the same bytes in one call ("ratio_to_zlib").
#include <zlib.h>

// jpeglib.h uses FILE without declaring it.
#include <cstdio>

#include <jpeglib.h>

#include <chrono>
#include <cstdlib>
#include <functional>
#include <random>
#include <vector>

#include <benchmark/benchmark.h>

#include "imagery/dib24.h"
#include "imagery/preview_packing.h"
#include "imagery/quantizer.h"
#include "imagery_host/stream.h"

namespace imagery {
namespace {

using Clock = std::chrono::steady_clock;
using Bytes = std::vector<unsigned char>;

double Since(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

// Smooth gradients with noise and a few hard shapes: a photograph-like spread of colours.
Bytes Picture(int width, int height) {
  std::mt19937 random(3);
  std::uniform_int_distribution<int> noise(-6, 6);
  Bytes pixels(static_cast<std::size_t>(width) * height * 3);
  for (int y = 0; y < height; ++y)
    for (int x = 0; x < width; ++x) {
      unsigned char* p = &pixels[(static_cast<std::size_t>(y) * width + x) * 3];
      const bool disc =
          (x - width / 3) * (x - width / 3) + (y - height / 2) * (y - height / 2) < width * width / 16;
      const int c[3] = {disc ? 220 - y / 8 : x * 255 / width, disc ? 40 + x / 16 : y * 255 / height,
                        (x ^ y) % 97 + (disc ? 100 : 20)};
      for (int k = 0; k < 3; ++k)
        p[k] = static_cast<unsigned char>(std::min(std::max(c[k] + noise(random), 0), 255));
    }
  return pixels;
}

Bytes Compress(const Bytes& rgb, int width, int height) {
  jpeg_compress_struct cinfo;
  jpeg_error_mgr error;
  cinfo.err = jpeg_std_error(&error);
  jpeg_create_compress(&cinfo);
  unsigned char* buffer = nullptr;
  unsigned long size = 0;
  jpeg_mem_dest(&cinfo, &buffer, &size);
  cinfo.image_width = static_cast<JDIMENSION>(width);
  cinfo.image_height = static_cast<JDIMENSION>(height);
  cinfo.input_components = 3;
  cinfo.in_color_space = JCS_RGB;
  jpeg_set_defaults(&cinfo);
  jpeg_set_quality(&cinfo, 92, TRUE);
  jpeg_start_compress(&cinfo, TRUE);
  while (cinfo.next_scanline < cinfo.image_height) {
    JSAMPROW row = const_cast<JSAMPROW>(&rgb[static_cast<std::size_t>(cinfo.next_scanline) * width * 3]);
    jpeg_write_scanlines(&cinfo, &row, 1);
  }
  jpeg_finish_compress(&cinfo);
  jpeg_destroy_compress(&cinfo);
  Bytes jpeg(buffer, buffer + size);
  std::free(buffer);
  return jpeg;
}

// Decompresses, quantising to 256 colours unless `colours` is 0; returns the rows.
Bytes Decompress(const Bytes& jpeg, int colours, bool dither) {
  jpeg_decompress_struct cinfo;
  jpeg_error_mgr error;
  cinfo.err = jpeg_std_error(&error);
  jpeg_create_decompress(&cinfo);
  jpeg_mem_src(&cinfo, jpeg.data(), static_cast<unsigned long>(jpeg.size()));
  jpeg_read_header(&cinfo, TRUE);
  cinfo.out_color_space = JCS_RGB;
  if (colours > 0) {
    cinfo.quantize_colors = TRUE;
    cinfo.two_pass_quantize = TRUE;
    cinfo.desired_number_of_colors = colours;
    cinfo.dither_mode = dither ? JDITHER_FS : JDITHER_NONE;
  }
  jpeg_start_decompress(&cinfo);
  const std::size_t rowBytes = static_cast<std::size_t>(cinfo.output_width) * cinfo.output_components;
  Bytes rows(rowBytes * cinfo.output_height);
  while (cinfo.output_scanline < cinfo.output_height) {
    JSAMPROW row = &rows[cinfo.output_scanline * rowBytes];
    jpeg_read_scanlines(&cinfo, &row, 1);
  }
  jpeg_finish_decompress(&cinfo);
  jpeg_destroy_decompress(&cinfo);
  return rows;
}

void Quantise(const Bytes& pixels, int width, int height, bool dither, Bytes& indices) {
  QuantizationHelper quantiser;
  quantiser.SetDesiredNumberOfColors(256);
  quantiser.init(width, height, dither, 256);
  quantiser.start_pass_2_quant(true);
  const std::size_t stride = static_cast<std::size_t>(width) * 3;
  for (int y = 0; y < height; ++y)
    quantiser.post_process_data(&pixels[y * stride], nullptr);
  quantiser.finish_pass();
  quantiser.start_pass_2_quant(false);
  for (int y = 0; y < height; ++y)
    quantiser.post_process_data(&pixels[y * stride], &indices[static_cast<std::size_t>(y) * width]);
  quantiser.finish_pass();
}

void BM_Quantise1024(benchmark::State& state) {
  const bool dither = state.range(0) != 0;
  constexpr int kSize = 1024;
  const Bytes jpeg = Compress(Picture(kSize, kSize), kSize, kSize);
  const Bytes pixels = Decompress(jpeg, 0, false);
  Bytes indices(static_cast<std::size_t>(kSize) * kSize);
  double ours = 0, plain = 0, quantised = 0;
  for (auto _ : state) {
    auto start = Clock::now();
    Quantise(pixels, kSize, kSize, dither, indices);
    benchmark::DoNotOptimize(indices.data());
    ours += Since(start);
    start = Clock::now();
    benchmark::DoNotOptimize(Decompress(jpeg, 0, false).data());
    plain += Since(start);
    start = Clock::now();
    benchmark::DoNotOptimize(Decompress(jpeg, 256, dither).data());
    quantised += Since(start);
  }
  state.counters["ratio_to_jpeg_quantiser"] = ours / (quantised - plain);
  state.counters["jpeg_quantiser_ms"] = 1000 * (quantised - plain) / static_cast<double>(state.iterations());
}
BENCHMARK(BM_Quantise1024)->ArgName("dither")->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);

KORDib24 Preview(bool alpha) {
  constexpr int kSize = 512;
  const Bytes picture = Picture(kSize, kSize);
  KORDib24 bitmap(kSize, kSize);
  for (int i = 0; i < kSize * kSize; ++i) {
    unsigned char* p = bitmap.GetBits() + i * 4;
    p[0] = picture[i * 3], p[1] = picture[i * 3 + 1], p[2] = picture[i * 3 + 2];
    p[3] = static_cast<unsigned char>(i % kSize < kSize / 2 ? 255 : (i / kSize) / 2);
  }
  bitmap.SetMeaningfulAlpha(alpha);
  return bitmap;
}

double ZlibCompressSeconds(const Bytes& data, Bytes& out) {
  uLongf size = static_cast<uLongf>(out.size());
  const auto start = Clock::now();
  compress2(out.data(), &size, data.data(), static_cast<uLong>(data.size()), Z_DEFAULT_COMPRESSION);
  benchmark::DoNotOptimize(out.data());
  return Since(start);
}

double ZlibUncompressSeconds(const Bytes& compressed, Bytes& out) {
  uLongf size = static_cast<uLongf>(out.size());
  const auto start = Clock::now();
  uncompress(out.data(), &size, compressed.data(), static_cast<uLong>(compressed.size()));
  benchmark::DoNotOptimize(out.data());
  return Since(start);
}

// A written payload, its zlib stream gathered from the blocks, and the bytes that stream holds.
struct Payload {
  Bytes written, deflated, data;
};

Payload Pack(const KORDib24& bitmap, bool quantise) {
  Payload payload;
  ZELMemoryStream stream;
  PackAndWritePreview(bitmap.Width(), bitmap.Height(), &bitmap, &stream, quantise);
  payload.written = stream.Bytes();
  ZELMemoryStream in(payload.written);
  unsigned char flag;
  if (in.ReadTyped(flag))
    in.ReadTyped(flag);
  int length;
  while (in.ReadSInt32(length)) {
    const std::size_t at = payload.deflated.size();
    payload.deflated.resize(at + static_cast<std::size_t>(length));
    in.Read(payload.deflated.data() + at, static_cast<std::size_t>(length));
  }
  payload.data.resize(bitmap.GetImageSize() * 2);
  uLongf size = static_cast<uLongf>(payload.data.size());
  uncompress(payload.data.data(), &size, payload.deflated.data(),
             static_cast<uLong>(payload.deflated.size()));
  payload.data.resize(size);
  return payload;
}

void BM_PreviewPack512(benchmark::State& state) {
  const bool quantise = state.range(0) != 0;
  const KORDib24 bitmap = Preview(true);
  const Payload payload = Pack(bitmap, quantise);
  Bytes out(compressBound(static_cast<uLong>(payload.data.size())));
  double ours = 0, zlib = 0;
  for (auto _ : state) {
    ZELMemoryStream stream;
    const auto start = Clock::now();
    if (!PackAndWritePreview(bitmap.Width(), bitmap.Height(), &bitmap, &stream, quantise))
      state.SkipWithError("pack failed");
    ours += Since(start);
    zlib += ZlibCompressSeconds(payload.data, out);
  }
  state.counters["ratio_to_zlib"] = ours / zlib;
}
BENCHMARK(BM_PreviewPack512)->ArgName("quantised")->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);

void BM_PreviewUnpack512(benchmark::State& state) {
  const bool quantise = state.range(0) != 0;
  const KORDib24 bitmap = Preview(true);
  const Payload payload = Pack(bitmap, quantise);
  Bytes out(payload.data.size());
  double ours = 0, zlib = 0;
  for (auto _ : state) {
    ZELMemoryStream stream(payload.written);
    KORDib24 read;
    const auto start = Clock::now();
    if (!ReadAndUnpackPreview(bitmap.Width(), bitmap.Height(), &read, &stream))
      state.SkipWithError("unpack failed");
    ours += Since(start);
    zlib += ZlibUncompressSeconds(payload.deflated, out);
  }
  state.counters["ratio_to_zlib"] = ours / zlib;
}
BENCHMARK(BM_PreviewUnpack512)->ArgName("quantised")->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace imagery

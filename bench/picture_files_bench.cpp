// Reading and writing a 4096 x 4096 picture as PNG (8-bit RGB), JPEG (quality 90) and OpenEXR (32-bit
// float RGB, ZIP) through imagery::io, each against the same codec library called directly with the same
// settings, in the same run ("ratio_to_library"). Ours pays what a user pays: the file is read whole
// before decoding, a new image is allocated per read, and a write goes to a temporary file that is synced
// and renamed; the direct calls stream from and to a plain FILE and decode into a malloc'd buffer.
#include <cstdio>
// jpeglib.h needs size_t and FILE declared first.
#include <jpeglib.h>
#include <png.h>

#include <ImfChannelList.h>
#include <ImfFrameBuffer.h>
#include <ImfHeader.h>
#include <ImfInputFile.h>
#include <ImfOutputFile.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include "imagery/image.h"
#include "imagery/io/picture_files.h"

namespace imagery {
namespace {

constexpr int kSize = 4096;
using Clock = std::chrono::steady_clock;

double SecondsSince(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

// Smooth gradients with a little noise, as textures are: neither trivially compressible nor noise.
Image Texture(EImageType type) {
  Image image(kSize, kSize, type, gamma::sRGB);
  PixelPlane& plane = image.GetImplRef().Plane();
  std::mt19937 random(1);
  for (int y = 0; y < kSize; ++y) {
    unsigned char* row = plane.Row(y);
    for (int x = 0; x < kSize; ++x)
      for (int c = 0; c < 3; ++c) {
        const int noise = static_cast<int>(random() % 9) - 4;
        const int value = std::clamp(((x * (c + 1) + y * (3 - c)) >> 5) % 256 + noise, 0, 255);
        if (type == IT_RGB8)
          row[x * 3 + c] = static_cast<unsigned char>(value);
        else
          reinterpret_cast<float*>(row)[x * 3 + c] = value / 64.0f;
      }
  }
  return image;
}

std::string Scratch(const char* name) {
  return (std::filesystem::temp_directory_path() / (std::string("imagery_bench_") + name)).string();
}

ZELPath PathOf(const std::string& path) {
  return ZELPath(ZELString::FromUTF8(path));
}

void Measure(benchmark::State& state, const std::function<double()>& ours,
             const std::function<double()>& library) {
  double oursSeconds = 0.0, librarySeconds = 0.0;
  for (auto _ : state) {
    oursSeconds += ours();
    librarySeconds += library();
  }
  for (const char* name : {"ours.png", "library.png", "ours.jpg", "library.jpg", "ours.exr", "library.exr"})
    std::filesystem::remove(Scratch(name));
  state.counters["ratio_to_library"] = oursSeconds / librarySeconds;
  state.counters["library_ms"] = librarySeconds * 1000.0 / static_cast<double>(state.iterations());
}

double OursWrite(benchmark::State& state, const Image& image, const std::string& path) {
  io::WriteOptions options;
  options.overwrite = true;
  const auto start = Clock::now();
  if (io::WritePicture(image, PathOf(path), options).IsBad())
    state.SkipWithError("write failed");
  return SecondsSince(start);
}

double OursRead(benchmark::State& state, const std::string& path) {
  const auto start = Clock::now();
  Image read;
  if (io::ReadPicture(PathOf(path), read).IsBad())
    state.SkipWithError("read failed");
  return SecondsSince(start);
}

// --- the codec libraries called directly ---

void PngWrite(const Image& image, const std::string& path) {
  std::FILE* file = std::fopen(path.c_str(), "wb");
  png_structp png = png_create_write_struct(PNG_LIBPNG_VER_STRING, nullptr, nullptr, nullptr);
  png_infop info = png_create_info_struct(png);
  png_init_io(png, file);
  png_set_IHDR(png, info, kSize, kSize, 8, PNG_COLOR_TYPE_RGB, PNG_INTERLACE_NONE,
               PNG_COMPRESSION_TYPE_DEFAULT, PNG_FILTER_TYPE_DEFAULT);
  png_set_sRGB_gAMA_and_cHRM(png, info, PNG_sRGB_INTENT_PERCEPTUAL);
  png_set_compression_level(png, 6);
  png_write_info(png, info);
  png_set_bgr(png);
  const PixelPlane& plane = image.GetImplRef().Plane();
  std::vector<png_bytep> rows(kSize);
  for (int y = 0; y < kSize; ++y)
    rows[y] = const_cast<png_bytep>(plane.Row(y));
  png_write_image(png, rows.data());
  png_write_end(png, info);
  png_destroy_write_struct(&png, &info);
  std::fclose(file);
}

void PngRead(const std::string& path) {
  std::FILE* file = std::fopen(path.c_str(), "rb");
  png_structp png = png_create_read_struct(PNG_LIBPNG_VER_STRING, nullptr, nullptr, nullptr);
  png_infop info = png_create_info_struct(png);
  png_init_io(png, file);
  png_read_info(png, info);
  png_set_bgr(png);
  png_read_update_info(png, info);
  const std::size_t rowBytes = png_get_rowbytes(png, info);
  const png_uint_32 height = png_get_image_height(png, info);
  std::unique_ptr<unsigned char[]> pixels(new unsigned char[rowBytes * height]);
  std::vector<png_bytep> rows(height);
  for (png_uint_32 y = 0; y < height; ++y)
    rows[y] = pixels.get() + y * rowBytes;
  png_read_image(png, rows.data());
  png_read_end(png, nullptr);
  png_destroy_read_struct(&png, &info, nullptr);
  std::fclose(file);
  benchmark::DoNotOptimize(pixels.get());
}

void JpegWrite(const Image& image, const std::string& path) {
  std::FILE* file = std::fopen(path.c_str(), "wb");
  jpeg_compress_struct info{};
  jpeg_error_mgr error{};
  info.err = jpeg_std_error(&error);
  jpeg_create_compress(&info);
  jpeg_stdio_dest(&info, file);
  info.image_width = kSize;
  info.image_height = kSize;
  info.input_components = 3;
  info.in_color_space = JCS_EXT_BGR;
  jpeg_set_defaults(&info);
  jpeg_set_quality(&info, 90, TRUE);
  jpeg_start_compress(&info, TRUE);
  const PixelPlane& plane = image.GetImplRef().Plane();
  while (info.next_scanline < info.image_height) {
    JSAMPROW row = const_cast<JSAMPROW>(plane.Row(static_cast<int>(info.next_scanline)));
    jpeg_write_scanlines(&info, &row, 1);
  }
  jpeg_finish_compress(&info);
  jpeg_destroy_compress(&info);
  std::fclose(file);
}

void JpegRead(const std::string& path) {
  std::FILE* file = std::fopen(path.c_str(), "rb");
  jpeg_decompress_struct info{};
  jpeg_error_mgr error{};
  info.err = jpeg_std_error(&error);
  jpeg_create_decompress(&info);
  jpeg_stdio_src(&info, file);
  jpeg_read_header(&info, TRUE);
  info.out_color_space = JCS_EXT_BGR;
  jpeg_start_decompress(&info);
  const std::size_t rowBytes = static_cast<std::size_t>(info.output_width) * 3;
  std::unique_ptr<unsigned char[]> pixels(new unsigned char[rowBytes * info.output_height]);
  while (info.output_scanline < info.output_height) {
    JSAMPROW row = pixels.get() + info.output_scanline * rowBytes;
    jpeg_read_scanlines(&info, &row, 1);
  }
  jpeg_finish_decompress(&info);
  jpeg_destroy_decompress(&info);
  std::fclose(file);
  benchmark::DoNotOptimize(pixels.get());
}

void ExrWrite(const Image& image, const std::string& path) {
  Imf::Header header(kSize, kSize);
  header.compression() = Imf::ZIP_COMPRESSION;
  const PixelPlane& plane = image.GetImplRef().Plane();
  char* base = const_cast<char*>(reinterpret_cast<const char*>(plane.Data()));
  Imf::FrameBuffer frame;
  const char* names[3] = {"B", "G", "R"};
  for (int c = 0; c < 3; ++c) {
    header.channels().insert(names[c], Imf::Channel(Imf::FLOAT));
    frame.insert(names[c], Imf::Slice(Imf::FLOAT, base + c * 4, 12, plane.BytesPerLine()));
  }
  Imf::OutputFile file(path.c_str(), header);
  file.setFrameBuffer(frame);
  file.writePixels(kSize);
}

void ExrRead(const std::string& path) {
  Imf::InputFile file(path.c_str());
  const Imath::Box2i window = file.header().dataWindow();
  const int width = window.max.x - window.min.x + 1;
  const int height = window.max.y - window.min.y + 1;
  std::unique_ptr<float[]> pixels(new float[static_cast<std::size_t>(width) * height * 3]);
  Imf::FrameBuffer frame;
  const char* names[3] = {"B", "G", "R"};
  for (int c = 0; c < 3; ++c)
    frame.insert(names[c], Imf::Slice::Make(Imf::FLOAT, pixels.get() + c, window, 12,
                                            static_cast<std::size_t>(width) * 12));
  file.setFrameBuffer(frame);
  file.readPixels(window.min.y, window.max.y);
  benchmark::DoNotOptimize(pixels.get());
}

template <class F>
double Timed(F&& work) {
  const auto start = Clock::now();
  work();
  return SecondsSince(start);
}

void BM_PngWrite(benchmark::State& state) {
  const Image image = Texture(IT_RGB8);
  Measure(
      state, [&] { return OursWrite(state, image, Scratch("ours.png")); },
      [&] { return Timed([&] { PngWrite(image, Scratch("library.png")); }); });
}

void BM_PngRead(benchmark::State& state) {
  const Image image = Texture(IT_RGB8);
  PngWrite(image, Scratch("library.png"));
  Measure(
      state, [&] { return OursRead(state, Scratch("library.png")); },
      [&] { return Timed([&] { PngRead(Scratch("library.png")); }); });
}

void BM_JpegWrite(benchmark::State& state) {
  const Image image = Texture(IT_RGB8);
  Measure(
      state, [&] { return OursWrite(state, image, Scratch("ours.jpg")); },
      [&] { return Timed([&] { JpegWrite(image, Scratch("library.jpg")); }); });
}

void BM_JpegRead(benchmark::State& state) {
  const Image image = Texture(IT_RGB8);
  JpegWrite(image, Scratch("library.jpg"));
  Measure(
      state, [&] { return OursRead(state, Scratch("library.jpg")); },
      [&] { return Timed([&] { JpegRead(Scratch("library.jpg")); }); });
}

void BM_ExrWrite(benchmark::State& state) {
  const Image image = Texture(IT_RGB32f);
  Measure(
      state, [&] { return OursWrite(state, image, Scratch("ours.exr")); },
      [&] { return Timed([&] { ExrWrite(image, Scratch("library.exr")); }); });
}

void BM_ExrRead(benchmark::State& state) {
  const Image image = Texture(IT_RGB32f);
  ExrWrite(image, Scratch("library.exr"));
  Measure(
      state, [&] { return OursRead(state, Scratch("library.exr")); },
      [&] { return Timed([&] { ExrRead(Scratch("library.exr")); }); });
}

BENCHMARK(BM_PngWrite)->Unit(benchmark::kMillisecond)->Iterations(3);
BENCHMARK(BM_PngRead)->Unit(benchmark::kMillisecond)->Iterations(3);
BENCHMARK(BM_JpegWrite)->Unit(benchmark::kMillisecond)->Iterations(5);
BENCHMARK(BM_JpegRead)->Unit(benchmark::kMillisecond)->Iterations(5);
BENCHMARK(BM_ExrWrite)->Unit(benchmark::kMillisecond)->Iterations(3);
BENCHMARK(BM_ExrRead)->Unit(benchmark::kMillisecond)->Iterations(3);

}  // namespace
}  // namespace imagery

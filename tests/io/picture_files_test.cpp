// Picture files: lossless round trips of every layout, files written by the codec libraries themselves
// (palettes, low bit depths, transparency chunks, tiles, big-endian TIFF, half-float EXR), gamma, bad
// and hostile files, atomic writes, the installed source reader and the sibling channel files.
#include <gtest/gtest.h>

#include <ImfChannelList.h>
#include <ImfFrameBuffer.h>
#include <ImfHeader.h>
#include <ImfOutputFile.h>
#include <png.h>
#include <cstdio>
// jpeglib.h needs size_t and FILE declared first.
#include <jpeglib.h>
#include <sys/resource.h>
#include <tiffio.h>
#include <zlib.h>

#include <csetjmp>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "imagery/gamma_settings.h"
#include "imagery/image_factory.h"
#include "imagery/io/picture_files.h"
#include "imagery/picture_type.h"
#include "imagery_host/logger.h"
#include "support/image_support.h"
#include "support/random_image.h"

namespace imagery::io {
namespace {

using testing_support::Bytes;
using testing_support::RandomImage;
using testing_support::TempFolder;

ZELPath PathOf(const std::filesystem::path& path) {
  return ZELPath(ZELString::FromUTF8(path.string()));
}

Bytes Load(const std::filesystem::path& path) {
  std::ifstream in(path, std::ios::binary);
  return Bytes(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

void Save(const std::filesystem::path& path, const Bytes& bytes) {
  std::ofstream(path, std::ios::binary)
      .write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
}

// The stored pixels, row padding left out.
Bytes PixelBytes(const Image& image) {
  const PixelPlane& plane = image.GetImplRef().Plane();
  Bytes bytes;
  for (int y = 0; y < image.Height(); ++y)
    bytes.insert(bytes.end(), plane.Row(y), plane.Row(y) + image.Width() * plane.BytesPerPixel());
  return bytes;
}

std::vector<std::string> FolderEntries(const std::filesystem::path& folder) {
  std::vector<std::string> names;
  for (const auto& entry : std::filesystem::directory_iterator(folder))
    names.push_back(entry.path().filename().string());
  std::sort(names.begin(), names.end());
  return names;
}

// Sets the input gamma for the duration of a test.
struct ScopedInputGamma {
  explicit ScopedInputGamma(float value) : saved(GetCurrentGammaSettings().InputGamma(IT_RGB8)) {
    GetCurrentGammaSettings().SetInputGamma(GammaValue(value));
  }
  ~ScopedInputGamma() { GetCurrentGammaSettings().SetInputGamma(saved); }
  GammaValue saved;
};

TEST(PictureFormats, ExtensionsAndSignaturesName) {
  const struct {
    const wchar_t* name;
    FileFormat format;
  } kExtensions[] = {
      {L"a.png", FileFormat::PNG},   {L"a.PNG", FileFormat::PNG},         {L"a.jpg", FileFormat::JPEG},
      {L"a.JpEg", FileFormat::JPEG}, {L"a.exr", FileFormat::OpenEXR},     {L"a.tif", FileFormat::TIFF},
      {L"a.tiff", FileFormat::TIFF}, {L"a.hdr", FileFormat::RadianceHDR}, {L"a.txt", FileFormat::Unknown},
      {L"png", FileFormat::Unknown}, {L"dir.png/a", FileFormat::Unknown}};
  for (const auto& entry : kExtensions)
    EXPECT_EQ(FormatFromExtension(ZELPath(entry.name)), entry.format) << ZELString(entry.name);
  const struct {
    const char* bytes;
    std::size_t size;
    FileFormat format;
  } kSignatures[] = {{"\x89PNG\r\n\x1a\n", 8, FileFormat::PNG},
                     {"\x89PNG\r\n\x1a", 7, FileFormat::Unknown},
                     {"\xff\xd8\xff\xe0", 4, FileFormat::JPEG},
                     {"v/1\x01", 4, FileFormat::OpenEXR},
                     {"II*\0", 4, FileFormat::TIFF},
                     {"MM\0*", 4, FileFormat::TIFF},
                     {"#?RADIANCE\n", 11, FileFormat::RadianceHDR},
                     {"#?RGBE\n", 7, FileFormat::RadianceHDR},
                     {"GIF89a", 6, FileFormat::Unknown},
                     {"", 0, FileFormat::Unknown}};
  for (const auto& entry : kSignatures)
    EXPECT_EQ(FormatFromSignature(entry.bytes, entry.size), entry.format) << entry.bytes;
}

struct RoundTripCase {
  const char* extension;
  EImageType type;
  float gamma;
};

class LosslessRoundTrip : public ::testing::TestWithParam<RoundTripCase> {};

// Odd widths give rows with padding; 1 x 1 and 1 x N are the degenerate shapes.
TEST_P(LosslessRoundTrip, GivesBackTheStoredBytesFormatAndGamma) {
  const RoundTripCase& param = GetParam();
  const ScopedInputGamma input(1.8f);
  TempFolder folder;
  const struct { int width, height; } kSizes[] = {{1, 1}, {1, 9}, {37, 21}, {130, 3}};
  for (const auto& size : kSizes) {
    SCOPED_TRACE(std::to_string(size.width) + " x " + std::to_string(size.height));
    const Image written = RandomImage(param.type, size.width, size.height, GammaValue(param.gamma),
                                      static_cast<unsigned>(size.width * 31 + size.height));
    const auto file = folder.path / (std::string("picture.") + param.extension);
    ASSERT_TRUE(
        WritePicture(written, PathOf(file), WriteOptions{FileFormat::Unknown, 90, 0, 6, true}).IsOk());
    EXPECT_EQ(DetectFileFormat(PathOf(file)), FormatFromExtension(PathOf(file)));

    Image read;
    const zel::ErrorCode result = ReadPicture(PathOf(file), read);
    ASSERT_TRUE(result.IsOk()) << result.ToString();
    EXPECT_EQ(read.ImageType(), param.type);
    ASSERT_EQ(read.Width(), size.width);
    ASSERT_EQ(read.Height(), size.height);
    EXPECT_EQ(PixelBytes(read), PixelBytes(written));
    EXPECT_EQ(read.FilePath(), PathOf(file));
    // PNG records the gamma; TIFF integer files get the input gamma; float pixels are linear.
    const bool png = std::string(param.extension) == "png";
    const float expected = IsFloat(param.type) ? 1.0f : png ? param.gamma : 1.8f;
    EXPECT_EQ(read.GetGamma().Value(), expected);

    const Bytes bytes = Load(file);
    Image fromMemory;
    ASSERT_TRUE(ReadPictureFromMemory(bytes.data(), bytes.size(), fromMemory).IsOk());
    EXPECT_EQ(PixelBytes(fromMemory), PixelBytes(written));
    PictureInfo info;
    ASSERT_TRUE(ReadPictureInfo(PathOf(file), info).IsOk());
    EXPECT_EQ(info.naturalType, param.type);
    EXPECT_EQ(info.width, size.width);
    EXPECT_EQ(info.hasAlpha, HasAlpha(param.type));
  }
}

INSTANTIATE_TEST_SUITE_P(
    EveryLayout, LosslessRoundTrip,
    ::testing::Values(RoundTripCase{"png", IT_Grayscale8, -2.0f}, RoundTripCase{"png", IT_Grayscale16, 2.2f},
                      RoundTripCase{"png", IT_RGB8, 1.0f}, RoundTripCase{"png", IT_RGB16, -2.0f},
                      RoundTripCase{"png", IT_RGBA8, 2.2f}, RoundTripCase{"png", IT_RGBA16, 1.0f},
                      RoundTripCase{"tif", IT_Grayscale8, -2.0f},
                      RoundTripCase{"tiff", IT_Grayscale16, -2.0f}, RoundTripCase{"tif", IT_RGB8, -2.0f},
                      RoundTripCase{"tif", IT_RGB16, -2.0f}, RoundTripCase{"tif", IT_RGBA8, -2.0f},
                      RoundTripCase{"tif", IT_RGBA16, -2.0f}, RoundTripCase{"tif", IT_Grayscale32f, 1.0f},
                      RoundTripCase{"tif", IT_RGB32f, 1.0f}, RoundTripCase{"tif", IT_RGBA32f, 1.0f},
                      RoundTripCase{"exr", IT_Grayscale32f, 1.0f}, RoundTripCase{"exr", IT_RGB32f, 1.0f},
                      RoundTripCase{"exr", IT_RGBA32f, 1.0f}),
    [](const ::testing::TestParamInfo<RoundTripCase>& info) {
      return std::string(info.param.extension) + "_format" +
             std::to_string(static_cast<int>(info.param.type));
    });

// A PNG written by libpng itself from raw samples in file order (red first, 16-bit big-endian).
struct PngFileLayout {
  int width, height, bitDepth, colorType, interlace;
  Bytes samples;  // rows packed as PNG stores them
  Bytes palette;  // RGB triples
  Bytes trns;     // palette alphas, or one 2-byte grey or three 2-byte RGB values
  int gammaFixed = 0;
  bool srgb = false;
  bool text = false;
};

int WritePngFile(std::FILE* file, const PngFileLayout* pngLayout, png_bytepp rows) {
  png_structp png = png_create_write_struct(PNG_LIBPNG_VER_STRING, nullptr, nullptr, nullptr);
  png_infop info = png_create_info_struct(png);
  if (setjmp(png_jmpbuf(png))) {
    png_destroy_write_struct(&png, &info);
    return 0;
  }
  png_init_io(png, file);
  png_set_IHDR(png, info, pngLayout->width, pngLayout->height, pngLayout->bitDepth, pngLayout->colorType,
               pngLayout->interlace, PNG_COMPRESSION_TYPE_DEFAULT, PNG_FILTER_TYPE_DEFAULT);
  if (!pngLayout->palette.empty())
    png_set_PLTE(png, info, reinterpret_cast<png_const_colorp>(pngLayout->palette.data()),
                 static_cast<int>(pngLayout->palette.size() / 3));
  if (!pngLayout->trns.empty()) {
    png_color_16 colour{};
    if (pngLayout->colorType == PNG_COLOR_TYPE_GRAY)
      colour.gray = static_cast<png_uint_16>(pngLayout->trns[0] << 8 | pngLayout->trns[1]);
    if (pngLayout->colorType == PNG_COLOR_TYPE_RGB) {
      colour.red = static_cast<png_uint_16>(pngLayout->trns[0] << 8 | pngLayout->trns[1]);
      colour.green = static_cast<png_uint_16>(pngLayout->trns[2] << 8 | pngLayout->trns[3]);
      colour.blue = static_cast<png_uint_16>(pngLayout->trns[4] << 8 | pngLayout->trns[5]);
    }
    png_set_tRNS(png, info, pngLayout->trns.data(), static_cast<int>(pngLayout->trns.size()), &colour);
  }
  if (pngLayout->srgb)
    png_set_sRGB(png, info, PNG_sRGB_INTENT_PERCEPTUAL);
  if (pngLayout->gammaFixed != 0)
    png_set_gAMA_fixed(png, info, pngLayout->gammaFixed);
  png_text text{};
  char key[] = "Comment", value[] = "a comment long enough to damage";
  text.compression = PNG_TEXT_COMPRESSION_NONE;
  text.key = key;
  text.text = value;
  if (pngLayout->text)
    png_set_text(png, info, &text, 1);
  png_write_info(png, info);
  png_write_image(png, rows);
  png_write_end(png, info);
  png_destroy_write_struct(&png, &info);
  return 1;
}

void WritePng(const std::filesystem::path& path, PngFileLayout pngLayout) {
  const std::size_t rowBytes = pngLayout.samples.size() / static_cast<std::size_t>(pngLayout.height);
  std::vector<png_bytep> rows;
  for (int y = 0; y < pngLayout.height; ++y)
    rows.push_back(pngLayout.samples.data() + y * rowBytes);
  std::FILE* file = std::fopen(path.c_str(), "wb");
  ASSERT_NE(file, nullptr);
  const int written = WritePngFile(file, &pngLayout, rows.data());
  std::fclose(file);
  ASSERT_TRUE(written);
}

TEST(PngReader, ExpandsEveryLayoutIntoTheFormatThatHoldsIt) {
  TempFolder folder;
  const struct {
    const char* what;
    PngFileLayout pngLayout;
    EImageType type;
    Bytes expected;  // stored bytes, blue first
  } kCases[] = {
      {"1-bit grey", {3, 1, 1, PNG_COLOR_TYPE_GRAY, 0, {0xA0}, {}, {}}, IT_Grayscale8, {255, 0, 255}},
      {"4-bit grey", {2, 1, 4, PNG_COLOR_TYPE_GRAY, 0, {0x3F}, {}, {}}, IT_Grayscale8, {0x33, 0xFF}},
      {"grey with alpha",
       {1, 1, 8, PNG_COLOR_TYPE_GRAY_ALPHA, 0, {9, 200}, {}, {}},
       IT_RGBA8,
       {9, 9, 9, 200}},
      {"16-bit grey with alpha",
       {1, 1, 16, PNG_COLOR_TYPE_GRAY_ALPHA, 0, {1, 2, 3, 4}, {}, {}},
       IT_RGBA16,
       {1, 2, 1, 2, 1, 2, 3, 4}},
      {"grey with a transparent value",
       {2, 1, 8, PNG_COLOR_TYPE_GRAY, 0, {7, 8}, {}, {0, 8}},
       IT_RGBA8,
       {7, 7, 7, 255, 8, 8, 8, 0}},
      {"palette",
       {2, 1, 8, PNG_COLOR_TYPE_PALETTE, 0, {1, 0}, {10, 20, 30, 40, 50, 60}, {}},
       IT_RGB8,
       {60, 50, 40, 30, 20, 10}},
      {"2-bit palette with alphas",
       {2, 1, 2, PNG_COLOR_TYPE_PALETTE, 0, {0x40}, {10, 20, 30, 40, 50, 60}, {128}},
       IT_RGBA8,
       {60, 50, 40, 255, 30, 20, 10, 128}},
      {"RGB with a transparent colour",
       {1, 1, 8, PNG_COLOR_TYPE_RGB, 0, {1, 2, 3}, {}, {0, 1, 0, 2, 0, 3}},
       IT_RGBA8,
       {3, 2, 1, 0}},
      {"interlaced 16-bit RGB",
       {1, 2, 16, PNG_COLOR_TYPE_RGB, PNG_INTERLACE_ADAM7, {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12}, {}, {}},
       IT_RGB16,
       {5, 6, 3, 4, 1, 2, 11, 12, 9, 10, 7, 8}},
  };
  for (const auto& entry : kCases) {
    SCOPED_TRACE(entry.what);
    const auto file = folder.path / "layout.png";
    WritePng(file, entry.pngLayout);
    Image read;
    const zel::ErrorCode result = ReadPicture(PathOf(file), read);
    ASSERT_TRUE(result.IsOk()) << result.ToString();
    EXPECT_EQ(read.ImageType(), entry.type);
    EXPECT_EQ(PixelBytes(read), entry.expected);
  }
}

TEST(PngReader, HonoursTheFilesGammaOtherwiseTheInputGamma) {
  const ScopedInputGamma input(1.7f);
  TempFolder folder;
  const struct {
    int gammaFixed;
    bool srgb;
    float expected;
  } kCases[] = {
      {0, true, -2.0f}, {45455, true, -2.0f}, {45455, false, 2.2f}, {100000, false, 1.0f}, {0, false, 1.7f}};
  for (const auto& entry : kCases) {
    PngFileLayout pngLayout{1, 1, 8, PNG_COLOR_TYPE_GRAY, 0, {100}, {}, {}};
    pngLayout.gammaFixed = entry.gammaFixed;
    pngLayout.srgb = entry.srgb;
    WritePng(folder.path / "gamma.png", pngLayout);
    Image read;
    ASSERT_TRUE(ReadPicture(PathOf(folder.path / "gamma.png"), read).IsOk());
    EXPECT_EQ(read.GetGamma().Value(), entry.expected) << entry.gammaFixed << " " << entry.srgb;
  }
}

TEST(IndexedPng, ReadsBackAsItsPaletteColoursAndRefusesWhatItCannotHold) {
  TempFolder folder;
  IndexedPicture picture;
  picture.width = 5;
  picture.height = 3;
  picture.palette = {{{255, 0, 0}}, {{0, 128, 0}}, {{10, 20, 250}}};
  for (int i = 0; i < picture.width * picture.height; ++i)
    picture.indices.push_back(static_cast<unsigned char>((i * 7) % 3));
  const auto file = folder.path / "indexed.png";
  ASSERT_TRUE(WriteIndexedPng(picture, PathOf(file)).IsOk());

  PictureInfo info;
  ASSERT_TRUE(ReadPictureInfo(PathOf(file), info).IsOk());
  EXPECT_TRUE(info.palette);
  Image read;
  ASSERT_TRUE(ReadPicture(PathOf(file), read).IsOk());
  ASSERT_EQ(read.ImageType(), IT_RGB8);
  EXPECT_EQ(read.GetGamma().Value(), gamma::sRGB.Value());
  const PixelPlane& plane = read.GetImplRef().Plane();
  for (int y = 0; y < picture.height; ++y) {
    for (int x = 0; x < picture.width; ++x) {
      const auto& colour = picture.palette[picture.indices[static_cast<std::size_t>(y * picture.width + x)]];
      const unsigned char* pixel = plane.PixelAddress(x, y);  // blue, green, red
      EXPECT_EQ(pixel[2], colour[0]);
      EXPECT_EQ(pixel[1], colour[1]);
      EXPECT_EQ(pixel[0], colour[2]);
    }
  }

  // Without overwriting the file stays; a bad picture writes nothing.
  EXPECT_TRUE(WriteIndexedPng(picture, PathOf(file)).IsBad());
  IndexedPicture outOfPalette = picture;
  outOfPalette.indices[4] = 3;
  IndexedPicture wrongSize = picture;
  wrongSize.indices.pop_back();
  for (const IndexedPicture* bad : {&outOfPalette, &wrongSize}) {
    const auto other = folder.path / "bad.png";
    const zel::ErrorCode error = WriteIndexedPng(*bad, PathOf(other));
    EXPECT_TRUE(error.IsBad());
    EXPECT_NE(error.Message().find("bad.png"), std::string::npos) << error.Message();
    EXPECT_FALSE(std::filesystem::exists(other));
  }
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(folder.path), {}), 1);
}

TEST(PngReader, WarningsGoToTheLogger) {
  TempFolder folder;
  PngFileLayout pngLayout{1, 1, 8, PNG_COLOR_TYPE_GRAY, 0, {100}, {}, {}};
  pngLayout.text = true;
  const auto file = folder.path / "text.png";
  WritePng(file, pngLayout);
  Bytes bytes = Load(file);
  const auto at = std::search(bytes.begin(), bytes.end(), std::begin("enough"), std::end("enough") - 1);
  ASSERT_NE(at, bytes.end());
  *at = 'E';  // the chunk's CRC no longer matches: libpng warns and drops the chunk
  Save(file, bytes);

  std::vector<std::wstring> lines;
  Logger& logger = Logger::instance();
  logger.Enable(L"io", Logger::kWarn);
  const Logger::Sink previous =
      logger.SetSink([&lines](const LogRecord& record) { lines.emplace_back(record.message); });
  Image read;
  const zel::ErrorCode result = ReadPicture(PathOf(file), read);
  logger.SetSink(previous);
  logger.Disable(L"io");
  EXPECT_TRUE(result.IsOk()) << result.ToString();
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_NE(lines[0].find(L"CRC"), std::wstring::npos);
  EXPECT_NE(lines[0].find(L"text.png"), std::wstring::npos);
}

TEST(TiffReader, ReadsTiledBigEndianFilesAndFallsBackForPalettes) {
  TempFolder folder;
  const auto tiled = folder.path / "tiled.tif";
  const int width = 37, height = 21;  // partial tiles on both edges
  {
    TIFF* tiff = TIFFOpen(tiled.c_str(), "wb");
    ASSERT_NE(tiff, nullptr);
    TIFFSetField(tiff, TIFFTAG_IMAGEWIDTH, width);
    TIFFSetField(tiff, TIFFTAG_IMAGELENGTH, height);
    TIFFSetField(tiff, TIFFTAG_BITSPERSAMPLE, 16);
    TIFFSetField(tiff, TIFFTAG_SAMPLESPERPIXEL, 3);
    TIFFSetField(tiff, TIFFTAG_PHOTOMETRIC, PHOTOMETRIC_RGB);
    TIFFSetField(tiff, TIFFTAG_PLANARCONFIG, PLANARCONFIG_CONTIG);
    TIFFSetField(tiff, TIFFTAG_TILEWIDTH, 16);
    TIFFSetField(tiff, TIFFTAG_TILELENGTH, 16);
    std::vector<std::uint16_t> tile(16 * 16 * 3);
    for (int y0 = 0; y0 < height; y0 += 16)
      for (int x0 = 0; x0 < width; x0 += 16) {
        for (int i = 0; i < 16 * 16; ++i)
          for (int c = 0; c < 3; ++c)
            tile[i * 3 + c] = static_cast<std::uint16_t>(((y0 + i / 16) * 1000 + (x0 + i % 16)) * 3 + c);
        ASSERT_GE(TIFFWriteTile(tiff, tile.data(), x0, y0, 0, 0), 0);
      }
    TIFFClose(tiff);
  }
  Image read;
  ASSERT_TRUE(ReadPicture(PathOf(tiled), read).IsOk());
  ASSERT_EQ(read.ImageType(), IT_RGB16);
  const PixelPlane& plane = read.GetImplRef().Plane();
  for (int y = 0; y < height; ++y)
    for (int x = 0; x < width; ++x)
      for (int c = 0; c < 3; ++c) {
        const unsigned char* stored = plane.PixelAddress(x, y) + (2 - c) * 2;
        ASSERT_EQ(stored[0] << 8 | stored[1], (y * 1000 + x) * 3 + c) << x << "," << y << "," << c;
      }

  const auto palette = folder.path / "palette.tif";
  {
    TIFF* tiff = TIFFOpen(palette.c_str(), "w");
    ASSERT_NE(tiff, nullptr);
    TIFFSetField(tiff, TIFFTAG_IMAGEWIDTH, 2);
    TIFFSetField(tiff, TIFFTAG_IMAGELENGTH, 1);
    TIFFSetField(tiff, TIFFTAG_BITSPERSAMPLE, 8);
    TIFFSetField(tiff, TIFFTAG_SAMPLESPERPIXEL, 1);
    TIFFSetField(tiff, TIFFTAG_PHOTOMETRIC, PHOTOMETRIC_PALETTE);
    std::vector<std::uint16_t> red(256, 0), green(256, 0), blue(256, 0);
    red[1] = 0xFFFF;
    blue[2] = 0x8080;
    TIFFSetField(tiff, TIFFTAG_COLORMAP, red.data(), green.data(), blue.data());
    const unsigned char row[2] = {1, 2};
    ASSERT_GE(TIFFWriteScanline(tiff, const_cast<unsigned char*>(row), 0, 0), 0);
    TIFFClose(tiff);
  }
  ASSERT_TRUE(ReadPicture(PathOf(palette), read).IsOk());
  EXPECT_EQ(read.ImageType(), IT_RGB8);
  EXPECT_EQ(PixelBytes(read), (Bytes{0, 0, 255, 128, 0, 0}));
}

TEST(ExrReader, HalfChannelsGreyWithAlphaAndOffsetWindowsBecomeFloats) {
  TempFolder folder;
  const auto file = folder.path / "half.exr";
  const Imath::Box2i window({-3, 5}, {-2, 5});  // 2 x 1 pixels away from the origin
  {
    Imf::Header header(Imath::Box2i({0, 0}, {1, 1}), window);
    header.channels().insert("Y", Imf::Channel(Imf::HALF));
    header.channels().insert("A", Imf::Channel(Imf::HALF));
    Imf::OutputFile out(file.c_str(), header);
    const half grey[2] = {half(0.25f), half(3.5f)};
    const half alpha[2] = {half(1.0f), half(0.5f)};
    Imf::FrameBuffer frame;
    frame.insert("Y", Imf::Slice::Make(Imf::HALF, grey, window));
    frame.insert("A", Imf::Slice::Make(Imf::HALF, alpha, window));
    out.setFrameBuffer(frame);
    out.writePixels(1);
  }
  Image read;
  ASSERT_TRUE(ReadPicture(PathOf(file), read).IsOk());
  ASSERT_EQ(read.ImageType(), IT_RGBA32f);
  ASSERT_EQ(read.Width(), 2);
  const float* pixels = reinterpret_cast<const float*>(read.GetImplRef().Plane().Row(0));
  const float expected[8] = {0.25f, 0.25f, 0.25f, 1.0f, 3.5f, 3.5f, 3.5f, 0.5f};
  for (int i = 0; i < 8; ++i)
    EXPECT_EQ(pixels[i], expected[i]) << i;
}

// A smooth picture: JPEG keeps it within a few codes, and the quality option changes the file.
TEST(JpegFiles, KeepSmoothPicturesCloseAndQualityTradesSize) {
  TempFolder folder;
  for (const EImageType type : {IT_RGB8, IT_Grayscale8}) {
    Image image(64, 48, type, gamma::sRGB);
    PixelPlane& plane = image.GetImplRef().Plane();
    const int channels = plane.BytesPerPixel();
    for (int y = 0; y < 48; ++y)
      for (int x = 0; x < 64; ++x)
        for (int c = 0; c < channels; ++c)
          plane.PixelAddress(x, y)[c] = static_cast<unsigned char>(x * 2 + y + c * 20);
    std::uintmax_t sizes[2];
    for (int quality : {30, 95}) {
      const auto file =
          folder.path / ("q" + std::to_string(quality) + "-" + std::to_string(channels) + ".jpg");
      WriteOptions options;
      options.jpegQuality = quality;
      ASSERT_TRUE(WritePicture(image, PathOf(file), options).IsOk());
      sizes[quality == 95] = std::filesystem::file_size(file);
      Image read;
      ASSERT_TRUE(ReadPicture(PathOf(file), read).IsOk());
      ASSERT_EQ(read.ImageType(), type);
      const Bytes a = PixelBytes(image), b = PixelBytes(read);
      double total = 0;
      for (std::size_t i = 0; i < a.size(); ++i)
        total += std::abs(a[i] - b[i]);
      EXPECT_LT(total / a.size(), quality == 95 ? 1.0 : 3.0) << "quality " << quality;
    }
    EXPECT_LT(sizes[0], sizes[1]);
  }
}

// A progressive grey JPEG written by libjpeg, with its usual scans or with every coefficient refined bit
// by bit (317 scans, each a pass over the whole picture).
Bytes ProgressiveJpeg(bool manyScans) {
  std::vector<jpeg_scan_info> scans;
  if (manyScans) {
    scans.push_back({1, {0}, 0, 0, 0, 1});
    scans.push_back({1, {0}, 0, 0, 1, 0});
    for (int k = 1; k < 64; ++k) {
      scans.push_back({1, {0}, k, k, 0, 4});
      for (int bit = 4; bit > 0; --bit)
        scans.push_back({1, {0}, k, k, bit, bit - 1});
    }
  }
  jpeg_compress_struct info{};
  jpeg_error_mgr error{};
  info.err = jpeg_std_error(&error);
  jpeg_create_compress(&info);
  unsigned char* buffer = nullptr;
  unsigned long size = 0;
  jpeg_mem_dest(&info, &buffer, &size);
  info.image_width = 64;
  info.image_height = 64;
  info.input_components = 1;
  info.in_color_space = JCS_GRAYSCALE;
  jpeg_set_defaults(&info);
  jpeg_simple_progression(&info);
  if (manyScans) {
    info.scan_info = scans.data();
    info.num_scans = static_cast<int>(scans.size());
  }
  jpeg_start_compress(&info, TRUE);
  std::vector<unsigned char> row(64);
  while (info.next_scanline < info.image_height) {
    for (int x = 0; x < 64; ++x)
      row[x] = static_cast<unsigned char>(x * 3 + info.next_scanline);
    JSAMPROW rows[1] = {row.data()};
    jpeg_write_scanlines(&info, rows, 1);
  }
  jpeg_finish_compress(&info);
  jpeg_destroy_compress(&info);
  Bytes bytes(buffer, buffer + size);
  std::free(buffer);
  return bytes;
}

TEST(JpegFiles, ProgressiveFilesReadUnlessTheirScansWouldTakeForever) {
  Image image;
  const Bytes usual = ProgressiveJpeg(false);
  ASSERT_TRUE(ReadPictureFromMemory(usual.data(), usual.size(), image).IsOk());
  EXPECT_EQ(image.ImageType(), IT_Grayscale8);
  const Bytes many = ProgressiveJpeg(true);
  const zel::ErrorCode result =
      ReadPictureFromMemory(many.data(), many.size(), image, IT_UNDEFINED, "many.jpg");
  EXPECT_NE(result.Message().find("many.jpg: more than 256 scans"), std::string::npos) << result.Message();
}

TEST(HdrFiles, KeepValuesToTheSharedExponentsPrecision) {
  TempFolder folder;
  for (const EImageType type : {IT_RGBEA, IT_RGB32f}) {
    Image image(19, 7, type, gamma::Linear);
    for (int y = 0; y < 7; ++y)
      for (int x = 0; x < 19; ++x)
        image.SetPixelRGB(x, y, {0.001f * (x + 1), 2.5f * y + 0.1f, 40.0f * x}, ATO_None);
    const auto file = folder.path / "light.hdr";
    ASSERT_TRUE(WritePicture(image, PathOf(file), WriteOptions{FileFormat::Unknown, 90, 0, 6, true}).IsOk());
    Image read;
    ASSERT_TRUE(ReadPicture(PathOf(file), read).IsOk());
    ASSERT_EQ(read.ImageType(), IT_RGBEA);
    for (int y = 0; y < 7; ++y)
      for (int x = 0; x < 19; ++x) {
        LinearRGB_T<float> a{}, b{};
        image.GetPixelRGB(x, y, a, ATO_None);
        read.GetPixelRGB(x, y, b, ATO_None);
        const float largest = std::max({a.r, a.g, a.b});
        // Every channel shares the largest one's exponent: two mantissa steps of it.
        for (const auto& [u, v] : {std::pair{a.r, b.r}, {a.g, b.g}, {a.b, b.b}})
          ASSERT_NEAR(u, v, largest * 2.0f / 128.0f) << x << "," << y;
      }
  }
}

// A PNG header promising `width` x `height` RGB pixels over a handful of compressed bytes.
Bytes PngPromising(std::uint32_t width, std::uint32_t height) {
  Bytes bytes = {0x89, 'P', 'N', 'G', '\r', '\n', 0x1a, '\n'};
  const auto chunk = [&bytes](const char* type, const Bytes& data) {
    const std::uint32_t size = static_cast<std::uint32_t>(data.size());
    for (int shift = 24; shift >= 0; shift -= 8)
      bytes.push_back(static_cast<unsigned char>(size >> shift));
    Bytes body(type, type + 4);
    body.insert(body.end(), data.begin(), data.end());
    bytes.insert(bytes.end(), body.begin(), body.end());
    const uLong crc = crc32(0, body.data(), static_cast<uInt>(body.size()));
    for (int shift = 24; shift >= 0; shift -= 8)
      bytes.push_back(static_cast<unsigned char>(crc >> shift));
  };
  Bytes header;
  for (const std::uint32_t value : {width, height})
    for (int shift = 24; shift >= 0; shift -= 8)
      header.push_back(static_cast<unsigned char>(value >> shift));
  header.insert(header.end(), {8, 2, 0, 0, 0});
  chunk("IHDR", header);
  Bytes raw(64, 0), packed(128);
  uLongf packedSize = packed.size();
  compress(packed.data(), &packedSize, raw.data(), raw.size());
  packed.resize(packedSize);
  chunk("IDAT", packed);
  chunk("IEND", {});
  return bytes;
}

// Little-endian uncompressed TIFF of 8-bit grey whose single strip holds 16 bytes.
Bytes TiffPromising(std::uint32_t width, std::uint32_t height) {
  Bytes bytes = {'I', 'I', 42, 0, 8, 0, 0, 0};
  const auto put = [&bytes](std::uint32_t value, int size) {
    for (int i = 0; i < size; ++i)
      bytes.push_back(static_cast<unsigned char>(value >> (8 * i)));
  };
  const std::uint32_t entries[][3] = {{256, 4, width}, {257, 4, height}, {258, 3, 8},
                                      {259, 3, 1},     {262, 3, 1},      {273, 4, 0},
                                      {277, 3, 1},     {278, 4, height}, {279, 4, 16}};
  const std::uint32_t count = sizeof entries / sizeof entries[0];
  const std::uint32_t dataAt = 8 + 2 + count * 12 + 4;
  put(count, 2);
  for (const auto& entry : entries) {
    put(entry[0], 2);
    put(entry[1], 2);
    put(1, 4);
    put(entry[0] == 273 ? dataAt : entry[2], 4);
  }
  put(0, 4);
  bytes.resize(bytes.size() + 16, 0x80);
  return bytes;
}

// The size fields of a JPEG's frame header replaced.
Bytes JpegPromising(Bytes jpeg, std::uint16_t width, std::uint16_t height) {
  for (std::size_t i = 2; i + 8 < jpeg.size(); ++i)
    if (jpeg[i] == 0xFF && jpeg[i + 1] == 0xC0) {
      jpeg[i + 5] = static_cast<unsigned char>(height >> 8);
      jpeg[i + 6] = static_cast<unsigned char>(height);
      jpeg[i + 7] = static_cast<unsigned char>(width >> 8);
      jpeg[i + 8] = static_cast<unsigned char>(width);
      return jpeg;
    }
  return {};
}

// Every bad file leaves the image as it was and names itself and the cause in the message.
TEST(BadFiles, FailWithTheFileAndTheCauseAndLeaveTheImageAlone) {
  TempFolder folder;
  const Image sample = RandomImage(IT_RGB8, 61, 47, gamma::sRGB, 7);
  std::vector<std::pair<std::string, Bytes>> written;
  for (const char* extension : {"png", "jpg", "exr", "tif", "hdr"}) {
    const auto file = folder.path / (std::string("good.") + extension);
    ASSERT_TRUE(WritePicture(sample, PathOf(file)).IsOk()) << extension;
    written.emplace_back(extension, Load(file));
  }

  struct Case {
    std::string name;
    Bytes bytes;
    std::string cause;  // empty: any cause
  };
  std::vector<Case> cases = {{"empty.png", {}, "empty file"},
                             {"text.png", Bytes{'h', 'e', 'l', 'l', 'o', '\n'}, "not a picture"},
                             {"huge.png", PngPromising(60000, 60000), "cannot fit"},
                             {"wide.png", PngPromising(70000, 1), "IHDR"},
                             {"huge.tif", TiffPromising(60000, 60000), "cannot fit"},
                             {"huge.jpg", JpegPromising(written[1].second, 60000, 60000), "cannot fit"}};
  {
    // An OpenEXR header of 60000 x 60000 whose file holds the offset table and no pixels.
    Imf::Header header(60000, 60000);
    header.channels().insert("Y", Imf::Channel(Imf::HALF));
    Imf::OutputFile unfinished((folder.path / "huge.exr").c_str(), header);
  }
  cases.push_back({"huge.exr", Load(folder.path / "huge.exr"), "cannot fit"});
  const std::string hdr = "#?RADIANCE\nFORMAT=32-bit_rle_rgbe\n\n-Y 60000 +X 60000\n\x02\x02";
  cases.push_back({"huge.hdr", Bytes(hdr.begin(), hdr.end()), "cannot fit"});
  Bytes corrupt = written[1].second;
  for (std::size_t i = 2; i + 4 < corrupt.size(); ++i)
    if (corrupt[i] == 0xFF && corrupt[i + 1] == 0xC0) {
      corrupt[i + 9] = 0;  // no components
      break;
    }
  cases.push_back({"corrupt-header.jpg", corrupt, ""});
  for (const auto& [extension, bytes] : written)
    for (const std::size_t cut :
         {std::size_t(8), bytes.size() * 2 / 5, bytes.size() * 9 / 10, bytes.size() - 1})
      cases.push_back(
          {"cut-" + std::to_string(cut) + "." + extension, Bytes(bytes.begin(), bytes.begin() + cut), ""});

  Image image = RandomImage(IT_RGBA16, 3, 2, GammaValue(2.2f), 1);
  const ImageImpl* before = image.GetImpl();
  const Bytes pixels = PixelBytes(image);
  for (const Case& entry : cases) {
    SCOPED_TRACE(entry.name);
    const auto file = folder.path / entry.name;
    Save(file, entry.bytes);
    for (const bool fromMemory : {false, true}) {
      const zel::ErrorCode result = fromMemory
                                        ? ReadPictureFromMemory(entry.bytes.data(), entry.bytes.size(), image,
                                                                IT_UNDEFINED, entry.name.c_str())
                                        : ReadPicture(PathOf(file), image);
      ASSERT_TRUE(result.IsBad());
      EXPECT_EQ(result.GetKind(), zel::ErrorCode::Kind::IoError);
      EXPECT_NE(result.Message().find(entry.name), std::string::npos) << result.Message();
      EXPECT_NE(result.Message().find(entry.cause), std::string::npos) << result.Message();
      EXPECT_EQ(image.GetImpl(), before);
      EXPECT_EQ(PixelBytes(image), pixels);
    }
    PictureInfo info;
    info.width = -5;
    EXPECT_TRUE(ReadPictureInfo(PathOf(file), info).IsBad() || entry.cause.empty());
  }
  const zel::ErrorCode missing = ReadPicture(PathOf(folder.path / "missing.png"), image);
  EXPECT_NE(missing.Message().find("missing.png: no such file"), std::string::npos) << missing.Message();
  EXPECT_EQ(image.GetImpl(), before);
}

TEST(AtomicWrite, NeverLeavesPartFilesNorDamagesTheExistingOne) {
  TempFolder folder;
  const Image small = RandomImage(IT_RGB8, 4, 4, gamma::sRGB, 3);
  const auto file = folder.path / "kept.png";
  ASSERT_TRUE(WritePicture(small, PathOf(file)).IsOk());
  const Bytes original = Load(file);

  // Without overwrite, the existing file wins.
  const Image other = RandomImage(IT_RGB8, 5, 5, gamma::sRGB, 4);
  const zel::ErrorCode exists = WritePicture(other, PathOf(file));
  EXPECT_NE(exists.Message().find("kept.png: the file exists"), std::string::npos) << exists.Message();
  EXPECT_EQ(Load(file), original);

  // A write that fails half-way (the file size limit stops it) keeps the old file.
  const Image large = RandomImage(IT_RGBA16, 300, 300, gamma::sRGB, 5);
  rlimit saved{};
  getrlimit(RLIMIT_FSIZE, &saved);
  const auto previousHandler = std::signal(SIGXFSZ, SIG_IGN);
  rlimit limited = saved;
  limited.rlim_cur = 64 * 1024;
  setrlimit(RLIMIT_FSIZE, &limited);
  std::vector<zel::ErrorCode> failures;
  for (const char* extension : {"png", "tif", "exr", "hdr", "jpg"}) {
    const auto target = folder.path / (std::string("kept.") + extension);
    if (std::string(extension) != "png")
      std::filesystem::copy_file(file, target);
    failures.push_back(
        WritePicture(large, PathOf(target), WriteOptions{FileFormat::Unknown, 100, 0, 0, true}));
  }
  setrlimit(RLIMIT_FSIZE, &saved);
  std::signal(SIGXFSZ, previousHandler);
  for (const zel::ErrorCode& failure : failures)
    EXPECT_TRUE(failure.IsBad()) << failure.ToString();
  for (const char* extension : {"png", "tif", "exr", "hdr", "jpg"})
    EXPECT_EQ(Load(folder.path / (std::string("kept.") + extension)), original) << extension;
  EXPECT_EQ(FolderEntries(folder.path),
            (std::vector<std::string>{"kept.exr", "kept.hdr", "kept.jpg", "kept.png", "kept.tif"}));

  // With overwrite the new picture replaces the old one.
  ASSERT_TRUE(WritePicture(other, PathOf(file), WriteOptions{FileFormat::Unknown, 90, 0, 6, true}).IsOk());
  Image read;
  ASSERT_TRUE(ReadPicture(PathOf(file), read).IsOk());
  EXPECT_EQ(PixelBytes(read), PixelBytes(other));
}

TEST(AtomicWrite, UnwritablePlacesAndUnknownFormatsNameTheFile) {
  TempFolder folder;
  const Image image = RandomImage(IT_RGB8, 2, 2, gamma::sRGB, 9);
  std::filesystem::create_directories(folder.path / "folder.png");
  Save(folder.path / "plain", {1});
  const struct {
    std::filesystem::path path;
    const char* cause;
  } kCases[] = {
      {folder.path / "missing" / "out.png", "cannot create a file"},
      {folder.path / "plain" / "out.png", "cannot create a file"},
      {"/proc/self/out.png", "cannot create a file"},  // refused even to root
      {folder.path / "folder.png", "folder"},
      {folder.path / "out.gif", "no picture format"},
  };
  for (const auto& entry : kCases) {
    const zel::ErrorCode result =
        WritePicture(image, PathOf(entry.path), WriteOptions{FileFormat::Unknown, 90, 0, 6, true});
    ASSERT_TRUE(result.IsBad()) << entry.path;
    EXPECT_NE(result.Message().find(entry.path.string() + ": "), std::string::npos) << result.Message();
    EXPECT_NE(result.Message().find(entry.cause), std::string::npos) << result.Message();
  }
  EXPECT_EQ(FolderEntries(folder.path), (std::vector<std::string>{"folder.png", "plain"}));
}

TEST(SourceReader, LoadsAFileOnceThroughTheImageListAndRereadsOnReload) {
  TempFolder folder;
  const auto file = folder.path / "shared.png";
  const Image written = RandomImage(IT_RGB8, 40, 30, gamma::sRGB, 11);
  ASSERT_TRUE(WritePicture(written, PathOf(file)).IsOk());
  InstallPictureReader();
  int extra = 0;
  Image first, second, grey, reloaded, missing;
  ASSERT_TRUE(first.ReadFromSource(PathOf(file), IT_RGB8, extra, ReadOptions()).IsOk());
  ASSERT_TRUE(second.ReadFromSource(PathOf(file), IT_UNDEFINED, extra, ReadOptions()).IsOk());
  ASSERT_TRUE(grey.ReadFromSource(PathOf(file), IT_Grayscale8, extra, ReadOptions()).IsOk());
  ReadOptions reload;
  reload.bypassReaderCache = true;
  ASSERT_TRUE(reloaded.ReadFromSource(PathOf(file), IT_RGB8, extra, reload).IsOk());
  const Image before(missing);
  const zel::ErrorCode failure =
      missing.ReadFromSource(PathOf(folder.path / "gone.png"), IT_RGB8, extra, ReadOptions());
  ImageFactory::GetInstance().SetAdditionalFeaturesFunc(nullptr);

  EXPECT_EQ(PixelBytes(first), PixelBytes(written));
  EXPECT_EQ(second.GetImpl(), first.GetImpl());
  EXPECT_EQ(grey.ImageType(), IT_Grayscale8);
  EXPECT_NE(reloaded.GetImpl(), first.GetImpl());
  EXPECT_EQ(PixelBytes(reloaded), PixelBytes(written));
  EXPECT_TRUE(failure.IsBad());
  EXPECT_NE(failure.Message().find("gone.png"), std::string::npos);
  EXPECT_EQ(missing.GetImpl(), before.GetImpl());
}

// Hosts read many files at once: every codec on several threads, through the installed reader too.
TEST(SourceReader, ConcurrentReadsOfEveryFormatAgree) {
  TempFolder folder;
  const Image colour = RandomImage(IT_RGBA16, 33, 17, gamma::sRGB, 13);
  std::vector<std::filesystem::path> files;
  for (const char* extension : {"png", "jpg", "exr", "tif", "hdr"}) {
    files.push_back(folder.path / (std::string("shared.") + extension));
    ASSERT_TRUE(WritePicture(colour, PathOf(files.back())).IsOk());
  }
  std::vector<Bytes> expected;
  for (const auto& file : files) {
    Image read;
    ASSERT_TRUE(ReadPicture(PathOf(file), read).IsOk());
    expected.push_back(PixelBytes(read));
  }
  InstallPictureReader();
  std::vector<int> mismatches(4, 0);
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t)
    threads.emplace_back([&, t] {
      for (int round = 0; round < 10; ++round)
        for (std::size_t f = 0; f < files.size(); ++f) {
          Image image;
          int extra = 0;
          ReadOptions options;
          options.bypassReaderCache = (round + t) % 2 == 0;
          if (image.ReadFromSource(PathOf(files[f]), IT_UNDEFINED, extra, options).IsBad() ||
              PixelBytes(image) != expected[f])
            ++mismatches[t];
        }
    });
  for (std::thread& thread : threads)
    thread.join();
  ImageFactory::GetInstance().SetAdditionalFeaturesFunc(nullptr);
  EXPECT_EQ(mismatches, std::vector<int>(4, 0));
}

// The sibling channel files of a material are found in a real folder whatever their format.
TEST(ChannelFiles, SiblingsAreFoundOnDiskForEveryExtension) {
  TempFolder folder;
  const Image colour = RandomImage(IT_RGB8, 8, 8, gamma::sRGB, 12);
  for (const char* extension : {"png", "jpg", "jpeg", "exr", "tiff"}) {
    SCOPED_TRACE(extension);
    const std::string stem = std::string("brick_") + extension;
    ASSERT_TRUE(WritePicture(colour, PathOf(folder.path / (stem + "_Color." + extension))).IsOk());
    ASSERT_TRUE(WritePicture(colour, PathOf(folder.path / (stem + "_NRM." + extension))).IsOk());
    ASSERT_TRUE(WritePicture(colour, PathOf(folder.path / (stem + "_Roughness." + extension))).IsOk());
    const ZELPath source = PathOf(folder.path / (stem + "_Color." + extension));
    EXPECT_EQ(FindChannelPath(source, PT_NormalMap), PathOf(folder.path / (stem + "_NRM." + extension)));
    EXPECT_EQ(FindChannelPath(source, PT_Roughness),
              PathOf(folder.path / (stem + "_Roughness." + extension)));
    EXPECT_TRUE(FindChannelPath(source, PT_Metallic).empty());
    Image normal;
    ASSERT_TRUE(ReadPicture(FindChannelPath(source, PT_NormalMap), normal).IsOk());
  }
}

}  // namespace
}  // namespace imagery::io

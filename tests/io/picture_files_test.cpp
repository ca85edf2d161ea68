// Picture files: lossless round trips of every layout, files written by the codec libraries themselves
// (palettes, low bit depths, transparency chunks, tiles, big-endian TIFF, half-float EXR), gamma, bad and
// hostile files, atomic writes and the installed source reader.
#include <gtest/gtest.h>

#include <ImfChannelList.h>
#include <ImfFrameBuffer.h>
#include <ImfHeader.h>
#include <ImfOutputFile.h>
#include <cstdio>
// jpeglib.h needs size_t and FILE declared first.
#include <jpeglib.h>
#include <sys/resource.h>
#include <tiffio.h>

#include <array>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <numeric>
#include <string>
#include <thread>
#include <vector>

#include "imagery/gamma_settings.h"
#include "imagery/image_factory.h"
#include "imagery/io/picture_files.h"
#include "imagery_host/logger.h"
#include "support/image_support.h"
#include "support/picture_bytes.h"
#include "support/random_image.h"

namespace imagery::io {
namespace {

using testing_support::FileBytes;
using testing_support::Listing;
using testing_support::PathOf;
using testing_support::PixelBytes;
using testing_support::RandomImage;
using testing_support::TempFolder;
using testing_support::WriteBytes;
using Bytes = std::vector<unsigned char>;

const WriteOptions kOverwrite{FileFormat::Unknown, 90, 0, 6, true};

Bytes Stored(const Image& image) {
  const std::string bytes = PixelBytes(image);
  return Bytes(bytes.begin(), bytes.end());
}

Image MustRead(const std::filesystem::path& file) {
  Image read;
  const zel::ErrorCode result = ReadPicture(PathOf(file), read);
  EXPECT_TRUE(result.IsOk()) << result.ToString();
  return read;
}

// Sets the input gamma for the duration of a test.
struct ScopedInputGamma {
  explicit ScopedInputGamma(float value) : saved(GetCurrentGammaSettings().InputGamma(IT_RGB8)) {
    GetCurrentGammaSettings().SetInputGamma(GammaValue(value));
  }
  ~ScopedInputGamma() { GetCurrentGammaSettings().SetInputGamma(saved); }
  GammaValue saved;
};

// The usual extensions and signatures are what every read and write below goes by; these are the edges.
TEST(PictureFormats, ExtensionsAndSignaturesName) {
  EXPECT_EQ(FormatFromExtension(ZELPath(L"a.PNG")), FileFormat::PNG);
  EXPECT_EQ(FormatFromSignature("\x89PNG\r\n\x1a", 7), FileFormat::Unknown);
  EXPECT_EQ(FormatFromSignature("#?RGBE\n", 7), FileFormat::RadianceHDR);
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
  for (const auto& [width, height] : {std::pair{1, 1}, {1, 9}, {37, 21}, {130, 3}}) {
    SCOPED_TRACE(std::to_string(width) + " x " + std::to_string(height));
    const Image written = RandomImage(param.type, width, height, GammaValue(param.gamma),
                                      static_cast<unsigned>(width * 31 + height));
    const auto file = folder.path / (std::string("picture.") + param.extension);
    ASSERT_TRUE(WritePicture(written, PathOf(file), kOverwrite).IsOk());
    EXPECT_EQ(DetectFileFormat(PathOf(file)), FormatFromExtension(PathOf(file)));

    const Image read = MustRead(file);
    EXPECT_EQ(read.ImageType(), param.type);
    ASSERT_TRUE(read.Width() == width && read.Height() == height);
    EXPECT_EQ(PixelBytes(read), PixelBytes(written));
    // PNG records the gamma; TIFF integer files get the input gamma; float pixels are linear.
    const bool png = std::string(param.extension) == "png";
    EXPECT_EQ(read.GetGamma().Value(), IsFloat(param.type) ? 1.0f : png ? param.gamma : 1.8f);

    PictureInfo info;
    ASSERT_TRUE(ReadPictureInfo(PathOf(file), info).IsOk());
    EXPECT_TRUE(info.naturalType == param.type && info.width == width &&
                info.hasAlpha == HasAlpha(param.type));
  }
}

// Every integer layout in PNG and TIFF and every float one in TIFF and OpenEXR; PNG files record gammas of
// each kind, TIFF ones the default.
std::vector<RoundTripCase> EveryLayout() {
  std::vector<RoundTripCase> cases;
  for (const EImageType type : {IT_Grayscale8, IT_Grayscale16, IT_RGB8, IT_RGB16, IT_RGBA8, IT_RGBA16})
    for (const char* extension : {"png", type == IT_Grayscale16 ? "tiff" : "tif"})
      cases.push_back(
          {extension, type, *extension == 't' ? -2.0f : std::array{-2.0f, 2.2f, 1.0f}[cases.size() % 3]});
  for (const EImageType type : {IT_Grayscale32f, IT_RGB32f, IT_RGBA32f})
    for (const char* extension : {"tif", "exr"})
      cases.push_back({extension, type, 1.0f});
  return cases;
}

INSTANTIATE_TEST_SUITE_P(EveryLayout, LosslessRoundTrip, ::testing::ValuesIn(EveryLayout()),
                         [](const ::testing::TestParamInfo<RoundTripCase>& info) {
                           return std::string(info.param.extension) + "_format" +
                                  std::to_string(static_cast<int>(info.param.type));
                         });

// A PNG of the given header over `samples`, rows packed as PNG stores them (red first, 16-bit big-endian).
std::string Png(int width, int height, int depth, int colourType, const Bytes& samples,
                const std::vector<std::string>& chunks = {}, int interlace = 0) {
  std::string scanlines;
  const std::size_t row = samples.size() / static_cast<std::size_t>(height);
  for (std::size_t at = 0; at < samples.size(); at += row)
    (scanlines += '\0').append(samples.begin() + at, samples.begin() + at + row);
  return testing_support::PngFile(width, height, depth, colourType, interlace, scanlines, chunks);
}

// None of these files records a gamma: they take the input gamma. (Files that do are the round trips'.)
TEST(PngReader, ExpandsEveryLayoutIntoTheFormatThatHoldsIt) {
  const ScopedInputGamma input(1.7f);
  const std::string palette = std::string("PLTE") + "\x0a\x14\x1e\x28\x32\x3c";
  const struct {
    const char* what;
    std::string file;
    EImageType type;
    Bytes expected;  // stored bytes, blue first
  } kCases[] = {
      // clang-format off
      {"1-bit grey", Png(3, 1, 1, 0, {0xA0}), IT_Grayscale8, {255, 0, 255}},
      {"16-bit grey with alpha", Png(1, 1, 16, 4, {1, 2, 3, 4}), IT_RGBA16, {1, 2, 1, 2, 1, 2, 3, 4}},
      {"grey with a transparent value", Png(2, 1, 8, 0, {7, 8}, {std::string("tRNS\0\x08", 6)}), IT_RGBA8, {7, 7, 7, 255, 8, 8, 8, 0}},
      {"2-bit palette with alphas", Png(2, 1, 2, 3, {0x40}, {palette, "tRNS\x80"}), IT_RGBA8, {60, 50, 40, 255, 30, 20, 10, 128}},
      {"RGB with a transparent colour", Png(1, 1, 8, 2, {1, 2, 3}, {std::string("tRNS\0\x01\0\x02\0\x03", 10)}), IT_RGBA8, {3, 2, 1, 0}},
      {"interlaced 16-bit RGB", Png(1, 2, 16, 2, {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12}, {}, 1), IT_RGB16, {5, 6, 3, 4, 1, 2, 11, 12, 9, 10, 7, 8}},
      // clang-format on
  };
  for (const auto& entry : kCases) {
    SCOPED_TRACE(entry.what);
    Image read;
    const zel::ErrorCode result = ReadPictureFromMemory(entry.file.data(), entry.file.size(), read);
    ASSERT_TRUE(result.IsOk()) << result.ToString();
    EXPECT_EQ(read.ImageType(), entry.type);
    EXPECT_EQ(Stored(read), entry.expected);
    EXPECT_EQ(read.GetGamma().Value(), 1.7f);
  }
}

TEST(PngReader, WarningsGoToTheLogger) {
  TempFolder folder;
  std::string bytes =
      Png(1, 1, 8, 0, {100}, {std::string("tEXtComment") + '\0' + "a comment long enough to damage"});
  bytes[bytes.find("enough")] = 'E';  // the chunk's CRC no longer matches: libpng warns and drops the chunk
  const auto file = folder.path / "text.png";
  WriteBytes(file, bytes);

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

TEST(IndexedPng, ReadsBackAsItsPaletteColoursAndRefusesWhatItCannotHold) {
  TempFolder folder;
  const IndexedPicture picture{3, 2, {{{255, 0, 0}}, {{0, 128, 0}}, {{10, 20, 250}}}, {2, 0, 1, 1, 2, 0}};
  const Bytes expected = {250, 20,  10, 0,   0,  255, 0, 128, 0,
                          0,   128, 0,  250, 20, 10,  0, 0,   255};  // blue first
  const auto file = folder.path / "indexed.png";
  ASSERT_TRUE(WriteIndexedPng(picture, PathOf(file)).IsOk());
  const Image read = MustRead(file);
  EXPECT_EQ(read.GetGamma().Value(), gamma::sRGB.Value());
  EXPECT_EQ(Stored(read), expected);

  // A bad picture writes nothing.
  IndexedPicture outOfPalette = picture, wrongSize = picture;
  outOfPalette.indices[4] = 3;
  wrongSize.indices.pop_back();
  for (const IndexedPicture* bad : {&outOfPalette, &wrongSize}) {
    const zel::ErrorCode error = WriteIndexedPng(*bad, PathOf(folder.path / "bad.png"));
    EXPECT_TRUE(error.IsBad());
    EXPECT_NE(error.Message().find("bad.png"), std::string::npos) << error.Message();
  }
  EXPECT_EQ(Listing(folder.path), std::vector<std::string>{"indexed.png"});
}

// A TIFF of contiguous samples opened for writing with libtiff.
TIFF* OpenTiff(const std::filesystem::path& path, const char* mode, int width, int height, int bits,
               int samples, int photometric) {
  TIFF* tiff = TIFFOpen(path.c_str(), mode);
  EXPECT_NE(tiff, nullptr);
  TIFFSetField(tiff, TIFFTAG_IMAGEWIDTH, width);
  TIFFSetField(tiff, TIFFTAG_IMAGELENGTH, height);
  TIFFSetField(tiff, TIFFTAG_BITSPERSAMPLE, bits);
  TIFFSetField(tiff, TIFFTAG_SAMPLESPERPIXEL, samples);
  TIFFSetField(tiff, TIFFTAG_PHOTOMETRIC, photometric);
  TIFFSetField(tiff, TIFFTAG_PLANARCONFIG, PLANARCONFIG_CONTIG);
  return tiff;
}

TEST(TiffReader, ReadsTiledBigEndianFilesAndFallsBackForPalettes) {
  TempFolder folder;
  const int width = 37, height = 21;  // partial tiles on both edges
  TIFF* tiff = OpenTiff(folder.path / "tiled.tif", "wb", width, height, 16, 3, PHOTOMETRIC_RGB);
  TIFFSetField(tiff, TIFFTAG_TILEWIDTH, 16);
  TIFFSetField(tiff, TIFFTAG_TILELENGTH, 16);
  const auto sample = [](int x, int y, int c) { return static_cast<std::uint16_t>((y * 1000 + x) * 3 + c); };
  std::vector<std::uint16_t> tile(16 * 16 * 3);
  for (int y0 = 0; y0 < height; y0 += 16)
    for (int x0 = 0; x0 < width; x0 += 16) {
      for (int i = 0; i < 16 * 16 * 3; ++i)
        tile[i] = sample(x0 + i / 3 % 16, y0 + i / 48, i % 3);
      ASSERT_GE(TIFFWriteTile(tiff, tile.data(), x0, y0, 0, 0), 0);
    }
  TIFFClose(tiff);
  Image read = MustRead(folder.path / "tiled.tif");
  ASSERT_EQ(read.ImageType(), IT_RGB16);
  for (int y = 0; y < height; ++y)
    for (int x = 0; x < width; ++x)
      for (int c = 0; c < 3; ++c) {
        const unsigned char* stored = read.GetImplRef().Plane().PixelAddress(x, y) + (2 - c) * 2;
        ASSERT_EQ(stored[0] << 8 | stored[1], sample(x, y, c)) << x << "," << y << "," << c;
      }

  tiff = OpenTiff(folder.path / "palette.tif", "w", 2, 1, 8, 1, PHOTOMETRIC_PALETTE);
  std::vector<std::uint16_t> red(256, 0), green(256, 0), blue(256, 0);
  red[1] = 0xFFFF;
  blue[2] = 0x8080;
  TIFFSetField(tiff, TIFFTAG_COLORMAP, red.data(), green.data(), blue.data());
  unsigned char row[2] = {1, 2};
  ASSERT_GE(TIFFWriteScanline(tiff, row, 0, 0), 0);
  TIFFClose(tiff);
  read = MustRead(folder.path / "palette.tif");
  EXPECT_EQ(Stored(read), (Bytes{0, 0, 255, 128, 0, 0}));  // three bytes a pixel: RGB8
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
  const Image read = MustRead(file);
  ASSERT_EQ(read.ImageType(), IT_RGBA32f);
  ASSERT_EQ(read.Width(), 2);
  const float* pixels = reinterpret_cast<const float*>(read.GetImplRef().Plane().Row(0));
  EXPECT_EQ(std::vector<float>(pixels, pixels + 8),
            (std::vector<float>{0.25f, 0.25f, 0.25f, 1.0f, 3.5f, 3.5f, 3.5f, 0.5f}));
}

// A smooth picture: JPEG keeps it within a code, and the quality option reaches the encoder.
TEST(JpegFiles, KeepSmoothPicturesCloseAndQualityReachesTheEncoder) {
  TempFolder folder;
  for (const EImageType type : {IT_RGB8, IT_Grayscale8}) {
    Image image(64, 48, type, gamma::sRGB);
    PixelPlane& plane = image.GetImplRef().Plane();
    const int channels = plane.BytesPerPixel();
    for (int y = 0; y < 48; ++y)
      for (int x = 0; x < 64; ++x)
        for (int c = 0; c < channels; ++c)
          plane.PixelAddress(x, y)[c] = static_cast<unsigned char>(x * 2 + y + c * 20);
    const auto file = folder.path / "smooth.jpg";
    ASSERT_TRUE(WritePicture(image, PathOf(file), {FileFormat::Unknown, 95, 0, 6, true}).IsOk());
    const Image read = MustRead(file);
    ASSERT_EQ(read.ImageType(), type);
    const Bytes a = Stored(image), b = Stored(read);
    const double total = std::inner_product(a.begin(), a.end(), b.begin(), 0.0, std::plus<>(),
                                            [](int u, int v) { return std::abs(u - v); });
    EXPECT_LT(total / a.size(), 1.0) << type;
    const auto low = folder.path / "low.jpg";
    ASSERT_TRUE(WritePicture(image, PathOf(low), {FileFormat::Unknown, 30, 0, 6, true}).IsOk());
    EXPECT_LT(std::filesystem::file_size(low), std::filesystem::file_size(file));
  }
}

// A progressive grey JPEG written by libjpeg with every coefficient refined bit by bit (317 scans, each a
// pass over the whole picture).
std::string ManyScanJpeg() {
  std::vector<jpeg_scan_info> scans = {{1, {0}, 0, 0, 0, 1}, {1, {0}, 0, 0, 1, 0}};
  for (int k = 1; k < 64; ++k) {
    scans.push_back({1, {0}, k, k, 0, 4});
    for (int bit = 4; bit > 0; --bit)
      scans.push_back({1, {0}, k, k, bit, bit - 1});
  }
  jpeg_compress_struct info{};
  jpeg_error_mgr error{};
  info.err = jpeg_std_error(&error);
  jpeg_create_compress(&info);
  unsigned char* buffer = nullptr;
  unsigned long size = 0;
  jpeg_mem_dest(&info, &buffer, &size);
  info.image_width = info.image_height = 64;
  info.input_components = 1;
  info.in_color_space = JCS_GRAYSCALE;
  jpeg_set_defaults(&info);
  info.scan_info = scans.data();
  info.num_scans = static_cast<int>(scans.size());
  jpeg_start_compress(&info, TRUE);
  std::vector<unsigned char> row(64, 100);
  JSAMPROW rows[1] = {row.data()};
  while (info.next_scanline < info.image_height)
    jpeg_write_scanlines(&info, rows, 1);
  jpeg_finish_compress(&info);
  jpeg_destroy_compress(&info);
  std::string bytes(reinterpret_cast<const char*>(buffer), size);
  std::free(buffer);
  return bytes;
}

TEST(JpegFiles, ProgressiveFilesWhoseScansWouldTakeForeverAreRefused) {
  Image image;
  const std::string many = ManyScanJpeg();
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
    ASSERT_TRUE(WritePicture(image, PathOf(file), kOverwrite).IsOk());
    const Image read = MustRead(file);
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

// An 8-bit grey TIFF of `width` x `height` pixels in one strip that holds 16 bytes.
std::string TiffPromising(const std::filesystem::path& path, int width, int height) {
  TIFF* tiff = OpenTiff(path, "w", width, height, 8, 1, PHOTOMETRIC_MINISBLACK);
  TIFFSetField(tiff, TIFFTAG_ROWSPERSTRIP, height);
  TIFFWriteRawStrip(tiff, 0, std::string(16, '\x80').data(), 16);
  TIFFClose(tiff);
  return FileBytes(path);
}

// A JPEG's frame header with its size fields, or its component count, replaced.
std::string JpegWithFrame(std::string jpeg, std::uint16_t width, std::uint16_t height, int components) {
  const std::size_t at = jpeg.find("\xFF\xC0");
  const unsigned char fields[] = {static_cast<unsigned char>(height >> 8), static_cast<unsigned char>(height),
                                  static_cast<unsigned char>(width >> 8), static_cast<unsigned char>(width),
                                  static_cast<unsigned char>(components)};
  if (at != std::string::npos)
    jpeg.replace(at + 5, 5, reinterpret_cast<const char*>(fields), 5);
  return jpeg;
}

// Every bad file leaves the image as it was and names itself and the cause in the message.
TEST(BadFiles, FailWithTheFileAndTheCauseAndLeaveTheImageAlone) {
  TempFolder folder;
  const Image sample = RandomImage(IT_RGB8, 61, 47, gamma::sRGB, 7);
  std::vector<std::pair<std::string, std::string>> written;
  for (const char* extension : {"png", "jpg", "exr", "tif", "hdr"}) {
    const auto file = folder.path / (std::string("good.") + extension);
    ASSERT_TRUE(WritePicture(sample, PathOf(file)).IsOk()) << extension;
    written.emplace_back(extension, FileBytes(file));
  }
  {
    // An OpenEXR header of 60000 x 60000 whose file holds the offset table and no pixels.
    Imf::Header header(60000, 60000);
    header.channels().insert("Y", Imf::Channel(Imf::HALF));
    Imf::OutputFile unfinished((folder.path / "huge.exr").c_str(), header);
  }
  const std::string& jpeg = written[1].second;
  struct Case {
    std::string name, bytes, cause;  // empty cause: any cause
  };
  std::vector<Case> cases = {
      {"empty.png", "", "empty file"},
      {"text.png", "hello\n", "not a picture"},
      {"huge.png", testing_support::PngPromising(60000, 60000), "cannot fit"},
      {"wide.png", testing_support::PngPromising(70000, 1), "IHDR"},
      {"huge.tif", TiffPromising(folder.path / "huge.tif", 60000, 60000), "cannot fit"},
      {"huge.jpg", JpegWithFrame(jpeg, 60000, 60000, jpeg[jpeg.find("\xFF\xC0") + 9]), "cannot fit"},
      {"huge.exr", FileBytes(folder.path / "huge.exr"), "cannot fit"},
      {"huge.hdr", "#?RADIANCE\nFORMAT=32-bit_rle_rgbe\n\n-Y 60000 +X 60000\n\x02\x02", "cannot fit"},
      {"corrupt-header.jpg", JpegWithFrame(jpeg, 61, 47, 0), ""}};
  for (const auto& [extension, bytes] : written)
    for (const std::size_t cut :
         {std::size_t(8), bytes.size() * 2 / 5, bytes.size() * 9 / 10, bytes.size() - 1})
      cases.push_back({"cut-" + std::to_string(cut) + "." + extension, bytes.substr(0, cut), ""});

  Image image = RandomImage(IT_RGBA16, 3, 2, GammaValue(2.2f), 1);
  const ImageImpl* before = image.GetImpl();
  const std::string pixels = PixelBytes(image);
  for (const Case& entry : cases) {
    SCOPED_TRACE(entry.name);
    const auto file = folder.path / entry.name;
    WriteBytes(file, entry.bytes);
    const zel::ErrorCode result = ReadPicture(PathOf(file), image);
    ASSERT_TRUE(result.IsBad());
    EXPECT_EQ(result.GetKind(), zel::ErrorCode::Kind::IoError);
    EXPECT_NE(result.Message().find(entry.name), std::string::npos) << result.Message();
    EXPECT_NE(result.Message().find(entry.cause), std::string::npos) << result.Message();
    EXPECT_EQ(image.GetImpl(), before);
    EXPECT_EQ(PixelBytes(image), pixels);
    PictureInfo info;
    EXPECT_TRUE(ReadPictureInfo(PathOf(file), info).IsBad() || entry.cause.empty());
  }
  const zel::ErrorCode missing = ReadPicture(PathOf(folder.path / "missing.png"), image);
  EXPECT_NE(missing.Message().find("missing.png: no such file"), std::string::npos) << missing.Message();
  EXPECT_EQ(image.GetImpl(), before);

  // A pixel limit one below the sample's count refuses every format by its header; the count itself passes.
  const PictureLimits saved = GetPictureLimits();
  for (const std::int64_t maxPixels : {61 * 47 - 1, 61 * 47}) {
    SetPictureLimits({saved.maxDimension, maxPixels});
    for (const auto& [extension, bytes] : written) {
      const zel::ErrorCode result = ReadPictureFromMemory(bytes.data(), bytes.size(), image);
      EXPECT_TRUE(maxPixels == 61 * 47 ? result.IsOk()
                                       : result.Message().find("image too large") != std::string::npos)
          << extension << ": " << result.Message();
    }
  }
  SetPictureLimits(saved);
}

TEST(AtomicWrite, NeverLeavesPartFilesNorDamagesTheExistingOneAndFailuresNameTheFile) {
  TempFolder folder;
  const auto file = folder.path / "kept.png";
  ASSERT_TRUE(WritePicture(RandomImage(IT_RGB8, 4, 4, gamma::sRGB, 3), PathOf(file)).IsOk());
  const std::string original = FileBytes(file);

  // Without overwrite, the existing file wins.
  const Image other = RandomImage(IT_RGB8, 5, 5, gamma::sRGB, 4);
  const zel::ErrorCode exists = WritePicture(other, PathOf(file));
  EXPECT_NE(exists.Message().find("kept.png: the file exists"), std::string::npos) << exists.Message();
  EXPECT_EQ(FileBytes(file), original);

  // A write that fails half-way (the file size limit stops it) keeps the old file.
  const Image large = RandomImage(IT_RGBA16, 300, 300, gamma::sRGB, 5);
  rlimit saved{};
  getrlimit(RLIMIT_FSIZE, &saved);
  const auto previousHandler = std::signal(SIGXFSZ, SIG_IGN);
  const rlimit limited{64 * 1024, saved.rlim_max};
  setrlimit(RLIMIT_FSIZE, &limited);
  const char* const kExtensions[] = {"png", "tif", "exr", "hdr", "jpg"};
  std::vector<zel::ErrorCode> failures;
  for (const char* extension : kExtensions) {
    const auto target = folder.path / (std::string("kept.") + extension);
    if (target != file)
      std::filesystem::copy_file(file, target);
    failures.push_back(
        WritePicture(large, PathOf(target), WriteOptions{FileFormat::Unknown, 100, 0, 0, true}));
  }
  setrlimit(RLIMIT_FSIZE, &saved);
  std::signal(SIGXFSZ, previousHandler);
  for (const zel::ErrorCode& failure : failures)
    EXPECT_TRUE(failure.IsBad()) << failure.ToString();
  for (const char* extension : kExtensions)
    EXPECT_EQ(FileBytes(folder.path / (std::string("kept.") + extension)), original) << extension;

  // Places that cannot be written and unknown formats name the file. No temporary file stays behind.
  std::filesystem::create_directories(folder.path / "folder.png");
  const std::pair<std::filesystem::path, const char*> kCases[] = {
      {folder.path / "missing" / "out.png", "cannot create a file"},
      {folder.path / "folder.png", "folder"},
      {folder.path / "out.gif", "no picture format"},
  };
  for (const auto& [path, cause] : kCases) {
    const zel::ErrorCode result = WritePicture(other, PathOf(path), kOverwrite);
    ASSERT_TRUE(result.IsBad()) << path;
    EXPECT_NE(result.Message().find(path.string() + ": "), std::string::npos) << result.Message();
    EXPECT_NE(result.Message().find(cause), std::string::npos) << result.Message();
  }
  EXPECT_EQ(Listing(folder.path), (std::vector<std::string>{"folder.png", "kept.exr", "kept.hdr", "kept.jpg",
                                                            "kept.png", "kept.tif"}));
}

// The installed reader loads a file once through the image list and rereads it, in the format asked for,
// when asked; hosts read many files at once, so every codec is also read on several threads.
TEST(SourceReader, LoadsOnceRereadsOnReloadAndConcurrentReadsOfEveryFormatAgree) {
  TempFolder folder;
  const Image colour = RandomImage(IT_RGBA16, 33, 17, gamma::sRGB, 13);
  std::vector<std::filesystem::path> files;
  std::vector<std::string> expected;
  for (const char* extension : {"png", "jpg", "exr", "tif", "hdr"}) {
    files.push_back(folder.path / (std::string("shared.") + extension));
    ASSERT_TRUE(WritePicture(colour, PathOf(files.back())).IsOk());
    expected.push_back(PixelBytes(MustRead(files.back())));
  }
  InstallPictureReader();
  int extra = 0;
  ReadOptions reload;
  reload.bypassReaderCache = true;
  const ZELPath shared = PathOf(files[0]);
  Image first, second, reloaded, missing;
  ASSERT_TRUE(first.ReadFromSource(shared, IT_RGBA16, extra, ReadOptions()).IsOk());
  ASSERT_TRUE(second.ReadFromSource(shared, IT_UNDEFINED, extra, ReadOptions()).IsOk());
  ASSERT_TRUE(reloaded.ReadFromSource(shared, IT_Grayscale8, extra, reload).IsOk());
  const Image before(missing);
  const zel::ErrorCode failure =
      missing.ReadFromSource(PathOf(folder.path / "gone.png"), IT_RGB8, extra, ReadOptions());
  EXPECT_EQ(PixelBytes(first), expected[0]);
  EXPECT_EQ(second.GetImpl(), first.GetImpl());
  EXPECT_NE(reloaded.GetImpl(), first.GetImpl());
  EXPECT_EQ(reloaded.ImageType(), IT_Grayscale8);
  EXPECT_NE(failure.Message().find("gone.png"), std::string::npos) << failure.ToString();
  EXPECT_EQ(missing.GetImpl(), before.GetImpl());

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

}  // namespace
}  // namespace imagery::io

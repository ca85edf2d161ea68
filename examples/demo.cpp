// Example program: walks through what the library offers so far and prints what it did.
#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <memory>
#include <numeric>
#include <random>
#include <string>
#include <vector>

#include "imagery/imagery.h"

namespace {

using imagery::GammaValue;
using imagery::LinearRGB_T;

void ShowGammaCurves() {
  std::cout << "Gamma encoding of linear light into stored codes\n";
  for (const float linear : {0.0f, 0.001f, 0.18f, 0.5f, 1.0f}) {
    unsigned char r8, g8, b8;
    unsigned short r16, g16, b16;
    imagery::ToRGB(LinearRGB_T<float>{linear, linear, linear}, r8, g8, b8, imagery::gamma::sRGB);
    imagery::ToRGB(LinearRGB_T<float>{linear, linear, linear}, r16, g16, b16, imagery::gamma::sRGB);
    unsigned char p8, q8, s8;
    imagery::ToRGB(LinearRGB_T<float>{linear, linear, linear}, p8, q8, s8, GammaValue(2.2f));
    std::printf("  linear %-6g  sRGB 8-bit %3d  sRGB 16-bit %5d  gamma 2.2 8-bit %3d\n", linear, r8, r16, p8);
  }
  const LinearRGB_T<float> white =
      imagery::CLRFLOATFrom(static_cast<unsigned char>(255), 255, 255, imagery::gamma::sRGB);
  std::printf("  stored sRGB 255 decodes to %.9g (the curve's documented overshoot)\n\n", white.r);
}

// Decodes a plane of 8-bit sRGB codes through the shared decode table, rows spread over the worker pool,
// and checks the result against the per-value arithmetic.
void DecodePlaneInParallel() {
  const int width = 2048, height = 2048;
  std::vector<unsigned char> codes(static_cast<std::size_t>(width) * height);
  std::mt19937 random(7);
  for (auto& code : codes)
    code = static_cast<unsigned char>(random());
  std::vector<float> linear(codes.size());

  const imagery::GammaDecodeTable<unsigned char> table(imagery::gamma::sRGB);
  ZELNullInterruptor interruptor;
  KORProgress progress;
  tools::ThreadStateDispatcher dispatcher;
  const auto start = std::chrono::steady_clock::now();
  tools::multiproc::ParallelizedFor(
      0, height, interruptor, progress,
      [&](long long y, const tools::multiproc::ParallelContext*) {
        const std::size_t row = static_cast<std::size_t>(y) * width;
        table.DecodeRow(codes.data() + row, linear.data() + row, width);
      },
      dispatcher, tools::multiproc::ParallelLoopOptions{});
  const double ms =
      std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();

  std::size_t mismatches = 0;
  for (std::size_t i = 0; i < codes.size(); ++i)
    mismatches += linear[i] != imagery::DecodeChannel8(codes[i], imagery::gamma::sRGB);
  const double mean = std::accumulate(linear.begin(), linear.end(), 0.0) / static_cast<double>(linear.size());
  std::printf("Decoded a %d x %d plane of random sRGB codes in %.2f ms on up to %d threads\n", width, height,
              ms, tools::multiproc::GetOptimizedMaxJobThreadAllowed(-2, height));
  std::printf("  mean linear value %.6f, %zu values differ from the per-value arithmetic\n\n", mean,
              mismatches);
}

void ShowColourSpaces() {
  std::cout << "Colour spaces\n";
  const LinearRGB_T<float> orange{1.0f, 0.5f, 0.25f};
  const HLSCLR hls(orange);
  std::printf("  (1, 0.5, 0.25) in HLS: H %.4f L %.4f S %.4f\n", hls.h, hls.l, hls.s);
  imagery::RGBECLR rgbe;
  rgbe.FromFloat(orange);
  const LinearRGB_T<float> back = rgbe.ToFloat();
  std::printf("  as RGBE bytes %d %d %d e=%d, back to (%.4f, %.4f, %.4f)\n", rgbe.r, rgbe.g, rgbe.b, rgbe.e,
              back.r, back.g, back.b);
  for (const float kelvin : {1900.0f, 3200.0f, 6600.0f, 10000.0f}) {
    const LinearRGB_T<float> c = imagery::GetTemperatureColor(kelvin);
    std::printf("  black body at %5.0f K: (%.3f, %.3f, %.3f)\n", kelvin, c.r, c.g, c.b);
  }
  std::cout << '\n';
}

// Writes colours into nested chunks of a memory stream, reads them back, and shows that a truncated copy
// is refused rather than misread.
void RoundTripThroughTheSceneStream() {
  ZELMemoryStream out;
  {
    ZELWriteChunk material(&out, 0x1000);
    imagery::Write(LinearRGB_T<float>{0.8f, 0.2f, 0.1f}, &out);
    HLSCLR(LinearRGB_T<float>{0.1f, 0.6f, 0.3f}).Write(&out);
    out.WriteTyped(42);
  }
  const MD5digest digest = ComputeMD5(out.Bytes().data(), out.Bytes().size());
  std::printf("Scene stream: wrote %zu bytes (MD5 %s)\n", out.Bytes().size(), digest.ToHex().c_str());

  ZELMemoryStream in(out.Bytes());
  ZELReadChunk material;
  LinearRGB_T<float> colour{};
  HLSCLR hls;
  int answer = 0;
  const bool ok =
      material.InitChunk(&in) && imagery::Read(colour, &in) && hls.Read(&in) && in.ReadTyped(answer);
  std::printf("  read back chunk 0x%X: %s, colour (%.2f, %.2f, %.2f), int %d\n", material.GetID(),
              ok ? "ok" : "failed", colour.r, colour.g, colour.b, answer);

  std::vector<unsigned char> truncated(out.Bytes().begin(), out.Bytes().end() - 5);
  ZELMemoryStream cut(truncated);
  ZELReadChunk broken;
  std::printf("  the same stream cut 5 bytes short: opening its chunk %s\n\n",
              broken.InitChunk(&cut) ? "succeeded (unexpected)" : "is refused");
}

void UseSettingsAndLogger() {
  const auto file = std::filesystem::temp_directory_path() / "imagery_demo_settings.xml";
  config::xml::SetProperty("demo/ScreenGamma", 2.2f, "kor");
  config::xml::SetProperty("demo/Tags", ZELString(L" _Color _Albedo"), "kor");
  const bool saved = config::xml::SaveToFile(ZELPath(ZELString::FromUTF8(file.string())));
  config::xml::Clear();
  const bool loaded = config::xml::LoadFromFile(ZELPath(ZELString::FromUTF8(file.string())));
  const float gamma = config::xml::GetPropertyRef("demo/ScreenGamma", "kor", -1.0f);
  std::printf("Settings: saved %s, reloaded %s, demo/ScreenGamma = %g\n", saved ? "yes" : "no",
              loaded ? "yes" : "no", gamma);
  std::filesystem::remove(file);

  Logger::instance().Enable(L"image", L"DEBUG");
  const auto previous = Logger::instance().SetSink([](const LogRecord& record) {
    std::cout << "  log line: [" << ZELString(std::wstring(record.channel)) << ' '
              << ZELString(std::wstring(record.level)) << "] " << ZELString(std::wstring(record.message))
              << '\n';
  });
  ZEL_LOG(L"image", L"DEBUG", "Imagery/Demo",
          L"texts by id: " << imagery::GetString(imagery::STR_RGBA).c_str() << L", "
                           << imagery::GetString(Tools::CRC(1)).c_str());
  ZEL_LOG(L"gamma", L"TRACE", "Imagery/Demo", L"this line is never composed");
  Logger::instance().SetSink(previous);
}

// Prints an image's grey values as a small grid of digits 0..9.
void PrintGrid(const imagery::Image& image) {
  for (int y = 0; y < image.Height(); ++y) {
    std::cout << "    ";
    for (int x = 0; x < image.Width(); ++x) {
      float grey = 0;
      image.GetPixelGrayscale(x, y, grey, imagery::ATO_None);
      std::cout << static_cast<int>(grey * 9.0f + 0.5f);
    }
    std::cout << '\n';
  }
}

void ShowImagesAndChannels() {
  using namespace imagery;
  std::cout << "Images: handles, copy on write, transformations and baking\n";
  Image image(6, 3, IT_RGB8, gamma::sRGB);
  for (int y = 0; y < image.Height(); ++y)
    for (int x = 0; x < image.Width(); ++x)
      image.SetPixelGrayscale(x, y, static_cast<float>(x + y) / 7.0f, ATO_None);
  image.SetFilePath(ZELPath(L"/textures/gradient_Color.png"));
  std::cout << "  made " << image << ", " << image.BytesPerLine() << " bytes per padded row:\n";
  PrintGrid(image);

  Image copy(image);
  std::printf("  a copy shares the pixels: %d references, equal handles: %s\n", image.GetImpl()->References(),
              copy == image ? "yes" : "no");
  copy.NewImplFromExisting(nullptr);
  copy.SetPixelGrayscale(0, 0, 1.0f, ATO_None);
  std::printf("  after the copy wrote a pixel it has its own pixels (%d reference each); path kept: %s\n",
              image.GetImpl()->References(), copy.FilePath() == image.FilePath() ? "yes" : "no");

  image.MirrorX();
  image.Rotate90(true);
  image.SetExposure(0.1f);
  std::unique_ptr<Image> baked(ImageFactory::GetInstance().BuildAndBakeTransformations(image, false));
  std::cout << "  mirrored, turned a quarter and exposed +0.1, then baked into " << *baked << ":\n";
  PrintGrid(*baked);
  std::printf(
      "  average colour of the transformed image (4 x 4 samples): %.3f; baked image transformed: %s\n",
      image.GetAverageColor(4).g, baked->GetTransformations() == ImageTransformations() ? "no" : "yes");

  Image mipped(256, 64, IT_RGBA8, gamma::sRGB);
  mipped.GetImplRef().AllocateMipMapGamma();
  std::printf("  a 256 x 64 image has %d mip levels; level 3 is %d x %d\n", mipped.MipMapLevels_Ideal(),
              mipped.Width(3), mipped.Height(3));
  std::unique_ptr<Image> dummy = ImageFactory::GetInstance().BuildDummy();
  std::printf("  a dummy is %dx%d and marked: %s; images registered in the list: %d\n\n", dummy->Width(),
              dummy->Height(), dummy->IsDummy() ? "yes" : "no", ImageList::Instance().CountImages());

  std::cout << "Channels from file names\n";
  const auto folder = std::filesystem::temp_directory_path() / "imagery_demo_channels";
  std::filesystem::create_directories(folder);
  for (const char* name : {"brick_Color.png", "brick_Normal.png", "brick_NRM.exr", "brick_Roughness.jpg"})
    std::ofstream(folder / name) << "x";
  const ZELPath colour(ZELString::FromUTF8((folder / "brick_Color.png").string()));
  for (const EPictureType type : {PT_NormalMap, PT_Roughness, PT_Metallic}) {
    const ZELPath found = FindChannelPath(colour, type);
    std::cout << "  " << GetName(type)
              << " of brick_Color.png: " << (found.empty() ? ZELString(L"(none)") : found.leaf()) << '\n';
  }
  std::cout << "  brick_NRM.exr is recognised as "
            << GetLogName(GetTypeFromFileTags(ZELPath(L"brick_NRM.exr"))) << "\n";
  std::filesystem::remove_all(folder);
  const GammaSettings& gammas = GetCurrentGammaSettings();
  std::printf("  gammas: input %g for 8-bit images, %g for float images; screen %g\n\n",
              gammas.InputGamma(IT_RGB8).Value(), gammas.InputGamma(IT_RGB32f).Value(),
              gammas.ScreenGamma().Value());
}

// The host application reads picture files. Like a host's reader, this one first asks the image list
// for a version of the file it already holds (in the requested format, or converted from another),
// unless the library is reloading the file; otherwise it reads binary PPM (P6, 8-bit) and converts.
zel::ErrorCode ReadPPM(imagery::Image* image, const ZELPath& path, imagery::EImageType type, int*,
                       const imagery::ReadOptions& options) {
  if (!options.bypassReaderCache &&
      imagery::ImageList::Instance().Load(image, path, type, imagery::AutoScaleGrayScale(false)))
    return zel::ErrorCode();
  std::ifstream in(path.local_string(), std::ios::binary);
  std::string magic;
  int width = 0, height = 0, maxValue = 0;
  in >> magic;
  for (int* field : {&width, &height, &maxValue}) {
    while (in >> std::ws && in.peek() == '#')
      in.ignore(1 << 20, '\n');
    in >> *field;
  }
  if (!in || magic != "P6" || maxValue != 255 || width < 1 || height < 1 || width > 16384 || height > 16384)
    return zel::ErrorCode::Io("not an 8-bit binary PPM");
  in.get();
  std::vector<unsigned char> rgb(static_cast<std::size_t>(width) * height * 3);
  if (!in.read(reinterpret_cast<char*>(rgb.data()), static_cast<std::streamsize>(rgb.size())))
    return zel::ErrorCode::Io("truncated PPM");
  imagery::Image loaded(width, height, imagery::IT_RGB8, imagery::gamma::sRGB);
  imagery::PixelPlane& plane = loaded.GetImplRef().Plane();
  for (int y = 0; y < height; ++y)
    for (int x = 0; x < width; ++x) {
      const unsigned char* source = rgb.data() + (static_cast<std::size_t>(y) * width + x) * 3;
      unsigned char* stored = plane.PixelAddress(x, y);
      stored[0] = source[2];
      stored[1] = source[1];
      stored[2] = source[0];
    }
  loaded.SetFilePath(path);
  loaded.UpdateLastModif();
  imagery::ToImageType(loaded, type, false);
  *image = loaded;
  return zel::ErrorCode();
}

double MillisecondsSince(std::chrono::steady_clock::time_point start) {
  return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();
}

template <class F>
double Time(F&& work) {
  const auto start = std::chrono::steady_clock::now();
  work();
  return MillisecondsSince(start);
}

// A scene file holding the sample by reference (its path and what rebuilds the same pixels) and a picture
// made in memory with its pixels incorporated, read back as a scene is opened.
void ShowSceneStream(const std::filesystem::path& folder, const imagery::Image& sample) {
  using namespace imagery;
  Image painted(6, 4, IT_RGBA8, gamma::sRGB);
  for (int y = 0; y < 4; ++y)
    for (int x = 0; x < 6; ++x)
      painted.SetPixelRGBA(x, y, {x / 5.0f, y / 3.0f, 0.5f, 1.0f}, ATO_None);
  painted.SetTitle(L"painted in memory");
  Image mirrored(sample);
  mirrored.MirrorX();

  const ZELPath scene(ZELString::FromUTF8((folder / "scene.bin").string()));
  {
    ZELFileStream out(scene, ZELFileStream::Mode::Write);
    const bool written =
        mirrored.Write(&out, false, false) && painted.Write(&out, false, false) && out.Close();
    std::printf(
        "  a scene file with the sample by reference and a painted picture incorporated: %s, %llu bytes\n",
        written ? "written" : "NOT written",
        static_cast<unsigned long long>(std::filesystem::file_size(folder / "scene.bin")));
  }
  ZELFileStream in(scene, ZELFileStream::Mode::Read);
  Image reference, incorporated;
  const bool read = reference.Read(&in, IT_RGB8) && incorporated.Read(&in, IT_RGBA8);
  const PixelPlane& a = painted.GetImplRef().Plane();
  const PixelPlane& b = incorporated.GetImplRef().Plane();
  const bool same = a.ByteSize() == b.ByteSize() && std::memcmp(a.Data(), b.Data(), a.ByteSize()) == 0;
  std::cout << "  read back: " << (read ? "yes" : "no")
            << "; the reference shares the loaded sample's pixels: "
            << (reference.GetImpl() == sample.GetImpl() ? "yes" : "no")
            << " (mirrored: " << (reference.GetMirrorX() ? "yes" : "no") << "); the painted picture \""
            << incorporated.Title() << "\" has the same bytes: " << (same ? "yes" : "no") << "\n";
}

// Loads the bundled sample through the image list: the same file asked for twice is read once, a
// change on disk is picked up, and every format is a conversion away.
void ShowImageList(const std::filesystem::path& sample) {
  using namespace imagery;
  std::cout << "The image list and the bundled sample " << sample.filename().string() << '\n';
  ImageFactory::GetInstance().SetAdditionalFeaturesFunc(&ReadPPM);
  const auto folder = std::filesystem::temp_directory_path() / "imagery_demo_list";
  std::filesystem::create_directories(folder);
  const auto file = folder / "brick_Color.ppm";
  std::filesystem::copy_file(sample, file, std::filesystem::copy_options::overwrite_existing);
  const ZELPath path(ZELString::FromUTF8(file.string()));

  Image first, second, grey;
  int extra = 0;
  const bool read = first.ReadFromSource(path, IT_RGB8, extra, ReadOptions()).IsOk();
  second.ReadFromSource(path, IT_RGB8, extra, ReadOptions());
  grey.ReadFromSource(path, IT_Grayscale8, extra, ReadOptions());
  std::printf("  read: %s, %d x %d; the second reader shares the first one's pixels: %s\n",
              read ? "yes" : "no", first.Width(), first.Height(),
              first.GetImpl() == second.GetImpl() ? "yes" : "no");
  std::cout << "  the same file asked for in 8-bit grey comes from the list, converted: "
            << HumanReadableBitDepth(grey.ImageType()) << " " << HumanReadableColorType(grey.ImageType())
            << ", " << ImageList::Instance().CountImages() << " images registered\n";

  Image small(first);
  Resample(small, 12, 8, ResampleOpts());
  std::cout << "  reduced to 12 x 8 by area averaging (grey 0-9):\n";
  PrintGrid(small);
  ShowSceneStream(folder, first);

  // Overwrite the file with a flat grey picture and move its time forward, as an editor saving would.
  {
    std::ofstream out(file, std::ios::binary);
    out << "P6\n4 4\n255\n" << std::string(48, '\x80');
  }
  std::filesystem::last_write_time(file, std::filesystem::last_write_time(file) + std::chrono::hours(1));
  const bool reloaded = ImageList::Instance().UpdateSynchronized();
  const bool moved = first.UpdateImage();
  LinearRGB_T<float> colour{};
  first.GetPixelRGB(0, 0, colour, ATO_None);
  std::printf(
      "  after the file changed on disk: reloaded %s, the handle moved to the new version %s, now %d x "
      "%d with red %.3f\n\n",
      reloaded ? "yes" : "no", moved ? "yes" : "no", first.Width(), first.Height(), colour.r);
  ImageFactory::GetInstance().SetAdditionalFeaturesFunc(nullptr);
  std::filesystem::remove_all(folder);
}

void ShowChannelOperations() {
  using namespace imagery;
  std::cout << "Channel and region operations\n";
  Image canvas(16, 6, IT_RGBA8, gamma::sRGB);
  drawLine(canvas, zel::TPoint2<float>(0, 0), zel::TPoint2<float>(15, 5), LinearRGB_T<float>{1, 1, 1},
           LinearRGB_T<float>{0.1f, 0.1f, 0.1f});
  std::cout << "  a ramp drawn from (0, 0) to (15, 5):\n";
  PrintGrid(canvas);
  CropImage(canvas, glm::tvec2<int>(4, 1), glm::tvec2<unsigned long>(8, 4));
  std::cout << "  cropped to 8 x 4 from (4, 1):\n";
  PrintGrid(canvas);
  ExtractAlphaInformation(canvas, CheckInImageList(false), InvertGrayRange(false));
  std::cout << "  its alpha as an image: " << canvas << '\n';

  Image normals(1, 1, IT_RGB8, gamma::Linear);
  normals.GetImplRef().Plane().PixelAddress(0, 0)[0] = 200;  // a tilted, unnormalised normal
  NormalizeNormalMap<IT_RGB8>(normals);
  const unsigned char* n = normals.GetImplRef().Plane().PixelAddress(0, 0);
  std::printf("  normal bytes (b g r) 200 0 0 renormalised to %d %d %d\n\n", n[0], n[1], n[2]);
}

// A 4096 x 4096 float texture through the operations that matter on big images, each timed next to a
// plain copy of the same bytes.
void ShowBigImageTimings() {
  using namespace imagery;
  constexpr int kSize = 4096;
  std::cout << "A " << kSize << " x " << kSize << " RGBA float texture on up to "
            << tools::multiproc::GetOptimizedMaxJobThreadAllowed(-2, kSize) << " threads\n";
  Image texture(kSize, kSize, IT_RGBA32f, gamma::Linear);
  PixelPlane& plane = texture.GetImplRef().Plane();
  std::mt19937 random(11);
  std::uniform_real_distribution<float> light(0.0f, 1.0f);
  std::vector<float> row(static_cast<std::size_t>(kSize) * 4);
  for (int y = 0; y < kSize; ++y) {
    for (float& value : row)
      value = light(random);
    std::memcpy(plane.Row(y), row.data(), row.size() * sizeof(float));
  }
  // Into memory already in use: fresh pages from the system can cost more than the copy itself, while
  // the conversions below allocate their results and pay for that too.
  std::vector<unsigned char> copy(plane.ByteSize());
  const double copyMs = Time([&] { std::memcpy(copy.data(), plane.Data(), copy.size()); });
  copy.clear();
  copy.shrink_to_fit();

  Image encoded(texture);
  const double encodeMs = Time([&] { ToRGB8(encoded, gamma::sRGB, AlphaConversionOptions(), CAI_DontCare); });
  Image grey(texture);
  const double greyMs =
      Time([&] { ToGrayscale16(grey, gamma::sRGB, CheckInImageList(false), AutoScaleGrayScale(true)); });
  Image reduced(texture);
  const double reduceMs = Time([&] { Resample(reduced, kSize / 4, kSize / 4, ResampleOpts()); });
  std::printf("  memcpy of its %zu MB into memory in use: %.1f ms\n",
              static_cast<std::size_t>(plane.ByteSize() >> 20), copyMs);
  std::printf("  to 8-bit sRGB with alpha: %.1f ms\n", encodeMs);
  std::printf("  to auto-scaled 16-bit grey: %.1f ms\n", greyMs);
  std::printf("  reduced to %d x %d by exact area weights: %.1f ms\n", reduced.Width(), reduced.Height(),
              reduceMs);
  LinearRGBA_T<float> centre{};
  reduced.GetPixelRGBA(kSize / 8, kSize / 8, centre, ATO_None);
  std::printf("  a reduced pixel averages 256 random values: (%.3f, %.3f, %.3f, %.3f)\n\n", centre.r,
              centre.g, centre.b, centre.a);
}

// A tiling leaf texture blurred (wrapped borders, so it still tiles) and mip-mapped by the four methods,
// with the alpha coverage each method keeps level by level.
void ShowBlurAndMipMaps() {
  using namespace imagery;
  std::cout << "Blur and mip-maps\n";
  Image dot(9, 5, IT_Grayscale8, gamma::sRGB);
  dot.SetPixelGrayscale(0, 2, 1.0f, ATO_None);
  Blur(dot, BuildGaussianBlurKernel(1.0f, 1.0f, 2, 2));
  std::cout << "  a white dot at the left edge, Gaussian blur: the glow wraps to the right edge\n";
  PrintGrid(dot);

  constexpr int kSize = 128;
  Image leaves(kSize, kSize, IT_RGBA8, gamma::sRGB);
  std::mt19937 random(3);
  std::uniform_real_distribution<float> unit(0.0f, 1.0f);
  for (int leaf = 0; leaf < 40; ++leaf) {
    const float cx = unit(random) * kSize, cy = unit(random) * kSize, angle = unit(random) * 3.14159f;
    const float length = 5.0f + unit(random) * 11.0f, width = 2.0f + unit(random) * 4.0f;
    for (int y = 0; y < kSize; ++y) {
      for (int x = 0; x < kSize; ++x) {
        const float dx = x - cx, dy = y - cy;
        const float u = (dx * std::cos(angle) + dy * std::sin(angle)) / length;
        const float v = (dy * std::cos(angle) - dx * std::sin(angle)) / width;
        if (u * u + v * v < 1.0f)
          leaves.SetPixelRGBA(x, y, {0.1f, 0.4f + 0.3f * unit(random), 0.05f, 1.0f}, ATO_None);
      }
    }
  }
  const char* names[] = {"Standard", "SharpAlphaNearest", "SharpAlphaFixedThreshold", "SharpAlphaDither"};
  std::printf("  alpha coverage (alpha > 0.5) of a %d x %d leaf texture, per level:\n  %-26s", kSize, kSize,
              "level");
  for (int level = 0; level < leaves.MipMapLevels_Ideal(); ++level)
    std::printf("%6d", level);
  std::printf("\n");
  for (int method = 0; method < 4; ++method) {
    Image chain(*std::unique_ptr<Image>(leaves.DeepCopy()));
    ComputeMipMapCombined(chain, nullptr, GammaCorrectFlag(true), static_cast<MipMapMethod>(method));
    std::printf("  %-26s", names[method]);
    for (const MipMapCoverage& level : MipMapAlphaCoverage(chain, GammaCorrectFlag(true), 0.5f))
      std::printf("%6.2f", level.covered);
    std::printf("\n");
  }
  std::cout << '\n';
}

// A texture atlas: islands of colour on a transparent background. The edge dilation pads every island
// with colour running out from its edges and fading to the atlas's mean colour, so that filtering and
// mip-mapping never pull the background's black into an island.
void ShowEdgeDilation() {
  using namespace imagery;
  constexpr int kSize = 1024;
  std::cout << "Edge dilation of a " << kSize << " x " << kSize << " texture atlas\n";
  Image atlas(kSize, kSize, IT_RGBA8, gamma::sRGB);
  PixelPlane& plane = atlas.GetImplRef().Plane();
  struct Island {
    int x, y, radius;
    unsigned char b, g, r;
  };
  const Island islands[] = {{200, 220, 150, 30, 60, 200},
                            {640, 300, 220, 40, 180, 60},
                            {320, 760, 180, 200, 90, 40},
                            {820, 820, 120, 220, 220, 220}};
  for (const Island& island : islands)
    for (int y = island.y - island.radius; y <= island.y + island.radius; ++y)
      for (int x = island.x - island.radius; x <= island.x + island.radius; ++x) {
        const int dx = x - island.x, dy = y - island.y;
        if (dx * dx + dy * dy > island.radius * island.radius)
          continue;
        unsigned char* p = plane.PixelAddress(x, y);
        p[0] = island.b, p[1] = island.g, p[2] = island.r, p[3] = 255;
      }
  const auto describe = [&plane](const char* what, int x, int y) {
    const unsigned char* p = plane.PixelAddress(x, y);
    std::printf("  %-34s (%4d, %4d): r %3d g %3d b %3d alpha %3d\n", what, x, y, p[2], p[1], p[0], p[3]);
  };
  describe("beside the red island, before", 200 + 150 + 4, 220);

  const auto start = std::chrono::steady_clock::now();
  const DistanceField field(atlas, [&plane](int x, int y) { return plane.PixelAddress(x, y)[3] != 0; });
  const double fieldMs =
      std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();
  const double dilationMs = Time([&] { DistanceRunningColor(atlas, field); });
  std::printf("  distance field %.1f ms, dilation %.1f ms\n", fieldMs, dilationMs);
  describe("beside the red island, after", 200 + 150 + 4, 220);
  describe("40 pixels out, blurred and fading", 200 + 150 + 40, 220);
  describe("far from every island: the mean", 10, 1010);
  std::cout << "  red along the row y = 220, every 8 pixels from the red island into the green one:\n   ";
  for (int x = 350; x < 350 + 8 * 16; x += 8)
    std::printf(" %3d", plane.PixelAddress(x, 220)[2]);
  Image distances(kSize, kSize, IT_Grayscale8, gamma::Linear);
  field.FillImageWithDistance(distances);
  std::printf("\n  distance picture: %d at the edge, %d 64 pixels above it, %d beyond 128\n\n",
              distances.GetImplRef().Plane().PixelAddress(350, 220)[0],
              distances.GetImplRef().Plane().PixelAddress(200, 220 - 150 - 64)[0],
              distances.GetImplRef().Plane().PixelAddress(10, 1010)[0]);
}

// Quantises a generated picture to a palette, packs it as a compressed preview into a scene stream, reads
// it back, and evaluates a colour map along its length.
void ShowPalettesPreviewsAndColourMaps() {
  using namespace imagery;
  std::cout << "Palettes, previews and colour maps\n";
  KORDib24 preview(96, 64);
  for (int y = 0; y < preview.Height(); ++y)
    for (int x = 0; x < preview.Width(); ++x) {
      const bool disc = (x - 48) * (x - 48) + (y - 32) * (y - 32) < 400;
      preview.SetPixel(x, y,
                       CLRA(static_cast<unsigned char>(x * 255 / 95), static_cast<unsigned char>(y * 4),
                            disc ? 230 : 40, disc ? 255 : 128));
    }
  preview.SetMeaningfulAlpha(true);

  std::vector<int> colourUse(256, 0);
  QuantizeFrame(
      true, false, CM_RGBA8, preview.GetBits(), preview.Width(), preview.Height(),
      [](const unsigned char*, unsigned) {},
      [&](int, const unsigned char* indices, int) {
        for (int x = 0; x < 96; ++x)
          ++colourUse[indices[x]];
        return true;
      },
      [](float) {});
  const long used = std::count_if(colourUse.begin(), colourUse.end(), [](int n) { return n > 0; });
  std::printf("  96 x 64 picture quantised with dithering: %ld palette entries in use\n", used);

  ZELMemoryStream stream;
  preview.Write(&stream, true);
  const std::size_t quantisedBytes = stream.Bytes().size();
  preview.Write(&stream, false);
  std::printf("  preview chunks: %zu bytes quantised, %zu bytes raw (pixels: %zu bytes)\n", quantisedBytes,
              stream.Bytes().size() - quantisedBytes, preview.GetImageSize());
  stream.Rewind();
  KORDib24 quantised, raw;
  const bool read = quantised.Read(&stream, false) && raw.Read(&stream, false);
  int largestError = 0;
  for (std::size_t i = 0; i < preview.GetImageSize(); ++i)
    largestError = std::max(largestError, std::abs(quantised.GetBits()[i] - preview.GetBits()[i]));
  std::printf("  read back: %s; raw form identical: %s; largest channel error of the palette form: %d\n",
              read ? "yes" : "no",
              std::memcmp(raw.GetBits(), preview.GetBits(), preview.GetImageSize()) == 0 ? "yes" : "no",
              largestError);

  ColorMap map(ColorMap::Clamp, ColorMap::Mirror);
  map.SetKey(0, LinearRGB_T<float>(0.02f, 0.05f, 0.3f));
  map.SetKey(4000, LinearRGB_T<float>(0.1f, 0.6f, 0.1f));
  map.SetKey(10000, LinearRGB_T<float>(1.0f, 1.0f, 1.0f));
  std::cout << "  colour map (blue, green, white; mirrored above the end):";
  for (const double v : {-1.0, -0.5, 0.0, 0.5, 1.0, 1.5}) {
    CLR colour;
    ExtraireCouleur(v, &map, colour);
    std::printf(" %.1f:#%02X%02X%02X", v, colour.Red(), colour.Green(), colour.Blue());
  }
  const LinearRGB_T<float> mean = map.GetAverageColor(100);
  std::printf("\n  mean colour (%.3f, %.3f, %.3f)\n\n", mean.r, mean.g, mean.b);
}

}  // namespace

int main(int argc, char** argv) {
  std::cout << "imagery demo\n\n";
  ShowGammaCurves();
  DecodePlaneInParallel();
  ShowColourSpaces();
  RoundTripThroughTheSceneStream();
  ShowImagesAndChannels();
  ShowImageList(argc > 1 ? std::filesystem::path(argv[1]) : std::filesystem::path(IMAGERY_DEMO_SAMPLE));
  ShowChannelOperations();
  ShowBigImageTimings();
  UseSettingsAndLogger();
  ShowBlurAndMipMaps();
  ShowEdgeDilation();
  ShowPalettesPreviewsAndColourMaps();
  return 0;
}

// Example program: walks through what the library offers so far and prints what it did.
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <numeric>
#include <random>
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

}  // namespace

int main() {
  std::cout << "imagery demo\n\n";
  ShowGammaCurves();
  DecodePlaneInParallel();
  ShowColourSpaces();
  RoundTripThroughTheSceneStream();
  ShowImagesAndChannels();
  UseSettingsAndLogger();
  return 0;
}

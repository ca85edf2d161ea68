// The demo: writes the sample textures, runs each command's operation on them through real files, and
// lays inputs and results out on a captioned contact sheet. Every tile shows a file read back from disk,
// so the sheet also shows that what was written can be read.
#include "demo.h"

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "batch.h"
#include "contact_sheet.h"
#include "imagery/channel_ops.h"
#include "imagery/io/picture_files.h"
#include "imagery/pixel_access.h"
#include "operations.h"
#include "pack.h"
#include "palette.h"
#include "samples.h"
#include "text.h"

namespace imagery::cli {
namespace fs = std::filesystem;

namespace {

ZELPath ToZelPath(const std::string& path) {
  return ZELPath(ZELString::FromUTF8(path));
}

const char* const kMapNames[] = {"Color", "Normal", "Roughness"};

// Text as a picture, for the tiles that show what a command printed.
Image TextTile(const TextRenderer& font, const std::string& text, int size) {
  Image tile(size, size, IT_RGB8, gamma::sRGB);
  ClearImage(tile.GetImplRef(), {0.005f, 0.006f, 0.008f, 1.0f});
  int y = 6;
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line) && y + font.LineHeight() <= size; y += font.LineHeight())
    font.Draw(tile, 6, y, font.Fit(line, size - 12), {0.8f, 0.9f, 0.75f});
  return tile;
}

// The image without its alpha, so that the colour under transparent pixels shows.
Image WithoutAlpha(const Image& image) {
  Image copy(image);
  DiscardAlphaInformation(copy, CheckInImageList(false), CAI_DontCare);
  return copy;
}

bool SameBytes(const Image& a, const Image& b) {
  const PixelPlane& p = a.GetImplRef().Plane();
  const PixelPlane& q = b.GetImplRef().Plane();
  if (p.Width() != q.Width() || p.Height() != q.Height() || p.Type() != q.Type())
    return false;
  const std::size_t rowBytes = static_cast<std::size_t>(p.Width()) * p.BytesPerPixel();
  for (int y = 0; y < p.Height(); ++y) {
    if (!std::equal(p.Row(y), p.Row(y) + rowBytes, q.Row(y)))
      return false;
  }
  return true;
}

std::string Percent(float fraction) {
  char text[16];
  std::snprintf(text, sizeof text, "%.1f%%", static_cast<double>(fraction) * 100.0);
  return text;
}

class Demo {
 public:
  explicit Demo(const DemoOptions& options) : options_(options), folder_(options.output) {}

  int Run();

 private:
  bool Save(const Image& image, const std::string& name) {
    const zel::ErrorCode written = io::WritePicture(image, ToZelPath((folder_ / name).string()), overwrite_);
    if (written.IsBad()) {
      PrintError(written.Message());
      return false;
    }
    written_.push_back(name);
    return true;
  }
  bool Load(const std::string& name, Image& image) {
    const std::string path = (folder_ / name).string();
    const zel::ErrorCode read = io::ReadPicture(ToZelPath(path), image);
    if (read.IsBad()) {
      PrintError(read.Message());
      return false;
    }
    TagPictureType(image, path);
    return true;
  }
  // Writes the result, reads it back and puts what was read on the sheet.
  bool Show(const Image& result, const std::string& name, const std::string& caption,
            bool pixelated = false) {
    Image back;
    if (!Save(result, name) || !Load(name, back))
      return false;
    tiles_.push_back({back, caption, pixelated});
    return true;
  }

  DemoOptions options_;
  fs::path folder_;
  io::WriteOptions overwrite_ = [] {
    io::WriteOptions o;
    o.overwrite = true;
    return o;
  }();
  std::vector<SheetTile> tiles_;
  std::vector<std::string> written_;
};

int Demo::Run() {
  std::string error;
  const std::string fontPath = FindCaptionFont(error);
  if (fontPath.empty()) {
    PrintError("demo: " + error);
    return kExitFailed;
  }
  TextRenderer title, caption, mono;
  const std::string monoPath = (fs::path(fontPath).parent_path() / "DejaVuSansMono.ttf").string();
  if (!title.Open(fontPath, 22, error) || !caption.Open(fontPath, 13, error) ||
      !mono.Open(fs::exists(monoPath) ? monoPath : fontPath, 10, error)) {
    PrintError("demo: " + error);
    return kExitFailed;
  }
  std::error_code fsError;
  fs::create_directories(folder_ / "samples", fsError);
  fs::create_directories(folder_ / "unpacked", fsError);
  if (fsError) {
    PrintError(options_.output + ": cannot create the demo folder (" + fsError.message() + ")");
    return kExitFailed;
  }
  const int size = options_.size;
  const std::string sizeText = std::to_string(size) + " x " + std::to_string(size);

  // Inputs: the generated maps, written and read back like any picture.
  if (WriteSamples((folder_ / "samples").string(), size, 3, true) != kExitOk)
    return kExitFailed;
  Image color, normal, roughness, sky;
  if (!Load("samples/atlas_Color.png", color) || !Load("samples/atlas_Normal.png", normal) ||
      !Load("samples/atlas_Roughness.png", roughness))
    return kExitFailed;
  if (!Save(MakeSampleSky(size, size / 2), "samples/sky.exr") || !Load("samples/sky.exr", sky))
    return kExitFailed;
  tiles_.push_back({color, "input atlas_Color.png\n" + FormatName(color.ImageType()) + " " +
                               GammaName(color.GetGamma()) + ", " + sizeText});
  tiles_.push_back({normal, "input atlas_Normal.png\n" + FormatName(normal.ImageType()) + " " +
                                GammaName(normal.GetGamma()) + ", undefined = black"});
  tiles_.push_back({roughness, "input atlas_Roughness.png\n" + FormatName(roughness.ImageType()) + " " +
                                   GammaName(roughness.GetGamma())});
  tiles_.push_back({sky, "input sky.exr\n" + FormatName(sky.ImageType()) + ", sun 40x, clipped"});

  // info
  const std::string described = DescribeImage((folder_ / "samples/atlas_Color.png").string(), color);
  std::ofstream((folder_ / "info.txt").string()) << described;
  // The tile shows the same lines, shortened: the file name only, labels and values one space apart,
  // one sibling per line.
  std::string shortInfo;
  std::istringstream describedLines(described);
  for (std::string line; std::getline(describedLines, line);) {
    if (shortInfo.empty()) {
      shortInfo = fs::path(line).filename().string() + "\n";
      continue;
    }
    std::istringstream words(line);
    std::string compact;
    for (std::string word; words >> word;)
      compact += (compact.empty() ? "" : " ") + word;
    if (compact.rfind("siblings ", 0) == 0) {
      shortInfo += "siblings:\n";
      std::istringstream list(compact.substr(9));
      for (std::string sibling; std::getline(list, sibling, ',');)
        shortInfo += " " + sibling.substr(sibling.find_first_not_of(' ')) + "\n";
      continue;
    }
    // The file line one fact per line.
    if (compact.rfind("file ", 0) == 0) {
      for (std::size_t comma; (comma = compact.find(", ")) != std::string::npos;)
        compact.replace(comma, 2, "\n ");
    }
    shortInfo += compact + "\n";
  }
  tiles_.push_back({TextTile(mono, shortInfo, 200), "info atlas_Color.png\nsize, format, gamma, tags"});

  // convert
  Image grey(color);
  ConvertImage(grey, IT_Grayscale16, gamma::Linear);
  if (!Show(grey, "convert_color_grey16.png", "convert -f grey16 -g linear\n16-bit PNG"))
    return kExitFailed;
  Image rgbe(sky);
  ConvertImage(rgbe, IT_RGBEA, std::nullopt);
  if (!Show(rgbe, "convert_sky.hdr", "convert sky.exr -f rgbe\nRadiance HDR, clipped"))
    return kExitFailed;
  Image darker(sky);
  TransformSettings gain;
  gain.contrast = -0.96f;
  TransformImage(darker, gain);
  ConvertImage(darker, IT_RGB8, gamma::sRGB);
  if (!Show(darker, "convert_sky_dark.jpg", "transform --contrast -0.96\nthen convert to sRGB JPEG"))
    return kExitFailed;

  // resize and crop
  Image resized(color);
  ResizeImage(resized, {size * 3 / 4, size * 3 / 8, true, true});
  if (!Show(resized, "resize_keep_aspect.png",
            "resize -s " + std::to_string(size * 3 / 4) + "x" + std::to_string(size * 3 / 8) +
                "\n--keep-aspect --white-margin"))
    return kExitFailed;
  Image grass(color);
  CropImage(grass, {size / 2, size / 2},
            {static_cast<unsigned long>(size / 2), static_cast<unsigned long>(size / 2)});
  if (!Show(grass, "crop_grass.png",
            "crop --origin " + std::to_string(size / 2) + "," + std::to_string(size / 2) + "\n-s " +
                std::to_string(size / 2) + "x" + std::to_string(size / 2) + ", the grass island"))
    return kExitFailed;

  // transform
  const auto showTransformed = [&](const Image& source, const TransformSettings& settings, const char* file,
                                   const std::string& caption) {
    Image transformed(source);
    TransformImage(transformed, settings);
    return Show(transformed, file, caption);
  };
  TransformSettings turn;
  turn.rotate = 90;
  turn.mirrorX = true;
  turn.exposure = 0.05f;
  TransformSettings invert;
  invert.invertColor = true;
  TransformSettings flipGreen;
  flipGreen.invertNormalGreen = true;
  if (!showTransformed(color, turn, "transform_rotate_mirror.png",
                       "transform --rotate 90\n--mirror-x --exposure 0.05") ||
      !showTransformed(color, invert, "transform_invert.png", "transform --invert-color\nalpha kept") ||
      !showTransformed(normal, flipGreen, "transform_normal_green.png", "transform\n--invert-normal-green"))
    return kExitFailed;

  // pack and unpack
  const std::string packPath = (folder_ / "atlas.imgs").string();
  if (!WritePack({color, normal, roughness}, true, packPath, error)) {
    PrintError(error);
    return kExitFailed;
  }
  std::vector<Image> unpacked;
  if (!ReadPack(packPath, unpacked, error)) {
    PrintError(error);
    return kExitFailed;
  }
  const bool identical = unpacked.size() == 3 && SameBytes(unpacked[0], color) &&
                         SameBytes(unpacked[1], normal) && SameBytes(unpacked[2], roughness);
  for (std::size_t i = 0; i < unpacked.size() && i < 3; ++i) {
    if (!Save(unpacked[i], std::string("unpacked/atlas_") + kMapNames[i] + ".png"))
      return kExitFailed;
  }
  Image unpackedNormal;
  if (!Load("unpacked/atlas_Normal.png", unpackedNormal))
    return kExitFailed;
  tiles_.push_back({unpackedNormal, std::string("pack + unpack, 3 images\n") +
                                        (identical ? "pixels identical" : "PIXELS DIFFER")});

  // blur
  Image gaussian(color);
  BlurImage(gaussian, {4.0f, 0});
  if (!Show(gaussian, "blur_gauss4.png", "blur --sigma 4\nlinear light, wraps"))
    return kExitFailed;
  Image boxed(roughness);
  BlurImage(boxed, {0.0f, 8});
  if (!Show(boxed, "blur_box8.png", "blur --radius 8\nbox, roughness map"))
    return kExitFailed;

  // quantize and preview
  for (const bool dither : {false, true}) {
    const std::string name = dither ? "quantize_8_dither.png" : "quantize_8.png";
    std::string quantizeError;
    if (!WritePalettePng(QuantizeImage(color, 8, dither), (folder_ / name).string(), quantizeError)) {
      PrintError(quantizeError);
      return kExitFailed;
    }
    written_.push_back(name);
    Image back;
    if (!Load(name, back))
      return kExitFailed;
    tiles_.push_back(
        {back, std::string("quantize -c 8") + (dither ? " --dither" : "") + "\nindexed PNG, alpha off"});
  }
  const PreviewResult preview = MakePreview(color, 96, CLR(0x80, 0x80, 0x80), true);
  if (!Show(
          preview.image, "preview_96.png",
          "preview --size 96 --quantized\n--background 808080, " + std::to_string(preview.chunkBytes) + " B",
          true))
    return kExitFailed;

  // mipmap: the grass island, whose thin alpha-tested blades are what the sharp methods keep
  const int level = 3;
  std::vector<std::vector<MipMapCoverage>> coverages;
  for (const MipMapMethod method :
       {MipMapMethod::Standard, MipMapMethod::SharpAlphaFixedThreshold, MipMapMethod::SharpAlphaDither}) {
    Image chainOf(grass);
    std::unique_ptr<Image> own(chainOf.DeepCopy());
    MipmapSettings settings;
    settings.method = method;
    MipmapResult chain = BuildMipmaps(*own, nullptr, settings);
    if (static_cast<int>(chain.levels.size()) <= level)
      break;
    const std::string name = std::string("mipmap_") + MipmapMethodName(method);
    for (std::size_t l = 1; l < chain.levels.size(); ++l) {
      if (l != static_cast<std::size_t>(level) &&
          !Save(chain.levels[l], name + "_mip" + std::to_string(l) + ".png"))
        return kExitFailed;
    }
    const MipMapCoverage& at = chain.coverage[level];
    if (!Show(chain.levels[level], name + "_mip" + std::to_string(level) + ".png",
              "mipmap -m " + std::string(MipmapMethodName(method)) + ", level " + std::to_string(level) +
                  "\n" + std::to_string(at.width) + " x " + std::to_string(at.height) + ", coverage " +
                  Percent(at.covered),
              true))
      return kExitFailed;
    coverages.push_back(chain.coverage);
  }
  // The table `imagery mipmap` prints, one column per method.
  std::string coverageText = "grass: % of alpha > 0.5\nlevel size    std   thr  dith\n";
  for (std::size_t l = 0; !coverages.empty() && l < coverages[0].size(); ++l) {
    char row[64];
    const std::string dims =
        std::to_string(coverages[0][l].width) + "x" + std::to_string(coverages[0][l].height);
    std::snprintf(row, sizeof row, "%3zu  %-7s", l, dims.c_str());
    coverageText += row;
    for (const auto& table : coverages) {
      std::snprintf(row, sizeof row, " %5.1f", static_cast<double>(table[l].covered) * 100.0);
      coverageText += row;
    }
    coverageText += "\n";
  }
  tiles_.push_back({TextTile(mono, coverageText, 200), "mipmap coverage table\nstandard loses thin blades"});

  // dilate
  tiles_.push_back({WithoutAlpha(color), "atlas_Color.png, alpha off\nundefined colour is black"});
  Image distance = DistanceImage(color, nullptr);
  if (!Show(distance, "dilate_distance.png", "dilate --distance\ndistance to defined pixels"))
    return kExitFailed;
  Image dilated(color);
  if (!DilateImage(dilated, nullptr, error)) {
    PrintError("demo: " + error);
    return kExitFailed;
  }
  if (!Save(dilated, "dilate_color.png"))
    return kExitFailed;
  Image dilatedBack;
  if (!Load("dilate_color.png", dilatedBack))
    return kExitFailed;
  tiles_.push_back({WithoutAlpha(dilatedBack), "dilate atlas_Color.png\nshown with alpha off"});
  Image dilatedNormal(normal);
  if (!DilateImage(dilatedNormal, &color, error)) {
    PrintError("demo: " + error);
    return kExitFailed;
  }
  if (!Show(dilatedNormal, "dilate_normal.png", "dilate atlas_Normal.png\n--mask atlas_Color.png"))
    return kExitFailed;

  SheetLayout layout;
  layout.columns = 6;
  layout.title = "imagery demo: sample atlas (" + sizeText + ") through every command";
  const Image sheet = BuildContactSheet(tiles_, layout, title, caption);
  if (!Save(sheet, "contact_sheet.png"))
    return kExitFailed;
  if (!options_.quiet) {
    std::printf("imagery demo: %zu files written into %s\n", written_.size(), options_.output.c_str());
    std::printf("contact sheet: %s\n", (folder_ / "contact_sheet.png").string().c_str());
  }
  return kExitOk;
}

}  // namespace

int RunDemo(const DemoOptions& options) {
  return Demo(options).Run();
}

int WriteSamples(const std::string& folder, int size, int count, bool overwrite) {
  std::error_code fsError;
  fs::create_directories(folder, fsError);
  if (fsError || !fs::is_directory(folder)) {
    PrintError(folder + ": cannot create the folder (" + (fsError ? fsError.message() : "not a folder") +
               ")");
    return kExitFailed;
  }
  const int atlases = (count + 2) / 3;
  std::vector<std::string> errors(static_cast<std::size_t>(count));
  io::WriteOptions write;
  write.overwrite = overwrite;
  ForEachConcurrently(static_cast<std::size_t>(atlases), 0, false, "samples", [&](std::size_t variant) {
    try {
      const SampleAtlas atlas = MakeSampleAtlas(size, static_cast<unsigned>(variant));
      const Image* maps[] = {&atlas.color, &atlas.normal, &atlas.roughness};
      for (int map = 0; map < 3; ++map) {
        const std::size_t index = variant * 3 + static_cast<std::size_t>(map);
        if (index >= errors.size())
          break;
        char stem[32];
        if (count <= 3)
          std::snprintf(stem, sizeof stem, "atlas");
        else
          std::snprintf(stem, sizeof stem, "atlas%03zu", variant);
        const std::string path =
            (fs::path(folder) / (std::string(stem) + "_" + kMapNames[map] + ".png")).string();
        const zel::ErrorCode written = io::WritePicture(*maps[map], ToZelPath(path), write);
        if (written.IsBad())
          errors[index] = written.Message();
      }
    } catch (const std::exception& e) {
      errors[variant * 3] = folder + ": " + e.what();
    }
  });
  int status = kExitOk;
  for (const std::string& message : errors) {
    if (!message.empty()) {
      PrintError(message);
      status = kExitFailed;
    }
  }
  return status;
}

}  // namespace imagery::cli

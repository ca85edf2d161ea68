// The imagery command-line tool: one subcommand per capability of the library, each reading and writing
// picture files through imagery::io.
#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>

#include "batch.h"
#include "demo.h"
#include "imagery/channel_ops.h"
#include "imagery/io/picture_files.h"
#include "imagery_host/logger.h"
#include "operations.h"
#include "pack.h"
#include "palette.h"

namespace imagery::cli {
namespace {

namespace fs = std::filesystem;

ZELPath ToZelPath(const std::string& path) {
  return ZELPath(ZELString::FromUTF8(path));
}

// Options shared by the subcommands, filled by whichever subcommand was given.
struct Common {
  BatchOptions batch;
  bool verbose = false;
};

void AddRunOptions(CLI::App* command, Common& common) {
  command->add_option("-j,--jobs", common.batch.jobs, "Files processed at once (default: one per processor)")
      ->check(CLI::Range(1, 256));
  command->add_flag("-q,--quiet", common.batch.quiet,
                    "No progress bar and no informational lines (results and errors still print)");
  command->add_flag("-v,--verbose", common.verbose, "Log what the library does (every logger channel)");
}

// The inputs, -o and the options of commands that write pictures.
void AddBatchOptions(CLI::App* command, Common& common) {
  command->add_option("inputs", common.batch.inputs, "Picture files to read")->required();
  command->add_option("-o,--output", common.batch.output, "Output file for one input, or folder for several")
      ->required();
  command->add_option("--ext", common.batch.extension,
                      "File type of the outputs in a folder (png, jpg, exr, tif, hdr); default: the input's");
  command->add_flag("--overwrite", common.batch.overwrite, "Replace output files that exist");
  command->add_option("--quality", common.batch.jpegQuality, "JPEG quality")->check(CLI::Range(1, 100));
  command->add_option("--bits", common.batch.bitsPerChannel, "PNG and TIFF bits per channel (8 or 16)")
      ->check(CLI::IsMember({8, 16}));
  AddRunOptions(command, common);
}

// "512x256" (or "512X256", "512*256").
bool ParseSize(const std::string& text, int& width, int& height) {
  const std::size_t separator = text.find_first_of("xX*");
  if (separator == std::string::npos)
    return false;
  try {
    std::size_t used = 0;
    width = std::stoi(text.substr(0, separator), &used);
    if (used != separator)
      return false;
    const std::string rest = text.substr(separator + 1);
    height = std::stoi(rest, &used);
    return used == rest.size() && width > 0 && height > 0 && width <= 65535 && height <= 65535;
  } catch (const std::exception&) {
    return false;
  }
}

CLI::Validator SizeValidator() {
  return CLI::Validator(
      [](std::string& text) {
        int w, h;
        return ParseSize(text, w, h) ? std::string() : "expected WIDTHxHEIGHT (such as 512x256), got " + text;
      },
      "WxH");
}

int RunInfo(const Common& common) {
  return RunBatch("info", common.batch, false, [](JobContext& ctx, std::string&) {
    ctx.report = DescribeImage(ctx.input, ctx.image);
    return true;
  });
}

// Prints every error of a list of per-file results; the tool's exit code for them.
int ReportErrors(const std::vector<std::string>& errors) {
  int status = kExitOk;
  for (const std::string& error : errors) {
    if (!error.empty()) {
      PrintError(error);
      status = kExitFailed;
    }
  }
  return status;
}

// Reads every input (concurrently), then writes them all into one pack; nothing is written when an input
// cannot be read.
int RunPack(const BatchOptions& batch, bool reference) {
  if (!batch.overwrite && fs::exists(batch.output)) {
    PrintError(batch.output + ": already exists (use --overwrite to replace it)");
    return kExitFailed;
  }
  std::vector<Image> images(batch.inputs.size());
  std::vector<std::string> errors(batch.inputs.size());
  JobLimit limit(batch.jobs);
  ForEachConcurrently(
      batch.inputs.size(), batch.jobs, ProgressWanted(batch.quiet), "pack", [&](std::size_t i) {
        if (errors[i] = CheckInput(batch.inputs[i]); !errors[i].empty())
          return;
        // Absolute paths, so that a referencing pack still finds its files from another folder.
        std::error_code ignored;
        const std::string absolute = fs::absolute(batch.inputs[i], ignored).lexically_normal().string();
        const zel::ErrorCode read = io::ReadPicture(ToZelPath(absolute), images[i]);
        if (read.IsBad())
          errors[i] = read.Message();
      });
  if (const int status = ReportErrors(errors); status != kExitOk)
    return status;
  std::string error;
  if (!WritePack(images, !reference, batch.output, error)) {
    PrintError(error);
    return kExitFailed;
  }
  return kExitOk;
}

// Writes every image of the pack into the output folder, named after the file each came from.
int RunUnpack(const std::string& packFile, const BatchOptions& batch) {
  if (const std::string error = CheckInput(packFile); !error.empty()) {
    PrintError(error);
    return kExitFailed;
  }
  std::vector<Image> images;
  std::string error;
  if (!ReadPack(packFile, images, error)) {
    PrintError(error);
    return kExitFailed;
  }
  std::error_code fsError;
  fs::create_directories(batch.output, fsError);
  if (fsError || !fs::is_directory(batch.output)) {
    PrintError(batch.output + ": cannot create the output folder (" +
               (fsError ? fsError.message() : std::string("not a folder")) + ")");
    return kExitFailed;
  }
  std::map<std::string, int> used;
  std::vector<std::string> targets;
  for (std::size_t i = 0; i < images.size(); ++i) {
    const fs::path original(images[i].FilePath().local_string());
    std::string stem = original.stem().string();
    if (stem.empty())
      stem = "image" + std::to_string(i + 1);
    if (const int seen = used[stem]++; seen > 0)
      stem += "_" + std::to_string(seen + 1);
    std::string extension = batch.extension.empty() ? original.extension().string() : batch.extension;
    if (extension.empty())
      extension = ".png";
    if (extension.front() != '.')
      extension.insert(0, ".");
    targets.push_back((fs::path(batch.output) / (stem + extension)).string());
  }
  const io::WriteOptions write = WriteOptionsFor(batch);
  std::vector<std::string> errors(images.size());
  JobLimit limit(batch.jobs);
  ForEachConcurrently(images.size(), batch.jobs, ProgressWanted(batch.quiet), "unpack", [&](std::size_t i) {
    if (!batch.overwrite && fs::exists(targets[i])) {
      errors[i] = targets[i] + ": already exists (use --overwrite to replace it)";
      return;
    }
    const zel::ErrorCode written = io::WritePicture(images[i], ToZelPath(targets[i]), write);
    if (written.IsBad())
      errors[i] = written.Message();
  });
  return ReportErrors(errors);
}

}  // namespace

int Main(int argc, char** argv) {
  CLI::App app{
      "imagery: converts, resizes, filters and packs texture pictures (PNG, JPEG, OpenEXR, TIFF, "
      "Radiance HDR)",
      "imagery"};
  app.require_subcommand(1);
  app.set_help_all_flag("--help-all", "Help of every command");
  Common common;

  CLI::App* info =
      app.add_subcommand("info", "Size, format, gamma, bit depth, picture type and sibling channel files");
  info->add_option("inputs", common.batch.inputs, "Picture files to read")->required();
  AddRunOptions(info, common);

  std::string formatName, gammaName;
  CLI::App* convert = app.add_subcommand("convert", "Convert to another file type, pixel format or gamma");
  AddBatchOptions(convert, common);
  convert->add_option("-f,--format", formatName,
                      "Pixel format: rgb8 rgba8 grey8 grey16 rgb16 rgba16 grey32f rgb32f rgba32f rgbe");
  convert->add_option("-g,--gamma", gammaName,
                      "Gamma of 8- and 16-bit results: srgb, linear or a power (2.2)");

  std::string sizeText;
  ResizeSettings resize;
  CLI::App* resizeCommand = app.add_subcommand("resize", "Resample to a new size");
  AddBatchOptions(resizeCommand, common);
  resizeCommand->add_option("-s,--size", sizeText, "New size, WIDTHxHEIGHT")
      ->required()
      ->check(SizeValidator());
  resizeCommand->add_flag("--keep-aspect", resize.keepAspect,
                          "Keep the proportions, centred between margins");
  resizeCommand->add_flag("--white-margin", resize.whiteMargin, "White margins instead of black");

  std::vector<int> origin{0, 0};
  std::string cropSize;
  CLI::App* crop = app.add_subcommand("crop", "Keep a rectangle of the picture");
  AddBatchOptions(crop, common);
  crop->add_option("--origin", origin, "Top-left corner X Y of the rectangle")->expected(2)->delimiter(',');
  crop->add_option("-s,--size", cropSize, "Size of the rectangle, WIDTHxHEIGHT")
      ->required()
      ->check(SizeValidator());

  TransformSettings transform;
  CLI::App* transformCommand =
      app.add_subcommand("transform", "Mirror, rotate, expose, invert; the result is baked into the pixels");
  AddBatchOptions(transformCommand, common);
  transformCommand->add_flag("--mirror-x", transform.mirrorX, "Mirror left to right");
  transformCommand->add_flag("--mirror-y", transform.mirrorY, "Mirror top to bottom");
  transformCommand->add_option("--rotate", transform.rotate, "Rotate by 90, 180 or 270 degrees")
      ->check(CLI::IsMember({0, 90, 180, 270}));
  transformCommand->add_option("--exposure", transform.exposure, "Offset added to linear values");
  transformCommand->add_option("--contrast", transform.contrast,
                               "Linear values scaled by 1 + contrast (before the exposure)");
  transformCommand->add_flag("--invert-color", transform.invertColor, "Invert the colour");
  transformCommand->add_flag("--invert-alpha", transform.invertAlpha, "Invert alpha");
  transformCommand->add_flag("--invert-normal", transform.invertNormal, "Invert a normal map");
  transformCommand->add_flag("--invert-normal-green", transform.invertNormalGreen,
                             "Flip the green channel of a normal map");

  bool reference = false;
  CLI::App* pack = app.add_subcommand("pack", "Put pictures into one scene-stream pack file");
  pack->add_option("inputs", common.batch.inputs, "Picture files to pack")->required();
  pack->add_option("-o,--output", common.batch.output, "The pack file to write")->required();
  pack->add_flag("--reference", reference, "Store references to the files instead of their pixels");
  pack->add_flag("--overwrite", common.batch.overwrite, "Replace the pack file if it exists");
  AddRunOptions(pack, common);

  std::string packFile;
  CLI::App* unpack = app.add_subcommand("unpack", "Write the pictures of a pack file into a folder");
  unpack->add_option("pack", packFile, "The pack file")->required();
  unpack->add_option("-o,--output", common.batch.output, "Folder for the pictures")->required();
  unpack->add_option("--ext", common.batch.extension,
                     "File type of the pictures (default: each one's own, or png)");
  unpack->add_flag("--overwrite", common.batch.overwrite, "Replace pictures that exist");
  AddRunOptions(unpack, common);

  BlurSettings blur;
  CLI::App* blurCommand =
      app.add_subcommand("blur", "Gaussian or box blur in linear light, wrapping at the borders");
  AddBatchOptions(blurCommand, common);
  blurCommand->add_option("--sigma", blur.sigma, "Gaussian standard deviation in pixels")
      ->check(CLI::PositiveNumber);
  blurCommand
      ->add_option("--radius", blur.radius, "Kernel radius in pixels (a box blur when no sigma is given)")
      ->check(CLI::Range(1, 10000));

  MipmapSettings mipmap;
  std::string methodName = "standard", alphaPath;
  bool storedValues = false;
  CLI::App* mipmapCommand = app.add_subcommand(
      "mipmap", "Write the mip-map chain (NAME_mip0.EXT, NAME_mip1.EXT, ...) and print its alpha coverage");
  AddBatchOptions(mipmapCommand, common);
  mipmapCommand->add_option("-m,--method", methodName, "standard, nearest, threshold or dither")
      ->check(CLI::IsMember({"standard", "nearest", "threshold", "dither"}, CLI::ignore_case));
  mipmapCommand->add_flag("--stored-values", storedValues, "Average stored values instead of linear light");
  mipmapCommand
      ->add_option("--threshold", mipmap.coverageThreshold, "Alpha above which a pixel counts as covered")
      ->check(CLI::Range(0.0, 1.0));
  mipmapCommand->add_option("--alpha", alphaPath, "Opacity map that supplies alpha");

  std::string maskPath;
  bool writeDistance = false;
  CLI::App* dilate = app.add_subcommand(
      "dilate", "Fill undefined pixels (alpha 0, or where a mask is dark) from the nearest defined ones");
  AddBatchOptions(dilate, common);
  dilate->add_option("--mask", maskPath,
                     "Picture whose alpha (or grey) above one half marks the defined pixels");
  dilate->add_flag("--distance", writeDistance, "Also write the distance field as NAME_distance.EXT");

  int colors = 256;
  bool dither = false;
  CLI::App* quantize = app.add_subcommand("quantize", "Reduce to a palette and write an indexed-colour PNG");
  AddBatchOptions(quantize, common);
  quantize->add_option("-c,--colors", colors, "Palette size")->check(CLI::Range(8, 256));
  quantize->add_flag("--dither", dither, "Diffuse the error (Floyd-Steinberg) instead of mapping plainly");

  int previewSize = 128;
  std::string backgroundText = "000000";
  bool previewQuantized = false;
  CLI::App* preview = app.add_subcommand(
      "preview", "The scene's preview bitmap of each picture, stored as a preview chunk and read back");
  AddBatchOptions(preview, common);
  preview->add_option("--size", previewSize, "Longer side of the preview")->check(CLI::Range(1, 4096));
  preview->add_option("--background", backgroundText, "Colour under transparent pixels, RRGGBB")
      ->check(CLI::Validator(
          [](std::string& text) {
            return text.size() == 6 && text.find_first_not_of("0123456789abcdefABCDEF") == std::string::npos
                       ? std::string()
                       : "expected a colour RRGGBB, got " + text;
          },
          "RRGGBB"));
  preview->add_flag("--quantized", previewQuantized,
                    "Store the preview palette-quantised, as small scenes do");

  DemoOptions demo;
  CLI::App* demoCommand =
      app.add_subcommand("demo", "Run every command on generated sample textures and write a contact sheet");
  demoCommand->add_option("output", demo.output, "Folder for the samples, the results and contact_sheet.png")
      ->required();
  demoCommand->add_option("--size", demo.size, "Size of the sample atlas")->check(CLI::Range(64, 4096));
  AddRunOptions(demoCommand, common);

  std::string samplesFolder;
  int sampleSize = 512, sampleCount = 3;
  CLI::App* samples = app.add_subcommand("samples", "Write generated sample textures into a folder");
  samples->add_option("output", samplesFolder, "Folder for the textures")->required();
  samples->add_option("--size", sampleSize, "Texture size")->check(CLI::Range(16, 8192));
  samples->add_option("--count", sampleCount, "Number of textures")->check(CLI::Range(1, 10000));
  samples->add_flag("--overwrite", common.batch.overwrite, "Replace textures that exist");
  AddRunOptions(samples, common);

  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& e) {
    if (e.get_exit_code() == 0)
      return app.exit(e);
    PrintError(std::string(e.what()) + " (see imagery --help)");
    return kExitUsage;
  }

  if (common.verbose)
    Logger::instance().Configure("*:DEBUG");
  io::InstallPictureReader();
  BatchOptions& batch = common.batch;

  if (info->parsed())
    return RunInfo(common);
  if (convert->parsed()) {
    const EImageType target = formatName.empty() ? IT_UNDEFINED : ParseFormatName(formatName);
    if (!formatName.empty() && target == IT_UNDEFINED) {
      PrintError("convert: unknown pixel format " + formatName);
      return kExitUsage;
    }
    std::optional<GammaValue> gamma;
    if (!gammaName.empty() && !(gamma = ParseGammaName(gammaName))) {
      PrintError("convert: unknown gamma " + gammaName + " (srgb, linear or a positive number)");
      return kExitUsage;
    }
    return RunBatch("convert", batch, true, [target, gamma](JobContext& ctx, std::string&) {
      ConvertImage(ctx.image, target, gamma);
      return true;
    });
  }
  if (resizeCommand->parsed()) {
    ParseSize(sizeText, resize.width, resize.height);
    return RunBatch("resize", batch, true, [resize](JobContext& ctx, std::string&) {
      ResizeImage(ctx.image, resize);
      return true;
    });
  }
  if (crop->parsed()) {
    int w = 0, h = 0;
    ParseSize(cropSize, w, h);
    if (origin.size() != 2 || origin[0] < 0 || origin[1] < 0) {
      PrintError("crop: --origin needs two coordinates X,Y of at least 0");
      return kExitUsage;
    }
    return RunBatch("crop", batch, true, [&origin, w, h](JobContext& ctx, std::string& error) {
      if (origin[0] >= ctx.image.Width() || origin[1] >= ctx.image.Height()) {
        error = "the rectangle starts outside the " + std::to_string(ctx.image.Width()) + " x " +
                std::to_string(ctx.image.Height()) + " picture";
        return false;
      }
      CropImage(ctx.image, {origin[0], origin[1]},
                {static_cast<unsigned long>(w), static_cast<unsigned long>(h)});
      return true;
    });
  }
  if (transformCommand->parsed()) {
    return RunBatch("transform", batch, true, [transform](JobContext& ctx, std::string&) {
      TransformImage(ctx.image, transform);
      return true;
    });
  }
  if (blurCommand->parsed()) {
    if (!(blur.sigma > 0) && blur.radius <= 0) {
      PrintError("blur: give --sigma for a Gaussian blur or --radius for a box blur");
      return kExitUsage;
    }
    return RunBatch("blur", batch, true,
                    [blur](JobContext& ctx, std::string&) { return BlurImage(ctx.image, blur); });
  }
  if (mipmapCommand->parsed()) {
    mipmap.method = *ParseMipmapMethod(methodName);
    mipmap.gammaCorrect = !storedValues;
    return RunBatch("mipmap", batch, true, [mipmap, alphaPath](JobContext& ctx, std::string& error) {
      Image alpha;
      if (!alphaPath.empty()) {
        if (error = CheckInput(alphaPath); !error.empty())
          return false;
        const zel::ErrorCode read = io::ReadPicture(ToZelPath(alphaPath), alpha);
        if (read.IsBad()) {
          error = read.Message();
          return false;
        }
      }
      MipmapResult result = BuildMipmaps(ctx.image, alphaPath.empty() ? nullptr : &alpha, mipmap);
      for (std::size_t level = 0; level < result.levels.size(); ++level)
        ctx.outputs.emplace_back(result.levels[level],
                                 WithSuffix(ctx.target, "_mip" + std::to_string(level)));
      ctx.report = ctx.input + ": " + std::to_string(result.levels.size()) + " levels, " +
                   MipmapMethodName(mipmap.method) + " method, " +
                   (mipmap.gammaCorrect ? "linear light" : "stored values") + "\n" +
                   FormatCoverageTable(result.coverage, mipmap.coverageThreshold);
      return true;
    });
  }
  if (dilate->parsed()) {
    return RunBatch("dilate", batch, true, [maskPath, writeDistance](JobContext& ctx, std::string& error) {
      Image mask;
      if (!maskPath.empty()) {
        if (error = CheckInput(maskPath); !error.empty())
          return false;
        const zel::ErrorCode read = io::ReadPicture(ToZelPath(maskPath), mask);
        if (read.IsBad()) {
          error = read.Message();
          return false;
        }
      }
      const Image* maskImage = maskPath.empty() ? nullptr : &mask;
      if (!DilateImage(ctx.image, maskImage, error))
        return false;
      if (writeDistance) {
        // Dilation keeps alpha, so the dilated picture still tells the same pixels apart.
        ctx.outputs.emplace_back(ctx.image, ctx.target);
        ctx.outputs.emplace_back(DistanceImage(ctx.image, maskImage), WithSuffix(ctx.target, "_distance"));
      }
      return true;
    });
  }
  if (quantize->parsed()) {
    return RunBatch("quantize", batch, true, [colors, dither](JobContext& ctx, std::string& error) {
      std::string extension = fs::path(ctx.target).extension().string();
      std::transform(extension.begin(), extension.end(), extension.begin(), ::tolower);
      if (extension != ".png") {
        error = "quantize writes indexed-colour PNG files, not " + ctx.target;
        return false;
      }
      if (!WritePalettePng(QuantizeImage(ctx.image, colors, dither), ctx.target, error))
        return false;
      ctx.written = true;
      return true;
    });
  }
  if (preview->parsed()) {
    const CLR background(static_cast<std::uint32_t>(std::stoul(backgroundText, nullptr, 16)));
    const bool quiet = batch.quiet;
    return RunBatch("preview", batch, true,
                    [previewSize, background, previewQuantized, quiet](JobContext& ctx, std::string&) {
                      const PreviewResult result =
                          MakePreview(ctx.image, previewSize, background, previewQuantized);
                      if (!quiet)
                        ctx.report = ctx.input + ": preview " + std::to_string(result.image.Width()) + " x " +
                                     std::to_string(result.image.Height()) + ", chunk of " +
                                     std::to_string(result.chunkBytes) + " bytes\n";
                      ctx.image = result.image;
                      return true;
                    });
  }
  if (pack->parsed())
    return RunPack(batch, reference);
  if (unpack->parsed())
    return RunUnpack(packFile, batch);
  if (demoCommand->parsed()) {
    demo.quiet = batch.quiet;
    JobLimit limit(batch.jobs);
    return RunDemo(demo);
  }
  if (samples->parsed()) {
    JobLimit limit(batch.jobs);
    return WriteSamples(samplesFolder, sampleSize, sampleCount, batch.overwrite);
  }
  return kExitUsage;
}

}  // namespace imagery::cli

int main(int argc, char** argv) {
  try {
    return imagery::cli::Main(argc, argv);
  } catch (const std::exception& e) {
    imagery::cli::PrintError(std::string("unexpected failure: ") + e.what());
    return imagery::cli::kExitFailed;
  }
}

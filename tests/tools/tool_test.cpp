// End-to-end tests of the imagery tool: the built executable is run as a user would run it, on pictures made
// here and on broken files, and its outputs, messages and exit codes are checked.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <pty.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <filesystem>
#include <optional>
#include <set>
#include <string>
#include <tuple>
#include <vector>

#include "imagery/imagery.h"
#include "imagery/io/picture_files.h"
#include "support/picture_bytes.h"
#include "support/random_image.h"

namespace imagery {
namespace {

namespace fs = std::filesystem;
using testing_support::FileBytes;
using testing_support::Listing;
using testing_support::PathOf;
using testing_support::RandomImage;
using testing_support::WriteBytes;
using Args = std::vector<std::string>;

struct Result {
  int exitCode = -1;
  std::string out, err;

  std::size_t ErrorLines() const {
    return static_cast<std::size_t>(std::count(err.begin(), err.end(), '\n'));
  }
};

// Execs the tool with `args`; returns only on failure.
void ExecTool(const Args& args) {
  Args all{IMAGERY_TOOL};
  all.insert(all.end(), args.begin(), args.end());
  std::vector<char*> argv;
  for (std::string& a : all)
    argv.push_back(a.data());
  argv.push_back(nullptr);
  execv(argv[0], argv.data());
  _exit(127);
}

int ExitCode(pid_t child) {
  int status = 0;
  waitpid(child, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

// Runs the tool with standard output and error captured in files (so neither is a terminal) and, when asked,
// with its address space capped: a reader that tried to allocate a huge plane would then fail.
Result RunTool(const Args& args, const fs::path& scratch, rlim_t addressLimit = 0,
               const char* font = nullptr) {
  const fs::path out = scratch / ".stdout", err = scratch / ".stderr";
  const pid_t child = fork();
  if (child == 0) {
    dup2(open("/dev/null", O_RDONLY), 0);
    dup2(open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644), 1);
    dup2(open(err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644), 2);
    const rlimit limit{addressLimit, addressLimit};
    if (addressLimit)
      setrlimit(RLIMIT_AS, &limit);
    if (font)
      setenv("IMAGERY_FONT", font, 1);
    ExecTool(args);
  }
  return Result{ExitCode(child), FileBytes(out), FileBytes(err)};
}

// Runs the tool on a pseudo-terminal, as from an interactive shell; returns what it showed there, or nothing
// when the machine has no pseudo-terminal to give.
std::optional<std::string> RunOnTerminal(const Args& args) {
  int master = -1;
  const pid_t child = forkpty(&master, nullptr, nullptr, nullptr);
  if (child < 0)
    return std::nullopt;
  if (child == 0)
    ExecTool(args);
  std::string shown;
  char buffer[4096];
  for (ssize_t n; (n = read(master, buffer, sizeof buffer)) > 0;)
    shown.append(buffer, static_cast<std::size_t>(n));
  close(master);
  EXPECT_EQ(ExitCode(child), 0) << shown;
  return shown;
}

// The size, the format and every stored byte: two pictures are the same when these are.
std::string PixelBytes(const Image& image) {
  return std::to_string(image.Width()) + "x" + std::to_string(image.Height()) + ":" +
         std::to_string(static_cast<int>(image.ImageType())) + ":" + testing_support::PixelBytes(image);
}

void Save(const Image& image, const fs::path& path) {
  io::WriteOptions options;
  options.overwrite = true;
  const zel::ErrorCode written = io::WritePicture(image, PathOf(path), options);
  ASSERT_TRUE(written.IsOk()) << path << ": " << written.ToString();
}

const unsigned char* Pixel(const Image& image, int x, int y) {
  return image.GetImplRef().Plane().PixelAddress(x, y);
}

// A 64 x 32 picture of one colour, opaque where `opaque(x, y)` holds and transparent elsewhere.
template <class Opaque>
Image Cutout(const LinearRGB_T<float>& colour, Opaque opaque) {
  Image image(64, 32, IT_RGBA8, gamma::sRGB);
  for (int y = 0; y < 32; ++y) {
    PixelAccessNoGamma pixel(image.GetImplRef().Plane(), 0, y);
    for (int x = 0; x < 64; ++x, pixel.Next())
      pixel.SetPixelRGBA(colour, opaque(x, y) ? 1.0f : 0.0f);
  }
  return image;
}

class ToolTest : public ::testing::Test {
 protected:
  void SetUp() override {
    const auto* info = ::testing::UnitTest::GetInstance()->current_test_info();
    dir_ = fs::temp_directory_path() / ("imagery_tool_" + std::to_string(getpid()) + "_" + info->name());
    fs::remove_all(dir_);
    fs::create_directories(dir_);
  }
  void TearDown() override {
    if (!HasFailure())
      fs::remove_all(dir_);
  }

  Result Run(const Args& args, rlim_t addressLimit = 0) { return RunTool(args, dir_, addressLimit); }
  // Runs a command that must succeed.
  Result Ok(const Args& args) {
    Result r = Run(args);
    EXPECT_EQ(r.exitCode, 0) << args[0] << ": " << r.err;
    return r;
  }
  std::string P(const std::string& name) const { return (dir_ / name).string(); }
  Image LoadIn(const std::string& name) const {
    Image image;
    const zel::ErrorCode read = io::ReadPicture(PathOf(dir_ / name), image);
    EXPECT_TRUE(read.IsOk()) << name << ": " << read.ToString();
    return image;
  }
  // The paths of the files in a folder made by the `samples` command.
  Args Samples(const std::string& folder, const char* size, const char* count) {
    Ok({"samples", P(folder), "--size", size, "--count", count});
    Args paths;
    for (const std::string& name : Listing(dir_ / folder))
      paths.push_back(P(folder + "/" + name));
    return paths;
  }

  // A failure must be exactly one line that names `file`, with exit code 1.
  void ExpectOneLineFailure(const Result& r, const std::string& file) {
    EXPECT_EQ(r.exitCode, 1) << r.err;
    EXPECT_EQ(r.ErrorLines(), 1u) << r.err;
    EXPECT_EQ(r.err.rfind("imagery: ", 0), 0u) << r.err;
    EXPECT_NE(r.err.find(file), std::string::npos) << r.err;
  }

  fs::path dir_;
};

TEST_F(ToolTest, CommandLineMistakesAreUsageErrorsOfOneLine) {
  Save(RandomImage(IT_RGB8, 8, 8, gamma::sRGB, 1), dir_ / "in.png");
  const std::vector<Args> mistakes = {
      {"convert", "--bogus"},
      {"convert", "-f", "rgb9"},
      {"convert", "-g", "-3"},
      {"resize", "-s", "0x4"},
      {"blur"},
      {"preview", "--background", "red"},
  };
  for (Args args : mistakes) {
    // Each command gets an input and an output.
    args.insert(args.begin() + 1, {P("in.png"), "-o", P("out.png")});
    const Result r = Run(args);
    const std::string shown = ::testing::PrintToString(args);
    EXPECT_EQ(r.exitCode, 2) << shown << "\n" << r.err;
    EXPECT_EQ(r.ErrorLines(), 1u) << shown << "\n" << r.err;
    EXPECT_FALSE(fs::exists(dir_ / "out.png")) << shown;
    EXPECT_TRUE(args.back() != "--bogus" || r.err.find("--bogus") != std::string::npos);
  }
}

// Converting between lossless files gives every stored value; each -f name gives its format and -g the gamma
// asked for. The files' byte-level round trips are the picture-file tests' concern.
TEST_F(ToolTest, ConversionKeepsEveryStoredValueAndOptionsGiveWhatTheyName) {
  const std::tuple<EImageType, const char*, const char*, const char*> cases[] = {
      {IT_RGBA8, "rgba8", "png", "tif"},        {IT_RGB8, "rgb8", "png", "tiff"},
      {IT_RGBA16, "rgba16", "tif", "png"},      {IT_RGB32f, "rgb32f", "tif", "exr"},
      {IT_Grayscale16, "gray16", "png", "tif"}, {IT_Grayscale32f, "grey32f", "exr", "tif"}};
  for (const auto& [type, name, from, to] : cases) {
    SCOPED_TRACE(name);
    const Image source = RandomImage(type, 37, 23, IsFloat(type) ? gamma::Linear : gamma::sRGB,
                                     7 + static_cast<unsigned>(type));
    Save(source, dir_ / (std::string("in.") + from));
    Ok({"convert", P(std::string("in.") + from), "-o", P(std::string("out.") + to), "-f", name,
        "--overwrite"});
    EXPECT_EQ(PixelBytes(LoadIn(std::string("out.") + to)), PixelBytes(source));
  }
  Save(RandomImage(IT_RGBA8, 9, 7, gamma::sRGB, 31), dir_ / "colour.png");
  Ok({"convert", P("colour.png"), "-o", P("light.hdr"), "-f", "rgbe"});
  EXPECT_EQ(LoadIn("light.hdr").ImageType(), IT_RGBEA);
  Ok({"convert", P("colour.png"), "-o", P("linear.png"), "-f", "rgb16", "-g", "linear"});
  // The values in the new encoding are the conversion tests' concern.
  const Image linear = LoadIn("linear.png");
  EXPECT_TRUE(linear.ImageType() == IT_RGB16 && linear.GetGamma() == gamma::Linear);
}

TEST_F(ToolTest, ProgressShowsOnATerminalOnly) {
  Args args{"convert", "-o", P("out"), "--ext", "tif"};
  for (const std::string& input : Samples("in", "32", "6"))
    args.push_back(input);
  const std::optional<std::string> shown = RunOnTerminal(args);
  if (!shown)
    GTEST_SKIP() << "no pseudo-terminal on this machine";
  EXPECT_NE(shown->find("convert ["), std::string::npos) << *shown;
  EXPECT_NE(shown->find("100%"), std::string::npos) << *shown;
  args.insert(args.end(), {"--overwrite", "--quiet"});
  EXPECT_EQ(RunOnTerminal(args).value_or("?"), "");
  // Off a terminal (the captured runs of every other test) nothing but errors is ever written.
  const Result r = Ok(args);
  EXPECT_EQ(r.out + r.err, "");
}

// Geometry commands are checked against where each pixel must land, on lossless files of one format.
TEST_F(ToolTest, GeometryCommandsMovePixelsWhereTheySay) {
  const int w = 21, h = 13;
  const Image source = RandomImage(IT_RGBA8, w, h, gamma::sRGB, 3);
  Save(source, dir_ / "in.png");
  const auto same = [&source](const Image& image, int x, int y, int sx, int sy) {
    return std::equal(Pixel(image, x, y), Pixel(image, x, y) + 4, Pixel(source, sx, sy));
  };
  Ok({"crop", P("in.png"), "-o", P("crop.png"), "--origin", "5,3", "-s", "8x6"});
  Ok({"transform", P("in.png"), "-o", P("mirror.png"), "--mirror-x"});
  Ok({"transform", P("in.png"), "-o", P("turn.png"), "--rotate", "180"});
  Ok({"transform", P("in.png"), "-o", P("quarter.png"), "--rotate", "90"});
  Ok({"resize", P("in.png"), "-o", P("big.png"), "-s", "40x20"});
  const Image crop = LoadIn("crop.png"), mirror = LoadIn("mirror.png"), turn = LoadIn("turn.png");
  ASSERT_TRUE(crop.Width() == 8 && crop.Height() == 6);
  for (int y = 0; y < 6; ++y)
    for (int x = 0; x < 8; ++x)
      EXPECT_TRUE(same(crop, x, y, x + 5, y + 3)) << x << "," << y;
  for (int y = 0; y < h; ++y)
    for (int x = 0; x < w; ++x) {
      EXPECT_TRUE(same(mirror, x, y, w - 1 - x, y)) << x << "," << y;
      EXPECT_TRUE(same(turn, x, y, w - 1 - x, h - 1 - y)) << x << "," << y;
    }
  const Image quarter = LoadIn("quarter.png"), big = LoadIn("big.png");
  EXPECT_TRUE(quarter.Width() == h && quarter.Height() == w);
  EXPECT_TRUE(big.Width() == 40 && big.Height() == 20 && big.ImageType() == IT_RGBA8);
}

TEST_F(ToolTest, PacksGiveBackTheirPicturesAndRefuseDamage) {
  const Image a = RandomImage(IT_RGBA8, 19, 7, gamma::sRGB, 11),
              b = RandomImage(IT_Grayscale16, 5, 9, gamma::Linear, 12);
  Save(a, dir_ / "a.png");
  Save(b, dir_ / "b.png");
  Ok({"pack", P("a.png"), P("b.png"), "-o", P("both.imgs")});
  Ok({"unpack", P("both.imgs"), "-o", P("out")});
  EXPECT_EQ(PixelBytes(LoadIn("out/a.png")), PixelBytes(a));
  EXPECT_EQ(PixelBytes(LoadIn("out/b.png")), PixelBytes(b));

  // A referencing pack needs its files: it works while they exist and names the one that went missing.
  Ok({"pack", "--reference", P("a.png"), P("b.png"), "-o", P("ref.imgs")});
  EXPECT_LT(fs::file_size(dir_ / "ref.imgs"), fs::file_size(dir_ / "both.imgs"));
  Ok({"unpack", P("ref.imgs"), "-o", P("fromref"), "--ext", "tif"});
  EXPECT_EQ(PixelBytes(LoadIn("fromref/b.tif")), PixelBytes(b));
  fs::rename(dir_ / "b.png", dir_ / "gone.png");
  Result r = Run({"unpack", P("ref.imgs"), "-o", P("broken")});
  EXPECT_EQ(r.exitCode, 1);
  EXPECT_NE(r.err.find("b.png"), std::string::npos) << r.err;

  // Cut packs are refused whole; nothing is written for them.
  // A pack of the first picture alone ends where the second picture starts in the pack of both.
  Ok({"pack", P("a.png"), "-o", P("one.imgs")});
  const std::size_t between = static_cast<std::size_t>(fs::file_size(dir_ / "one.imgs"));
  const std::string full = FileBytes(dir_ / "both.imgs");
  for (const std::size_t cut : {std::size_t(3), std::size_t(30), between, full.size() / 2, full.size() - 1}) {
    WriteBytes(dir_ / "cut.imgs", full.substr(0, cut));
    ExpectOneLineFailure(Run({"unpack", P("cut.imgs"), "-o", P("cutout")}), "cut.imgs");
    EXPECT_FALSE(fs::exists(dir_ / "cutout") && !fs::is_empty(dir_ / "cutout")) << cut;
  }
  // A picture is not a pack.
  ExpectOneLineFailure(Run({"unpack", P("a.png"), "-o", P("x")}), "a.png");

  // The pack is replaced only when asked.
  ExpectOneLineFailure(Run({"pack", P("a.png"), "-o", P("both.imgs")}), "both.imgs");
  EXPECT_EQ(FileBytes(dir_ / "both.imgs"), full);
  Ok({"pack", P("a.png"), "-o", P("both.imgs"), "--overwrite"});
  EXPECT_NE(FileBytes(dir_ / "both.imgs"), full);
}

// Each broken input must fail alone: one line naming it, exit code 1, no output and no temporary file left,
// the input untouched, while the good inputs of the same call get their output. Why each file is refused is
// the picture-file tests' concern.
TEST_F(ToolTest, BrokenPicturesFailWithOneLineAndLeaveNothing) {
  Save(RandomImage(IT_RGB8, 64, 48, gamma::sRGB, 5), dir_ / "good.png");
  const std::string png = FileBytes(dir_ / "good.png");
  // huge.png: a 60000 x 60000 header over a few bytes of data, refused before any plane is allocated.
  const std::vector<std::pair<std::string, std::string>> bad = {
      {"text.png", "this is a text file, not a picture\n"},
      {"cut.png", png.substr(0, png.size() / 2)},
      {"huge.png", testing_support::PngPromising(60000, 60000)}};
  fs::create_directories(dir_ / "bad");
  for (const auto& [name, bytes] : bad)
    WriteBytes(dir_ / "bad" / name, bytes);
    // Without sanitizers the tool runs under a 2 GiB address-space cap: a 60000 x 60000 plane cannot fit.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
  const rlim_t cap = 0;
#else
  const rlim_t cap = rlim_t(2) << 30;
#endif
  ExpectOneLineFailure(Run({"info", P("bad/huge.png")}, cap), "huge.png");

  // Conversions, all in one call on two threads.
  Args args{"convert", "--jobs", "2", "-o", P("mixed"), "--ext", "tif", P("good.png"), P("missing.png")};
  for (const auto& [name, bytes] : bad)
    args.push_back(P("bad/" + name));
  const Result r = Run(args, cap);
  EXPECT_EQ(r.exitCode, 1);
  EXPECT_EQ(r.ErrorLines(), bad.size() + 1) << r.err;
  EXPECT_NE(r.err.find("missing.png: no such file"), std::string::npos) << r.err;
  for (const auto& [name, bytes] : bad) {
    EXPECT_NE(r.err.find("imagery: " + P("bad/" + name)), std::string::npos) << name << "\n" << r.err;
    EXPECT_EQ(FileBytes(dir_ / "bad" / name), bytes) << name;
  }
  EXPECT_EQ(Listing(dir_ / "mixed"), Args{"good.tif"});
}

TEST_F(ToolTest, OutputsAreNeverForcedNorPartial) {
  Save(RandomImage(IT_RGB8, 16, 16, gamma::sRGB, 8), dir_ / "in.png");
  WriteBytes(dir_ / "existing.png", "keep me");
  WriteBytes(dir_ / "plainfile", "a file where a folder should be");

  // An existing output stays unless --overwrite is given.
  ExpectOneLineFailure(Run({"convert", P("in.png"), "-o", P("existing.png")}), "existing.png");
  EXPECT_EQ(FileBytes(dir_ / "existing.png"), "keep me");
  Ok({"convert", P("in.png"), "-o", P("existing.png"), "--overwrite"});
  EXPECT_EQ(LoadIn("existing.png").Width(), 16);

  // The input is never the output, even with --overwrite.
  const std::string input = FileBytes(dir_ / "in.png");
  ExpectOneLineFailure(Run({"blur", P("in.png"), "-o", P("in.png"), "--radius", "2", "--overwrite"}),
                       "in.png");
  EXPECT_EQ(FileBytes(dir_ / "in.png"), input);

  // Folders that cannot be written: a path through a regular file (which also stops root).
  ExpectOneLineFailure(Run({"convert", P("in.png"), "-o", P("plainfile/out.png")}), "plainfile");
  ExpectOneLineFailure(Run({"convert", P("in.png"), P("existing.png"), "-o", P("plainfile/sub")}),
                       "plainfile");
  ExpectOneLineFailure(Run({"pack", P("in.png"), "-o", P("plainfile/p.imgs")}), "plainfile");
  EXPECT_EQ(Listing(dir_), (Args{"existing.png", "in.png", "plainfile"}));
}

TEST_F(ToolTest, MipmapWritesTheChainAndReportsCoverage) {
  // Alpha 1 in a 16 x 8 block of a 64 x 32 picture: coverage 1/16 at level 0. Method names are read in any
  // case; what each method computes is the mip-map tests' concern.
  Save(Cutout({0.5f, 0.25f, 1.0f}, [](int x, int y) { return x >= 8 && x < 24 && y >= 4 && y < 12; }),
       dir_ / "leaf.png");
  const Result r = Ok({"mipmap", P("leaf.png"), "-o", P("chain.png"), "-m", "Dither"});
  for (int level = 0; level < 7; ++level) {
    const Image l = LoadIn("chain_mip" + std::to_string(level) + ".png");
    EXPECT_TRUE(l.Width() == std::max(1, 64 >> level) && l.Height() == std::max(1, 32 >> level)) << level;
  }
  EXPECT_FALSE(fs::exists(dir_ / "chain_mip7.png"));
  EXPECT_NE(r.out.find("6.25 %"), std::string::npos) << r.out;
  EXPECT_NE(r.out.find("dither method"), std::string::npos) << r.out;
}

TEST_F(ToolTest, DilateFillsUndefinedPixelsOnly) {
  // Alpha 0 (and black) outside the centre; random opaque pixels inside.
  Image image = RandomImage(IT_RGBA8, 24, 24, gamma::sRGB, 21);
  const auto inside = [](int x, int y) { return x >= 6 && x < 18 && y >= 6 && y < 18; };
  for (int y = 0; y < 24; ++y)
    for (int x = 0; x < 24; ++x) {
      unsigned char* p = image.GetImplRef().Plane().PixelAddress(x, y);
      p[3] = inside(x, y) ? 255 : 0;
      if (!inside(x, y))
        p[0] = p[1] = p[2] = 0;
    }
  Save(image, dir_ / "atlas_Color.png");
  Ok({"dilate", P("atlas_Color.png"), "-o", P("filled.png"), "--distance"});
  const Image filled = LoadIn("filled.png");
  // Defined pixels stay; every undefined one gets a colour and keeps alpha 0 (the colours themselves are
  // the dilation tests' concern).
  int wrong = 0;
  for (int y = 0; y < 24; ++y)
    for (int x = 0; x < 24; ++x) {
      const unsigned char *p = Pixel(filled, x, y), *q = Pixel(image, x, y);
      wrong += inside(x, y) ? !std::equal(p, p + 4, q) : p[3] != 0 || p[0] + p[1] + p[2] == 0;
    }
  EXPECT_EQ(wrong, 0);
  EXPECT_EQ(LoadIn("filled_distance.png").Width(), 24);

  // Without alpha, undefined pixels come from a mask only, of the picture's size.
  Save(RandomImage(IT_RGB8, 24, 24, gamma::sRGB, 22), dir_ / "opaque.png");
  const Result r = Run({"dilate", P("opaque.png"), "-o", P("o.png")});
  ExpectOneLineFailure(r, "opaque.png");
  EXPECT_NE(r.err.find("--mask"), std::string::npos);
  Ok({"dilate", P("opaque.png"), "-o", P("o.png"), "--mask", P("atlas_Color.png")});
  Save(RandomImage(IT_RGB8, 8, 8, gamma::sRGB, 23), dir_ / "small.png");
  ExpectOneLineFailure(Run({"dilate", P("opaque.png"), "-o", P("o2.png"), "--mask", P("small.png")}),
                       "opaque.png");
}

TEST_F(ToolTest, QuantizeWritesIndexedPngsOfTheColoursAsked) {
  // Four flat colours (stored bytes, blue first) in quadrants: a palette of 8 holds them, up to the
  // quantiser's 5-6-5 histogram cells.
  const std::array<unsigned char, 3> colours[4] = {
      {40, 30, 200}, {60, 180, 20}, {220, 40, 30}, {230, 240, 240}};
  Image blocks(32, 32, IT_RGB8, gamma::sRGB);
  for (int y = 0; y < 32; ++y)
    for (int x = 0; x < 32; ++x)
      std::copy_n(colours[(y / 16) * 2 + x / 16].begin(), 3, blocks.GetImplRef().Plane().PixelAddress(x, y));
  Save(blocks, dir_ / "blocks.png");
  const std::string want = testing_support::PixelBytes(blocks);
  Save(RandomImage(IT_RGBA8, 40, 30, gamma::sRGB, 41), dir_ / "in.png");
  // Eight colours dithered, and the default palette mapped plainly.
  for (const std::string folder : {"q", "q_default"}) {
    Args args{"quantize", P("blocks.png"), P("in.png"), "-o", P(folder)};
    if (folder == "q")
      args.insert(args.end(), {"-c", "8", "--dither"});
    Ok(args);
    io::PictureInfo info;
    EXPECT_TRUE(io::ReadPictureInfo(PathOf(dir_ / folder / "in.png"), info).IsOk() && info.palette);
    // The random picture has at most the colours asked for, and by default far more than any smaller
    // palette would give it.
    const std::string random = testing_support::PixelBytes(LoadIn(folder + "/in.png"));
    std::set<std::string> seen;
    for (std::size_t i = 0; i < random.size(); i += 3)
      seen.insert(random.substr(i, 3));
    EXPECT_TRUE(folder == "q_default" ? seen.size() > 64 && seen.size() <= 256 : seen.size() <= 8)
        << seen.size();
    const std::string got = testing_support::PixelBytes(LoadIn(folder + "/blocks.png"));
    for (std::size_t i = 0; i < want.size(); ++i)
      ASSERT_NEAR(static_cast<unsigned char>(got.at(i)), static_cast<unsigned char>(want[i]), 8)
          << i << folder;
  }
  ExpectOneLineFailure(Run({"quantize", P("blocks.png"), "-o", P("q.jpg")}), "q.jpg");
  EXPECT_FALSE(fs::exists(dir_ / "q.jpg"));
}

TEST_F(ToolTest, PreviewIsTheSceneBitmapReadBack) {
  // Left opaque blue, right transparent.
  Save(Cutout({0.0f, 0.0f, 1.0f}, [](int x, int) { return x < 32; }), dir_ / "half.png");
  for (const bool quantized : {false, true}) {
    Args args{"preview", P("half.png"),  "-o",     P("p.png"),   "--size",
              "32",      "--background", "FF0000", "--overwrite"};
    if (quantized)
      args.push_back("--quantized");
    EXPECT_NE(Ok(args).out.find("preview 32 x 16"), std::string::npos);
    const Image p = LoadIn("p.png");
    ASSERT_TRUE(p.Width() == 32 && p.Height() == 16);
    // A quantised preview is off by up to the quantiser's histogram cell (5 bits for red, blue).
    const int tolerance = quantized ? 8 : 1;
    // Away from the seam: blue where the picture is opaque, the background where it is transparent.
    for (int y = 0; y < 16; ++y)
      for (const int x : {2, 12, 20, 29}) {
        EXPECT_NEAR(Pixel(p, x, y)[0], x < 16 ? 255 : 0, tolerance) << x << "," << y << " " << quantized;
        EXPECT_NEAR(Pixel(p, x, y)[2], x < 16 ? 0 : 255, tolerance) << x << "," << y << " " << quantized;
      }
  }
}

TEST_F(ToolTest, InfoNamesFormatTypeAndSiblings) {
  Ok({"samples", P("s"), "--size", "64"});
  EXPECT_EQ(Listing(dir_ / "s"), (Args{"atlas_Color.png", "atlas_Normal.png", "atlas_Roughness.png"}));
  // The picture's own channel is not its sibling.
  const Result r = Ok({"info", P("s/atlas_Color.png")});
  for (const char* expected : {"64 x 64", "rgba8", "Color (file tag)", "NormalMap: atlas_Normal.png",
                               "Roughness: atlas_Roughness.png"})
    EXPECT_NE(r.out.find(expected), std::string::npos) << expected << "\n" << r.out;
  EXPECT_EQ(r.out.find("Color: "), std::string::npos) << r.out;
}

TEST_F(ToolTest, ManyFilesGiveTheSameBytesOnOneThreadAndOnSeveral) {
  const Args inputs = Samples("in", "64", "12");
  ASSERT_EQ(inputs.size(), 12u);
  for (const std::string jobs : {"1", "3"}) {
    Args args{"blur", "--sigma", "1.5", "--jobs", jobs, "-o", P("out" + jobs)};
    args.insert(args.end(), inputs.begin(), inputs.end());
    EXPECT_TRUE(Ok(args).err.empty());
  }
  ASSERT_EQ(Listing(dir_ / "out1"), Listing(dir_ / "in"));
  for (const std::string& name : Listing(dir_ / "in"))
    EXPECT_EQ(FileBytes(dir_ / "out1" / name), FileBytes(dir_ / "out3" / name)) << name;
}

TEST_F(ToolTest, DemoWritesResultsAndAContactSheet) {
  EXPECT_NE(Ok({"demo", P("demo"), "--size", "128"}).out.find("contact_sheet.png"), std::string::npos);
  const Image sheet = LoadIn("demo/contact_sheet.png");
  EXPECT_TRUE(sheet.Width() > 5 * 200 && sheet.Height() > 4 * 200);
  for (const char* file : {"samples/atlas_Color.png", "samples/sky.exr", "convert_sky.hdr", "atlas.imgs",
                           "dilate_color.png", "mipmap_dither_mip3.png", "info.txt"})
    EXPECT_TRUE(fs::exists(dir_ / "demo" / file)) << file;

  // Without its font the demo says which font it looked for, and draws no sheet.
  ExpectOneLineFailure(RunTool({"demo", P("nofont")}, dir_, 0, "/nonexistent/Font.ttf"),
                       "/nonexistent/Font.ttf");
  EXPECT_FALSE(fs::exists(dir_ / "nofont/contact_sheet.png"));
}

}  // namespace
}  // namespace imagery

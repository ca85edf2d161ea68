// End-to-end tests of the imagery tool: the built executable is run as a user would run it, on pictures
// made here and on broken files, and its outputs, messages and exit codes are checked.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <pty.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <optional>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "imagery/imagery.h"
#include "imagery/io/picture_files.h"
#include "support/random_image.h"

namespace imagery {
namespace {

namespace fs = std::filesystem;
using testing_support::RandomImage;

struct Result {
  int exitCode = -1;
  std::string out;
  std::string err;

  std::vector<std::string> ErrorLines() const {
    std::vector<std::string> lines;
    std::istringstream in(err);
    for (std::string line; std::getline(in, line);)
      lines.push_back(line);
    return lines;
  }
};

std::string ReadFile(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

void WriteFile(const fs::path& path, const std::string& bytes) {
  std::ofstream(path, std::ios::binary) << bytes;
}

// Runs the tool with standard output and error captured in files (so neither is a terminal) and, when
// asked, with its address space capped: a reader that tried to allocate a huge plane would then fail.
Result RunTool(const std::vector<std::string>& args, const fs::path& scratch, rlim_t addressLimit = 0,
               const char* fontVariable = nullptr) {
  const fs::path out = scratch / ".stdout", err = scratch / ".stderr";
  std::vector<std::string> all{IMAGERY_TOOL};
  all.insert(all.end(), args.begin(), args.end());
  std::vector<char*> argv;
  for (std::string& a : all)
    argv.push_back(a.data());
  argv.push_back(nullptr);
  const pid_t child = fork();
  if (child == 0) {
    const int o = open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    const int e = open(err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    const int n = open("/dev/null", O_RDONLY);
    dup2(n, 0);
    dup2(o, 1);
    dup2(e, 2);
    if (addressLimit) {
      const rlimit limit{addressLimit, addressLimit};
      setrlimit(RLIMIT_AS, &limit);
    }
    if (fontVariable)
      setenv("IMAGERY_FONT", fontVariable, 1);
    execv(argv[0], argv.data());
    _exit(127);
  }
  int status = 0;
  waitpid(child, &status, 0);
  Result result;
  result.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  result.out = ReadFile(out);
  result.err = ReadFile(err);
  fs::remove(out);
  fs::remove(err);
  return result;
}

// Runs the tool on a pseudo-terminal, as from an interactive shell; returns what it showed there, or
// nothing when the machine has no pseudo-terminal to give.
std::optional<std::string> RunOnTerminal(const std::vector<std::string>& args) {
  std::vector<std::string> all{IMAGERY_TOOL};
  all.insert(all.end(), args.begin(), args.end());
  std::vector<char*> argv;
  for (std::string& a : all)
    argv.push_back(a.data());
  argv.push_back(nullptr);
  int master = -1;
  const pid_t child = forkpty(&master, nullptr, nullptr, nullptr);
  if (child < 0)
    return std::nullopt;
  if (child == 0) {
    execv(argv[0], argv.data());
    _exit(127);
  }
  std::string shown;
  char buffer[4096];
  for (ssize_t n; (n = read(master, buffer, sizeof buffer)) > 0;)
    shown.append(buffer, static_cast<std::size_t>(n));
  close(master);
  int status = 0;
  waitpid(child, &status, 0);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << shown;
  return shown;
}

// Every stored byte of level 0 without row padding, with the size and format: two pictures are the same
// when these are.
std::string PixelBytes(const Image& image) {
  const PixelPlane& plane = image.GetImplRef().Plane();
  std::string bytes = std::to_string(plane.Width()) + "x" + std::to_string(plane.Height()) + ":" +
                      std::to_string(static_cast<int>(plane.Type())) + ":";
  for (int y = 0; y < plane.Height(); ++y)
    bytes.append(reinterpret_cast<const char*>(plane.Row(y)),
                 static_cast<std::size_t>(plane.Width()) * plane.BytesPerPixel());
  return bytes;
}

Image Load(const fs::path& path) {
  Image image;
  const zel::ErrorCode read = io::ReadPicture(ZELPath(ZELString::FromUTF8(path.string())), image);
  EXPECT_TRUE(read.IsOk()) << path << ": " << read.ToString();
  return image;
}

void Save(const Image& image, const fs::path& path) {
  io::WriteOptions options;
  options.overwrite = true;
  const zel::ErrorCode written =
      io::WritePicture(image, ZELPath(ZELString::FromUTF8(path.string())), options);
  ASSERT_TRUE(written.IsOk()) << path << ": " << written.ToString();
}

// Files in a folder, hidden ones included, without the captured outputs of the tool.
std::vector<std::string> Listing(const fs::path& folder) {
  std::vector<std::string> names;
  for (const auto& entry : fs::directory_iterator(folder)) {
    const std::string name = entry.path().filename().string();
    if (name != ".stdout" && name != ".stderr")
      names.push_back(name);
  }
  std::sort(names.begin(), names.end());
  return names;
}

std::uint32_t Crc32(const unsigned char* data, std::size_t size) {
  std::uint32_t crc = 0xFFFFFFFFu;
  for (std::size_t i = 0; i < size; ++i) {
    crc ^= data[i];
    for (int k = 0; k < 8; ++k)
      crc = (crc >> 1) ^ (0xEDB88320u & (0u - (crc & 1u)));
  }
  return ~crc;
}

class ToolTest : public ::testing::Test {
 protected:
  void SetUp() override {
    io::InstallPictureReader();
    const auto* info = ::testing::UnitTest::GetInstance()->current_test_info();
    std::string name = std::string(info->test_suite_name()) + "_" + info->name();
    std::replace(name.begin(), name.end(), '/', '_');
    dir_ = fs::temp_directory_path() / ("imagery_tool_" + std::to_string(getpid()) + "_" + name);
    fs::remove_all(dir_);
    fs::create_directories(dir_);
  }
  void TearDown() override {
    if (!HasFailure())
      fs::remove_all(dir_);
  }

  Result Run(const std::vector<std::string>& args, rlim_t addressLimit = 0) {
    return RunTool(args, dir_, addressLimit);
  }
  std::string P(const std::string& name) const { return (dir_ / name).string(); }

  // A failure must be exactly one line that names `file`, with exit code 1.
  void ExpectOneLineFailure(const Result& r, const std::string& file) {
    EXPECT_EQ(r.exitCode, 1) << r.err;
    const auto lines = r.ErrorLines();
    ASSERT_EQ(lines.size(), 1u) << r.err;
    EXPECT_EQ(lines[0].rfind("imagery: ", 0), 0u) << lines[0];
    EXPECT_NE(lines[0].find(file), std::string::npos) << lines[0];
  }

  fs::path dir_;
};

// --- Command line ---------------------------------------------------------------------------------------

class ToolHelp : public ToolTest, public ::testing::WithParamInterface<const char*> {};

TEST_P(ToolHelp, EveryCommandExplainsItself) {
  const Result r = Run({GetParam(), "--help"});
  EXPECT_EQ(r.exitCode, 0);
  EXPECT_NE(r.out.find("Usage"), std::string::npos) << r.out;
  EXPECT_NE(r.out.find(GetParam()), std::string::npos) << r.out;
  EXPECT_TRUE(r.err.empty()) << r.err;
}

INSTANTIATE_TEST_SUITE_P(Commands, ToolHelp,
                         ::testing::Values("info", "convert", "resize", "crop", "transform", "pack", "unpack",
                                           "blur", "mipmap", "dilate", "quantize", "preview", "demo",
                                           "samples"));

TEST_F(ToolTest, CommandLineMistakesAreUsageErrorsOfOneLine) {
  Save(RandomImage(IT_RGB8, 8, 8, gamma::sRGB, 1), dir_ / "in.png");
  const std::vector<std::vector<std::string>> mistakes = {
      {},
      {"frobnicate"},
      {"convert", P("in.png"), "-o", P("out.png"), "--bogus"},
      {"convert", P("in.png")},
      {"convert", P("in.png"), "-o", P("out.png"), "-f", "rgb9"},
      {"convert", P("in.png"), "-o", P("out.png"), "-g", "-3"},
      {"resize", P("in.png"), "-o", P("out.png"), "-s", "12"},
      {"crop", P("in.png"), "-o", P("out.png"), "-s", "0x4"},
      {"transform", P("in.png"), "-o", P("out.png"), "--rotate", "45"},
      {"blur", P("in.png"), "-o", P("out.png")},
      {"mipmap", P("in.png"), "-o", P("out.png"), "-m", "bilinear"},
      {"convert", P("in.png"), "-o", P("out.png"), "--jobs", "0"},
      {"quantize", P("in.png"), "-o", P("out.png"), "-c", "300"},
      {"preview", P("in.png"), "-o", P("out.png"), "--background", "red"},
  };
  for (const auto& args : mistakes) {
    const Result r = Run(args);
    std::string shown;
    for (const auto& a : args)
      shown += a + " ";
    EXPECT_EQ(r.exitCode, 2) << shown << "\n" << r.err;
    EXPECT_EQ(r.ErrorLines().size(), 1u) << shown << "\n" << r.err;
    EXPECT_FALSE(fs::exists(dir_ / "out.png")) << shown;
  }
  EXPECT_NE(Run({"convert", P("in.png"), "-o", P("out.png"), "--bogus"}).err.find("--bogus"),
            std::string::npos);
}

// --- Round trips ----------------------------------------------------------------------------------------

struct Lossless {
  EImageType type;
  const char* from;
  const char* to;
};

std::ostream& operator<<(std::ostream& out, const Lossless& c) {
  return out << static_cast<int>(c.type) << " " << c.from << " to " << c.to;
}

class ToolLossless : public ToolTest, public ::testing::WithParamInterface<Lossless> {};

// Converting between lossless files, alone and in a folder of several, must give back every stored value.
TEST_P(ToolLossless, ConversionKeepsEveryStoredValue) {
  const Lossless c = GetParam();
  const GammaValue g = IsFloat(c.type) ? gamma::Linear : gamma::sRGB;
  const Image source = RandomImage(c.type, 37, 23, g, 7 + static_cast<unsigned>(c.type));
  const std::string input = P(std::string("in.") + c.from);
  Save(source, input);
  const std::string original = ReadFile(input);

  Result r = Run({"convert", input, "-o", P(std::string("out.") + c.to)});
  ASSERT_EQ(r.exitCode, 0) << r.err;
  EXPECT_TRUE(r.err.empty()) << "no progress bar when standard error is not a terminal: " << r.err;
  EXPECT_EQ(PixelBytes(Load(P(std::string("out.") + c.to))), PixelBytes(source));
  r = Run({"convert", P(std::string("out.") + c.to), "-o", P(std::string("back.") + c.from)});
  ASSERT_EQ(r.exitCode, 0) << r.err;
  EXPECT_EQ(PixelBytes(Load(P(std::string("back.") + c.from))), PixelBytes(source));
  EXPECT_EQ(ReadFile(input), original) << "the input changed";
}

INSTANTIATE_TEST_SUITE_P(
    Formats, ToolLossless,
    ::testing::Values(Lossless{IT_RGBA8, "png", "tif"}, Lossless{IT_RGB8, "png", "tiff"},
                      Lossless{IT_Grayscale8, "png", "tif"}, Lossless{IT_RGB16, "png", "tif"},
                      Lossless{IT_RGBA16, "tif", "png"}, Lossless{IT_Grayscale16, "png", "tif"},
                      Lossless{IT_RGBA32f, "exr", "tif"}, Lossless{IT_RGB32f, "tif", "exr"},
                      Lossless{IT_Grayscale32f, "exr", "tif"}),
    [](const auto& info) {
      return "Type" + std::to_string(static_cast<int>(info.param.type)) + "_" + info.param.from + "_to_" +
             info.param.to;
    });

struct FormatCase {
  const char* name;
  const char* extension;
  EImageType expected;
};

// Each -f name gives its format, in a file type that keeps it, and -g the gamma asked for.
TEST_F(ToolTest, FormatAndGammaOptionsGiveWhatTheyName) {
  Save(RandomImage(IT_RGBA8, 9, 7, gamma::sRGB, 31), dir_ / "in.png");
  const FormatCase cases[] = {
      {"rgb8", "png", IT_RGB8},
      {"rgba8", "png", IT_RGBA8},
      {"grey8", "png", IT_Grayscale8},
      {"gray16", "png", IT_Grayscale16},
      {"rgb16", "tif", IT_RGB16},
      {"rgba16", "png", IT_RGBA16},
      {"grey32f", "exr", IT_Grayscale32f},
      {"rgb32f", "tif", IT_RGB32f},
      {"rgba32f", "exr", IT_RGBA32f},
      {"rgbe", "hdr", IT_RGBEA},
  };
  for (const FormatCase& c : cases) {
    const std::string out = P(std::string(c.name) + "." + c.extension);
    const Result r = Run({"convert", P("in.png"), "-o", out, "-f", c.name});
    ASSERT_EQ(r.exitCode, 0) << c.name << ": " << r.err;
    EXPECT_EQ(Load(out).ImageType(), c.expected) << c.name;
  }
  ASSERT_EQ(Run({"convert", P("in.png"), "-o", P("linear.png"), "-f", "rgb16", "-g", "linear"}).exitCode, 0);
  const Image linear = Load(dir_ / "linear.png");
  EXPECT_EQ(linear.ImageType(), IT_RGB16);
  EXPECT_EQ(linear.GetGamma(), gamma::Linear);
  // The same light in another encoding: pixel (2, 3) decodes to nearly the same linear value.
  const Image source = Load(dir_ / "in.png");
  LinearRGB_T<float> a, b;
  ConstPixelAccess(source.GetImplRef().Plane(), 2, 3).GetPixelRGB(a);
  ConstPixelAccess(linear.GetImplRef().Plane(), 2, 3).GetPixelRGB(b);
  EXPECT_NEAR(a.r, b.r, 1e-4);
  EXPECT_NEAR(a.g, b.g, 1e-4);
  EXPECT_NEAR(a.b, b.b, 1e-4);
}

TEST_F(ToolTest, ProgressShowsOnATerminalOnly) {
  ASSERT_EQ(Run({"samples", P("in"), "--size", "32", "--count", "6"}).exitCode, 0);
  std::vector<std::string> args{"convert", "-o", P("out"), "--ext", "tif"};
  for (const std::string& name : Listing(dir_ / "in"))
    args.push_back(P("in/" + name));
  const std::optional<std::string> shown = RunOnTerminal(args);
  if (!shown)
    GTEST_SKIP() << "no pseudo-terminal on this machine";
  EXPECT_NE(shown->find("convert ["), std::string::npos) << *shown;
  EXPECT_NE(shown->find("100%"), std::string::npos) << *shown;
  args.push_back("--overwrite");
  args.push_back("--quiet");
  EXPECT_EQ(RunOnTerminal(args).value_or("?"), "");
  // Off a terminal (the captured runs of every other test) nothing but errors is ever written.
  const Result r = Run(args);
  EXPECT_EQ(r.exitCode, 0);
  EXPECT_EQ(r.out + r.err, "");
}

// Geometry commands are checked against where each pixel must land, on lossless files of one format.
TEST_F(ToolTest, GeometryCommandsMovePixelsWhereTheySay) {
  const int w = 21, h = 13;
  const Image source = RandomImage(IT_RGBA8, w, h, gamma::sRGB, 3);
  Save(source, dir_ / "in.png");
  const PixelPlane& s = source.GetImplRef().Plane();
  auto sameBytes = [](const PixelPlane& a, int ax, int ay, const PixelPlane& b, int bx, int by) {
    return std::equal(a.PixelAddress(ax, ay), a.PixelAddress(ax, ay) + a.BytesPerPixel(),
                      b.PixelAddress(bx, by));
  };

  ASSERT_EQ(Run({"crop", P("in.png"), "-o", P("crop.png"), "--origin", "5,3", "-s", "8x6"}).exitCode, 0);
  const Image crop = Load(dir_ / "crop.png");
  ASSERT_EQ(crop.Width(), 8);
  ASSERT_EQ(crop.Height(), 6);
  for (int y = 0; y < 6; ++y)
    for (int x = 0; x < 8; ++x)
      EXPECT_TRUE(sameBytes(crop.GetImplRef().Plane(), x, y, s, x + 5, y + 3)) << x << "," << y;

  ASSERT_EQ(Run({"transform", P("in.png"), "-o", P("mirror.png"), "--mirror-x"}).exitCode, 0);
  ASSERT_EQ(Run({"transform", P("in.png"), "-o", P("turn.png"), "--rotate", "180"}).exitCode, 0);
  ASSERT_EQ(Run({"transform", P("in.png"), "-o", P("quarter.png"), "--rotate", "90"}).exitCode, 0);
  const Image mirror = Load(dir_ / "mirror.png"), turn = Load(dir_ / "turn.png"),
              quarter = Load(dir_ / "quarter.png");
  EXPECT_EQ(quarter.Width(), h);
  EXPECT_EQ(quarter.Height(), w);
  for (int y = 0; y < h; ++y) {
    for (int x = 0; x < w; ++x) {
      EXPECT_TRUE(sameBytes(mirror.GetImplRef().Plane(), x, y, s, w - 1 - x, y)) << x << "," << y;
      EXPECT_TRUE(sameBytes(turn.GetImplRef().Plane(), x, y, s, w - 1 - x, h - 1 - y)) << x << "," << y;
    }
  }

  ASSERT_EQ(Run({"resize", P("in.png"), "-o", P("big.png"), "-s", "40x20"}).exitCode, 0);
  const Image big = Load(dir_ / "big.png");
  EXPECT_EQ(big.Width(), 40);
  EXPECT_EQ(big.Height(), 20);
  EXPECT_EQ(big.ImageType(), IT_RGBA8);
}

TEST_F(ToolTest, PacksGiveBackTheirPicturesAndRefuseDamage) {
  const Image a = RandomImage(IT_RGBA8, 19, 7, gamma::sRGB, 11),
              b = RandomImage(IT_Grayscale16, 5, 9, gamma::Linear, 12);
  Save(a, dir_ / "a.png");
  Save(b, dir_ / "b.png");

  ASSERT_EQ(Run({"pack", P("a.png"), P("b.png"), "-o", P("both.imgs")}).exitCode, 0);
  Result r = Run({"unpack", P("both.imgs"), "-o", P("out")});
  ASSERT_EQ(r.exitCode, 0) << r.err;
  EXPECT_EQ(PixelBytes(Load(dir_ / "out/a.png")), PixelBytes(a));
  EXPECT_EQ(PixelBytes(Load(dir_ / "out/b.png")), PixelBytes(b));

  // A referencing pack needs its files: it works while they exist and names the one that went missing.
  ASSERT_EQ(Run({"pack", "--reference", P("a.png"), P("b.png"), "-o", P("ref.imgs")}).exitCode, 0);
  EXPECT_LT(fs::file_size(dir_ / "ref.imgs"), fs::file_size(dir_ / "both.imgs"));
  r = Run({"unpack", P("ref.imgs"), "-o", P("fromref"), "--ext", "tif"});
  ASSERT_EQ(r.exitCode, 0) << r.err;
  EXPECT_EQ(PixelBytes(Load(dir_ / "fromref/b.tif")), PixelBytes(b));
  fs::rename(dir_ / "b.png", dir_ / "gone.png");
  r = Run({"unpack", P("ref.imgs"), "-o", P("broken")});
  EXPECT_EQ(r.exitCode, 1);
  EXPECT_NE(r.err.find("b.png"), std::string::npos) << r.err;

  // Cut packs are refused whole; nothing is written for them.
  const std::string full = ReadFile(dir_ / "both.imgs");
  for (const std::size_t cut : {std::size_t(3), std::size_t(30), full.size() / 2, full.size() - 1}) {
    WriteFile(dir_ / "cut.imgs", full.substr(0, cut));
    r = Run({"unpack", P("cut.imgs"), "-o", P("cutout")});
    ExpectOneLineFailure(r, "cut.imgs");
    EXPECT_FALSE(fs::exists(dir_ / "cutout") && !fs::is_empty(dir_ / "cutout")) << cut;
  }
  // A picture is not a pack; a pack is not a picture.
  ExpectOneLineFailure(Run({"unpack", P("a.png"), "-o", P("x")}), "a.png");
  ExpectOneLineFailure(Run({"convert", P("both.imgs"), "-o", P("x.png")}), "both.imgs");

  // The pack is replaced only when asked, and through a temporary file that never stays behind.
  r = Run({"pack", P("a.png"), "-o", P("both.imgs")});
  ExpectOneLineFailure(r, "both.imgs");
  EXPECT_EQ(ReadFile(dir_ / "both.imgs"), full);
  ASSERT_EQ(Run({"pack", P("a.png"), "-o", P("both.imgs"), "--overwrite"}).exitCode, 0);
  for (const std::string& name : Listing(dir_))
    EXPECT_EQ(name.find("partial"), std::string::npos) << name;
}

// --- Bad inputs -------------------------------------------------------------------------------------------

// Each broken input must fail alone: one line naming it, exit code 1, no output and no temporary file left,
// the input untouched.
TEST_F(ToolTest, BrokenPicturesFailWithOneLineAndLeaveNothing) {
  Save(RandomImage(IT_RGB8, 64, 48, gamma::sRGB, 5), dir_ / "good.png");
  Save(RandomImage(IT_RGB8, 64, 48, gamma::sRGB, 6), dir_ / "good.jpg");
  const std::string png = ReadFile(dir_ / "good.png");
  std::string jpeg = ReadFile(dir_ / "good.jpg");

  fs::create_directories(dir_ / "bad");
  std::vector<std::string> bad;
  auto add = [&](const std::string& name, const std::string& bytes) {
    WriteFile(dir_ / "bad" / name, bytes);
    bad.push_back(name);
  };
  add("text.png", "this is a text file, not a picture\n");
  add("empty.png", "");
  for (const std::size_t cut :
       {std::size_t(8), std::size_t(20), std::size_t(45), png.size() / 2, png.size() - 20})
    add("cut" + std::to_string(cut) + ".png", png.substr(0, cut));
  // The frame header's length field claims 2 bytes, fewer than the header itself.
  const std::size_t sof = jpeg.find("\xFF\xC0");
  ASSERT_NE(sof, std::string::npos);
  jpeg[sof + 2] = 0;
  jpeg[sof + 3] = 2;
  add("header.jpg", jpeg);
  // A 60000 x 60000 header over a few bytes of data: refused before any plane is allocated.
  std::string huge = png.substr(0, 33);
  auto* ihdr = reinterpret_cast<unsigned char*>(huge.data()) + 8;
  for (int offset : {8, 12}) {
    ihdr[offset] = 0;
    ihdr[offset + 1] = 0;
    ihdr[offset + 2] = 60000 >> 8;
    ihdr[offset + 3] = 60000 & 0xFF;
  }
  const std::uint32_t crc = Crc32(ihdr + 4, 17);
  for (int i = 0; i < 4; ++i)
    ihdr[21 + i] = static_cast<unsigned char>(crc >> (24 - 8 * i));
  add("huge.png", huge + png.substr(33, 40));

  std::vector<std::string> before;
  for (const std::string& name : bad)
    before.push_back(ReadFile(dir_ / "bad" / name));
    // Without sanitizers the tool runs under a 2 GiB address-space cap: a 60000 x 60000 plane cannot fit.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
  const rlim_t cap = 0;
#else
  const rlim_t cap = rlim_t(2) << 30;
#endif
  fs::create_directories(dir_ / "out");
  for (std::size_t i = 0; i < bad.size(); ++i) {
    const Result r = Run({"convert", P("bad/" + bad[i]), "-o", P("out/result.png")}, cap);
    ExpectOneLineFailure(r, bad[i]);
    EXPECT_TRUE(Listing(dir_ / "out").empty()) << bad[i];
    EXPECT_EQ(ReadFile(dir_ / "bad" / bad[i]), before[i]) << bad[i];
  }
  // Refused for its size or for the bytes missing behind it, as the reader checks them; either way by
  // the header alone.
  const std::string hugeError = Run({"info", P("bad/huge.png")}, cap).err;
  EXPECT_TRUE(hugeError.find("too large") != std::string::npos ||
              hugeError.find("truncated") != std::string::npos)
      << hugeError;

  // Together with good ones in one call, on two threads: every bad file gets its line, the good ones
  // their output.
  std::vector<std::string> args{"convert",     "--jobs",        "2", "-o", P("mixed"), "--ext", "tif",
                                P("good.png"), P("missing.png")};
  for (const std::string& name : bad)
    args.push_back(P("bad/" + name));
  const Result r = Run(args, cap);
  EXPECT_EQ(r.exitCode, 1);
  EXPECT_EQ(r.ErrorLines().size(), bad.size() + 1) << r.err;
  EXPECT_NE(r.err.find("missing.png: no such file"), std::string::npos) << r.err;
  EXPECT_EQ(Listing(dir_ / "mixed"), std::vector<std::string>{"good.tif"});
}

TEST_F(ToolTest, OutputsAreNeverForcedNorPartial) {
  Save(RandomImage(IT_RGB8, 16, 16, gamma::sRGB, 8), dir_ / "in.png");
  WriteFile(dir_ / "existing.png", "keep me");
  WriteFile(dir_ / "plainfile", "a file where a folder should be");

  // An existing output stays unless --overwrite is given.
  ExpectOneLineFailure(Run({"convert", P("in.png"), "-o", P("existing.png")}), "existing.png");
  EXPECT_EQ(ReadFile(dir_ / "existing.png"), "keep me");
  EXPECT_EQ(Run({"convert", P("in.png"), "-o", P("existing.png"), "--overwrite"}).exitCode, 0);
  EXPECT_EQ(Load(dir_ / "existing.png").Width(), 16);

  // The input is never the output, even with --overwrite.
  const std::string input = ReadFile(dir_ / "in.png");
  ExpectOneLineFailure(Run({"blur", P("in.png"), "-o", P("in.png"), "--radius", "2", "--overwrite"}),
                       "in.png");
  EXPECT_EQ(ReadFile(dir_ / "in.png"), input);

  // Folders that cannot be written: a path through a regular file (which also stops root).
  ExpectOneLineFailure(Run({"convert", P("in.png"), "-o", P("plainfile/out.png")}), "plainfile");
  ExpectOneLineFailure(Run({"convert", P("in.png"), P("existing.png"), "-o", P("plainfile/sub")}),
                       "plainfile");
  ExpectOneLineFailure(Run({"pack", P("in.png"), "-o", P("plainfile/p.imgs")}), "plainfile");
  EXPECT_EQ(Listing(dir_), (std::vector<std::string>{"existing.png", "in.png", "plainfile"}));
}

// --- Commands with results of their own -------------------------------------------------------------------

TEST_F(ToolTest, MipmapWritesTheChainAndReportsCoverage) {
  // Alpha 1 in a 16 x 8 block of a 64 x 32 picture: coverage 1/16 at level 0, whatever the method.
  Image image(64, 32, IT_RGBA8, gamma::sRGB);
  PixelPlane& plane = image.GetImplRef().Plane();
  for (int y = 0; y < 32; ++y) {
    PixelAccessNoGamma pixel(plane, 0, y);
    for (int x = 0; x < 64; ++x, pixel.Next())
      pixel.SetPixelRGBA({0.5f, 0.25f, 1.0f}, x >= 8 && x < 24 && y >= 4 && y < 12 ? 1.0f : 0.0f);
  }
  Save(image, dir_ / "leaf.png");
  for (const char* method : {"standard", "nearest", "threshold", "dither"}) {
    const std::string out = P(std::string("chain_") + method + ".png");
    const Result r = Run({"mipmap", P("leaf.png"), "-o", out, "-m", method});
    ASSERT_EQ(r.exitCode, 0) << r.err;
    for (int level = 0; level < 7; ++level) {
      const Image l = Load(dir_ / (std::string("chain_") + method + "_mip" + std::to_string(level) + ".png"));
      EXPECT_EQ(l.Width(), std::max(1, 64 >> level)) << method << level;
      EXPECT_EQ(l.Height(), std::max(1, 32 >> level)) << method << level;
    }
    EXPECT_FALSE(fs::exists(dir_ / (std::string("chain_") + method + "_mip7.png")));
    EXPECT_NE(r.out.find("6.25 %"), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("1 x 1"), std::string::npos) << r.out;
  }
}

TEST_F(ToolTest, DilateFillsUndefinedPixelsOnly) {
  Image image = RandomImage(IT_RGBA8, 24, 24, gamma::sRGB, 21);
  PixelPlane& plane = image.GetImplRef().Plane();
  // Alpha 0 (and black) outside the centre; random opaque pixels inside.
  for (int y = 0; y < 24; ++y) {
    for (int x = 0; x < 24; ++x) {
      unsigned char* p = plane.PixelAddress(x, y);
      const bool inside = x >= 6 && x < 18 && y >= 6 && y < 18;
      p[3] = inside ? 255 : 0;
      if (!inside)
        p[0] = p[1] = p[2] = 0;
    }
  }
  Save(image, dir_ / "atlas_Color.png");
  Result r = Run({"dilate", P("atlas_Color.png"), "-o", P("filled.png"), "--distance"});
  ASSERT_EQ(r.exitCode, 0) << r.err;
  const Image filled = Load(dir_ / "filled.png");
  const PixelPlane& f = filled.GetImplRef().Plane();
  int coloured = 0;
  for (int y = 0; y < 24; ++y) {
    for (int x = 0; x < 24; ++x) {
      const unsigned char* p = f.PixelAddress(x, y);
      const unsigned char* q = plane.PixelAddress(x, y);
      if (q[3] == 255) {
        EXPECT_TRUE(std::equal(p, p + 4, q)) << "defined pixel changed at " << x << "," << y;
      } else {
        EXPECT_EQ(p[3], 0) << "alpha changed at " << x << "," << y;
        coloured += p[0] + p[1] + p[2] > 0;
      }
    }
  }
  EXPECT_EQ(coloured, 24 * 24 - 12 * 12);
  const Image distance = Load(dir_ / "filled_distance.png");
  EXPECT_EQ(distance.Width(), 24);

  // Without alpha, undefined pixels come from a mask only.
  Save(RandomImage(IT_RGB8, 24, 24, gamma::sRGB, 22), dir_ / "opaque.png");
  r = Run({"dilate", P("opaque.png"), "-o", P("o.png")});
  ExpectOneLineFailure(r, "opaque.png");
  EXPECT_NE(r.err.find("--mask"), std::string::npos);
  EXPECT_EQ(Run({"dilate", P("opaque.png"), "-o", P("o.png"), "--mask", P("atlas_Color.png")}).exitCode, 0);
  Save(RandomImage(IT_RGB8, 8, 8, gamma::sRGB, 23), dir_ / "small.png");
  ExpectOneLineFailure(Run({"dilate", P("opaque.png"), "-o", P("o2.png"), "--mask", P("small.png")}),
                       "opaque.png");
}

TEST_F(ToolTest, QuantizeWritesIndexedPngsOfTheColoursAsked) {
  // Four flat colours in quadrants: a palette of 8 holds them, up to the quantiser's 5-6-5 histogram cells.
  Image blocks(32, 32, IT_RGB8, gamma::sRGB);
  const unsigned char colours[4][3] = {{200, 30, 40}, {20, 180, 60}, {30, 40, 220}, {240, 240, 230}};
  for (int y = 0; y < 32; ++y) {
    for (int x = 0; x < 32; ++x) {
      const unsigned char* c = colours[(y / 16) * 2 + x / 16];
      unsigned char* p = blocks.GetImplRef().Plane().PixelAddress(x, y);
      p[0] = c[2], p[1] = c[1], p[2] = c[0];
    }
  }
  Save(blocks, dir_ / "blocks.png");
  Save(RandomImage(IT_RGBA8, 40, 30, gamma::sRGB, 41), dir_ / "noise.png");
  for (const char* dither : {"", "--dither"}) {
    const std::string suffix = *dither ? "_dither" : "";
    std::vector<std::string> args{"quantize", P("blocks.png"), P("noise.png"), "-o", P("q" + suffix), "-c",
                                  "8"};
    if (*dither)
      args.push_back(dither);
    const Result r = Run(args);
    ASSERT_EQ(r.exitCode, 0) << r.err;
    for (const char* name : {"blocks.png", "noise.png"}) {
      const fs::path path = dir_ / ("q" + suffix) / name;
      io::PictureInfo info;
      ASSERT_TRUE(io::ReadPictureInfo(ZELPath(ZELString::FromUTF8(path.string())), info).IsOk());
      EXPECT_TRUE(info.palette) << path;
      const Image q = Load(path);
      const PixelPlane& plane = q.GetImplRef().Plane();
      std::set<std::array<unsigned char, 3>> seen;
      for (int y = 0; y < plane.Height(); ++y)
        for (int x = 0; x < plane.Width(); ++x)
          seen.insert(
              {plane.PixelAddress(x, y)[0], plane.PixelAddress(x, y)[1], plane.PixelAddress(x, y)[2]});
      EXPECT_LE(seen.size(), 8u) << path;
    }
    const Image q = Load(dir_ / ("q" + suffix) / "blocks.png");
    for (int y = 0; y < 32; ++y) {
      for (int x = 0; x < 32; ++x) {
        const unsigned char* c = colours[(y / 16) * 2 + x / 16];
        const unsigned char* p = q.GetImplRef().Plane().PixelAddress(x, y);
        ASSERT_NEAR(p[2], c[0], 8) << x << "," << y << " " << dither;
        ASSERT_NEAR(p[1], c[1], 8) << x << "," << y << " " << dither;
        ASSERT_NEAR(p[0], c[2], 8) << x << "," << y << " " << dither;
      }
    }
  }
  ExpectOneLineFailure(Run({"quantize", P("blocks.png"), "-o", P("q.jpg")}), "q.jpg");
  EXPECT_FALSE(fs::exists(dir_ / "q.jpg"));
}

TEST_F(ToolTest, PreviewIsTheSceneBitmapReadBack) {
  Image half(64, 32, IT_RGBA8, gamma::sRGB);
  for (int y = 0; y < 32; ++y) {
    PixelAccessNoGamma pixel(half.GetImplRef().Plane(), 0, y);
    for (int x = 0; x < 64; ++x, pixel.Next())
      pixel.SetPixelRGBA({0.0f, 0.0f, 1.0f}, x < 32 ? 1.0f : 0.0f);  // left opaque blue, right transparent
  }
  Save(half, dir_ / "half.png");
  for (const char* quantized : {"", "--quantized"}) {
    std::vector<std::string> args{"preview", P("half.png"),  "-o",     P("p.png"),   "--size",
                                  "32",      "--background", "FF0000", "--overwrite"};
    if (*quantized)
      args.push_back(quantized);
    const Result r = Run(args);
    ASSERT_EQ(r.exitCode, 0) << r.err;
    EXPECT_NE(r.out.find("preview 32 x 16"), std::string::npos) << r.out;
    const Image p = Load(dir_ / "p.png");
    ASSERT_EQ(p.Width(), 32);
    ASSERT_EQ(p.Height(), 16);
    const PixelPlane& plane = p.GetImplRef().Plane();
    // A quantised preview is off by up to the quantiser's histogram cell (5 bits for red, blue).
    const int tolerance = *quantized ? 8 : 1;
    // Away from the seam: blue where the picture is opaque, the background where it is transparent.
    for (int y = 0; y < 16; ++y) {
      for (const int x : {2, 12, 20, 29}) {
        const unsigned char* px = plane.PixelAddress(x, y);
        const bool opaque = x < 16;
        EXPECT_NEAR(px[0], opaque ? 255 : 0, tolerance) << x << "," << y << " " << quantized;
        EXPECT_NEAR(px[2], opaque ? 0 : 255, tolerance) << x << "," << y << " " << quantized;
      }
    }
  }
}

TEST_F(ToolTest, InfoNamesFormatTypeAndSiblings) {
  ASSERT_EQ(Run({"samples", P("s"), "--size", "64"}).exitCode, 0);
  EXPECT_EQ(Listing(dir_ / "s"),
            (std::vector<std::string>{"atlas_Color.png", "atlas_Normal.png", "atlas_Roughness.png"}));
  const Result r = Run({"info", P("s/atlas_Color.png"), P("s/atlas_Roughness.png")});
  ASSERT_EQ(r.exitCode, 0) << r.err;
  const std::size_t second = r.out.find("/atlas_Roughness.png\n");
  ASSERT_NE(second, std::string::npos) << r.out;
  const std::string color = r.out.substr(0, second), roughness = r.out.substr(second);
  for (const char* expected :
       {"64 x 64", "rgba8", "Color (file tag)", "atlas_Normal.png", "atlas_Roughness.png"})
    EXPECT_NE(color.find(expected), std::string::npos) << expected << "\n" << r.out;
  for (const char* expected : {"grey8", "Roughness (file tag)", "atlas_Color.png"})
    EXPECT_NE(roughness.find(expected), std::string::npos) << expected << "\n" << r.out;
}

TEST_F(ToolTest, ManyFilesGiveTheSameBytesOnOneThreadAndOnSeveral) {
  ASSERT_EQ(Run({"samples", P("in"), "--size", "64", "--count", "12"}).exitCode, 0);
  std::vector<std::string> inputs;
  for (const std::string& name : Listing(dir_ / "in"))
    inputs.push_back(P("in/" + name));
  ASSERT_EQ(inputs.size(), 12u);
  for (const char* jobs : {"1", "3"}) {
    std::vector<std::string> args{
        "blur", "--sigma", "1.5", "--jobs", jobs, "-o", P(std::string("out") + jobs)};
    args.insert(args.end(), inputs.begin(), inputs.end());
    const Result r = Run(args);
    ASSERT_EQ(r.exitCode, 0) << r.err;
    EXPECT_TRUE(r.err.empty()) << r.err;
  }
  ASSERT_EQ(Listing(dir_ / "out1"), Listing(dir_ / "in"));
  for (const std::string& name : Listing(dir_ / "in"))
    EXPECT_EQ(ReadFile(dir_ / "out1" / name), ReadFile(dir_ / "out3" / name)) << name;
}

TEST_F(ToolTest, DemoWritesResultsAndAContactSheet) {
  const Result r = Run({"demo", P("demo"), "--size", "128"});
  ASSERT_EQ(r.exitCode, 0) << r.err;
  EXPECT_NE(r.out.find("contact_sheet.png"), std::string::npos) << r.out;
  const Image sheet = Load(dir_ / "demo/contact_sheet.png");
  EXPECT_GT(sheet.Width(), 5 * 200);
  EXPECT_GT(sheet.Height(), 4 * 200);
  for (const char* file : {"samples/atlas_Color.png", "samples/sky.exr", "convert_sky.hdr", "atlas.imgs",
                           "dilate_color.png", "mipmap_dither_mip3.png", "info.txt"})
    EXPECT_TRUE(fs::exists(dir_ / "demo" / file)) << file;

  // Without its font the demo says which font it looked for, and draws no sheet.
  const Result noFont = RunTool({"demo", P("nofont")}, dir_, 0, "/nonexistent/Font.ttf");
  ExpectOneLineFailure(noFont, "/nonexistent/Font.ttf");
  EXPECT_FALSE(fs::exists(dir_ / "nofont/contact_sheet.png"));
  WriteFile(dir_ / "notafont.ttf", "plain text");
  ExpectOneLineFailure(RunTool({"demo", P("badfont")}, dir_, 0, P("notafont.ttf").c_str()), "notafont.ttf");
}

}  // namespace
}  // namespace imagery

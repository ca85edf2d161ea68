// Gamma settings: the per-format split, the settings keys, and both chunk versions, whole and broken.
#include <functional>
#include <set>
#include <vector>

#include <gtest/gtest.h>

#include "imagery/gamma_settings.h"
#include "imagery_host/settings.h"
#include "imagery_host/stream.h"

namespace imagery {
namespace {

namespace xml = ::config::xml;
using Bytes = std::vector<unsigned char>;
using Fill = std::function<void(ZELStream&)>;

GammaSettings Make(float input, float output, float screen) {
  GammaSettings settings;
  settings.SetInputGamma(GammaValue(input));
  settings.SetOutputGamma(GammaValue(output));
  settings.SetScreenGamma(GammaValue(screen));
  return settings;
}

// The three gammas an 8-bit colour image gets, as one comparable value.
std::vector<float> Gammas(const GammaSettings& settings) {
  return {settings.InputGamma(IT_RGB8).Value(), settings.OutputGamma(IT_RGB8).Value(),
          settings.ScreenGamma().Value()};
}

// Stream builders: a chunk holding whatever its parts write, typed values, and raw bytes.
template <class... Piece>
Fill Chunk(unsigned short id, Piece... parts) {
  return [=](ZELStream& s) {
    ZELWriteChunk chunk(&s, id);
    (Fill(parts)(s), ...);
  };
}
template <class... T>
Fill Values(T... values) {
  return [=](ZELStream& s) { (s.WriteTyped(values), ...); };
}
Fill Raw(const Bytes& bytes) {
  return [=](ZELStream& s) { s.Write(bytes.data(), bytes.size()); };
}
Bytes Write(const Fill& fill) {
  ZELMemoryStream stream;
  fill(stream);
  return stream.Bytes();
}
// The body of a version 0 chunk, and a version 1 chunk in the order it is written with `output` as its
// middle value.
Fill V0(unsigned char enabled) {
  return Values(enabled, 0.5f, 0.6f, 0.7f, (unsigned char)0);
}
Fill V1With(const Fill& output) {
  return Chunk(kGammaSettingsChunkV1, Chunk(kGammaSettingsInputChunk, Values(0.5f)),
               Chunk(kGammaSettingsOutputChunk, output), Chunk(kGammaSettingsScreenChunk, Values(0.7f)));
}

TEST(GammaSettings, IntegerFormatsTakeTheStoredGammasAndEveryOtherFormatIsLinear) {
  EXPECT_EQ(Gammas(GetCurrentGammaSettings()), (std::vector<float>{-2, -2, -2}));
  const GammaSettings settings = Make(2.2f, 1.8f, 2.4f);
  const std::set<int> integer = {IT_RGB8,   IT_Grayscale8,  IT_RGBA8,    IT_RGB16,
                                 IT_RGBA16, IT_Grayscale16, IT_UNDEFINED};
  for (int value = 0; value < 256; ++value) {
    const bool stored = integer.count(value) != 0;
    EXPECT_EQ(settings.InputGamma(static_cast<EImageType>(value)).Value(), stored ? 2.2f : 1.0f) << value;
    EXPECT_EQ(settings.OutputGamma(static_cast<EImageType>(value)).Value(), stored ? 1.8f : 1.0f) << value;
  }
  EXPECT_TRUE(settings == Make(2.2f, 1.8f, 2.4f));
  EXPECT_TRUE(settings != Make(1.0f, 1.8f, 2.4f) && settings != Make(2.2f, 1.0f, 2.4f) &&
              settings != Make(2.2f, 1.8f, 1.0f));
}

TEST(GammaSettings, KeysHoldTheDefaultsAndFeedTheRightFields) {
  GammaSettings settings = Make(3.0f, 4.0f, 5.0f);
  settings.ReadFromConfigManager();
  EXPECT_EQ(Gammas(settings), (std::vector<float>{-2, -2, -2}));
  Make(1.5f, 1.6f, 1.7f).WriteToConfigManager();
  settings.ReadFromConfigManager();
  EXPECT_EQ(Gammas(settings), (std::vector<float>{1.5f, 1.6f, 1.7f}));
  xml::SetProperty("imagery/OutputGamma", L"1.6", "kor");  // not a float: read as the default
  settings.ReadFromConfigManager();
  EXPECT_EQ(Gammas(settings), (std::vector<float>{1.5f, -2, 1.7f}));
  // The initialisers read the record when they run, so a host can change a default before a reset.
  config::ScreenGamma.default_value = 2.4f;
  xml::ResetToDefaults();
  settings.ReadFromConfigManager();
  EXPECT_EQ(Gammas(settings), (std::vector<float>{-2, -2, 2.4f}));
  config::ScreenGamma.default_value = -2.0f;
  xml::ResetToDefaults();
}

// Reading changes only the values a chunk carries, read into settings holding (3, 4, 5), and stops at the
// first broken one.
TEST(GammaSettings, ChunksChangeOnlyWhatTheyCarryAndStopAtTheFirstBrokenValue) {
  const GammaSettings written = Make(0.5f, 0.6f, 0.7f);
  EXPECT_EQ(Write([&](ZELStream& s) { EXPECT_TRUE(written.WriteV0(&s, true)); }),
            Write(Chunk(kGammaSettingsChunkV0, V0(1))));
  EXPECT_EQ(Write([&](ZELStream& s) { EXPECT_TRUE(written.WriteV1(&s)); }), Write(V1With(Values(0.6f))));
  GammaSettings reader;
  ZELReadChunk unopened;
  EXPECT_FALSE(written.WriteV0(nullptr, true) || reader.ReadV0(nullptr, unopened) ||
               reader.ReadV1(nullptr, unopened));

  struct Case {
    const char* what;
    Fill chunk;
    bool ok;
    std::vector<float> gammas;
  };
  const Bytes garbage = {'a', 'b', 'c'};
  std::vector<Case> cases = {
      // clang-format off
      {"v0", Chunk(kGammaSettingsChunkV0, V0(1)), true, {0.5f, 0.6f, 0.7f}},
      {"v0 disabled, sub-chunks skipped", Chunk(kGammaSettingsChunkV0, V0(0), Chunk(0x1234, Values(8.0f)), Chunk(kGammaSettingsInputChunk, Values(9.0f))), true, {1, 1, 1}},
      {"v0 bytes after it", Chunk(kGammaSettingsChunkV0, V0(1), Raw(garbage)), false, {0.5f, 0.6f, 0.7f}},
      {"unknown chunk", Chunk(0xFEBE, V0(1)), false, {3, 4, 5}},
      {"v1", V1With(Values(0.6f)), true, {0.5f, 0.6f, 0.7f}},
      {"v1 out of order, unknown parts skipped", Chunk(kGammaSettingsChunkV1, Chunk(kGammaSettingsScreenChunk, Values(0.7f, 9.0f)), Chunk(kGammaSettingsInputChunk, Values(9.0f)), Chunk(0x1234, Values(8.0f))), true, {9, 4, 0.7f}},
      {"v1 truncated float", V1With(Raw({3, 0, 'a', 'b'})), false, {0.5f, 4, 5}},
      {"v1 garbage", Chunk(kGammaSettingsChunkV1, Raw(garbage)), false, {3, 4, 5}},
      // clang-format on
  };
  // A version 0 chunk cut short keeps the values read before the cut: a flag, then floats of 6 bytes each.
  const Bytes v0 = Write(V0(1));
  for (std::size_t cut = 0; cut < v0.size(); ++cut) {
    const std::size_t floats = cut < 3 ? 0 : (cut - 3) / 6;
    cases.push_back({"v0 cut",
                     Chunk(kGammaSettingsChunkV0, Raw(Bytes(v0.begin(), v0.begin() + cut))),
                     false,
                     {floats > 0 ? 0.5f : 3, floats > 1 ? 0.6f : 4, floats > 2 ? 0.7f : 5}});
  }
  for (const Case& c : cases) {
    ZELMemoryStream stream(Write(c.chunk));
    GammaSettings settings = Make(3.0f, 4.0f, 5.0f);
    ZELReadChunk chunk;
    ASSERT_TRUE(chunk.InitChunk(&stream)) << c.what;
    EXPECT_EQ(settings.Read(&stream, chunk), c.ok) << c.what << " " << &c - cases.data();
    EXPECT_EQ(Gammas(settings), c.gammas) << c.what << " " << &c - cases.data();
  }
}

}  // namespace
}  // namespace imagery

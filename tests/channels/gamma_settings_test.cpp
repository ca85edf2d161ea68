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

void ExpectGammas(const GammaSettings& settings, float input, float output, float screen) {
  EXPECT_EQ(settings.InputGamma(IT_RGB8).Value(), input);
  EXPECT_EQ(settings.OutputGamma(IT_RGB8).Value(), output);
  EXPECT_EQ(settings.ScreenGamma().Value(), screen);
}

Fill Chunk(unsigned short id, const Fill& fill) {
  return [=](ZELStream& s) {
    ZELWriteChunk chunk(&s, id);
    fill(s);
  };
}
template <class T>
Fill Typed(T value) {
  return [=](ZELStream& s) { s.WriteTyped(value); };
}
Fill Raw(const Bytes& bytes) {
  return [=](ZELStream& s) { s.Write(bytes.data(), bytes.size()); };
}
template <class... F>
Fill Seq(F... fills) {
  return [=](ZELStream& s) { (Fill(fills)(s), ...); };
}
Fill V0(unsigned char enabled, float input, float output, float screen) {
  return Seq(Typed(enabled), Typed(input), Typed(output), Typed(screen), Typed<unsigned char>(0));
}
// A version 1 chunk whose screen value, between an input and an output value, is `screen`.
Fill V1Around(const Fill& screen) {
  return Chunk(kGammaSettingsChunkV1,
               Seq(Chunk(kGammaSettingsInputChunk, Typed(0.5f)), Chunk(kGammaSettingsScreenChunk, screen),
                   Chunk(kGammaSettingsOutputChunk, Typed(0.6f))));
}
Fill Written(int version, bool enabled = true) {
  return [=](ZELStream& s) {
    const GammaSettings settings = Make(0.5f, 0.6f, 0.7f);
    EXPECT_TRUE(version == 0 ? settings.WriteV0(&s, enabled) : settings.WriteV1(&s));
  };
}
Bytes Write(const Fill& fill) {
  ZELMemoryStream stream;
  fill(stream);
  return stream.Bytes();
}

// Reads the chunk that `fill` writes into settings holding (3, 4, 5). Whatever the reader answers, the
// caller's chunk must still end where its header says, so the marker chunk written after it comes next.
bool ReadBack(const Fill& fill, GammaSettings& settings) {
  ZELMemoryStream stream;
  fill(stream);
  Chunk(0x7777, Typed(0))(stream);
  stream.Rewind();
  settings = Make(3.0f, 4.0f, 5.0f);
  bool ok = false;
  {
    ZELReadChunk chunk;
    EXPECT_TRUE(chunk.InitChunk(&stream));
    ok = settings.Read(&stream, chunk);
  }
  EXPECT_EQ(stream.GetNextChunkID(), 0x7777);
  return ok;
}

TEST(GammaSettings, IntegerFormatsTakeTheStoredGammasAndEveryOtherFormatIsLinear) {
  ExpectGammas(GammaSettings(), -2.0f, -2.0f, -2.0f);
  EXPECT_EQ(&GetCurrentGammaSettings(), &GetCurrentGammaSettings());
  ExpectGammas(GetCurrentGammaSettings(), -2.0f, -2.0f, -2.0f);
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

// The settings store is process-wide: leave it as the library registered it.
class GammaSettingsStore : public ::testing::Test {
 protected:
  void TearDown() override {
    config::ScreenGamma.default_value = -2.0f;
    xml::ResetToDefaults();
  }
};

TEST_F(GammaSettingsStore, KeysHoldTheDefaultsAndFeedTheRightFields) {
  for (const config::GammaKey* key : {&config::InputGamma, &config::OutputGamma, &config::ScreenGamma}) {
    ASSERT_TRUE(xml::PropertyExists(key->name, "kor")) << key->name;
    EXPECT_EQ(xml::GetPropertyRef(key->name, "kor", 0.0f), -2.0f) << key->name;
  }
  xml::Clear();
  GammaSettings settings = Make(3.0f, 4.0f, 5.0f);
  settings.ReadFromConfigManager();
  ExpectGammas(settings, -2.0f, -2.0f, -2.0f);
  EXPECT_EQ(xml::GetPropertyRef("imagery/ScreenGamma", "kor", 0.0f), -2.0f) << "the default is stored";

  xml::SetProperty("imagery/InputGamma", 2.2f, "kor");
  xml::SetProperty("imagery/OutputGamma", L"2.2", "kor");
  xml::SetProperty("imagery/ScreenGamma", 1.0f, "kor");
  settings.ReadFromConfigManager();
  ExpectGammas(settings, 2.2f, -2.0f, 1.0f);
  Make(1.5f, 1.6f, 1.7f).WriteToConfigManager();
  settings.ReadFromConfigManager();
  ExpectGammas(settings, 1.5f, 1.6f, 1.7f);

  // The initialisers read the record when they run, so a host can change a default before a reset.
  config::ScreenGamma.default_value = 2.4f;
  xml::ResetToDefaults();
  settings.ReadFromConfigManager();
  ExpectGammas(settings, -2.0f, -2.0f, 2.4f);
}

TEST(GammaSettings, VersionZeroKeepsWhatWasReadBeforeAFailure) {
  GammaSettings settings;
  const Bytes data = Write(V0(1, 0.5f, 0.6f, 0.7f));
  for (std::size_t cut = 0; cut < data.size(); ++cut) {
    EXPECT_FALSE(
        ReadBack(Chunk(kGammaSettingsChunkV0, Raw(Bytes(data.begin(), data.begin() + cut))), settings));
    const std::size_t floats = cut < 3 ? 0 : (cut - 3) / 6;  // a flag, then floats of 6 bytes each
    ExpectGammas(settings, floats > 0 ? 0.5f : 3.0f, floats > 1 ? 0.6f : 4.0f, floats > 2 ? 0.7f : 5.0f);
  }
}

TEST(GammaSettings, ChunksChangeOnlyWhatTheyCarryAndStopAtTheFirstBrokenValue) {
  struct Case {
    const char* what;
    Fill chunk;
    bool ok;
    float input, output, screen;
  };
  const Bytes garbage = {'a', 'b', 'c'};
  const Fill subChunks = Seq(Chunk(0x1234, Typed(9.0f)), Chunk(kGammaSettingsInputChunk, Typed(9.0f)));
  // clang-format off
  const Case cases[] = {
      {"v0 written", Written(0), true, 0.5f, 0.6f, 0.7f},
      {"v0 written disabled", Written(0, false), true, 1, 1, 1},
      {"v1 written", Written(1), true, 0.5f, 0.6f, 0.7f},
      {"v0 disabled, sub-chunks skipped", Chunk(kGammaSettingsChunkV0, Seq(V0(0, 0.5f, 0.6f, 0.7f), subChunks)), true, 1, 1, 1},
      {"v0 double value", Chunk(kGammaSettingsChunkV0, Seq(Typed<unsigned char>(1), Typed(0.5))), false, 3, 4, 5},
      {"v0 bytes after it", Chunk(kGammaSettingsChunkV0, Seq(V0(1, 0.5f, 0.6f, 0.7f), Raw(garbage))), false, 0.5f, 0.6f, 0.7f},
      {"unknown chunk", Chunk(0xFEBE, V0(1, 0.5f, 0.6f, 0.7f)), false, 3, 4, 5},
      {"v1 empty", Chunk(kGammaSettingsChunkV1, Seq()), true, 3, 4, 5},
      {"v1 output only", Chunk(kGammaSettingsChunkV1, Chunk(kGammaSettingsOutputChunk, Typed(0.6f))), true, 3, 0.6f, 5},
      {"v1 skipped parts", Chunk(kGammaSettingsChunkV1, Seq(subChunks, Chunk(kGammaSettingsScreenChunk, Seq(Typed(0.7f), Typed(9.0f))))), true, 9, 4, 0.7f},
      {"v1 in another order", V1Around(Typed(0.7f)), true, 0.5f, 0.6f, 0.7f},
      {"v1 double", V1Around(Typed(0.7)), false, 0.5f, 4, 5},
      {"v1 short", V1Around(Typed<short>(1)), false, 0.5f, 4, 5},
      {"v1 truncated float", V1Around(Raw({3, 0, 'a', 'b'})), false, 0.5f, 4, 5},
      {"v1 empty value", V1Around(Seq()), false, 0.5f, 4, 5},
      {"v1 garbage", Chunk(kGammaSettingsChunkV1, Raw(garbage)), false, 3, 4, 5},
  };
  // clang-format on
  EXPECT_EQ(Write(Written(0)), Write(Chunk(kGammaSettingsChunkV0, V0(1, 0.5f, 0.6f, 0.7f))));
  EXPECT_EQ(Write(Written(1)),
            Write(Chunk(kGammaSettingsChunkV1, Seq(Chunk(kGammaSettingsInputChunk, Typed(0.5f)),
                                                   Chunk(kGammaSettingsOutputChunk, Typed(0.6f)),
                                                   Chunk(kGammaSettingsScreenChunk, Typed(0.7f))))));
  EXPECT_FALSE(Make(1, 1, 1).WriteV0(nullptr, true));
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    GammaSettings settings;
    EXPECT_EQ(ReadBack(c.chunk, settings), c.ok);
    ExpectGammas(settings, c.input, c.output, c.screen);
  }
}

}  // namespace
}  // namespace imagery

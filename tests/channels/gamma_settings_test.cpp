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

Bytes Chunk(unsigned short id, const Fill& fill) {
  ZELMemoryStream stream;
  {
    ZELWriteChunk chunk(&stream, id);
    fill(stream);
  }
  return stream.Bytes();
}

// Reads `bytes` (one chunk, a marker chunk is appended) into settings holding (3, 4, 5). Whatever the
// reader answers, the caller's chunk must still end where its header says: the marker comes next.
bool ReadBack(Bytes bytes, GammaSettings& settings) {
  const Bytes marker = Chunk(0x7777, [](ZELStream& s) { s.WriteTyped(1); });
  bytes.insert(bytes.end(), marker.begin(), marker.end());
  ZELMemoryStream stream(bytes);
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

Fill V0Content(unsigned char enabled, float input, float output, float screen) {
  return [=](ZELStream& s) {
    s.WriteTyped(enabled);
    s.WriteTyped(input);
    s.WriteTyped(output);
    s.WriteTyped(screen);
    s.WriteTyped<unsigned char>(0);
  };
}

Fill SubChunk(unsigned short id, const Fill& fill) {
  return [=](ZELStream& s) {
    ZELWriteChunk chunk(&s, id);
    fill(s);
  };
}

Fill TypedFloat(float value) {
  return [=](ZELStream& s) { s.WriteTyped(value); };
}

TEST(GammaSettings, IntegerFormatsTakeTheStoredGammasAndEveryOtherFormatIsLinear) {
  ExpectGammas(GammaSettings(), -2.0f, -2.0f, -2.0f);
  EXPECT_EQ(&GetCurrentGammaSettings(), &GetCurrentGammaSettings());
  ExpectGammas(GetCurrentGammaSettings(), -2.0f, -2.0f, -2.0f);

  const GammaSettings settings = Make(2.2f, 1.8f, 2.4f);
  const std::set<int> integer = {IT_RGB8,   IT_Grayscale8,  IT_RGBA8,    IT_RGB16,
                                 IT_RGBA16, IT_Grayscale16, IT_UNDEFINED};
  for (int value = 0; value < 256; ++value) {
    const EImageType type = static_cast<EImageType>(value);
    const bool stored = integer.count(value) != 0;
    EXPECT_EQ(settings.InputGamma(type).Value(), stored ? 2.2f : 1.0f) << value;
    EXPECT_EQ(settings.OutputGamma(type).Value(), stored ? 1.8f : 1.0f) << value;
  }
  EXPECT_TRUE(settings == Make(2.2f, 1.8f, 2.4f));
  EXPECT_FALSE(settings == Make(1.0f, 1.8f, 2.4f));
  EXPECT_FALSE(settings == Make(2.2f, 1.0f, 2.4f));
  EXPECT_TRUE(settings != Make(2.2f, 1.8f, 1.0f));
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
  const config::GammaKey* keys[] = {&config::InputGamma, &config::OutputGamma, &config::ScreenGamma};
  for (const config::GammaKey* key : keys) {
    ASSERT_TRUE(xml::PropertyExists(key->name, key->project)) << key->name;
    EXPECT_EQ(xml::GetPropertyRef(key->name, "kor", 0.0f), -2.0f) << key->name;
  }
  EXPECT_STREQ(config::OutputGamma.name, "imagery/OutputGamma");

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

TEST(GammaSettings, BothChunkVersionsRoundTripInTheirExactLayouts) {
  const GammaSettings source = Make(2.2f, -2.0f, 1.8f);
  for (ZELByteOrder order : {ZELByteOrder::LittleEndian, ZELByteOrder::BigEndian}) {
    for (int version = 0; version < 3; ++version) {
      ZELMemoryStream stream(order);
      ASSERT_TRUE(version == 2 ? source.WriteV1(&stream) : source.WriteV0(&stream, version == 1));
      stream.Rewind();
      ZELReadChunk chunk;
      ASSERT_TRUE(chunk.InitChunk(&stream));
      GammaSettings read;
      EXPECT_TRUE(read.Read(&stream, chunk));
      EXPECT_TRUE(read == (version == 0 ? Make(1.0f, 1.0f, 1.0f) : source)) << version;
    }
  }
  ZELMemoryStream written;
  source.WriteV0(&written, true);
  EXPECT_EQ(written.Bytes(), Chunk(kGammaSettingsChunkV0, V0Content(1, 2.2f, -2.0f, 1.8f)));
  ZELMemoryStream writtenV1;
  source.WriteV1(&writtenV1);
  EXPECT_EQ(writtenV1.Bytes(), Chunk(kGammaSettingsChunkV1, [](ZELStream& s) {
              SubChunk(kGammaSettingsInputChunk, TypedFloat(2.2f))(s);
              SubChunk(kGammaSettingsOutputChunk, TypedFloat(-2.0f))(s);
              SubChunk(kGammaSettingsScreenChunk, TypedFloat(1.8f))(s);
            }));
  EXPECT_FALSE(source.WriteV0(nullptr, true));
}

TEST(GammaSettings, VersionZeroKeepsWhatWasReadBeforeAFailure) {
  GammaSettings settings;
  const Bytes whole = Chunk(kGammaSettingsChunkV0, V0Content(1, 0.5f, 0.6f, 0.7f));
  const std::size_t header = ZELStream::kChunkHeaderSize;
  // Cut the data short at every length, with a header that agrees with the cut.
  for (std::size_t cut = 0; cut < whole.size() - header; ++cut) {
    const Bytes data(whole.begin() + header, whole.begin() + header + cut);
    EXPECT_FALSE(
        ReadBack(Chunk(kGammaSettingsChunkV0, [&](ZELStream& s) { s.Write(data.data(), cut); }), settings))
        << cut;
    const std::size_t floats = cut < 3 ? 0 : (cut - 3) / 6;
    ExpectGammas(settings, floats > 0 ? 0.5f : 3.0f, floats > 1 ? 0.6f : 4.0f, floats > 2 ? 0.7f : 5.0f);
  }

  EXPECT_TRUE(ReadBack(Chunk(kGammaSettingsChunkV0,
                             [](ZELStream& s) {
                               V0Content(0, 0.5f, 0.6f, 0.7f)(s);
                               SubChunk(0x1234, TypedFloat(9.0f))(s);
                               SubChunk(kGammaSettingsInputChunk, TypedFloat(9.0f))(s);
                             }),
                       settings));
  ExpectGammas(settings, 1.0f, 1.0f, 1.0f);

  EXPECT_FALSE(ReadBack(Chunk(kGammaSettingsChunkV0,
                              [](ZELStream& s) {
                                s.WriteTyped<unsigned char>(1);
                                s.WriteTyped(0.5);  // a double where a float belongs
                              }),
                        settings));
  ExpectGammas(settings, 3.0f, 4.0f, 5.0f);
  EXPECT_FALSE(ReadBack(Chunk(kGammaSettingsChunkV0,
                              [](ZELStream& s) {
                                V0Content(1, 0.5f, 0.6f, 0.7f)(s);
                                s.Write("abc", 3);  // too short to be a sub-chunk
                              }),
                        settings));
  EXPECT_FALSE(ReadBack(Chunk(0xFEBE, V0Content(1, 0.5f, 0.6f, 0.7f)), settings)) << "unknown chunk";
  ExpectGammas(settings, 3.0f, 4.0f, 5.0f);
}

TEST(GammaSettings, VersionOneChangesOnlyTheValuesItCarries) {
  GammaSettings settings;
  EXPECT_TRUE(ReadBack(Chunk(kGammaSettingsChunkV1, SubChunk(kGammaSettingsOutputChunk, TypedFloat(0.6f))),
                       settings));
  ExpectGammas(settings, 3.0f, 0.6f, 5.0f);
  EXPECT_TRUE(ReadBack(Chunk(kGammaSettingsChunkV1, [](ZELStream&) {}), settings));
  ExpectGammas(settings, 3.0f, 4.0f, 5.0f);

  // Unknown sub-chunks and extra bytes inside a known one are skipped.
  EXPECT_TRUE(ReadBack(Chunk(kGammaSettingsChunkV1,
                             [](ZELStream& s) {
                               SubChunk(0x4242, TypedFloat(9.0f))(s);
                               SubChunk(kGammaSettingsScreenChunk, [](ZELStream& t) {
                                 t.WriteTyped(0.7f);
                                 t.WriteTyped(9.0f);
                               })(s);
                             }),
                       settings));
  ExpectGammas(settings, 3.0f, 4.0f, 0.7f);

  const std::vector<Fill> broken = {
      [](ZELStream& s) { s.WriteTyped(0.8); },       // wrong type tag
      [](ZELStream& s) { s.WriteTyped<short>(1); },  // wrong type tag, shorter value
      [](ZELStream& s) {
        s.WriteSwap<unsigned short>(3);
        s.Write("ab", 2);
      },                  // truncated float
      [](ZELStream&) {},  // empty
  };
  for (const Fill& screen : broken) {
    EXPECT_FALSE(ReadBack(Chunk(kGammaSettingsChunkV1,
                                [&](ZELStream& s) {
                                  SubChunk(kGammaSettingsInputChunk, TypedFloat(0.5f))(s);
                                  SubChunk(kGammaSettingsScreenChunk, screen)(s);
                                  SubChunk(kGammaSettingsOutputChunk, TypedFloat(0.6f))(s);
                                }),
                          settings));
    ExpectGammas(settings, 0.5f, 4.0f, 5.0f);
  }
  EXPECT_FALSE(ReadBack(Chunk(kGammaSettingsChunkV1, [](ZELStream& s) { s.Write("abcd", 4); }), settings));
}

}  // namespace
}  // namespace imagery

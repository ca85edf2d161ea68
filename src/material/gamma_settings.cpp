// The application's gammas: their settings keys, the process-wide instance and the two stream forms.
#include "imagery/gamma_settings.h"

#include <cstdint>

#include "imagery_host/settings.h"
#include "imagery_host/stream.h"

namespace imagery {
namespace config {

// Constant-initialised to sRGB, so the defaults hold before any dynamic initialiser runs. The records
// stay writable: a host may change a default before resetting the settings, and the initialisers read
// the record when they run.
GammaKey InputGamma{"imagery/InputGamma", "kor", gamma::sRGB.Value()};
GammaKey OutputGamma{"imagery/OutputGamma", "kor", gamma::sRGB.Value()};
GammaKey ScreenGamma{"imagery/ScreenGamma", "kor", gamma::sRGB.Value()};

}  // namespace config

namespace {

// Inside namespace imagery, plain "config" names imagery::config; the settings library is ::config.
namespace settings = ::config::xml;

void Register(const config::GammaKey& key) {
  ::config::xml2::Register(key.project, key.name, [&key] {
    if (!settings::PropertyExists(key.name, key.project)) {
      settings::SetProperty(key.name, key.default_value, key.project);
    }
  });
}

[[maybe_unused]] const bool kRegistered = [] {
  Register(config::InputGamma);
  Register(config::OutputGamma);
  Register(config::ScreenGamma);
  return true;
}();

GammaValue ReadKey(const config::GammaKey& key) {
  return GammaValue(settings::GetPropertyRef(key.name, key.project, key.default_value));
}

// The formats that take the configured gammas: the 8-bit and 16-bit ones, and IT_UNDEFINED (unlike
// IsGammaEncoded, which answers for stored planes), as bits over the values 0..12. Every other format
// holds linear values.
bool TakesConfiguredGamma(EImageType type) {
  constexpr std::uint32_t kEncodedFormats = 0x1077u;
  return type <= IT_UNDEFINED && ((kEncodedFormats >> type) & 1u) != 0;
}

bool SameGamma(GammaValue a, GammaValue b) {
  return !(a.Value() < b.Value()) && !(b.Value() < a.Value());
}

bool ReadFloat(ZELStream* stream, GammaValue& target) {
  float value = 0.0f;
  if (!stream->ReadTyped(value)) {
    return false;
  }
  target = GammaValue(value);
  return true;
}

bool WriteValueChunk(ZELStream* stream, unsigned short id, GammaValue value) {
  ZELWriteChunk chunk(stream, id);
  return chunk.IsOk() && stream->WriteTyped(value.Value()) && chunk.End();
}

}  // namespace

GammaValue GammaSettings::InputGamma(EImageType type) const {
  return TakesConfiguredGamma(type) ? input_ : gamma::Linear;
}

GammaValue GammaSettings::OutputGamma(EImageType type) const {
  return TakesConfiguredGamma(type) ? output_ : gamma::Linear;
}

bool GammaSettings::operator==(const GammaSettings& other) const {
  return SameGamma(input_, other.input_) && SameGamma(output_, other.output_) &&
         SameGamma(screen_, other.screen_);
}

void GammaSettings::ReadFromConfigManager() {
  input_ = ReadKey(config::InputGamma);
  output_ = ReadKey(config::OutputGamma);
  screen_ = ReadKey(config::ScreenGamma);
}

void GammaSettings::WriteToConfigManager() const {
  settings::SetProperty(config::InputGamma.name, input_.Value(), config::InputGamma.project);
  settings::SetProperty(config::OutputGamma.name, output_.Value(), config::OutputGamma.project);
  settings::SetProperty(config::ScreenGamma.name, screen_.Value(), config::ScreenGamma.project);
}

bool GammaSettings::Read(ZELStream* stream, ZELReadChunk& chunk) {
  switch (chunk.GetID()) {
    case kGammaSettingsChunkV0:
      return ReadV0(stream, chunk);
    case kGammaSettingsChunkV1:
      return ReadV1(stream, chunk);
    default:
      return false;
  }
}

bool GammaSettings::ReadV0(ZELStream* stream, ZELReadChunk& chunk) {
  if (stream == nullptr) {
    return false;
  }
  unsigned char enabled = 0;
  if (!stream->ReadTyped(enabled)) {
    return false;
  }
  if (!ReadFloat(stream, input_) || !ReadFloat(stream, output_) || !ReadFloat(stream, screen_)) {
    return false;
  }
  if (enabled == 0) {
    input_ = output_ = screen_ = gamma::Linear;
  }
  unsigned char ignored = 0;
  if (!stream->ReadTyped(ignored)) {
    return false;
  }
  while (chunk.HasMoreData()) {
    ZELReadChunk trailing;
    // Bytes too few to form a chunk would otherwise never be consumed.
    if (!trailing.InitChunk(stream)) {
      return false;
    }
  }
  return true;
}

bool GammaSettings::ReadV1(ZELStream* stream, ZELReadChunk& chunk) {
  if (stream == nullptr) {
    return false;
  }
  while (chunk.HasMoreData()) {
    ZELReadChunk value;
    if (!value.InitChunk(stream)) {
      return false;
    }
    GammaValue* target = nullptr;
    switch (value.GetID()) {
      case kGammaSettingsInputChunk:
        target = &input_;
        break;
      case kGammaSettingsOutputChunk:
        target = &output_;
        break;
      case kGammaSettingsScreenChunk:
        target = &screen_;
        break;
      default:
        break;
    }
    const bool ok = target == nullptr || ReadFloat(stream, *target);
    value.Close();
    if (!ok) {
      return false;
    }
  }
  return true;
}

bool GammaSettings::WriteV0(ZELStream* stream, bool enabled) const {
  if (stream == nullptr) {
    return false;
  }
  ZELWriteChunk chunk(stream, kGammaSettingsChunkV0);
  return chunk.IsOk() && stream->WriteTyped<unsigned char>(enabled ? 1 : 0) &&
         stream->WriteTyped(input_.Value()) && stream->WriteTyped(output_.Value()) &&
         stream->WriteTyped(screen_.Value()) && stream->WriteTyped<unsigned char>(0) && chunk.End();
}

bool GammaSettings::WriteV1(ZELStream* stream) const {
  if (stream == nullptr) {
    return false;
  }
  ZELWriteChunk chunk(stream, kGammaSettingsChunkV1);
  return chunk.IsOk() && WriteValueChunk(stream, kGammaSettingsInputChunk, input_) &&
         WriteValueChunk(stream, kGammaSettingsOutputChunk, output_) &&
         WriteValueChunk(stream, kGammaSettingsScreenChunk, screen_) && chunk.End();
}

GammaSettings& GetCurrentGammaSettings() {
  static GammaSettings current;
  return current;
}

}  // namespace imagery

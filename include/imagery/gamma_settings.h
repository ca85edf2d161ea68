// The application's three gammas: input (decoding integer images), output (given to new integer
// images) and screen. One process-wide instance; persisted as the settings "imagery/InputGamma",
// "imagery/OutputGamma" and "imagery/ScreenGamma" of project "kor"; readable from the scene stream's
// gamma-settings chunk in both of its versions.
#pragma once

#include "imagery/export.h"
#include "imagery/gamma.h"
#include "imagery/pixel_format.h"

class ZELStream;
class ZELReadChunk;

namespace imagery {

// The settings keys. Writable so that a host can change a default before resetting the settings: the
// registered initialisers read the record when they run. Inside namespace imagery, `config` names this
// namespace; the settings library is ::config.
namespace config {
struct IMAGERY_API GammaKey {
  const char* name;
  const char* project;
  float default_value;
};
extern IMAGERY_API GammaKey InputGamma;
extern IMAGERY_API GammaKey OutputGamma;
extern IMAGERY_API GammaKey ScreenGamma;
}  // namespace config

// Chunk identifiers of the stream forms.
inline constexpr unsigned short kGammaSettingsChunkV0 = 0xFEBF;
inline constexpr unsigned short kGammaSettingsChunkV1 = 0xFEF6;
inline constexpr unsigned short kGammaSettingsInputChunk = 0xFEF7;
inline constexpr unsigned short kGammaSettingsOutputChunk = 0xFEF8;
inline constexpr unsigned short kGammaSettingsScreenChunk = 0xFEF9;

class IMAGERY_API GammaSettings {
 public:
  // All three sRGB.
  GammaSettings() = default;

  void SetInputGamma(GammaValue gamma) { input_ = gamma; }
  void SetOutputGamma(GammaValue gamma) { output_ = gamma; }
  void SetScreenGamma(GammaValue gamma) { screen_ = gamma; }
  GammaValue ScreenGamma() const { return screen_; }
  // The stored gamma for the 8-bit and 16-bit formats and IT_UNDEFINED; linear for RGBE, float and
  // RG-encoded formats and for values above 12.
  GammaValue InputGamma(EImageType type) const;
  GammaValue OutputGamma(EImageType type) const;

  // Pairs compare equal when neither value is less than the other.
  bool operator==(const GammaSettings& other) const;
  bool operator!=(const GammaSettings& other) const { return !(*this == other); }

  // From the settings store, storing each key's default when it is absent or not a float.
  void ReadFromConfigManager();
  void WriteToConfigManager() const;

  // Reads a gamma-settings chunk that the caller has opened, by its identifier; false for any other
  // chunk or on a failed read (values read before the failure stay).
  bool Read(ZELStream* stream, ZELReadChunk& chunk);
  bool ReadV0(ZELStream* stream, ZELReadChunk& chunk);
  bool ReadV1(ZELStream* stream, ZELReadChunk& chunk);

  // The two chunk layouts, for hosts and tests that produce them: version 0 carries the enabled flag
  // and the three values; version 1 one sub-chunk per value.
  bool WriteV0(ZELStream* stream, bool enabled) const;
  bool WriteV1(ZELStream* stream) const;

 private:
  GammaValue input_ = gamma::sRGB;
  GammaValue output_ = gamma::sRGB;
  GammaValue screen_ = gamma::sRGB;
};

// The process-wide settings, created with the defaults on first use. Not locked: the host writes it,
// image creation, conversion and stream reading read it.
IMAGERY_API GammaSettings& GetCurrentGammaSettings();

}  // namespace imagery

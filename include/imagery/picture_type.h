// Picture types (the material channel of a picture) and the file tags by which a picture file's name
// tells its channel and leads to the sibling files of the other channels of the same material.
//
// Tag lists live in the user settings (project "kor", keys "filetags/<Channel>") as blank-separated
// tags, registered with their defaults when the library is loaded. Order matters: the first tag is the
// channel's suffix, and tags are tried in list order.
#pragma once

#include <cstdint>
#include <vector>

#include "imagery/export.h"
#include "imagery_host/resources.h"
#include "imagery_host/zel_path.h"
#include "imagery_host/zel_string.h"

namespace imagery {

enum EPictureType : std::int32_t {
  PT_UNDEFINED = -1,
  PT_Color = 0,
  PT_Bump = 1,
  PT_Alpha = 2,
  PT_Reflection = 3,
  PT_Specular = 4,
  PT_Backlighting = 5,
  PT_NormalMap = 6,
  PT_AmbientOcclusion = 7,
  PT_Displacement = 8,
  PT_Roughness = 9,
  PT_Metallic = 10,
  PT_Terrain = 11,
  PT_ColorShiftMask = 12,
  PT_Transparency = 13,
  PT_Luminous = 14,
  PT_GlowIntensity = 15,
  PT_SpecularColor = 16,
  PT_ClearcoatContribution = 17,
  PT_ClearcoatIOR = 18,
  PT_ClearcoatRoughness = 19,
  PT_ClearcoatTint = 20,
  PT_ClearcoatNormalMap = 21,
  PT_ClearcoatFlatten = 22,
  PT_Data = 23,
};

// How a picture is read as a colour map: as colour, as grey, or as transparency (one minus alpha).
enum ImageOutputMode : int {
  IOM_Color = 0,
  IOM_Grayscale = 1,
  IOM_Transparency = 2,
};

// Identifiers of the channel display names in the host's resource texts.
inline constexpr Tools::CRC STR_Undefined{0x575169de56d876bbull};
inline constexpr Tools::CRC STR_ColorChannel{0x46ab6115e3d7dddbull};
inline constexpr Tools::CRC STR_BumpChannel{0xa35a51bb6e76374cull};
inline constexpr Tools::CRC STR_AlphaChannel{0xcc2bcfdbbf7b257aull};
inline constexpr Tools::CRC STR_ReflectionChannel{0x350bd84dcb206b5full};
inline constexpr Tools::CRC STR_HighlightChannel{0xaf7c0c9d364aa9ceull};
inline constexpr Tools::CRC STR_BacklightChannel{0x359c5651888f29d9ull};
inline constexpr Tools::CRC STR_NormalChannel{0x316fe2b2971045fdull};
inline constexpr Tools::CRC STR_AmbiantOccChannel{0x8b258a44a1d2fb79ull};
inline constexpr Tools::CRC STR_DisplacementChannel{0xa341776efc1f8d59ull};
inline constexpr Tools::CRC STR_RoughnessChannel{0x313f9e57aedacd7cull};
inline constexpr Tools::CRC STR_MetalnessChannel{0xd748820fa4043f5eull};
inline constexpr Tools::CRC STR_TerrainChannel{0x9e02a0303b5322d1ull};
inline constexpr Tools::CRC STR_ColorShiftChannel{0xc22a0fb87c501307ull};
inline constexpr Tools::CRC STR_TransparencyChannel{0xe524493e250b597eull};
inline constexpr Tools::CRC STR_LuminousChannel{0x39656750b34a0812ull};
inline constexpr Tools::CRC STR_GlowIntensityChannel{0x2063d732d2654ce4ull};
inline constexpr Tools::CRC STR_HighlightColorChannel{0x385508216607bbe9ull};
inline constexpr Tools::CRC STR_ClearcoatContributionChannel{0x7743c863b3bd6c52ull};
inline constexpr Tools::CRC STR_ClearcoatIORChannel{0x3e16eb7701a743ccull};
inline constexpr Tools::CRC STR_ClearcoatRoughnessChannel{0x2cfddce263a8b1c0ull};
inline constexpr Tools::CRC STR_ClearcoatTintChannel{0x217f32c49ed9b963ull};
inline constexpr Tools::CRC STR_ClearcoatNormalChannel{0x67d16da95f5263d1ull};
inline constexpr Tools::CRC STR_ClearcoatFlattenChannel{0x64dd15a386401374ull};
inline constexpr Tools::CRC STR_Data{0x979cb0f49edbf65dull};

// The name used in log lines: "PT_Color" ... "PT_Data", and "PT_UNDEFINED" for -1 and any value outside
// 0..23.
IMAGERY_API const char* GetLogName(EPictureType type);
// The display name from the resource texts (the STR_Undefined text outside 0..23).
IMAGERY_API ZELString GetName(EPictureType type);
// IOM_Color for -1 and the colour channels (colour, reflection, normal maps, specular colour, clearcoat
// tint), IOM_Grayscale for every other value.
IMAGERY_API ImageOutputMode GetIOMFromPType(EPictureType type);
// True for the channels that carry colour (colour, reflection, specular colour, clearcoat tint) and for
// every value outside 0..23.
IMAGERY_API bool CanHaveColorspace(EPictureType type);

// The default tag list of the channel's key; "_map" for -1 and PT_Data; empty for other values.
IMAGERY_API ZELString GetFileTagDefault(EPictureType type);
// The channel's tag list from the settings (its default when the setting holds no tag, or for values
// outside 0..22).
IMAGERY_API ZELString GetFileTagProperty(EPictureType type);
// Stores a tag list for channels 0..22; other values are ignored.
IMAGERY_API void SetFileTagProperty(EPictureType type, const ZELString& tags);
// The first tag of the channel's list, or the empty string.
IMAGERY_API ZELString ChannelFileSuffix(EPictureType type);

// The channel recognised from a file name (-1 when none, or when file tags are disabled).
IMAGERY_API EPictureType GetTypeFromFileTags(const ZELPath& path);
// The existing file of channel `target` beside `path` (same stem, the target's tags, any picture
// extension), or an empty path.
IMAGERY_API ZELPath FindChannelPath(const ZELPath& path, EPictureType target);
// Appends the channels in presentation order: colour, alpha, normal map, the other channels by display
// name, then PT_Data and -1.
IMAGERY_API void GetReorderedPTList(std::vector<EPictureType>& list);

}  // namespace imagery

// The settings keys of the file tags, registered in this order when the library is loaded.
namespace config::filetags {

template <class T>
struct Key {
  const char* name;
  const char* project;
  T default_value;
};

extern IMAGERY_API const Key<bool> Enabled;
extern IMAGERY_API const Key<bool> PreserveMappings;
extern IMAGERY_API const Key<const wchar_t*> Alpha;
extern IMAGERY_API const Key<const wchar_t*> AmbiantOcclusion;
extern IMAGERY_API const Key<const wchar_t*> Backlight;
extern IMAGERY_API const Key<const wchar_t*> Bump;
extern IMAGERY_API const Key<const wchar_t*> Color;
extern IMAGERY_API const Key<const wchar_t*> ColorShift;
extern IMAGERY_API const Key<const wchar_t*> Displacement;
extern IMAGERY_API const Key<const wchar_t*> Highlight;
extern IMAGERY_API const Key<const wchar_t*> Metalness;
extern IMAGERY_API const Key<const wchar_t*> Normal;
extern IMAGERY_API const Key<const wchar_t*> ClearcoatContribution;
extern IMAGERY_API const Key<const wchar_t*> ClearcoatIOR;
extern IMAGERY_API const Key<const wchar_t*> ClearcoatRoughness;
extern IMAGERY_API const Key<const wchar_t*> ClearcoatTint;
extern IMAGERY_API const Key<const wchar_t*> ClearcoatNormal;
extern IMAGERY_API const Key<const wchar_t*> ClearcoatFlatten;
extern IMAGERY_API const Key<const wchar_t*> Reflection;
extern IMAGERY_API const Key<const wchar_t*> Roughness;
extern IMAGERY_API const Key<const wchar_t*> Terrain;
extern IMAGERY_API const Key<const wchar_t*> Transparency;
extern IMAGERY_API const Key<const wchar_t*> Luminous;
extern IMAGERY_API const Key<const wchar_t*> GlowIntensity;

}  // namespace config::filetags

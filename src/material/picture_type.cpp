// Names and classifications of the picture types, and their presentation order.
#include "imagery/picture_type.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <utility>

#include "imagery/resource_text.h"

namespace imagery {
namespace {

constexpr int kTypeCount = 24;  // PT_Color .. PT_Data

struct TypeNames {
  const char* log;
  Tools::CRC display;
};

constexpr TypeNames kNames[kTypeCount] = {
    {"PT_Color", STR_ColorChannel},
    {"PT_Bump", STR_BumpChannel},
    {"PT_Alpha", STR_AlphaChannel},
    {"PT_Reflection", STR_ReflectionChannel},
    {"PT_Specular", STR_HighlightChannel},
    {"PT_Backlighting", STR_BacklightChannel},
    {"PT_NormalMap", STR_NormalChannel},
    {"PT_AmbientOcclusion", STR_AmbiantOccChannel},
    {"PT_Displacement", STR_DisplacementChannel},
    {"PT_Roughness", STR_RoughnessChannel},
    {"PT_Metallic", STR_MetalnessChannel},
    {"PT_Terrain", STR_TerrainChannel},
    {"PT_ColorShiftMask", STR_ColorShiftChannel},
    {"PT_Transparency", STR_TransparencyChannel},
    {"PT_Luminous", STR_LuminousChannel},
    {"PT_GlowIntensity", STR_GlowIntensityChannel},
    {"PT_SpecularColor", STR_HighlightColorChannel},
    {"PT_ClearcoatContribution", STR_ClearcoatContributionChannel},
    {"PT_ClearcoatIOR", STR_ClearcoatIORChannel},
    {"PT_ClearcoatRoughness", STR_ClearcoatRoughnessChannel},
    {"PT_ClearcoatTint", STR_ClearcoatTintChannel},
    {"PT_ClearcoatNormalMap", STR_ClearcoatNormalChannel},
    {"PT_ClearcoatFlatten", STR_ClearcoatFlattenChannel},
    {"PT_Data", STR_Data},
};

bool IsNamed(EPictureType type) {
  return type >= 0 && type < kTypeCount;
}

}  // namespace

const char* GetLogName(EPictureType type) {
  return IsNamed(type) ? kNames[type].log : "PT_UNDEFINED";
}

ZELString GetName(EPictureType type) {
  return GetString(IsNamed(type) ? kNames[type].display : STR_Undefined);
}

ImageOutputMode GetIOMFromPType(EPictureType type) {
  // Unsigned arithmetic: -1 lands on bit 0, and every value below -1 lands far above bit 22.
  constexpr std::uint32_t kColourChannels = 0x620093u;
  const std::uint32_t bit = static_cast<std::uint32_t>(type) + 1u;
  return bit <= 22u && ((kColourChannels >> bit) & 1u) != 0 ? IOM_Color : IOM_Grayscale;
}

bool CanHaveColorspace(EPictureType type) {
  constexpr std::uint32_t kColourChannels = 0x110009u;
  if (!IsNamed(type)) {
    return true;
  }
  return ((kColourChannels >> type) & 1u) != 0;
}

void GetReorderedPTList(std::vector<EPictureType>& list) {
  list.push_back(PT_Color);
  list.push_back(PT_Alpha);
  list.push_back(PT_NormalMap);
  const std::ptrdiff_t firstSorted = static_cast<std::ptrdiff_t>(list.size());
  for (int value = PT_Color; value <= PT_ClearcoatFlatten; ++value) {
    const EPictureType type = static_cast<EPictureType>(value);
    if (std::find(list.begin(), list.end(), type) == list.end()) {
      list.push_back(type);
    }
  }
  // The names are looked up once: each lookup takes the resource table's lock.
  std::vector<std::pair<ZELString, EPictureType>> named;
  named.reserve(list.size() - static_cast<std::size_t>(firstSorted));
  for (auto it = list.begin() + firstSorted; it != list.end(); ++it) {
    named.emplace_back(GetName(*it), *it);
  }
  std::stable_sort(named.begin(), named.end(),
                   [](const auto& a, const auto& b) { return a.first < b.first; });
  for (std::size_t i = 0; i < named.size(); ++i) {
    list[static_cast<std::size_t>(firstSorted) + i] = named[i].second;
  }
  list.push_back(PT_Data);
  list.push_back(PT_UNDEFINED);
}

}  // namespace imagery

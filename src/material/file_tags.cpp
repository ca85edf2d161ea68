// The file-tag settings keys and their registration, and the rules that recognise a picture's channel
// from its file name and find the files of the other channels of the same material.
#include <system_error>
#include <vector>

#include "imagery/picture_type.h"
#include "imagery_host/settings.h"

namespace config::filetags {

// Constant-initialised, so they are usable by any other static initialiser of the library.
const Key<bool> Enabled{"filetags/Enabled", "kor", true};
const Key<bool> PreserveMappings{"filetags/PreserveMappings", "kor", false};
const Key<const wchar_t*> Alpha{"filetags/Alpha", "kor", L" _Opacity _opacity _ALPHAMASKED _a"};
const Key<const wchar_t*> AmbiantOcclusion{"filetags/AmbiantOcclusion", "kor",
                                           L" _AmbientOcclusion _AO _ao _o _Cavity"};
const Key<const wchar_t*> Backlight{"filetags/Backlight", "kor", L" _BackLight"};
const Key<const wchar_t*> Bump{"filetags/Bump", "kor", L" _Bump _b _bump"};
const Key<const wchar_t*> Color{"filetags/Color", "kor",
                                L" _Color _Albedo _COL _ALPHAMASKED _diffuse _color _albedo _Diffuse"};
const Key<const wchar_t*> ColorShift{"filetags/ColorShift", "kor", L" _ColorShift"};
const Key<const wchar_t*> Displacement{"filetags/Displacement", "kor",
                                       L" _Displacement _DISP _DISP16 _d _height _Height _displacement"};
const Key<const wchar_t*> Highlight{"filetags/Highlight", "kor", L" _Specular _REFL _reflection _specular"};
const Key<const wchar_t*> Metalness{"filetags/Metalness", "kor",
                                    L" _Metalness _METALNESS _metallic _metalness _Metallic _m"};
const Key<const wchar_t*> Normal{"filetags/Normal", "kor", L" _Normal _NRM _NRM16 _normal _n"};
const Key<const wchar_t*> ClearcoatContribution{"filetags/ClearcoatContribution", "kor",
                                                L" _ClearcoatIntensity"};
const Key<const wchar_t*> ClearcoatIOR{"filetags/ClearcoatIOR", "kor", L" _ClearcoatIOR"};
const Key<const wchar_t*> ClearcoatRoughness{"filetags/ClearcoatRoughness", "kor", L" _ClearcoatRoughness"};
const Key<const wchar_t*> ClearcoatTint{"filetags/ClearcoatTint", "kor", L" _ClearcoatColor"};
const Key<const wchar_t*> ClearcoatNormal{"filetags/ClearcoatNormal", "kor", L" _ClearcoatNormal"};
const Key<const wchar_t*> ClearcoatFlatten{"filetags/ClearcoatFlatten", "kor", L" _ClearcoatFlatten"};
const Key<const wchar_t*> Reflection{"filetags/Reflection", "kor", L" _ReflectionMap"};
const Key<const wchar_t*> Roughness{"filetags/Roughness", "kor", L" _Roughness _ROUGHNESS _roughness _r"};
const Key<const wchar_t*> Terrain{"filetags/Terrain", "kor", L" _Altitude"};
const Key<const wchar_t*> Transparency{"filetags/Transparency", "kor", L" _Transparency _transparency"};
const Key<const wchar_t*> Luminous{"filetags/Luminous", "kor", L" _Luminous"};
const Key<const wchar_t*> GlowIntensity{"filetags/GlowIntensity", "kor", L" _GlowIntensity"};

namespace {

template <class T>
void StoreDefault(const Key<T>& key) {
  if (!config::xml::PropertyExists(key.name, key.project)) {
    config::xml::SetProperty(key.name, key.default_value, key.project);
  }
}

template <class T>
void Register(const Key<T>& key) {
  config::xml2::Register(key.project, key.name, [&key] { StoreDefault(key); });
}

// Registers the keys when the library is loaded, in the order the host lists them.
[[maybe_unused]] const bool kRegistered = [] {
  Register(Enabled);
  Register(PreserveMappings);
  Register(Alpha);
  Register(AmbiantOcclusion);
  Register(Backlight);
  Register(Bump);
  Register(Color);
  Register(ColorShift);
  Register(Displacement);
  Register(Highlight);
  Register(Metalness);
  Register(Normal);
  Register(ClearcoatContribution);
  Register(ClearcoatIOR);
  Register(ClearcoatRoughness);
  Register(ClearcoatTint);
  Register(ClearcoatNormal);
  Register(ClearcoatFlatten);
  Register(Reflection);
  Register(Roughness);
  Register(Terrain);
  Register(Transparency);
  Register(Luminous);
  Register(GlowIntensity);
  return true;
}();

}  // namespace
}  // namespace config::filetags

namespace imagery {
namespace {

namespace filetags = ::config::filetags;
using TagKey = filetags::Key<const wchar_t*>;
using TagLists = std::vector<std::vector<ZELString>>;

constexpr int kTaggedCount = PT_ClearcoatFlatten + 1;

// The key of each channel that tags can recognise; the two highlight channels share theirs.
constexpr const TagKey* kChannelKeys[kTaggedCount] = {
    &filetags::Color,
    &filetags::Bump,
    &filetags::Alpha,
    &filetags::Reflection,
    &filetags::Highlight,
    &filetags::Backlight,
    &filetags::Normal,
    &filetags::AmbiantOcclusion,
    &filetags::Displacement,
    &filetags::Roughness,
    &filetags::Metalness,
    &filetags::Terrain,
    &filetags::ColorShift,
    &filetags::Transparency,
    &filetags::Luminous,
    &filetags::GlowIntensity,
    &filetags::Highlight,
    &filetags::ClearcoatContribution,
    &filetags::ClearcoatIOR,
    &filetags::ClearcoatRoughness,
    &filetags::ClearcoatTint,
    &filetags::ClearcoatNormal,
    &filetags::ClearcoatFlatten,
};

constexpr wchar_t kPictureExtensions[] =
    L"exr hdrbil bmp bum bump ddf dem dt0 dt1 dt2 dted gif iff img j2c j2k jp2 jpc jpeg jpf jpg jpg2 jpm pcx "
    L"png prv psd rla rpf tga tiff vim";

bool IsTagged(EPictureType type) {
  return type >= 0 && type < kTaggedCount;
}

std::vector<ZELString> SplitTags(const ZELString& list) {
  return list.TokenizeMe(L' ', 0, false);
}

bool TagsEnabled() {
  return ::config::xml::GetPropertyRef(filetags::Enabled.name, filetags::Enabled.project,
                                       filetags::Enabled.default_value);
}

TagLists ReadAllTagLists() {
  TagLists lists;
  lists.reserve(kTaggedCount);
  for (int value = 0; value < kTaggedCount; ++value) {
    lists.push_back(SplitTags(GetFileTagProperty(static_cast<EPictureType>(value))));
  }
  return lists;
}

const std::vector<ZELString>& PictureExtensions() {
  static const std::vector<ZELString> extensions = [] {
    std::vector<ZELString> words = SplitTags(kPictureExtensions);
    for (ZELString& word : words) {
      word.TrimLeft(L'.');
    }
    return words;
  }();
  return extensions;
}

bool FileExists(const ZELPath& path) {
  std::error_code error;
  return path.exists(error) && !error;
}

}  // namespace

ZELString GetFileTagDefault(EPictureType type) {
  if (IsTagged(type)) {
    return ZELString(kChannelKeys[type]->default_value);
  }
  if (type == PT_UNDEFINED || type == PT_Data) {
    return ZELString(L"_map");
  }
  return ZELString();
}

ZELString GetFileTagProperty(EPictureType type) {
  if (IsTagged(type)) {
    const TagKey& key = *kChannelKeys[type];
    ZELString tags = ::config::xml::GetPropertyRef(key.name, key.project, key.default_value);
    if (!SplitTags(tags).empty()) {
      return tags;
    }
  }
  return GetFileTagDefault(type);
}

void SetFileTagProperty(EPictureType type, const ZELString& tags) {
  if (IsTagged(type)) {
    const TagKey& key = *kChannelKeys[type];
    ::config::xml::SetProperty(key.name, tags, key.project);
  }
}

ZELString ChannelFileSuffix(EPictureType type) {
  const std::vector<ZELString> tags = SplitTags(GetFileTagProperty(type));
  return tags.empty() ? ZELString() : tags.front();
}

EPictureType GetTypeFromFileTags(const ZELPath& path) {
  if (!TagsEnabled()) {
    return PT_UNDEFINED;
  }
  const ZELString name = path.leaf_without_extension();
  for (int value = 0; value < kTaggedCount; ++value) {
    const EPictureType type = static_cast<EPictureType>(value);
    for (const ZELString& tag : SplitTags(GetFileTagProperty(type))) {
      if (zel::HumanMatch(name, tag) >= 0) {
        return type;
      }
    }
  }
  return PT_UNDEFINED;
}

ZELPath FindChannelPath(const ZELPath& path, EPictureType target) {
  if (!TagsEnabled()) {
    return ZELPath();
  }
  const ZELPath folder = path.parent_path();
  ZELString stem = path.leaf_without_extension();
  const TagLists lists = ReadAllTagLists();

  // The stem without its own tag, and where that tag stood: the target's tag goes in its place. A name
  // without a tag keeps the last (negative) match result, with which the host string appends.
  int position = -1;
  bool found = false;
  for (const std::vector<ZELString>& tags : lists) {
    for (const ZELString& tag : tags) {
      position = zel::HumanMatch(stem, tag);
      if (position >= 0) {
        stem.Delete(position, tag.GetLength());
        found = true;
        break;
      }
    }
    if (found) {
      break;
    }
  }

  if (!IsTagged(target)) {
    return ZELPath();
  }
  const std::vector<ZELString>& extensions = PictureExtensions();
  for (const ZELString& tag : lists[static_cast<std::size_t>(target)]) {
    ZELString candidate = stem;
    candidate.Insert(position, tag);
    // Variant files ("rock_VAR2_Color") share the channel files of the plain material ("rock_Normal").
    ZELString plain = candidate;
    const bool hasVariant = zel::RegexReplace(plain, L"_VAR\\d+_", L"_", false);
    for (const ZELString& extension : extensions) {
      const ZELString suffix = ZELString(L".") + extension;
      const ZELPath file = folder / ZELPath(candidate + suffix);
      if (FileExists(file)) {
        return file;
      }
      if (hasVariant) {
        const ZELPath plainFile = folder / ZELPath(plain + suffix);
        if (FileExists(plainFile)) {
          return plainFile;
        }
      }
    }
  }
  return ZELPath();
}

}  // namespace imagery

// The resource-text table and the built-in English texts of the library's identifiers.
#include "imagery_host/resources.h"

#include <cstdint>

namespace zel {
namespace {

struct DefaultText {
  std::uint64_t id;
  const wchar_t* text;
};

constexpr DefaultText kDefaultTexts[] = {
    // Pixel formats and bit depths.
    {0xf99d3c809ffb3c38, L"Grayscale"},
    {0xe219ac6178ff1384, L"RGB"},
    {0x30b3aea0996e97bf, L"RGBA"},
    {0x17c19c6197dccef9, L"HDR"},
    {0xddba43bca532cd8b, L"8 bits"},
    {0x7a19c2899b831276, L"16 bits"},
    {0x56bc72a4fbc28918, L"32-bit float"},
    // Material channels.
    {0x575169de56d876bb, L"Undefined"},
    {0x46ab6115e3d7dddb, L"Color"},
    {0xa35a51bb6e76374c, L"Bump"},
    {0xcc2bcfdbbf7b257a, L"Alpha"},
    {0x350bd84dcb206b5f, L"Reflection"},
    {0xaf7c0c9d364aa9ce, L"Highlight"},
    {0x359c5651888f29d9, L"Backlight"},
    {0x316fe2b2971045fd, L"Normal map"},
    {0x8b258a44a1d2fb79, L"Ambient occlusion"},
    {0xa341776efc1f8d59, L"Displacement"},
    {0x313f9e57aedacd7c, L"Roughness"},
    {0xd748820fa4043f5e, L"Metalness"},
    {0x9e02a0303b5322d1, L"Terrain"},
    {0xc22a0fb87c501307, L"Color shift"},
    {0xe524493e250b597e, L"Transparency"},
    {0x39656750b34a0812, L"Luminous"},
    {0x2063d732d2654ce4, L"Glow intensity"},
    {0x385508216607bbe9, L"Highlight color"},
    {0x7743c863b3bd6c52, L"Clearcoat contribution"},
    {0x3e16eb7701a743cc, L"Clearcoat IOR"},
    {0x2cfddce263a8b1c0, L"Clearcoat roughness"},
    {0x217f32c49ed9b963, L"Clearcoat tint"},
    {0x67d16da95f5263d1, L"Clearcoat normal map"},
    {0x64dd15a386401374, L"Clearcoat flatten"},
    {0x979cb0f49edbf65d, L"Data"},
};

}  // namespace

ResourceNumericId ResourceNumericId::FromInteger(int value) {
  ResourceNumericId id;
  id.kind_ = Kind::Integer;
  id.value_ = static_cast<std::uint64_t>(static_cast<std::int64_t>(value));
  return id;
}

ZELString ResourceNumericId::ToText() const {
  switch (kind_) {
    case Kind::Crc:
      return ZELString::Format(L"crc:0x%016llx", static_cast<unsigned long long>(value_));
    case Kind::Integer:
      return ZELString::Format(L"%d", static_cast<int>(static_cast<std::int64_t>(value_)));
    case Kind::Empty:
      break;
  }
  return ZELString(L"undefined");
}

ResourceStringHolder& ResourceStringHolder::Instance() {
  static ResourceStringHolder holder;
  return holder;
}

ResourceStringHolder::ResourceStringHolder() {
  ResetToDefaults();
}

ErrorCode ResourceStringHolder::GetStringInto(const ResourceNumericId& id, ZELString& text) const {
  std::lock_guard<std::mutex> lock(mutex_);
  const auto found = texts_.find(id);
  if (found == texts_.end()) {
    return ErrorCode::Internal("ZELRES001", id.ToText().ToUTF8());
  }
  text = found->second;
  return ErrorCode();
}

void ResourceStringHolder::SetString(const ResourceNumericId& id, const ZELString& text) {
  std::lock_guard<std::mutex> lock(mutex_);
  texts_[id] = text;
}

void ResourceStringHolder::RemoveString(const ResourceNumericId& id) {
  std::lock_guard<std::mutex> lock(mutex_);
  texts_.erase(id);
}

void ResourceStringHolder::ResetToDefaults() {
  std::map<ResourceNumericId, ZELString> defaults;
  for (const DefaultText& entry : kDefaultTexts) {
    defaults.emplace(Tools::CRC(entry.id), ZELString(entry.text));
  }
  std::lock_guard<std::mutex> lock(mutex_);
  texts_.swap(defaults);
}

}  // namespace zel

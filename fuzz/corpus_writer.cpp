// Writes the starting corpus of the fuzzers: valid image chunks of every format, incorporated and referenced,
// with transformations, picture type, title and attributes; gamma settings and colour chunks; a saved
// settings file; preview chunks in both payload forms and palette forms of preview bitmaps. Stream inputs are
// prefixed by the fuzzers' option byte (little-endian, current version). Run from the repository root:
//   ./build-fuzz/fuzz/imagery_fuzz_corpus fuzz/corpus
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "imagery/colour_spaces.h"
#include "imagery/dib24.h"
#include "imagery/gamma_settings.h"
#include "imagery/image.h"
#include "imagery_host/settings.h"
#include "imagery_host/stream.h"

namespace {

void Save(const std::filesystem::path& folder, const std::string& name,
          const std::vector<unsigned char>& bytes, char option = 0) {
  std::filesystem::create_directories(folder);
  std::ofstream out(folder / name, std::ios::binary);
  out.put(option);
  out.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
}

}  // namespace

int main(int argc, char** argv) {
  using namespace imagery;
  const std::filesystem::path root = argc > 1 ? argv[1] : "fuzz/corpus";
  for (int type = IT_RGB8; type < IT_UNDEFINED; ++type) {
    Image image(3, 2, static_cast<EImageType>(type), gamma::sRGB);
    for (int y = 0; y < 2; ++y)
      for (int x = 0; x < 3; ++x)
        image.SetPixelRGBA(x, y, {0.1f * x, 0.3f * y, 0.7f, 0.5f}, ATO_None);
    image.SetPtype(PT_NormalMap);
    image.SetTitle(L"sample");
    image.MirrorX();
    image.SetExposure(0.25f);
    image.ExtraAttributes().put("sample.kind", "incorporated");
    ZELMemoryStream chunk;
    image.Write(&chunk, true, false);
    Save(root / "image_read", "incorporated_" + std::to_string(type), chunk.Bytes());
    ZELMemoryStream bits;
    image.GetImplRef().Write(&bits);
    Save(root / "image_bits", "bits_" + std::to_string(type), bits.Bytes());
  }
  Image referenced(4, 4, IT_RGB8);
  referenced.SetFilePath(L"/textures/rock_Color.png");
  referenced.SetTitle(L"rock");
  ZELMemoryStream chunk;
  referenced.Write(&chunk, false, false);
  Save(root / "image_read", "referenced", chunk.Bytes());
  Save(root / "stream", "image_chunk", chunk.Bytes());

  GammaSettings settings;
  ZELMemoryStream v0, v1, colour, hls;
  settings.WriteV0(&v0, true);
  settings.WriteV1(&v1);
  Write(LinearRGB_T<float>(0.25f, 0.5f, 0.75f), &colour);
  HLSCLR(0.1f, 0.2f, 0.3f).Write(&hls);
  Save(root / "chunk_readers", "gamma_v0", v0.Bytes());
  Save(root / "chunk_readers", "gamma_v1", v1.Bytes());
  Save(root / "chunk_readers", "colour", colour.Bytes());
  Save(root / "chunk_readers", "hls", hls.Bytes());
  Save(root / "stream", "gamma_v1", v1.Bytes());

  // Previews: quantised with and without alpha, raw, and the palette form, small enough for -max_len.
  for (int form = 0; form < 3; ++form) {
    KORDib24 preview(form == 2 ? 9 : 6, 5);
    for (int y = 0; y < preview.Height(); ++y)
      for (int x = 0; x < preview.Width(); ++x)
        preview.SetPixel(
            x, y,
            CLRA(static_cast<unsigned char>(x * 40), static_cast<unsigned char>(y * 50),
                 static_cast<unsigned char>(200 - x * y * 5), static_cast<unsigned char>(x * y * 9)));
    preview.SetFlags(form == 1 ? 0 : KORDib24::kAlphaMeaningful);
    ZELMemoryStream chunk, palette;
    preview.Write(&chunk, form < 2);
    Save(root / "preview", "preview_" + std::to_string(form), chunk.Bytes());
    // The same data handed to the harness undeflated (option bit 3): flags, width - 1, height - 1, form
    // and block size, then the data.
    std::vector<unsigned char> data = {1, 5, 4, static_cast<unsigned char>(form == 2 ? 3 + 40 : 40)};
    if (form == 2) {
      data.insert(data.end(), preview.GetBits(), preview.GetBits() + 6 * 5 * 4);
    } else {
      for (int i = 0; i < 1024 + 30 * (2 - form); ++i)
        data.push_back(static_cast<unsigned char>(i < 1024 ? i * 7 : i % 256 < 200 ? i % 13 : 255));
    }
    Save(root / "preview", "undeflated_" + std::to_string(form), data, 8);
    preview.QuantizedWrite(&palette);
    Save(root / "palette_form", "palette_" + std::to_string(form), palette.Bytes());
  }

  // The settings loader reads whole files, without the option byte.
  namespace xml = ::config::xml;
  xml::Clear();
  xml::SetProperty("gamma.input8", 2.2f, "imagery");
  xml::SetProperty("gamma.enabled", true, "imagery");
  xml::SetProperty("folder", L"C:\\textures \u00e9t\u00e9", "host");
  std::filesystem::create_directories(root / "settings");
  xml::SaveToFile(ZELPath(ZELString::FromUTF8((root / "settings" / "saved.xml").string())));
  return 0;
}

// Writes the seed corpus of the image fuzzers: valid image chunks of every format, incorporated and
// referenced, with transformations, picture type, title and attributes, each prefixed by the fuzzers'
// option byte (little-endian, current version). Run from the repository root:
//   ./build-fuzz/fuzz/imagery_fuzz_seeds fuzz/corpus
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "imagery/image.h"
#include "imagery_host/stream.h"

namespace {

void Save(const std::filesystem::path& folder, const std::string& name,
          const std::vector<unsigned char>& bytes) {
  std::filesystem::create_directories(folder);
  std::ofstream out(folder / name, std::ios::binary);
  out.put(0);
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
    image.SetTitle(L"seed");
    image.MirrorX();
    image.SetExposure(0.25f);
    image.ExtraAttributes().put("seed.kind", "incorporated");
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
  return 0;
}

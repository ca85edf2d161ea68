// The image list under a host's load: workers load, convert, reload, replace, copy and drop handles on
// files another thread rewrites. Every version of a file is one grey, so a torn, half-converted or freed
// image shows as a second colour, a colour of no version, or a sanitizer report. Runs for
// IMAGERY_STRESS_SECONDS (2 by default).
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "imagery/channel_ops.h"
#include "imagery/conversions.h"
#include "imagery/image.h"
#include "imagery/image_factory.h"
#include "imagery/image_list.h"
#include "support/image_support.h"

namespace imagery {
namespace {

constexpr int kFiles = 4;
constexpr int kSize = 24;

// The grey of version v; never 0, so that unwritten pixels are never mistaken for a version.
float VersionGrey(int version) {
  return 0.2f + 0.1f * static_cast<float>(version % 7);
}

std::string Contents(int version) {
  return std::to_string(kSize) + " " + std::to_string(kSize) + " " + std::to_string(version);
}

// The modification time is taken before the contents, so that a file rewritten meanwhile reads as
// changed again rather than as up to date with stale pixels.
zel::ErrorCode ReadVersionFile(Image* image, const ZELPath& path, EImageType requested, int*,
                               const ReadOptions& options) {
  const EImageType type = requested > IT_RGEncodedAlpha ? IT_RGBA8 : requested;
  if (!options.bypassReaderCache && ImageList::Instance().Load(image, path, type, AutoScaleGrayScale(false)))
    return zel::ErrorCode();
  const std::int64_t modified = ZELFileLastModif(path);
  std::ifstream in(path.local_string());
  int width = 0, height = 0, version = -1;
  if (!(in >> width >> height >> version) || width < 1 || height < 1 || version < 0)
    return zel::ErrorCode::Io("not a version file");
  std::unique_ptr<Image> loaded(ImageFactory::GetInstance().Build(width, height, type, gamma::Linear));
  ClearImage(loaded->GetImplRef(),
             LinearRGBA_T<float>(VersionGrey(version), VersionGrey(version), VersionGrey(version), 1.0f));
  loaded->SetFilePath(path);
  loaded->GetImplRef().SetLastModif(modified);
  *image = *loaded;
  return zel::ErrorCode();
}

// Empty when every pixel has the colour of one whole version; otherwise what is wrong.
std::string WholeVersionProblem(const Image& image) {
  if (image.IsEmpty())
    return "";
  LinearRGBA_T<float> first;
  image.GetPixelRGBA(0, 0, first, ATO_None);
  for (int y = 0; y < image.Height(); ++y)
    for (int x = 0; x < image.Width(); ++x) {
      LinearRGBA_T<float> c;
      image.GetPixelRGBA(x, y, c, ATO_None);
      if (c.r != first.r || c.g != first.g || c.b != first.b)
        return "two colours in one image, at " + std::to_string(x) + "," + std::to_string(y);
    }
  for (int version = 0; version < 7; ++version)
    if (std::fabs(first.r - VersionGrey(version)) < 0.01f)
      return "";
  return "a colour of no version: " + std::to_string(first.r);
}

// Files written beside and renamed over, so that a reader sees one whole version; each rewrite moves the
// modification time a second further, which the list's check by seconds always notices.
struct VersionFiles {
  testing_support::TempFolder folder;
  std::vector<ZELPath> paths;
  std::filesystem::file_time_type start = std::filesystem::file_time_type::clock::now();
  int stamp = 0;

  VersionFiles() {
    for (int i = 0; i < kFiles; ++i)
      paths.push_back(folder.Write("v" + std::to_string(i) + ".txt", Contents(0)));
  }
  void Rewrite(int i, int version) {
    const std::filesystem::path target(paths[static_cast<std::size_t>(i)].local_string());
    const std::filesystem::path temporary = target.string() + ".new";
    std::ofstream(temporary) << Contents(version);
    std::filesystem::last_write_time(temporary, start + std::chrono::seconds(++stamp));
    std::filesystem::rename(temporary, target);
  }
};

TEST(ImageListStress, ConcurrentLoadsConversionsReloadsAndRewritesOnlyEverShowWholeVersions) {
  const char* stressSeconds = std::getenv("IMAGERY_STRESS_SECONDS");
  const double seconds =
      stressSeconds != nullptr && std::atof(stressSeconds) > 0 ? std::atof(stressSeconds) : 2.0;
  ImageList& list = ImageList::Instance();
  ImageFactory::GetInstance().SetAdditionalFeaturesFunc(&ReadVersionFile);
  std::atomic<bool> stop{false};
  std::atomic<long> operations{0};
  {
    VersionFiles files;
    const auto report = [](const Image& image, const char* after) {
      const std::string problem = WholeVersionProblem(image);
      EXPECT_TRUE(problem.empty()) << "after " << after << ": " << problem;
    };
    const auto work = [&](unsigned draw) {
      std::mt19937 random(draw);
      std::vector<Image> held(6);
      const EImageType types[] = {IT_RGB8, IT_RGBA8, IT_Grayscale8, IT_RGB16, IT_RGBA32f};
      while (!stop.load()) {
        Image& slot = held[random() % held.size()];
        const ZELPath& file = files.paths[random() % kFiles];
        const unsigned operation = random() % 7;
        if (slot.IsEmpty() && (operation == 2 || operation == 3))
          continue;
        switch (operation) {
          case 0:
          case 1: {
            int extra = 0;
            Image loaded;
            if (loaded.ReadFromSource(file, types[random() % 5], extra, ReadOptions()).IsOk()) {
              report(loaded, "a load");
              slot = loaded;
            }
            break;
          }
          case 2:
            ToGrayscale8(slot, CheckInImageList(true), AutoScaleGrayScale(false), InvertGrayRange(false),
                         CAI_Care);
            report(slot, "a grey conversion");
            break;
          case 3:
            DiscardAlphaInformation(slot, CheckInImageList(true), CAI_Care);
            report(slot, "dropping alpha");
            break;
          case 4:
            list.UpdateSynchronized();
            for (Image& image : held) {
              image.UpdateImage();
              report(image, "a reload");
            }
            break;
          case 5: {
            std::unique_ptr<Image> replacement(
                ImageFactory::GetInstance().Build(kSize, kSize, IT_RGBA8, gamma::Linear));
            const float grey = VersionGrey(static_cast<int>(random() % 7));
            ClearImage(replacement->GetImplRef(), LinearRGBA_T<float>(grey, grey, grey, 1.0f));
            list.Replace(file, *replacement);
            break;
          }
          default:
            held[random() % held.size()] = slot;
            held[random() % held.size()] = Image();
            break;
        }
        operations.fetch_add(1);
      }
    };
    std::vector<std::thread> workers;
    for (unsigned draw = 1; draw <= 3; ++draw)
      workers.emplace_back(work, draw);
    const auto end = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
    for (int version = 1; std::chrono::steady_clock::now() < end; ++version) {
      files.Rewrite(version % kFiles, version);
      std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    stop = true;
    for (std::thread& worker : workers)
      worker.join();
  }
  ImageFactory::GetInstance().SetAdditionalFeaturesFunc(nullptr);
  EXPECT_GT(operations.load(), 100);
  // With every handle gone, every implementation died and left the list.
  EXPECT_EQ(list.CountImages(), 0);
}

}  // namespace
}  // namespace imagery

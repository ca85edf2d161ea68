// Pixel planes and image implementations: row padding and addresses;
// registration, file paths and tracking, version chains and their shared record, mip chains, the
// down-sampling backup, pixel moves and checksums, and the copy of properties.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <sstream>

#include "imagery/image_factory.h"
#include "imagery/image_impl.h"
#include "imagery/image_list.h"
#include "imagery/pixel_plane.h"
#include "imagery_host/logger.h"
#include "support/image_support.h"

namespace imagery {
namespace {

using testing_support::CountedImpl;
using testing_support::Hold;

ImageImpl* NewImpl(int width, int height, EImageType type = IT_RGB8, GammaValue gamma = gamma::sRGB) {
  return new ImageImpl(width, height, type, gamma, &ImageList::Instance());
}

bool Listed(const ImageImpl* impl) {
  return ImageList::Instance().Contains(impl);
}

TEST(ImageImpl, NewImplementationsAreZeroedAndRegisteredWhenLargerThanOnePixelOrGivenARelativePath) {
  auto big = Hold(NewImpl(5, 3, IT_RGBA16)), tiny = Hold(NewImpl(1, 1)), relative = Hold(NewImpl(1, 1));
  const unsigned char* bytes = big->Plane().Data();
  EXPECT_TRUE(std::count(bytes, bytes + 40, 0) == 40 && Listed(big.get()) && !Listed(tiny.get()) &&
              big->UniqueId() != tiny->UniqueId() && big->Synchronized() && !big->IsWorkCopy() &&
              big->GetPtype() == PT_UNDEFINED);
  // A relative path is kept as given when the file is nowhere.
  tiny->SetFilePath(ZELPath(L"/nowhere/brick.png"));
  relative->SetFilePath(ZELPath(L"missing_dir/brick.png"));
  EXPECT_TRUE(Listed(relative.get()) && !Listed(tiny.get()) &&
              relative->FilePath() == ZELPath(L"missing_dir/brick.png"));
}

TEST(ImageImpl, VersionChainsShareOneRecordAndReleaseTheirVersions) {
  std::atomic<int> destroyed{0};
  ImageImpl* first = (new CountedImpl(4, 4, &destroyed))->AddRef()->AddRef();
  ImageImpl* second = new CountedImpl(4, 4, &destroyed);
  ImageImpl* third = new CountedImpl(4, 4, &destroyed);
  first->NextImpl(second);
  second->NextImpl(third);
  EXPECT_TRUE(first->LastImpl() == third && second->LastImpl() == third && third->LastImpl() == third);
  // Every version holds the first one's record; work-copy state set on one shows on all.
  EXPECT_TRUE(second->GetSharedProperties() == first->GetSharedProperties() &&
              first->GetSharedProperties()->References() == 3);
  third->SetWorkCopy(true);
  EXPECT_TRUE(first->IsWorkCopy() && !first->Synchronized());
  // With the second version held elsewhere, releasing the first frees only the first; the last release
  // frees the rest of the chain, and every freed version leaves the list.
  second->AddRef();
  EXPECT_TRUE(!first->RemoveRef() && first->RemoveRef() && destroyed.load() == 1 && Listed(second) &&
              Listed(third) && second->RemoveRef());
  EXPECT_TRUE(destroyed.load() == 3 && !Listed(second) && !Listed(third));
}

TEST(ImageImpl, MipChainsAndTheirSelection) {
  auto impl = Hold(NewImpl(256, 64, IT_RGBA8, GammaValue(2.2f)));
  EXPECT_EQ(impl->MipMapLevels_Ideal() * 10 + impl->MipMapLevels_Gamma(), 91);
  impl->AllocateMipMapGamma();
  impl->InvalidateMipMaps(true, false);
  const auto& levels = impl->GetMipMaps().gammaLevels;
  ASSERT_EQ(levels.size(), 8u);
  EXPECT_TRUE(levels[2].Gamma() == GammaValue(2.2f) && impl->MipMapLevels_Gamma() == 9);
  EXPECT_EQ(&impl->MipGamma(3), &impl->Plane()) << "invalid levels read level 0";
  impl->ValidateMipMaps(true, false);
  EXPECT_TRUE(&impl->MipGamma(3) == &levels[2] && &impl->MipGamma(20) == &levels.back() &&
              &impl->MipGamma(0) == &impl->Plane() && &impl->MipNoGamma(3) == &impl->Plane());
  impl->AllocateMipMapNoGamma();
  EXPECT_EQ(impl->MipNoGamma(1).Gamma(), gamma::Linear) << "the linear chain is separate";
  // Gamma changes invalidate the gamma chain only; "not set" and 0 are ignored.
  impl->SetGamma(GammaValue(-1.0f));
  impl->SetGamma(GammaValue(0.0f));
  EXPECT_TRUE(impl->ValidMipMapsGamma() && impl->GetGamma() == GammaValue(2.2f));
  impl->SetGamma(GammaValue(2.2f));
  EXPECT_TRUE(!impl->ValidMipMapsGamma() && impl->ValidMipMapsNoGamma());

  // A single pixel has no levels.
  auto single = Hold(NewImpl(1, 1));
  single->AllocateMipMapGamma();
  EXPECT_TRUE(single->MipMapLevels_Ideal() == 1 && &single->MipGamma(5) == &single->Plane());
  // Nearly linear images read the linear chain.
  auto near = Hold(NewImpl(16, 16, IT_RGB8, GammaValue(1.00005f)));
  near->AllocateMipMapNoGamma();
  EXPECT_TRUE(near->MipMapLevels_Gamma() == 5 && &near->MipGamma(1) == &near->GetMipMaps().noGammaLevels[0]);
}

TEST(ImageImpl, DownSamplingBackup) {
  auto impl = Hold(NewImpl(1000, 2, IT_Grayscale8));
  impl->Plane().Data()[7] = 42;
  impl->CreateBackupDownSampling();
  impl->Plane().Data()[7] = 1;
  impl->Plane().Alloc(400, 1, IT_Grayscale8, gamma::sRGB);
  int width = 0, height = 0;
  impl->OriginalSize(width, height);
  EXPECT_TRUE(impl->DownSamplingRate() == 3 && width == 1000 && height == 2) << "2.5, rounded to the nearest";
  impl->AllocateMipMapGamma();
  impl->ReloadBackupDownSampling();
  EXPECT_TRUE(impl->Width() == 1000 && impl->Height() == 2 && impl->Plane().Data()[7] == 42 &&
              !impl->ValidMipMapsGamma() && impl->HasDownSamplingBackup());
}

// Pixel copies and swaps, the first-read digest (row padding included), and the copy of the properties
// that are not pixels, a relative path going through SetFilePath.
TEST(ImageImpl, PixelMovesChecksumsAndTheCopyOfTheOtherProperties) {
  auto a = Hold(NewImpl(3, 2, IT_RGB8)), b = Hold(NewImpl(3, 2, IT_RGB8)), c = Hold(NewImpl(1, 1));
  for (std::uint64_t i = 0; i < a->Plane().ByteSize(); ++i)
    a->Plane().Data()[i] = static_cast<unsigned char>(i * 7 + 1);
  a->BuildFirstReadCheckSum();
  EXPECT_EQ(a->GetFirstReadCheckSum(), ComputeMD5(a->Plane().Data(), 24));
  b->AllocateMipMapGamma();
  b->AllocateMipMapNoGamma();
  b->CopyMemoryFrom(*a);
  EXPECT_TRUE(std::memcmp(a->Plane().Data(), b->Plane().Data(), 24) == 0 && !b->ValidMipMapsGamma() &&
              !b->ValidMipMapsNoGamma());
  const unsigned char* aBytes = a->Plane().Data();
  b->SwapAllPixelData(*a);
  EXPECT_TRUE(b->Plane().Data() == aBytes && a->GetMipMaps().gammaLevels.size() == 1u &&
              b->GetMipMaps().gammaLevels.empty());

  b->SetPtype(PT_NormalMap);
  b->SetFilePath(ZELPath(L"relative_maps/rock.png"));
  b->SetLastModif(1234);
  b->Synchronized(false);
  b->SetTitle(ZELString(L"Rock"));
  b->CommonCopyTo(c.get(), CAI_Care);
  EXPECT_TRUE(c->GetPtype() == PT_NormalMap && c->Title() == ZELString(L"Rock") &&
              c->FilePath() == b->FilePath() && Listed(c.get()) && c->LastModif() == 1234 &&
              !c->Synchronized() && c->GetFirstReadCheckSum() == b->GetFirstReadCheckSum());
}

TEST(ImageImpl, FileTrackingAndGammaChangeLog) {
  testing_support::TempFolder folder;
  const ZELPath file = folder.Write("brick.png");
  auto impl = Hold(NewImpl(2, 2)), other = Hold(NewImpl(2, 2));
  impl->SetFilePath(file);
  impl->UpdateLastModif();
  EXPECT_TRUE(impl->IsUpToDate() && other->IImplTestFileExists(file) &&
              !other->IImplTestFileExists(ZELPath(L"/no/such.png")));

  // One line per change of gamma.
  other->SetFilePath(ZELPath(L"/maps/brick.png"));
  Logger::instance().Enable(L"gamma", L"DEBUG");
  testing::internal::CaptureStderr();
  other->SetGamma(GammaValue(2.2f));
  other->SetGamma(GammaValue(2.2f));
  Logger::instance().Disable(L"gamma");
  std::ostringstream expected;
  expected << "gamma DEBUG Imagery/ImageImpl SetGamma:530: Set gamma of ImageImpl  0x"
           << static_cast<const void*>(other.get()) << " \"/maps/brick.png\" from -2 to 2.2\n";
  EXPECT_EQ(testing::internal::GetCapturedStderr(), expected.str());
}

TEST(PixelPlane, RowsArePaddedToFourBytes) {
  // Width, height, format, bytes per line, bytes; unknown formats take one byte per pixel.
  // clang-format off
  const struct { int width, height; EImageType type; int bytesPerLine; std::uint64_t size; } cases[] = {
      {5, 3, IT_RGB8, 16, 48}, {5, 3, IT_RGBA8, 20, 60}, {3, 2, IT_RGB16, 20, 40}, {0, 5, IT_RGB8, 0, 0},
      {4, 0, IT_RGB8, 12, 0}, {3, 2, EImageType(40), 4, 8}};
  // clang-format on
  for (const auto& c : cases) {
    PixelPlane plane(c.width, c.height, c.type, gamma::sRGB);
    EXPECT_TRUE(plane.BytesPerLine() == c.bytesPerLine && plane.ByteSize() == c.size &&
                (plane.Data() == nullptr) == (c.size == 0))
        << c.width << "x" << c.height << " type " << int(c.type);
    EXPECT_TRUE(c.size == 0 ||
                plane.PixelAddress(2, 1) - plane.Data() == c.bytesPerLine + 2 * plane.BytesPerPixel());
  }
  // Impossible sizes throw and leave the plane as it was.
  PixelPlane plane(2, 2, IT_RGB8, gamma::sRGB);
  EXPECT_THROW(plane.Alloc(1 << 30, 1 << 30, IT_RGBA32f, gamma::Linear), std::bad_alloc);
  EXPECT_TRUE(plane.Width() == 2 && plane.Type() == IT_RGB8);
}

}  // namespace
}  // namespace imagery

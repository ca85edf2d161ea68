// Image implementations: registration, file paths and tracking, version chains and their shared record,
// mip chains, the down-sampling backup, pixel moves and checksums, and the copy of properties.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <filesystem>

#include "imagery/image_factory.h"
#include "imagery/image_impl.h"
#include "imagery/image_list.h"
#include "support/image_support.h"

namespace imagery {
namespace {

using testing_support::CountedImpl;
using testing_support::ImplHolder;
using testing_support::TempFolder;
using testing_support::ToZELPath;

ImageImpl* NewImpl(int width, int height, EImageType type = IT_RGB8, GammaValue gamma = gamma::sRGB) {
  return new ImageImpl(width, height, type, gamma, &ImageList::Instance());
}

bool Listed(const ImageImpl* impl) {
  return ImageList::Instance().Contains(impl);
}

TEST(ImageImpl, NewImplementationsAreZeroedAndRegisteredWhenLargerThanOnePixelOrGivenARelativePath) {
  ImplHolder big(NewImpl(5, 3, IT_RGBA16)), tiny(NewImpl(1, 1)), empty(NewImpl(0, 0));
  EXPECT_TRUE(Listed(big.impl));
  EXPECT_FALSE(Listed(tiny.impl) || Listed(empty.impl));
  const PixelPlane& plane = big->Plane();
  EXPECT_EQ(std::count(plane.Data(), plane.Data() + plane.ByteSize(), 0),
            static_cast<long>(plane.ByteSize()));
  EXPECT_EQ(big->GetPtype(), PT_UNDEFINED);
  EXPECT_TRUE(big->Synchronized() && !big->IsWorkCopy());
  EXPECT_NE(big->UniqueId(), tiny->UniqueId());

  // A relative path is kept as given when the file is nowhere to be found, and made absolute when it is
  // found in the current directory.
  tiny->SetFilePath(ZELPath(L"/nowhere/brick.png"));
  EXPECT_FALSE(Listed(tiny.impl));
  ImplHolder relative(NewImpl(1, 1));
  relative->SetFilePath(ZELPath(L"missing_dir/brick.png"));
  EXPECT_TRUE(Listed(relative.impl));
  EXPECT_EQ(relative->FilePath(), ZELPath(L"missing_dir/brick.png"));
  relative->SetFilePath(ZELPath());
  EXPECT_TRUE(relative->FilePath().empty());
  const std::string name = "imagery_relative_" + std::to_string(::getpid()) + ".png";
  std::ofstream(std::filesystem::current_path() / name) << "x";
  big->SetFilePath(ZELPath(ZELString::FromUTF8(name)));
  EXPECT_TRUE(big->FilePath().is_absolute());
  EXPECT_EQ(big->FilePath().leaf(), ZELString::FromUTF8(name));
  std::filesystem::remove(std::filesystem::current_path() / name);
}

TEST(ImageImpl, VersionChainsShareOneRecordAndReleaseTheirVersions) {
  std::atomic<int> destroyed{0};
  ImageImpl* first = new CountedImpl(4, 4, &destroyed);
  ImageImpl* second = new CountedImpl(4, 4, &destroyed);
  ImageImpl* third = new CountedImpl(4, 4, &destroyed);
  first->AddRef();
  first->AddRef();
  first->NextImpl(second);
  second->NextImpl(third);
  for (ImageImpl* version : {first, second, third})
    EXPECT_EQ(version->LastImpl(), third);
  // Every version holds the first one's record; work-copy state set on one shows on all.
  EXPECT_EQ(second->GetSharedProperties(), first->GetSharedProperties());
  EXPECT_EQ(first->GetSharedProperties()->References(), 3);
  third->SetWorkCopy(true);
  EXPECT_TRUE(first->IsWorkCopy());
  EXPECT_FALSE(first->Synchronized());

  // Replacing a next version releases the previous one.
  third->NextImpl(new CountedImpl(4, 4, &destroyed));
  third->NextImpl(nullptr);
  EXPECT_EQ(destroyed.load(), 1);

  // The second version is also held elsewhere: releasing the first frees only the first; the last
  // release frees the rest of the chain, and every freed version leaves the list.
  second->AddRef();
  EXPECT_FALSE(first->RemoveRef());
  EXPECT_TRUE(first->RemoveRef());
  EXPECT_EQ(destroyed.load(), 2);
  EXPECT_TRUE(Listed(second) && Listed(third));
  EXPECT_TRUE(second->RemoveRef());
  EXPECT_EQ(destroyed.load(), 4);
  EXPECT_FALSE(Listed(second) || Listed(third));
}

TEST(ImageImpl, LastImplLooksAtABoundedNumberOfVersions) {
  // Chains of 99 999 and 100 000 versions, the first reaching its end, the second not; releasing them
  // must not nest one destructor per version either.
  for (const int length : {ImageImpl::kMaxChainLength, ImageImpl::kMaxChainLength + 1}) {
    ImageImpl* head = NewImpl(1, 1)->AddRef();
    ImageImpl* tail = head;
    for (int i = 1; i < length; ++i) {
      ImageImpl* next = NewImpl(1, 1);
      tail->NextImpl(next);
      tail = next;
    }
    EXPECT_EQ(head->LastImpl(), length == ImageImpl::kMaxChainLength ? tail : head) << length;
    head->RemoveRef();
  }
  // A loop answers the starting version.
  ImplHolder a(NewImpl(1, 1));
  ImageImpl* b = NewImpl(1, 1);
  a->NextImpl(b);
  b->NextImpl(a.impl);
  EXPECT_EQ(a->LastImpl(), a.impl);
  b->NextImpl(nullptr);
}

TEST(ImageImpl, MipChainsAndTheirSelection) {
  ImplHolder impl(NewImpl(256, 64, IT_RGBA8, GammaValue(2.2f)));
  EXPECT_EQ(impl->MipMapLevels_Ideal(), 9);
  EXPECT_EQ(impl->MipMapLevels_Gamma(), 1);
  impl->AllocateMipMapGamma();
  impl->InvalidateMipMaps(true, false);
  const auto& levels = impl->GetMipMaps().gammaLevels;
  ASSERT_EQ(levels.size(), 8u);
  EXPECT_EQ(levels[2].Gamma(), GammaValue(2.2f));
  EXPECT_EQ(impl->MipMapLevels_Gamma(), 9);
  EXPECT_EQ(&impl->MipGamma(3), &impl->Plane());
  impl->ValidateMipMaps(true, false);
  EXPECT_EQ(&impl->MipGamma(3), &levels[2]);
  EXPECT_EQ(&impl->MipGamma(20), &levels.back());
  EXPECT_EQ(&impl->MipGamma(0), &impl->Plane());
  // The linear chain is separate.
  EXPECT_EQ(&impl->MipNoGamma(3), &impl->Plane());
  impl->AllocateMipMapNoGamma();
  EXPECT_EQ(impl->MipNoGamma(1).Gamma(), gamma::Linear);

  // Gamma changes invalidate the gamma chain only; "not set" and 0 are ignored.
  impl->SetGamma(GammaValue(-1.0f));
  impl->SetGamma(GammaValue(0.0f));
  EXPECT_TRUE(impl->ValidMipMapsGamma());
  EXPECT_EQ(impl->GetGamma(), GammaValue(2.2f));
  impl->SetGamma(GammaValue(2.2f));
  EXPECT_FALSE(impl->ValidMipMapsGamma());
  EXPECT_TRUE(impl->ValidMipMapsNoGamma());

  // Odd sizes halve to 1 on each side separately; a single pixel has no levels.
  std::vector<PixelPlane> odd;
  ImageImpl::MipMaps::Allocate(odd, 8, 2, IT_RGB8, gamma::sRGB);
  ASSERT_EQ(odd.size(), 3u);
  EXPECT_EQ(odd[0].Width() * 100 + odd[1].Width() * 10 + odd[2].Width(), 421);
  EXPECT_EQ(odd[0].Height() + odd[1].Height() + odd[2].Height(), 3);
  ImplHolder single(NewImpl(1, 1));
  single->AllocateMipMapGamma();
  EXPECT_EQ(single->MipMapLevels_Ideal(), 1);
  EXPECT_EQ(&single->MipGamma(5), &single->Plane());

  // Nearly linear images read the linear chain.
  for (const float g : {1.0f, 1.00005f, 1.001f}) {
    ImplHolder near(NewImpl(16, 16, IT_RGB8, GammaValue(g)));
    near->AllocateMipMapNoGamma();
    const bool linear = g != 1.001f;
    EXPECT_EQ(near->MipMapLevels_Gamma(), linear ? 5 : 1) << g;
    EXPECT_EQ(&near->MipGamma(1), linear ? &near->GetMipMaps().noGammaLevels[0] : &near->Plane()) << g;
  }
}

TEST(ImageImpl, DownSamplingBackup) {
  ImplHolder impl(NewImpl(1000, 2, IT_Grayscale8));
  EXPECT_EQ(impl->DownSamplingRate(), 1);
  impl->Plane().Data()[7] = 42;
  impl->CreateBackupDownSampling();
  impl->Plane().Data()[7] = 1;
  impl->Plane().Alloc(333, 1, IT_Grayscale8, gamma::sRGB);
  EXPECT_EQ(impl->DownSamplingRate(), 3);
  impl->Plane().Alloc(400, 1, IT_Grayscale8, gamma::sRGB);
  EXPECT_EQ(impl->DownSamplingRate(), 3);  // 2.5 rounds up
  int width = 0, height = 0;
  impl->OriginalSize(width, height);
  EXPECT_EQ(width * 10000 + height, 1000 * 10000 + 2);

  impl->AllocateMipMapGamma();
  impl->ReloadBackupDownSampling();
  EXPECT_EQ(impl->Width() * 10000 + impl->Height(), 1000 * 10000 + 2);
  EXPECT_EQ(impl->Plane().Data()[7], 42);
  EXPECT_FALSE(impl->ValidMipMapsGamma());
  EXPECT_TRUE(impl->HasDownSamplingBackup());
  impl->Plane().Alloc(0, 0, IT_Grayscale8, gamma::sRGB);
  EXPECT_EQ(impl->DownSamplingRate(), 0);
}

TEST(ImageImpl, PixelMovesAndChecksums) {
  ImplHolder a(NewImpl(3, 2, IT_RGB8)), b(NewImpl(3, 2, IT_RGB8));
  for (std::uint64_t i = 0; i < a->Plane().ByteSize(); ++i)
    a->Plane().Data()[i] = static_cast<unsigned char>(i * 7 + 1);
  // The digest covers the row padding too.
  a->BuildFirstReadCheckSum();
  EXPECT_EQ(a->GetFirstReadCheckSum(), ComputeMD5(a->Plane().Data(), 24));
  const MD5digest before = a->GetFirstReadCheckSum();
  a->Plane().Data()[11] ^= 1;  // a padding byte of row 0
  a->BuildFirstReadCheckSum();
  EXPECT_NE(a->GetFirstReadCheckSum(), before);

  b->AllocateMipMapGamma();
  b->AllocateMipMapNoGamma();
  b->CopyMemoryFrom(*a.impl);
  EXPECT_EQ(std::memcmp(a->Plane().Data(), b->Plane().Data(), 24), 0);
  EXPECT_FALSE(b->ValidMipMapsGamma() || b->ValidMipMapsNoGamma());
  const unsigned char* aBytes = a->Plane().Data();
  b->SwapAllPixelData(*a.impl);
  EXPECT_EQ(b->Plane().Data(), aBytes);
  EXPECT_EQ(a->GetMipMaps().gammaLevels.size(), 1u);
  EXPECT_TRUE(b->GetMipMaps().gammaLevels.empty());
}

TEST(ImageImpl, CommonCopyCarriesThePropertiesThatAreNotPixels) {
  ImplHolder source(NewImpl(4, 4, IT_RGB8, GammaValue(2.2f)));
  source->SetPtype(PT_NormalMap);
  source->SetFilePath(ZELPath(L"relative_maps/rock.png"));
  source->SetLastModif(1234);
  source->Synchronized(false);
  source->BuildFirstReadCheckSum();
  source->SetTitle(ZELString(L"Rock"));
  source->AddOriginalLocation(ZELPath(L"/old/rock.png"));

  ImplHolder destination(NewImpl(1, 1, IT_RGBA8, gamma::sRGB));
  source->CommonCopyTo(destination.impl, CAI_Care);
  EXPECT_EQ(destination->GetPtype(), PT_NormalMap);
  EXPECT_EQ(destination->FilePath(), source->FilePath());
  EXPECT_TRUE(Listed(destination.impl)) << "the path goes through SetFilePath";
  EXPECT_EQ(destination->LastModif(), 1234);
  EXPECT_FALSE(destination->Synchronized());
  EXPECT_EQ(destination->GetFirstReadCheckSum(), source->GetFirstReadCheckSum());
  EXPECT_EQ(destination->Title(), ZELString(L"Rock"));
  EXPECT_TRUE(destination->OriginalLocations().empty());
  // An undefined picture type does not overwrite the destination's.
  source->SetPtype(PT_UNDEFINED);
  source->CommonCopyTo(destination.impl, CAI_DontCare);
  EXPECT_EQ(destination->GetPtype(), PT_NormalMap);
}

TEST(ImageImpl, FileTrackingAndGammaChangeLog) {
  TempFolder folder;
  const auto file = folder.Write("brick.png");
  ImplHolder impl(NewImpl(2, 2));
  impl->SetFilePath(ToZELPath(file));
  EXPECT_EQ(impl->LastModif(), 0);
  EXPECT_FALSE(impl->IsUpToDate());  // never recorded: the file is newer
  impl->UpdateLastModif();
  EXPECT_TRUE(impl->IsUpToDate());
  // Once found missing, the file stays missing and up to date without another look.
  std::filesystem::remove(file);
  EXPECT_FALSE(impl->IImplTestFileExists());
  folder.Write("brick.png");
  std::filesystem::last_write_time(file, std::filesystem::last_write_time(file) + std::chrono::hours(1));
  EXPECT_FALSE(impl->IImplTestFileExists());
  EXPECT_TRUE(impl->IsUpToDate());
  ImplHolder other(NewImpl(2, 2));
  EXPECT_TRUE(other->IImplTestFileExists(ToZELPath(file)));
  EXPECT_FALSE(other->IImplTestFileExists(ZELPath(L"/no/such/file.png")));

  other->SetFilePath(ZELPath(L"/maps/brick.png"));
  {
    testing_support::LogCapture capture(L"gamma", L"DEBUG");
    other->SetGamma(GammaValue(2.2f));
    other->SetGamma(GammaValue(2.2f));  // unchanged: no line
    std::wostringstream expected;
    expected << L"gamma DEBUG Imagery/ImageImpl SetGamma 530: Set gamma of ImageImpl  0x"
             << static_cast<const void*>(other.impl) << L" \"/maps/brick.png\" from -2 to 2.2";
    EXPECT_EQ(capture.Lines(), std::vector<std::wstring>{expected.str()});
  }
  testing_support::LogCapture infoOnly(L"gamma", L"INFO");
  other->SetGamma(GammaValue(1.8f));
  EXPECT_TRUE(infoOnly.Lines().empty());
  EXPECT_EQ(other->GetGamma(), GammaValue(1.8f));
}

}  // namespace
}  // namespace imagery

#include <gtest/gtest.h>

#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "imagery/gamma_settings.h"
#include "imagery/image.h"
#include "imagery/image_factory.h"
#include "imagery/image_stream.h"
#include "imagery/resample.h"
#include "imagery_host/logger.h"
#include "imagery_host/stream.h"
#include "support/random_image.h"
#include "support/text_picture.h"

namespace imagery {
namespace {

using testing_support::Bytes;
using testing_support::kAllFormats;
using testing_support::PlaneBytes;
using testing_support::RandomImage;

Bytes Written(const Image& image, bool incorporate) {
  ZELMemoryStream stream;
  EXPECT_TRUE(image.Write(&stream, incorporate, false));
  return stream.Bytes();
}

// The ids of the image chunk's sub-chunks.
std::vector<unsigned short> SubChunks(const Bytes& bytes) {
  ZELMemoryStream stream(bytes);
  ZELReadChunk image;
  ZELPath read;
  std::vector<unsigned short> ids;
  if (!image.InitChunk(&stream) || !stream.ReadPath(read))
    return ids;
  while (image.HasMoreData()) {
    ZELReadChunk sub;
    if (!sub.InitChunk(&stream))
      break;
    ids.push_back(sub.GetID());
  }
  return ids;
}

bool Has(const std::vector<unsigned short>& ids, unsigned short id) {
  return std::find(ids.begin(), ids.end(), id) != ids.end();
}

// Writes old layouts value by value: typed values are a 16-bit tag, then the value.
struct OldChunkWriter {
  ZELMemoryStream stream;
  void Int(int v) { stream.WriteSwap<unsigned short>(2), stream.WriteSwap(v); }
  void Short(short v) { stream.WriteSwap<unsigned short>(1), stream.WriteSwap(v); }
  void Byte(unsigned char v) { stream.WriteSwap<unsigned short>(0), stream.WriteSwap(v); }
  void Float(float v) { stream.WriteSwap<unsigned short>(3), stream.WriteSwap(v); }
  void Double(double v) { stream.WriteSwap<unsigned short>(4), stream.WriteSwap(v); }
};

// A bits chunk of version 1 built from its parts, inside an image chunk without a path, followed by
// what `afterBits` writes.
Bytes BitsImageChunk(const std::function<void(OldChunkWriter&)>& insideBits,
                     const std::function<void(OldChunkWriter&)>& afterBits = nullptr) {
  OldChunkWriter w;
  {
    ZELWriteChunk image(&w.stream, kImageChunk);
    w.stream.WritePath(ZELPath());
    {
      ZELWriteChunk bits(&w.stream, kBitsChunk);
      insideBits(w);
    }
    if (afterBits)
      afterBits(w);
  }
  return w.stream.Bytes();
}

void Header(OldChunkWriter& w, int type, int height, int width, int rowBytes, int bitsPerPixel) {
  ZELWriteChunk header(&w.stream, kBitsHeaderChunk);
  for (int v : {type, height, width, rowBytes, bitsPerPixel})
    w.Int(v);
}

void Rows(OldChunkWriter& w, std::size_t count) {
  ZELWriteChunk data(&w.stream, kBitsDataChunk);
  w.stream.Write(Bytes(count, 0x5A).data(), count);
}

// Reads `bytes` into `image`; the stream's error tag goes to `tag` ("" when none).
bool ReadInto(Image& image, const Bytes& bytes, std::string* tag = nullptr,
              EImageType requested = IT_UNDEFINED, int version = ZELStream::kCurrentVersion) {
  ZELMemoryStream stream(bytes, ZELByteOrder::LittleEndian, version);
  const bool read = image.Read(&stream, requested);
  if (tag)
    *tag = stream.GetError().IsBad() ? stream.GetError().ToString() : "";
  return read;
}

using testing_support::TextPictures;

// Gives `image` a picture type, a title, transformations and an attribute.
void Decorate(Image& image, EPictureType type) {
  image.SetPtype(type);
  image.SetTitle(L"t\u00eftre");
  image.SetRotationAngle(180.0f);
  image.MirrorX();
  image.ExtraAttributes().put("maker.tool", "brush \"soft\"");
}

// What a handle carries besides its pixels.
auto Carried(const Image& image) {
  return std::make_tuple(image.ImageType(), image.GetTransformations(), image.ExtraAttributes(),
                         image.GetPtype(), image.Title());
}

// A host's caching reader behind the file references.
class ReferencedImages : public testing_support::TextPictureTest {
 protected:
  void SetUp() override {
    TextPictureTest::SetUp();
    TextPictures::gamma = gamma::sRGB;
    TextPictures::askListFirst = true;
  }
};

TEST(ImageStream, IncorporatedImagesComeBackBitForBitWithEverythingTheHandleCarries) {
  for (EImageType type : kAllFormats) {
    SCOPED_TRACE(type);
    Image original = RandomImage(type, 5, 3, type == IT_RGB8 ? GammaValue(2.2f) : gamma::sRGB, 7 + type);
    Decorate(original, static_cast<EPictureType>(type));
    original.SetExposure(0.5f);
    original.SetInvertedAlpha(true);
    original.SetInvertedNormalGreen(true);
    original.DPI(300);
    original.ExtraAttributes().put("IsDummy", true);

    Image read(2, 2, IT_Grayscale16);
    ASSERT_TRUE(ReadInto(read, Written(original, true)));
    EXPECT_TRUE(Carried(read) == Carried(original) && read.GetGamma() == original.GetGamma() &&
                PlaneBytes(read) == PlaneBytes(original) &&
                read.GetImplRef().UniqueId() == original.GetImplRef().UniqueId() &&
                read.GetImpl() != original.GetImpl());
  }
}

TEST(ImageStream, WriterChoosesBitsOrReferenceAndStoresGammaAsSRGBWhenUnset) {
  Image noPath = RandomImage(IT_RGB8, 3, 2, gamma::NotSet, 1);
  noPath.SetPtype(PT_Bump);
  Image internal = RandomImage(IT_RGB8, 3, 2, gamma::sRGB, 2);
  internal.SetFilePath(L"/scene/ZEL_Internal_12.png");
  for (const Image* image : {&noPath, &internal}) {
    const std::vector<unsigned short> ids = SubChunks(Written(*image, false));
    EXPECT_TRUE(Has(ids, kBitsChunk) &&
                !(Has(ids, kFileReferenceChunk) || Has(ids, kGammaChunk) || Has(ids, kPictureTypeChunk)));
  }
  Image empty;
  EXPECT_TRUE(!Has(SubChunks(Written(empty, false)), kBitsChunk) &&
              Has(SubChunks(Written(empty, true)), kBitsChunk));

  // Unset and zero gammas are written as sRGB, in the bits and in a file reference.
  for (GammaValue gamma : {gamma::NotSet, GammaValue(0.0f)}) {
    Image referenced(2, 2, IT_RGB8, gamma::Linear);
    referenced.SetFilePath(L"/textures/a.png");
    referenced.GetImplRef().Plane().SetGamma(gamma);
    ZELMemoryStream stream(Written(referenced, false));
    ZELReadChunk image, sub;
    ZELPath path;
    float stored = 0;
    ASSERT_TRUE(image.InitChunk(&stream) && stream.ReadPath(path));
    while (sub.InitChunk(&stream) && sub.GetID() != kGammaChunk)
      sub.Close();
    Image bits;
    noPath.GetImplRef().Plane().SetGamma(gamma);
    ASSERT_TRUE(stream.ReadTyped(stored) && ReadInto(bits, Written(noPath, true)));
    EXPECT_TRUE(stored == -2.0f && bits.GetGamma() == gamma::sRGB);
  }
}

TEST(ImageStream, OlderLayoutsReadToTheirValues) {
  // Bits of version 0 with 16-bit typed numbers, a transformation chunk ending after the DPI and an
  // exposure chunk whose flag is clear, in a stream too old for the permanent identifier.
  OldChunkWriter w;
  const zel_uid::PermUID skippedId = zel_uid::PermUID::Generate();
  const unsigned char rgb[8] = {1, 2, 3, 4, 5, 6, 0, 0};
  {
    ZELWriteChunk image(&w.stream, kImageChunk);
    w.stream.WritePath(ZELPath(L"/old/scene.png"));
    {
      ZELWriteChunk transformation(&w.stream, kTransformationChunk);
      w.Double(180.0), w.Byte(1), w.Byte(0), w.Byte(1), w.Short(96);
    }
    {
      ZELWriteChunk exposure(&w.stream, kExposureContrastChunk);
      w.Byte(0), w.Float(0.5f), w.Float(0.25f);
    }
    {
      ZELWriteChunk bits(&w.stream, kBitsV0Chunk);
      w.Short(IT_RGB8), w.Int(1), w.Short(2), w.Int(8), w.Short(24);
      w.stream.Write(rgb, sizeof rgb);
    }
    {
      ZELWriteChunk id(&w.stream, kPermanentIdChunk);
      skippedId.Write(&w.stream);
    }
    ZELWriteChunk gamma(&w.stream, kGammaChunk);
    w.Float(0.0f);
  }
  Image image;
  image.SetInvertedNormal(true);
  image.SetInvertedNormalGreen(true);
  GetCurrentGammaSettings().SetInputGamma(GammaValue(1.8f));
  ASSERT_TRUE(ReadInto(image, w.stream.Bytes(), nullptr, IT_UNDEFINED, kPermanentIdStreamVersion - 1));
  EXPECT_TRUE(PlaneBytes(image) == Bytes(rgb, rgb + 8) && image.FilePath() == ZELPath(L"/old/scene.png") &&
              image.GetAngle() == 180.0 && image.DPI() == 96 && image.GetInvertedColor() &&
              image.GetMirrorY() && !image.GetMirrorX() && !image.HasExposureOrContrast() &&
              image.GetExposure() == 0.0f && image.GetContrast() == 0.0f);
  // Normal inversions are absent from the short form; identifiers were not kept yet; a stored 0 takes
  // the input gamma of the format.
  EXPECT_TRUE(image.GetInvertedNormal() && image.GetInvertedNormalGreen() &&
              image.GetImplRef().UniqueId() != skippedId && image.GetGamma() == GammaValue(1.8f));
  GetCurrentGammaSettings().SetInputGamma(gamma::sRGB);

  // The eight-bit grey type stored with three or four bytes per pixel is 16-bit grey in RGB bytes.
  for (int bytesPerPixel : {3, 4}) {
    Image grey;
    ASSERT_TRUE(ReadInto(grey, BitsImageChunk([&](OldChunkWriter& b) {
                           Header(b, IT_Grayscale8, 1, 1, 4, bytesPerPixel * 8);
                           Rows(b, 4);
                         })));
    EXPECT_TRUE(grey.ImageType() == (bytesPerPixel == 3 ? IT_RGEncoded : IT_RGEncodedAlpha) &&
                grey.GetGamma() == gamma::NotSet);
  }
}

TEST(ImageStream, EveryDamagedBitsChunkFailsWithItsTagAndTheHandleKeepsItsPixels) {
  struct Case {
    const char* tag;
    std::function<void(OldChunkWriter&)> bits;
  };
  const Case v1[] = {
      {"IMGRD1271", [](OldChunkWriter& w) { Header(w, IT_UNDEFINED, 1, 1, 4, 24); }},
      {"IMGRD1274", [](OldChunkWriter& w) { Header(w, IT_RGB8, 1, 0, 4, 24); }},
      {"IMGRD1283", [](OldChunkWriter& w) { Rows(w, 4); }},
      {"IMGRD1291", [](OldChunkWriter& w) { Header(w, IT_RGB8, 1, 1, 0, 24), Rows(w, 4); }},
      {"IMGRD1295", [](OldChunkWriter& w) { Header(w, IT_RGB8, 1, 1, 4, 7), Rows(w, 4); }},
      {"IMGRD1176", [](OldChunkWriter& w) { Header(w, IT_RGBA8, 1, 1, 4, 24), Rows(w, 4); }},
      // Bits already taken do not stay when the chunk fails afterwards.
      {"IMGRD1271",
       [](OldChunkWriter& w) { Header(w, IT_RGB8, 1, 1, 4, 24), Rows(w, 4), Header(w, 12, 1, 1, 4, 24); }},
  };
  for (const Case& c : v1) {
    SCOPED_TRACE(c.tag);
    Image image(2, 2, IT_RGBA8);
    const ImageImpl* before = image.GetImpl();
    ZELMemoryStream stream(BitsImageChunk(c.bits));
    ZELReadChunk outer;
    ZELPath path;
    ASSERT_TRUE(outer.InitChunk(&stream) && stream.ReadPath(path));
    EXPECT_TRUE(!image.ReadImageBitsV1(&stream) && stream.GetError().Tag() == c.tag &&
                image.GetImpl() == before);
  }
  const std::pair<const char*, std::vector<int>> v0[] = {
      {"IMGRD1372", {IT_RGB8, 0, 1, 4, 24}},  {"IMGRD1378", {IT_RGB8, 1, 1, 0, 24}},
      {"IMGRD1384", {IT_RGB8, 1, 1, 4, 7}},   {"IMGRD1273", {IT_UNDEFINED, 1, 1, 4, 24}},
      {"IMGRD1273", {IT_RGB16, 1, 1, 8, 24}},
  };
  for (const auto& [tag, ints] : v0) {
    OldChunkWriter w;
    {
      ZELWriteChunk bits(&w.stream, kBitsV0Chunk);
      for (int v : ints)
        w.Int(v);
      w.stream.Write(Bytes(16).data(), 16);
    }
    Image image;
    w.stream.Rewind();
    EXPECT_TRUE(!image.ReadImageBitsV0(&w.stream) && w.stream.GetError().Tag() == tag && image.IsEmpty())
        << tag;
  }
  // Anything but an image chunk where one is expected.
  OldChunkWriter other;
  { ZELWriteChunk bits(&other.stream, kBitsChunk); }
  std::string tag;
  Image image;
  EXPECT_TRUE(!ReadInto(image, other.stream.Bytes(), &tag) && tag == "IMGRD1124" && image.IsEmpty());
}

// Counts the implementations its images ask for.
struct CountingFactory : ImageFactory {
  ImageImpl* CreateImpl(int width, int height, EImageType type, GammaValue gamma,
                        NewPixels pixels) const override {
    ++created;
    return ImageFactory::CreateImpl(width, height, type, gamma, pixels);
  }
  mutable int created = 0;
};
struct CountingImage : Image {
  using Image::Image;
  const ImageFactory* GetFactory() const override { return &factory; }
  static inline CountingFactory factory;
};

TEST(ImageStream, TruncatedOrLyingChunksFailCleanlyWithoutAllocatingWhatTheyPromise) {
  Image source = RandomImage(IT_RGBA16, 3, 2, gamma::sRGB, 3);
  source.ExtraAttributes().put("a", "b");
  const Bytes whole = Written(source, true);
  Image image = RandomImage(IT_RGB8, 4, 4, gamma::sRGB, 4), sharer(image);
  const ImageImpl* before = image.GetImpl();
  const Bytes pixels = PlaneBytes(image);
  for (std::size_t size = 0; size < whole.size(); ++size) {
    std::string tag;
    ASSERT_TRUE(!ReadInto(image, Bytes(whole.begin(), whole.begin() + size), &tag) && tag == "IMGRD1124" &&
                image.GetImpl() == before && sharer.GetImpl() == before && PlaneBytes(image) == pixels &&
                image.ImageType() == IT_RGB8 && image.GetGamma() == gamma::sRGB)
        << size;
  }

  // Wide rows, and rows narrow enough that one of them is present but not all.
  for (const auto& [width, height] : {std::pair{100000, 100000}, {1, 1 << 24}}) {
    CountingImage huge;
    const Bytes promise = BitsImageChunk([width = width, height = height](OldChunkWriter& w) {
      Header(w, IT_RGBA32f, height, width, width * 16, 128);
      Rows(w, 64);
    });
    const int createdBefore = CountingImage::factory.created;
    EXPECT_TRUE(!ReadInto(huge, promise) && CountingImage::factory.created == createdBefore + 1 &&
                huge.Width() == 1)
        << "only the 1 x 1 placeholder for " << width << " x " << height;
  }

  // A recorded down-sampled size may enlarge the 3 x 2 pixels read to four times as many at most, never
  // make the reader resample them to a size no data justifies.
  for (const auto& [width, height] : {std::pair{6, 4}, {5, 5}, {2, 100000}, {0, 1}}) {
    const Bytes bytes =
        BitsImageChunk([](OldChunkWriter& b) { Header(b, IT_RGB8, 2, 3, 12, 24), Rows(b, 24); },
                       [width = width, height = height](OldChunkWriter& b) {
                         ZELWriteChunk size(&b.stream, kDownSampledSizeChunk);
                         b.Int(width), b.Int(height);
                       });
    std::string tag;
    Image enlarged;
    const bool read = ReadInto(width == 6 ? enlarged : image, bytes, &tag);
    EXPECT_TRUE(width == 6 ? read && enlarged.Width() == 6 && enlarged.Height() == 4
                           : !read && tag == "IMGRD1318" && image.GetImpl() == before)
        << width << " x " << height;
  }
}

// A reference whose file is loaded already shares it (that a reference, not the bits, is written is seen
// by the reread count of the test after this one).
TEST_F(ReferencedImages, ReadBackThroughTheImageListAndSurviveMissingFiles) {
  const ZELPath path = folder_.Write("rock.txt", "8 6 0.5 1");
  Image loaded = ReadPicture(path, IT_RGB8);
  loaded.MirrorY();
  const int reads = TextPictures::reads;
  Image shared;
  ASSERT_TRUE(ReadInto(shared, Written(loaded, false)));
  EXPECT_TRUE(shared.GetImpl() == loaded.GetImpl() && TextPictures::reads == reads && shared.GetMirrorY())
      << "the file already loaded is shared";

  // A missing file fails with the reader's error; the next image of the stream still reads.
  Image missing(2, 2, IT_RGB8);
  missing.SetFilePath(folder_.Write("gone.txt", "not a picture"));
  ZELMemoryStream two;
  ASSERT_TRUE(missing.Write(&two, false, false) &&
              RandomImage(IT_RGB8, 2, 2, gamma::sRGB, 4).Write(&two, false, false));
  two.Rewind();
  Image first, second;
  EXPECT_TRUE(!first.Read(&two, IT_UNDEFINED) && two.GetError().Message() == "not a test picture");
  two.SetError(zel::ErrorCode());
  EXPECT_TRUE(second.Read(&two, IT_UNDEFINED) && second.Width() == 2);
}

TEST_F(ReferencedImages, EveryFormatIsReadAgainFromItsFileWithWhatTheHandleCarried) {
  for (EImageType type : kAllFormats) {
    SCOPED_TRACE(type);
    const ZELPath path =
        folder_.Write("f" + std::to_string(type) + ".txt", "7 5 0.1 1 " + std::to_string(type));
    Bytes full, fullPixels, reduced, reducedPixels;
    std::optional<decltype(Carried(Image()))> carried;
    {
      Image loaded = ReadPicture(path, IT_UNDEFINED);
      ASSERT_EQ(loaded.ImageType(), type);
      Decorate(loaded, PT_Roughness);
      full = Written(loaded, false);
      fullPixels = PlaneBytes(loaded);
      carried = Carried(loaded);
      // Reduced the way a reader reduces it again, so the pixels must match.
      ResampleOpts inPlace;
      inPlace.implManagement = IM_InPlace;
      inPlace.whiteMargin = inPlace.keepAspectRatio = true;
      Resample(loaded, 4, 3, inPlace);
      reduced = Written(loaded, false);
      reducedPixels = PlaneBytes(loaded);
    }
    ASSERT_FALSE(fullPixels.empty());
    for (const bool downSampled : {false, true}) {
      const int reads = TextPictures::reads;
      Image back;
      ASSERT_TRUE(ReadInto(back, downSampled ? reduced : full));
      // Nothing of the file stayed loaded, so it is read again.
      EXPECT_TRUE(TextPictures::reads == reads + 1 && Carried(back) == *carried &&
                  back.Width() == (downSampled ? 4 : 7) &&
                  PlaneBytes(back) == (downSampled ? reducedPixels : fullPixels));
    }
  }
}

TEST_F(ReferencedImages, GreyRequestsAndTheLogLines) {
  const ZELPath path = folder_.Write("grey.txt", "2 2 0.5 1");
  Image colour = ReadPicture(path, IT_RGB8);
  const zel_uid::PermUID id = colour.GetImplRef().UniqueId();
  colour.SetPtype(PT_Color);

  std::vector<std::wstring> lines;
  std::mutex mutex;
  Logger::instance().Enable(L"gamma", L"TRACE");
  Logger::instance().Enable(L"image", L"DEBUG");
  const Logger::Sink previous = Logger::instance().SetSink([&](const LogRecord& record) {
    std::lock_guard<std::mutex> lock(mutex);
    lines.emplace_back(record.message);
  });
  Image grey;
  const bool read = ReadInto(grey, Written(colour, false), nullptr, IT_Grayscale8);
  Logger::instance().SetSink(previous);
  Logger::instance().Disable(L"gamma");
  Logger::instance().Disable(L"image");
  ASSERT_TRUE(read && grey.ImageType() == IT_Grayscale8);
  EXPECT_EQ(grey.GetImplRef().UniqueId(), id) << "the identifier survives the conversion";
  const std::vector<std::wstring> expected = {L"Image::Read----------------------------",
                                              L"KORCHUNK_IMAGE_GAMMA is -2", L"Set ptype PT_Color",
                                              L"Set gamma with incorporatedGamma -2"};
  for (const std::wstring& line : expected)
    EXPECT_NE(std::find(lines.begin(), lines.end(), line), lines.end())
        << std::string(line.begin(), line.end());
}

}  // namespace
}  // namespace imagery

// Edge dilation: the mean colour of the defined pixels, the first fill from the picked colours, the
// distance-dependent box blur and the blend towards the mean, per pixel family.
#include "imagery/edge_dilation.h"

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <utility>
#include <vector>

#include "dilation/window_mean.h"
#include "imagery/channel_ops.h"
#include "imagery/gamma_tables.h"
#include "imagery/image.h"
#include "imagery/image_factory.h"
#include "imagery/picture_type.h"
#include "imagery/pixel_format.h"
#include "imagery/pixel_tasks.h"

namespace imagery {

namespace {

using dilation::BlurredSpan;
using dilation::IsBlurred;
using dilation::kFarDistance;
using dilation::WindowMeans;

// The family of a format: the format whose template the work runs with. RGBA formats share the family
// of their RGB twin (their colour samples lie at the same offsets; alpha is never read).
constexpr EImageType FamilyOf(EImageType type) {
  switch (type) {
    case IT_RGB8:
    case IT_RGBA8:
      return IT_RGB8;
    case IT_RGB16:
    case IT_RGBA16:
      return IT_RGB16;
    case IT_RGB32f:
    case IT_RGBA32f:
      return IT_RGB32f;
    case IT_Grayscale8:
    case IT_Grayscale16:
    case IT_Grayscale32f:
      return type;
    default:
      return IT_UNDEFINED;
  }
}

// A pixel's colour samples to linear floats and back, in the samples' memory order (blue, green, red for
// colour families, the order of the float working image too). 8- and 16-bit samples go through the sRGB
// tables, which give the values of the per-value curves bit for bit; the tables are shared and
// immutable, so one codec serves every task.
template <EImageType F>
class Codec {
 public:
  static constexpr FormatLayout kLayout = LayoutOf(F);
  static constexpr int kChannels = kLayout.grey ? 1 : 3;
  static constexpr SampleKind kKind = kLayout.colour;
  static constexpr int kSampleBytes = kKind == SampleKind::Code8 ? 1 : kKind == SampleKind::Code16 ? 2 : 4;
  static constexpr EImageType kWorkType = kLayout.grey ? IT_Grayscale32f : IT_RGB32f;
  static_assert(kLayout.blue == 0 && (kLayout.grey || kLayout.green == kSampleBytes) &&
                (kLayout.grey || kLayout.red == 2 * kSampleBytes));

  Codec() : decode8_(gamma::sRGB), decode16_(gamma::sRGB), encode8_(gamma::sRGB), encode16_(gamma::sRGB) {}

  void Decode(const unsigned char* pixel, float* linear) const {
    for (int c = 0; c < kChannels; ++c) {
      const unsigned char* sample = pixel + c * kSampleBytes;
      if constexpr (kKind == SampleKind::Code8)
        linear[c] = decode8_(*sample);
      else if constexpr (kKind == SampleKind::Code16)
        linear[c] = decode16_(detail::LoadBE16(sample));
      else
        linear[c] = detail::LoadFloat(sample);
    }
  }

  void Encode(const float* linear, unsigned char* pixel) const {
    if constexpr (kKind == SampleKind::Code8) {
      if constexpr (kChannels == 3)
        encode8_.EncodeThree(linear, pixel);
      else
        *pixel = encode8_(*linear);
    } else if constexpr (kKind == SampleKind::Code16) {
      unsigned short codes[kChannels];
      if constexpr (kChannels == 3)
        encode16_.EncodeThree(linear, codes);
      else
        codes[0] = encode16_(*linear);
      for (int c = 0; c < kChannels; ++c)
        detail::StoreBE16(pixel + 2 * c, codes[c]);
    } else {
      std::memcpy(pixel, linear, sizeof(float) * kChannels);
    }
  }

 private:
  GammaDecodeTable8 decode8_;
  GammaDecodeTable16 decode16_;
  GammaEncoder8 encode8_;
  GammaEncoder16 encode16_;
};

// A linear value in the memory order of the samples.
template <EImageType F>
struct Linear {
  float v[Codec<F>::kChannels] = {};
};

// What one band of the mean colour gives: the number of defined pixels and the sum of their values.
template <EImageType F>
using MeanSum =
    std::pair<unsigned long, std::conditional_t<Codec<F>::kChannels == 1, float, LinearRGB_T<float>>>;

// Everything the stages read: the image, its working twin and the field, as plain pointers and strides.
struct Planes {
  unsigned char* image;
  std::ptrdiff_t imageLine;
  int imagePixel;
  float* work;
  int width;
  int height;
  const DistanceField* field;

  unsigned char* ImagePixel(int x, int y) const {
    return image + y * imageLine + static_cast<std::ptrdiff_t>(x) * imagePixel;
  }
};

template <EImageType F>
float* WorkPixel(const Planes& p, int x, int y) {
  return p.work + (static_cast<std::ptrdiff_t>(y) * p.width + x) * Codec<F>::kChannels;
}

template <EImageType F>
Linear<F> ComputeMeanColor(const Planes& p, const Codec<F>& codec) {
  static constexpr int C = Codec<F>::kChannels;
  const auto map = [&p, &codec](int firstRow, int endRow) {
    unsigned long count = 0;
    float sum[C] = {};
    for (int y = firstRow; y < endRow; ++y) {
      const std::uint32_t* distances = p.field->DistanceRow(y);
      const unsigned char* pixel = p.ImagePixel(0, y);
      for (int x = 0; x < p.width; ++x, pixel += p.imagePixel) {
        if (distances[x] != 0)
          continue;
        float value[C];
        codec.Decode(pixel, value);
        ++count;
        for (int c = 0; c < C; ++c)
          sum[c] += value[c];
      }
    }
    MeanSum<F> result{count, {}};
    if constexpr (C == 1)
      result.second = sum[0];
    else
      result.second = LinearRGB_T<float>(sum[2], sum[1], sum[0]);
    return result;
  };
  const auto reduce = [](MeanSum<F>& into, const MeanSum<F>& next) {
    into.first += next.first;
    into.second += next.second;
  };
  const MeanSum<F> total = MapReducePixelTasks<MeanSum<F>>(p.width, p.height, map, reduce, kPixelsPerTask);
  Linear<F> mean;
  if (total.first == 0)
    return mean;
  const float count = static_cast<float>(total.first);
  if constexpr (C == 1) {
    mean.v[0] = total.second / count;
  } else {
    mean.v[0] = total.second.b / count;
    mean.v[1] = total.second.g / count;
    mean.v[2] = total.second.r / count;
  }
  return mean;
}

// The first fill: each pixel the blur changes takes the colour picked through the field. On the calling
// thread alone, since picking writes the field's memory of answers. Defined pixels would take their own
// colour and far pixels the mean; the blur reads those straight from the image and from the mean (see
// Sample), so the working image is written, and its memory touched, only where the blur works.
//
// It also notes, for every column, its first and last blurred row (-1 when none), which the vertical pass
// would otherwise have to find by walking the field down its columns.
template <EImageType F>
void StartWork(const Planes& p, const Codec<F>& codec, std::vector<int>& columnSpans) {
  columnSpans.assign(static_cast<std::size_t>(2 * p.width), -1);
  for (int y = 0; y < p.height; ++y) {
    const std::uint32_t* distances = p.field->DistanceRow(y);
    for (int x = 0; x < p.width; ++x) {
      if (!IsBlurred(distances[x]))
        continue;
      if (columnSpans[static_cast<std::size_t>(2 * x)] < 0)
        columnSpans[static_cast<std::size_t>(2 * x)] = y;
      columnSpans[static_cast<std::size_t>(2 * x + 1)] = y;
      int pickX = x, pickY = y;
      p.field->GetColorToPickCoordinates(pickX, pickY);
      codec.Decode(p.ImagePixel(pickX, pickY), WorkPixel<F>(p, x, y));
    }
  }
}

// What the working image holds at (x, y) before a pass: the decoded colour of a defined pixel (defined
// pixels of the image are never written), the mean beyond the blur's reach, and otherwise the value the
// previous stage left in the working image.
template <EImageType F>
struct Sample {
  const Planes& p;
  const Codec<F>& codec;
  const Linear<F>& mean;

  void operator()(int x, int y, std::uint32_t distance, float* value) const {
    if (distance == 0)
      codec.Decode(p.ImagePixel(x, y), value);
    else if (distance > kFarDistance)
      std::memcpy(value, mean.v, sizeof mean.v);
    else
      std::memcpy(value, WorkPixel<F>(p, x, y), sizeof mean.v);
  }
};

// Rows: far pixels of the image get the encoded mean (nobody reads them), and the horizontal box means of
// each row with blurred pixels go back into the working image (every sample is fetched before any mean is
// stored).
template <EImageType F>
void FilterDistanceImageX(const Planes& p, const Codec<F>& codec, const Linear<F>& mean,
                          const unsigned char* encodedMean) {
  static constexpr int C = Codec<F>::kChannels;
  constexpr std::size_t kColourBytes = static_cast<std::size_t>(Codec<F>::kSampleBytes * C);
  const Sample<F> sample{p, codec, mean};
  ProcessPixelTasks(
      p.width, p.height,
      [&p, &sample, encodedMean](int firstRow, int endRow) {
        thread_local std::vector<double> totals;
        thread_local std::vector<float> values;
        thread_local std::vector<float> means;
        if (means.size() < static_cast<std::size_t>(p.width) * C)
          means.resize(static_cast<std::size_t>(p.width) * C);
        for (int y = firstRow; y < endRow; ++y) {
          const std::uint32_t* distances = p.field->DistanceRow(y);
          unsigned char* pixel = p.ImagePixel(0, y);
          for (int x = 0; x < p.width; ++x, pixel += p.imagePixel) {
            if (distances[x] >= kFarDistance)
              std::memcpy(pixel, encodedMean, kColourBytes);
          }
          int first, last;
          if (!BlurredSpan(distances, 1, p.width, first, last))
            continue;
          WindowMeans<C>([&sample, distances, y](int x, float* v) { sample(x, y, distances[x], v); },
                         distances, 1, p.width, first, last, means.data(), values, totals);
          for (int x = first; x <= last; ++x) {
            if (IsBlurred(distances[x]))
              std::memcpy(WorkPixel<F>(p, x, y), means.data() + x * C, sizeof(float) * C);
          }
        }
      },
      kPixelsPerTask);
}

// Columns: the vertical box means, each blended towards the mean colour and written into the image at
// once. Bands here are bands of whole columns (the transposed image cut as rows are), so each task owns
// its columns of both images. A band gathers its columns' samples and distances walking the rows in
// storage order, works on each column in that contiguous copy, and writes its results row by row again:
// walking a column of a wide image directly would cost a cache and page miss per pixel.
template <EImageType F>
void FilterDistanceImageYAndTransition(const Planes& p, const Codec<F>& codec, const Linear<F>& mean,
                                       const std::vector<int>& columnSpans) {
  static constexpr int C = Codec<F>::kChannels;
  const Sample<F> sample{p, codec, mean};
  ProcessPixelTasks(
      p.height, p.width,
      [&p, &mean, &codec, &sample, &columnSpans](int firstColumn, int endColumn) {
        thread_local std::vector<double> totals;
        thread_local std::vector<float> values, columnValues, means;
        thread_local std::vector<std::uint32_t> columnDistances;
        const int columns = endColumn - firstColumn;
        const int height = p.height;
        // Rows [low, high] of the band's columns that any window reads.
        int low = height, high = -1, firstBlurred = height, lastBlurred = -1;
        for (int x = firstColumn; x < endColumn; ++x) {
          const int first = columnSpans[static_cast<std::size_t>(2 * x)];
          if (first < 0)
            continue;
          const int last = columnSpans[static_cast<std::size_t>(2 * x + 1)];
          low = std::min(low, std::max(first - dilation::kMaxRadius, 0));
          high = std::max(high, std::min(last + dilation::kMaxRadius, height - 1));
          firstBlurred = std::min(firstBlurred, first);
          lastBlurred = std::max(lastBlurred, last);
        }
        if (high < 0)
          return;
        const std::size_t rows = static_cast<std::size_t>(high - low + 1);
        const std::size_t cells = rows * static_cast<std::size_t>(columns);
        if (columnValues.size() < cells * C)
          columnValues.resize(cells * C);
        if (means.size() < cells * C)
          means.resize(cells * C);
        if (columnDistances.size() < cells)
          columnDistances.resize(cells);
        // Column i of the band occupies entries [i x rows, (i + 1) x rows), row low first.
        for (int y = low; y <= high; ++y) {
          const std::uint32_t* distances = p.field->DistanceRow(y);
          for (int i = 0; i < columns; ++i) {
            const int x = firstColumn + i;
            const std::size_t cell = static_cast<std::size_t>(i) * rows + static_cast<std::size_t>(y - low);
            columnDistances[cell] = distances[x];
            if (columnSpans[static_cast<std::size_t>(2 * x)] >= 0)
              sample(x, y, distances[x], columnValues.data() + cell * C);
          }
        }
        for (int i = 0; i < columns; ++i) {
          const int x = firstColumn + i;
          const int first = columnSpans[static_cast<std::size_t>(2 * x)];
          if (first < 0)
            continue;
          const int last = columnSpans[static_cast<std::size_t>(2 * x + 1)];
          // Positions along the copy count from row `low`. Cutting the windows at the copy's ends cuts them
          // where the image's border does: the copy ends short of the border only where no window of the
          // band reaches that far.
          const std::size_t base = static_cast<std::size_t>(i) * rows;
          const float* column = columnValues.data() + base * C;
          WindowMeans<C>(
              [column](int k, float* v) {
                std::memcpy(v, column + static_cast<std::size_t>(k) * C, sizeof(float) * C);
              },
              columnDistances.data() + base, 1, static_cast<int>(rows), first - low, last - low,
              means.data() + base * C, values, totals);
        }
        for (int y = firstBlurred; y <= lastBlurred; ++y) {
          for (int i = 0; i < columns; ++i) {
            const std::size_t cell = static_cast<std::size_t>(i) * rows + static_cast<std::size_t>(y - low);
            const std::uint32_t distance = columnDistances[cell];
            if (distance == 0 || distance >= kFarDistance)
              continue;
            const float t = static_cast<float>(distance) * (1.0f / 384.0f);
            const float* value = means.data() + cell * C;
            float blended[C];
            for (int c = 0; c < C; ++c)
              blended[c] = (1.0f - t) * value[c] + t * mean.v[c];
            codec.Encode(blended, p.ImagePixel(firstColumn + i, y));
          }
        }
      },
      kPixelsPerTask);
}

template <EImageType F>
void DistanceRunningColor(Image& image, const DistanceField& field) {
  ImageImpl& impl = image.GetImplRef();
  PixelPlane& plane = impl.Plane();
  const int width = plane.Width();
  const int height = plane.Height();
  if (!field.HasDefinedPixels() || static_cast<std::int64_t>(width) * height < 2 || plane.Data() == nullptr)
    return;
  if (field.Width() != width || field.Height() != height)
    return;

  const Codec<F> codec;
  // The working image is read only where it has been written, so it skips the zero fill; the pages the
  // blur never reaches are never touched.
  const ImageFactory* factory = image.GetFactory();
  std::unique_ptr<Image> work(factory->CreateImage(
      factory->CreateImpl(width, height, Codec<F>::kWorkType, image.GetGamma(), NewPixels::Unset)));
  const Planes p{plane.Data(),
                 plane.BytesPerLine(),
                 plane.BytesPerPixel(),
                 reinterpret_cast<float*>(work->GetImplRef().Plane().Data()),
                 width,
                 height,
                 &field};

  Linear<F> mean = ComputeMeanColor<F>(p, codec);
  if constexpr (Codec<F>::kKind != SampleKind::Float32) {
    // Far pixels then receive exactly a storable colour.
    unsigned char stored[16];
    codec.Encode(mean.v, stored);
    codec.Decode(stored, mean.v);
  }
  unsigned char encodedMean[16];
  codec.Encode(mean.v, encodedMean);
  impl.InvalidateMipMaps(true, true);
  std::vector<int> columnSpans;
  StartWork<F>(p, codec, columnSpans);
  FilterDistanceImageX<F>(p, codec, mean, encodedMean);
  FilterDistanceImageYAndTransition<F>(p, codec, mean, columnSpans);
  work.reset();

  if constexpr (F == IT_RGB8) {
    if (image.GetPtype() == PT_NormalMap)
      NormalizeNormalMap<IT_RGB8>(image);
  }
}

}  // namespace

void DistanceRunningColor(Image& image, const DistanceField& field) {
  DispatchImageType(FamilyOf(image.ImageType()), [&](auto family) {
    constexpr EImageType F = decltype(family)::value;
    if constexpr (F != IT_UNDEFINED && FamilyOf(F) == F)
      DistanceRunningColor<F>(image, field);
  });
}

}  // namespace imagery

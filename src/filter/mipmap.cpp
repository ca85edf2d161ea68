// Mip-map chains: the chain frame, one inner loop per method and kind of pixel (templates over the
// chain's access and the pixel format, dispatched once per chain), the dither's error diffusion, the
// opacity-map path and the coverage report.
#include "imagery/mipmap.h"

#include <algorithm>
#include <cmath>
#include <memory>
#include <vector>

#include "filter/resample_adapters.h"
#include "imagery/image_impl.h"
#include "imagery/pixel_access.h"
#include "imagery/resample.h"

namespace imagery {
namespace {

// The two chains: how a chain is found in an implementation and how its pixels are converted.
struct NoGammaAccess {
  static constexpr PixelConversion kConversion = PixelConversion::NoGamma;
  static bool Valid(const ImageImpl& impl) { return impl.ValidMipMapsNoGamma(); }
  static void Allocate(ImageImpl& impl) { impl.AllocateMipMapNoGamma(); }
  static std::vector<PixelPlane>& Levels(ImageImpl& impl) { return impl.GetMipMaps().noGammaLevels; }
  static const std::vector<PixelPlane>& Levels(const ImageImpl& impl) {
    return impl.GetMipMaps().noGammaLevels;
  }
};

struct GammaCorrectAccess {
  static constexpr PixelConversion kConversion = PixelConversion::Gamma;
  static bool Valid(const ImageImpl& impl) { return impl.ValidMipMapsGamma(); }
  static void Allocate(ImageImpl& impl) { impl.AllocateMipMapGamma(); }
  // The levels themselves, not MipGamma(), which answers the linear chain for images of gamma near 1.
  static std::vector<PixelPlane>& Levels(ImageImpl& impl) { return impl.GetMipMaps().gammaLevels; }
  static const std::vector<PixelPlane>& Levels(const ImageImpl& impl) {
    return impl.GetMipMaps().gammaLevels;
  }
};

// The chain frame: nothing when the chain is valid; otherwise allocate it (which marks it valid) and
// compute level L from level L - 1 for every level past 0.
template <class Access, class PerLevel>
void ComputeChain(ImageImpl& impl, PerLevel perLevel) {
  if (Access::Valid(impl))
    return;
  Access::Allocate(impl);
  std::vector<PixelPlane>& levels = Access::Levels(impl);
  for (std::size_t i = 0; i < levels.size(); ++i)
    perLevel(i == 0 ? impl.Plane() : levels[i - 1], levels[i], static_cast<int>(i) + 1);
}

// Per-level state shared by the loops: the cursors, the destination position and its footprint.
template <class Access, EImageType T>
struct LoopDataBase {
  LoopDataBase(const PixelPlane& from, PixelPlane& to)
      : source(from, 0, 0), destination(to, 0, 0), lastColumn(from.Width() - 1), lastRow(from.Height() - 1) {}

  // Destination pixel (x, y). A level 1 pixel wide (high) pairs its only column (row) with itself; an
  // odd last column or row of a wider level is not reached, the destination being half as wide.
  void MoveTo(int column, int row) {
    x = column;
    y = row;
    x0 = 2 * x;
    x1 = std::min(x0 + 1, lastColumn);
    y0 = 2 * y;
    y1 = std::min(y0 + 1, lastRow);
    destination.MoveTo(x, y);
  }
  // The source cursor on footprint pixel i (p00, p10, p01, p11).
  void Visit(int i) { source.MoveTo(i & 1 ? x1 : x0, i & 2 ? y1 : y0); }

  ConstTypedPixelAccess<T, Access::kConversion> source;
  TypedPixelAccess<T, Access::kConversion> destination;
  int lastColumn, lastRow;
  int x = 0, y = 0;
  int x0 = 0, x1 = 0, y0 = 0, y1 = 0;
};

template <class Access, EImageType T>
struct LoopDataGrayscale : LoopDataBase<Access, T> {
  using LoopDataBase<Access, T>::LoopDataBase;
  void Read(int count = 4) {
    for (int i = 0; i < count; ++i) {
      this->Visit(i);
      this->source.GetPixelGrayscale(grey[i]);
    }
  }
  float grey[4] = {};
};

template <class Access, EImageType T>
struct LoopDataRGBA : LoopDataBase<Access, T> {
  using LoopDataBase<Access, T>::LoopDataBase;
  void Read(int count = 4) {
    for (int i = 0; i < count; ++i) {
      this->Visit(i);
      this->source.GetPixelRGB(colour[i]);
      this->source.GetPixelAlpha(alpha[i]);
    }
  }
  LinearRGB_T<float> colour[4];
  float alpha[4] = {};
};

// Colour from the image's level, alpha from the same pixels of the opacity map's no-gamma level, read
// as grey without gamma whatever the opacity map's format.
template <class Access, EImageType T>
struct LoopDataCombined : LoopDataBase<Access, T> {
  LoopDataCombined(const PixelPlane& from, PixelPlane& to, const PixelPlane& alphaLevel)
      : LoopDataBase<Access, T>(from, to), alphaSource(alphaLevel, 0, 0) {}
  void Read(int count = 4) {
    for (int i = 0; i < count; ++i) {
      this->Visit(i);
      this->source.GetPixelRGB(colour[i]);
      alphaSource.MoveTo(i & 1 ? this->x1 : this->x0, i & 2 ? this->y1 : this->y0);
      alphaSource.GetPixelGrayscale(alpha[i]);
    }
  }
  ConstPixelAccessNoGamma alphaSource;
  LinearRGB_T<float> colour[4];
  float alpha[4] = {};
};

// Visits the destination row by row, left to right, with the footprint read.
template <class Data, class PerPixel>
void VisitLevel(Data& data, const PixelPlane& to, PerPixel perPixel, int reads = 4) {
  for (int y = 0; y < to.Height(); ++y) {
    for (int x = 0; x < to.Width(); ++x) {
      data.MoveTo(x, y);
      data.Read(reads);
      perPixel(data);
    }
  }
}

float Sum4(const float* v) {
  return ((v[0] + v[1]) + v[2]) + v[3];
}

// The colour of four pixels weighted by their alphas, whose sum is s; the plain mean when s <= 0.
LinearRGB_T<float> AlphaWeighted(const LinearRGB_T<float>* c, const float* a, float s) {
  if (s <= 0.0f) {
    return {(((c[0].r + c[1].r) + c[2].r) + c[3].r) * 0.25f, (((c[0].g + c[1].g) + c[2].g) + c[3].g) * 0.25f,
            (((c[0].b + c[1].b) + c[2].b) + c[3].b) * 0.25f};
  }
  const float inverse = 1.0f / s;
  return {(((a[0] * c[0].r + a[1] * c[1].r) + a[2] * c[2].r) + a[3] * c[3].r) * inverse,
          (((a[0] * c[0].g + a[1] * c[1].g) + a[2] * c[2].g) + a[3] * c[3].g) * inverse,
          (((a[0] * c[0].b + a[1] * c[1].b) + a[2] * c[2].b) + a[3] * c[3].b) * inverse};
}

// The smallest of the four values when `candidate` is below the middle of the smallest and the
// largest, otherwise the largest.
float SharpValue(const float* v, float candidate) {
  const float low = std::min(std::min(std::min(v[0], v[1]), v[2]), v[3]);
  const float high = std::max(std::max(std::max(v[0], v[1]), v[2]), v[3]);
  return candidate < (low + high) * 0.5f ? low : high;
}

// Grey images keep their grey as it is rather than the weighted grey of a grey colour.
template <EImageType T, class Cursor>
void WriteColour(Cursor& cursor, const LinearRGB_T<float>& colour, float alpha) {
  if constexpr (IsGrayscale(T))
    cursor.SetPixelGrayscale(colour.r);
  else
    cursor.SetPixelRGBA(colour, alpha);
}

template <class Access, EImageType T>
void MipMapLoopStandardGrayscale(const PixelPlane& from, PixelPlane& to) {
  LoopDataGrayscale<Access, T> data(from, to);
  VisitLevel(data, to, [](auto& d) { d.destination.SetPixelGrayscale(Sum4(d.grey) * 0.25f); });
}

// Alpha-weighted colour and mean alpha; Data says where alpha comes from (LoopDataRGBA: the pixels
// themselves, LoopDataCombined: the opacity chain).
template <class Access, EImageType T, class Data, class... AlphaLevel>
void MipMapLoopCombined(const PixelPlane& from, PixelPlane& to, const AlphaLevel&... alphaLevel) {
  Data data(from, to, alphaLevel...);
  VisitLevel(data, to, [](auto& d) {
    const float s = Sum4(d.alpha);
    WriteColour<T>(d.destination, AlphaWeighted(d.colour, d.alpha, s), s * 0.25f);
  });
}

// The standard loop for colour formats, a row at a time with the same values as MipMapLoopCombined:
// the four footprint pixels of a destination row are decoded into planar runs (even and odd columns of
// both source rows), so that each pixel's sums, still added in footprint order, are computed for many
// pixels at once; gamma-encoded 8-bit rows are then encoded by the row encoder.
template <class Access, EImageType T>
class StandardRowsRGBA {
 public:
  StandardRowsRGBA(const PixelPlane& from, PixelPlane& to)
      : from_(from),
        to_(to),
        source_(from, 0, 0),
        destination_(to, 0, 0),
        rowWriter_(to, true),
        width_(to.Width()),
        runs_(static_cast<std::size_t>(width_) * 16),
        out_(static_cast<std::size_t>(width_)) {}

  void Run() {
    const int lastRow = from_.Height() - 1;
    for (int y = 0; y < to_.Height(); ++y) {
      Decode(2 * y, 0);
      Decode(std::min(2 * y + 1, lastRow), 2);
      Combine();
      Write(y);
    }
  }

 private:
  // Channel c (r, g, b, a) of footprint pixel i (p00, p10, p01, p11).
  float* Run(int i, int c) { return runs_.data() + static_cast<std::size_t>(width_) * (4 * i + c); }

  // Source row `row` into footprint pixels `first` (even columns) and first + 1 (odd columns).
  void Decode(int row, int first) {
    const int lastColumn = from_.Width() - 1;
    LinearRGB_T<float> c;
    float a = 1.0f;
    for (int x = 0; x < width_; ++x) {
      for (int k = 0; k < 2; ++k) {
        source_.MoveTo(std::min(2 * x + k, lastColumn), row);
        source_.GetPixelRGB(c);
        source_.GetPixelAlpha(a);
        const std::size_t i = static_cast<std::size_t>(x);
        Run(first + k, 0)[i] = c.r;
        Run(first + k, 1)[i] = c.g;
        Run(first + k, 2)[i] = c.b;
        Run(first + k, 3)[i] = a;
      }
    }
  }

  void Combine() {
    SumAlphas(Run(0, 3), Run(1, 3), Run(2, 3), Run(3, 3), sums_.data(), inverses_.data(), width_);
    float LinearRGB_T<float>::*const channels[3] = {&LinearRGB_T<float>::r, &LinearRGB_T<float>::g,
                                                    &LinearRGB_T<float>::b};
    for (int c = 0; c < 3; ++c) {
      float* result = mixed_.data() + static_cast<std::size_t>(width_) * c;
      MixChannel(Run(0, 3), Run(1, 3), Run(2, 3), Run(3, 3), Run(0, c), Run(1, c), Run(2, c), Run(3, c),
                 sums_.data(), inverses_.data(), result, width_);
      for (int x = 0; x < width_; ++x)
        out_[static_cast<std::size_t>(x)].*channels[c] = result[x];
    }
    for (int x = 0; x < width_; ++x)
      out_[static_cast<std::size_t>(x)].a = sums_[static_cast<std::size_t>(x)] * 0.25f;
  }

  // Separate runs that the compiler may take several pixels at a time.
  static void SumAlphas(const float* __restrict a0, const float* __restrict a1, const float* __restrict a2,
                        const float* __restrict a3, float* __restrict sums, float* __restrict inverses,
                        int n) {
    for (int x = 0; x < n; ++x) {
      sums[x] = ((a0[x] + a1[x]) + a2[x]) + a3[x];
      inverses[x] = 1.0f / sums[x];
    }
  }
  static void MixChannel(const float* __restrict a0, const float* __restrict a1, const float* __restrict a2,
                         const float* __restrict a3, const float* __restrict c0, const float* __restrict c1,
                         const float* __restrict c2, const float* __restrict c3, const float* __restrict sums,
                         const float* __restrict inverses, float* __restrict result, int n) {
    for (int x = 0; x < n; ++x) {
      const float weighted =
          (((a0[x] * c0[x] + a1[x] * c1[x]) + a2[x] * c2[x]) + a3[x] * c3[x]) * inverses[x];
      const float mean = (((c0[x] + c1[x]) + c2[x]) + c3[x]) * 0.25f;
      result[x] = sums[x] <= 0.0f ? mean : weighted;
    }
  }

  void Write(int y) {
    if constexpr (Access::kConversion == PixelConversion::Gamma) {
      rowWriter_.WriteRow(to_, ResamplingHelpers::Position(0, static_cast<unsigned long>(y)), out_.data(),
                          out_.size());
    } else {
      destination_.MoveTo(0, y);
      for (const LinearRGBA_T<float>& c : out_) {
        destination_.SetPixelRGBA(c, c.a);
        destination_.Next();
      }
    }
  }

  const PixelPlane& from_;
  PixelPlane& to_;
  ConstTypedPixelAccess<T, Access::kConversion> source_;
  TypedPixelAccess<T, Access::kConversion> destination_;
  ResamplingHelpers::detail::TypedAccess<T> rowWriter_;
  int width_;
  std::vector<float> runs_;
  std::vector<float> mixed_ = std::vector<float>(static_cast<std::size_t>(width_) * 3);
  std::vector<float> sums_ = std::vector<float>(static_cast<std::size_t>(width_));
  std::vector<float> inverses_ = std::vector<float>(static_cast<std::size_t>(width_));
  std::vector<LinearRGBA_T<float>> out_;
};

template <class Access, EImageType T>
void MipMapLoopNeareastGrayscale(const PixelPlane& from, PixelPlane& to) {
  LoopDataGrayscale<Access, T> data(from, to);
  VisitLevel(
      data, to, [](auto& d) { d.destination.SetPixelGrayscale(d.grey[0]); }, 1);
}

template <class Access, EImageType T>
void MipMapLoopNeareastRGBA(const PixelPlane& from, PixelPlane& to) {
  LoopDataRGBA<Access, T> data(from, to);
  VisitLevel(
      data, to, [](auto& d) { WriteColour<T>(d.destination, d.colour[0], d.alpha[0]); }, 1);
}

template <class Access, EImageType T>
void MipMapLoopNeareastCombined(const PixelPlane& from, PixelPlane& to, const PixelPlane& alphaLevel) {
  LoopDataCombined<Access, T> data(from, to, alphaLevel);
  VisitLevel(
      data, to, [](auto& d) { WriteColour<T>(d.destination, d.colour[0], d.alpha[0]); }, 1);
}

template <class Access, EImageType T>
void MipMapLoopThresholdGrayscale(const PixelPlane& from, PixelPlane& to) {
  LoopDataGrayscale<Access, T> data(from, to);
  VisitLevel(data, to,
             [](auto& d) { d.destination.SetPixelGrayscale(SharpValue(d.grey, Sum4(d.grey) * 0.25f)); });
}

template <class Access, EImageType T>
void MipMapLoopThresholdRGBA(const PixelPlane& from, PixelPlane& to) {
  LoopDataRGBA<Access, T> data(from, to);
  VisitLevel(data, to, [](auto& d) {
    const float s = Sum4(d.alpha);
    WriteColour<T>(d.destination, AlphaWeighted(d.colour, d.alpha, s), SharpValue(d.alpha, s * 0.25f));
  });
}

// The dither's view of a level: four colours and alphas per destination pixel, and how the result is
// written. Grey levels dither their grey, which stands for both the colour and the alpha.
template <class Access, EImageType T>
struct DitherAdapterRGBA {
  using Data = LoopDataRGBA<Access, T>;
  static void GetLinear4(Data& d, LinearRGB_T<float>* colour, float* alpha) {
    d.Read();
    for (int i = 0; i < 4; ++i) {
      colour[i] = d.colour[i];
      alpha[i] = d.alpha[i];
    }
  }
  static void Write(Data& d, const LinearRGB_T<float>& colour, float alpha) {
    WriteColour<T>(d.destination, colour, alpha);
  }
};

template <class Access, EImageType T>
struct DitherAdapterGreyscale {
  using Data = LoopDataGrayscale<Access, T>;
  static void GetLinear4(Data& d, LinearRGB_T<float>* colour, float* alpha) {
    d.Read();
    for (int i = 0; i < 4; ++i) {
      colour[i] = LinearRGB_T<float>(d.grey[i], d.grey[i], d.grey[i]);
      alpha[i] = d.grey[i];
    }
  }
  static void Write(Data& d, const LinearRGB_T<float>&, float alpha) {
    d.destination.SetPixelGrayscale(alpha);
  }
};

// Floyd-Steinberg on alpha, in plain raster order. The error buffer has a row more than the level and
// a column more on each side, so the diffusion needs no edge tests; pixel (x, y) owns entry (x + 1, y).
template <class Adapter>
void MipMapLoopDither(const PixelPlane& from, PixelPlane& to) {
  typename Adapter::Data data(from, to);
  const int width = to.Width(), height = to.Height();
  const std::size_t stride = static_cast<std::size_t>(width) + 2;
  std::vector<LinearRGBA_T<float>> error(stride * (static_cast<std::size_t>(height) + 1));
  const auto spread = [](LinearRGBA_T<float>& entry, const LinearRGBA_T<float>& e, float weight) {
    entry.r += e.r * weight;
    entry.g += e.g * weight;
    entry.b += e.b * weight;
    entry.a += e.a * weight;
  };
  LinearRGB_T<float> colour[4];
  float alpha[4];
  for (int y = 0; y < height; ++y) {
    LinearRGBA_T<float>* row = error.data() + stride * static_cast<std::size_t>(y);
    LinearRGBA_T<float>* below = row + stride;
    for (int x = 0; x < width; ++x) {
      data.MoveTo(x, y);
      Adapter::GetLinear4(data, colour, alpha);
      const float s = Sum4(alpha);
      const LinearRGB_T<float> wanted = AlphaWeighted(colour, alpha, s);
      const float mean = s * 0.25f;
      const LinearRGBA_T<float>& carried = row[x + 1];
      const LinearRGB_T<float> written(wanted.r + carried.r, wanted.g + carried.g, wanted.b + carried.b);
      const float chosen = SharpValue(alpha, mean + carried.a);
      Adapter::Write(data, written, chosen);
      const LinearRGBA_T<float> e(wanted.r - written.r, wanted.g - written.g, wanted.b - written.b,
                                  mean - chosen);
      spread(row[x + 2], e, 0.4375f);
      spread(below[x], e, 0.1875f);
      spread(below[x + 1], e, 0.3125f);
      spread(below[x + 2], e, 0.0625f);
    }
  }
}

// The image's own chain by `method`, without an opacity map.
template <class Access, EImageType T>
void ComputeOwnLevel(MipMapMethod method, const PixelPlane& from, PixelPlane& to) {
  constexpr bool kGrey = IsGrayscale(T);
  constexpr bool kAlpha = HasAlpha(T);
  switch (method) {
    case MipMapMethod::SharpAlphaNearest:
      if constexpr (kGrey)
        MipMapLoopNeareastGrayscale<Access, T>(from, to);
      else
        MipMapLoopNeareastRGBA<Access, T>(from, to);
      return;
    case MipMapMethod::SharpAlphaFixedThreshold:
      if constexpr (kAlpha) {
        MipMapLoopThresholdRGBA<Access, T>(from, to);
        return;
      }
      break;
    case MipMapMethod::SharpAlphaDither:
      if constexpr (kAlpha) {
        MipMapLoopDither<DitherAdapterRGBA<Access, T>>(from, to);
        return;
      }
      break;
    default:
      break;
  }
  if constexpr (kGrey)
    MipMapLoopStandardGrayscale<Access, T>(from, to);
  else
    StandardRowsRGBA<Access, T>(from, to).Run();
}

// An opacity map's no-gamma chain, by the grey form of `method`.
void ComputeAlphaChain(Image& alpha, MipMapMethod method) {
  DispatchImageType(alpha.ImageType(), [&](auto format) {
    constexpr EImageType T = decltype(format)::value;
    if constexpr (T != IT_UNDEFINED) {
      ComputeChain<NoGammaAccess>(alpha.GetImplRef(), [&](const PixelPlane& from, PixelPlane& to, int) {
        switch (method) {
          case MipMapMethod::SharpAlphaNearest:
            MipMapLoopNeareastGrayscale<NoGammaAccess, T>(from, to);
            break;
          case MipMapMethod::SharpAlphaFixedThreshold:
            MipMapLoopThresholdGrayscale<NoGammaAccess, T>(from, to);
            break;
          case MipMapMethod::SharpAlphaDither:
            MipMapLoopDither<DitherAdapterGreyscale<NoGammaAccess, T>>(from, to);
            break;
          default:
            MipMapLoopStandardGrayscale<NoGammaAccess, T>(from, to);
            break;
        }
      });
    }
  });
}

// Runs f(Access) with the access of the chain chosen for the image.
template <class F>
void OnChosenChain(const Image& image, GammaCorrectFlag gammaCorrect, F f) {
  if (UsesGammaMipMaps(image, gammaCorrect))
    f(GammaCorrectAccess());
  else
    f(NoGammaAccess());
}

void ComputeWithAlphaImage(Image& image, Image& alphaImage, GammaCorrectFlag gammaCorrect,
                           MipMapMethod method) {
  const std::unique_ptr<Image> copy(alphaImage.ShallowCopy());
  if (copy->Width() == image.Width() && copy->Height() == image.Height()) {
    ComputeAlphaChain(*copy, method);
  } else {
    ResampleOpts options;
    options.careAboutIncorporation = CAI_Care;
    Resample(*copy, image.Width(), image.Height(), options);
    ComputeAlphaChain(*copy, method);
    ComputeAlphaChain(alphaImage, method);
  }
  const ImageImpl& alphaChain = copy->GetImplRef();
  OnChosenChain(image, gammaCorrect, [&](auto access) {
    using Access = decltype(access);
    DispatchImageType(image.ImageType(), [&](auto format) {
      constexpr EImageType T = decltype(format)::value;
      if constexpr (T != IT_UNDEFINED) {
        ComputeChain<Access>(image.GetImplRef(), [&](const PixelPlane& from, PixelPlane& to, int level) {
          const PixelPlane& alphaLevel = alphaChain.MipNoGamma(level - 1);
          if (method == MipMapMethod::SharpAlphaNearest)
            MipMapLoopNeareastCombined<Access, T>(from, to, alphaLevel);
          else
            MipMapLoopCombined<Access, T, LoopDataCombined<Access, T>>(from, to, alphaLevel);
        });
      }
    });
  });
}

void ComputeMipMaps(Image& image, Image* alphaImage, GammaCorrectFlag gammaCorrect, MipMapMethod method) {
  if (alphaImage != nullptr && alphaImage->GetImpl() != image.GetImpl()) {
    ComputeWithAlphaImage(image, *alphaImage, gammaCorrect, method);
    return;
  }
  OnChosenChain(image, gammaCorrect, [&](auto access) {
    using Access = decltype(access);
    DispatchImageType(image.ImageType(), [&](auto format) {
      constexpr EImageType T = decltype(format)::value;
      if constexpr (T != IT_UNDEFINED) {
        ComputeChain<Access>(image.GetImplRef(), [&](const PixelPlane& from, PixelPlane& to, int) {
          ComputeOwnLevel<Access, T>(method, from, to);
        });
      }
    });
  });
}

}  // namespace

bool UsesGammaMipMaps(const Image& image, GammaCorrectFlag gammaCorrect) {
  return gammaCorrect.Value() && std::fabs(image.GetGamma().Value() - 1.0f) > 0.0001f;
}

void ComputeMipMapStandardCombined(Image& image, Image* alphaImage, GammaCorrectFlag gammaCorrect) {
  ComputeMipMaps(image, alphaImage, gammaCorrect, MipMapMethod::Standard);
}

void ComputeMipMapSharpAlphaNearestCombined(Image& image, Image* alphaImage, GammaCorrectFlag gammaCorrect) {
  ComputeMipMaps(image, alphaImage, gammaCorrect, MipMapMethod::SharpAlphaNearest);
}

void ComputeMipMapSharpAlphaFixedThresholdCombined(Image& image, Image* alphaImage,
                                                   GammaCorrectFlag gammaCorrect) {
  ComputeMipMaps(image, alphaImage, gammaCorrect, MipMapMethod::SharpAlphaFixedThreshold);
}

void ComputeMipMapSharpAlphaDitherCombined(Image& image, Image* alphaImage, GammaCorrectFlag gammaCorrect) {
  ComputeMipMaps(image, alphaImage, gammaCorrect, MipMapMethod::SharpAlphaDither);
}

void ComputeMipMapCombined(Image& image, Image* alphaImage, GammaCorrectFlag gammaCorrect,
                           MipMapMethod method) {
  switch (method) {
    case MipMapMethod::Standard:
      ComputeMipMapStandardCombined(image, alphaImage, gammaCorrect);
      break;
    case MipMapMethod::SharpAlphaNearest:
      ComputeMipMapSharpAlphaNearestCombined(image, alphaImage, gammaCorrect);
      break;
    case MipMapMethod::SharpAlphaFixedThreshold:
      ComputeMipMapSharpAlphaFixedThresholdCombined(image, alphaImage, gammaCorrect);
      break;
    case MipMapMethod::SharpAlphaDither:
      ComputeMipMapSharpAlphaDitherCombined(image, alphaImage, gammaCorrect);
      break;
  }
}

std::vector<MipMapCoverage> MipMapAlphaCoverage(const Image& image, GammaCorrectFlag gammaCorrect,
                                                float threshold) {
  const ImageImpl& impl = image.GetImplRef();
  std::vector<const PixelPlane*> levels{&impl.Plane()};
  OnChosenChain(image, gammaCorrect, [&](auto access) {
    using Access = decltype(access);
    if (Access::Valid(impl)) {
      for (const PixelPlane& level : Access::Levels(impl))
        levels.push_back(&level);
    }
  });
  std::vector<MipMapCoverage> report;
  for (const PixelPlane* level : levels) {
    MipMapCoverage entry;
    entry.width = level->Width();
    entry.height = level->Height();
    long long covered = 0;
    DispatchImageType(level->Type(), [&](auto format) {
      constexpr EImageType T = decltype(format)::value;
      for (int y = 0; y < entry.height; ++y) {
        ConstTypedPixelAccess<T, PixelConversion::NoGamma> cursor(*level, 0, y);
        for (int x = 0; x < entry.width; ++x, cursor.Next()) {
          float alpha = 1.0f;
          if constexpr (HasAlpha(T))
            cursor.GetPixelAlpha(alpha);
          else if constexpr (IsGrayscale(T))
            cursor.GetPixelGrayscale(alpha);
          covered += alpha > threshold ? 1 : 0;
        }
      }
    });
    const long long pixels = static_cast<long long>(entry.width) * entry.height;
    entry.covered =
        pixels > 0 ? static_cast<float>(static_cast<double>(covered) / static_cast<double>(pixels)) : 0.0f;
    report.push_back(entry);
  }
  return report;
}

}  // namespace imagery

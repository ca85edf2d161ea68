// Resample on images: the two-pass split, the choice of pixel kind, one dispatch on the format, and
// what happens to the image's implementation afterwards.
#include "imagery/resample.h"

#include <algorithm>
#include <memory>
#include <utility>

#include "filter/resample_adapters.h"
#include "filter/resample_engine.h"
#include "image/handle_rollback.h"
#include "imagery/image_factory.h"

namespace imagery {
namespace {

template <class Pixel>
struct ResampleColours;

template <>
struct ResampleColours<LinearRGB_T<float>> {
  static LinearRGB_T<float> Empty() { return {0.0f, 0.0f, 0.0f}; }
  static LinearRGB_T<float> Margin(bool white) {
    if (!white)
      return {0.0f, 0.0f, 0.0f};
    return LinearRGB_T<float>(CLR(255, 255, 255), gamma::sRGB);
  }
};

template <>
struct ResampleColours<LinearRGBA_T<float>> {
  static LinearRGBA_T<float> Empty() { return {0.0f, 0.0f, 0.0f, 0.0f}; }
  static LinearRGBA_T<float> Margin(bool white) {
    return LinearRGBA_T<float>(ResampleColours<LinearRGB_T<float>>::Margin(white), 1.0f);
  }
};

// Formats without alpha go through the colour engine; every other format byte, IT_UNDEFINED included
// (whose pixels read and write nothing), through the one with alpha.
constexpr bool ResamplesAlpha(EImageType type) {
  return !(type == IT_RGB8 || type == IT_Grayscale8 || type == IT_RGB16 || type == IT_Grayscale16 ||
           type == IT_RGB32f || type == IT_Grayscale32f || type == IT_RGEncoded || type == IT_RGEncodedAlpha);
}

template <class Pixel, class Adapter>
void ResampleInto(const Image& source, Image& target, const ResampleOpts& options,
                  tools::InterruptorAndProgress& control) {
  const Adapter from(source);
  Adapter to(target);
  tools::ThreadStateDispatcher dispatcher;
  const tools::ResampleSize size(static_cast<unsigned long>(target.GetImplRef().Width()),
                                 static_cast<unsigned long>(target.GetImplRef().Height()));
  tools::resample<Pixel, Adapter, Adapter, tools::SurfaceWeightedAccumulator<Pixel>, 1>(
      from, to, size, ResampleColours<Pixel>::Empty(), ResampleColours<Pixel>::Margin(options.whiteMargin),
      dispatcher, control, options.keepAspectRatio, true);
}

// In place, `displaced` (when given) receives a handle on the pixels and mip levels the image had.
void ResampleInOnePass(Image& image, int width, int height, const ResampleOpts& options,
                       std::unique_ptr<Image>* displaced = nullptr) {
  // Writing the new pixels into the factory's shared default implementation would resize every empty
  // handle in the process.
  if (options.implManagement == IM_InPlace)
    image.MakeUniqueIfFactoryDefault();

  std::unique_ptr<Image> target(
      image.GetFactory()->Build(width, height, image.ImageType(), image.GetGamma()));
  const ZELNullInterruptor neverInterrupts;
  const ZELInterruptor& interruptor = options.interruptor != nullptr
                                          ? *options.interruptor
                                          : static_cast<const ZELInterruptor&>(neverInterrupts);
  KORProgress privateProgress;
  KORProgress& progress =
      options.useProgress && options.progress != nullptr ? *options.progress : privateProgress;
  tools::InterruptorAndProgress control{interruptor, progress};

  const Image& source = image;
  DispatchImageType(image.ImageType(), [&](auto format) {
    constexpr EImageType T = decltype(format)::value;
    if constexpr (ResamplesAlpha(T)) {
      ResampleInto<LinearRGBA_T<float>, ResamplingHelpers::TypedRgba<T>>(source, *target, options, control);
    } else {
      ResampleInto<LinearRGB_T<float>, ResamplingHelpers::TypedRgb<T>>(source, *target, options, control);
    }
  });
  if (!interruptor.ShouldContinue())
    return;

  ImageImpl& fresh = target->GetImplRef();
  if (options.implManagement == IM_InPlace) {
    image.GetImplRef().CreateBackupDownSampling();
    image.GetImplRef().SwapAllPixelData(fresh);
    if (displaced != nullptr)
      *displaced = std::move(target);
  } else {
    image.GetImplRef().CommonCopyTo(&fresh, options.careAboutIncorporation);
    image.ShareImpl(&fresh);
  }
}

}  // namespace

void Resample(Image& image, int width, int height, const ResampleOpts& options) {
  width = std::max(width, 0);
  height = std::max(height, 0);
  const int currentWidth = image.Width();
  const int currentHeight = image.Height();
  if (width == currentWidth && height == currentHeight)
    return;

  const bool crossed = width != currentWidth && height != currentHeight &&
                       (currentHeight < height) == (width <= currentWidth) && !options.keepAspectRatio;
  if (!crossed) {
    ResampleInOnePass(image, width, height, options);
    return;
  }

  // A second pass that cannot be made takes the first back with it: a new implementation by putting
  // the handle back, work in place by putting the displaced pixels back into the implementation.
  HandleRollback rollback(image);
  const bool inPlace = options.implManagement == IM_InPlace;
  const bool hadBackup = image.GetImplRef().HasDownSamplingBackup();
  std::unique_ptr<Image> displaced;
  ResampleOpts pass = options;
  // A sub-step is neither copied nor moved: each pass gets a new one, and the first ends before the second.
  std::unique_ptr<KORProgress::SubProgressStep> step;
  if (options.progress != nullptr) {
    options.progress->Steps(2);
    step = std::make_unique<KORProgress::SubProgressStep>(*options.progress);
    pass.progress = step.get();
  }
  ResampleInOnePass(image, width, currentHeight, pass, inPlace ? &displaced : nullptr);
  // An interrupted first pass leaves the size as it was; asking again would split again, forever.
  if (image.Width() != width) {
    rollback.Commit();
    return;
  }
  if (options.progress != nullptr) {
    step.reset();
    step = std::make_unique<KORProgress::SubProgressStep>(*options.progress);
    pass.progress = step.get();
  }
  try {
    ResampleInOnePass(image, width, height, pass);
  } catch (...) {
    if (displaced) {
      image.GetImplRef().SwapAllPixelData(displaced->GetImplRef());
      if (!hadBackup)
        image.GetImplRef().DiscardBackupDownSampling();
    }
    throw;
  }
  rollback.Commit();
}

}  // namespace imagery

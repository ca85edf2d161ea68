// Typed values of the image chunks, as the readers and writers of images share them.
#pragma once

#include "imagery/gamma.h"
#include "imagery_host/stream.h"

namespace imagery::persist {

// "Not set" and 0 are stored as sRGB: a reader always finds a gamma it can apply.
inline float StoredGamma(GammaValue gamma) {
  return gamma.IsSet() ? gamma.Value() : gamma::sRGB.Value();
}

}  // namespace imagery::persist

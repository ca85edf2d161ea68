// The bundled sample textures: a material atlas made from code (no third-party assets), so that the demo,
// the tests and the benchmarks run on a fresh machine.
#pragma once

#include <string>

#include "imagery/image.h"

namespace imagery::cli {

// The three maps of one atlas: four islands (bricks, planks, ceramic tiles, grass) on a transparent
// background. Pixels outside the islands are undefined: alpha 0 in the colour map, black (an invalid
// normal) in the normal map and 0 in the roughness map, which is what edge dilation repairs.
struct SampleAtlas {
  Image color;      // IT_RGBA8, sRGB, PT_Color
  Image normal;     // IT_RGB8, linear, PT_NormalMap
  Image roughness;  // IT_Grayscale8, linear, PT_Roughness
};

// The atlas at size x size pixels (at least 16). `variant` shifts the noise and the hues, so that the
// benchmark's folders hold textures that differ; variant 0 is the demo's atlas.
SampleAtlas MakeSampleAtlas(int size, unsigned variant = 0);

// A float RGB sky gradient with a bright sun, for the formats that keep values above 1.
Image MakeSampleSky(int width, int height);

}  // namespace imagery::cli

// Texture edge dilation: fills the undefined pixels of an image (those a DistanceField marks with a
// non-zero distance) with colour running outward from the edges of the defined region, so that filtering
// and mip-mapping never pull undefined colour into the defined region.
#pragma once

#include "imagery/distance_field.h"
#include "imagery/export.h"

namespace imagery {

class Image;

// Next to the edge an undefined pixel takes the colour of the defined pixel the field picks for it;
// farther out that colour is box-blurred more and more strongly (radius 1 up to 50 pixels, growing with
// the distance) and fades linearly towards the mean colour of all defined pixels, which it reaches at a
// distance of 384 units (128 straight steps) and keeps beyond. The work is done in linear light: 8- and
// 16-bit samples are decoded and encoded with the sRGB curve whatever gamma the image carries, and the
// mean of those formats is first rounded to a storable colour, so that far pixels hold exactly that
// colour. Float samples are used as they are.
//
// - Defined pixels keep their bytes, alpha is never touched, and the image is changed in its current
//   implementation (other handles on it see the change); both mip chains are invalidated.
// - An 8-bit colour image of picture type PT_NormalMap is renormalised afterwards
//   (NormalizeNormalMap<IT_RGB8>), so that the dilated border holds unit normals.
// - Nothing is done for a field without defined pixels, an image of fewer than 2 pixels, a field of
//   another size than the image, or the formats IT_RGBEA, IT_RGEncoded and IT_RGEncodedAlpha.
// - The work runs on row bands of the host's task scheduler while the calling thread helps; the result
//   does not depend on the number of threads. The field's picks fill in (see DistanceField), so the
//   field must not be used elsewhere meanwhile; a second dilation with the same field picks faster and
//   identically.
// - Memory: a float working image of the image's size (three floats per pixel for colour formats, one
//   for grey), freed before returning, also when an exception escapes.
IMAGERY_API void DistanceRunningColor(Image& image, const DistanceField& field);

}  // namespace imagery

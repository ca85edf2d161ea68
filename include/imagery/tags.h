// Tag types of the option flags passed as zellib::TaggedValue<bool, Tag> (and the bit count as
// zellib::TaggedValue<int, BitsPerPixTag>), so that calls name their options.
#pragma once

namespace imagery {

struct CheckInImageListTag {};
struct AutoScaleGrayScaleTag {};
struct InvertGrayRangeTag {};
struct InParallelTag {};
struct GammaCorrectFlagTag {};
struct ForceReloadOnUpdateTag {};
struct BitsPerPixTag {};

}  // namespace imagery

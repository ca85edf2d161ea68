// The image chunk of the scene stream and its sub-chunks.
//
// An image is stored as one chunk kImageChunk: its path (a wide string), then sub-chunks. A referenced
// image carries what rebuilds the same pixels from its file (modification time, gamma, picture type,
// title); an incorporated one carries its pixel bits (kBitsChunk: header, gamma, picture type, title and
// the raw rows of level 0, row padding included). Image::Write and Image::Read are the entry points;
// see image.h.
//
// Readers never trust the stream: every count is checked against the data the chunk actually holds
// before anything is allocated for it, and a damaged chunk makes the read answer false, leaving the
// stream positioned after the damaged chunk whenever its header was whole.
#pragma once

#include <boost/property_tree/ptree_fwd.hpp>

#include "imagery/export.h"

class ZELStream;

namespace imagery {

inline constexpr unsigned short kImageChunk = 0x300;
// Pixel bits in the oldest layout, read only: five ints, then the rows, without sub-chunks.
inline constexpr unsigned short kBitsV0Chunk = 0x301;
inline constexpr unsigned short kTransformationChunk = 0x302;
// Modification time, incorporated flag and synchronised flag of a referenced image.
inline constexpr unsigned short kFileReferenceChunk = 0x303;
inline constexpr unsigned short kExposureContrastChunk = 0x307;
inline constexpr unsigned short kGammaChunk = 0x30B;
// The size an image was down-sampled to.
inline constexpr unsigned short kDownSampledSizeChunk = 0x30D;
inline constexpr unsigned short kPermanentIdChunk = 0x30E;
inline constexpr unsigned short kFirstReadCheckSumChunk = 0x30F;
inline constexpr unsigned short kExtraAttributesChunk = 0x310;
inline constexpr unsigned short kBitsChunk = 0x311;
inline constexpr unsigned short kBitsHeaderChunk = 0x312;
inline constexpr unsigned short kBitsDataChunk = 0x313;
inline constexpr unsigned short kPictureTypeChunk = 0x314;
inline constexpr unsigned short kTitleChunk = 0x315;

// Scene files older than this version carry a permanent identifier that is not the image's own; it is
// skipped.
inline constexpr int kPermanentIdStreamVersion = 1150;

// The extra attributes of an image as one byte string in the property tree's INFO format (no
// indentation). Reading answers false on a malformed text, and on an "#include" directive: a scene file
// must not make the reader open other files.
IMAGERY_API bool WriteToStream(ZELStream* stream, const boost::property_tree::ptree& tree);
IMAGERY_API bool ReadFromStream(ZELStream* stream, boost::property_tree::ptree& tree);

}  // namespace imagery

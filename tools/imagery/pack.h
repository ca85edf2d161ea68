// Image packs: several images in one scene-stream file, each as the library's image chunk, either
// referring to its picture file or with its pixels incorporated.
//
// Layout: a header chunk kPackHeaderChunk (the text "imagery pack", the version 1 and the number of
// images, as typed values), then that many image chunks (image_stream.h).
#pragma once

#include <string>
#include <vector>

#include "imagery/image.h"

namespace imagery::cli {

inline constexpr unsigned short kPackHeaderChunk = 0x7A00;

// Writes the images to `path` through a temporary file in the same folder renamed into place, so that
// a failed write leaves neither a partial pack nor a damaged older one. With `incorporate` the pixels go
// into the pack; otherwise only what rebuilds them from their files. False with `error` on failure.
bool WritePack(const std::vector<Image>& images, bool incorporate, const std::string& path,
               std::string& error);

// Reads every image of the pack at `path` (referenced images are loaded from their files through the
// installed picture reader). False with `error` naming the pack and the cause; `images` is then left
// as it was.
bool ReadPack(const std::string& path, std::vector<Image>& images, std::string& error);

}  // namespace imagery::cli

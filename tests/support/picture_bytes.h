// Files as bytes, for the picture-file and tool tests: paths, dumps of files and of stored pixels, and
// hand-made PNG files whose header promises more than they hold.
#pragma once

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "imagery/image.h"

namespace imagery::testing_support {

inline ZELPath PathOf(const std::filesystem::path& path) {
  return ZELPath(ZELString::FromUTF8(path.string()));
}

inline std::string FileBytes(const std::filesystem::path& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

inline void WriteBytes(const std::filesystem::path& path, const std::string& bytes) {
  std::ofstream(path, std::ios::binary) << bytes;
}

// The names in a folder, sorted; the captured outputs of a run of the tool are left out.
inline std::vector<std::string> Listing(const std::filesystem::path& folder) {
  std::vector<std::string> names;
  for (const auto& entry : std::filesystem::directory_iterator(folder)) {
    const std::string name = entry.path().filename().string();
    if (name != ".stdout" && name != ".stderr")
      names.push_back(name);
  }
  std::sort(names.begin(), names.end());
  return names;
}

// The stored pixels of level 0, row padding left out.
inline std::string PixelBytes(const Image& image) {
  const PixelPlane& plane = image.GetImplRef().Plane();
  std::string bytes;
  for (int y = 0; y < plane.Height(); ++y)
    bytes.append(reinterpret_cast<const char*>(plane.Row(y)),
                 static_cast<std::size_t>(plane.Width()) * plane.BytesPerPixel());
  return bytes;
}

inline std::uint32_t Crc32(const std::string& bytes) {
  std::uint32_t crc = 0xFFFFFFFFu;
  for (const char byte : bytes) {
    crc ^= static_cast<unsigned char>(byte);
    for (int k = 0; k < 8; ++k)
      crc = (crc >> 1) ^ (0xEDB88320u & (0u - (crc & 1u)));
  }
  return ~crc;
}

inline void AppendBigEndian(std::string& bytes, std::uint32_t value) {
  for (int shift = 24; shift >= 0; shift -= 8)
    bytes.push_back(static_cast<char>(value >> shift));
}

// A PNG chunk from its type and data.
inline std::string PngChunk(const std::string& typeAndData) {
  std::string bytes;
  AppendBigEndian(bytes, static_cast<std::uint32_t>(typeAndData.size() - 4));
  AppendBigEndian(bytes += typeAndData, Crc32(typeAndData));
  return bytes;
}

// A PNG with the given header whose image data is `scanlines` (each row led by its filter byte) in a stored
// zlib block; `chunks` (type and data each) go between the header and the image data.
inline std::string PngFile(std::uint32_t width, std::uint32_t height, int depth, int colourType,
                           int interlace, const std::string& scanlines,
                           const std::vector<std::string>& chunks = {}) {
  std::string header = "IHDR";
  AppendBigEndian(header, width);
  AppendBigEndian(header, height);
  header += {static_cast<char>(depth), static_cast<char>(colourType), 0, 0, static_cast<char>(interlace)};
  std::string png = "\x89PNG\r\n\x1a\n" + PngChunk(header);
  for (const std::string& chunk : chunks)
    png += PngChunk(chunk);
  const auto size = static_cast<std::uint16_t>(scanlines.size());
  std::string data = "IDAT\x78\x01\x01";
  data += {static_cast<char>(size), static_cast<char>(size >> 8), static_cast<char>(~size),
           static_cast<char>(~size >> 8)};
  std::uint32_t a = 1, b = 0;
  for (const char byte : scanlines) {
    a = (a + static_cast<unsigned char>(byte)) % 65521;
    b = (b + a) % 65521;
  }
  AppendBigEndian(data += scanlines, b << 16 | a);
  return png + PngChunk(data) + PngChunk("IEND");
}

// A valid PNG of 8-bit RGB whose header promises `width` x `height` pixels over 64 bytes of data.
inline std::string PngPromising(std::uint32_t width, std::uint32_t height) {
  return PngFile(width, height, 8, 2, 0, std::string(64, '\0'));
}

}  // namespace imagery::testing_support

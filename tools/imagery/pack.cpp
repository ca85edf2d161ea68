// Packs on the chunked scene stream.
#include "pack.h"

#include <unistd.h>

#include <filesystem>

#include "imagery/image_stream.h"
#include "imagery_host/stream.h"

namespace imagery::cli {
namespace fs = std::filesystem;

namespace {

const char kPackMagic[] = "imagery pack";
constexpr int kPackVersion = 1;

ZELPath ToZelPath(const std::string& path) {
  return ZELPath(ZELString::FromUTF8(path));
}

std::string StreamCause(const ZELStream& stream, const char* fallback) {
  const zel::ErrorCode& error = stream.GetError();
  if (error.IsOk())
    return fallback;
  return error.Message().empty() ? error.ToString() : error.Message();
}

}  // namespace

bool WritePack(const std::vector<Image>& images, bool incorporate, const std::string& path,
               std::string& error) {
  const fs::path target(path);
  const fs::path temporary =
      target.parent_path() / ("." + target.filename().string() + ".partial-" + std::to_string(getpid()));
  bool written = false;
  {
    ZELFileStream stream(ToZelPath(temporary.string()), ZELFileStream::Mode::Write);
    if (!stream.IsOpen()) {
      error = path + ": cannot be written (the folder is missing or read-only)";
      return false;
    }
    bool ok;
    {
      ZELWriteChunk header(&stream, kPackHeaderChunk);
      ok = header.IsOk() && stream.WriteStdString(kPackMagic) && stream.WriteTyped(kPackVersion) &&
           stream.WriteTyped(static_cast<int>(images.size()));
      ok = header.End() && ok;
    }
    for (std::size_t i = 0; ok && i < images.size(); ++i)
      ok = images[i].Write(&stream, incorporate, false);
    written = ok && stream.Close();
    if (!written)
      error = path + ": " + StreamCause(stream, "cannot be written (disk full?)");
  }
  std::error_code ignored;
  if (!written) {
    fs::remove(temporary, ignored);
    return false;
  }
  std::error_code renameError;
  fs::rename(temporary, target, renameError);
  if (renameError) {
    fs::remove(temporary, ignored);
    error = path + ": cannot be replaced (" + renameError.message() + ")";
    return false;
  }
  return true;
}

bool ReadPack(const std::string& path, std::vector<Image>& images, std::string& error) {
  ZELFileStream stream(ToZelPath(path), ZELFileStream::Mode::Read);
  if (!stream.IsOpen()) {
    error = path + ": cannot be opened";
    return false;
  }
  int count = 0;
  {
    ZELReadChunk header;
    std::string magic;
    int version = 0;
    if (!header.InitChunk(&stream) || header.GetID() != kPackHeaderChunk || !stream.ReadStdString(magic) ||
        magic != kPackMagic || !stream.ReadTyped(version) || !stream.ReadTyped(count) || count < 0) {
      error = path + ": not an image pack";
      return false;
    }
    if (version != kPackVersion) {
      error = path + ": pack version " + std::to_string(version) + " is not supported";
      return false;
    }
  }
  // Each chunk holds at least its header: a count the file cannot hold is damage, not a reason to
  // reserve room for it.
  std::vector<Image> read;
  for (int i = 0; i < count; ++i) {
    if (stream.EndOfStream()) {
      error = path + ": truncated after " + std::to_string(i) + " of " + std::to_string(count) + " images";
      return false;
    }
    Image image;
    if (!image.Read(&stream, IT_UNDEFINED)) {
      error = path + ": image " + std::to_string(i + 1) + ": " + StreamCause(stream, "damaged image chunk");
      return false;
    }
    read.push_back(image);
  }
  images.swap(read);
  return true;
}

}  // namespace imagery::cli

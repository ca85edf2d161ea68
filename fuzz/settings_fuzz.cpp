// libFuzzer target: the settings store's XML loader on arbitrary bytes. A refused file must leave every
// value as it was; nothing may crash, hang or allocate beyond the file.
//
//   ./build-fuzz/fuzz/settings_fuzz -max_total_time=60 -max_len=4096
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <string>

#include <unistd.h>

#include "fuzz_check.h"
#include "imagery_host/settings.h"
#include "imagery_host/zel_path.h"
#include "imagery_host/zel_string.h"

namespace {

// The loader reads files only; one file per fuzzing process, rewritten for every input.
const ZELPath& InputFile() {
  static const ZELPath path(
      ZELString::FromUTF8("/tmp/imagery_settings_fuzz_" + std::to_string(::getpid()) + ".xml"));
  return path;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  {
    std::ofstream out(InputFile().local_string(), std::ios::binary | std::ios::trunc);
    out.write(reinterpret_cast<const char*>(data), static_cast<std::streamsize>(size));
  }
  namespace xml = config::xml;
  xml::Clear();
  xml::SetProperty("sentinel", 0.5f, "fuzz");
  xml::SetProperty("text", L"kept", "fuzz");
  if (!xml::LoadFromFile(InputFile())) {
    Require(xml::GetPropertyRef("sentinel", "fuzz", -1.0f) == 0.5f);
    Require(xml::GetPropertyRef("text", "fuzz", L"") == ZELString(L"kept"));
  }
  return 0;
}

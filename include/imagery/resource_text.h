// Resource texts of the library: user-visible strings live in the host's resource table and are looked
// up by identifier.
#pragma once

#include "imagery/export.h"
#include "imagery_host/resources.h"
#include "imagery_host/zel_string.h"

namespace imagery {

// The host's text for `id` (a Tools::CRC converts implicitly). When the host has none the answer is
// "{missing message " + the identifier's text form ("crc:0x" and 16 lower-case hex digits for a CRC,
// the number for an integer, "undefined" when empty) + "}". Thread-safe.
IMAGERY_API ZELString GetString(const zel::ResourceNumericId& id);

}  // namespace imagery

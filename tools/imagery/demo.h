// `imagery demo OUT`: the sample atlas through every command, and a contact sheet of the results.
#pragma once

#include <string>

namespace imagery::cli {

struct DemoOptions {
  std::string output;
  int size = 512;
  bool quiet = false;
};

// Returns the tool's exit code.
int RunDemo(const DemoOptions& options);

// Writes `count` sample textures (the maps of successive atlas variants) of size x size into `folder`.
// Returns the tool's exit code.
int WriteSamples(const std::string& folder, int size, int count, bool overwrite);

}  // namespace imagery::cli

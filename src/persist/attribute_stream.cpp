#include <exception>
#include <sstream>
#include <string>

#include <boost/property_tree/info_parser.hpp>
#include <boost/property_tree/ptree.hpp>

#include "imagery/image_stream.h"
#include "imagery_host/stream.h"

namespace imagery {

namespace {

// The INFO reader would open the file named by an include directive.
bool HasIncludeDirective(const std::string& text) {
  std::size_t lineStart = 0;
  while (lineStart < text.size()) {
    const std::size_t first = text.find_first_not_of(" \t", lineStart);
    if (first == std::string::npos)
      return false;
    if (text.compare(first, 8, "#include") == 0)
      return true;
    const std::size_t lineEnd = text.find_first_of("\r\n", first);
    if (lineEnd == std::string::npos)
      return false;
    lineStart = lineEnd + 1;
  }
  return false;
}

}  // namespace

bool WriteToStream(ZELStream* stream, const boost::property_tree::ptree& tree) {
  std::ostringstream text;
  try {
    boost::property_tree::write_info(text, tree, boost::property_tree::info_writer_settings<char>(' ', 0));
  } catch (const std::exception&) {
    return false;
  }
  return stream->WriteStdString(text.str());
}

bool ReadFromStream(ZELStream* stream, boost::property_tree::ptree& tree) {
  std::string text;
  if (!stream->ReadStdString(text) || HasIncludeDirective(text))
    return false;
  try {
    std::istringstream input(text);
    boost::property_tree::ptree parsed;
    boost::property_tree::read_info(input, parsed);
    tree.swap(parsed);
  } catch (const std::exception&) {
    return false;
  }
  return true;
}

}  // namespace imagery

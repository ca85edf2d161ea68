// The settings store and its XML form:
//   <settings><project name="kor"><value name="imagery/InputGamma"
//   type="float">-2</value>...</project></settings>
#include "imagery_host/settings.h"

#include <charconv>
#include <cstdio>
#include <fstream>
#include <map>
#include <mutex>
#include <sstream>
#include <string>
#include <string_view>
#include <system_error>
#include <utility>
#include <vector>

#include <boost/property_tree/ptree.hpp>
#include <boost/property_tree/xml_parser.hpp>

namespace config {
namespace {

using Key = std::pair<std::string, std::string>;  // project, name
using Values = std::map<Key, PropertyValue>;
using boost::property_tree::ptree;

// Settings files are a few kilobytes; anything far larger is not one and is not read into memory.
constexpr std::streamoff kMaxFileSize = 16 * 1024 * 1024;

struct Registration {
  Key key;
  std::function<void()> initialiser;
};

class SettingsStore {
 public:
  // Never destroyed: static initialisers and destructors of other libraries may use the store in any
  // order relative to this file's own statics.
  static SettingsStore& Get() {
    static SettingsStore* const store = new SettingsStore;
    return *store;
  }

  std::mutex mutex;
  Values values;                            // guarded by mutex
  std::vector<Registration> registrations;  // guarded by mutex

  std::vector<std::function<void()>> Initialisers() {
    std::lock_guard<std::mutex> lock(mutex);
    std::vector<std::function<void()>> initialisers;
    initialisers.reserve(registrations.size());
    for (const Registration& registration : registrations) {
      initialisers.push_back(registration.initialiser);
    }
    return initialisers;
  }

  void Replace(Values replacement) {
    {
      std::lock_guard<std::mutex> lock(mutex);
      values.swap(replacement);
    }
    for (const std::function<void()>& initialiser : Initialisers()) {
      initialiser();
    }
  }
};

Key MakeKey(const char* name, const char* project) {
  return Key(project != nullptr ? project : "", name != nullptr ? name : "");
}

const char* TypeName(const PropertyValue& value) {
  switch (value.index()) {
    case 0:
      return "bool";
    case 1:
      return "float";
    default:
      return "string";
  }
}

std::string ValueText(const PropertyValue& value) {
  if (const bool* flag = std::get_if<bool>(&value)) {
    return *flag ? "true" : "false";
  }
  if (const float* number = std::get_if<float>(&value)) {
    char buffer[32];
    const std::to_chars_result result = std::to_chars(buffer, buffer + sizeof buffer, *number);
    return std::string(buffer, result.ptr);
  }
  return std::get<ZELString>(value).ToUTF8();
}

// Blanks around a number or a flag are tolerated, for files edited by hand; strings are kept exactly.
std::string_view TrimBlanks(std::string_view text) {
  const std::size_t first = text.find_first_not_of(" \t\r\n");
  if (first == std::string_view::npos) {
    return {};
  }
  return text.substr(first, text.find_last_not_of(" \t\r\n") - first + 1);
}

bool ParseValue(const std::string& type, const std::string& raw, PropertyValue& value) {
  if (type == "string") {
    value = ZELString::FromUTF8(raw);
    return true;
  }
  const std::string_view text = TrimBlanks(raw);
  if (type == "bool") {
    if (text == "true" || text == "false") {
      value = (text == "true");
      return true;
    }
    return false;
  }
  if (type == "float") {
    float number = 0.0f;
    const char* end = text.data() + text.size();
    const std::from_chars_result result = std::from_chars(text.data(), end, number);
    if (result.ec != std::errc() || result.ptr != end) {
      return false;
    }
    value = number;
    return true;
  }
  return false;
}

bool ParseProject(const ptree& project, Values& values) {
  const boost::optional<std::string> projectName = project.get_optional<std::string>("<xmlattr>.name");
  if (!projectName) {
    return false;
  }
  for (const ptree::value_type& child : project) {
    if (child.first == "<xmlattr>") {
      continue;
    }
    if (child.first != "value") {
      return false;
    }
    const boost::optional<std::string> name = child.second.get_optional<std::string>("<xmlattr>.name");
    const boost::optional<std::string> type = child.second.get_optional<std::string>("<xmlattr>.type");
    PropertyValue value;
    if (!name || !type || !ParseValue(*type, child.second.data(), value)) {
      return false;
    }
    values[Key(*projectName, *name)] = std::move(value);
  }
  return true;
}

// The XML parser descends once per nested element, so a few hundred kilobytes of opening tags would
// exhaust the stack. A settings document nests three deep: the nesting is measured first, by the parser's
// own rules for tags, quoted attribute values, comments, character data and processing instructions, and
// a document nesting deeper than this is refused before it is parsed.
constexpr int kMaxNesting = 32;

bool NestsAtMost(std::string_view text, int limit) {
  const auto startsWith = [&text](std::size_t at, std::string_view prefix) {
    return text.compare(at, prefix.size(), prefix) == 0;
  };
  // The position after the first `end` from `at`, or the end of the text: the parser stops there too.
  const auto past = [&text](std::size_t at, std::string_view end) {
    const std::size_t found = text.find(end, at);
    return found == std::string_view::npos ? text.size() : found + end.size();
  };
  int depth = 0;
  for (std::size_t at = text.find('<'); at != std::string_view::npos; at = text.find('<', at)) {
    if (startsWith(at, "<!--")) {
      at = past(at + 4, "-->");
    } else if (startsWith(at, "<![CDATA[")) {
      at = past(at + 9, "]]>");
    } else if (startsWith(at, "<?")) {
      at = past(at + 2, "?>");
    } else if (startsWith(at, "<!")) {
      return false;  // document type declarations have no place in a settings file
    } else if (startsWith(at, "</")) {
      depth = depth > 0 ? depth - 1 : 0;
      at = past(at + 2, ">");
    } else {
      // An opening tag ends at the first '>' outside a quoted value; one ending in "/>" opens nothing.
      char quote = 0;
      std::size_t end = at + 1;
      for (; end < text.size(); ++end) {
        const char c = text[end];
        if (quote != 0) {
          quote = c == quote ? 0 : quote;
        } else if (c == '"' || c == '\'') {
          quote = c;
        } else if (c == '>') {
          break;
        }
      }
      if (end == text.size()) {
        return true;
      }
      if (text[end - 1] != '/' && ++depth > limit) {
        return false;
      }
      at = end + 1;
    }
  }
  return true;
}

bool ParseDocument(const std::string& text, Values& values) {
  if (!NestsAtMost(text, kMaxNesting)) {
    return false;
  }
  ptree document;
  try {
    std::istringstream in(text);
    boost::property_tree::read_xml(in, document, boost::property_tree::xml_parser::no_comments);
  } catch (const std::exception&) {
    return false;
  }
  const ptree& root = document;
  const boost::optional<const ptree&> settings = root.get_child_optional("settings");
  if (!settings || document.size() != 1) {
    return false;
  }
  for (const ptree::value_type& child : *settings) {
    if (child.first == "<xmlattr>") {
      continue;
    }
    if (child.first != "project" || !ParseProject(child.second, values)) {
      return false;
    }
  }
  return true;
}

}  // namespace

namespace xml2 {

void Register(const char* project, const char* name, std::function<void()> initialiser) {
  if (!initialiser) {
    return;
  }
  {
    SettingsStore& store = SettingsStore::Get();
    std::lock_guard<std::mutex> lock(store.mutex);
    const Key key = MakeKey(name, project);
    bool replaced = false;
    for (Registration& registration : store.registrations) {
      if (registration.key == key) {
        registration.initialiser = initialiser;
        replaced = true;
      }
    }
    if (!replaced) {
      store.registrations.push_back(Registration{key, initialiser});
    }
  }
  initialiser();
}

}  // namespace xml2

namespace xml {
namespace detail {

PropertyValue GetOrStore(const char* name, const char* project, PropertyValue fallback) {
  SettingsStore& store = SettingsStore::Get();
  std::lock_guard<std::mutex> lock(store.mutex);
  const auto [slot, inserted] = store.values.try_emplace(MakeKey(name, project), fallback);
  if (!inserted && slot->second.index() != fallback.index()) {
    slot->second = std::move(fallback);
  }
  return slot->second;
}

void Store(const char* name, const char* project, PropertyValue value) {
  SettingsStore& store = SettingsStore::Get();
  std::lock_guard<std::mutex> lock(store.mutex);
  store.values[MakeKey(name, project)] = std::move(value);
}

}  // namespace detail

bool PropertyExists(const char* name, const char* project) {
  SettingsStore& store = SettingsStore::Get();
  std::lock_guard<std::mutex> lock(store.mutex);
  return store.values.count(MakeKey(name, project)) != 0;
}

bool RemoveProperty(const char* name, const char* project) {
  SettingsStore& store = SettingsStore::Get();
  std::lock_guard<std::mutex> lock(store.mutex);
  return store.values.erase(MakeKey(name, project)) != 0;
}

void Clear() {
  SettingsStore& store = SettingsStore::Get();
  std::lock_guard<std::mutex> lock(store.mutex);
  store.values.clear();
}

void ResetToDefaults() {
  SettingsStore::Get().Replace(Values());
}

bool LoadFromFile(const ZELPath& path) {
  std::ifstream in(path.local_string(), std::ios::binary);
  if (!in) {
    return false;
  }
  in.seekg(0, std::ios::end);
  const std::streamoff size = in.tellg();
  if (size < 0 || size > kMaxFileSize) {
    return false;
  }
  in.seekg(0, std::ios::beg);
  std::string text(static_cast<std::size_t>(size), '\0');
  if (!in.read(text.data(), size)) {
    return false;
  }
  Values values;
  if (!ParseDocument(text, values)) {
    return false;
  }
  SettingsStore::Get().Replace(std::move(values));
  return true;
}

bool SaveToFile(const ZELPath& path) {
  ptree document;
  {
    SettingsStore& store = SettingsStore::Get();
    std::lock_guard<std::mutex> lock(store.mutex);
    ptree& settings = document.add_child("settings", ptree());
    ptree* project = nullptr;
    const std::string* projectName = nullptr;
    for (const auto& [key, value] : store.values) {
      // The map is ordered by project, so each project's values are contiguous.
      if (projectName == nullptr || *projectName != key.first) {
        project = &settings.add_child("project", ptree());
        project->put("<xmlattr>.name", key.first);
        projectName = &key.first;
      }
      ptree& entry = project->add("value", ValueText(value));
      entry.put("<xmlattr>.name", key.second);
      entry.put("<xmlattr>.type", TypeName(value));
    }
  }

  const std::string target = path.local_string();
  const std::string temporary = target + ".tmp";
  {
    std::ofstream out(temporary, std::ios::binary | std::ios::trunc);
    if (!out) {
      return false;
    }
    try {
      boost::property_tree::write_xml(out, document,
                                      boost::property_tree::xml_writer_make_settings<std::string>(' ', 2));
    } catch (const std::exception&) {
      out.close();
      std::remove(temporary.c_str());
      return false;
    }
    out.flush();
    if (!out) {
      out.close();
      std::remove(temporary.c_str());
      return false;
    }
  }
  if (std::rename(temporary.c_str(), target.c_str()) != 0) {
    std::remove(temporary.c_str());
    return false;
  }
  return true;
}

}  // namespace xml
}  // namespace config

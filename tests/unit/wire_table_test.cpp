// The stress tools' copy of the command tables (tests/stress/wire.py) against the protocol
// headers' own: every command the tools send has the code and the request layout the server
// decodes, so a changed layout or a renumbered command cannot leave the tools behind.
#include <gtest/gtest.h>

#include <posix/wire_tables.h>

#include <fstream>
#include <map>
#include <regex>
#include <sstream>
#include <string>

namespace {

struct PyCommand {
  uint32_t code;
  std::string request;
};

// The entries `"name": (code, "layout" ["more layout"]),` of the dict `service = {...}`.
std::map<std::string, PyCommand> pythonTable(const std::string& source, const std::string& service) {
  size_t start = source.find("\n" + service + " = {");
  size_t end = source.find("\n}", start);
  std::map<std::string, PyCommand> out;
  if (start == std::string::npos || end == std::string::npos) return out;
  std::string body = source.substr(start, end - start);
  static const std::regex entry(R"re("(\w+)": \((\d+), ((?:"[^"]*"\s*)+)\))re");
  static const std::regex piece(R"re("([^"]*)")re");
  for (std::sregex_iterator it(body.begin(), body.end(), entry), last; it != last; ++it) {
    std::string layout, pieces = (*it)[3];
    for (std::sregex_iterator p(pieces.begin(), pieces.end(), piece); p != last; ++p) layout += (*p)[1];
    out[(*it)[1]] = {static_cast<uint32_t>(std::stoul((*it)[2])), layout};
  }
  return out;
}

TEST(WireTableTest, TheStressToolsSendWhatTheTablesList) {
  std::ifstream file(STRESS_WIRE_PY);
  ASSERT_TRUE(file) << STRESS_WIRE_PY;
  std::stringstream source;
  source << file.rdbuf();
  const std::pair<const char*, std::span<const px::Command>> services[] = {
      {"PROCESS", px::kProcessCommands}, {"FD", px::kFdCommands}, {"STREAM", px::kStreamCommands}};
  for (const auto& [service, table] : services) {
    std::map<std::string, PyCommand> python = pythonTable(source.str(), service);
    EXPECT_FALSE(python.empty()) << service << " = {...} not found in wire.py";
    for (const auto& [name, command] : python) {
      const px::Command* own = nullptr;
      for (const px::Command& c : table)
        if (name == c.name) own = &c;
      ASSERT_NE(own, nullptr) << service << " has no command " << name;
      EXPECT_EQ(command.code, own->code) << name;
      EXPECT_EQ(command.request, own->request) << name;
    }
  }
}

}  // namespace

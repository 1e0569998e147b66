#include "platform/power_supplies.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <optional>

namespace zephlore {
namespace {

std::optional<std::string> firstLine(const std::filesystem::path& path) {
  std::ifstream in(path);
  std::string line;
  if (!in || !std::getline(in, line)) return std::nullopt;
  return line;
}

}  // namespace

SysfsPowerSupplies::SysfsPowerSupplies(std::string root) : root_(std::move(root)) {}

std::vector<PowerSupply> SysfsPowerSupplies::list() {
  std::vector<PowerSupply> supplies;
  std::error_code ec;
  for (const auto& entry : std::filesystem::directory_iterator(root_, ec)) {
    PowerSupply supply;
    supply.name = entry.path().filename().string();
    supply.type = firstLine(entry.path() / "type").value_or("Unknown");
    supply.present = firstLine(entry.path() / "present").value_or("1") == "1";
    supply.online = firstLine(entry.path() / "online").value_or("0") == "1";
    supply.device = firstLine(entry.path() / "scope").value_or("") == "Device";
    supplies.push_back(std::move(supply));
  }
  std::sort(supplies.begin(), supplies.end(),
            [](const PowerSupply& a, const PowerSupply& b) { return a.name < b.name; });
  return supplies;
}

}  // namespace zephlore

// The machine's power supplies as the kernel lists them under
// /sys/class/power_supply (root injectable for tests).
#pragma once

#include <string>
#include <vector>

namespace zephlore {

struct PowerSupply {
  std::string name;
  std::string type;      // "Battery", "Mains", "USB", ...
  bool present = false;  // a battery in its bay ("present"; assumed when not told)
  bool online = false;   // a charger delivering power ("online")
  bool device = false;   // powers a peripheral (scope "Device"), not this machine
};

class PowerSupplies {
 public:
  virtual ~PowerSupplies() = default;
  // Empty when the folder is missing.
  virtual std::vector<PowerSupply> list() = 0;
};

class SysfsPowerSupplies final : public PowerSupplies {
 public:
  explicit SysfsPowerSupplies(std::string root = "/sys/class/power_supply");
  std::vector<PowerSupply> list() override;

 private:
  std::string root_;
};

}  // namespace zephlore

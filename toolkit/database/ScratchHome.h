#pragma once

#include "toolkit/Environment.h"
#include "toolkit/ScratchDirectory.h"

/// The fixture of tests that open databases by their names: the system's home is
/// a scratch directory with an empty directory "config".
class ScratchHome : public testing::Test {
 protected:
  explicit ScratchHome(const std::string& parent = testing::TempDir())
      : home_(parent) {
    std::filesystem::create_directory(Config());
    PutEnv("Vellumcraft", SString(Home()));
  }

  [[nodiscard]] const std::string& Home() const { return home_.Directory(); }
  /// The directory of the databases.
  [[nodiscard]] std::string Config() const { return home_.Path("config"); }
  /// The path of the database of that name.
  [[nodiscard]] std::string Path(const std::string& name) const {
    return Config() + "/" + name;
  }

 private:
  ScratchDirectory home_;
};

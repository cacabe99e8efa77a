#pragma once

#include <span>

/// One task of the installation.
struct SInstallTask {
  const char* name;
  bool (*run)();  // true to go on
};

/// The tasks of the full installation, in their order.
[[nodiscard]] std::span<const SInstallTask> InstallTasks();

/// Explains the dialogue and runs the tasks to the first that returns false.
/// True when all returned true.
[[nodiscard]] bool FullInstall();

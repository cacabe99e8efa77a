// Runs one task, or some, on their own, after the program's real start-up.
//
//   run_task NAME[+NAME]... [ADDRESS]
//
// As `Install` does it, less the header: root check, signals, settings, identity
// of the mail owner, `Initialize`; then the tasks to the first that returns
// false.  Status 0 or 255 as the last one returned true or false, 2 for wrong
// usage.  What tasks leave to each other is written to the file that the
// environment variable VC_TASK_STATE names:
//
//   {"reminders": [...], "show_stoppers": 0, "running": 0, "www_port": 80}

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <string>
#include <vector>

#include "driver/FullInstall.h"
#include "driver/Initialize.h"
#include "driver/Settings.h"
#include "driver/StartUp.h"
#include "host/AddServices.h"
#include "toolkit/Files.h"

namespace {

constexpr int kFailed = -1;
constexpr int kWrongUsage = 2;

// Tasks that the full installation does not run, or not in this way.
// The others are found in the sequence itself.
constexpr SInstallTask kOtherTasks[] = {
    {"AddServices", AddServices},
    {"Nothing", [] { return true; }},
};

const SInstallTask* FindTask(const SString& name) {
  for (const SInstallTask& task : kOtherTasks) {
    if (name == task.name) {
      return &task;
    }
  }
  for (const SInstallTask& task : InstallTasks()) {
    if (name == task.name) {
      return &task;
    }
  }
  return nullptr;
}

// Empty when one of them is unknown.
std::vector<const SInstallTask*> FindTasks(const SString& names) {
  std::vector<const SInstallTask*> tasks;
  for (const SString& name : names.SplitExact("+", 0)) {
    tasks.push_back(FindTask(name));
    if (tasks.back() == nullptr) {
      return {};
    }
  }
  return tasks;
}

int ExplainUsage() {
  std::string text = "usage: run_task NAME[+NAME]... [ADDRESS], NAME one of";
  for (const SInstallTask& task : kOtherTasks) {
    text += std::string(" ") + task.name;
  }
  for (const SInstallTask& task : InstallTasks()) {
    text += std::string(" ") + task.name;
  }
  return WriteAll(STDERR_FILENO, text + "\n") ? kWrongUsage : kFailed;
}

// Bytes from 0x80 up stand as they are.
std::string Quote(const SString& text) {
  constexpr const char* kDigits = "0123456789abcdef";
  std::string quoted = "\"";
  for (const char c : text.View()) {
    const auto byte = static_cast<unsigned char>(c);
    if (c == '"' || c == '\\') {
      quoted += '\\';
      quoted += c;
    } else if (byte < 0x20) {
      quoted += "\\u00";
      quoted += kDigits[byte >> 4];
      quoted += kDigits[byte & 15];
    } else {
      quoted += c;
    }
  }
  return quoted + "\"";
}

std::string State() {
  std::string reminders;
  for (const SString& line : gstrl_Reminders) {
    reminders += (reminders.empty() ? "" : ", ") + Quote(line);
  }
  return "{\"reminders\": [" + reminders +
         "], \"show_stoppers\": " + std::to_string(gf_ShowStoppers) +
         ", \"running\": " + std::to_string(gf_VellumcraftIsRunning) +
         ", \"www_port\": " + std::to_string(gn_WWWPort) + "}\n";
}

// Opened before the identity changes, so that it may lie anywhere.
SDescriptor OpenStateFile() {
  const char* path = getenv("VC_TASK_STATE");
  return SDescriptor(
      path == nullptr
          ? -1
          : open(path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
}

}  // namespace

int main(int /*argc*/, char** argv) {
  SStringList arguments(argv);
  const RunMode mode = RunModeOf(arguments.Shift());
  const std::vector<const SInstallTask*> tasks = FindTasks(arguments.Shift());
  if (tasks.empty()) {
    return ExplainUsage();
  }
  if (!PrepareProcess(mode)) {
    return kFailed;
  }
  const SDescriptor state = OpenStateFile();
  if (!SettleRun(arguments)) {
    return kFailed;
  }
  Initialize();
  const bool go_on = std::all_of(tasks.begin(), tasks.end(),
                                 [](const auto* task) { return task->run(); });
  if (state.IsOpen() && !WriteAll(state.Get(), State())) {
    return kFailed;
  }
  return go_on ? 0 : kFailed;
}

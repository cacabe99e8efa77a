// The full installation: the one place that knows the order of the tasks.

#include "driver/FullInstall.h"

#include "accounts/AddUserAccounts.h"
#include "accounts/SetupAdminAccount.h"
#include "accounts/SetupSpecialAccounts.h"
#include "console/Console.h"
#include "driver/Initialize.h"
#include "driver/StartDaemon.h"
#include "driver/WarnAdmin.h"
#include "host/CreateMailboxDir.h"
#include "host/EditInetdConf.h"
#include "host/FixMaildropDir.h"
#include "host/InstallSendmail.h"
#include "host/KillSendmail.h"
#include "host/KillServers.h"
#include "serverconfig/ConfigureFeatures.h"
#include "serverconfig/UpdateConfiguration.h"

namespace {

constexpr const char* pz_Welcome =
    "This program will occasionally ask you for permission to perform a task, or alert you of a problem. When asking a question that has a default response, you can simply press 'Return' to specify the default. The default is the value shown in the square brackets '[' and ']'.";

// clang-format off
constexpr SInstallTask kTasks[] = {
    {"AskToContinue", AskToContinue},
    {"Initialize", Initialize},
    {"CreateMailboxDir", CreateMailboxDir},
    {"UpdateConfiguration", UpdateConfiguration},
    {"FixMaildropDir", FixMaildropDir},
    {"SetupSpecialAccounts", SetupSpecialAccounts},
    {"ConfigureFeatures", ConfigureFeatures},
    {"AddUserAccounts", [] { return AddUserAccounts(1); }},
    {"SetupAdminAccount", SetupAdminAccount},
    {"EditInetdConf", EditInetdConf},
    {"KillSendmail", KillSendmail},
    {"InstallSendmail", InstallSendmail},
    {"KillServers", KillServers},
    {"StartDaemon", StartDaemon},
    {"WarnAdmin", WarnAdmin},
};
// clang-format on

}  // namespace

std::span<const SInstallTask> InstallTasks() {
  return kTasks;
}

bool FullInstall() {
  Print("\n");
  PrintMessage(pz_Welcome);
  for (const SInstallTask& task : kTasks) {
    if (!task.run()) {
      return false;
    }
  }
  return true;
}

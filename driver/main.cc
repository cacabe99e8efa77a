// The program's entry, for both of its names.

#include "accounts/AddUserAccounts.h"
#include "console/Console.h"
#include "console/Format.h"
#include "driver/FullInstall.h"
#include "driver/Initialize.h"
#include "driver/StartUp.h"

namespace {

constexpr int kDone = 0;
constexpr int kFailed = -1;

constexpr const char* pz_Title = "Vellumcraft Setup";

// Gives mail accounts to the host's users and does nothing else.
bool AddAccountsOnly() {
  return Initialize() && AddUserAccounts(0);
}

}  // namespace

int main(int /*argc*/, char** argv) {
  SStringList arguments(argv);
  const RunMode mode = RunModeOf(arguments.Shift());
  if (!PrepareProcess(mode)) {
    return kFailed;
  }
  ClearScreen();
  PrintHeader(kScreenWidth, pz_Title);
  if (!SettleRun(arguments)) {
    return kFailed;
  }
  const bool done =
      mode == RunMode::kAddAccounts ? AddAccountsOnly() : FullInstall();
  return done ? kDone : kFailed;
}

#include "driver/StartUp.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <ctime>

#include "console/Console.h"
#include "driver/Interrupts.h"
#include "driver/ReadSettings.h"
#include "driver/Settings.h"
#include "toolkit/HostNames.h"
#include "toolkit/Privileges.h"
#include "toolkit/Random.h"

namespace {

constexpr const char* pz_RootToAdd = "You must be root to add user accounts.";
constexpr const char* pz_RootToInstall =
    "You must be root to run the installation program.";

SString IdentityRefused() {
  return "Couldn't take on the identity of the mail system's owner (" +
         gstr_MailOwner + "). ";
}

// A file opened later must never become the input or output of the dialogue.
// What takes the place of a closed descriptor can be neither read nor written,
// and children find it closed as it was.
void OccupyClosedDescriptors() {
  pollfd standard[] = {
      {STDIN_FILENO, 0, 0}, {STDOUT_FILENO, 0, 0}, {STDERR_FILENO, 0, 0}};
  static_cast<void>(poll(standard, 3, 0));
  for (const pollfd& descriptor : standard) {
    if ((descriptor.revents & POLLNVAL) != 0) {
      // The lowest free descriptor is the one that is missing.
      static_cast<void>(open("/", O_PATH | O_CLOEXEC));
    }
  }
}

// Whoever started the program may have blocked signals or had children reaped
// by the system.
void ResetInheritedSignals() {
  sigset_t none;
  sigemptyset(&none);
  sigprocmask(SIG_SETMASK, &none, nullptr);
  signal(SIGCHLD, SIG_DFL);
}

// Only a name can tell an address of a host from any other word.
void TakeAddress(const SStringList& arguments) {
  if (!arguments.IsEmpty() && !GetHostByAddr(arguments[0]).IsEmpty()) {
    gstr_forThisIP = arguments[0];
  }
}

}  // namespace

RunMode RunModeOf(const SString& program_name) {
  return program_name.HasMatch("AddUserAccounts$") ? RunMode::kAddAccounts
                                                   : RunMode::kInstall;
}

bool PrepareProcess(RunMode mode) {
  OccupyClosedDescriptors();
  if (getuid() != 0) {
    PrintParagraph(mode == RunMode::kAddAccounts ? pz_RootToAdd
                                                 : pz_RootToInstall);
    return false;
  }
  umask(S_IRWXO);
  // In this order: what the starter left pending must meet a handler.
  SetupSignalHandler();
  ResetInheritedSignals();
  return true;
}

bool SettleRun(const SStringList& arguments) {
  SeedRandom(static_cast<unsigned>(time(nullptr)) +
             static_cast<unsigned>(getpid()) +
             static_cast<unsigned>(getppid()));
  TakeAddress(arguments);
  if (!ReadSettings()) {
    return false;
  }
  if (!BecomeMailOwner(gn_MailUID, gn_MailGID)) {
    PrintParagraph(IdentityRefused() + pz_Difficulty);
    return false;
  }
  return true;
}

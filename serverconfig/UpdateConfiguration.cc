// Puts the module databases that an upgrade brought in the place of the live
// ones, after copying into them the settings that the site keeps.
//
//   touches    MODULE, MODULE.install and MODULE.backup in the configuration
//              directory; a request to the server at the end
//   identity   mail owner
//   reminders  "cd DIR", "mv MODULE.install MODULE" when a rename fails; a
//              module without database blocks the server start
//   stops      settings can't be copied

#include "serverconfig/UpdateConfiguration.h"

#include <cerrno>
#include <map>

#include "console/Console.h"
#include "driver/Settings.h"
#include "serverconfig/ControlRequests.h"
#include "serverconfig/DatabaseMessages.h"
#include "toolkit/Files.h"
#include "toolkit/Signals.h"
#include "toolkit/database/Sdbfile.h"

namespace {

constexpr const char* kNewSuffix = ".install";
constexpr const char* kBackupSuffix = ".backup";
constexpr const char* kPreserveList = "/__PRESERVE__";
// Its accounts are not settings; it looks after its own database.
constexpr const char* kNeverUpdated = "MTA-Accounts";

constexpr const char* pz_Updating = "Updating module configurations....\n";

SString NoBackup(const SString& module) {
  return "WARNING: couldn't create a backup of your old " + module +
         " configuration database. The new updated database was not installed.";
}

SString NotInstalled(const SString& module) {
  return "WARNING: couldn't install the updated version of the " + module +
         " configuration database.";
}

SString NotRestored(const SString& module) {
  return "WARNING: couldn't install the updated version of the " + module +
         " configuration database and then failed to restore the original from the backup.";
}

SString CannotStart(const SString& module) {
  return "Without the configuration database properly installed, the " +
         module + " module will not be able to start.";
}

SString Reminded(const char* action) {
  return SString("You will be reminded to ") + action +
         " it manually at the end of the installation process.";
}

SString CouldNotUpdate(const SString& module) {
  return "WARNING: couldn't update the configuration database for the " +
         module + " module.";
}

SString LikelyCause() {
  return "This is most likely due to a permission problem in the " +
         ConfigDirectory() + " directory, or a filled hard disk.";
}

constexpr const char* pz_RunAgain =
    "After you correct the problem, run this installation program again to update the configuration database.";

using KeysOfModules = std::map<SString, SStringList>;

SStringList ModulesToUpdate() {
  SStringList modules =
      BaseName(ReadDir(ConfigDirectory()), "").Grep("s/\\.install$//");
  modules.Delete("");
  modules.Sort();
  return modules;
}

// From lines "MODULE/SECTION.../KEY"; others don't count.
KeysOfModules ReadPreserveList(const SStringList& lines) {
  KeysOfModules keys;
  for (const SString& line : lines) {
    const SStringList pieces = line.SplitExact("/", 2);
    if (pieces.Count() == 2 && !pieces[1].IsEmpty()) {
      keys[pieces[0]].Push("/" + pieces[1]);
    }
  }
  return keys;
}

// Copies one key; true also when the source has none to copy.
bool PreserveKey(Sdbfile* target, Sdbfile* source, SString path) {
  if (path.View().ends_with('/')) {
    path.Chop();
  }
  SStringList pieces = path.SplitExact("/", 0);
  const SString key = pieces.Pop();
  SString section = pieces.Join("/");
  if (section.IsEmpty()) {
    section = "/";
  }
  // Twice: a moment's failure must not cost a setting.
  if (!source->Open(section, 0) && !source->Open(section, 0)) {
    return true;
  }
  if (!target->Open(section, 1)) {
    return false;
  }
  const SStringList values = source->Get(key);
  return !values.Defined() || target->Set(key, values);
}

// Copies the keys from the live database into the new one.
bool UpdateDatabase(const SString& target_name, const SString& source_name,
                    const SStringList& keys) {
  Sdbfile source(source_name, 0, "Vellumcraft");
  Sdbfile target(target_name, 0, "Vellumcraft");
  bool updated = true;
  for (const SString& key : keys) {
    updated = PreserveKey(&target, &source, key) && updated;
  }
  updated = target.CloseDB() && updated;
  source.CloseDB();
  return updated;
}

enum class Installed { kYes, kNoBackup, kRestored, kLost };

// The backup alone is what a run that was killed between the two renames left.
bool BackUp(const SString& live) {
  return Rename(live, live + kBackupSuffix) ||
         (errno == ENOENT && PathTaken(live + kBackupSuffix));
}

// The new database takes the place of the live one, which becomes the backup.
Installed InstallDatabase(const SString& module) {
  const SString live = ConfigDirectory() + "/" + module;
  // A signal must not leave the module without a database.
  const SHoldSignals until_installed;
  if (!BackUp(live)) {
    return Installed::kNoBackup;
  }
  if (Rename(live + kNewSuffix, live)) {
    static_cast<void>(SyncDirectoryOf(live));
    return Installed::kYes;
  }
  return Rename(live + kBackupSuffix, live) ? Installed::kRestored
                                            : Installed::kLost;
}

void Report(const SString& module, Installed result) {
  switch (result) {
    case Installed::kYes:
      return;
    case Installed::kNoBackup:
      PrintMessage(NoBackup(module));
      PrintMessage(Reminded("update"));
      break;
    case Installed::kRestored:
      PrintMessage(NotInstalled(module));
      PrintMessage(Reminded("update"));
      break;
    case Installed::kLost:
      PrintMessage(NotRestored(module));
      PrintMessage(CannotStart(module));
      PrintMessage(Reminded("install"));
      gf_ShowStoppers = 1;
      break;
  }
  gstrl_Reminders.Push("cd " + ConfigDirectory());
  gstrl_Reminders.Push("mv " + module + kNewSuffix + " " + module);
  gstrl_Reminders.Push("");
}

}  // namespace

bool UpdateConfiguration() {
  const SStringList modules = ModulesToUpdate();
  if (modules.IsEmpty()) {
    return true;
  }
  const SStringList lines =
      MapFileRead(ConfigDirectory() + kPreserveList).SplitExact("\n", 0);
  if (lines.IsEmpty()) {
    return true;
  }
  KeysOfModules keys = ReadPreserveList(lines);
  Print(pz_Updating);
  for (const SString& module : modules) {
    if (module == kNeverUpdated) {
      continue;
    }
    Print("     " + module + "\n");
    if (!UpdateDatabase(module + kNewSuffix, module, keys[module])) {
      PrintMessage(CouldNotUpdate(module));
      PrintMessage(LikelyCause());
      PrintMessage(pz_RunAgain);
      return false;
    }
    Report(module, InstallDatabase(module));
  }
  Print("done\n");
  ComputeSizes();
  return true;
}

#include "toolkit/database/AccountState.h"

#include <cerrno>

#include "toolkit/Environment.h"

SAccountDB::State::State()
    : path((GetEnv("Vellumcraft") + "/config/Accounts").Std()) {
  if (!file.Open(path, SDatabaseFile::Access::kRead) && errno != ENOENT) {
    open_error = errno;
  }
}

bool SAccountDB::State::Follow() {
  const bool followed = file.Follow();
  open_error = followed || errno == ENOENT ? 0 : errno;
  return followed;
}

bool SAccountDB::State::OpenForWriting() {
  if (file.IsWriter()) {
    return true;
  }
  return file.Open(path, SDatabaseFile::Access::kCreate);
}

bool SAccountDB::State::Refresh(const SString& uid, SAccount::Fields* fields) {
  if (fields->generation == file.Generation()) {
    return true;
  }
  const std::uint32_t id = file.Find("/" + uid.Std());
  if (id == SDatabaseFile::kNone) {
    errno = errno == 0 ? ENOENT : errno;
    return false;
  }
  fields->id = id;
  return file.Read(id, &fields->section);
}

#pragma once

#include <initializer_list>
#include <memory>

#include "toolkit/Addresses.h"
#include "toolkit/SStringList.h"

// The account database: the file "Accounts" in `GetEnv("Vellumcraft")` +
// "/config/".  Each account is a section "/" + UID, each field a key.

class SAccountDB;
class SAccountDBMod;

/// The fields of an account as they were when it was read.
class SAccount {
 public:
  SAccount();
  ~SAccount();
  SAccount(const SAccount&);
  SAccount& operator=(const SAccount&);

  /// The field's values; `Defined()` is false when the account has no such
  /// field.
  [[nodiscard]] SStringList Get(const SString& field) const;

 private:
  friend class SAccountDB;
  friend class SAccountDBMod;
  friend class SAccountMod;
  class Fields;
  std::shared_ptr<Fields> fields_;
};

/// A field and its values, for the length of a call.
struct SFieldValues {
  const SString& name;
  const SStringList& values;
};

/// An account opened for changes by `SAccountDBMod::ModifyAccount`.
class SAccountMod : public SAccount {
 public:
  /// Replaces the field's values.  On an existing account the change is stored
  /// at once; on a new one it is gathered for `Lock`.  False with `errno` set
  /// when it can't be stored.
  bool Set(const SString& field, const SStringList& values);
  /// The same for several fields, in one change: all of them or none.
  bool SetTogether(std::initializer_list<SFieldValues> fields);
  /// Completes the creation of a new account: all fields become visible in one
  /// atomic change.  Does nothing for an existing account.  False with `errno`
  /// set when it can't be stored; nothing of the account is then left.
  [[nodiscard]] bool Lock();

 private:
  friend class SAccountDBMod;
  SAccountDBMod* database_ = nullptr;
  bool is_new_ = false;
  SString uid_;
};

/// Reads the account database.  A missing database reads as empty.
class SAccountDB {
 public:
  SAccountDB();
  virtual ~SAccountDB();
  SAccountDB(const SAccountDB&) = delete;
  SAccountDB& operator=(const SAccountDB&) = delete;

  /// False when the database exists but can't be opened; `errno` was left by
  /// the constructor in `OpenError()`.
  [[nodiscard]] bool IsOpen() const;
  [[nodiscard]] int OpenError() const;

  /// True when an account with exactly that UID exists; fills `account` if one
  /// is given.
  [[nodiscard]] bool GetAccountInfo(const SString& uid,
                                    SAccount* account = nullptr) const;
  /// UID of the account that receives mail for the address, compared without
  /// regard to ASCII case; "" when there is none.  Among several the reserved
  /// accounts win, then the one created first.  A source-routed address has
  /// none.
  [[nodiscard]] SString GetAccountUID(const S821Address& address) const;
  /// The distinct domains, in lower case and sorted, of all "SMTP-Address"
  /// values.
  [[nodiscard]] SStringList GetLocalMailDomains() const;
  /// All UIDs, in the order of creation.
  [[nodiscard]] SStringList AccountUIDList() const;
  [[nodiscard]] int AccountUIDCount() const;
  /// True when an account has the UID without regard to ASCII case, or when it
  /// is reserved ("Postmaster", "Root", the special accounts).
  [[nodiscard]] bool IsUIDTaken(const SString& uid) const;

 protected:
  friend class SAccountMod;
  friend SString GenerateAccountUID(SAccountDB& database,
                                    const SString& full_name);
  SString GenerateUID(const SString& full_name);

  class State;
  std::unique_ptr<State> state_;
};

/// Reads and changes the account database.  The file is created by the first
/// change.
class SAccountDBMod : public SAccountDB {
 public:
  SAccountDBMod();
  ~SAccountDBMod() override;

  /// Waits, half a minute at most and a second after having waited in vain, until
  /// no other process changes the database and keeps the others from it to
  /// `CloseDB`; the first change does so by itself, but waits a second only.
  /// What was looked up before may have changed.  False with `errno` set when the
  /// database can't be changed, `EWOULDBLOCK` when another process still does.
  [[nodiscard]] bool BecomeWriter();
  /// Opens the account for changes through `account`; a UID without account
  /// begins a new one, which exists only after `Lock`.  False with `errno` set
  /// when the database can't be changed.
  [[nodiscard]] bool ModifyAccount(const SString& uid, SAccountMod* account);
  /// Removes the account; true also when there is none.
  bool DeleteAccount(const SString& uid);
  /// Everything stored is on disk for certain.  After a failure it fails for
  /// good, until the database is opened anew.
  [[nodiscard]] bool SyncDB();
  /// Syncs, and lets other processes write.  Called at the end of a task;
  /// the destructor does the same.
  bool CloseDB();

 private:
  static constexpr int kSecondsToWait = 30;
  int seconds_to_wait_ = kSecondsToWait;
};

/// A free UID made of the full name: every run of bytes other than ASCII
/// letters, digits and bytes from 0x80 up becomes one "-", none at the ends; cut
/// to 40 bytes, "User" when nothing is left; when that is taken, "-2", "-3" ...
/// is appended, the first that is free.
[[nodiscard]] SString GenerateAccountUID(SAccountDB& database,
                                         const SString& full_name);

/// Path of the account's mailbox under the mailbox directory: the UID, or
/// bucket + "/" + UID when the variable "MailboxBucketCount" holds 2 or more.
/// The bucket is the 32-bit FNV-1a hash (Fowler, Noll, Vo) of the UID in ASCII
/// lower case, modulo the count.  "" for a UID that is no plain file name.
[[nodiscard]] SString GetMailboxSubpath(const SString& uid);

/// Creates the special accounts that are missing and leaves the others as they
/// are.  False with `errno` set when the account database can't be written.
/// Prints nothing.
[[nodiscard]] bool CreateSpecialAccounts(const SString& host_name,
                                         const SString& ip_address);

#pragma once

#include <lmdb.h>
#include <sqlite3.h>

#include <map>
#include <memory>
#include <string>
#include <string_view>

#include "bench/Accounts.h"
#include "toolkit/database/SAccountDB.h"

// The account database and its peers behind one set of verbs.  `directory`
// exists; what is opened there is made when it is missing.  A peer that fails
// ends the program: nothing is measured then.

/// An account in the types that the system's own code uses.
struct OurAccount {
  explicit OurAccount(const SampleAccount& sample);
  SString uid;
  SStringList addresses;
  std::vector<std::pair<SString, SStringList>> fields;
};

/// The account database of the system.
class OurStore {
 public:
  enum class Access { kRead, kWrite };
  using Account = OurAccount;
  using Address = S821Address;
  OurStore(const std::string& directory, Access access);

  [[nodiscard]] static Address AddressFrom(const std::string& text) {
    return S821Address(SString(text));
  }
  [[nodiscard]] bool HasAddress(const Address& address);
  /// Look-ups and fields, visible at once; false when one of the addresses or
  /// the UID is taken.
  [[nodiscard]] bool CreateUnlessTaken(const OurAccount& account);
  /// One field of an existing account, stored at once.
  [[nodiscard]] bool Set(const OurAccount& account, const char* field,
                         const std::string& value);
  /// True when the account is there with all of its fields.
  [[nodiscard]] bool IsWhole(const OurAccount& account);
  /// Everything is on disk.
  [[nodiscard]] bool Sync();

 private:
  std::unique_ptr<SAccountDB> reader_;
  std::unique_ptr<SAccountDBMod> writer_;
  SAccountDB* database_;
};

/// LMDB: one tree from UID and field to value, one from address to UID.
class LmdbStore {
 public:
  enum class Access { kRead, kWrite, kDurable };
  using Account = SampleAccount;
  using Address = std::string;
  /// Without `kDurable` the map is written to (WRITEMAP) and never synced
  /// (NOSYNC), the fastest LMDB knows.
  LmdbStore(const std::string& directory, Access access);
  ~LmdbStore();
  LmdbStore(const LmdbStore&) = delete;
  LmdbStore& operator=(const LmdbStore&) = delete;

  [[nodiscard]] static Address AddressFrom(const std::string& text) {
    return text;
  }
  [[nodiscard]] bool HasAddress(const Address& address);
  /// Look-ups and fields in one transaction; false when one of the addresses or
  /// the UID is taken.
  [[nodiscard]] bool CreateUnlessTaken(const SampleAccount& account);
  /// The same with a transaction for each field.
  [[nodiscard]] bool CreateByFields(const SampleAccount& account);
  [[nodiscard]] bool Set(const SampleAccount& account, const char* field,
                         const std::string& value);
  [[nodiscard]] bool IsWhole(const SampleAccount& account);

 private:
  MDB_txn* Read();
  [[nodiscard]] bool IsTaken(MDB_txn* transaction,
                             const SampleAccount& account) const;
  void Put(MDB_txn* transaction, const SampleAccount& account,
           const SampleAccount::Field& field) const;

  MDB_env* environment_ = nullptr;
  MDB_txn* read_ = nullptr;
  MDB_dbi fields_ = 0;
  MDB_dbi addresses_ = 0;
};

/// SQLite with a write-ahead log that is synced at every commit.
class SqliteStore {
 public:
  using Account = SampleAccount;
  explicit SqliteStore(const std::string& directory);
  ~SqliteStore();
  SqliteStore(const SqliteStore&) = delete;
  SqliteStore& operator=(const SqliteStore&) = delete;

  /// Look-ups and fields in one transaction.
  [[nodiscard]] bool CreateUnlessTaken(const SampleAccount& account);

 private:
  void Run(const char* statement);
  sqlite3_stmt* Prepare(const char* statement);
  [[nodiscard]] bool Finds(sqlite3_stmt* statement, const std::string& key);
  void Insert(sqlite3_stmt* statement, const std::string& key,
              const std::string& second, const std::string& third);

  sqlite3* database_ = nullptr;
  sqlite3_stmt* find_address_ = nullptr;
  sqlite3_stmt* find_uid_ = nullptr;
  sqlite3_stmt* add_address_ = nullptr;
  sqlite3_stmt* add_field_ = nullptr;
};

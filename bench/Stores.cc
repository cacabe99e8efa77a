#include "bench/Stores.h"

#include <sys/stat.h>

#include <cstdio>
#include <cstdlib>

#include "toolkit/Environment.h"

namespace {

constexpr std::size_t kMapSize = std::size_t{8} << 30;

void Require(bool condition, const char* what) {
  if (!condition) {
    std::fprintf(stderr, "%s failed\n", what);
    std::exit(1);
  }
}

void Must(int result, const char* what) {
  Require(result == 0, what);
}

MDB_val Value(std::string_view text) {
  return {text.size(), const_cast<char*>(text.data())};
}

std::string FieldKey(const std::string& uid, const std::string& field) {
  return uid + '\0' + field;
}

std::string Joined(const std::vector<std::string>& values) {
  std::string joined;
  for (const std::string& value : values) {
    joined += value;
    joined += '\0';
  }
  return joined;
}

SStringList List(const std::vector<std::string>& values) {
  SStringList list;
  for (const std::string& value : values) {
    list.Push(SString(value));
  }
  return list;
}

}  // namespace

// Ours

OurAccount::OurAccount(const SampleAccount& sample)
    : uid(sample.uid), addresses(List(sample.addresses)) {
  for (const auto& [field, values] : sample.fields) {
    fields.emplace_back(SString(field), List(values));
  }
}

OurStore::OurStore(const std::string& directory, Access access) {
  PutEnv("Vellumcraft", SString(directory));
  mkdir((directory + "/config").c_str(), 0755);
  if (access == Access::kWrite) {
    writer_ = std::make_unique<SAccountDBMod>();
    database_ = writer_.get();
  } else {
    reader_ = std::make_unique<SAccountDB>();
    database_ = reader_.get();
  }
}

bool OurStore::HasAddress(const S821Address& address) {
  return !database_->GetAccountUID(address).IsEmpty();
}

bool OurStore::CreateUnlessTaken(const OurAccount& account) {
  for (const SString& address : account.addresses) {
    if (HasAddress(S821Address(address))) {
      return false;
    }
  }
  SAccountMod made;
  if (database_->IsUIDTaken(account.uid) ||
      !writer_->ModifyAccount(account.uid, &made)) {
    return false;
  }
  for (const auto& [field, values] : account.fields) {
    if (!made.Set(field, values)) {
      return false;
    }
  }
  return made.Lock();
}

bool OurStore::Set(const OurAccount& account, const char* field,
                   const std::string& value) {
  SAccountMod changed;
  return writer_->ModifyAccount(account.uid, &changed) &&
         changed.Set(field, SString(value));
}

bool OurStore::IsWhole(const OurAccount& account) {
  SAccount found;
  if (!database_->GetAccountInfo(account.uid, &found)) {
    return false;
  }
  for (const auto& [field, values] : account.fields) {
    if (found.Get(field).IsEmpty()) {
      return false;
    }
  }
  return true;
}

bool OurStore::Sync() {
  return writer_->SyncDB();
}

// LMDB

LmdbStore::LmdbStore(const std::string& directory, Access access) {
  const unsigned flags = access == Access::kRead    ? MDB_RDONLY
                         : access == Access::kWrite ? MDB_WRITEMAP | MDB_NOSYNC
                                                    : 0U;
  Must(mdb_env_create(&environment_), "mdb_env_create");
  Must(mdb_env_set_maxdbs(environment_, 2), "mdb_env_set_maxdbs");
  Must(mdb_env_set_mapsize(environment_, kMapSize), "mdb_env_set_mapsize");
  Must(mdb_env_open(environment_, (directory + "/lmdb").c_str(),
                    flags | MDB_NOSUBDIR, 0640),
       "mdb_env_open");
  const bool writes = access != Access::kRead;
  MDB_txn* transaction = nullptr;
  Must(mdb_txn_begin(environment_, nullptr, writes ? 0 : MDB_RDONLY,
                     &transaction),
       "mdb_txn_begin");
  const unsigned create = writes ? MDB_CREATE : 0;
  Must(mdb_dbi_open(transaction, "fields", create, &fields_), "mdb_dbi_open");
  Must(mdb_dbi_open(transaction, "addresses", create, &addresses_),
       "mdb_dbi_open");
  Must(mdb_txn_commit(transaction), "mdb_txn_commit");
}

LmdbStore::~LmdbStore() {
  if (read_ != nullptr) {
    mdb_txn_abort(read_);
  }
  mdb_env_close(environment_);
}

// A look at the newest state.
MDB_txn* LmdbStore::Read() {
  if (read_ == nullptr) {
    Must(mdb_txn_begin(environment_, nullptr, MDB_RDONLY, &read_),
         "mdb_txn_begin");
  } else {
    mdb_txn_reset(read_);
    Must(mdb_txn_renew(read_), "mdb_txn_renew");
  }
  return read_;
}

bool LmdbStore::HasAddress(const std::string& address) {
  MDB_val key = Value(address);
  MDB_val uid;
  return mdb_get(Read(), addresses_, &key, &uid) == 0;
}

bool LmdbStore::IsTaken(MDB_txn* transaction,
                        const SampleAccount& account) const {
  MDB_val found;
  for (const std::string& address : account.addresses) {
    MDB_val key = Value(address);
    if (mdb_get(transaction, addresses_, &key, &found) == 0) {
      return true;
    }
  }
  const std::string name = FieldKey(account.uid, "Name");
  MDB_val key = Value(name);
  return mdb_get(transaction, fields_, &key, &found) == 0;
}

void LmdbStore::Put(MDB_txn* transaction, const SampleAccount& account,
                    const SampleAccount::Field& field) const {
  const std::string name = FieldKey(account.uid, field.first);
  const std::string joined = Joined(field.second);
  MDB_val key = Value(name);
  MDB_val value = Value(joined);
  Must(mdb_put(transaction, fields_, &key, &value, 0), "mdb_put");
  if (field.first == "SMTP-Address") {
    for (const std::string& address : field.second) {
      key = Value(address);
      value = Value(account.uid);
      Must(mdb_put(transaction, addresses_, &key, &value, 0), "mdb_put");
    }
  }
}

bool LmdbStore::CreateUnlessTaken(const SampleAccount& account) {
  MDB_txn* transaction = nullptr;
  Must(mdb_txn_begin(environment_, nullptr, 0, &transaction), "mdb_txn_begin");
  if (IsTaken(transaction, account)) {
    mdb_txn_abort(transaction);
    return false;
  }
  for (const SampleAccount::Field& field : account.fields) {
    Put(transaction, account, field);
  }
  return mdb_txn_commit(transaction) == 0;
}

bool LmdbStore::CreateByFields(const SampleAccount& account) {
  if (IsTaken(Read(), account)) {
    return false;
  }
  mdb_txn_reset(read_);
  for (const SampleAccount::Field& field : account.fields) {
    MDB_txn* transaction = nullptr;
    Must(mdb_txn_begin(environment_, nullptr, 0, &transaction),
         "mdb_txn_begin");
    Put(transaction, account, field);
    Must(mdb_txn_commit(transaction), "mdb_txn_commit");
  }
  // `Read` begins by a reset, which must not find one that was done.
  return mdb_txn_renew(read_) == 0;
}

bool LmdbStore::Set(const SampleAccount& account, const char* field,
                    const std::string& value) {
  MDB_txn* transaction = nullptr;
  Must(mdb_txn_begin(environment_, nullptr, 0, &transaction), "mdb_txn_begin");
  Put(transaction, account, {field, {value}});
  return mdb_txn_commit(transaction) == 0;
}

bool LmdbStore::IsWhole(const SampleAccount& account) {
  MDB_txn* transaction = Read();
  for (const SampleAccount::Field& field : account.fields) {
    const std::string name = FieldKey(account.uid, field.first);
    MDB_val key = Value(name);
    MDB_val value;
    if (mdb_get(transaction, fields_, &key, &value) != 0) {
      return false;
    }
  }
  return true;
}

// SQLite

SqliteStore::SqliteStore(const std::string& directory) {
  Must(sqlite3_open((directory + "/sqlite").c_str(), &database_),
       "sqlite3_open");
  Run("PRAGMA journal_mode = WAL");
  Run("PRAGMA synchronous = FULL");
  Run("CREATE TABLE IF NOT EXISTS field (uid TEXT, name TEXT, value TEXT,"
      " PRIMARY KEY (uid, name)) WITHOUT ROWID");
  Run("CREATE TABLE IF NOT EXISTS address (address TEXT PRIMARY KEY, uid TEXT)"
      " WITHOUT ROWID");
  find_address_ = Prepare("SELECT uid FROM address WHERE address = ?");
  find_uid_ = Prepare("SELECT name FROM field WHERE uid = ?");
  add_address_ = Prepare("INSERT INTO address VALUES (?, ?)");
  add_field_ = Prepare("INSERT INTO field VALUES (?, ?, ?)");
}

SqliteStore::~SqliteStore() {
  for (sqlite3_stmt* statement :
       {find_address_, find_uid_, add_address_, add_field_}) {
    sqlite3_finalize(statement);
  }
  sqlite3_close(database_);
}

void SqliteStore::Run(const char* statement) {
  Must(sqlite3_exec(database_, statement, nullptr, nullptr, nullptr),
       statement);
}

sqlite3_stmt* SqliteStore::Prepare(const char* statement) {
  sqlite3_stmt* prepared = nullptr;
  Must(sqlite3_prepare_v2(database_, statement, -1, &prepared, nullptr),
       statement);
  return prepared;
}

bool SqliteStore::Finds(sqlite3_stmt* statement, const std::string& key) {
  sqlite3_bind_text(statement, 1, key.data(), static_cast<int>(key.size()),
                    SQLITE_STATIC);
  const bool found = sqlite3_step(statement) == SQLITE_ROW;
  sqlite3_reset(statement);
  return found;
}

void SqliteStore::Insert(sqlite3_stmt* statement, const std::string& key,
                         const std::string& second, const std::string& third) {
  int column = 0;
  for (const std::string* text : {&key, &second, &third}) {
    ++column;
    if (column <= sqlite3_bind_parameter_count(statement)) {
      sqlite3_bind_text(statement, column, text->data(),
                        static_cast<int>(text->size()), SQLITE_STATIC);
    }
  }
  Require(sqlite3_step(statement) == SQLITE_DONE, "INSERT");
  sqlite3_reset(statement);
}

bool SqliteStore::CreateUnlessTaken(const SampleAccount& account) {
  Run("BEGIN IMMEDIATE");
  for (const std::string& address : account.addresses) {
    Require(!Finds(find_address_, address), "a free address");
  }
  Require(!Finds(find_uid_, account.uid), "a free UID");
  for (const auto& [field, values] : account.fields) {
    Insert(add_field_, account.uid, field, Joined(values));
  }
  for (const std::string& address : account.addresses) {
    Insert(add_address_, address, account.uid, "");
  }
  Run("COMMIT");
  return true;
}

#include "toolkit/database/SAccountDB.h"

#include <algorithm>
#include <cerrno>
#include <set>
#include <unordered_map>

#include "toolkit/Environment.h"
#include "toolkit/database/Lists.h"
#include "toolkit/database/ReservedUIDs.h"
#include "toolkit/database/Store.h"

namespace {

constexpr const char* kFile = "Accounts";
constexpr const char* kAddressField = "SMTP-Address";

std::string LowerCased(std::string_view text) {
  return SString(text).LowerCase().Std();
}

bool IsReserved(const std::string& lower_uid) {
  return std::any_of(
      std::begin(kReservedUIDs), std::end(kReservedUIDs),
      [&](const char* uid) { return LowerCased(uid) == lower_uid; });
}

std::string SectionOf(const SString& uid) {
  return "/" + uid.Std();
}

SString UIDOf(std::string_view section) {
  return SString(section.substr(1));
}

// The account file with its look-ups by address and by UID in any case.
class AccountStore : public SStore {
 public:
  [[nodiscard]] SString FindAddress(const std::string& lower_address) const {
    const auto found = by_address_.find(lower_address);
    return found == by_address_.end() ? SString()
                                      : UIDOf(found->second.begin()->second);
  }
  [[nodiscard]] bool HasUID(const std::string& lower_uid) const {
    return uids_.contains(lower_uid);
  }
  [[nodiscard]] std::set<std::string> Domains() const {
    std::set<std::string> domains;
    for (const auto& [address, owners] : by_address_) {
      const std::size_t at = address.rfind('@');
      if (at != std::string::npos && at + 1 < address.size()) {
        domains.insert(address.substr(at + 1));
      }
    }
    return domains;
  }
  // For each base of UIDs the number to try next; all before it are taken.
  std::unordered_map<std::string, int> next_suffix;

 protected:
  void BeforeChange(const std::string& name, const Section* section) override {
    if (section == nullptr) {
      return;
    }
    for (const std::string& address : AddressesOf(*section)) {
      const auto found = by_address_.find(address);
      if (found != by_address_.end()) {
        found->second.erase(Rank(name, *section));
        if (found->second.empty()) {
          by_address_.erase(found);
        }
      }
    }
  }
  void AfterChange(const std::string& name, const Section* section) override {
    const std::string uid = LowerCased(std::string_view(name).substr(1));
    if (section == nullptr) {
      uids_.erase(uid);
      next_suffix.clear();
      return;
    }
    uids_.insert({uid, name});
    for (const std::string& address : AddressesOf(*section)) {
      by_address_[address].insert(Rank(name, *section));
    }
  }
  void AfterReset() override {
    by_address_.clear();
    uids_.clear();
    next_suffix.clear();
  }

 private:
  // Reserved accounts first, then in the order of creation.
  using Owner = std::pair<std::uint64_t, std::string>;
  static Owner Rank(const std::string& name, const Section& section) {
    const bool reserved =
        IsReserved(LowerCased(std::string_view(name).substr(1)));
    return {reserved ? 0 : section.order + 1, name};
  }
  static std::vector<std::string> AddressesOf(const Section& section) {
    std::vector<std::string> addresses;
    const auto found = section.keys.find(kAddressField);
    if (found != section.keys.end()) {
      for (const std::string& address : found->second) {
        addresses.push_back(LowerCased(address));
      }
    }
    return addresses;
  }

  std::unordered_map<std::string, std::set<Owner>> by_address_;
  std::unordered_map<std::string, std::string> uids_;
};

}  // namespace

class SAccount::Fields {
 public:
  SStore::Section section;
};

class SAccountDB::State {
 public:
  SString path = GetEnv("Vellumcraft") + "/config/" + kFile;
  int open_error = 0;
  AccountStore store;

  // Opens for reading; a missing database is an empty one.
  void OpenForReading() {
    open_error = store.Open(path, false) || errno == ENOENT ? 0 : errno;
  }
  AccountStore& Current() {
    if (!store.IsOpen() && open_error == 0) {
      OpenForReading();
    }
    store.Refresh();
    return store;
  }
  bool OpenForWriting() {
    return (store.IsOpen() && store.IsForWriting()) || store.Open(path, true);
  }
};

SAccount::SAccount() : fields_(std::make_shared<Fields>()) {}
SAccount::~SAccount() = default;
SAccount::SAccount(const SAccount&) = default;
SAccount& SAccount::operator=(const SAccount&) = default;

SStringList SAccount::Get(const SString& field) const {
  return ValuesOf(fields_->section, field);
}

bool SAccountMod::Set(const SString& field, const SStringList& values) {
  if (database_ == nullptr) {
    errno = EBADF;
    return false;
  }
  const SStore::Values plain = PlainValues(values);
  if (!is_new_) {
    SStore::Change change;
    change.Set(SectionOf(uid_), field.View(), plain);
    if (!database_->state_->store.Store(change)) {
      return false;
    }
  }
  // Accounts that were copied from this one keep what they had.
  fields_ = std::make_shared<Fields>(*fields_);
  fields_->section.keys[field.Std()] = plain;
  return true;
}

bool SAccountMod::Lock() {
  if (database_ == nullptr) {
    errno = EBADF;
    return false;
  }
  if (!is_new_) {
    return true;
  }
  const std::string section = SectionOf(uid_);
  SStore::Change change;
  change.MakeSection(section);
  for (const auto& [field, values] : fields_->section.keys) {
    change.Set(section, field, values);
  }
  is_new_ = !database_->state_->store.Store(change);
  return !is_new_;
}

SAccountDB::SAccountDB() : state_(std::make_unique<State>()) {
  state_->OpenForReading();
}

SAccountDB::~SAccountDB() = default;

bool SAccountDB::IsOpen() const {
  return state_->open_error == 0;
}

int SAccountDB::OpenError() const {
  return state_->open_error;
}

bool SAccountDB::GetAccountInfo(const SString& uid, SAccount* account) const {
  const SStore::Section* section = state_->Current().Find(SectionOf(uid));
  if (section == nullptr) {
    return false;
  }
  if (account != nullptr) {
    account->fields_ = std::make_shared<SAccount::Fields>();
    account->fields_->section = *section;
  }
  return true;
}

SString SAccountDB::GetAccountUID(const S821Address& address) const {
  if (address.IsNull() || !address.Route().IsEmpty()) {
    return "";
  }
  return state_->Current().FindAddress(LowerCased(address.Text().View()));
}

SStringList SAccountDB::GetLocalMailDomains() const {
  SStringList domains;
  for (const std::string& domain : state_->Current().Domains()) {
    domains.Push(SString(std::string_view(domain)));
  }
  return domains;
}

SStringList SAccountDB::AccountUIDList() const {
  std::vector<std::pair<std::uint64_t, SString>> in_order;
  for (const auto& [name, section] : state_->Current().All()) {
    in_order.emplace_back(section.order, UIDOf(name));
  }
  std::sort(in_order.begin(), in_order.end());
  SStringList uids;
  for (const auto& entry : in_order) {
    uids.Push(entry.second);
  }
  return uids;
}

int SAccountDB::AccountUIDCount() const {
  return static_cast<int>(state_->Current().All().size());
}

bool SAccountDB::IsUIDTaken(const SString& uid) const {
  const std::string lower_uid = LowerCased(uid.View());
  return IsReserved(lower_uid) || state_->Current().HasUID(lower_uid);
}

int& SAccountDB::NextSuffix(const SString& base) {
  return state_->Current().next_suffix[LowerCased(base.View())];
}

SAccountDBMod::SAccountDBMod() = default;

SAccountDBMod::~SAccountDBMod() {
  CloseDB();
}

bool SAccountDBMod::ModifyAccount(const SString& uid, SAccountMod* account) {
  if (!state_->OpenForWriting()) {
    return false;
  }
  account->database_ = this;
  account->uid_ = uid;
  account->fields_ = std::make_shared<SAccount::Fields>();
  account->is_new_ = !GetAccountInfo(uid, account);
  return true;
}

bool SAccountDBMod::DeleteAccount(const SString& uid) {
  if (!state_->OpenForWriting()) {
    return false;
  }
  SStore::Change change;
  change.DeleteSection(SectionOf(uid));
  return !GetAccountInfo(uid) || state_->store.Store(change);
}

bool SAccountDBMod::CloseDB() {
  return state_->store.Close();
}

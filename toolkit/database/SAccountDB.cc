#include "toolkit/database/SAccountDB.h"

#include <algorithm>
#include <cerrno>

#include "toolkit/database/AccountState.h"
#include "toolkit/database/Hash.h"

using namespace std::string_view_literals;

namespace {

// Win over others with the same address, and are never given to users.
constexpr std::string_view kReservedUIDs[] = {
    "Postmaster", "Root", "Accounts",      "Configuration",
    "Lists",      "Help", "Mailer-Daemon", "Nobody"};

bool IsReserved(std::string_view uid) {
  return std::find(std::begin(kReservedUIDs), std::end(kReservedUIDs), uid) !=
         std::end(kReservedUIDs);
}

bool IsReservedInAnyCase(std::string_view uid) {
  return std::any_of(std::begin(kReservedUIDs), std::end(kReservedUIDs),
                     [&](std::string_view reserved) {
                       return IsSameInAnyCase(reserved, uid);
                     });
}

// True for the account that an address stands for when both have it: a reserved
// one, else the one made first.
bool WinsOver(std::string_view former, std::uint32_t former_id,
              std::string_view uid, std::uint32_t id) {
  const bool is_reserved = IsReserved(uid);
  return is_reserved == IsReserved(former) ? id < former_id : is_reserved;
}

// An account's section lies directly below the top.
bool IsAccountPath(std::string_view path) {
  return path.size() > 1 && path.rfind('/') == 0;
}

std::string PathOf(const SString& uid) {
  return "/" + uid.Std();
}

}  // namespace

// Accounts

SAccount::SAccount() = default;
SAccount::~SAccount() = default;

SAccount::SAccount(const SAccount& other) {
  *this = other;
}

SAccount& SAccount::operator=(const SAccount& other) {
  if (this != &other) {
    fields_ = other.fields_ == nullptr
                  ? nullptr
                  : std::make_shared<Fields>(*other.fields_);
  }
  return *this;
}

SStringList SAccount::Get(const SString& field) const {
  return fields_ == nullptr ? SStringList()
                            : fields_->section.Get(field.View());
}

bool SAccountMod::Set(const SString& field, const SStringList& values) {
  if (database_ != nullptr && is_new_ && !field.IsEmpty()) {
    // Most fields are set on new accounts: no copies for them.
    fields_->section.Set(field, values);
    return true;
  }
  return SetTogether({{field, values}});
}

bool SAccountMod::SetTogether(std::initializer_list<SFieldValues> fields) {
  const bool is_named =
      std::none_of(fields.begin(), fields.end(),
                   [](const auto& field) { return field.name.IsEmpty(); });
  if (database_ == nullptr || !is_named) {
    errno = EINVAL;
    return false;
  }
  if (is_new_) {
    for (const auto& [name, values] : fields) {
      fields_->section.Set(name, values);
    }
    return true;
  }
  SAccountDB::State& state = *database_->state_;
  if (!state.OpenForWriting() || !state.Refresh(uid_, fields_.get())) {
    return false;
  }
  state.changed = fields_->section;
  for (const auto& [name, values] : fields) {
    state.changed.Set(name, values);
  }
  if (!state.file.Store(state.changed, &fields_->id)) {
    return false;
  }
  std::swap(fields_->section, state.changed);
  fields_->generation = state.file.Generation();
  return true;
}

bool SAccountMod::Lock() {
  if (database_ == nullptr) {
    errno = EINVAL;
    return false;
  }
  if (!is_new_) {
    return true;
  }
  SAccountDB::State& state = *database_->state_;
  if (!state.OpenForWriting()) {
    return false;
  }
  if (state.file.Find(fields_->section.Path().View()) != SDatabaseFile::kNone) {
    errno = EEXIST;
    return false;
  }
  if (errno != 0 || !state.file.Store(fields_->section, &fields_->id)) {
    return false;
  }
  fields_->generation = state.file.Generation();
  is_new_ = false;
  return true;
}

// Reading

SAccountDB::SAccountDB() : state_(std::make_unique<State>()) {}
SAccountDB::~SAccountDB() = default;

bool SAccountDB::IsOpen() const {
  return state_->Follow() || state_->open_error == 0;
}

int SAccountDB::OpenError() const {
  return state_->open_error;
}

bool SAccountDB::GetAccountInfo(const SString& uid, SAccount* account) const {
  if (!IsAccountPath(PathOf(uid)) || !state_->Follow()) {
    return false;
  }
  if (account == nullptr) {
    return state_->file.Find(PathOf(uid)) != SDatabaseFile::kNone;
  }
  auto fields = std::make_shared<SAccount::Fields>();
  const std::uint32_t id = state_->file.Find(PathOf(uid), &fields->section);
  if (id == SDatabaseFile::kNone) {
    return false;
  }
  fields->id = id;
  fields->generation = state_->file.Generation();
  account->fields_ = std::move(fields);
  return true;
}

SString SAccountDB::GetAccountUID(const S821Address& address) const {
  if (address.IsNull() || !address.Route().IsEmpty()) {
    return {};
  }
  const std::string_view domain = address.Domain().View();
  const SLowerCaseText text(
      {address.LocalPart().View(), domain.empty() ? ""sv : "@"sv, domain});
  // What memory takes to answer passes while the file is asked.
  state_->file.ExpectLookUp(text.View());
  if (!state_->Follow()) {
    return {};
  }
  std::uint32_t found = SDatabaseFile::kNone;
  SString uid;
  state_->file.ForEachWithAddress(
      text.View(), [&](std::uint32_t id, std::string_view path) {
        if (found == SDatabaseFile::kNone ||
            WinsOver(uid.View(), found, path.substr(1), id)) {
          found = id;
          uid = SString(path.substr(1));
        }
      });
  return uid;
}

SStringList SAccountDB::GetLocalMailDomains() const {
  if (!state_->Follow()) {
    return {};
  }
  if (state_->domains_generation == state_->file.Generation()) {
    return state_->domains;
  }
  std::set<std::string, std::less<>> domains;
  state_->ForEachBody([&](std::string_view body) {
    SSectionCursor cursor(body);
    std::string_view text;
    if (!IsAccountPath(cursor.Path()) ||
        !cursor.FindKey(database_format::kAddressKey)) {
      return;
    }
    while (cursor.NextValue(&text)) {
      const SLowerCaseText address(text);
      const std::size_t at = address.View().rfind('@');
      if (at != std::string_view::npos && at + 1 < address.View().size() &&
          domains.find(address.View().substr(at + 1)) == domains.end()) {
        domains.emplace(address.View().substr(at + 1));
      }
    }
  });
  state_->domains = SStringList();
  for (const std::string& domain : domains) {
    state_->domains.Push(SString(std::string_view(domain)));
  }
  state_->domains_generation = state_->file.Generation();
  return state_->domains;
}

SStringList SAccountDB::AccountUIDList() const {
  SStringList uids;
  if (state_->Follow()) {
    state_->ForEachBody([&](std::string_view body) {
      const std::string_view path = SSectionCursor(body).Path();
      if (IsAccountPath(path)) {
        uids.Push(SString(path.substr(1)));
      }
    });
  }
  return uids;
}

int SAccountDB::AccountUIDCount() const {
  if (!state_->Follow()) {
    return 0;
  }
  const bool has_top = state_->file.Find("/") != SDatabaseFile::kNone;
  return static_cast<int>(state_->file.LiveSections()) - (has_top ? 1 : 0);
}

bool SAccountDB::IsUIDTaken(const SString& uid) const {
  return IsReservedInAnyCase(uid.View()) ||
         (state_->Follow() && state_->file.HasPathInAnyCase(PathOf(uid)));
}

// Changing

SAccountDBMod::SAccountDBMod() = default;
SAccountDBMod::~SAccountDBMod() = default;

bool SAccountDBMod::BecomeWriter() {
  // Each try waits a second.  Who waited in vain does not wait as long again.
  do {
    if (state_->OpenForWriting()) {
      seconds_to_wait_ = kSecondsToWait;
      return true;
    }
  } while (errno == EWOULDBLOCK && --seconds_to_wait_ > 0);
  if (errno == EWOULDBLOCK) {
    seconds_to_wait_ = 1;
  }
  return false;
}

bool SAccountDBMod::ModifyAccount(const SString& uid, SAccountMod* account) {
  account->database_ = nullptr;
  if (!IsPlainFileName(uid.View())) {
    errno = EINVAL;
    return false;
  }
  if (!state_->OpenForWriting()) {
    return false;
  }
  auto fields = std::make_shared<SAccount::Fields>();
  fields->section = SSection(SString(PathOf(uid)));
  const std::uint32_t id =
      state_->file.Find(fields->section.Path().View(), &fields->section);
  if (id == SDatabaseFile::kNone && errno != 0) {
    return false;
  }
  fields->id = id;
  fields->generation = state_->file.Generation();
  account->fields_ = std::move(fields);
  account->uid_ = uid;
  account->is_new_ = id == SDatabaseFile::kNone;
  account->database_ = this;
  return true;
}

bool SAccountDBMod::DeleteAccount(const SString& uid) {
  const std::string path = PathOf(uid);
  if (!IsAccountPath(path)) {
    return true;
  }
  if (!state_->Follow()) {
    return state_->open_error == 0;
  }
  if (state_->file.Find(path) == SDatabaseFile::kNone) {
    return errno == 0;
  }
  if (!state_->OpenForWriting()) {
    return false;
  }
  const std::uint32_t id = state_->file.Find(path);
  return id == SDatabaseFile::kNone ? errno == 0 : state_->file.Remove(id);
}

bool SAccountDBMod::SyncDB() {
  return state_->file.Sync();
}

bool SAccountDBMod::CloseDB() {
  return state_->file.Close();
}

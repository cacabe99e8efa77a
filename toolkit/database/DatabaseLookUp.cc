// The part of SDatabaseFile that finds and reads sections.

#include <cerrno>

#include "toolkit/database/Bytes.h"
#include "toolkit/database/Crc32c.h"
#include "toolkit/database/DatabaseFile.h"
#include "toolkit/database/Hash.h"

using namespace database_format;

namespace {

constexpr std::size_t kCacheLine = 64;

}  // namespace

std::uint32_t SDatabaseFile::Find(std::string_view path, SSection* section) {
  std::uint32_t found = kNone;
  errno = 0;
  index_.ForEach(HashOfPath(path), [&](std::uint32_t id) {
    std::string_view body;
    if (!ReadBody(id, &body)) {
      // A removed section leaves its entry behind.
      errno = errno == ENOENT ? 0 : errno;
    } else if (SSectionCursor(body).Path() == path) {
      if (section == nullptr || section->Decode(body)) {
        found = id;
      } else {
        errno = EBADMSG;
      }
    }
    return found == kNone && errno == 0;
  });
  if (index_.IsDamaged()) {
    errno = EBADMSG;
  }
  return found;
}

bool SDatabaseFile::HasPathInAnyCase(std::string_view path) {
  bool found = false;
  index_.ForEach(HashOfPath(path), [&](std::uint32_t id) {
    std::string_view body;
    found = ReadBody(id, &body) &&
            IsSameInAnyCase(SSectionCursor(body).Path(), path);
    return !found;
  });
  return found;
}

bool SDatabaseFile::BodyHasAddress(std::string_view body,
                                   std::string_view address) {
  SSectionCursor cursor(body);
  std::string_view text;
  if (cursor.FindKey(kAddressKey)) {
    while (cursor.NextValue(&text)) {
      if (IsSameInLowerCase(text, address)) {
        return true;
      }
    }
  }
  return false;
}

bool SDatabaseFile::Read(std::uint32_t id, SSection* section) {
  std::string_view body;
  return ReadBody(id, &body) && (section->Decode(body) || Damaged());
}

bool SDatabaseFile::ReadBody(std::uint32_t id, std::string_view* body) {
  const SRecordPlace place =
      id < index_.Sections() ? index_.Place(id) : SRecordPlace();
  if (id < verified_.size() && verified_[id]) {
    const char* record = stored_.Kept(place.offset);
    // All of a usual record is on its way while its beginning is looked at.
    for (std::size_t ahead = kCacheLine; ahead <= 3 * kCacheLine;
         ahead += kCacheLine) {
      __builtin_prefetch(record + ahead);
    }
    *body = {record + kRecordBody, place.size - kRecordBody};
    return true;
  }
  if (!place.IsSet()) {
    errno = index_.IsDamaged() ? EBADMSG : ENOENT;
    return false;
  }
  std::string_view record;
  const bool is_possible =
      place.size >= kSmallestRecord && place.offset + place.size <= end_;
  if (is_possible &&
      !stored_.Read({fd_.Get(), end_, writes_}, place.offset, place.size,
                    &record) &&
      errno != EBADMSG) {
    // What can't be read now may be sound all the same.
    return false;
  }
  if (record.size() != place.size ||
      Get32(record.data() + kRecordSize) != place.size ||
      Get32(record.data() + kRecordId) != id ||
      Get32(record.data()) != Crc32c(record.substr(kRecordSize))) {
    damaged_ = true;
    return Damaged();
  }
  if (stored_.IsKept(record)) {
    verified_.resize(std::max<std::size_t>(verified_.size(), id + 1));
    verified_[id] = true;
  }
  *body = record.substr(kRecordBody);
  return true;
}

// A section that was looked for is often the next to be stored.
std::uint32_t SDatabaseFile::HashOfPath(std::string_view path) {
  if (path.empty() || path != hashed_path_) {
    hashed_path_ = path;
    hash_ = HashOfText(SLowerCaseText(path).View(), salt_);
  }
  return hash_;
}

std::uint32_t SDatabaseFile::HashOfAddress(std::string_view address) const {
  return HashOfText(address, ~salt_);
}

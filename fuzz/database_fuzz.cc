// A database file of any content: opened, read, verified, recovered by a
// writer.  Most inputs get right checksums after they were mutated, so that
// damage is not all that is tried.

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <random>
#include <string>

#include "fuzz/Scratch.h"
#include "toolkit/database/Bytes.h"
#include "toolkit/database/CheckDatabase.h"
#include "toolkit/database/Crc32c.h"
#include "toolkit/database/Hash.h"
#include "toolkit/database/TextForm.h"

extern "C" std::size_t LLVMFuzzerMutate(std::uint8_t* data, std::size_t size,
                                        std::size_t max_size);

using namespace database_format;

namespace {

// One input of so many keeps the checksums that it got.
constexpr unsigned kUnsealed = 8;

void SealSectors(char* bytes) {
  for (std::size_t i = 0; i < kHeadSize; i += kSectorSize) {
    Put32(bytes + i + kSectorChecksum, Crc32c({bytes + i, kSectorChecksum}));
  }
}

void SealBlocks(char* record, std::size_t size) {
  const std::uint32_t seed = Get32(record + kRecordChecksum);
  for (std::size_t at = kIndexHeadSize; at + kBlockSize <= size;
       at += kBlockSize) {
    const auto block =
        static_cast<std::uint32_t>((at - kIndexHeadSize) / kBlockSize);
    const std::uint32_t sum =
        Crc32c({record + at, kWordsInBlock * 8}, seed + block);
    Put64(record + at + kWordsInBlock * 8, sum);
  }
}

// Chains the records as far as their sizes make sense.
void Seal(char* bytes, std::size_t size) {
  if (size < kHeadSize) {
    return;
  }
  std::memcpy(bytes, kMagic, sizeof kMagic);
  Put32(bytes + kHeadVersion, kVersion);
  SealSectors(bytes);
  std::uint32_t previous = Get32(bytes + kSectorChecksum);
  for (std::size_t at = kHeadSize; at + kSmallestRecord <= size;) {
    char* record = bytes + at;
    const std::size_t whole = Get32(record + kRecordSize);
    const bool is_index = Get32(record + kRecordType) ==
                          static_cast<std::uint32_t>(RecordType::kIndex);
    if (whole < (is_index ? kIndexHeadSize : kSmallestRecord) ||
        whole > size - at) {
      return;
    }
    Put32(record + kRecordPrevious, previous);
    const std::size_t covered = is_index ? kIndexHeadSize : whole;
    previous = Crc32c({record + kRecordSize, covered - kRecordSize});
    Put32(record + kRecordChecksum, previous);
    if (is_index) {
      SealBlocks(record, whole);
    }
    at += whole;
  }
}

// Everything that readers do.  True when all of it could be read.
bool ReadEverything(SDatabaseFile* file, std::string* text) {
  bool whole = true;
  for (std::uint32_t id = 0; id < file->Sections() && id < 10000; ++id) {
    SSection section;
    if (!file->IsLive(id)) {
      continue;
    }
    if (!file->Read(id, &section)) {
      whole = false;
      continue;
    }
    static_cast<void>(file->Find(section.Path().View()));
    Check(file->Find(section.Path().View()) != SDatabaseFile::kNone ||
          errno == EBADMSG || errno == 0);
    static_cast<void>(file->HasPathInAnyCase(section.Path().View()));
    for (const SString& address : section.Get(kAddressKey)) {
      file->ForEachWithAddress(SLowerCaseText(address.View()).View(),
                               [](std::uint32_t, std::string_view) {});
    }
  }
  return DatabaseAsText(file, text) && whole;
}

std::string TextOf(const std::string& path) {
  SDatabaseFile file;
  std::string text;
  Check(file.Open(path, SDatabaseFile::Access::kRead));
  Check(ReadEverything(&file, &text));
  return text;
}

// A writer stores a section; everything else must stay as it was.
void Recover(const std::string& path, bool sound) {
  SDatabaseFile file;
  if (!file.Open(path, SDatabaseFile::Access::kWrite)) {
    Check(!sound);
    return;
  }
  std::string before;
  const bool readable = ReadEverything(&file, &before);
  SSection added("/a section \x01 of the fuzzer");
  added.Set(SString(kAddressKey), SStringList("Fuzzer@example.com"));
  std::uint32_t id = file.Find(added.Path().View());
  const bool stored = file.Store(added, &id);
  const bool compacted = stored && file.Compact();
  const bool closed = file.Close();
  if (!sound) {
    return;
  }
  Check(readable && stored && compacted && closed);
  std::string problem;
  Check(CheckDatabase(path, &problem));
  const std::string after = TextOf(path);
  Check(after.find("/a section \\x01 of the fuzzer\n") != std::string::npos);
  Check(after.size() >= before.size());
}

}  // namespace

extern "C" std::size_t LLVMFuzzerCustomMutator(std::uint8_t* data,
                                               std::size_t size,
                                               std::size_t max_size,
                                               unsigned seed) {
  const std::size_t mutated = LLVMFuzzerMutate(data, size, max_size);
  std::minstd_rand random(seed);
  if (random() % kUnsealed != 0) {
    Seal(reinterpret_cast<char*>(data), mutated);
  }
  return mutated;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data,
                                      std::size_t size) {
  static const SScratch scratch;
  const std::string path = scratch.File("database");
  WriteFile(path, {reinterpret_cast<const char*>(data), size});
  std::string problem;
  const bool sound = CheckDatabase(path, &problem);
  {
    SDatabaseFile file;
    std::string text;
    const bool opened = file.Open(path, SDatabaseFile::Access::kRead);
    const bool whole = opened && ReadEverything(&file, &text);
    Check(whole || !sound);
    Check(!opened || file.Follow());
  }
  Recover(path, sound);
  unlink(path.c_str());
  unlink((path + ".unfinished").c_str());
  return 0;
}

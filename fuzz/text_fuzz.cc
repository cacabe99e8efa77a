// Any text given to "vcdb load".  What is taken must come out again: the text
// of the database made of it gives the same database.

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "fuzz/Scratch.h"
#include "toolkit/database/CheckDatabase.h"
#include "toolkit/database/TextForm.h"

namespace {

std::string TextThroughFile(const std::string& path,
                            const std::vector<SSection>& sections) {
  SDatabaseFile file;
  Check(file.Begin(path));
  for (const SSection& section : sections) {
    std::uint32_t id = SDatabaseFile::kNone;
    Check(file.Store(section, &id));
  }
  Check(file.Install(nullptr) && file.Close());
  std::string problem;
  Check(CheckDatabase(path, &problem));
  SDatabaseFile reader;
  std::string text;
  Check(reader.Open(path, SDatabaseFile::Access::kRead));
  Check(DatabaseAsText(&reader, &text));
  unlink(path.c_str());
  return text;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data,
                                      std::size_t size) {
  static const SScratch scratch;
  const std::string path = scratch.File("database");
  const std::string_view input(reinterpret_cast<const char*>(data), size);
  std::vector<SSection> sections;
  std::string problem;
  if (!DatabaseFromText(input, &sections, &problem)) {
    Check(!problem.empty());
    return 0;
  }
  const std::string text = TextThroughFile(path, sections);
  std::vector<SSection> again;
  Check(DatabaseFromText(text, &again, &problem));
  Check(again.size() == sections.size());
  Check(TextThroughFile(path, again) == text);
  return 0;
}

#pragma once

#include <map>
#include <optional>
#include <string>

/// A file's content as people can read it.
struct FileText {
  std::string text;
  bool is_database = false;  // then the text is what vcdb dump prints
};

/// The text of a file's content; none when it is neither a text nor a sound
/// database, or too large to be read by anybody (a mebibyte, 64 for databases).
[[nodiscard]] std::optional<FileText> TextOf(const std::string& content);

/// Masks what nobody but its owner may know, before a text is shown: hashes of
/// password files, passwords in databases, and what follows "password" and a
/// colon or an equals sign anywhere.  Equal values get equal masks, so that a
/// change can still be seen.
class Secrets {
 public:
  [[nodiscard]] std::string Mask(const std::string& path, const FileText& text);

 private:
  std::string MaskOf(const std::string& value);
  std::string MaskField(const std::string& line);
  std::string MaskAssignment(const std::string& line);

  std::map<std::string, std::size_t> numbers_;
};

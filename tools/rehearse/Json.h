#pragma once

#include <string>

/// A JSON string with its quotes.  Bytes that are not UTF-8 become lone
/// surrogates, U+DC80 to U+DCFF.
[[nodiscard]] std::string JsonString(const std::string& bytes);

/// Puts a JSON object together, member by member.
class JsonObject {
 public:
  void Add(const std::string& key, const std::string& value) {
    AddRaw(key, JsonString(value));
  }
  void AddNumber(const std::string& key, long long value) {
    AddRaw(key, std::to_string(value));
  }
  /// Adds a value that is JSON already.
  void AddRaw(const std::string& key, const std::string& json) {
    members_ += (members_.empty() ? "" : ", ") + JsonString(key) + ": " + json;
  }
  [[nodiscard]] std::string Text() const { return "{" + members_ + "}"; }

 private:
  std::string members_;
};

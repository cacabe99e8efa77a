#pragma once

#include <functional>
#include <string>

#include "tools/rehearse/Problem.h"
#include "tools/rehearse/ReadFile.h"

/// Questions from programs in a rehearsal to its init, through a socket that
/// only they can see: it has no file, and its name ends with the network name
/// space.  A question is one line; the answer is everything up to the end.
class Enquiry {
 public:
  /// Begins to listen; false with errno.
  [[nodiscard]] bool Open();

  /// Ready for reading when a question waits.
  [[nodiscard]] int Fd() const { return socket_.Get(); }

  /// Reads one question and sends what `answer` makes of it.
  void Answer(const std::function<std::string(const std::string&)>& answer);

 private:
  SDescriptor socket_;
};

/// Asks the init of the rehearsal that this process is part of.
[[nodiscard]] Problem Ask(const std::string& question, std::string& answer);

#pragma once

#include <string>
#include <vector>

#include "tools/rehearse/Watch.h"

/// A way out of the rehearsal that a call would take.
struct Contact {
  std::string what;  // "connection to 127.0.0.1 port 25"; empty: there is none
  int error = 0;     // what the caller is told
};

/// The calls that `ContactOf` judges.
[[nodiscard]] const std::vector<int>& NetworkCalls();

/// Judges a call that reaches other programs through a socket.  Sockets that
/// are files lie in the rehearsal; name services may be asked, the kernel too.
/// Everything else is a way out: other ports, sockets whose name is no file,
/// and ports that others could connect to.
[[nodiscard]] Contact ContactOf(const HeldCall& call);

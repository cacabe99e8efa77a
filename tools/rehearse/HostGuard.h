#pragma once

#include <map>
#include <string>
#include <utility>
#include <vector>

#include "tools/rehearse/Aftermath.h"
#include "tools/rehearse/ServerStart.h"
#include "tools/rehearse/SignalWatch.h"
#include "tools/rehearse/Watch.h"

/// Something that was not allowed.
struct Refusal {
  std::string what;     // "connection to 127.0.0.1 port 25"
  std::string process;  // who wanted it
  int count = 0;
};

/// Keeps a program and all its descendants from doing anything to the host that
/// a view of files of their own doesn't keep them from.
///
/// Signals to processes other than the descendants of this one are answered as
/// if they had been delivered, and the program is shown the host as it would be
/// after them; the server is not started, connections to others
/// and calls that change the host or other processes are refused; all that is
/// noted.  What depends on the caller's memory (addresses of sockets, names of
/// programs) can be changed between look and call by another thread of it:
/// this is no prison for hostile programs.
class HostGuard : public Watch {
 public:
  [[nodiscard]] const std::vector<Signalled>& Signals() const {
    return signals_;
  }
  [[nodiscard]] const std::vector<ServerStart>& Starts() const {
    return starts_;
  }
  [[nodiscard]] std::vector<Refusal> Refusals() const;

 protected:
  [[nodiscard]] std::vector<sock_filter> Filter() const override;
  [[nodiscard]] Answer AnswerTo(const HeldCall& call) override;
  void Answered(const HeldCall& call) override;

 private:
  Answer AnswerSignal(const HeldCall& call);
  Answer SignalOne(const HeldCall& call, const SignalRequest& request);
  Answer SignalMany(const SignalRequest& request);
  Answer AnswerOpen(const HeldCall& call);
  Answer AnswerStart(const HeldCall& call);
  Answer AnswerAboutProcess(const HeldCall& call);
  Answer Refuse(const HeldCall& call, const std::string& what, int error);
  void NoteSignal(const SignalRequest& request, const Process& target);

  std::vector<Signalled> signals_;
  std::vector<ServerStart> starts_;
  std::map<std::pair<std::string, std::string>, int> refusals_;
  StandIn stand_in_;
  Aftermath aftermath_;
  SDescriptor instead_;  // what is opened instead of a file
};

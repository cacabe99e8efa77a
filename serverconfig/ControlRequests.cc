// Requests to the server: one control file each, named after the request and
// this process, so that a repeated request replaces the first.

#include "serverconfig/ControlRequests.h"

#include "toolkit/Environment.h"
#include "toolkit/Spool.h"

namespace {

bool SendRequest(const char* module, const char* request) {
  SControl control(SString(request) + "." + ProcessIdString());
  control.Set("Function:", module);
  control.Set("Control-Type:", "Request");
  control.Set("Request-Type:", request);
  control.Set("Priority:", "1");
  return control.Write();
}

}  // namespace

bool ComputeSizes() {
  return SendRequest("Mailbox-Deliver", "ComputeSizes");
}

bool SendNewAccountForm() {
  return SendRequest("Account-Manager", "NewAccountForm");
}

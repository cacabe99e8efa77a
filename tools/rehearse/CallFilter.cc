// A rule is a comparison with the call's number, which skips the rule's body,
// and the body, which always returns.

#include "tools/rehearse/CallFilter.h"

#include <linux/audit.h>
#include <linux/filter.h>
#include <linux/seccomp.h>

#include <cerrno>
#include <cstddef>

namespace {

#if defined(__x86_64__)
constexpr std::uint32_t kArchitecture = AUDIT_ARCH_X86_64;
// Numbers from here on are of the ABI with short pointers.
constexpr std::uint32_t kForeignNumbers = 0x40000000;
#elif defined(__aarch64__)
constexpr std::uint32_t kArchitecture = AUDIT_ARCH_AARCH64;
constexpr std::uint32_t kForeignNumbers = 0x80000000;
#else
#error "the architecture's number for seccomp(2) is missing here"
#endif

sock_filter Step(unsigned code, std::uint32_t value, unsigned if_true = 0,
                 unsigned if_false = 0) {
  return {static_cast<unsigned short>(code),
          static_cast<unsigned char>(if_true),
          static_cast<unsigned char>(if_false), value};
}

sock_filter LoadStep(std::size_t offset) {
  return Step(BPF_LD | BPF_W | BPF_ABS, static_cast<std::uint32_t>(offset));
}

sock_filter ReturnStep(std::uint32_t action) {
  return Step(BPF_RET | BPF_K, action);
}

// Both architectures are little-endian: the lower half comes first.
std::size_t LowerHalf(unsigned argument) {
  return offsetof(seccomp_data, args) + std::size_t{argument} * 8;
}

constexpr std::uint32_t FailAction(int error) {
  return SECCOMP_RET_ERRNO | static_cast<std::uint32_t>(error);
}

}  // namespace

CallFilter::CallFilter(Foreign foreign) {
  const std::uint32_t action =
      foreign == Foreign::kGoOn ? SECCOMP_RET_ALLOW : FailAction(ENOSYS);
  filter_ = {LoadStep(offsetof(seccomp_data, arch)),
             Step(BPF_JMP | BPF_JEQ | BPF_K, kArchitecture, 1, 0),
             ReturnStep(action),
             LoadStep(offsetof(seccomp_data, nr)),
             Step(BPF_JMP | BPF_JGE | BPF_K, kForeignNumbers, 0, 1),
             ReturnStep(action)};
}

void CallFilter::AddRule(int number, const std::vector<sock_filter>& body) {
  filter_.push_back(Step(BPF_JMP | BPF_JEQ | BPF_K,
                         static_cast<std::uint32_t>(number), 0,
                         static_cast<unsigned>(body.size())));
  filter_.insert(filter_.end(), body.begin(), body.end());
}

void CallFilter::Announce(int number) {
  AddRule(number, {ReturnStep(SECCOMP_RET_USER_NOTIF)});
}

// A body that looks at an argument has lost the number: it returns either way,
// so there is one such rule for a call, or the next begins by loading it again.
void CallFilter::AnnounceIf(int number, unsigned argument,
                            std::uint32_t value) {
  AddRule(number, {LoadStep(LowerHalf(argument)),
                   Step(BPF_JMP | BPF_JEQ | BPF_K, value, 0, 1),
                   ReturnStep(SECCOMP_RET_USER_NOTIF),
                   LoadStep(offsetof(seccomp_data, nr))});
}

void CallFilter::AnnounceUnlessZero(int number, unsigned argument) {
  AddRule(number, {LoadStep(LowerHalf(argument)),
                   Step(BPF_JMP | BPF_JEQ | BPF_K, 0, 0, 2),
                   LoadStep(LowerHalf(argument) + 4),
                   Step(BPF_JMP | BPF_JEQ | BPF_K, 0, 1, 0),
                   ReturnStep(SECCOMP_RET_USER_NOTIF),
                   LoadStep(offsetof(seccomp_data, nr))});
}

void CallFilter::AnnounceIfAny(int number, unsigned argument,
                               std::uint32_t bits) {
  AddRule(number, {LoadStep(LowerHalf(argument)),
                   Step(BPF_JMP | BPF_JSET | BPF_K, bits, 0, 1),
                   ReturnStep(SECCOMP_RET_USER_NOTIF),
                   LoadStep(offsetof(seccomp_data, nr))});
}

void CallFilter::Fail(int number, int error) {
  AddRule(number, {ReturnStep(FailAction(error))});
}

std::vector<sock_filter> CallFilter::Finish() const {
  std::vector<sock_filter> filter = filter_;
  filter.push_back(ReturnStep(SECCOMP_RET_ALLOW));
  return filter;
}

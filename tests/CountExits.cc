// Linked into the programs of the coverage build only, by the linker's --wrap:
// a process that ends by `_exit`, or becomes another program, leaves its
// counters first, and a new process starts with none.
//
// Whoever a process is, it writes the counters that others wrote before: as root
// if it can, and into files that are open to everybody.
//
// In a signal handler this is a risk that only measurements may take: the
// counters are written with the help of malloc.

#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/types.h>
#include <unistd.h>

namespace {

// By the bare call, which no test lets fail.
__attribute__((destructor)) void OpenCounters() {
  umask(0);
  syscall(SYS_setresuid, -1, 0, -1);
}

}  // namespace

extern "C" {

#include <gcov.h>  // written for C

[[noreturn]] void RealExit(int status) __asm__("__real__exit");
int RealExecv(const char* path,
              char* const arguments[]) __asm__("__real_execv");
pid_t RealFork() __asm__("__real_fork");

[[noreturn]] void CountedExit(int status) __asm__("__wrap__exit");
int CountedExecv(const char* path,
                 char* const arguments[]) __asm__("__wrap_execv");
pid_t CountedFork() __asm__("__wrap_fork");

// Who waits for the end of a process may kill it just then, which would spoil
// the files; it does not know of this child.
void CountedExit(int status) {
  const pid_t writer = RealFork();
  if (writer <= 0) {
    OpenCounters();
    __gcov_dump();
  }
  if (writer == 0) {
    RealExit(0);
  }
  if (writer > 0) {
    syscall(SYS_wait4, writer, nullptr, 0, nullptr);
  }
  RealExit(status);
}

int CountedExecv(const char* path, char* const arguments[]) {
  __gcov_dump();
  const int result = RealExecv(path, arguments);
  __gcov_reset();
  return result;
}

pid_t CountedFork() {
  const pid_t process = RealFork();
  if (process == 0) {
    __gcov_reset();
  }
  return process;
}

}  // extern "C"

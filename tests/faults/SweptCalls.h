// The system calls that the sweep makes fail, one at a time, and with what.
#pragma once

#include <sys/syscall.h>

#include <cerrno>
#include <vector>

namespace mendline {

// Where there is no such system call of its own, the C library makes the one that takes a folder.
#ifdef SYS_rename
inline constexpr long kRename = SYS_rename;
#else
inline constexpr long kRename = SYS_renameat2;
#endif
#ifdef SYS_unlink
inline constexpr long kUnlink = SYS_unlink;
#else
inline constexpr long kUnlink = SYS_unlinkat;
#endif
#ifdef SYS_chown
inline constexpr long kChown = SYS_chown;
#else
inline constexpr long kChown = SYS_fchownat;
#endif
#ifdef SYS_chmod
inline constexpr long kChmod = SYS_chmod;
#else
inline constexpr long kChmod = SYS_fchmodat;
#endif

struct SweptCall {
  long number;
  const char* name;
  std::vector<int> errors;
};

inline const std::vector<SweptCall>& sweptCalls() {
  static const std::vector<SweptCall> calls = {
      {SYS_openat, "openat", {EMFILE, EACCES}},
      {SYS_read, "read", {EIO, EINTR}},
      {SYS_write, "write", {ENOSPC, EINTR}},
      {SYS_close, "close", {EIO}},
      {SYS_newfstatat, "newfstatat", {EACCES, ENOMEM}},
      {SYS_getdents64, "getdents64", {ENOENT, EIO}},
      {SYS_lseek, "lseek", {ESPIPE}},
      {kRename, "rename", {EACCES, EROFS}},
      {kUnlink, "unlink", {EROFS, EACCES}},
      {kChown, "chown", {EPERM, EROFS}},
      {kChmod, "chmod", {EPERM, EROFS}},
      {SYS_shmget, "shmget", {ENOSPC, EACCES}},
      {SYS_shmat, "shmat", {ENOMEM, EACCES}},
      {SYS_shmdt, "shmdt", {EINVAL}},
      {SYS_shmctl, "shmctl", {EPERM, EINVAL}},
      {SYS_sysinfo, "sysinfo", {EFAULT}},
      {SYS_clone3, "clone3", {EAGAIN}},
      {SYS_kill, "kill", {EPERM, ESRCH}},
      {SYS_clock_nanosleep, "clock_nanosleep", {EINTR, EINVAL}},
      {SYS_mmap, "mmap", {ENOMEM}},
      {SYS_mprotect, "mprotect", {ENOMEM}},
      {SYS_munmap, "munmap", {ENOMEM}},
      {SYS_madvise, "madvise", {ENOMEM}},
      {SYS_socket, "socket", {EMFILE, EAFNOSUPPORT}},
      {SYS_connect, "connect", {EACCES}},
  };
  return calls;
}

}  // namespace mendline

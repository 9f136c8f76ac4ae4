// What the supervisor of system calls and the program that puts itself under it agree on.
#pragma once

#include <linux/audit.h>
#include <linux/filter.h>
#include <linux/seccomp.h>

#include <cstddef>
#include <cstdint>
#include <vector>

namespace mendline::rig {

#if defined(__x86_64__)
inline constexpr std::uint32_t kArchitecture = AUDIT_ARCH_X86_64;
#elif defined(__aarch64__)
inline constexpr std::uint32_t kArchitecture = AUDIT_ARCH_AARCH64;
#else
#error "state the audit architecture of this processor"
#endif

// Where the launched program has the descriptor on which its calls are reported.
inline constexpr int kListenerDescriptor = 3;

// Exit codes of the launcher, as a shell has them.
inline constexpr int kCannotSupervise = 126;
inline constexpr int kCannotExecute = 127;

// Notifies a supervisor of these calls; of all, where there are none.
inline std::vector<sock_filter> notifyingFilter(const std::vector<long>& numbers) {
  std::vector<sock_filter> filter = {
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, arch)),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, kArchitecture, 1, 0),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
  };
  for (const long number : numbers) {
    filter.push_back(BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, static_cast<std::uint32_t>(number), 0, 1));
    filter.push_back(BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_USER_NOTIF));
  }
  filter.push_back(
      BPF_STMT(BPF_RET | BPF_K, numbers.empty() ? SECCOMP_RET_USER_NOTIF : SECCOMP_RET_ALLOW));
  return filter;
}

}  // namespace mendline::rig

// The fixed places of a private host that the launcher, the rig and its helpers agree on.
#pragma once

#include <sys/types.h>

namespace mendline::rig {

// Set by the launcher to the name of the mount namespace it made. A value inherited into any other
// namespace does not match, so nothing acts on a real host by mistake.
inline constexpr const char* kMarkerVariable = "MENDLINE_PRIVATE_HOST";

// Scratch space that vanishes with the private host.
inline constexpr const char* kScratchDirectory = "/run/private-host";
// A second mount of procfs: it shows the truth even where a test has replaced /proc.
inline constexpr const char* kTrueProc = "/run/private-host/proc";

inline constexpr const char* kWorkerAccount = "qrsflare";
inline constexpr uid_t kWorkerUid = 6104;

inline constexpr const char* kLogDirectory = "/var/log/norvane";
inline constexpr const char* kLogFile = "/var/log/norvane/tarnhost-mendline.log";
inline constexpr const char* kLogBackup = "/var/log/norvane/tarnhost-mendline_backup.log";
inline constexpr const char* kConfigDirectory = "/etc/norvane";
inline constexpr const char* kConfigFile = "/etc/norvane/config";
inline constexpr const char* kProductDirectory = "/usr/lib/norvane";
inline constexpr const char* kKeyDirectory = "/usr/lib/norvane/tarnhost/mendline";
inline constexpr const char* kKeyFile = "/usr/lib/norvane/tarnhost/mendline/mendLineShm";
inline constexpr const char* kXConfigDirectory = "/usr/lib/norvane/tarnhost/resources/X11";
inline constexpr const char* kXConfigFile = "/usr/lib/norvane/tarnhost/resources/X11/xorg.conf";

}  // namespace mendline::rig

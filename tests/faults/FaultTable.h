// Every call by which the library can fail: what it imports, and what it asks the kernel for.
//
// A row that can fail says with which errors, what the library makes of it, and which test shows
// that; one that cannot says why. FaultTableTest.cpp compares the table with the shipped file, with
// a life of the library, and with the tests.
#pragma once

#include <sys/syscall.h>

#include <vector>

#include "tests/faults/SweptCalls.h"

namespace mendline {

struct FaultRow {
  // As the linker or the kernel names it. A '*' at the end stands for any ending.
  const char* call;
  // The errors that make sense for how it is called; "" where it cannot fail.
  const char* errors;
  // Where it can fail: what for, and what follows for answer, log and host. Else: why it cannot.
  const char* text;
  // Suite.Test, one or more; "" where it cannot fail.
  const char* tests;
};

// What the shipped file imports. C++ names without their signature's namespace noise: as c++filt
// prints them, cut off where families begin.
inline const std::vector<FaultRow> kImports = {
    // --- Files of the host ---
    {"fopen", "EACCES EMFILE ENFILE ENOENT ENOMEM ENOTDIR",
     "/proc/stat, /proc/diskstats: Error [SystemQuery] 'Failed to open file'; the tick is made "
     "again at once, create_time is 0",
     "CollectionLoop.AnUnreadableHostIsReadAgainWithoutAWait "
     "CollectionLoop.ReadsAgainWithoutAWaitWhenTheDisksCannotBeRead "
     "GetProcessCreateTime.IsZeroWithoutAReadableBootTimeAndLogsIt"},
    {"fopen", "EACCES EMFILE ENFILE ENOENT ENOMEM ESRCH",
     "/proc/N/stat, /proc/N/io: Debug [ProcessQuery] 'Failed to open file'; that process is left "
     "out, EndProcess answers with an error",
     "ReadProcessStat.AnUnopenableFileIsADebugMatter ReadProcessIo.OnlyAnUnopenableFileIsAFailure "
     "DescriptorConditions.DownToOneMakeATickWithoutProcesses "
     "DescriptorConditions.UsedUpMakeRequestsFailThatReadTheHost"},
    {"fopen", "EACCES EISDIR EMFILE ENOENT ENOSPC ENOTDIR EROFS",
     "the log: 'Failed to open log file' on standard error, which takes its place",
     "InternalLoggerOpening.FallsBackToStandardErrorWithoutTheFolderAndDoesNotCreateIt "
     "InternalLoggerOpening.FallsBackToStandardErrorWhereTheLogIsAFolder "
     "InternalLoggerOpening.FallsBackToStandardErrorWhenTheLogRefuses "
     "LogConditions.ADiskWithoutRoomForAnotherFileMakesARotationEndOnStandardError "
     "LogConditions.AFolderThatBecomesReadOnlyTakesLinesUntilTheRotation"},
    {"fgets", "EIO EINTR EISDIR",
     "/proc/N/stat: Error [ProcessQuery] 'Failed to read file'; that process is left out",
     "ReadProcessStat.AnUnreadableFileIsAnError "
     "FolderConditions.InPlaceOfAProcessesStatLineLeavesTheProcessOut"},
    {"fgets", "EIO EINTR EISDIR",
     "the other files: taken for the end, so what is behind it is 0; no line",
     "ReadCpuTimes.OnlyAnUnopenableFileIsAFailure ReadDiskStats.OnlyAnUnopenableFileIsAFailure "
     "ReadProcessIo.OnlyAnUnopenableFileIsAFailure "
     "FolderConditions.InPlaceOfTheHostsFiguresReadAsEmptyFiles"},
    {"fclose", "EIO ENOSPC", "not looked at: what could be lost has been flushed, or was only read",
     "SweepSlow.LivesOnWhicheverCallFails"},
    {"fflush", "EDQUOT EFBIG EIO ENOSPC", "the log: the line is lost, and nothing is said",
     "LogConditions.AFullDiskCostsLinesAndNothingElse"},
    {"ftell", "ESPIPE EINVAL", "the log: counts as a small file, so there is no rotation",
     "RefusedCalls.ALogWhosePositionIsUnknownIsNotRotated"},
    {"fprintf", "EDQUOT EFBIG EIO ENOSPC", "the log: as fflush",
     "LogConditions.AFullDiskCostsLinesAndNothingElse"},
    {"fwrite", "EDQUOT EFBIG EIO ENOSPC", "the log, or standard error instead: as fflush",
     "LogConditions.AFullDiskCostsLinesAndNothingElse"},
    {"__fprintf_chk", "EDQUOT EFBIG EIO ENOSPC", "the log: as fflush",
     "LogConditions.AFullDiskCostsLinesAndNothingElse"},
    {"printf", "EBADF EIO ENOSPC", "standard output: the corrected range is not told there",
     "RefusedCalls.AFullStandardOutputCostsTheTwoLinesOnTheRange"},
    {"__printf_chk", "EBADF EIO ENOSPC", "standard output: the corrected range is not told there",
     "RefusedCalls.AFullStandardOutputCostsTheTwoLinesOnTheRange"},
    {"rename", "EACCES EISDIR ENOENT ENOSPC EROFS",
     "the log: 'Failed to rename/rotate log file' on standard error, the same file goes on and "
     "the next line tries again",
     "InternalLoggerRotation.GoesOnWithTheSameFileAfterAFailedRenameAndTriesAgainAtEveryLine "
     "InternalLoggerRotation.SaysBothWhenNeitherRenameNorOpeningSucceeds "
     "LogConditions.AFolderThatBecomesReadOnlyTakesLinesUntilTheRotation"},
    {"opendir", "EACCES EMFILE ENFILE ENOENT ENOMEM ENOTCONN",
     "/proc: Error [ProcessQuery] 'Failed to open procfs'; the tick is made again at once, reports "
     "answer with the last one's figures",
     "ListProcesses.AnUnopenableProcIsAFailure "
     "CollectionLoop.ReadsAgainWithoutAWaitWhenProcCannotBeOpened "
     "DescriptorConditions.UsedUpMakeTheTickRepeatItselfUntilThereAreSomeAgain "
     "DescriptorConditions.UsedUpLetTheCollectorBeStopped"},
    {"readdir", "EIO ENOENT ENOTCONN",
     "taken for the end: the processes behind it are missing from that tick; no line",
     "RefusedCalls.AListingThatBreaksOffIsAShortOne"},
    {"closedir", "EIO", "not looked at", "SweepSlow.LivesOnWhicheverCallFails"},
    {"stat", "EACCES ENOENT ENOMEM",
     "/proc/N: the process counts as root's; a real one has just gone",
     "RefusedCalls.AProcessWhoseFolderCannotBeAskedForItsOwnerIsRoots"},
    {"std::basic_ifstream<char, std::char_traits<char> >::open*", "EACCES EMFILE ENOENT",
     "the key file: taken for absent, so it is made",
     "StartCollector.EmptiesAKeyFileThatItMayOnlyWrite "
     "DescriptorConditions.UsedUpMakeAStartFailAndLeaveNothing"},
    {"std::basic_ifstream<char, std::char_traits<char> >::basic_ifstream*", "EACCES EMFILE ENOENT",
     "configuration: the range stays, no line; /proc/meminfo: the page cache is missing, no line; "
     "/proc/N/cmdline: no session, no line; X configuration: no GPU",
     "StartCollector.TakesAConfigFileThatCannotBeOpenedForNone "
     "ReadMemoryStats.SucceedsInSilenceWithoutAPageCacheFigure "
     "SessionDiscoveryOnAnInventedHost.PassesInSilenceOverCommandLinesThatCannotBeRead "
     "NvmlWrapperOnAHost.FailsWithoutAGpuInTheXConfiguration "
     "DescriptorConditions.UsedUpMakeAStartFailAndLeaveNothing"},
    {"std::basic_ofstream<char, std::char_traits<char> >::basic_ofstream*",
     "EACCES EMFILE ENOENT ENOSPC EROFS",
     "the key file: Error [MendLineOperation] 'Failed to chown mendline shm file'; no start, no "
     "segment",
     "StartCollector.FailsWhereTheKeyFilesFolderIsMissing "
     "KeyFileConditions.OnAReadOnlyDiskIsNotMade "
     "KeyFileConditions.IsNotMadeWhereTheDiskHasRoomForNoMoreFiles "
     "RightsConditions.OfAnAgentDoNotSufficeToMakeTheKeyFile"},
    {"std::basic_filebuf<char, std::char_traits<char> >::open*", "EACCES EMFILE ENOENT EROFS",
     "as the streams that own it", "KeyFileConditions.OnAReadOnlyDiskIsNotMade"},
    {"std::basic_filebuf<char, std::char_traits<char> >::close*", "EIO", "not looked at",
     "SweepSlow.LivesOnWhicheverCallFails"},
    {"std::basic_istream<char, std::char_traits<char> >& std::getline*", "EIO EISDIR",
     "configuration: Error [MendLineOperation] 'Failed to parse config file'; X configuration: "
     "no GPU; /proc/N/cmdline: no session",
     "FolderConditions.InPlaceOfTheConfigurationIsAFileThatCannotBeParsed "
     "FolderConditions.InPlaceOfTheXConfigurationNamesNoGpu "
     "SessionDiscoveryOnAnInventedHost.PassesInSilenceOverCommandLinesThatCannotBeRead"},
    {"std::basic_istream<char, std::char_traits<char> >& std::operator>>*", "EIO EISDIR",
     "/proc/meminfo: the page cache is missing; no line",
     "ReadMemoryStats.SucceedsInSilenceWithoutAPageCacheFigure "
     "FolderConditions.InPlaceOfTheHostsFiguresReadAsEmptyFiles"},
    {"std::istream::*", "EIO EISDIR", "numbers of /proc/meminfo: as its words",
     "FolderConditions.InPlaceOfTheHostsFiguresReadAsEmptyFiles"},
    {"std::istream& std::istream::*", "EIO EISDIR", "numbers of /proc/meminfo: as its words",
     "FolderConditions.InPlaceOfTheHostsFiguresReadAsEmptyFiles"},

    // --- Key file and segment ---
    {"chown", "EPERM ENOENT EROFS EINVAL",
     "Error [MendLineOperation] 'Failed to chown mendline shm file'; no start; the file stays as "
     "it was made",
     "StartCollector.FailsWhenTheKeyFileCannotBeGivenAway"},
    {"chmod", "EPERM ENOENT EROFS",
     "Error [MendLineOperation] 'Failed to chmod mendline shm file'; no start; the file stays, "
     "the worker's",
     "StartCollector.FailsWhenTheKeyFilesModeCannotBeSet"},
    {"ftok", "EACCES ENOENT", "Error [MendLineOperation] 'Ftok Failed.'; no start",
     "StartCollector.FailsWhenTheKeyFileGivesNoKey"},
    {"remove", "EACCES EBUSY ENOENT ENOTEMPTY EROFS",
     "not looked at: the key file stays, and the next start takes it as it is",
     "KeyFileConditions.OnADiskThatHasBecomeReadOnlyStays "
     "FolderConditions.InPlaceOfTheKeyFileServesAsOne "
     "RightsConditions.AHiddenProcShowsTheOwnProcessesOnly"},
    {"shmget", "EACCES EINVAL ENFILE ENOMEM ENOSPC",
     "Error [MendLineOperation] 'Shmget Failed.'; no start; the key file stays",
     "StartCollector.FailsOnALeftOverSegmentThatIsTooSmall "
     "SegmentConditions.MoreThanTheKernelAllowsAreNotMade "
     "SegmentConditions.LargerThanTheKernelAllowsAreNotMade "
     "SegmentConditions.BeyondTheMemoryThatTheKernelAllowsAreNotMade"},
    {"shmat", "EACCES EMFILE ENOMEM",
     "Error [MendLineOperation] 'Shmat Failed.'; no start; key file and segment stay for the next",
     "StartCollector.FailsWhenTheSegmentCannotBeAttached "
     "SegmentConditions.WithoutRoomInTheAddressSpaceStayBehindUnattached"},
    {"shmctl", "EACCES EPERM EINVAL",
     "IPC_STAT: passed over, the segment stays the caller's; IPC_SET: Error [MendLineOperation] "
     "'Shctl Failed.', no start, the segment stays attached; IPC_RMID: not looked at, the segment "
     "stays",
     "StartCollector.LeavesTheSegmentToTheCallerWhenItCannotBeDescribed "
     "StartCollector.FailsWhenTheSegmentCannotBeGivenAway "
     "StartCollector.FailsWhenNobodyCanOwnTheSegment "
     "StopCollector.PassesOverASegmentThatIsGoneAlready"},
    {"shmdt", "EINVAL", "not looked at: the segment lives as long as the process",
     "StopCollector.PassesOverADetachmentThatFails"},

    // --- The user database ---
    {"getpwnam", "EACCES EIO EMFILE ENFILE ENOENT ENOMEM",
     "of the worker: Error [MendLineOperation] 'getpwnam or getgrnam failed', no start, an empty "
     "key file of the caller's stays; of a history: Warn [SystemQuery] 'Failed to get user id', "
     "the request is answered with an error",
     "StartCollector.NeedsTheWorkersUserToMakeTheKeyFile GetUserId.SaysWhyTheDatabaseCannotBeRead "
     "AccountConditions.ThatCannotBeReadMakeAStartFailAndItsKeyFileStay "
     "DescriptorConditions.UsedUpMakeRequestsFailThatReadTheHost"},
    {"getgrnam", "EACCES EIO EMFILE ENFILE ENOENT ENOMEM", "of the worker: as getpwnam",
     "StartCollector.NeedsTheWorkersGroupToMakeTheKeyFile"},
    {"getpwuid", "EACCES EIO EMFILE ENFILE ENOENT ENOMEM",
     "Warn [SystemQuery] 'Failed to get user name'; user_name is empty, the worker is not known",
     "GetUserName.SaysWhyTheDatabaseCannotBeRead "
     "AccountConditions.ThatCannotBeReadLeaveNamesEmpty"},

    // --- Processes, clocks, the system ---
    {"kill", "EPERM ESRCH",
     "Error [ProcessTerminator] 'Failed to send TERM signal'; an error is answered, nothing is "
     "signalled; a process that has gone leaves the report",
     "ProcessTerminator.LeavesAProcessAloneThatItMayNotSignal "
     "ProcessTerminator.TakesTheRowOfAProcessThatIsGoneBeforeTheSignal "
     "EndProcessOperation.DoesNotTellTheCallerThatTheSignalWasRefused"},
    {"nanosleep", "EINTR EFAULT EINVAL",
     "behind a signal: an interruption sleeps the rest, any other failure ends the wait; the "
     "answer is the same",
     "ProcessTerminator.EndsTheWaitWhenTheKernelRefusesIt SweepSlow.LivesOnWhicheverCallFails"},
    {"sysinfo", "EFAULT EPERM ENOSYS",
     "Warn [SystemQuery] 'Failed to query sysinfo'; the tick is made again at once, a timestamp "
     "is 0",
     "CollectionLoop.ReadsAgainWithoutAWaitWhenTheMemoryCannotBeAskedFor "
     "ProcessMetricGenerator.WithoutAnUptimeTheTableStillGoesOutWithTimestampZero"},
    {"sysconf", "EINVAL",
     "page size: Error [SystemQuery] 'Failed to get page size', mem is 0; clock tick: create_time "
     "is 0, no line",
     "GetPageSize.AFailureLeavesItsOutputAndIsLogged "
     "GetProcessCreateTime.IsZeroInSilenceWithoutALengthOfTheTick "
     "ProcessMetricGenerator.WithoutAPageSizeMemIsZeroInEveryRow"},
    {"gettimeofday", "EFAULT EPERM", "a line goes out without its time",
     "InternalLoggerLine.GoesOutWithoutAClock"},
    {"localtime_r", "", "only a year beyond 32 bits has no local time", ""},
    {"getenv", "", "a variable that is not set is an answer", ""},
    {"std::chrono::_V2::s*", "", "the clocks of the kernel always answer", ""},

    // --- Threads ---
    {"std::thread::_M_start_thread*", "EAGAIN ENOMEM",
     "the collection thread: std::system_error leaves the library and ends the host process; key "
     "file and segment stay",
     "StartCollector.LeavesTheSegmentWhenTheThreadCannotBeMade "
     "RightsConditions.WithoutAThreadToSpareAStartEndsTheProcess "
     "RefusedCalls.AThreadWithoutRoomForItsStackIsLetOutAsAnException"},
    {"std::thread::join*", "", "joined once, under a lock, and never by itself", ""},
    {"std::thread::_State::~_State*", "", "releases memory", ""},
    {"pthread_mutex_lock", "", "plain mutexes of objects that live, never taken twice", ""},
    {"pthread_mutex_unlock", "", "by the owner", ""},
    {"pthread_cond_timedwait", "", "the time-out is an answer, and the deadline is a valid time",
     ""},
    {"pthread_self", "", "returns a value", ""},
    {"std::condition_variable::*", "", "notifies and takes nothing", ""},

    // --- The GPU library ---
    {"dlopen", "EMFILE ENOENT ENOEXEC ENOMEM",
     "Warn [NvmlWrapper] 'Failed to load library nvidia-ml' and Info [MendLineOperation] 'Failed "
     "to execute NvmlInit function'; an error is answered",
     "NvmlWrapperOnAHost.FailsWithAWarningOnAHostWithoutTheLibrary "
     "GpuConditions.ALibraryThatIsNoneIsLikeNoLibrary "
     "DescriptorConditions.UsedUpMakeRequestsFailThatReadTheHost"},
    {"dlsym", "ENOENT",
     "Error [NvmlWrapper] 'Failed to map nvml library functions'; an error is answered, the "
     "library is closed",
     "NvmlWrapperOnAHost.FailsWithALibraryThatLacksAFunction"},
    {"dlclose", "", "of a library that is open; the result is not looked at", ""},
    {"dlerror", "", "asked only after a failure, so it has a text", ""},

    // --- Memory and what the C++ library raises ---
    {"operator new*", "ENOMEM",
     "std::bad_alloc leaves the library on a request, and ends the process on the collection "
     "thread; key file and segment stay",
     "MemoryConditions.TooLittleForARequestEndsTheProcess "
     "MemoryConditions.TooLittleForATickEndsTheProcess "
     "HandleRequest.LetsTheNextReportBeMadeAfterOneThatRanOutOfMemory"},
    {"__cxa_allocate_exception", "ENOMEM",
     "takes from a reserve of its own when there is no memory, so that std::bad_alloc can be "
     "raised",
     "MemoryConditions.TooLittleForATickEndsTheProcess"},
    {"std::__throw_bad_alloc*", "ENOMEM", "as operator new",
     "MemoryConditions.TooLittleForARequestEndsTheProcess"},
    {"std::__throw_bad_array_new_length*", "ENOMEM", "as operator new",
     "MemoryConditions.TooLittleForARequestEndsTheProcess"},
    {"std::__throw_length_error*", "ENOMEM", "as operator new: no text of a request is that long",
     "MemoryConditions.TooLittleForARequestEndsTheProcess"},
    {"std::__throw_logic_error*", "EINVAL", "a null request: leaves the library",
     "MendLineNative.ANullRequestEndsTheProcess"},
    {"std::__throw_out_of_range*", "EINVAL",
     "a BusID line without what it needs: leaves the library; a display number too long: no "
     "display",
     "BusIdOfLine.RaisesWhereTheValueStartsBeyondTheEnd"},
    {"std::__throw_invalid_argument*", "EINVAL", "a display that is no number: no display",
     "ProtocolMetricGenerator.RefusesEveryTextWithoutARecord"},
    {"std::__throw_system_error*", "EAGAIN", "a thread that cannot be made; a lock never fails",
     "StartCollector.LeavesTheSegmentWhenTheThreadCannotBeMade"},
    {"std::__throw_bad_cast*", "", "the classic locale has every facet", ""},
    {"std::__glibcxx_assert_fail*", "", "a mistake in the program", ""},
    {"__assert_fail", "", "a mistake in the program", ""},
    {"std::terminate*", "", "ends the process", ""},
    {"__cxa_*", "", "the C++ runtime's own book-keeping", ""},
    {"__gxx_personality_v0", "", "the C++ runtime's own book-keeping", ""},
    {"_Unwind_Resume", "", "the C++ runtime's own book-keeping", ""},
    {"__stack_chk_fail", "", "a mistake in the program", ""},
    {"__gmon_start__", "", "absent outside profiling", ""},
    {"_ITM_*", "", "absent outside transactional memory", ""},
    {"__libc_single_threaded", "", "a variable", ""},
    {"__errno_location", "", "returns an address", ""},
    {"operator delete*", "", "releases memory", ""},

    // --- Text and memory that is there ---
    {"mem*", "", "works on memory that is there", ""},
    {"str*", "", "works on memory that is there", ""},
    {"__isoc99_sscanf", "", "scans memory; fewer columns than asked for are an answer", ""},
    {"setvbuf", "", "a buffer of the caller's, and a mode that there is", ""},
    {"__fsetlocking", "", "sets a flag", ""},
    {"snprintf", "", "formats numbers and text of the C locale into a buffer", ""},
    {"vsnprintf", "", "formats numbers and text of the C locale into a buffer", ""},
    {"__snprintf_chk", "", "formats numbers and text of the C locale into a buffer", ""},
    {"__vsnprintf_chk", "", "formats numbers and text of the C locale into a buffer", ""},
    {"std::to_chars*", "", "the buffer holds every number", ""},
    {"std::_Hash_bytes*", "", "works on memory that is there", ""},
    {"std::__detail::_Prime_rehash_policy::*", "", "arithmetic", ""},
    {"std::allocator<char>::*", "", "has no state", ""},
    {"std::ctype<char>*", "", "the classic locale", ""},
    {"std::locale::*", "", "counts owners of the classic locale", ""},
    {"std::ctype<char> const& std::use_facet*", "", "the classic locale has it", ""},
    {"std::runtime_error::*", "", "copies share their text", ""},
    {"std::exception::*", "", "has no state", ""},
    {"typeinfo for *", "", "a constant", ""},
    {"vtable for *", "", "a constant", ""},
    {"VTT for *", "", "a constant", ""},
    {"stderr", "", "a variable", ""},
    {"std::basic_ifstream<*", "", "ends; what it held was only read", ""},
    {"std::basic_ofstream<*", "", "ends; nothing was written", ""},
    {"std::basic_filebuf<*", "", "is made and ends", ""},
    {"std::__basic_file<*", "", "is made and ends", ""},
    {"std::basic_istream<*", "", "reads what a stream over memory, or its file's buffer, holds",
     ""},
    {"std::basic_ostream<*", "", "writes into memory", ""},
    {"std::ostream::*", "", "writes into memory", ""},
    {"std::ostream& std::ostream::*", "", "writes into memory", ""},
    {"std::basic_iostream<*", "", "is made and ends", ""},
    {"std::basic_streambuf<*", "", "reads what is in memory", ""},
    {"std::basic_ios<*", "", "the state of a stream", ""},
    {"std::ios_base::*", "", "the state of a stream", ""},
    {"std::__cxx11::basic_stringbuf<*", "", "memory; see operator new", ""},
    {"std::__cxx11::basic_stringstream<*", "", "memory; see operator new", ""},
    {"std::__cxx11::basic_istringstream<*", "", "memory; see operator new", ""},
    {"std::__cxx11::basic_ostringstream<*", "", "memory; see operator new", ""},
};

struct SystemCallRow {
  long number;
  FaultRow row;
};

// What a life of the library asks the kernel for. Those that can fail are swept: each call of a
// life fails once, with errors of this row.
inline const std::vector<SystemCallRow> kSystemCalls = {
    {SYS_openat, {"openat", "EACCES EMFILE", "files: see fopen and the streams", "SweepSlow.*"}},
    {SYS_read, {"read", "EIO EINTR", "files: see fgets and the streams", "SweepSlow.*"}},
    {SYS_write, {"write", "ENOSPC EINTR", "the log: see fflush", "SweepSlow.*"}},
    {SYS_close, {"close", "EIO", "nobody looks at it", "SweepSlow.*"}},
    {SYS_newfstatat,
     {"newfstatat", "EACCES ENOMEM", "streams: a buffer of another size; see stat and ftok",
      "SweepSlow.*"}},
    {SYS_getdents64, {"getdents64", "ENOENT EIO", "/proc: see readdir", "SweepSlow.*"}},
    {SYS_lseek, {"lseek", "ESPIPE", "the log: see ftell; read files: nobody looks", "SweepSlow.*"}},
    {kRename, {"rename", "EACCES EROFS", "the log", "SweepSlow.*"}},
    {kUnlink, {"unlink", "EACCES EROFS", "the key file: see remove", "SweepSlow.*"}},
    {kChown, {"chown", "EPERM EROFS", "the key file", "SweepSlow.*"}},
    {kChmod, {"chmod", "EPERM EROFS", "the key file", "SweepSlow.*"}},
    {SYS_shmget, {"shmget", "ENOSPC EACCES", "the segment", "SweepSlow.*"}},
    {SYS_shmat, {"shmat", "ENOMEM EACCES", "the segment", "SweepSlow.*"}},
    {SYS_shmdt, {"shmdt", "EINVAL", "the segment", "SweepSlow.*"}},
    {SYS_shmctl, {"shmctl", "EPERM EINVAL", "the segment", "SweepSlow.*"}},
    {SYS_sysinfo, {"sysinfo", "EFAULT", "memory and uptime", "SweepSlow.*"}},
    {SYS_clone3, {"clone3", "EAGAIN", "the thread: ends the process", "SweepSlow.*"}},
    {SYS_kill, {"kill", "EPERM ESRCH", "EndProcess", "SweepSlow.*"}},
    {SYS_clock_nanosleep,
     {"clock_nanosleep", "EINTR EINVAL", "EndProcess: see nanosleep", "SweepSlow.*"}},
    {SYS_mmap,
     {"mmap", "ENOMEM",
      "memory, found elsewhere; a thread's stack: ends the process; the GPU library: none",
      "SweepSlow.* RefusedCalls.AThreadWithoutRoomForItsStackIsLetOutAsAnException"}},
    {SYS_mprotect, {"mprotect", "ENOMEM", "as mmap", "SweepSlow.*"}},
    {SYS_munmap, {"munmap", "ENOMEM", "nobody looks at it", "SweepSlow.*"}},
    {SYS_madvise, {"madvise", "ENOMEM", "nobody looks at it", "SweepSlow.*"}},
    {SYS_socket,
     {"socket", "EMFILE EAFNOSUPPORT", "the cache of the user database: done without",
      "SweepSlow.*"}},
    {SYS_connect,
     {"connect", "EACCES", "the cache of the user database: done without", "SweepSlow.*"}},
    {SYS_brk,
     {"brk", "ENOMEM", "memory: see operator new; the kernel tells it by the old end, not by errno",
      "MemoryConditions.TooLittleForATickEndsTheProcess"}},

    {SYS_futex,
     {"futex", "",
      "locks, waits and joins on memory that is there; the C library ends the process on any error "
      "that is none of its own protocol",
      ""}},
    {SYS_rt_sigprocmask, {"rt_sigprocmask", "", "around the making of a thread; constants", ""}},
    {SYS_rt_sigaction,
     {"rt_sigaction", "", "once, at the first thread, for a signal of the C library's own", ""}},
    {SYS_rseq, {"rseq", "", "a new thread announces itself; the C library does without", ""}},
    {SYS_set_robust_list, {"set_robust_list", "", "a new thread announces itself", ""}},
    {SYS_exit, {"exit", "", "a thread ends", ""}},
    {SYS_exit_group, {"exit_group", "", "the process ends", ""}},
};

}  // namespace mendline

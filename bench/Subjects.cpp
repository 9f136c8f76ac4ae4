#include "Subjects.h"

#include <time.h>

#include <sstream>

#include "Error.h"

namespace mendline::bench {
namespace {

// Of a virtual machine that has not answered, or of ten thousand processes under an interpreter.
constexpr std::chrono::minutes kPatience{3};

std::string built(const char* program) {
  return std::string(SUBJECTS_FOLDER) + '/' + program;
}

}  // namespace

std::vector<SubjectProgram> allSubjectPrograms() {
  std::vector<SubjectProgram> programs = {
      {"floor", {built("floor")}},
      {"ours", {built("ours")}},
      {"ours-memory", {built("ours-memory")}},
      {"ours-locks", {built("ours-locks")}},
      {"libproc2", {built("libproc2")}},
      {"libstatgrab", {built("libstatgrab")}},
      {"libgtop2", {built("libgtop2")}},
      {"psutil", {"/usr/bin/python3", std::string(SUBJECT_SOURCES) + "/psutil-subject"}},
      // Killed, it would leave the file of its performance counters behind.
      {"java", {JAVA_PROGRAM, "-XX:-UsePerfData", "-cp", built("proc-reader.jar"), "ProcReader"}},
      // Each with all of the figures that it has of those that a tick keeps.
      {"ps", {built("command"), "1", "ps", "-eo", "pid=,user:32=,comm=,cputimes=,rss=,lstart="}},
      {"top", {built("command"), "1", "top", "-b", "-n1", "-w512"}},
      {"pidstat", {built("command"), "3", "pidstat", "-hHUurd", "-p", "ALL"}},
  };
#ifdef SUBJECTS_HAVE_AGAINST
  for (const char* const name : {"against", "against-memory", "against-locks"}) {
    programs.push_back({name, {built(name)}});
  }
#endif
  return programs;
}

SubjectProgram subjectProgram(const std::string& name) {
  for (const SubjectProgram& program : allSubjectPrograms()) {
    if (program.name == name) {
      return program;
    }
  }
  throw rig::Error("there is no program '" + name + "' to be compared");
}

Subject::Subject(const SubjectProgram& program)
    : name_(program.name), program_(rig::Program(program.commandLine).start()) {}

double Subject::processorNanoseconds() const {
  constexpr double kPerSecond = 1e9;
  clockid_t clock = 0;
  timespec now{};
  if (clock_getcpuclockid(program_.pid(), &clock) != 0 || clock_gettime(clock, &now) != 0) {
    rig::throwErrno("cannot read the processor time of " + name_);
  }
  return static_cast<double>(now.tv_sec) * kPerSecond + static_cast<double>(now.tv_nsec);
}

Measurement Subject::order(const std::string& what, int repeats) {
  const double before = processorNanoseconds();
  program_.send(what + ' ' + std::to_string(repeats));
  const std::string line = program_.receive(kPatience);
  const double spent = processorNanoseconds() - before;

  std::istringstream answer(line);
  std::string value;
  Measurement measurement;
  answer >> value >> measurement.processes >> measurement.hash;
  if (!answer) {
    throw rig::Error(name_ + " answered '" + line + "'");
  }
  measurement.value = value == "-" ? spent : std::stod(value);
  return measurement;
}

}  // namespace mendline::bench

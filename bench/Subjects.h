// The programs that are compared, and one of them under way.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

#include "Program.h"

namespace mendline::bench {

// How to start a program that takes the orders of subjects/Subject.h.
struct SubjectProgram {
  std::string name;
  std::vector<std::string> commandLine;
};

// Those that are there: the state that ours is compared against may be none.
std::vector<SubjectProgram> allSubjectPrograms();

// Throws rig::Error when there is no such program.
SubjectProgram subjectProgram(const std::string& name);

struct Measurement {
  double value = 0.0;  // nanoseconds of processor time over all repeats, or what the order says
  std::uint64_t processes = 0;
  std::uint64_t hash = 0;
};

// A program that waits for orders, until this goes.
class Subject {
 public:
  explicit Subject(const SubjectProgram& program);

  // Throws rig::Error when no answer comes.
  Measurement order(const std::string& what, int repeats);

 private:
  double processorNanoseconds() const;

  std::string name_;
  rig::RunningProgram program_;
};

}  // namespace mendline::bench

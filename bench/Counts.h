// What does not depend on how busy the machine is: instructions and system calls.
#pragma once

#include <string>

#include "Subjects.h"

namespace mendline::bench {

// Per process and repeat, start-up and preparation excluded: what many repeats take more than few,
// divided by the processes and the repeats that they are more.
struct Counts {
  double instructions = 0.0;  // in user mode, by valgrind's virtual processor
  double systemCalls = 0.0;   // of all threads
};

Counts countPerProcess(const SubjectProgram& program, const std::string& what);

}  // namespace mendline::bench

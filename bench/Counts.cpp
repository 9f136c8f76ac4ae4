#include "Counts.h"

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <fstream>
#include <iterator>
#include <sstream>

#include "Error.h"

namespace mendline::bench {
namespace {

constexpr int kFew = 3;
constexpr int kMany = 6;
constexpr std::chrono::minutes kPatience{5};

// What `counter` leaves of one run of the program with a single order.
rig::Run runWith(std::vector<std::string> counter, const SubjectProgram& program,
                 const std::string& what, int repeats) {
  counter.insert(counter.end(), program.commandLine.begin(), program.commandLine.end());
  rig::Run run = rig::Program(counter)
                     .withInput(what + ' ' + std::to_string(repeats) + '\n')
                     .withTimeout(kPatience)
                     .run();
  if (run.exitStatus != 0) {
    throw rig::Error(counter.front() + " could not count " + program.name + ": " + run.errors);
  }
  return run;
}

double processesIn(const rig::Run& run) {
  std::istringstream answer(run.output);
  std::string value;
  double processes = 0.0;
  answer >> value >> processes;
  if (!answer || processes < 1.0) {
    throw rig::Error("no answer of a program that was counted: '" + run.output + "'");
  }
  return processes;
}

// The number behind `label`, whose digits are in groups.
double numberBehind(const std::string& text, const std::string& label) {
  const std::size_t begin = text.find(label);
  if (begin == std::string::npos) {
    throw rig::Error("no '" + label + "' in: " + text);
  }
  std::string line = text.substr(begin + label.size());
  line.erase(std::min(line.find('\n'), line.size()));
  line.erase(std::remove(line.begin(), line.end(), ','), line.end());
  return std::stod(line);
}

double perProcess(double few, double many, double processes) {
  return (many - few) / (kMany - kFew) / processes;
}

double countInstructions(const SubjectProgram& program, const std::string& what) {
  // Without its model of the caches, of which only the output file would tell.
  const std::vector<std::string> counter = {"valgrind", "--tool=cachegrind", "--cache-sim=no",
                                            "--cachegrind-out-file=/dev/null",
                                            "--trace-children=no"};
  const rig::Run few = runWith(counter, program, what, kFew);
  const rig::Run many = runWith(counter, program, what, kMany);
  const char* const label = "I   refs:";
  return perProcess(numberBehind(few.errors, label), numberBehind(many.errors, label),
                    processesIn(many));
}

// The calls of one run, and the processes that it saw.
struct Calls {
  double number = 0.0;
  double processes = 0.0;
};

Calls runForCalls(const SubjectProgram& program, const std::string& what, int repeats) {
  const std::string file = "/run/bench-calls";
  const rig::Run run =
      runWith({"strace", "-f", "-c", "-U", "calls,name", "-o", file}, program, what, repeats);
  std::ifstream summary(file);
  double number = 0.0;
  std::string line;
  while (std::getline(summary, line)) {
    if (line.ends_with(" total")) {
      number = std::stod(line);
    }
  }
  if (number < 1.0) {
    throw rig::Error("strace has counted no calls");
  }
  return {.number = number, .processes = processesIn(run)};
}

double countSystemCalls(const SubjectProgram& program, const std::string& what) {
  const Calls few = runForCalls(program, what, kFew);
  const Calls many = runForCalls(program, what, kMany);
  return perProcess(few.number, many.number, many.processes);
}

}  // namespace

Counts countPerProcess(const SubjectProgram& program, const std::string& what) {
  return {.instructions = countInstructions(program, what),
          .systemCalls = countSystemCalls(program, what)};
}

}  // namespace mendline::bench

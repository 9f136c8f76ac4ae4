// request-driver LIBRARY: loads the library, then takes one request per line of standard input and
// prints one line per answer.
//
// A newline, tab, carriage return or backslash inside a request or an answer is written \n, \t, \r,
// \\; an answer that is null is printed as !null. Lines that start with ! are orders:
//   !sleep SECONDS    waits, in real time
//   !exit [STATUS]    calls exit
//   !leave            leaves at once: no destructor runs
//   !threads          prints the number of threads
//   !files            prints the number of open files
//   !null             requests with a null string and prints the answer
//   !jump SECONDS     steps the system clock; see TickClock.h
// The end of input returns from main, with the library still loaded. Exit status 2: wrong call, or
// the library or an order could not be used; the reason is on standard error.
#include <time.h>
#include <unistd.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <iostream>
#include <string>

#include "Error.h"
#include "FakeJvm.h"
#include "Inventory.h"
#include "TickClock.h"

namespace {

using namespace mendline::rig;

std::string unescape(const std::string& line) {
  std::string text;
  for (std::size_t i = 0; i < line.size(); ++i) {
    if (line[i] != '\\' || i + 1 == line.size()) {
      text += line[i];
      continue;
    }
    const char code = line[++i];
    text += code == 'n' ? '\n' : code == 't' ? '\t' : code == 'r' ? '\r' : code;
  }
  return text;
}

std::string escape(const std::string& text) {
  std::string line;
  for (const char c : text) {
    switch (c) {
      case '\n':
        line += "\\n";
        break;
      case '\t':
        line += "\\t";
        break;
      case '\r':
        line += "\\r";
        break;
      case '\\':
        line += "\\\\";
        break;
      default:
        line += c;
    }
  }
  return line;
}

void sleepFor(double seconds) {
  const double whole = std::floor(seconds);
  timespec rest = {static_cast<time_t>(whole), static_cast<long>((seconds - whole) * 1e9)};
  while (nanosleep(&rest, &rest) != 0) {
  }
}

void print(const Call& call) {
  if (!call.balanced()) {
    std::cerr << "request-driver: characters were not released exactly once\n";
  }
  std::cout << (call.answer.has_value() ? escape(*call.answer) : "!null") << std::endl;
}

void obey(const std::string& line, const NativeLibrary& library) {
  const std::size_t space = line.find(' ');
  const std::string order = line.substr(1, space == std::string::npos ? space : space - 1);
  const std::string value = space == std::string::npos ? "0" : line.substr(space + 1);
  if (order == "sleep") {
    sleepFor(std::strtod(value.c_str(), nullptr));
  } else if (order == "exit") {
    std::exit(std::atoi(value.c_str()));
  } else if (order == "leave") {
    _exit(0);
  } else if (order == "threads") {
    std::cout << threadCount() << std::endl;
  } else if (order == "files") {
    std::cout << openFileCount() << std::endl;
  } else if (order == "null") {
    JvmRefusals refusals;
    refusals.nullRequest = true;
    print(library.request("", refusals));
  } else if (order == "jump") {
    jumpSystemClock(std::atol(value.c_str()));
  } else {
    throw Error("unknown order: " + line);
  }
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::cerr << "usage: request-driver LIBRARY < REQUESTS\n";
    return 2;
  }
  try {
    const NativeLibrary library(argv[1]);
    for (std::string line; std::getline(std::cin, line);) {
      if (!line.empty() && line[0] == '!') {
        obey(line, library);
      } else {
        print(library.request(unescape(line)));
      }
    }
  } catch (const std::exception& thrown) {
    std::cerr << "request-driver: " << thrown.what() << '\n';
    return 2;
  }
}

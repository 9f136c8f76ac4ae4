#include "Subject.h"

#include <iostream>
#include <sstream>

namespace mendline::bench {

int serve(const std::map<std::string, Work>& works) {
  constexpr int kWrongCall = 64;
  std::string line;
  while (std::getline(std::cin, line)) {
    std::istringstream order(line);
    std::string what;
    int repeats = 0;
    order >> what >> repeats;
    const auto work = works.find(what);
    if (work == works.end() || repeats < 1) {
      std::cerr << "no such order: " << line << '\n';
      return kWrongCall;
    }
    const Answer answer = work->second(repeats);
    std::cout << answer.value << ' ' << answer.seen.processes << ' ' << answer.seen.hash
              << std::endl;
  }
  return 0;
}

}  // namespace mendline::bench

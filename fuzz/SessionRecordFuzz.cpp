// The 80 bytes of a session, and behind them in the input the display that is asked for.
#include <algorithm>
#include <array>
#include <boost/property_tree/ptree.hpp>
#include <cstring>
#include <unordered_map>
#include <vector>

#include "collector/SessionCounters.h"
#include "fuzz/Fuzz.h"
#include "generators/ProtocolMetricGenerator.h"
#include "logging/InternalLogger.h"
#include "sources/ProtocolQuery.h"
#include "tests/rules/Scanner.h"
#include "tests/rules/WholePart.h"

using namespace mendline;
using namespace mendline::fuzz;
using boost::property_tree::ptree;

namespace {

// Sixty records and the one beyond.
std::array<unsigned char, std::size_t{61} * 80> table;

std::optional<std::size_t> recordOf(const std::string& display) {
  const auto number = rules::Scanner(display).number();
  if (!number || !number->isWithin(100, 160) || number->negative || number->amount < 100) {
    return std::nullopt;
  }
  return number->amount - 100;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static_cast<void>(host());
  std::array<unsigned char, 80> bytes = {};
  std::copy(data, data + std::min<std::size_t>(size, 80), bytes.begin());
  const std::string display = size > 80 ? textOf(data + 80, size - 80) : "103";
  SetLogThreshold(size % 4 == 0 ? LogLevel::Trace : LogLevel::Info);
  sessionShmBase = table.data();
  table.fill(0xa5);
  const std::optional<std::size_t> record = recordOf(display);
  if (record) {
    std::memcpy(&table[*record * 80], bytes.data(), 80);
  }

  ptree answer;
  ProtocolMetricGenerator::getInstance()->report(display, answer);
  std::unordered_map<std::string, double> roundTripTimes;
  readProtocolMetrics({display}, roundTripTimes);
  require(answer.size() == (record ? 1U : 0U), "a display of the table has a report");
  require(roundTripTimes.size() == (record ? 1U : 0U), "and a round trip time");
  if (!record) {
    return 0;
  }
  std::array<std::uint64_t, 10> words = {};
  std::memcpy(words.data(), bytes.data(), 80);
  require(std::memcmp(&roundTripTimes.at(display), &words[1], 8) == 0,
          "the round trip time is the record's word");

  std::vector<std::pair<std::string, std::uint64_t>> wanted = {
      {"audio_recv_bytes", words[6]},
      {"audio_transmit_bytes", words[7]},
      {"cdr_recv_bytes", words[8]},
      {"cdr_transmit_bytes", words[9]},
      {"image_frames_per_second", rules::wholePart(words[0])},
      {"image_recv_bytes", words[4]},
      {"image_transmit_bytes", words[5]},
      {"session_rtt", rules::wholePart(words[1])},
      {"session_bandwidth_uplink", rules::wholePart(words[3])}};
  const std::uint64_t loss = rules::wholePart(words[2]);
  // The mark for no figure is a truncated -1; the greatest positive doubles come nowhere near it.
  if (loss != ~std::uint64_t{0}) {
    wanted.emplace_back("session_packet_loss_uplink", loss);
  }
  require(answer.front().first == "flare", "the report is an element flare");
  const ptree& report = answer.front().second;
  require(report.size() == wanted.size(), "every element is there, and no other");
  std::size_t at = 0;
  for (const auto& [name, element] : report) {
    require(name == wanted[at].first && element.empty(), "the elements stand in their order");
    require(element.data() == std::to_string(wanted[at].second), "every element is its word");
    ++at;
  }
  return 0;
}

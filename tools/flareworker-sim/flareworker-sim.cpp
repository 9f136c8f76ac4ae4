// flareworker-sim: stands in for the remote display worker on a machine that has none.
//
// It fills the session table that the library creates, as any worker has to: by the table's key, by
// the index of a display, and by the 80-byte record. It reads that contract on its own and shares
// no code with the library, so it also shows whether the contract, as docs/operating.md tells it,
// is enough to write a worker from.
#include <grp.h>
#include <pwd.h>
#include <sys/ipc.h>
#include <sys/prctl.h>
#include <sys/shm.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <charconv>
#include <cmath>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <istream>
#include <map>
#include <optional>
#include <set>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace {

constexpr char kProcessName[] = "FlareWorker";
constexpr char kAccount[] = "qrsflare";
constexpr char kKeyFile[] = "/usr/lib/norvane/tarnhost/mendline/mendLineShm";
constexpr int kKeyProject = 'h';
constexpr char kConfigFile[] = "/etc/norvane/config";

constexpr int kFailed = 1;
constexpr int kWrongCall = 64;

constexpr char kUsage[] =
    "usage: flareworker-sim [--interval MILLISECONDS] [--once] DISPLAY...\n"
    "       flareworker-sim [--interval MILLISECONDS] [--once] --record DISPLAY=VALUES...\n"
    "\n"
    "Writes session counters into the session table of libmendline.so, as the remote display\n"
    "worker does, until SIGTERM or SIGINT. Waits for the table if there is none, and takes up the\n"
    "next one when it is removed. Run it as root, and it becomes the account qrsflare; or run it\n"
    "as that account. Its process name is FlareWorker.\n"
    "\n"
    "  DISPLAY          X display number, such as 103: plausible moving counters\n"
    "  --record DISPLAY=VALUES\n"
    "                   exactly this record: ten values with commas between them, in the order\n"
    "                   frameRate rtt pkLoss bw (any double, \"nan\" and \"inf\" too)\n"
    "                   imagingReceived imagingTransmitted audioReceived audioTransmitted\n"
    "                   cdrReceived cdrTransmitted (whole numbers of 64 bits)\n"
    "  --interval N     milliseconds between two writes (default 100)\n"
    "  --once           write once, then end\n"
    "  --help           this\n";

// The fields of a record in their order: four doubles, then six counters of bytes.
constexpr std::size_t kDoubles = 4;
constexpr std::size_t kCounters = 6;
struct Record {
  double figures[kDoubles] = {};
  std::uint64_t bytes[kCounters] = {};
};
static_assert(sizeof(Record) == 80, "a record is 80 bytes, without gaps");

struct Failure : std::runtime_error {
  using std::runtime_error::runtime_error;
};

struct WrongCall : std::runtime_error {
  using std::runtime_error::runtime_error;
};

[[noreturn]] void fail(const std::string& what) {
  throw Failure(what + ": " + std::strerror(errno));
}

template <typename Number>
std::optional<Number> wholeNumber(std::string_view text) {
  Number number = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (error != std::errc() || end != text.data() + text.size()) {
    return std::nullopt;
  }
  return number;
}

// --- The call.

struct Session {
  int display = 0;
  std::optional<Record> fixed;  // absent: moving counters
};

struct Options {
  long intervalMs = 100;
  bool once = false;
  std::vector<Session> sessions;
};

int parseDisplay(std::string_view text) {
  const std::optional<int> display = wholeNumber<int>(text);
  if (!display || *display < 0) {
    throw WrongCall("'" + std::string(text) + "' is no display number");
  }
  return *display;
}

double parseDouble(const std::string& text) {
  char* end = nullptr;
  const double value = std::strtod(text.c_str(), &end);
  if (text.empty() || *end != '\0') {
    throw WrongCall("'" + text + "' is no number");
  }
  return value;
}

Session parseRecord(const std::string& text) {
  const std::size_t equals = text.find('=');
  if (equals == std::string::npos) {
    throw WrongCall("--record takes DISPLAY=VALUES, not '" + text + "'");
  }
  std::vector<std::string> values = {""};
  for (const char character : text.substr(equals + 1)) {
    if (character == ',') {
      values.emplace_back();
    } else {
      values.back() += character;
    }
  }
  if (values.size() != kDoubles + kCounters) {
    throw WrongCall("a record has ten values, not " + std::to_string(values.size()));
  }
  Record record;
  for (std::size_t i = 0; i < kDoubles; ++i) {
    record.figures[i] = parseDouble(values[i]);
  }
  for (std::size_t i = 0; i < kCounters; ++i) {
    const auto bytes = wholeNumber<std::uint64_t>(values[kDoubles + i]);
    if (!bytes) {
      throw WrongCall("'" + values[kDoubles + i] + "' is no count of bytes");
    }
    record.bytes[i] = *bytes;
  }
  return {parseDisplay(std::string_view(text).substr(0, equals)), record};
}

Options parse(int argc, char** argv) {
  Options options;
  for (int i = 1; i < argc; ++i) {
    const std::string word = argv[i];
    const auto value = [&]() -> std::string {
      if (i + 1 >= argc) {
        throw WrongCall(word + " needs a value");
      }
      return argv[++i];
    };
    if (word == "--help") {
      static_cast<void>(std::fputs(kUsage, stdout));
      std::exit(0);
    } else if (word == "--once") {
      options.once = true;
    } else if (word == "--interval") {
      const auto interval = wholeNumber<long>(value());
      if (!interval || *interval < 1) {
        throw WrongCall("--interval takes a number of milliseconds from 1 on");
      }
      options.intervalMs = *interval;
    } else if (word == "--record") {
      options.sessions.push_back(parseRecord(value()));
    } else if (!word.empty() && word[0] == '-') {
      throw WrongCall("unknown option '" + word + "'");
    } else {
      options.sessions.push_back({parseDisplay(word), std::nullopt});
    }
  }
  if (options.sessions.empty()) {
    throw WrongCall("no display given");
  }
  return options;
}

// --- The account.

void becomeWorker() {
  const passwd* account = getpwnam(kAccount);
  if (account == nullptr) {
    throw Failure(std::string("there is no account ") + kAccount + " on this host");
  }
  if (geteuid() == 0) {
    if (setgroups(0, nullptr) != 0 ||
        setresgid(account->pw_gid, account->pw_gid, account->pw_gid) != 0 ||
        setresuid(account->pw_uid, account->pw_uid, account->pw_uid) != 0) {
      fail(std::string("cannot become ") + kAccount);
    }
    // Else the /proc files of a process that has changed its account stay root's, and the library
    // takes this one for root's.
    static_cast<void>(prctl(PR_SET_DUMPABLE, 1));
  } else if (geteuid() != account->pw_uid) {
    throw Failure(std::string("run this as root or as ") + kAccount);
  }
  static_cast<void>(prctl(PR_SET_NAME, kProcessName));
}

// --- The table.

std::string trimmed(const std::string& text) {
  constexpr char kBlanks[] = " \t\r\n\f\v";
  const std::size_t first = text.find_first_not_of(kBlanks);
  if (first == std::string::npos) {
    return "";
  }
  return text.substr(first, text.find_last_not_of(kBlanks) - first + 1);
}

// A whole number as the library reads one: a sign may stand in front, "+" too.
std::optional<int> configuredNumber(std::string_view text) {
  if (text.size() > 1 && text[0] == '+' && text[1] != '-') {
    text.remove_prefix(1);
  }
  return wholeNumber<int>(text);
}

// The keys of the agent's configuration in front of every section; nothing where the library would
// reject the file: a line that is none, a key or a section that stands twice.
std::optional<std::map<std::string, std::string>> readConfiguration(std::istream& file) {
  std::map<std::string, std::string> keys;
  std::set<std::string> seen;
  std::string section;
  for (std::string line; std::getline(file, line);) {
    line = trimmed(line);
    if (line.empty() || line[0] == ';' || line[0] == '#') {
      continue;
    }
    if (line[0] == '[') {
      const std::size_t end = line.find(']');
      if (end == std::string::npos) {
        return std::nullopt;
      }
      section = trimmed(line.substr(1, end - 1));
      // A section is a key beside the others.
      if (!seen.insert("\n" + section).second) {
        return std::nullopt;
      }
      section += '\n';
      continue;
    }
    const std::size_t equals = line.find('=');
    if (equals == std::string::npos || equals == 0) {
      return std::nullopt;
    }
    const std::string key = trimmed(line.substr(0, equals));
    if (!seen.insert((section.empty() ? "\n" : section) + key).second) {
      return std::nullopt;
    }
    if (section.empty()) {
      keys[key] = trimmed(line.substr(equals + 1));
    }
  }
  return keys;
}

// The lowest display of the range, worked out from the agent's configuration as the library does
// when it starts: two keys, brought into 0 to 59535, else 100 to 159. A range that the library has
// kept from an earlier configuration can't be known here.
int lowestDisplay() {
  constexpr int kHighestAllowed = 59535;
  constexpr int kUsualLowest = 100;
  constexpr int kUsualHighest = 159;
  std::ifstream file(kConfigFile);
  if (!file) {
    if (errno != ENOENT) {
      fail(std::string("cannot read ") + kConfigFile);
    }
    return kUsualLowest;
  }
  const auto keys = readConfiguration(file);
  const auto numberOf = [&](const char* key, int usual) {
    if (!keys || keys->count(key) == 0) {
      return usual;
    }
    return configuredNumber(keys->at(key)).value_or(usual);
  };
  const int lowest = numberOf("Desktop.displayNumberMin", kUsualLowest);
  const int highest = numberOf("Desktop.displayNumberMax", kUsualHighest);
  const bool rejected = lowest > highest || (lowest < 0 && highest < 0) ||
                        (lowest > kHighestAllowed && highest > kHighestAllowed);
  return rejected ? kUsualLowest : std::max(lowest, 0);
}

class Table {
 public:
  Table(Table&& other) noexcept
      : id_(other.id_), records_(std::exchange(other.records_, nullptr)), count_(other.count_) {}
  Table& operator=(Table&&) = delete;
  ~Table() {
    if (records_ != nullptr) {
      static_cast<void>(shmdt(records_));
    }
  }

  // Nothing while there is no table, or none that the account may use yet. The key is worked out
  // anew each time: it changes with every life of the key file.
  static std::optional<Table> attach() {
    const key_t key = ftok(kKeyFile, kKeyProject);
    if (key == -1) {
      return std::nullopt;
    }
    const int id = shmget(key, 0, 0);
    shmid_ds status = {};
    if (id == -1 || shmctl(id, IPC_STAT, &status) != 0) {
      return std::nullopt;
    }
    void* const address = shmat(id, nullptr, 0);
    if (address == reinterpret_cast<void*>(-1)) {
      return std::nullopt;
    }
    return Table(id, static_cast<Record*>(address), status.shm_segsz / sizeof(Record));
  }

  // Removed, or no longer the one that the key file leads to.
  bool isRemoved() const {
    shmid_ds status = {};
    if (shmctl(id_, IPC_STAT, &status) != 0 || (status.shm_perm.mode & SHM_DEST) != 0) {
      return true;
    }
    const key_t key = ftok(kKeyFile, kKeyProject);
    const int id = key == -1 ? -1 : shmget(key, 0, 0);
    return id != -1 && id != id_;
  }

  bool holds(long index) const { return index >= 0 && static_cast<std::size_t>(index) < count_; }

  // The library reads while this writes; each field is one whole word.
  void write(long index, const Record& record) const {
    Record& place = records_[index];
    for (std::size_t i = 0; i < kDoubles; ++i) {
      std::atomic_ref(place.figures[i]).store(record.figures[i], std::memory_order_relaxed);
    }
    for (std::size_t i = 0; i < kCounters; ++i) {
      std::atomic_ref(place.bytes[i]).store(record.bytes[i], std::memory_order_relaxed);
    }
  }

 private:
  Table(int id, Record* records, std::size_t count) : id_(id), records_(records), count_(count) {}

  int id_;
  Record* records_;
  std::size_t count_;
};

// --- The counters.

// What a desktop in use looks like, different for each display: figures that swing, bytes that only
// grow.
void advance(Record& record, double (&sums)[kCounters], int display, double second,
             double seconds) {
  const auto swing = [&](double period) { return std::sin(second / period + display); };
  const double frames = 24.0 + 6.0 * swing(7.0);
  const double roundTrip = 18.0 + 7.0 * swing(5.0);
  const double loss = std::max(0.0, 1.5 * swing(11.0));
  const double bandwidth = 900.0 + 300.0 * swing(3.0);
  record.figures[0] = frames;
  record.figures[1] = roundTrip;
  record.figures[2] = loss;
  record.figures[3] = bandwidth;
  const double perSecond[kCounters] = {2'000, frames * 12'000, 500, 16'000, 150, 900};
  for (std::size_t i = 0; i < kCounters; ++i) {
    // Summed up as a fraction, or a slow counter would never move.
    sums[i] += perSecond[i] * seconds;
    record.bytes[i] = static_cast<std::uint64_t>(sums[i]);
  }
}

double now() {
  timespec time = {};
  static_cast<void>(clock_gettime(CLOCK_MONOTONIC, &time));
  return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) / 1e9;
}

void say(const std::string& text) {
  static_cast<void>(std::fprintf(stderr, "flareworker-sim: %s\n", text.c_str()));
}

// Blocks the two signals that end the program, so that they end it between two writes only.
sigset_t blockedSignals() {
  sigset_t ending;
  sigemptyset(&ending);
  sigaddset(&ending, SIGTERM);
  sigaddset(&ending, SIGINT);
  static_cast<void>(sigprocmask(SIG_BLOCK, &ending, nullptr));
  return ending;
}

// Whether one of the signals came.
bool waited(const sigset_t& ending, long milliseconds) {
  const timespec time = {milliseconds / 1000, milliseconds % 1000 * 1'000'000};
  return sigtimedwait(&ending, nullptr, &time) > 0;
}

// Writes until the table is removed or a signal ends the program; true: the latter.
bool fill(const Table& table, const Options& options, const sigset_t& ending) {
  const int lowest = lowestDisplay();
  for (const Session& session : options.sessions) {
    if (!table.holds(long{session.display} - lowest)) {
      throw Failure("display " + std::to_string(session.display) +
                    " is outside the table, which begins with " + std::to_string(lowest));
    }
  }
  struct Moving {
    Record record;
    double sums[kCounters] = {};
  };
  std::vector<Moving> moving(options.sessions.size());
  double before = now();
  while (!table.isRemoved()) {
    const double second = now();
    for (std::size_t i = 0; i < moving.size(); ++i) {
      const Session& session = options.sessions[i];
      if (!session.fixed) {
        advance(moving[i].record, moving[i].sums, session.display, second, second - before);
      }
      table.write(long{session.display} - lowest, session.fixed.value_or(moving[i].record));
    }
    before = second;
    if (options.once || waited(ending, options.intervalMs)) {
      return true;
    }
  }
  return false;
}

void run(const Options& options) {
  const sigset_t ending = blockedSignals();
  becomeWorker();
  bool told = false;
  while (true) {
    if (const std::optional<Table> table = Table::attach()) {
      // One that has appeared just now is handed over first and zeroed then.
      if (told && waited(ending, options.intervalMs)) {
        return;
      }
      told = false;
      say("writing");
      if (fill(*table, options, ending)) {
        return;
      }
    } else if (!told) {
      told = true;
      say("waiting for a session table");
    }
    if (waited(ending, options.intervalMs)) {
      return;
    }
  }
}

}  // namespace

int main(int argc, char** argv) {
  try {
    run(parse(argc, argv));
  } catch (const WrongCall& wrong) {
    say(wrong.what());
    static_cast<void>(std::fputs(kUsage, stderr));
    return kWrongCall;
  } catch (const Failure& failure) {
    say(failure.what());
    return kFailed;
  }
  return 0;
}

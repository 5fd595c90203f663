#include "tools/exchange_trace.h"

#include <math.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>

#include <algorithm>
#include <functional>
#include <iterator>
#include <map>
#include <set>
#include <unordered_map>
#include <utility>

#include "redundancy_health/transfer/update_message.h"

namespace {

constexpr double kSameExchange = 15;  // s, maximum difference between the times in both logs
constexpr size_t kKeptUpdates = 32;   // at each end of a run
constexpr ptrdiff_t kSearched = 256;  // steps of the other log to search for a step of this one
constexpr size_t kLateMessages = 16;  // how many exchanges back a late message may belong to

// Beginnings of error texts, because the private log has no levels.
const char* const kErrors[] = {
    "Sync Error: ", "Unable to ",       "Could not ",      "could not ",
    "failed to ",   "call to lstat ",   "maximum dir",     "Invalid digest ",
    "Malformed ",   "Corrupt ",         "Error occurred ", "Attempt to up",
    "Call to ",     "Bad RPC message ", "Received mal",    "Invalid CPG message ",
};

constexpr size_t kNoStep = SIZE_MAX;

using Reader = TraceReader;

// Interns a name.
std::string_view intern(const std::string& name) {
  static std::set<std::string, std::less<>> names;
  return *names.insert(name).first;
}

bool starts_with(const std::string& text, const char* prefix) {
  return text.rfind(prefix, 0) == 0;
}

// The text after a prefix, which `text` contains.
std::string behind(const std::string& text, const char* prefix) {
  return text.substr(std::string(prefix).size());
}

TracedExchange* begin(Reader* reader, bool own, uint32_t id, double time) {
  TracedExchange exchange;
  exchange.requester = own ? reader->log : 1 - reader->log;
  exchange.id = id;
  exchange.begin = exchange.end = time;
  if (own) exchange.why = reader->why;
  if (!reader->found.empty()) reader->found.back().steps.shrink_to_fit();
  reader->found.push_back(std::move(exchange));
  reader->open = true;
  reader->handled = kNoStep;
  return &reader->found.back();
}

// The path relative to the root of its tree.
std::string name_in_tree(const std::string& path) {
  const size_t root = path.find("/replicated_by_");
  const size_t name = root == std::string::npos ? root : path.find('/', root + 1);
  return name == std::string::npos ? path : path.substr(name + 1);
}

void add_path(Moved* moved, const std::string& path) {
  const size_t number = std::hash<std::string>()(path);
  if (moved->paths.empty() || moved->paths.back() != number) moved->paths.push_back(number);
}

void take_cause(Reader* reader, const std::string& text) {
  static const char kRename[] = "SYNC RPC rename: src=";
  static const char kDelete[] = "SYNC RPC delete: dest=";
  const size_t to = text.find(" dest=");
  if (starts_with(text, kRename) && to != std::string::npos) {
    const std::string source = text.substr(sizeof kRename - 1, to - (sizeof kRename - 1));
    const std::string destination = text.substr(to + 6);
    const bool put = source.find("/TempUpdate_") != std::string::npos;
    reader->why =
        put ? "put " + name_in_tree(destination) : "update " + source + " -> " + destination;
  } else if (starts_with(text, kDelete)) {
    reader->why = "delete " + behind(text, kDelete);
  } else if (starts_with(text, "SYNC running explicit sync request")) {
    reader->why = "sync";
  } else if (starts_with(text, "Received sync diag command")) {
    reader->why = "diag sync";
  } else if (starts_with(text, "Initial sync operation")) {
    reader->why = "the other EM joined";
  } else if (starts_with(text, "Attempting to resync")) {
    reader->why = "resync after a failure";
  }
}

// Length of a path in bytes. The journal writes unprintable bytes as "\\xNN".
int64_t path_size(const std::string& path) {
  int64_t size = 0;
  for (size_t i = 0; i < path.size(); ++size) {
    const std::string digits = path.compare(i, 2, "\\x") == 0 ? path.substr(i + 2, 2) : "";
    char* end = nullptr;
    const unsigned long byte = strtoul(digits.c_str(), &end, 16);
    const bool escaped = *end == '\0' && digits.size() == 2 && (byte < 0x20 || byte >= 0x7F);
    i += escaped ? 4 : 1;
  }
  return size;
}

// Counts "PUSH_REQ name" with the bytes of its payload.
void count_move(TracedExchange* exchange, const std::string& what, int64_t payload) {
  const size_t blank = what.find(' ');
  if (blank == std::string::npos) return;
  const std::string type = what.substr(0, blank);
  const std::string path = what.substr(blank + 1);
  const int64_t header = static_cast<int64_t>(sizeof(UpdateHeader)) + path_size(path) + 1;
  const uint64_t data = payload > header ? static_cast<uint64_t>(payload - header) : 0;
  if (type == "PUSH_DEL_REQ") add_path(&exchange->moved[kDeleted], path);
  if (type != "PUSH_REQ" && type != "PULL_ACK") return;
  Moved* moved = &exchange->moved[type == "PUSH_REQ" ? kPushed : kPulled];
  add_path(moved, path);
  moved->bytes += data;
}

void take_send(Reader* reader, const TraceLine& line) {
  TraceStep step;
  char name[32] = "";
  unsigned long long size = 0;
  if (!reader->open ||
      sscanf(line.text.c_str(), "Send CPG msg: %31s xid=%*u sid=%u payload-len=%llu", name,
             &step.sequence_id, &size) != 3)
    return;
  TracedExchange* exchange = &reader->found.back();
  step.time = line.time;
  step.message = intern(name);
  step.by_requester = exchange->requester == reader->log;
  step.delivered = false;
  step.bytes = static_cast<int64_t>(size);
  step.what.swap(reader->what);
  count_move(exchange, step.what, step.bytes);
  exchange->steps.push_back(std::move(step));
}

// Whether a message is for an exchange that has ended and came too late to have an effect.
bool is_late(const Reader& reader, int requester, uint32_t id) {
  const std::vector<TracedExchange>& found = reader.found;
  const size_t first = found.size() - std::min(found.size(), kLateMessages);
  return std::any_of(found.begin() + static_cast<ptrdiff_t>(first), found.end(),
                     [&](const TracedExchange& exchange) {
                       return exchange.requester == requester && exchange.id == id;
                     });
}

// Makes the exchange of a message the open one. Returns false if the message belongs to none: a
// lock request that came second, or a release after a join or a departure.
bool find_exchange(Reader* reader, double time, const std::string& state, bool own,
                   const std::string& message, uint32_t id) {
  TracedExchange* current = reader->open ? &reader->found.back() : nullptr;
  if (message == "MSG_LOCK_REL") return current != nullptr;
  if (message == "MSG_LOCK_REQ" && !own) {
    if (state == "ST_LISTREQ" || state == "ST_UPDATE") return false;
    if (current != nullptr && state == "ST_LOCKREQ") {
      current->gave_way = true;
      current->steps.clear();
    }
    begin(reader, false, id, time);
  } else if (message == "MSG_LOCK_REQ" && state == "ST_PEERLOCK") {
    return false;
  } else if (current == nullptr || current->id != id) {  // lines are missing
    const bool answer = message == "MSG_LISTING_ACK" || message == "MSG_UPDATE_ACK";
    const bool asked_here = own != answer;
    if (is_late(*reader, asked_here ? reader->log : 1 - reader->log, id)) return false;
    reader->why.clear();
    begin(reader, asked_here, id, time)->complete = false;
  }
  return true;
}

bool is_good_update(const TraceStep& step) {
  return step.message.starts_with("MSG_UPDATE_") && step.delivered && step.failures.empty();
}

// Removes successful updates that are far from either end of a run.
void drop_middle(Reader* reader) {
  std::vector<TraceStep>* steps = &reader->found.back().steps;
  if (steps->size() < 8 * kKeptUpdates) return;
  const auto from = steps->begin() + static_cast<ptrdiff_t>(2 * kKeptUpdates);
  const auto to = steps->end() - static_cast<ptrdiff_t>(2 * kKeptUpdates);
  size_t left_out = 0;
  auto kept = from;
  for (auto step = from; step != to; ++step) {
    if (is_good_update(*step)) {
      left_out += 1 + step->left_out;
      continue;
    }
    step->left_out += std::exchange(left_out, 0);
    if (kept != step) *kept = std::move(*step);
    ++kept;
  }
  to->left_out += left_out;
  steps->erase(kept, to);
}

// The index of an own message that was sent and is now delivered, or of a new step.
size_t find_step(std::vector<TraceStep>* steps, bool own, const std::string& message,
                 uint32_t sequence_id) {
  for (size_t i = steps->size(); own && i-- > 0;) {
    const TraceStep& step = (*steps)[i];
    if (!step.delivered && step.message == message && step.sequence_id == sequence_id) return i;
  }
  steps->emplace_back();
  return steps->size() - 1;
}

void take_message(Reader* reader, double time, bool own, const std::string& message,
                  uint32_t sequence_id) {
  drop_middle(reader);
  TracedExchange* exchange = &reader->found.back();
  reader->handled = find_step(&exchange->steps, own, message, sequence_id);
  TraceStep* step = &exchange->steps[reader->handled];
  step->time = time;
  step->message = intern(message);
  step->sequence_id = sequence_id;
  step->by_requester = own == (exchange->requester == reader->log);
  step->delivered = true;
  exchange->end = std::max(exchange->end, time);
  if (message != "MSG_LOCK_REL") return;
  exchange->ended = true;
  if (exchange->requester == reader->log) reader->why.clear();
}

void enter_state(Reader* reader, const TraceLine& line) {
  char state[16] = "";
  char who[8] = "";
  char message[32] = "";
  int id = 0;
  int sequence_id = 0;
  if (sscanf(line.text.c_str(), "Enter state change: %15s %7[^:]:%31s %*s id=%*u.%*u hid=%d.%d",
             state, who, message, &id, &sequence_id) != 5)
    return;
  const std::string name = message;
  const bool own = std::string(who) == "self";
  reader->handled = kNoStep;
  if (std::string(state) == "ST_UNLOCKED") reader->open = false;  // even if the log lacks its end
  if (starts_with(name, "MSG_")) {
    if (find_exchange(reader, line.time, state, own, name, static_cast<uint32_t>(id)))
      take_message(reader, line.time, own, name, static_cast<uint32_t>(sequence_id));
  } else if (reader->open && starts_with(name, "ON_CPG_")) {
    TraceStep step;
    step.time = line.time;
    step.message = intern(name);
    reader->handled = reader->found.back().steps.size();
    reader->found.back().steps.push_back(std::move(step));
  }
}

void leave_state(Reader* reader, const std::string& text) {
  char state[16] = "";
  if (!reader->open || reader->handled == kNoStep ||
      sscanf(text.c_str(), "Exit  state change: %15s", state) != 1)
    return;
  TracedExchange* exchange = &reader->found.back();
  TraceStep* step = &exchange->steps[reader->handled];
  (exchange->requester == reader->log ? step->requester_state : step->responder_state) =
      intern(state);
  reader->handled = kNoStep;
  reader->open = !exchange->ended;
}

// Records a file that was written or deleted here. The responder logs nothing else about it.
bool take_local_change(TracedExchange* exchange, bool own, const std::string& text) {
  unsigned size = 0;
  const size_t quote = text.find('\'');
  if (sscanf(text.c_str(), "SYNC updating chunk atomic=%*d size=%u", &size) == 1 &&
      quote != std::string::npos) {
    Moved* moved = &exchange->moved[own ? kPulled : kPushed];
    add_path(moved, text.substr(quote));
    moved->bytes += size;
    return true;
  }
  const bool deletes =
      starts_with(text, "SYNC Deleting file ") || starts_with(text, "@@ Pull del:");
  if (deletes) add_path(&exchange->moved[kDeleted], text);
  return deletes;
}

// Appends a text unless it is already there.
void add_failure(TraceStep* step, const std::string& text) {
  auto last = step->failures.before_begin();
  for (auto next = step->failures.begin(); next != step->failures.end(); last = next++)
    if (*next == text) return;
  step->failures.insert_after(last, text);
}

bool take_failure(TracedExchange* exchange, const std::string& text) {
  const bool is_failure = std::any_of(std::begin(kErrors), std::end(kErrors),
                                      [&](const char* error) { return starts_with(text, error); });
  if (!is_failure) return false;
  const std::string reason =
      starts_with(text, "Sync Error: ") ? behind(text, "Sync Error: ") : text;
  if (exchange->failure.empty()) exchange->failure = reason;
  if (!exchange->steps.empty()) add_failure(&exchange->steps.back(), reason);
  return true;
}

// Adds the other log's information about an exchange to that of the requester's log.
void add_view(TracedExchange* exchange, const TracedExchange& other) {
  if (exchange->failure.empty()) exchange->failure = other.failure;
  auto from = other.steps.begin();
  for (TraceStep& step : exchange->steps) {
    const auto last = other.steps.end() - from > kSearched ? from + kSearched : other.steps.end();
    const auto same = std::find_if(from, last, [&](const TraceStep& theirs) {
      return theirs.message == step.message && theirs.sequence_id == step.sequence_id;
    });
    if (same == last) continue;
    step.responder_state = same->responder_state;
    if (step.bytes < 0) step.bytes = same->bytes;
    if (step.what.empty()) step.what = same->what;
    for (const std::string& failure : same->failures)
      add_failure(&step, failure);
    from = same + 1;
  }
}

// Converts the times of one EM's clock to the other's.
void shift_times(TracedExchange* exchange, double seconds) {
  if (seconds == 0) return;
  exchange->begin += seconds;
  exchange->end += seconds;
  for (TraceStep& step : exchange->steps)
    step.time += seconds;
}

// The exchanges of the second log by requester and id. Ids start again with the daemon.
using Places = std::unordered_map<uint64_t, std::vector<size_t>>;

uint64_t key_of(const TracedExchange& exchange) {
  return uint64_t{exchange.id} * 2 + static_cast<uint64_t>(exchange.requester);
}

// The clock difference that most pairs of exchanges with the same id agree on.
double find_clock_difference(const std::vector<TracedExchange>& first,
                             const std::vector<TracedExchange>& second, const Places& places) {
  std::map<int64_t, std::vector<double>> votes;  // by whole seconds
  for (const TracedExchange& exchange : first) {
    const auto candidates = places.find(key_of(exchange));
    if (candidates == places.end() || candidates->second.size() > kLateMessages) continue;
    for (const size_t place : candidates->second) {
      const double difference = second[place].begin - exchange.begin;
      votes[llround(difference)].push_back(difference);
    }
  }
  const auto most = std::max_element(votes.begin(), votes.end(), [](const auto& a, const auto& b) {
    return a.second.size() != b.second.size() ? a.second.size() < b.second.size()
                                              : std::abs(a.first) > std::abs(b.first);
  });
  if (most == votes.end()) return 0;
  std::vector<double>& differences = most->second;
  const auto middle = differences.begin() + static_cast<ptrdiff_t>(differences.size() / 2);
  std::nth_element(differences.begin(), middle, differences.end());
  return *middle;
}

// The index in the second log of an exchange in the first log: of those with the same requester and
// id, the one closest in time. npos if none is within kSameExchange.
size_t find_same(const TracedExchange& exchange, const std::vector<TracedExchange>& second,
                 const Places& places, double ahead) {
  const auto candidates = places.find(key_of(exchange));
  if (candidates == places.end()) return std::string::npos;
  size_t best = std::string::npos;
  double least = kSameExchange;
  for (const size_t place : candidates->second) {
    const double distance = fabs(second[place].begin - exchange.begin - ahead);
    if (distance > least) continue;
    least = distance;
    best = place;
  }
  return best;
}

// For each exchange of one log, the index of the same one in the other log.
using Matches = std::vector<size_t>;

Matches match_exchanges(const std::vector<TracedExchange>& first,
                        const std::vector<TracedExchange>& second, const Places& places,
                        double ahead) {
  std::vector<bool> taken(second.size(), false);
  Matches matches;
  for (const TracedExchange& exchange : first) {
    size_t place = find_same(exchange, second, places, ahead);
    if (place != std::string::npos && taken[place]) place = std::string::npos;
    if (place != std::string::npos) taken[place] = true;
    matches.push_back(place);
  }
  return matches;
}

// Merges the information of both logs, with the times of the first.
void join_views(TracedExchange* exchange, TracedExchange* other) {
  const double first = exchange->begin;
  if (exchange->requester != 0) std::swap(*exchange, *other);
  shift_times(exchange, first - exchange->begin);
  add_view(exchange, *other);
}

}  // namespace

void take_trace_line(Reader* reader, const TraceLine& line) {
  const std::string& text = line.text;
  int id = 0;
  take_cause(reader, text);
  if (sscanf(text.c_str(), "Starting new exchange id=%d", &id) == 1) {
    begin(reader, true, static_cast<uint32_t>(id), line.time);
  } else if (line.function == "on_sync_state_change") {
    if (starts_with(text, "Enter ")) {
      enter_state(reader, line);
    } else {
      leave_state(reader, text);
    }
  } else if (starts_with(text, "Send CPG msg: ")) {
    take_send(reader, line);
  } else if (line.function == "send_update_message" && starts_with(text, "Send ")) {
    reader->what = behind(text, "Send ");
  } else if (reader->open && line.function != "on_rpc_update" &&
             line.function != "cleanup_thread_fn") {  // ignore other threads
    TracedExchange* exchange = &reader->found.back();
    if (take_local_change(exchange, exchange->requester == reader->log, text) ||
        take_failure(exchange, text))
      exchange->end = std::max(exchange->end, line.time);
  }
}

JoinedExchanges join_exchanges(std::vector<TracedExchange> first,
                               std::vector<TracedExchange> second) {
  Places places;
  for (size_t i = 0; i < second.size(); ++i)
    places[key_of(second[i])].push_back(i);
  JoinedExchanges joined;
  joined.clock_ahead = find_clock_difference(first, second, places);
  const Matches matches = match_exchanges(first, second, places, joined.clock_ahead);
  std::vector<bool> told(second.size(), false);
  for (const size_t place : matches)
    if (place != std::string::npos) told[place] = true;
  size_t next = 0;  // in the second log
  const auto take_second = [&](size_t end) {
    for (; next < end; ++next) {
      if (told[next]) continue;
      shift_times(&second[next], -joined.clock_ahead);
      joined.all.push_back(std::move(second[next]));
    }
  };
  for (size_t i = 0; i < first.size(); ++i) {
    if (matches[i] != std::string::npos) {
      take_second(matches[i]);
      join_views(&first[i], &second[matches[i]]);
    }
    joined.all.push_back(std::move(first[i]));
  }
  take_second(second.size());
  std::stable_sort(joined.all.begin(), joined.all.end(),
                   [](const auto& a, const auto& b) { return a.begin < b.begin; });
  return joined;
}

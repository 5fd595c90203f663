#include "tools/exchange_trace.h"

#include <math.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>

#include <algorithm>

#include "redundancy_health/transfer/update_message.h"

namespace {

constexpr double kSameExchange = 15;  // seconds between the clocks of both EMs, at most

// Beginnings of the texts of errors. They have no level in the private log.
const char* const kErrors[] = {
    "Sync Error: ", "Unable to ",       "Could not ",      "could not ",
    "failed to ",   "call to lstat ",   "maximum dir",     "Invalid digest ",
    "Malformed ",   "Corrupt ",         "Error occurred ", "Attempt to up",
    "Call to ",     "Bad RPC message ", "Received mal",    "Invalid CPG message ",
};

constexpr size_t kNoStep = SIZE_MAX;

// What is known at one line of a log.
struct Reader {
  int log;
  std::vector<TracedExchange> found;
  bool open = false;         // found.back() goes on
  size_t handled = kNoStep;  // the step of found.back() between "Enter" and "Exit"
  std::string why;           // of the next exchange of this EM
  std::string what;          // of the next message sent
};

bool starts_with(const std::string& text, const char* prefix) {
  return text.rfind(prefix, 0) == 0;
}

// The text behind a prefix; `text` has it.
std::string behind(const std::string& text, const char* prefix) {
  return text.substr(std::string(prefix).size());
}

TracedExchange* begin(Reader* reader, bool own, uint32_t id, double time) {
  TracedExchange exchange;
  exchange.requester = own ? reader->log : 1 - reader->log;
  exchange.id = id;
  exchange.begin = exchange.end = time;
  if (own) exchange.why = reader->why;
  reader->found.push_back(exchange);
  reader->open = true;
  reader->handled = kNoStep;
  return &reader->found.back();
}

void take_cause(Reader* reader, const std::string& text) {
  static const char kRename[] = "SYNC RPC rename: src=";
  static const char kDelete[] = "SYNC RPC delete: dest=";
  const size_t to = text.find(" dest=");
  if (starts_with(text, kRename) && to != std::string::npos) {
    const size_t from = sizeof kRename - 1;
    reader->why = "update " + text.substr(from, to - from) + " -> " + text.substr(to + 6);
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

// Bytes of a path. The journal has control bytes as "\\xNN", whatever stands in the name.
int64_t path_size(const std::string& path) {
  int64_t size = 0;
  for (size_t i = 0; i < path.size(); ++size) {
    const std::string digits = path.compare(i, 2, "\\x") == 0 ? path.substr(i + 2, 2) : "";
    char* end = nullptr;
    const unsigned long byte = strtoul(digits.c_str(), &end, 16);
    const bool escaped = *end == '\0' && digits.size() == 2 && (byte < 0x20 || byte == 0x7F);
    i += escaped ? 4 : 1;
  }
  return size;
}

// "PUSH_REQ name" with the bytes of its file.
void count_move(TracedExchange* exchange, const std::string& what, int64_t payload) {
  const size_t blank = what.find(' ');
  if (blank == std::string::npos) return;
  const std::string type = what.substr(0, blank);
  const std::string path = what.substr(blank + 1);
  const int64_t header = static_cast<int64_t>(sizeof(UpdateHeader)) + path_size(path) + 1;
  const uint64_t data = payload > header ? static_cast<uint64_t>(payload - header) : 0;
  if (type == "PUSH_DEL_REQ") exchange->moved[kDeleted].paths.insert(path);
  if (type != "PUSH_REQ" && type != "PULL_ACK") return;
  Moved* moved = &exchange->moved[type == "PUSH_REQ" ? kPushed : kPulled];
  moved->paths.insert(path);
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
  step.message = name;
  step.by_requester = exchange->requester == reader->log;
  step.delivered = false;
  step.bytes = static_cast<int64_t>(size);
  step.what.swap(reader->what);
  count_move(exchange, step.what, step.bytes);
  exchange->steps.push_back(step);
}

// Makes the exchange to which a message belongs the open one. False when it belongs to none: a
// request for the lock that came second, a release after a join or a departure.
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
    reader->why.clear();
    begin(reader, own != answer, id, time)->complete = false;
  }
  return true;
}

void take_message(Reader* reader, double time, bool own, const std::string& message,
                  uint32_t sequence_id) {
  TracedExchange* exchange = &reader->found.back();
  std::vector<TraceStep>* steps = &exchange->steps;
  const auto sent = std::find_if(steps->rbegin(), steps->rend(), [&](const TraceStep& sent_step) {
    return own && !sent_step.delivered && sent_step.message == message &&
           sent_step.sequence_id == sequence_id;
  });
  size_t index = static_cast<size_t>(steps->rend() - sent);  // behind it
  if (index == 0) {
    steps->emplace_back();
    index = steps->size();
  }
  reader->handled = --index;
  TraceStep* step = &(*steps)[index];
  step->time = time;
  step->message = message;
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
  if (std::string(state) == "ST_UNLOCKED") reader->open = false;  // whatever the log has of its end
  if (starts_with(name, "MSG_")) {
    if (find_exchange(reader, line.time, state, own, name, static_cast<uint32_t>(id)))
      take_message(reader, line.time, own, name, static_cast<uint32_t>(sequence_id));
  } else if (reader->open && starts_with(name, "ON_CPG_")) {
    TraceStep step;
    step.time = line.time;
    step.message = name;
    reader->handled = reader->found.back().steps.size();
    reader->found.back().steps.push_back(step);
  }
}

void leave_state(Reader* reader, const std::string& text) {
  char state[16] = "";
  if (!reader->open || reader->handled == kNoStep ||
      sscanf(text.c_str(), "Exit  state change: %15s", state) != 1)
    return;
  TracedExchange* exchange = &reader->found.back();
  TraceStep* step = &exchange->steps[reader->handled];
  (exchange->requester == reader->log ? step->requester_state : step->responder_state) = state;
  reader->handled = kNoStep;
  reader->open = !exchange->ended;
}

// What was written or removed here: for the responder the only word of it.
bool take_local_change(TracedExchange* exchange, bool own, const std::string& text) {
  unsigned size = 0;
  const size_t quote = text.find('\'');
  if (sscanf(text.c_str(), "SYNC updating chunk atomic=%*d size=%u", &size) == 1 &&
      quote != std::string::npos) {
    Moved* moved = &exchange->moved[own ? kPulled : kPushed];
    moved->paths.insert(text.substr(quote));
    moved->bytes += size;
    return true;
  }
  const bool deletes =
      starts_with(text, "SYNC Deleting file ") || starts_with(text, "@@ Pull del:");
  if (deletes) exchange->moved[kDeleted].paths.insert(text);
  return deletes;
}

bool take_failure(TracedExchange* exchange, const std::string& text) {
  for (const char* error : kErrors) {
    if (!starts_with(text, error)) continue;
    const std::string reason =
        starts_with(text, "Sync Error: ") ? behind(text, "Sync Error: ") : text;
    if (exchange->failure.empty()) exchange->failure = reason;
    if (exchange->steps.empty()) return true;
    std::vector<std::string>* failures = &exchange->steps.back().failures;
    if (failures->empty() || failures->back() != reason) failures->push_back(reason);
    return true;
  }
  return false;
}

void take_line(Reader* reader, const TraceLine& line) {
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
             line.function != "cleanup_thread_fn") {  // other threads
    TracedExchange* exchange = &reader->found.back();
    if (take_local_change(exchange, exchange->requester == reader->log, text) ||
        take_failure(exchange, text))
      exchange->end = std::max(exchange->end, line.time);
  }
}

// Whether the logs of both EMs tell of the same exchange.
bool is_same(const TracedExchange& a, const TracedExchange& b) {
  return a.id == b.id && a.requester == b.requester && fabs(a.begin - b.begin) <= kSameExchange;
}

// Adds to what the requester's log tells of an exchange what the other log does.
void add_view(TracedExchange* exchange, const TracedExchange& other) {
  if (exchange->failure.empty()) exchange->failure = other.failure;
  auto from = other.steps.begin();
  for (TraceStep& step : exchange->steps) {
    const auto same = std::find_if(from, other.steps.end(), [&](const TraceStep& theirs) {
      return theirs.message == step.message && theirs.sequence_id == step.sequence_id;
    });
    if (same == other.steps.end()) continue;
    step.responder_state = same->responder_state;
    if (step.bytes < 0) step.bytes = same->bytes;
    if (step.what.empty()) step.what = same->what;
    for (const std::string& failure : same->failures)
      if (std::find(step.failures.begin(), step.failures.end(), failure) == step.failures.end())
        step.failures.push_back(failure);
    from = same + 1;
  }
}

}  // namespace

std::vector<TracedExchange> find_exchanges(const std::vector<TraceLine>& lines, int log) {
  Reader reader = {log, {}, false, kNoStep, "", ""};
  for (const TraceLine& line : lines)
    take_line(&reader, line);
  return reader.found;
}

std::vector<TracedExchange> join_exchanges(std::vector<TracedExchange> first,
                                           std::vector<TracedExchange> second) {
  std::vector<TracedExchange> all;
  auto next = second.begin();
  for (TracedExchange& exchange : first) {
    const auto other = std::find_if(next, second.end(), [&](const TracedExchange& candidate) {
      return is_same(candidate, exchange) || candidate.begin > exchange.begin + kSameExchange;
    });
    if (other != second.end() && is_same(*other, exchange)) {
      all.insert(all.end(), next, other);
      if (exchange.requester != 0) std::swap(exchange, *other);
      add_view(&exchange, *other);
      next = other + 1;
    }
    all.push_back(exchange);
  }
  all.insert(all.end(), next, second.end());
  std::stable_sort(all.begin(), all.end(),
                   [](const auto& a, const auto& b) { return a.begin < b.begin; });
  return all;
}

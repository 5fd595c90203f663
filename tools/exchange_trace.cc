#include "tools/exchange_trace.h"

#include <math.h>
#include <stdio.h>

#include <algorithm>
#include <deque>

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

struct SentMessage {
  std::string message;
  uint32_t sequence_id;
  int64_t bytes;
  std::string what;
};

// What is known at one line of a log.
struct Reader {
  int log;
  std::vector<TracedExchange> found;
  bool open = false;             // found.back() goes on
  std::string why;               // of the next exchange of this EM
  std::string what;              // of the next message sent
  std::deque<SentMessage> sent;  // and not come back yet
};

bool starts_with(const std::string& text, const char* prefix) {
  return text.rfind(prefix, 0) == 0;
}

// The text behind a prefix; `text` has it.
std::string behind(const std::string& text, const char* prefix) {
  return text.substr(std::string(prefix).size());
}

void close(Reader* reader) {
  if (!reader->open) return;
  TracedExchange* exchange = &reader->found.back();
  for (const SentMessage& lost : reader->sent) {
    TraceStep step;
    step.time = exchange->end;
    step.message = lost.message;
    step.sequence_id = lost.sequence_id;
    step.by_requester = exchange->requester == reader->log;
    step.delivered = false;
    step.bytes = lost.bytes;
    step.what = lost.what;
    exchange->steps.push_back(step);
  }
  reader->sent.clear();
  reader->open = false;
}

TracedExchange* begin(Reader* reader, bool own, uint32_t id, double time) {
  close(reader);
  TracedExchange exchange;
  exchange.requester = own ? reader->log : 1 - reader->log;
  exchange.id = id;
  exchange.begin = exchange.end = time;
  if (own) exchange.why = reader->why;
  reader->found.push_back(exchange);
  reader->open = true;
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

// "PUSH_REQ name" with the bytes of its file.
void count_move(TracedExchange* exchange, const std::string& what, int64_t payload) {
  const size_t blank = what.find(' ');
  if (blank == std::string::npos) return;
  const std::string type = what.substr(0, blank);
  const std::string path = what.substr(blank + 1);
  const int64_t header = static_cast<int64_t>(sizeof(UpdateHeader) + path.size() + 1);
  const uint64_t data = payload > header ? static_cast<uint64_t>(payload - header) : 0;
  if (type == "PUSH_DEL_REQ") exchange->moved[kDeleted].paths.insert(path);
  if (type != "PUSH_REQ" && type != "PULL_ACK") return;
  Moved* moved = &exchange->moved[type == "PUSH_REQ" ? kPushed : kPulled];
  moved->paths.insert(path);
  moved->bytes += data;
}

void take_send(Reader* reader, const std::string& text) {
  SentMessage message = {};
  char name[32] = "";
  unsigned long long size = 0;
  if (sscanf(text.c_str(), "Send CPG msg: %31s xid=%*u sid=%u payload-len=%llu", name,
             &message.sequence_id, &size) != 3)
    return;
  message.message = name;
  message.bytes = static_cast<int64_t>(size);
  message.what.swap(reader->what);
  if (reader->open) count_move(&reader->found.back(), message.what, message.bytes);
  reader->sent.push_back(message);
}

// A message came: from whom, of which exchange, what was sent with it.
void take_message(Reader* reader, double time, const std::string& state, bool own,
                  const std::string& message, uint32_t id, uint32_t sequence_id) {
  const bool answer = message == "MSG_LISTING_ACK" || message == "MSG_UPDATE_ACK";
  if (message == "MSG_LOCK_REQ" && !own) {
    if (reader->open && state == "ST_LOCKREQ") reader->found.back().gave_way = true;
    begin(reader, false, id, time);
  } else if (!reader->open) {
    if (message == "MSG_LOCK_REL") return reader->sent.clear();  // after a join or a departure
    begin(reader, own != answer, id, time)->complete = false;
  }
  TracedExchange* exchange = &reader->found.back();
  TraceStep step;
  step.time = exchange->end = time;
  step.message = message;
  step.sequence_id = sequence_id;
  step.by_requester = own == (exchange->requester == reader->log);
  const auto sent = std::find_if(reader->sent.begin(), reader->sent.end(), [&](const auto& m) {
    return own && m.message == message && m.sequence_id == sequence_id;
  });
  if (sent != reader->sent.end()) {
    step.bytes = sent->bytes;
    step.what = sent->what;
    reader->sent.erase(sent);
  }
  exchange->steps.push_back(step);
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
  if (starts_with(name, "MSG_")) {
    take_message(reader, line.time, state, std::string(who) == "self", name,
                 static_cast<uint32_t>(id), static_cast<uint32_t>(sequence_id));
  } else if (reader->open && starts_with(name, "ON_CPG_")) {
    TraceStep step;
    step.time = line.time;
    step.message = name;
    reader->found.back().steps.push_back(step);
  }
}

void leave_state(Reader* reader, const std::string& text) {
  char state[16] = "";
  if (!reader->open || sscanf(text.c_str(), "Exit  state change: %15s", state) != 1) return;
  TracedExchange* exchange = &reader->found.back();
  if (exchange->steps.empty()) return;
  TraceStep* step = &exchange->steps.back();
  (exchange->requester == reader->log ? step->requester_state : step->responder_state) = state;
  if (exchange->ended) close(reader);
}

// What was written or removed here: for the responder the only word of it.
void take_local_change(TracedExchange* exchange, bool own, const std::string& text) {
  unsigned size = 0;
  const size_t quote = text.find('\'');
  if (sscanf(text.c_str(), "SYNC updating chunk atomic=%*d size=%u", &size) == 1 &&
      quote != std::string::npos) {
    Moved* moved = &exchange->moved[own ? kPulled : kPushed];
    moved->paths.insert(text.substr(quote));
    moved->bytes += size;
  } else if (starts_with(text, "SYNC Deleting file ") || starts_with(text, "@@ Pull del:")) {
    exchange->moved[kDeleted].paths.insert(text);
  }
}

void take_failure(TracedExchange* exchange, const std::string& text) {
  for (const char* error : kErrors) {
    if (!starts_with(text, error)) continue;
    const std::string reason =
        starts_with(text, "Sync Error: ") ? behind(text, "Sync Error: ") : text;
    if (exchange->failure.empty()) exchange->failure = reason;
    if (exchange->steps.empty()) return;
    std::vector<std::string>* failures = &exchange->steps.back().failures;
    if (failures->empty() || failures->back() != reason) failures->push_back(reason);
    return;
  }
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
    take_send(reader, text);
  } else if (line.function == "send_update_message" && starts_with(text, "Send ")) {
    reader->what = behind(text, "Send ");
  } else if (reader->open && line.function != "on_rpc_update") {
    TracedExchange* exchange = &reader->found.back();
    exchange->end = std::max(exchange->end, line.time);
    take_local_change(exchange, exchange->requester == reader->log, text);
    take_failure(exchange, text);
  }
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
  Reader reader = {log, {}, false, "", "", {}};
  for (const TraceLine& line : lines)
    take_line(&reader, line);
  close(&reader);
  return reader.found;
}

std::vector<TracedExchange> join_exchanges(std::vector<TracedExchange> first,
                                           std::vector<TracedExchange> second) {
  std::vector<bool> joined(second.size(), false);
  for (TracedExchange& exchange : first) {
    for (size_t i = 0; i < second.size(); ++i) {
      TracedExchange* other = &second[i];
      if (joined[i] || other->id != exchange.id || other->requester != exchange.requester ||
          fabs(other->begin - exchange.begin) > kSameExchange)
        continue;
      if (exchange.requester != 0) std::swap(exchange, *other);
      add_view(&exchange, *other);
      joined[i] = true;
      break;
    }
  }
  for (size_t i = 0; i < second.size(); ++i)
    if (!joined[i]) first.push_back(second[i]);
  std::stable_sort(first.begin(), first.end(),
                   [](const auto& a, const auto& b) { return a.begin < b.begin; });
  return first;
}

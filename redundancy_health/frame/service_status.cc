#include "redundancy_health/frame/service_status.h"

#include <unistd.h>

#include <string>

#include "platform/service_manager.h"
#include "redundancy_health/frame/state_report.h"
#include "redundancy_health/frame/state_summary.h"

void announce_main_process() {
  notify_service_manager(("MAINPID=" + std::to_string(getpid())).c_str());
}

void tell_service_manager(bool alive) {
  static bool ready = false;
  static std::string told;
  if (!service_manager_listens()) return;
  StateRecord state;
  read_state(&state);
  std::string text;
  if (!ready && state.joined) {
    ready = true;
    text = "READY=1\n";
  }
  const std::string summary = state_summary(state);
  if (summary != told) text += "STATUS=" + summary + "\n";
  told = summary;
  if (alive) text += "WATCHDOG=1\n";
  if (!text.empty()) notify_service_manager(text.c_str());
}
